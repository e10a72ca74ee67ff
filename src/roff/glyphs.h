// Glyphs of the full mode: groff's character names (\[name], \(xx), Unicode
// code points (\[uXXXX] and UTF-8 input) and the decoding of UTF-8 itself.
// Every character resolves to one byte of the output character set, one byte
// of the Symbol font, or a short ASCII text when neither has it. The lookups
// read constant tables only: no state, no allocation.
#pragma once

#include <cstdint>
#include <string_view>

struct Glyph {
    unsigned char code = 0;      // the byte to write; 0: none, see text
    bool isSymbol = false;       // the byte is in the Symbol font
    const char* text = nullptr;  // instead of a byte: a short ASCII text; "" prints nothing
};

// A character name as it stands in \[name] or \(xx: the names of groff_char(7)
// ("em", "*a", "'e", "Fo", ...), where the classic table has a name the classic
// value; "uXXXX" (uppercase hex, exactly four digits below U+10000, five or six
// without a leading zero above; "u0065_0301" composites are composed where the
// result has a glyph, else the first character stands for the whole, except
// that a negation overlay is never dropped); "charN" (N decimal 0..255 without
// leading zeros, the code point N). False for anything else; `out` is then
// reset.
bool glyphByName(std::string_view name, Glyph& out);

// A code point: ASCII as itself, else the byte in the output character set,
// else the byte in the Symbol font, else a stand-in (the bare letter for an
// accented Latin letter the sets lack, the digit for a superscript or
// subscript one, "1/2", "ffi", a space for the wide and
// no-break spaces, "" for the invisible ones). False for control characters,
// combining marks and anything without a stand-in; `out` is then reset.
bool glyphByCodePoint(uint32_t codePoint, Glyph& out);

// Decodes one UTF-8 sequence whose first byte `lead` has been read (0..255; a
// negative signed-char value is taken as its byte). `next` gives the following
// bytes, -1 at the end of input (a reader that gives bytes as signed chars may
// return anything but -1 for them). Returns the code point, or -1 when `lead`
// does not start a well-formed sequence: overlong forms, surrogates, values
// above U+10FFFF and truncated sequences are all malformed. Reads no further
// than the first byte that cannot continue the sequence; that byte is handed
// back in *unread exactly as `next` returned it, for the caller to push back
// (*unread is -1 when there is none). Continuation bytes already taken by a
// sequence that then fails are consumed: the caller's one replacement for the
// lead byte stands for them too.
int32_t decodeUtf8(int lead, int (*next)(), int* unread);
