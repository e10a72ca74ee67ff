// The input stream record and STREAM_GETC, which reads one character and keeps
// the line and column counts that every warning quotes.
// Owns: nothing. Calls: the C standard I/O library.
#pragma once

#include <cstdint>
#include <cstdio>

struct InputStream {
    FILE* file = nullptr;
    int32_t column = 1;    // column of the next character, counting from 1
    int32_t line = 1;      // current line, counting from 1
    int32_t lastChar = -1; // the last value read, end of input included
};

// Returns the character as a signed 8-bit value widened to int; end of input
// is -1, and so is the byte 255, which therefore ends the input.
inline int STREAM_GETC(InputStream& stream) {
    int c = getc_unlocked(stream.file);
    stream.lastChar = c;
    if (c == '\n') {
        stream.line++;
        stream.column = 1;
    } else {
        stream.column++;
    }
    return static_cast<signed char>(static_cast<unsigned char>(c));
}
