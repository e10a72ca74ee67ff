// The rope: the program's one growable, NUL-terminated character buffer.
// Owns: nothing but the buffers of the ropes it is given. Calls: the C allocator.
// Growth doubles the capacity up to an optional ceiling; characters beyond the
// ceiling, or beyond what memory allows, are dropped without a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct Rope {
    uint32_t length = 0;       // characters held
    uint32_t initialSize = 0;  // capacity chosen by RopeInit; kept, not consulted
    uint32_t capacity = 0;     // characters held without growing (buffer is capacity + 1)
    uint32_t maxSize = 0;      // ceiling on capacity; 0 means none
    char* text = nullptr;      // owned buffer; null when it could not be allocated

    Rope() = default;
    Rope(const Rope&) = delete;
    Rope& operator=(const Rope&) = delete;
    ~Rope();
};

// A new, uninitialised rope record (null when memory is exhausted).
std::unique_ptr<Rope> RopeNew();
void RopeInit(Rope* rope, uint32_t initialSize, uint32_t maxSize);
void RopeRelease(Rope* rope);

// The slow half of RopeAppend: the rope is full (or has no buffer).
void RopeGrowAppend(Rope* rope, char c);

// Appending one character with room to spare is the most common operation of
// the program: store, count, terminate. Only growth is a call.
inline void RopeAppend(Rope* rope, char c) {
    if (rope->length < rope->capacity && rope->text) {
        rope->text[rope->length++] = c;
        rope->text[rope->length] = '\0';
    } else {
        RopeGrowAppend(rope, c);
    }
}

void RopeCatString(Rope* rope, const char* s);
// The slow half of RopeCatChars: the characters do not fit.
void RopeGrowCatChars(Rope* rope, const char* s, size_t n);

// Appends n characters (which must not lie in the rope's own buffer) as n
// calls of RopeAppend would, growth and ceiling included. Most are a word of
// a request line, so those that fit are copied here, one by one.
inline void RopeCatChars(Rope* rope, const char* s, size_t n) {
    if (rope->text && n <= rope->capacity - rope->length) {
        char* to = rope->text + rope->length;
        for (size_t i = 0; i < n; i++) to[i] = s[i];
        to[n] = '\0';
        rope->length += static_cast<uint32_t>(n);
    } else {
        RopeGrowCatChars(rope, s, n);
    }
}
void RopeCat(Rope* to, const Rope* from);
void RopeCopyString(Rope* rope, const char* s);
void RopeCopy(Rope* to, const Rope* from);
void RopeDeleteFirst(Rope* rope);
void RopeDeleteLast(Rope* rope);

// The text of a rope, never null (an unallocated rope reads as empty).
inline const char* RopeText(const Rope* rope) { return rope->text ? rope->text : ""; }
inline void RopeEmpty(Rope* rope) {
    rope->length = 0;
    if (rope->text) rope->text[0] = '\0';
}
