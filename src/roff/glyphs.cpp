// Glyph tables and lookups of the full mode: groff's character names, code
// points, and UTF-8 decoding (see glyphs.h).
#include "roff/glyphs.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <utility>

namespace {

struct CodeRow {
    char16_t codePoint;
    unsigned char code;
};

struct CodeGlyphRow {
    char16_t codePoint;
    Glyph glyph;
};

struct PairRow {
    char16_t first;
    char16_t second;
    char16_t composed;
};

struct NameRow {
    std::string_view name;
    Glyph glyph;
};

// ---- Generated tables --------------------------------------------------------
// Generated from the output character set, the Symbol font (checked against
// groff's Symbol font description), groff_char(7) for the names and their code
// points, and the classic table of interp/escape.cpp, whose names keep their
// classic values. A name comes out the way its code point does (ASCII, output
// set, Symbol font, stand-in) unless the classic table says otherwise. Every
// table stays sorted: the static_asserts below check it.

// Bytes 128..255 of the output character set: their code points.
constexpr char16_t kUpperHalf[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1,
    0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5, 0x00E7, 0x00E9, 0x00E8,
    0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC,
    0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6, 0x00DF,
    0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211,
    0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8,
    0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153,
    0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA,
    0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4,
    0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
};

// The Symbol font by code point (several code points may share a byte).
constexpr CodeRow kSymbol[] = {
    {0x00AC, 0xD8}, {0x00B0, 0xB0}, {0x00B1, 0xB1}, {0x00D7, 0xB4}, {0x00F7, 0xB8}, {0x0192, 0xA6},
    {0x0391, 0x41}, {0x0392, 0x42}, {0x0393, 0x47}, {0x0394, 0x44}, {0x0395, 0x45}, {0x0396, 0x5A},
    {0x0397, 0x48}, {0x0398, 0x51}, {0x0399, 0x49}, {0x039A, 0x4B}, {0x039B, 0x4C}, {0x039C, 0x4D},
    {0x039D, 0x4E}, {0x039E, 0x58}, {0x039F, 0x4F}, {0x03A0, 0x50}, {0x03A1, 0x52}, {0x03A3, 0x53},
    {0x03A4, 0x54}, {0x03A5, 0x55}, {0x03A6, 0x46}, {0x03A7, 0x43}, {0x03A8, 0x59}, {0x03A9, 0x57},
    {0x03B1, 0x61}, {0x03B2, 0x62}, {0x03B3, 0x67}, {0x03B4, 0x64}, {0x03B5, 0x65}, {0x03B6, 0x7A},
    {0x03B7, 0x68}, {0x03B8, 0x71}, {0x03B9, 0x69}, {0x03BA, 0x6B}, {0x03BB, 0x6C}, {0x03BC, 0x6D},
    {0x03BD, 0x6E}, {0x03BE, 0x78}, {0x03BF, 0x6F}, {0x03C0, 0x70}, {0x03C1, 0x72}, {0x03C2, 0x56},
    {0x03C3, 0x73}, {0x03C4, 0x74}, {0x03C5, 0x75}, {0x03C6, 0x66}, {0x03C7, 0x63}, {0x03C8, 0x79},
    {0x03C9, 0x77}, {0x03D1, 0x4A}, {0x03D2, 0xA1}, {0x03D5, 0x6A}, {0x03D6, 0x76}, {0x2022, 0xB7},
    {0x2026, 0xBC}, {0x2032, 0xA2}, {0x2033, 0xB2}, {0x2044, 0xA4}, {0x20AC, 0xA0}, {0x2111, 0xC1},
    {0x2118, 0xC3}, {0x211C, 0xC2}, {0x2126, 0x57}, {0x2135, 0xC0}, {0x2190, 0xAC}, {0x2191, 0xAD},
    {0x2192, 0xAE}, {0x2193, 0xAF}, {0x2194, 0xAB}, {0x21B5, 0xBF}, {0x21D0, 0xDC}, {0x21D1, 0xDD},
    {0x21D2, 0xDE}, {0x21D3, 0xDF}, {0x21D4, 0xDB}, {0x2200, 0x22}, {0x2202, 0xB6}, {0x2203, 0x24},
    {0x2205, 0xC6}, {0x2206, 0x44}, {0x2207, 0xD1}, {0x2208, 0xCE}, {0x2209, 0xCF}, {0x220B, 0x27},
    {0x220F, 0xD5}, {0x2211, 0xE5}, {0x2212, 0x2D}, {0x2215, 0xA4}, {0x2217, 0x2A}, {0x221A, 0xD6},
    {0x221D, 0xB5}, {0x221E, 0xA5}, {0x2220, 0xD0}, {0x2227, 0xD9}, {0x2228, 0xDA}, {0x2229, 0xC7},
    {0x222A, 0xC8}, {0x222B, 0xF2}, {0x2234, 0x5C}, {0x223C, 0x7E}, {0x2245, 0x40}, {0x2248, 0xBB},
    {0x2260, 0xB9}, {0x2261, 0xBA}, {0x2264, 0xA3}, {0x2265, 0xB3}, {0x2282, 0xCC}, {0x2283, 0xC9},
    {0x2284, 0xCB}, {0x2286, 0xCD}, {0x2287, 0xCA}, {0x2295, 0xC5}, {0x2297, 0xC4}, {0x22A5, 0x5E},
    {0x22C5, 0xD7}, {0x2320, 0xF3}, {0x2321, 0xF5}, {0x2329, 0xE1}, {0x232A, 0xF1}, {0x239B, 0xE6},
    {0x239C, 0xE7}, {0x239D, 0xE8}, {0x239E, 0xF6}, {0x239F, 0xF7}, {0x23A0, 0xF8}, {0x23A1, 0xE9},
    {0x23A2, 0xEA}, {0x23A3, 0xEB}, {0x23A4, 0xF9}, {0x23A5, 0xFA}, {0x23A6, 0xFB}, {0x23A7, 0xEC},
    {0x23A8, 0xED}, {0x23A9, 0xEE}, {0x23AA, 0xEF}, {0x23AB, 0xFC}, {0x23AC, 0xFD}, {0x23AD, 0xFE},
    {0x23AE, 0xF4}, {0x23AF, 0xBE}, {0x23D0, 0xBD}, {0x25CA, 0xE0}, {0x2660, 0xAA}, {0x2663, 0xA7},
    {0x2665, 0xA9}, {0x2666, 0xA8}, {0x27E8, 0xE1}, {0x27E9, 0xF1}, {0x3008, 0xE1}, {0x3009, 0xF1},
};

// U+0100..U+017F when the output character set lacks them: the bare letter,
// '.' for none.
constexpr char kLatinExtendedA[] =
    "AaAaAaCcCcCcCcDd..EeEeEeEeEeGgGgGgGgHh..IiIiIiIiI...JjKk.LlLlLl."
    "...NnNnNn...OoOoOo..RrRrRrSsSsSsSsTtTt..UuUuUuUuUuUuWwYy.ZzZzZzs";

// Other characters in neither set: a near byte or a short text.
constexpr CodeGlyphRow kStandIns[] = {
    {0x00A6, {124}}, {0x00AD, {0, false, ""}}, {0x00B2, {50}}, {0x00B3, {51}}, {0x00B9, {49}},
    {0x00BC, {0, false, "1/4"}}, {0x00BD, {0, false, "1/2"}}, {0x00BE, {0, false, "3/4"}},
    {0x00D0, {68}}, {0x00DD, {89}}, {0x00DE, {0, false, "Th"}}, {0x00F0, {100}}, {0x00FD, {121}},
    {0x00FE, {0, false, "th"}},
    {0x0110, {68}}, {0x0111, {100}}, {0x0126, {72}}, {0x0127, {104}}, {0x0132, {0, false, "IJ"}},
    {0x0133, {0, false, "ij"}}, {0x013F, {76}}, {0x0140, {108}}, {0x0141, {76}}, {0x0142, {108}},
    {0x0149, {0, false, "'n"}}, {0x014A, {78}}, {0x014B, {110}}, {0x0166, {84}}, {0x0167, {116}},
    {0x0218, {83}}, {0x0219, {115}}, {0x021A, {84}}, {0x021B, {116}}, {0x0237, {106}},
    {0x02B9, {39}}, {0x02BA, {34}}, {0x02BC, {213}}, {0x02C8, {39}}, {0x02CB, {96}},
    {0x03F5, {101, true}}, {0x2002, {32}}, {0x2003, {32}}, {0x2004, {32}}, {0x2005, {32}},
    {0x2006, {32}}, {0x2007, {32}}, {0x2008, {32}}, {0x2009, {32}}, {0x200A, {32}},
    {0x200B, {0, false, ""}}, {0x200C, {0, false, ""}}, {0x200D, {0, false, ""}}, {0x2010, {45}},
    {0x2011, {45}}, {0x2012, {45}}, {0x2015, {209}}, {0x2016, {0, false, "||"}}, {0x201B, {212}},
    {0x201F, {210}}, {0x2023, {165}}, {0x2027, {225}}, {0x202F, {32}}, {0x2034, {0, false, "'''"}},
    {0x203E, {96, true}}, {0x2043, {45}}, {0x205F, {32}}, {0x2060, {0, false, ""}},
    {0x2070, {48}}, {0x2074, {52}}, {0x2075, {53}}, {0x2076, {54}}, {0x2077, {55}},
    {0x2078, {56}}, {0x2079, {57}}, {0x2080, {48}}, {0x2081, {49}}, {0x2082, {50}},
    {0x2083, {51}}, {0x2084, {52}}, {0x2085, {53}}, {0x2086, {54}}, {0x2087, {55}},
    {0x2088, {56}}, {0x2089, {57}},
    {0x210F, {104}}, {0x215B, {0, false, "1/8"}}, {0x215C, {0, false, "3/8"}},
    {0x215D, {0, false, "5/8"}}, {0x215E, {0, false, "7/8"}}, {0x21A6, {0, false, "|->"}},
    {0x2213, {0, false, "-+"}}, {0x2219, {183, true}}, {0x2223, {124}}, {0x2225, {0, false, "||"}},
    {0x2236, {58}}, {0x226A, {0, false, "<<"}}, {0x226B, {0, false, ">>"}}, {0x2308, {233, true}},
    {0x2309, {249, true}}, {0x230A, {235, true}}, {0x230B, {251, true}}, {0x2500, {45}},
    {0x2502, {124}}, {0x250C, {43}}, {0x2510, {43}}, {0x2514, {43}}, {0x2518, {43}},
    {0x251C, {43}}, {0x2524, {43}}, {0x252C, {43}}, {0x2534, {43}}, {0x253C, {43}},
    {0x25A1, {224, true}}, {0x25CB, {79}}, {0x25CF, {165}}, {0x25E6, {111}}, {0x261C, {220, true}},
    {0x261E, {222, true}}, {0x2661, {169, true}}, {0x2662, {168, true}},
    {0x27F5, {0, false, "<--"}}, {0x27F6, {0, false, "-->"}}, {0x27F7, {0, false, "<-->"}},
    {0x27F8, {0, false, "<=="}}, {0x27F9, {0, false, "==>"}}, {0x27FA, {0, false, "<==>"}},
    {0x3000, {32}}, {0xFB00, {0, false, "ff"}}, {0xFB03, {0, false, "ffi"}},
    {0xFB04, {0, false, "ffl"}}, {0xFEFF, {0, false, ""}},
};

// Base and mark (or ligature pieces) that compose into a glyph of their own.
constexpr PairRow kPairs[] = {
    {0x003D, 0x0338, 0x2260}, {0x0041, 0x0300, 0x00C0}, {0x0041, 0x0301, 0x00C1},
    {0x0041, 0x0302, 0x00C2}, {0x0041, 0x0303, 0x00C3}, {0x0041, 0x0308, 0x00C4},
    {0x0041, 0x030A, 0x00C5}, {0x0043, 0x0327, 0x00C7}, {0x0045, 0x0300, 0x00C8},
    {0x0045, 0x0301, 0x00C9}, {0x0045, 0x0302, 0x00CA}, {0x0045, 0x0308, 0x00CB},
    {0x0049, 0x0300, 0x00CC}, {0x0049, 0x0301, 0x00CD}, {0x0049, 0x0302, 0x00CE},
    {0x0049, 0x0308, 0x00CF}, {0x004E, 0x0303, 0x00D1}, {0x004F, 0x0300, 0x00D2},
    {0x004F, 0x0301, 0x00D3}, {0x004F, 0x0302, 0x00D4}, {0x004F, 0x0303, 0x00D5},
    {0x004F, 0x0308, 0x00D6}, {0x0055, 0x0300, 0x00D9}, {0x0055, 0x0301, 0x00DA},
    {0x0055, 0x0302, 0x00DB}, {0x0055, 0x0308, 0x00DC}, {0x0059, 0x0308, 0x0178},
    {0x0061, 0x0300, 0x00E0}, {0x0061, 0x0301, 0x00E1}, {0x0061, 0x0302, 0x00E2},
    {0x0061, 0x0303, 0x00E3}, {0x0061, 0x0308, 0x00E4}, {0x0061, 0x030A, 0x00E5},
    {0x0063, 0x0327, 0x00E7}, {0x0065, 0x0300, 0x00E8}, {0x0065, 0x0301, 0x00E9},
    {0x0065, 0x0302, 0x00EA}, {0x0065, 0x0308, 0x00EB}, {0x0066, 0x0066, 0xFB00},
    {0x0066, 0x0069, 0xFB01}, {0x0066, 0x006C, 0xFB02}, {0x0069, 0x0300, 0x00EC},
    {0x0069, 0x0301, 0x00ED}, {0x0069, 0x0302, 0x00EE}, {0x0069, 0x0308, 0x00EF},
    {0x006E, 0x0303, 0x00F1}, {0x006F, 0x0300, 0x00F2}, {0x006F, 0x0301, 0x00F3},
    {0x006F, 0x0302, 0x00F4}, {0x006F, 0x0303, 0x00F5}, {0x006F, 0x0308, 0x00F6},
    {0x0075, 0x0300, 0x00F9}, {0x0075, 0x0301, 0x00FA}, {0x0075, 0x0302, 0x00FB},
    {0x0075, 0x0308, 0x00FC}, {0x0079, 0x0308, 0x00FF}, {0x2208, 0x0338, 0x2209},
    {0x2282, 0x0338, 0x2284}, {0xFB00, 0x0069, 0xFB03}, {0xFB00, 0x006C, 0xFB04},
};

// Glyph names, sorted by bytes.
constexpr NameRow kNames[] = {
    {"!=", {185, true}}, {"%0", {228}}, {"'A", {231}}, {"'C", {67}}, {"'E", {131}}, {"'I", {234}},
    {"'O", {238}}, {"'U", {242}}, {"'Y", {89}}, {"'a", {135}}, {"'c", {99}}, {"'e", {142}},
    {"'i", {146}}, {"'o", {151}}, {"'u", {156}}, {"'y", {121}}, {"**", {42, true}},
    {"*A", {65, true}}, {"*B", {66, true}}, {"*C", {88, true}}, {"*D", {68, true}},
    {"*E", {69, true}}, {"*F", {70, true}}, {"*G", {71, true}}, {"*H", {81, true}},
    {"*I", {73, true}}, {"*K", {75, true}}, {"*L", {76, true}}, {"*M", {77, true}},
    {"*N", {78, true}}, {"*O", {79, true}}, {"*P", {80, true}}, {"*Q", {89, true}},
    {"*R", {82, true}}, {"*S", {83, true}}, {"*T", {84, true}}, {"*U", {85, true}},
    {"*W", {87, true}}, {"*X", {67, true}}, {"*Y", {72, true}}, {"*Z", {90, true}},
    {"*a", {97, true}}, {"*b", {98, true}}, {"*c", {120, true}}, {"*d", {100, true}},
    {"*e", {101, true}}, {"*f", {102, true}}, {"*g", {103, true}}, {"*h", {113, true}},
    {"*i", {105, true}}, {"*k", {107, true}}, {"*l", {108, true}}, {"*m", {109, true}},
    {"*n", {110, true}}, {"*o", {111, true}}, {"*p", {112, true}}, {"*q", {121, true}},
    {"*r", {114, true}}, {"*s", {115, true}}, {"*t", {116, true}}, {"*u", {117, true}},
    {"*w", {119, true}}, {"*x", {99, true}}, {"*y", {104, true}}, {"*z", {122, true}},
    {"+-", {177, true}}, {"+e", {101, true}}, {"+f", {106, true}}, {"+h", {74, true}},
    {"+p", {118, true}}, {",C", {130}}, {",c", {141}}, {"-", {45, true}}, {"-+", {0, false, "-+"}},
    {"->", {174, true}}, {"-D", {68}}, {"-h", {104}}, {".i", {245}}, {".j", {106}}, {"/L", {76}},
    {"/O", {175}}, {"/_", {208, true}}, {"/l", {108}}, {"/o", {191}}, {"12", {0, false, "1/2"}},
    {"14", {0, false, "1/4"}}, {"18", {0, false, "1/8"}}, {"34", {0, false, "3/4"}},
    {"38", {0, false, "3/8"}}, {"3d", {92, true}}, {"58", {0, false, "5/8"}},
    {"78", {0, false, "7/8"}}, {":A", {128}}, {":E", {232}}, {":I", {236}}, {":O", {133}},
    {":U", {134}}, {":Y", {217}}, {":a", {138}}, {":e", {145}}, {":i", {149}}, {":o", {154}},
    {":u", {159}}, {":y", {216}}, {"<-", {172, true}}, {"<<", {0, false, "<<"}},
    {"<=", {163, true}}, {"<>", {171, true}}, {"==", {186, true}}, {"=~", {64, true}},
    {">=", {179, true}}, {">>", {0, false, ">>"}}, {"AE", {174}}, {"AN", {217, true}},
    {"Ah", {192, true}}, {"Bq", {227}}, {"CL", {167, true}}, {"CR", {191, true}},
    {"DI", {168, true}}, {"Do", {36}}, {"Eu", {219}}, {"Fc", {200}}, {"Fi", {0, false, "ffi"}},
    {"Fl", {0, false, "ffi"}}, {"Fn", {196}}, {"Fo", {199}}, {"HE", {169, true}},
    {"IJ", {0, false, "IJ"}}, {"Im", {193, true}}, {"OE", {206}}, {"OR", {218, true}},
    {"Of", {187}}, {"Om", {188}}, {"Po", {163}}, {"Re", {194, true}}, {"S1", {49}}, {"S2", {50}},
    {"S3", {51}}, {"SP", {170, true}}, {"Sd", {100}}, {"TP", {0, false, "Th"}},
    {"Tp", {0, false, "th"}}, {"Ye", {180}}, {"^A", {229}}, {"^E", {230}}, {"^I", {235}},
    {"^O", {239}}, {"^U", {243}}, {"^a", {137}}, {"^e", {144}}, {"^i", {148}}, {"^o", {153}},
    {"^u", {158}}, {"`A", {203}}, {"`E", {233}}, {"`I", {237}}, {"`O", {241}}, {"`U", {244}},
    {"`a", {136}}, {"`e", {143}}, {"`i", {147}}, {"`o", {152}}, {"`u", {157}}, {"a\"", {253}},
    {"a-", {248}}, {"a.", {250}}, {"a^", {94}}, {"aa", {171}}, {"ab", {249}}, {"ac", {252}},
    {"ad", {172}}, {"ae", {190}}, {"ah", {255}}, {"an", {190, true}}, {"ao", {251}},
    {"ap", {126, true}}, {"aq", {39}}, {"arrowvertbt", {175, true}}, {"arrowvertex", {189, true}},
    {"arrowverttp", {173, true}}, {"at", {64}}, {"a~", {126}}, {"ba", {124}},
    {"barex", {239, true}}, {"bb", {124}}, {"bq", {226}}, {"br", {124, true}},
    {"braceex", {239, true}}, {"braceleftbt", {238, true}}, {"braceleftex", {239, true}},
    {"braceleftmid", {237, true}}, {"bracelefttp", {236, true}}, {"bracerightbt", {254, true}},
    {"bracerightex", {239, true}}, {"bracerightmid", {253, true}}, {"bracerighttp", {252, true}},
    {"bracketleftbt", {235, true}}, {"bracketleftex", {234, true}}, {"bracketlefttp", {233, true}},
    {"bracketrightbt", {251, true}}, {"bracketrightex", {250, true}},
    {"bracketrighttp", {249, true}}, {"bu", {165}}, {"bv", {250, true}}, {"c*", {196, true}},
    {"c+", {197, true}}, {"ca", {199, true}}, {"ci", {79}}, {"co", {211, true}}, {"cq", {213}},
    {"ct", {162, true}}, {"cu", {200, true}}, {"dA", {223, true}}, {"da", {175, true}},
    {"dd", {224}}, {"de", {176, true}}, {"dg", {160}}, {"di", {184, true}}, {"dq", {34}},
    {"em", {209}}, {"en", {208}}, {"eq", {61, true}}, {"es", {198, true}}, {"eu", {219}},
    {"f/", {218}}, {"fa", {34, true}}, {"fc", {221}}, {"ff", {0, false, "ff"}}, {"fi", {222}},
    {"fl", {223}}, {"fm", {162, true}}, {"fo", {220}}, {"ga", {96}}, {"gr", {209, true}},
    {"hA", {219, true}}, {"ha", {94}}, {"hbar", {104}}, {"ho", {254}}, {"hy", {45}},
    {"ib", {205, true}}, {"if", {165, true}}, {"ij", {0, false, "ij"}}, {"integral", {186}},
    {"ip", {202, true}}, {"is", {242, true}}, {"lA", {220, true}}, {"lB", {91}}, {"lC", {123}},
    {"la", {225, true}}, {"lb", {238, true}}, {"lc", {253, true}}, {"lf", {235, true}},
    {"lh", {220, true}}, {"lk", {237, true}}, {"lq", {210}}, {"lt", {236, true}}, {"lz", {215}},
    {"mc", {181}}, {"md", {215, true}}, {"mi", {45, true}}, {"mo", {206, true}},
    {"mu", {180, true}}, {"nb", {203, true}}, {"nm", {207, true}}, {"no", {216, true}},
    {"oA", {129}}, {"oa", {140}}, {"oe", {207}}, {"oq", {212}}, {"or", {124, true}},
    {"parenleftbt", {232, true}}, {"parenleftex", {231, true}}, {"parenlefttp", {230, true}},
    {"parenrightbt", {248, true}}, {"parenrightex", {247, true}}, {"parenrighttp", {246, true}},
    {"pc", {225}}, {"pd", {182, true}}, {"pl", {43, true}}, {"pp", {94, true}}, {"product", {184}},
    {"ps", {166}}, {"pt", {181, true}}, {"r!", {193}}, {"r?", {192}}, {"rA", {222, true}},
    {"rB", {93}}, {"rC", {125}}, {"ra", {241, true}}, {"radicalex", {96, true}},
    {"rb", {254, true}}, {"rc", {233, true}}, {"rf", {251, true}}, {"rg", {210, true}},
    {"rh", {222, true}}, {"rk", {253, true}}, {"rn", {96, true}}, {"rq", {211}}, {"rs", {92}},
    {"rt", {252, true}}, {"ru", {95}}, {"s1", {47, true}}, {"sb", {204, true}}, {"sc", {164}},
    {"sd", {178, true}}, {"sh", {35}}, {"sl", {47}}, {"sp", {201, true}}, {"sq", {224, true}},
    {"sqrt", {195}}, {"sqrtex", {96, true}}, {"sr", {214, true}}, {"ss", {167}},
    {"st", {39, true}}, {"sum", {183}}, {"t+-", {177}}, {"tdi", {214}}, {"te", {36, true}},
    {"tf", {92, true}}, {"ti", {126}}, {"tm", {212, true}}, {"tmu", {180, true}}, {"tno", {194}},
    {"ts", {115, true}}, {"u2661", {169, true}}, {"u2662", {168, true}}, {"uA", {221, true}},
    {"ua", {173, true}}, {"ul", {95, true}}, {"vS", {83}}, {"vZ", {90}}, {"vs", {115}},
    {"vz", {122}}, {"wp", {195, true}}, {"~=", {187, true}}, {"~A", {204}}, {"~N", {132}},
    {"~O", {205}}, {"~a", {139}}, {"~n", {150}}, {"~o", {155}}, {"~~", {197}},
};

// ---- End of the generated tables ---------------------------------------------

constexpr uint32_t kNoBreakSpace = 0x00A0;
constexpr uint32_t kNegationOverlay = 0x0338;  // combining long solidus: "not"

// The output set's upper half by code point, for the binary search.
constexpr std::array<CodeRow, 128> kOutputByCodePoint = [] {
    std::array<CodeRow, 128> rows{};
    for (size_t i = 0; i < rows.size(); ++i) {
        rows[i] = CodeRow{kUpperHalf[i], static_cast<unsigned char>(128 + i)};
    }
    std::sort(rows.begin(), rows.end(),
              [](const CodeRow& a, const CodeRow& b) { return a.codePoint < b.codePoint; });
    return rows;
}();

// Tables keyed by code point: plain arrays and std::array alike.
template <typename Rows>
constexpr bool isStrictlyIncreasing(const Rows& rows) {
    for (size_t i = 1; i < std::size(rows); ++i) {
        if (!(std::data(rows)[i - 1].codePoint < std::data(rows)[i].codePoint)) return false;
    }
    return true;
}

constexpr bool namesAreOrdered() {
    for (size_t i = 1; i < std::size(kNames); ++i) {
        if (!(kNames[i - 1].name < kNames[i].name)) return false;
    }
    return true;
}

constexpr bool pairsAreOrdered() {
    for (size_t i = 1; i < std::size(kPairs); ++i) {
        const PairRow& a = kPairs[i - 1];
        const PairRow& b = kPairs[i];
        if (!(a.first < b.first || (a.first == b.first && a.second < b.second))) return false;
    }
    return true;
}

static_assert(isStrictlyIncreasing(kSymbol), "the Symbol table must be sorted");
static_assert(isStrictlyIncreasing(kStandIns), "the stand-ins must be sorted");
static_assert(isStrictlyIncreasing(kOutputByCodePoint), "one byte per code point in the output set");
static_assert(namesAreOrdered(), "the names must be sorted and unique");
static_assert(pairsAreOrdered(), "the pairs must be sorted and unique");
static_assert(sizeof kLatinExtendedA == 128 + 1, "one letter for each of U+0100..U+017F");

template <typename Rows>
const auto* findCodePoint(const Rows& rows, uint32_t codePoint) {
    const auto* begin = std::data(rows);
    const auto* end = begin + std::size(rows);
    const auto* row = std::lower_bound(begin, end, codePoint, [](const auto& r, uint32_t cp) {
        return r.codePoint < cp;
    });
    return row != end && row->codePoint == codePoint ? row : nullptr;
}

// The character that `first` and `second` compose into, or 0.
uint32_t compose(uint32_t first, uint32_t second) {
    const PairRow* end = std::end(kPairs);
    const PairRow* row = std::lower_bound(
        std::begin(kPairs), end, std::pair{first, second}, [](const PairRow& r, const auto& key) {
            return r.first < key.first || (r.first == key.first && r.second < key.second);
        });
    if (row == end || row->first != first || row->second != second) return 0;
    return row->composed;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;  // groff takes uppercase hex digits only
}

// One component of a "u" name: four uppercase hex digits, or five or six
// without a leading zero for the planes above the first. -1 if malformed.
int32_t unicodeComponent(std::string_view digits) {
    if (digits.size() < 4 || digits.size() > 6) return -1;
    if (digits.size() > 4 && digits[0] == '0') return -1;
    int32_t value = 0;
    for (char c : digits) {
        int d = hexDigit(c);
        if (d < 0) return -1;
        value = value * 16 + d;
    }
    if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return -1;
    return value;
}

// "uXXXX" and "uXXXX_YYYY...": the character it stands for, or -1.
int32_t unicodeName(std::string_view name) {
    if (name.size() < 2 || name[0] != 'u') return -1;
    std::string_view rest = name.substr(1);
    int32_t result = -1;
    bool isComposing = true;
    bool isNegationDropped = false;
    for (;;) {
        size_t end = rest.find('_');
        int32_t value = unicodeComponent(rest.substr(0, end));
        if (value < 0) return -1;
        if (result < 0) {
            result = value;
        } else if (isComposing) {
            uint32_t composed = compose(static_cast<uint32_t>(result), static_cast<uint32_t>(value));
            if (composed != 0) {
                result = static_cast<int32_t>(composed);
            } else {
                isComposing = false;
            }
        }
        // A mark that did not compose is dropped, but not a negation: "not
        // equal" must not print as "equal".
        if (!isComposing && value == static_cast<int32_t>(kNegationOverlay)) {
            isNegationDropped = true;
        }
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return isNegationDropped ? -1 : result;
}

// "charN": N in decimal without leading zeros, 0..255; -1 otherwise.
int32_t charName(std::string_view name) {
    constexpr std::string_view kPrefix = "char";
    if (name.size() <= kPrefix.size() || name.size() > kPrefix.size() + 3) return -1;
    if (name.substr(0, kPrefix.size()) != kPrefix) return -1;
    std::string_view digits = name.substr(kPrefix.size());
    if (digits.size() > 1 && digits[0] == '0') return -1;
    int32_t value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return -1;
        value = value * 10 + (c - '0');
    }
    return value <= 255 ? value : -1;
}

}  // namespace

