// Private to the writer: the small writes every statement is made of. The
// streams are this program's alone, so they skip stdio's locking; with the
// GNU C library a text that fits the stream's buffer is copied in place, as
// its putc_unlocked does for one character. Numbers are formatted by hand or
// by std::to_chars, which give exactly what printf's %d, %u and %.3f give.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace writer {

inline bool put(const char* text, size_t n, FILE* stream) {
#ifdef __GLIBC__
    if (static_cast<size_t>(stream->_IO_write_end - stream->_IO_write_ptr) >= n) {
        std::memcpy(stream->_IO_write_ptr, text, n);
        stream->_IO_write_ptr += n;
        return true;
    }
#endif
    return fwrite_unlocked(text, 1, n, stream) == n;
}

template <size_t N>
inline bool put(const char (&text)[N], FILE* stream) {
    return put(text, N - 1, stream);
}

inline bool putText(const char* text, FILE* stream) { return put(text, std::strlen(text), stream); }

// %u
inline bool putUnsigned(uint32_t u, FILE* stream) {
    char digits[10];
    char* p = digits + sizeof digits;
    do {
        *--p = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    return put(p, static_cast<size_t>(digits + sizeof digits - p), stream);
}

// %d
inline bool putNumber(int32_t v, FILE* stream) {
    if (v < 0 && !put("-", stream)) return false;
    return putUnsigned(v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v), stream);
}

// %.3f
inline bool putFixed3(double v, FILE* stream) {
    char text[400];  // the longest double printed with three decimals fits
    auto [end, error] = std::to_chars(text, text + sizeof text, v, std::chars_format::fixed, 3);
    if (error != std::errc()) return fprintf(stream, "%.3f", v) >= 0;
    return put(text, static_cast<size_t>(end - text), stream);
}

}  // namespace writer
