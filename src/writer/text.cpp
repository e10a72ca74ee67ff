// The text flow: Para, ParaLine, String, Char, Font, AFrame and Marker
// statements. A small state gathers printable characters into one String,
// writes a Font statement only for what changes, and turns line ends into
// ParaLine boundaries.
#include <array>
#include <cstring>
#include <new>
#include <string>

#include "writer/put.h"
#include "writer/textstate.h"
#include "writer/vifout.h"

using namespace writer;

namespace {

constexpr uint32_t kUnknown = 2;  // a style not yet written in this paragraph

// What the open paragraph has written so far.
struct TextState {
    // The family last written: the state's own copy, and the text it was
    // copied from. Family texts are never rewritten in place (the font table
    // keeps every family it mounts), so a font that hands the same pointer
    // again has the same family, and the content is compared only otherwise.
    std::string family;
    bool hasFamily = false;
    const char* familySource = nullptr;
    int32_t FSize = 0;
    uint32_t FPlain = 0, FBold = 0, FItalic = 0, FUnderline = 0, FStrike = 0;
    int32_t FDY = 0;
    unsigned char lastChar = 0;
    bool stringOpen = false;
    // The last font VifFontOut was given, when given again it writes
    // nothing (it found nothing to write, or what it wrote left the state
    // as the font asks): then the same font is known at once.
    Font quietFont;
    bool isQuiet = false;
};

// The Char statement of every byte, after the end of a String that may be
// open before it: "'>\n\t<Char 208> # 0xd0\n". Made once, when compiled.
constexpr size_t kStringEndLength = 3;
constexpr size_t kCharSpan = 24;  // the longest, with the end of a String, is 22 bytes
struct CharStatement {
    char text[kStringEndLength + kCharSpan];
    unsigned char length;
};
constexpr std::array<CharStatement, 256> makeCharStatements() {
    constexpr char hexDigits[] = "0123456789abcdef";
    std::array<CharStatement, 256> table{};
    for (unsigned c = 0; c < 256; ++c) {
        CharStatement& row = table[c];
        unsigned char n = 0;
        auto add = [&](const char* text) {
            while (*text) row.text[n++] = *text++;
        };
        add("'>\n\t<Char ");
        if (c >= 100) row.text[n++] = static_cast<char>('0' + c / 100);
        if (c >= 10) row.text[n++] = static_cast<char>('0' + c / 10 % 10);
        row.text[n++] = static_cast<char>('0' + c % 10);
        add("> # 0x");
        if (c >= 16) row.text[n++] = hexDigits[c >> 4];
        row.text[n++] = hexDigits[c & 15];
        row.text[n++] = '\n';
        row.length = n;
    }
    return table;
}
constexpr std::array<CharStatement, 256> kCharStatements = makeCharStatements();

struct VifOutState {
    uint32_t paraOpen = 0;
    TextState text;
};
VifOutState s;

// Ends an open String statement.
bool closeString(FILE* stream) {
    if (!s.text.stringOpen) return true;
    s.text.stringOpen = false;
    return put("'>\n", stream);
}

void forgetFamily() {
    s.text.hasFamily = false;
    s.text.familySource = nullptr;
    s.text.family.clear();
}

// Takes the state's own copy of a family; without memory it holds none, so
// the family is written again next time.
void keepFamily(const char* family) {
    try {
        s.text.family.assign(family);
        s.text.hasFamily = true;
        s.text.familySource = family;
    } catch (const std::bad_alloc&) {
        forgetFamily();
    }
}

bool sameFamily(const char* family) {
    if (!s.text.hasFamily) return false;
    return family == s.text.familySource || std::strcmp(family, s.text.family.c_str()) == 0;
}

// Whether two fonts hold the same values in everything VifFontOut reads.
bool sameForWriter(const Font& a, const Font& b) {
    return a.mask == b.mask && a.FFamily == b.FFamily && a.FSize == b.FSize &&
           a.FPlain == b.FPlain && a.FBold == b.FBold && a.FItalic == b.FItalic &&
           a.FUnderline == b.FUnderline && a.FStrike == b.FStrike && a.FDY == b.FDY;
}

unsigned textOpen(const Pgf& format, FILE* stream) {
    TextState& t = s.text;
    t.stringOpen = false;
    t.lastChar = 0;
    t.isQuiet = false;
    t.FSize = 0;
    t.FPlain = t.FBold = t.FItalic = t.FUnderline = t.FStrike = kUnknown;
    // FDY carries over from the previous paragraph.

    const char* name = VifCatalogName(format);
    if (name == nullptr) name = "memory full";
    if (!put("<Para <PgfTag `", stream) || !putText(name, stream) || !put("'>\n", stream)) return 0;

    // A paragraph that forces its own font starts in it, so the first Font
    // statement states only what differs from that font.
    // Its family is most often the one kept from the paragraph before, which
    // is then not copied again.
    const bool isForced = (format.mask & bit(PgfBit::PgfForceFont)) &&
                          (format.mask & bit(PgfBit::font)) && format.PgfForceFont;
    const Font& f = format.font;
    if (isForced && (f.mask & bit(FontBit::FFamily)) && f.FFamily) {
        if (!t.hasFamily || f.FFamily != t.familySource) keepFamily(f.FFamily);
    } else {
        forgetFamily();
    }
    if (isForced) {
        if (f.mask & bit(FontBit::FSize)) t.FSize = f.FSize;
        if (f.mask & bit(FontBit::FPlain)) t.FPlain = f.FPlain;
        if (f.mask & bit(FontBit::FBold)) t.FBold = f.FBold;
        if (f.mask & bit(FontBit::FItalic)) t.FItalic = f.FItalic;
        if (f.mask & bit(FontBit::FUnderline)) t.FUnderline = f.FUnderline;
        if (f.mask & bit(FontBit::FStrike)) t.FStrike = f.FStrike;
    }
    return put("\t<ParaLine # Begin Para's ParaLines.\n", stream);
}

unsigned textClose(FILE* stream) {
    if (!closeString(stream)) return 0;
    return put("\t> # End Paraline.\n> # End Para.\n", stream);
}

}  // namespace