bool glyphByCodePoint(uint32_t codePoint, Glyph& out) {
    out = Glyph{};
    if (codePoint >= 32 && codePoint < 127) {
        out.code = static_cast<unsigned char>(codePoint);
        return true;
    }
    // The output set has a no-break space of its own, but the writer wants an
    // ordinary one.
    if (codePoint == kNoBreakSpace) {
        out.code = ' ';
        return true;
    }
    // The letters of most UTF-8 pages come straight from a table made once,
    // without a search.
    constexpr uint32_t kLatinFirst = 0xA0, kLatinEnd = 0x100;
    static const auto latin = [] {
        std::array<unsigned char, kLatinEnd - kLatinFirst> codes{};
        for (uint32_t cp = kLatinFirst; cp < kLatinEnd; cp++) {
            if (const CodeRow* row = findCodePoint(kOutputByCodePoint, cp)) codes[cp - kLatinFirst] = row->code;
        }
        return codes;
    }();
    if (codePoint >= kLatinFirst && codePoint < kLatinEnd && latin[codePoint - kLatinFirst] != 0) {
        out.code = latin[codePoint - kLatinFirst];
        return true;
    }
    if (const CodeRow* row = findCodePoint(kOutputByCodePoint, codePoint)) {
        out.code = row->code;
        return true;
    }
    if (const CodeRow* row = findCodePoint(kSymbol, codePoint)) {
        out.code = row->code;
        out.isSymbol = true;
        return true;
    }
    if (codePoint >= 0x0100 && codePoint < 0x0180 && kLatinExtendedA[codePoint - 0x0100] != '.') {
        out.code = static_cast<unsigned char>(kLatinExtendedA[codePoint - 0x0100]);
        return true;
    }
    if (const CodeGlyphRow* row = findCodePoint(kStandIns, codePoint)) {
        out = row->glyph;
        return true;
    }
    return false;
}

