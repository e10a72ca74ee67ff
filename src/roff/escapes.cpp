// The full mode's escapes: groff's character names and long names of
// strings, registers and fonts, sizes in all their forms, the escapes that
// only move or draw (consumed with their argument), and UTF-8 text.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "interp/interp.h"
#include "requests/troff.h"
#include "roff/glyphs.h"
#include "roff/roff.h"
#include "roff/roffstate.h"

namespace {

Rope* returnText() { return tv.TVReturn.text.get(); }

void push(char c) { RopeAppend(returnText(), c); }

// A character of the output pushed so that it is written as it is: never an
// escape, a control character or the lead byte of a UTF-8 sequence.
void pushLiteral(unsigned char code) {
    push(static_cast<char>(kLiteralNext));
    push(static_cast<char>(code));
}

void pushText(const std::string& text) { RopeCatString(returnText(), text.c_str()); }

bool isBlankOut(char c) { return c == ' ' || c == kNewline || c == kTab || c == kHardReturn; }

// Reads the name of an escape from the input: one character, "(xx" or
// "[name]". False (after nothing else is read) at the end of the line.
bool readNameFrom(int c, std::string& name) {
    name.clear();
    if (c == -1 || c == kNewline) return false;
    if (c == '(') {
        for (int i = 0; i < 2; i++) {
            int d = TVGetc();
            if (d == -1 || d == kNewline) return false;
            name += static_cast<char>(d);
        }
        return true;
    }
    if (c != '[') {
        name += static_cast<char>(c);
        return true;
    }
    // Brackets nest, for a name that holds escapes of its own (\n[a\n[b]]).
    int depth = 0;
    for (;;) {
        int d = TVGetc();
        if (d == -1 || d == kNewline) return false;
        if (d == ']' && depth == 0) break;
        if (d == '[') depth++;
        if (d == ']') depth--;
        name += static_cast<char>(d);
    }
    roffResolveName(name);
    return true;
}

bool readName(std::string& name) { return readNameFrom(TVGetc(), name); }

// The escapes that take a delimited argument of their own.
constexpr const char kDelimitedEscapes[] = "whvlLoDXZbxHSNCBAR";

// Reads a delimited argument from the input; nested escapes with arguments
// of their own are read whole.
bool readDelimited(std::string& content) {
    content.clear();
    int delimiter = TVGetc();
    if (delimiter == -1 || delimiter == kNewline) return false;
    int nested = 0;  // open delimited arguments of nested escapes
    for (;;) {
        int c = TVGetc();
        if (c == -1) return false;
        if (c == tv.TVEscapeChar && tv.TVEscapeChar != 0) {
            int letter = TVGetc();
            if (letter == -1) return false;
            content += static_cast<char>(c);
            content += static_cast<char>(letter);
            if (letter > 0 && std::strchr(kDelimitedEscapes, letter)) {
                int d = TVGetc();
                if (d == -1) return false;
                content += static_cast<char>(d);
                if (d == delimiter) nested++;
            }
            continue;
        }
        if (c == delimiter) {
            if (nested == 0) return true;
            nested--;
        }
        content += static_cast<char>(c);
    }
}

void pushGlyph(const Glyph& g) {
    if (g.text) {
        pushText(g.text);
        return;
    }
    // The byte 255 would read back as the end of the input: the one
    // character there (the caron) is left out.
    if (g.code == 0 || g.code == 255) return;
    if (g.isSymbol) tv.TVReturn.isSymbol = true;
    pushLiteral(g.code);
}

// A character by name: the classic table's names first, then groff's.
void characterByName(const std::string& name) {
    unsigned char code = 0;
    bool isSymbol = false;
    if (name.size() == 2 && TVSpecialCharGet(name[0], name[1], code, isSymbol)) {
        pushGlyph(Glyph{code, isSymbol, nullptr});
        return;
    }
    Glyph g;
    if (glyphByName(name, g)) {
        pushGlyph(g);
        return;
    }
    roffWarnOnce("glyph " + name, "Unknown character name " + name + "; nothing written.");
}

void characterByNumber(const std::string& number) {
    const char* p = number.data();
    int64_t value = 0;
    if (!roffExpression(p, p + number.size(), 'u', value) || value <= 0) return;
    if (value < 128) {
        pushLiteral(static_cast<unsigned char>(value));
        return;
    }
    Glyph g;
    if (glyphByCodePoint(static_cast<uint32_t>(value), g)) pushGlyph(g);
}

// The value of a string; the package's own strings hold characters of the
// output already, which must not be read as UTF-8.
void interpolateString() {
    std::string name, args;
    int c = TVGetc();
    if (c == -1 || c == kNewline) return;
    if (c == '[') {
        bool inArgs = false;
        for (;;) {
            int d = TVGetc();
            if (d == -1 || d == kNewline || d == ']') break;
            if (!inArgs && (d == ' ' || d == '\t')) {
                inArgs = true;
                continue;
            }
            (inArgs ? args : name) += static_cast<char>(d);
        }
    } else if (c == '(') {
        for (int i = 0; i < 2; i++) {
            int d = TVGetc();
            if (d == -1 || d == kNewline) return;
            name += static_cast<char>(d);
        }
    } else {
        name += static_cast<char>(c);
    }
    if (const std::string* value = roffStringGet(name)) {
        if (args.empty()) {
            pushText(*value);
        } else {
            std::vector<std::string> list;
            roffSplitArgs(args, list);
            pushText(roffSubstituteArgs(*value, name, list.data(), list.size()));
        }
        return;
    }
    if (name.size() > 2) return;
    if (const char* classic = TVStringGet(name.c_str())) {
        for (const char* p = classic; *p; p++) {
            if (static_cast<unsigned char>(*p) >= 128) push(static_cast<char>(kLiteralNext));
            push(*p);
        }
    }
}

void interpolateRegister() {
    int step = 0;
    int c = TVGetc();
    if (c == '+' || c == '-') {
        step = c == '+' ? 1 : -1;
    } else if (c != -1) {
        char back = static_cast<char>(c);
        TVUnread(&back, 1);
    }
    std::string name;
    if (readName(name)) pushText(roffRegisterText(name, step));
}

// \s with a sign before or after the opening: \s+2, \s(12, \s+(12, \s[+2],
// \s'12'; 0 returns to the size before.
void sizeChange() {
    int c = TVGetc();
    int sign = 0;
    if (c == '+' || c == '-') {
        sign = c == '+' ? 1 : -1;
        c = TVGetc();
    }
    std::string digits;
    if (c == '(') {
        for (int i = 0; i < 2; i++) {
            int d = TVGetc();
            if (d == -1 || d == kNewline) return;
            digits += static_cast<char>(d);
        }
    } else if (c == '[' || c == '\'') {
        char close = c == '[' ? ']' : '\'';
        for (;;) {
            int d = TVGetc();
            if (d == -1 || d == kNewline) return;
            if (d == close) break;
            digits += static_cast<char>(d);
        }
    } else if (c >= '0' && c <= '9') {
        digits += static_cast<char>(c);
        if (sign == 0 && c >= '1' && c <= '3') {
            int d = TVGetc();
            if (d >= '0' && d <= '9') {
                digits += static_cast<char>(d);
            } else if (d != -1) {
                char back = static_cast<char>(d);
                TVUnread(&back, 1);
            }
        }
    } else {
        if (c != -1) {
            char back = static_cast<char>(c);
            TVUnread(&back, 1);
        }
        return;
    }
    const char* p = digits.data();
    const char* end = p + digits.size();
    if (sign == 0 && p < end && (*p == '+' || *p == '-')) sign = *p++ == '+' ? 1 : -1;
    int64_t value = 0;
    if (!roffExpression(p, end, 'z', value)) return;
    int64_t size = sign != 0 ? tv.TVSize + sign * value : value == 0 ? tv.TVLastSize : value;
    if (size < 1) size = 1;
    if (size > 1000) size = 1000;
    tv.TVLastSize = tv.TVSize;
    tv.TVSize = static_cast<int32_t>(size);
}

// \h: a motion to the right between two words leaves a blank.
void horizontalMotion(char lastOut) {
    std::string amount;
    if (!readDelimited(amount)) return;
    const char* p = amount.data();
    int64_t value = 0;
    bool isAbsolute = !amount.empty() && amount[0] == '|';
    if (isAbsolute) p++;
    if (!roffExpression(p, amount.data() + amount.size(), 'm', value)) return;
    if ((value > 0 || isAbsolute) && !isBlankOut(lastOut)) push(' ');
}

// \R'name value': sets a register as nr does.
void setRegister() {
    std::string content;
    if (!readDelimited(content)) return;
    size_t blank = content.find(' ');
    if (blank == std::string::npos) return;
    std::string name = content.substr(0, blank);
    std::string valueText = content.substr(blank + 1);
    const char* p = valueText.data();
    const char* end = p + valueText.size();
    int sign = 0;
    if (p < end && (*p == '+' || *p == '-')) sign = *p++ == '+' ? 1 : -1;
    int64_t value = 0;
    if (!roffExpression(p, end, 'u', value)) return;
    int64_t old = 0;
    roffRegisterValue(name, old);
    roffSetRegister(name, sign == 0 ? value : old + sign * value);
}

struct FontName {
    const char* name;
    const char* family;  // null: the current family
    char style;          // 'R', 'I', 'B' or 'M' (bold italic)
};

// Fonts by groff's names that the classic font table has no position for.
constexpr FontName kFontNames[] = {
    {"C", "Courier", 'R'},    {"CW", "Courier", 'R'},   {"CR", "Courier", 'R'},
    {"CB", "Courier", 'B'},   {"CI", "Courier", 'I'},   {"CBI", "Courier", 'M'},
    {"CO", "Courier", 'I'},   {"CX", "Courier", 'M'},   {"TR", "Times", 'R'},
    {"TI", "Times", 'I'},     {"TB", "Times", 'B'},     {"TBI", "Times", 'M'},
    {"H", "Helvetica", 'R'},  {"HR", "Helvetica", 'R'}, {"HI", "Helvetica", 'I'},
    {"HB", "Helvetica", 'B'}, {"HBI", "Helvetica", 'M'}, {"HX", "Helvetica", 'M'},
    {"BI", "Times", 'M'},     {"IB", "Times", 'M'},
};

}  // namespace