unsigned VifParaOpen(const Pgf& format, FILE* stream) {
    if (s.paraOpen) {
        if (!textClose(stream)) return 0;
    } else {
        s.paraOpen = 1;
    }
    return textOpen(format, stream);
}

unsigned VifParaClose(FILE* stream) {
    if (!s.paraOpen) return 1;
    s.paraOpen = 0;
    return textClose(stream);
}

unsigned VifCharOut(char ch, FILE* stream) {
    TextState& t = s.text;
    const auto c = static_cast<unsigned char>(ch);
    // Most characters go on into the open String as they are.
    if (t.stringOpen && c >= 32 && c <= 126 && c != '\'' && c != '`' && c != '>' && c != '\\') {
        t.lastChar = c;
        return putc_unlocked(c, stream) != EOF;
    }

    if ((c >= 32 && c <= 126) || c == '\t') {
        if (!t.stringOpen) {
            // A character that goes in as it is opens the String with it.
            if (c != '\\' && c != '>' && c != '`' && c != '\'' && c != '\t') {
                char open[] = "\t<String `?";
                open[sizeof open - 2] = static_cast<char>(c);
                if (!put(open, sizeof open - 1, stream)) return 0;
                t.stringOpen = true;
                t.lastChar = c;
                return 1;
            }
            if (!put("\t<String `", stream)) return 0;
            t.stringOpen = true;
        }
        t.lastChar = c;
        switch (c) {
        case '\t': return put("\\t", stream);
        case '\'': return put("\\xD5 ", stream);
        case '`': return put("\\xD4 ", stream);
        case '>': return put("\\>", stream);
        case '\\': return put("\\\\", stream);
        default: return putc_unlocked(c, stream) != EOF;
        }
    }

    // After a hard return the line is already broken: a line feed adds
    // nothing and leaves the hard return as the last character.
    if (c == '\n' && t.lastChar == 13) return 1;
    bool wasOpen = t.stringOpen;
    t.stringOpen = false;
    if (c == '\n') {
        t.lastChar = c;
        return wasOpen ? put("'>\n\t><ParaLine\n", stream) : put("><ParaLine\n", stream);
    }
    t.lastChar = c;
    if (c == 13) {
        return wasOpen ? put("'>\n\t<Char HardReturn>><ParaLine\n", stream)
                       : put("\t<Char HardReturn>><ParaLine\n", stream);
    }
    const CharStatement& statement = kCharStatements[c];
    const size_t skip = wasOpen ? 0 : kStringEndLength;
    return putSpan<kCharSpan>(statement.text + skip, statement.length - skip, stream);
}

