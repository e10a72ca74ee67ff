// Glyph names, code points and UTF-8 decoding of the full mode. Expected bytes
// come from the layouts of the output character set and the Symbol font.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <ios>
#include <string>
#include <vector>

#include "roff/glyphs.h"

namespace {

// What a lookup gave, in one comparable string: "a:0xD1" for a byte of the
// output set, "s:0x61" for the Symbol font, "t:1/2" for a text, "-" for none.
std::string show(bool found, const Glyph& g) {
    if (!found) return "-";
    if (g.text) return std::string("t:") + g.text;
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%c:0x%02X", g.isSymbol ? 's' : 'a', g.code);
    return buffer;
}

std::string byName(const char* name) {
    Glyph g;
    return show(glyphByName(name, g), g);
}

std::string byCodePoint(uint32_t cp) {
    Glyph g;
    return show(glyphByCodePoint(cp, g), g);
}

TEST(GlyphNames, OutputSetAsciiAndTexts) {
    EXPECT_EQ(byName("en"), "a:0xD0");
    EXPECT_EQ(byName("oq"), "a:0xD4");
    EXPECT_EQ(byName("Fo"), "a:0xC7");
    EXPECT_EQ(byName("fc"), "a:0xDD");
    EXPECT_EQ(byName("'e"), "a:0x8E");
    EXPECT_EQ(byName("`a"), "a:0x88");
    EXPECT_EQ(byName("ss"), "a:0xA7");
    EXPECT_EQ(byName(".i"), "a:0xF5");  // dotless i
    EXPECT_EQ(byName("'C"), "a:0x43");  // C-acute is missing: the bare letter
    EXPECT_EQ(byName("rs"), "a:0x5C");
    EXPECT_EQ(byName("aq"), "a:0x27");
    EXPECT_EQ(byName("hy"), "a:0x2D");
    EXPECT_EQ(byName("12"), "t:1/2");
    EXPECT_EQ(byName("Fi"), "t:ffi");
}

TEST(GlyphNames, SymbolFont) {
    EXPECT_EQ(byName("*b"), "s:0x62");
    EXPECT_EQ(byName("*C"), "s:0x58");  // groff's *C is Xi, *X is chi
    EXPECT_EQ(byName("*X"), "s:0x43");
    EXPECT_EQ(byName("*f"), "s:0x66");
    EXPECT_EQ(byName("+f"), "s:0x6A");
    EXPECT_EQ(byName("md"), "s:0xD7");
    EXPECT_EQ(byName("nm"), "s:0xCF");  // a composite in groff_char(7)
    EXPECT_EQ(byName("sd"), "s:0xB2");
    EXPECT_EQ(byName("-"), "s:0x2D");
}

// The classic names keep their classic values, even where the output set has
// the character: the code point lookups prefer the output set.
TEST(GlyphNames, ClassicNamesWin) {
    EXPECT_EQ(byName("co"), "s:0xD3");
    EXPECT_EQ(byCodePoint(0x00A9), "a:0xA9");
    EXPECT_EQ(byName("tm"), "s:0xD4");
    EXPECT_EQ(byCodePoint(0x2122), "a:0xAA");
    EXPECT_EQ(byName("*p"), "s:0x70");
    EXPECT_EQ(byCodePoint(0x03C0), "a:0xB9");
    // groff's text-font variant of the same sign stays in the output set.
    EXPECT_EQ(byName("+-"), "s:0xB1");
    EXPECT_EQ(byName("t+-"), "a:0xB1");
}

TEST(GlyphNames, Unknown) {
    EXPECT_EQ(byName(""), "-");
    EXPECT_EQ(byName("EM"), "-");
    EXPECT_EQ(byName("em "), "-");
    EXPECT_EQ(byName("bracketleft"), "-");  // a prefix of a long name
    EXPECT_EQ(byName("bs"), "-");           // named by groff, no glyph here
    Glyph g{'x', true, "stale"};  // reset on failure
    EXPECT_FALSE(glyphByName("zz", g));
    EXPECT_TRUE(g.code == 0 && !g.isSymbol && g.text == nullptr);
}

TEST(GlyphNames, UnicodeNames) {
    EXPECT_EQ(byName("u00E9"), "a:0x8E");
    EXPECT_EQ(byName("u03B1"), "s:0x61");
    EXPECT_EQ(byName("u00e9"), "-");     // lowercase hex
    EXPECT_EQ(byName("u0E9"), "-");      // too short
    EXPECT_EQ(byName("u000E9"), "-");    // five digits need no leading zero
    EXPECT_EQ(byName("u000041"), "-");
    EXPECT_EQ(byName("u"), "-");
    EXPECT_EQ(byName("uD800"), "-");     // a surrogate
    EXPECT_EQ(byName("u110000"), "-");
    EXPECT_EQ(byName("u0009"), "-");     // a control character
    EXPECT_EQ(byName("u1F600"), "-");    // valid, but in neither set
}

TEST(GlyphNames, UnicodeComposites) {
    EXPECT_EQ(byName("u0065_0301"), "a:0x8E");
    EXPECT_EQ(byName("u0041_0301"), "a:0xE7");
    EXPECT_EQ(byName("u0043_0301"), "a:0x43");       // no C-acute: the base
    EXPECT_EQ(byName("u0041_0301_0302"), "a:0xE7");  // the extra mark goes
    EXPECT_EQ(byName("u003D_0338"), "a:0xAD");       // not equal
    EXPECT_EQ(byName("u2261_0338"), "-");            // never plain "identical"
    EXPECT_EQ(byName("u0066_0066_0069"), "t:ffi");
    EXPECT_EQ(byName("u0041_"), "-");
    EXPECT_EQ(byName("u_0041"), "-");
    EXPECT_EQ(byName("u0041_301"), "-");
}

TEST(GlyphNames, CharNames) {
    EXPECT_EQ(byName("char65"), "a:0x41");
    EXPECT_EQ(byName("char233"), "a:0x8E");  // the code point, not the byte
    EXPECT_EQ(byName("char160"), "a:0x20");
    EXPECT_EQ(byName("char065"), "-");
    EXPECT_EQ(byName("char256"), "-");
    EXPECT_EQ(byName("char"), "-");
    EXPECT_EQ(byName("char0"), "-");  // a control character
}

TEST(GlyphCodePoints, Lookups) {
    EXPECT_EQ(byCodePoint(0x2026), "a:0xC9");  // ellipsis: the output set first
    EXPECT_EQ(byCodePoint(0x2264), "a:0xB2");
    EXPECT_EQ(byCodePoint(0x2192), "s:0xAE");
    EXPECT_EQ(byCodePoint(0x03A9), "a:0xBD");  // Greek Omega is in the output set,
    EXPECT_EQ(byCodePoint(0x2126), "s:0x57");  // the Ohm sign only in the Symbol font
    EXPECT_EQ(byCodePoint(0x2206), "a:0xC6");  // increment, but
    EXPECT_EQ(byCodePoint(0x0394), "s:0x44");  // Greek Delta
    EXPECT_EQ(byCodePoint(0x00A0), "a:0x20");
    EXPECT_EQ(byCodePoint(0x00BD), "t:1/2");
    EXPECT_EQ(byCodePoint(0x0107), "a:0x63");
    EXPECT_EQ(byCodePoint(0x0132), "t:IJ");
    // Letters and figures the sets lack stand as their base.
    EXPECT_EQ(byCodePoint(0x00FD), "a:0x79");
    EXPECT_EQ(byCodePoint(0x00DD), "a:0x59");
    EXPECT_EQ(byCodePoint(0x2074), "a:0x34");
    EXPECT_EQ(byCodePoint(0x2089), "a:0x39");
    EXPECT_EQ(byCodePoint(0x25CF), byCodePoint(0x2022));  // a black circle is the bullet
    EXPECT_EQ(byCodePoint(0xFEFF), "t:");
}

TEST(GlyphCodePoints, NoGlyph) {
    for (uint32_t cp : {0x0u, 0x1Fu, 0x7Fu, 0x85u, 0x0301u, 0x4E2Du, 0xD800u, 0x1F600u,
                        0x110000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(byCodePoint(cp), "-") << std::hex << cp;
    }
}

// A reader over a byte list for decodeUtf8.
std::vector<int> input;
size_t position = 0;
int next() { return position < input.size() ? input[position++] : -1; }

struct Decoded {
    int32_t codePoint;
    int unread;
    size_t consumed;  // bytes taken after the lead
};

Decoded decode(std::vector<int> bytes) {
    input = std::vector<int>(bytes.begin() + 1, bytes.end());
    position = 0;
    int unread = 12345;
    int32_t cp = decodeUtf8(bytes[0], next, &unread);
    return {cp, unread, position};
}

void expectDecoded(std::vector<int> bytes, int32_t codePoint) {
    Decoded d = decode(bytes);
    EXPECT_TRUE(d.codePoint == codePoint && d.unread == -1 && d.consumed == bytes.size() - 1)
        << std::hex << bytes[0] << " gave " << d.codePoint;
}

void expectMalformed(std::vector<int> bytes, int unread, size_t consumed) {
    Decoded d = decode(bytes);
    EXPECT_TRUE(d.codePoint == -1 && d.unread == unread && d.consumed == consumed)
        << std::hex << bytes[0] << " gave " << d.codePoint << ", unread " << d.unread
        << ", consumed " << d.consumed;
}

TEST(Utf8, WellFormed) {
    expectDecoded({0xC3, 0xA9}, 0xE9);
    expectDecoded({0xE2, 0x80, 0x94}, 0x2014);
    expectDecoded({0xF0, 0x9F, 0x98, 0x80}, 0x1F600);
    // The edges of each length.
    expectDecoded({0xC2, 0x80}, 0x80);
    expectDecoded({0xE0, 0xA0, 0x80}, 0x800);
    expectDecoded({0xED, 0x9F, 0xBF}, 0xD7FF);
    expectDecoded({0xF0, 0x90, 0x80, 0x80}, 0x10000);
    expectDecoded({0xF4, 0x8F, 0xBF, 0xBF}, 0x10FFFF);
}

TEST(Utf8, BadLeadBytesReadNothing) {
    for (int lead : {0x41, 0x80, 0xBF, 0xC0, 0xC1, 0xF5, 0xFF}) {
        expectMalformed({lead, 0x80, 0x80, 0x80}, -1, 0);
    }
}

TEST(Utf8, OverlongSurrogateAndTooLarge) {
    expectMalformed({0xE0, 0x9F, 0xBF}, 0x9F, 1);       // overlong three bytes
    expectMalformed({0xF0, 0x8F, 0xBF, 0xBF}, 0x8F, 1);  // overlong four bytes
    expectMalformed({0xED, 0xA0, 0x80}, 0xA0, 1);       // a surrogate
    expectMalformed({0xF4, 0x90, 0x80, 0x80}, 0x90, 1);  // past U+10FFFF
}

TEST(Utf8, Truncated) {
    // The byte that ends the sequence early goes back, nothing after it is read.
    expectMalformed({0xE2, 0x82, 'A', 'B'}, 'A', 2);
    expectMalformed({0xC3, 0xC3, 0xA9}, 0xC3, 1);
    expectMalformed({0xF0, 0x9F, 0x98}, -1, 2);  // end of input
    expectMalformed({0xC3}, -1, 0);
}

TEST(Utf8, SignedCharReader) {
    // Bytes as a signed char reader gives them; the unread byte comes back as read.
    Decoded d = decode({-61, -87});  // C3 A9
    EXPECT_EQ(d.codePoint, 0xE9);
    d = decode({-61, -61});
    EXPECT_EQ(d.codePoint, -1);
    EXPECT_EQ(d.unread, -61);
    input = {0xA9};
    position = 0;
    EXPECT_EQ(decodeUtf8(0xC3, next, nullptr), 0xE9);
}

}  // namespace
