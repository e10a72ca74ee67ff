// The rope: a growable, NUL-terminated character buffer that doubles its
// capacity up to an optional ceiling. The buffer comes from malloc so that an
// allocation failure is an ordinary null result: the rope then keeps what it
// has and drops the character, without a message.
#include "tools/rope.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// The capacity of a rope initialised without a size of its own.
constexpr uint32_t kDefaultRopeSize = 80;

// Largest capacity whose buffer (capacity + 1 bytes) still fits the counter.
constexpr uint32_t kLargestCapacity = UINT32_MAX - 1;

void storeAndTerminate(Rope* rope, char c) {
    rope->text[rope->length++] = c;
    rope->text[rope->length] = '\0';
}

// Appends n characters that lie outside the rope's free space: all at once
// when they fit, else one by one, so that growth and the ceiling treat them
// as RopeAppend does.
void appendChars(Rope* rope, const char* s, size_t n) {
    if (n <= rope->capacity - rope->length) {
        std::memcpy(rope->text + rope->length, s, n);
        rope->length += static_cast<uint32_t>(n);
        rope->text[rope->length] = '\0';
        return;
    }
    for (size_t i = 0; i < n; i++) RopeAppend(rope, s[i]);
}

}  // namespace

Rope::~Rope() { std::free(text); }

std::unique_ptr<Rope> RopeNew() { return std::unique_ptr<Rope>(new (std::nothrow) Rope); }

void RopeInit(Rope* rope, uint32_t initialSize, uint32_t maxSize) {
    uint32_t size = initialSize != 0 ? initialSize : kDefaultRopeSize;
    if (maxSize != 0 && maxSize < size) size = maxSize;
    if (size > kLargestCapacity) size = kLargestCapacity;

    std::free(rope->text);  // a record initialised twice does not leak its first buffer
    rope->initialSize = size;
    rope->capacity = size;
    rope->maxSize = maxSize;
    rope->length = 0;
    rope->text = static_cast<char*>(std::malloc(static_cast<size_t>(size) + 1));
    if (rope->text) rope->text[0] = '\0';
}

void RopeRelease(Rope* rope) {
    std::free(rope->text);
    rope->text = nullptr;
    rope->length = 0;
}

void RopeGrowAppend(Rope* rope, char c) {
    if (!rope->text) return;
    if (rope->length < rope->capacity) {
        storeAndTerminate(rope, c);
        return;
    }
    if (rope->capacity == rope->maxSize) return;  // at the ceiling: dropped

    uint32_t newCapacity;
    if (rope->capacity > kLargestCapacity / 2) {
        if (rope->capacity >= kLargestCapacity) return;  // cannot be counted any more
        newCapacity = kLargestCapacity;
    } else {
        newCapacity = rope->capacity * 2;
    }
    if (rope->maxSize != 0 && newCapacity >= rope->maxSize) newCapacity = rope->maxSize;

    char* grown = static_cast<char*>(std::malloc(static_cast<size_t>(newCapacity) + 1));
    if (!grown) return;  // out of memory: keep the old text, drop the character
    std::memcpy(grown, rope->text, rope->length);
    std::free(rope->text);
    rope->text = grown;
    rope->capacity = newCapacity;
    storeAndTerminate(rope, c);
}

void RopeCatString(Rope* rope, const char* s) {
    if (!s || !rope->text) return;
    // A string inside the rope's own buffer would move under our feet when the
    // buffer grows: append it by position instead.
    if (s >= rope->text && s <= rope->text + rope->length) {
        uint32_t from = static_cast<uint32_t>(s - rope->text);
        uint32_t end = rope->length;
        for (uint32_t i = from; i < end; i++) RopeAppend(rope, rope->text[i]);
        return;
    }
    appendChars(rope, s, std::strlen(s));
}

void RopeGrowCatChars(Rope* rope, const char* s, size_t n) {
    if (!rope->text) return;  // as RopeAppend: every character is dropped
    appendChars(rope, s, n);
}

void RopeCat(Rope* to, const Rope* from) {
    if (!from->text || !to->text) return;
    uint32_t n = from->length;
    if (to != from) {
        appendChars(to, from->text, n);
        return;
    }
    // Index afresh on every character: growth replaces the shared buffer.
    for (uint32_t i = 0; i < n; i++) RopeAppend(to, from->text[i]);
}

void RopeCopyString(Rope* rope, const char* s) {
    if (!rope->text) return;
    if (s && s >= rope->text && s <= rope->text + rope->length) {
        // A tail of the rope's own text: it fits where it is, so move it to the front.
        size_t n = std::strlen(s);
        std::memmove(rope->text, s, n);
        rope->length = static_cast<uint32_t>(n);
        rope->text[n] = '\0';
        return;
    }
    RopeEmpty(rope);
    RopeCatString(rope, s);
}

void RopeCopy(Rope* to, const Rope* from) {
    if (to == from) return;
    if (!to->text) return;
    RopeEmpty(to);
    RopeCat(to, from);
}

void RopeDeleteFirst(Rope* rope) {
    if (!rope->text || rope->length == 0) return;
    std::memmove(rope->text, rope->text + 1, rope->length - 1);
    rope->length--;
    rope->text[rope->length] = '\0';
}

void RopeDeleteLast(Rope* rope) {
    if (!rope->text || rope->length == 0) return;
    rope->text[--rope->length] = '\0';
}