bool roffGlyphKnown(const std::string& name) {
    unsigned char code = 0;
    bool isSymbol = false;
    if (name.size() == 2 && TVSpecialCharGet(name[0], name[1], code, isSymbol)) return true;
    Glyph g;
    return glyphByName(name, g);
}

bool roffSelectFont(std::string_view name) {
    // One letter or digit, the commonest: its position without a search.
    if (name.size() == 1) {
        if (const int position = TVFontPositionOfLetter(name[0]); position >= 0) {
            tv.TVLastFamilyStyle = tv.TVFamilyStyle;
            TVFontSetByPosition(static_cast<unsigned>(position));
            return true;
        }
    }
    if (name.empty() || name == "P") {
        std::swap(tv.TVFamilyStyle, tv.TVLastFamilyStyle);
        return true;
    }
    int position = -1;
    if (name.size() <= 2) {
        const char key[3] = {name[0], name.size() == 2 ? name[1] : '\0', '\0'};
        position = TVFontPositionOf(key);
    }
    if (position >= 0) {
        tv.TVLastFamilyStyle = tv.TVFamilyStyle;
        TVFontSetByPosition(static_cast<unsigned>(position));
        return true;
    }
    for (const FontName& f : kFontNames) {
        if (name != f.name) continue;
        tv.TVLastFamilyStyle = tv.TVFamilyStyle;
        TVFontSetFamilyStyle(f.family, f.style);
        return true;
    }
    return false;
}

