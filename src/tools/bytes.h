// Byte copies that the pushback needs often: it keeps its text back to
// front, so that the next character is always at its end.
// Owns: nothing. Calls: nothing beyond the standard library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Copies [first, last) to `out` in reverse order, eight bytes a step: the
// pushback turns every macro body and string it takes round, and reading a
// line of it turns the line back.
inline void reverseCopy(const char* first, const char* last, char* out) {
    while (last - first >= 8) {
        last -= 8;
        uint64_t word;
        std::memcpy(&word, last, 8);
        word = __builtin_bswap64(word);
        std::memcpy(out, &word, 8);
        out += 8;
    }
    while (last != first) *out++ = *--last;
}