bool glyphByName(std::string_view name, Glyph& out) {
    out = Glyph{};
    const NameRow* end = std::end(kNames);
    const NameRow* row = std::lower_bound(
        std::begin(kNames), end, name, [](const NameRow& r, std::string_view n) { return r.name < n; });
    if (row != end && row->name == name) {
        out = row->glyph;
        return true;
    }
    int32_t codePoint = unicodeName(name);
    if (codePoint < 0) codePoint = charName(name);
    if (codePoint < 0) return false;
    return glyphByCodePoint(static_cast<uint32_t>(codePoint), out);
}

int32_t decodeUtf8(int lead, int (*next)(), int* unread) {
    if (unread) *unread = -1;
    const int first = lead & 0xFF;
    // C0 and C1 could only start overlong forms; F5 and up, values past U+10FFFF.
    if (first < 0xC2 || first > 0xF4) return -1;
    int count;         // continuation bytes to come
    int32_t value;
    int low = 0x80;    // the range of the first continuation byte, narrowed
    int high = 0xBF;   // against overlong forms, surrogates and U+10FFFF
    if (first < 0xE0) {
        count = 1;
        value = first & 0x1F;
    } else if (first < 0xF0) {
        count = 2;
        value = first & 0x0F;
        if (first == 0xE0) low = 0xA0;
        if (first == 0xED) high = 0x9F;
    } else {
        count = 3;
        value = first & 0x07;
        if (first == 0xF0) low = 0x90;
        if (first == 0xF4) high = 0x8F;
    }
    for (int i = 0; i < count; ++i) {
        int c = next();
        if (c == -1) return -1;
        int byte = c & 0xFF;
        if (byte < low || byte > high) {
            if (unread) *unread = c;
            return -1;
        }
        value = value << 6 | (byte & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return value;
}