namespace {

// The escapes other than the commonest two.
[[gnu::noinline]] bool otherEscape(int letter, char lastOut) {
    std::string text;
    switch (letter) {
        case kNewline:
            TVContinueLine();
            return true;
        case '[':
            text.clear();
            for (;;) {
                int c = TVGetc();
                if (c == -1 || c == kNewline) return true;
                if (c == ']') break;
                text += static_cast<char>(c);
            }
            characterByName(text);
            return true;
        case '(': {
            int first = TVGetc();
            int second = first == -1 || first == kNewline ? -1 : TVGetc();
            if (second == -1 || second == kNewline) return true;
            characterByName(std::string{static_cast<char>(first), static_cast<char>(second)});
            return true;
        }
        case 'C':
            if (readDelimited(text)) characterByName(text);
            return true;
        case 'N':
            if (readDelimited(text)) characterByNumber(text);
            return true;
        case '*':
            interpolateString();
            return true;
        case 'n':
            interpolateRegister();
            return true;
        case 's':
            sizeChange();
            return true;
        case '$': {
            // Outside a macro there are no arguments; inside one they were
            // put in place when it was called.
            int c = TVGetc();
            if (c == '(' || c == '[') {
                char back = static_cast<char>(c);
                TVUnread(&back, 1);
                readName(text);
            }
            return true;
        }
        case '~':
            push(static_cast<char>(kUnpaddableSpace));
            return true;
        case kTab:  // an escaped tab is a tab
        case 't':
            // Text within its word: a macro's word trap, as of the
            // alternating fonts, sees no blank between two arguments.
            pushLiteral(static_cast<unsigned char>(kTab));
            return true;
        // Break points, italic corrections, thin spaces and half-line motions
        // show nothing on a line of text.
        case ':': case '/': case ',': case ')': case '|': case '^': case '{':
        case 'u': case 'd': case 'r': case 'z':
            return true;
        case '}': {
            // A line of nothing but the end of a block leaves no empty line.
            if (lastOut == kNewline || lastOut == kHardReturn) {
                int c = TVGetc();
                if (c != kNewline && c != -1) {
                    char back = static_cast<char>(c);
                    TVUnread(&back, 1);
                }
            }
            return true;
        }
        case 'c': {
            // The rest of the line goes and the next line joins this one;
            // what waits for the end of the line (a font macro's return to
            // roman, the alternation of fonts) ends here, as at a newline.
            int c;
            do c = TVGetc(); while (c != kNewline && c != -1);
            fireWordTraps(true);
            fireLineTraps();
            TVReturnReset();
            return true;
        }
        case 'E':
            push(tv.TVEscapeChar);
            return true;
        case '#': {
            int c;
            do c = TVGetc(); while (c != kNewline && c != -1);
            return true;
        }
        case 'h':
            horizontalMotion(lastOut);
            return true;
        case 'v': case 'l': case 'L': case 'o': case 'D': case 'X': case 'Z': case 'b':
        case 'x': case 'H': case 'S':
            readDelimited(text);
            return true;
        case 'w':
            if (readDelimited(text)) pushText(std::to_string(roffWidth(text)));
            return true;
        case 'B': {
            if (!readDelimited(text)) return true;
            const char* p = text.data();
            int64_t value = 0;
            bool isValid = roffExpression(p, text.data() + text.size(), 'u', value) &&
                           p == text.data() + text.size();
            push(isValid ? '1' : '0');
            return true;
        }
        case 'A':
            if (readDelimited(text)) push('1');
            return true;
        case 'R':
            setRegister();
            return true;
        case 'g':
            if (readName(text)) pushText(roffRegisterFormat(text));
            return true;
        case 'k': case 'Y': case 'V': case 'm': case 'M': case 'F': case 'O':
            readName(text);
            return true;
        default:
            return false;
    }
}

}  // namespace

