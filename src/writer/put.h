// Private to the writer: the small writes every statement is made of. The
// streams are this program's alone, so they skip stdio's locking; with the
// GNU C library a text that fits the stream's buffer is copied in place, as
// its putc_unlocked does for one character. Numbers are formatted by hand or
// by std::to_chars, which give exactly what printf's %d, %u and %.3f give.
#pragma once

#include <charconv>
#include <cmath>
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

// Writes the first n bytes of a span of kSpan that may all be read. When
// the buffer has room for the whole span the copy has a fixed length, a few
// moves rather than a call; the bytes past n are free space for later writes.
template <size_t kSpan>
inline bool putSpan(const char* text, size_t n, FILE* stream) {
#ifdef __GLIBC__
    if (n <= kSpan && static_cast<size_t>(stream->_IO_write_end - stream->_IO_write_ptr) >= kSpan) {
        std::memcpy(stream->_IO_write_ptr, text, kSpan);
        stream->_IO_write_ptr += n;
        return true;
    }
#endif
    return put(text, n, stream);
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

// The longest float printed with three decimals: a sign, 39 digits, the
// point and three more.
inline constexpr size_t kFixed3Max = 48;

// Writes %.3f of a float at `out` and returns its end. A float's 24
// significant bits times 1000 fit a double's 53, so the product is exact and
// rounding it to a whole number, halves to even, rounds as printf does;
// values too large for that go to std::to_chars.
inline char* fixed3(float f, char* out) {
    const double v = f;
    const double x = std::fabs(v * 1000.0);
    if (!(x < 9.0e15)) return std::to_chars(out, out + kFixed3Max, v, std::chars_format::fixed, 3).ptr;
    const double whole = std::floor(x);
    const double part = x - whole;
    uint64_t r = static_cast<uint64_t>(whole);
    if (part > 0.5 || (part == 0.5 && (r & 1) != 0)) ++r;
    char digits[24];
    char* p = digits + sizeof digits;
    for (int i = 0; i < 3; ++i) {
        *--p = static_cast<char>('0' + r % 10);
        r /= 10;
    }
    *--p = '.';
    do {
        *--p = static_cast<char>('0' + r % 10);
        r /= 10;
    } while (r != 0);
    if (std::signbit(v)) *--p = '-';
    const size_t n = static_cast<size_t>(digits + sizeof digits - p);
    std::memcpy(out, p, n);
    return out + n;
}

// A statement line built in place and written with one call. Its user keeps
// it within its size: texts of unbounded length are written apart.
class Line {
public:
    static constexpr size_t kSize = 320;
    static constexpr size_t kShort = 64;

    template <size_t N>
    void add(const char (&text)[N]) {
        std::memcpy(text_ + n_, text, N - 1);
        n_ += N - 1;
    }
    void add(const char* text, size_t n) {
        std::memcpy(text_ + n_, text, n);
        n_ += n;
    }
    void addUnsigned(uint32_t u) {  // %u
        char digits[10];
        char* p = digits + sizeof digits;
        do {
            *--p = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u != 0);
        add(p, static_cast<size_t>(digits + sizeof digits - p));
    }
    void addNumber(int32_t v) {  // %d
        if (v < 0) text_[n_++] = '-';
        addUnsigned(v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v));
    }
    void addFixed3(float v) { n_ = static_cast<size_t>(fixed3(v, text_ + n_) - text_); }  // %.3f
    bool empty() const { return n_ == 0; }
    size_t size() const { return n_; }
    // Most lines are short: those are copied with a fixed length (what is
    // copied past the line's end is free space of the buffer, never written out).
    bool writeTo(FILE* stream) const { return putSpan<kShort>(text_, n_, stream); }

private:
    char text_[kSize];
    size_t n_ = 0;
};

}  // namespace writer