unsigned VifPlainOut(const char* text, size_t n, FILE* stream) {
    if (n == 0) return 1;
    TextState& t = s.text;
    if (!t.stringOpen) {
        if (!put("\t<String `", stream)) return 0;
        t.stringOpen = true;
    }
    t.lastChar = static_cast<unsigned char>(text[n - 1]);
    return put(text, n, stream);
}

namespace {

// Writes the Font statement for what f changes; VifFontOut has already
// looked for the common case of nothing to write. Kept out of line so that
// the common case costs no more than its test.
[[gnu::noinline]] unsigned fontChange(const Font& f, FILE* stream) {
    TextState& t = s.text;
    const uint32_t m = f.mask;
    // The family is written apart, ahead of the rest.
    const char* family = nullptr;
    if ((m & bit(FontBit::FFamily)) && f.FFamily && !sameFamily(f.FFamily)) {
        keepFamily(f.FFamily);
        family = f.FFamily;
    }
    // The statement but for the family, which is written apart: at most 156
    // characters. Without a family it begins the statement.
    Line rest;
    if (family == nullptr) rest.add("\t<Font");
    const size_t head = rest.size();
    if ((m & bit(FontBit::FSize)) && f.FSize != t.FSize) {
        t.FSize = f.FSize;
        rest.add(" <FSize ");
        rest.addNumber(f.FSize);
        rest.add(">");
    }
    if ((m & bit(FontBit::FPlain)) && f.FPlain != t.FPlain) {
        if (f.FPlain) t.FBold = t.FItalic = t.FUnderline = t.FStrike = kNo;
        t.FPlain = f.FPlain;
        if (f.FPlain)
            rest.add(" <FPlain Yes>");
        else
            rest.add(" <FPlain No>");
    }
    // A style given that differs from the state's clears FPlain.
    auto style = [&](uint32_t bitNo, uint32_t v, uint32_t& state, auto& yes, auto& no) {
        if (!(m & bit(bitNo)) || v == state) return;
        t.FPlain = kNo;
        state = v;
        if (v)
            rest.add(yes);
        else
            rest.add(no);
    };
    style(FontBit::FBold, f.FBold, t.FBold, " <FBold Yes>", " <FBold No>");
    style(FontBit::FItalic, f.FItalic, t.FItalic, " <FItalic Yes>", " <FItalic No>");
    style(FontBit::FUnderline, f.FUnderline, t.FUnderline, " <FUnderline Yes>", " <FUnderline No>");
    style(FontBit::FStrike, f.FStrike, t.FStrike, " <FStrike Yes>", " <FStrike No>");
    if ((m & bit(FontBit::FDY)) && f.FDY != t.FDY) {
        t.FDY = f.FDY;
        rest.add(" <FDY ");
        rest.addNumber(f.FDY);
        rest.add(">");
    }
    if (family == nullptr && rest.size() == head) {
        t.quietFont = f;
        t.isQuiet = true;
        return 1;
    }
    // The state now holds what f asks for, unless a style cleared the FPlain
    // that f sets, or the family could not be kept: then f given again
    // writes again; else it writes nothing, as after a quiet call.
    t.isQuiet = (!(m & bit(FontBit::FPlain)) || t.FPlain == f.FPlain) &&
                (!(m & bit(FontBit::FFamily)) || !f.FFamily || t.hasFamily);
    if (t.isQuiet) t.quietFont = f;
    rest.add(">\n");
    if (!closeString(stream)) return 0;
    if (family != nullptr &&
        (!put("\t<Font <FFamily `", stream) || !putText(family, stream) || !put("'>", stream)))
        return 0;
    return rest.writeTo(stream);
}

}  // namespace

unsigned VifFontOut(const Font& f, FILE* stream) {
    if (s.text.isQuiet && sameForWriter(f, s.text.quietFont)) return 1;
    return fontChange(f, stream);
}

bool VifFontSettled() { return s.text.isQuiet; }

unsigned VifAFrameOut(int id, FILE* stream) {
    if (!closeString(stream)) return 0;
    return fprintf(stream, "\t<AFrame %d>", id) >= 0;
}

unsigned VifMarkerOut(const Marker& m, FILE* stream) {
    if (!closeString(stream)) return 0;
    if (!put("\t<Marker\n", stream)) return 0;
    if (!outWorkHorse(&m, stream, 2, marker)) return 0;
    return put("\t>", stream);
}

void VifReset() {
    s = VifOutState{};
    catalogReset();
}