bool RoffEscape(int letter, char lastOut) {
    // A font with a one-character name and the minus sign, the commonest
    // escapes of manual pages, go without the string the others use.
    if (letter == 'f') {
        int c = TVGetc();
        if (c != -1 && c != kNewline && c != '(' && c != '[') {
            const char name = static_cast<char>(c);
            roffSelectFont(std::string_view(&name, 1));
            return true;
        }
        std::string text;
        if (readNameFrom(c, text)) roffSelectFont(text);
        return true;
    }
    if (letter == '-') {
        pushLiteral(static_cast<unsigned char>(kEnDash));
        return true;
    }
    return otherEscape(letter, lastOut);
}

namespace {
int nextByte() {
    int c = TVGetc();
    return c == -1 ? -1 : (c & 0xFF);
}
}  // namespace

int RoffTextByte(int c) {
    int lead = c & 0xFF;
    if (lead < 0xC2 || lead > 0xF4) return lead;  // not the start of a sequence
    int unread = -1;
    int32_t codePoint = decodeUtf8(lead, nextByte, &unread);
    if (unread >= 0) {
        char back = static_cast<char>(unread);
        TVUnread(&back, 1);
    }
    if (codePoint < 0) return lead;
    Glyph g;
    if (!glyphByCodePoint(static_cast<uint32_t>(codePoint), g)) {
        if (roff.unmapped.insert(static_cast<uint32_t>(codePoint)).second) {
            char message[96];
            std::snprintf(message, sizeof message,
                          "Character U+%04X has no equivalent in the output; dropped.",
                          static_cast<unsigned>(codePoint));
            roffWarn(message);
        }
        return -1;
    }
    if (g.text) {
        TVUnread(g.text, std::strlen(g.text));
        return -1;
    }
    if (g.isSymbol) tv.TVReturn.isSymbol = true;
    return g.code;
}
