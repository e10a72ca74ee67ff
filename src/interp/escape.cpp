// Escape sequences: TVEscape turns one sequence into bytes of the character
// stream pushed back through TVReturn, or into a change of the current font or
// size. Also the special-character table and the font positions.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>

#include "driver/driver.h"
#include "interp/interp.h"
#include "roff/roff.h"

namespace {

// Two-character names of special characters use the printable codes 32 to 127.
constexpr int kNameFirst = 32;
constexpr int kNameChars = 96;

struct SpecialChar {
    unsigned char code = 0;  // 0: no such character
    char font = 0;           // 'a': the current family, 's': the Symbol family
};

struct SpecialCharRow {
    char name[3];
    unsigned char code;
    char font;
};

// One row per special character: the text-font ones, then the Symbol ones.
constexpr SpecialCharRow kSpecialChars[] = {
    {"aa", 171, 'a'}, {"bu", 165, 'a'}, {"ci", 79, 'a'},  {"dd", 224, 'a'},
    {"dg", 160, 'a'}, {"em", 209, 'a'}, {"fi", 222, 'a'}, {"fl", 223, 'a'},
    {"ga", 96, 'a'},  {"hy", 45, 'a'},  {"ru", 95, 'a'},  {"sc", 164, 'a'},

    {"!=", 185, 's'}, {"**", 42, 's'},  {"+-", 177, 's'}, {"->", 174, 's'}, {"<-", 172, 's'},
    {"<=", 163, 's'}, {"==", 186, 's'}, {">=", 179, 's'}, {"~=", 187, 's'},
    {"*A", 65, 's'},  {"*B", 66, 's'},  {"*C", 88, 's'},  {"*D", 68, 's'},  {"*E", 69, 's'},
    {"*F", 70, 's'},  {"*G", 71, 's'},  {"*H", 81, 's'},  {"*I", 73, 's'},  {"*K", 75, 's'},
    {"*L", 76, 's'},  {"*M", 77, 's'},  {"*N", 78, 's'},
    {"*O", 79, 's'},  {"*P", 80, 's'},  {"*Q", 89, 's'},  {"*R", 82, 's'},  {"*S", 83, 's'},
    {"*T", 84, 's'},  {"*U", 85, 's'},  {"*W", 87, 's'},  {"*X", 67, 's'},  {"*Y", 72, 's'},
    {"*Z", 90, 's'},
    {"*a", 97, 's'},  {"*b", 98, 's'},  {"*c", 120, 's'}, {"*d", 100, 's'}, {"*e", 101, 's'},
    {"*f", 102, 's'}, {"*g", 103, 's'}, {"*h", 113, 's'}, {"*i", 105, 's'}, {"*k", 107, 's'},
    {"*l", 108, 's'}, {"*m", 109, 's'}, {"*n", 110, 's'},
    {"*o", 111, 's'}, {"*p", 112, 's'}, {"*q", 121, 's'}, {"*r", 114, 's'}, {"*s", 115, 's'},
    {"*t", 116, 's'}, {"*u", 117, 's'}, {"*w", 119, 's'}, {"*x", 99, 's'},  {"*y", 104, 's'},
    {"*z", 122, 's'}, {"ts", 115, 's'},
    {"ap", 126, 's'}, {"br", 124, 's'}, {"bv", 250, 's'}, {"ca", 199, 's'}, {"co", 211, 's'},
    {"ct", 162, 's'}, {"cu", 200, 's'}, {"da", 175, 's'}, {"de", 176, 's'}, {"di", 184, 's'},
    {"eq", 61, 's'},  {"es", 198, 's'}, {"fm", 162, 's'},
    {"gr", 209, 's'}, {"ib", 205, 's'}, {"if", 165, 's'}, {"ip", 202, 's'}, {"is", 242, 's'},
    {"lb", 238, 's'}, {"lc", 253, 's'}, {"lf", 235, 's'}, {"lh", 220, 's'}, {"lk", 237, 's'},
    {"lt", 236, 's'}, {"mi", 45, 's'},  {"mo", 206, 's'},
    {"mu", 180, 's'}, {"no", 216, 's'}, {"or", 124, 's'}, {"pd", 182, 's'}, {"pl", 43, 's'},
    {"pt", 181, 's'}, {"rb", 254, 's'}, {"rc", 233, 's'}, {"rf", 251, 's'}, {"rg", 210, 's'},
    {"rh", 222, 's'}, {"rk", 253, 's'}, {"rn", 96, 's'},
    {"rt", 252, 's'}, {"s1", 47, 's'},  {"sb", 204, 's'}, {"sp", 201, 's'}, {"sq", 224, 's'},
    {"sr", 214, 's'}, {"tm", 212, 's'}, {"ua", 173, 's'}, {"ul", 95, 's'},
};
static_assert(std::size(kSpecialChars) == 118, "12 text-font and 106 Symbol characters");

// Names without an entry that stand for a short text.
struct SpecialTextRow {
    char name[3];
    const char* text;
};
constexpr SpecialTextRow kSpecialTexts[] = {
    {"14", "1/4"}, {"12", "1/2"}, {"34", "3/4"}, {"ff", "ff"}, {"Fi", "ffi"}, {"Fl", "ffi"},
};

struct EscapeState {
    bool isSpecialChar = false;  // the table below has been filled
    SpecialChar specialChar[kNameChars * kNameChars];
};
EscapeState s;

bool isPrintable(int c) { return c >= 32 && c <= 127; }
bool isDigit(int c) { return c >= '0' && c <= '9'; }

void push(int c) { RopeAppend(tv.TVReturn.text.get(), static_cast<char>(c)); }

void pushName(const char name[2], bool isLong) {
    if (isLong) {
        push('(');
        push(name[0]);
        push(name[1]);
    } else {
        push(name[0]);
    }
}

// Passes an uninterpreted sequence through: written literally, never read as
// an escape again.
void passThrough(int letter) {
    pushLiteralEscape();
    push(letter);
}

void fillSpecialChars() {
    for (const SpecialCharRow& row : kSpecialChars) {
        int index = (row.name[0] - kNameFirst) * kNameChars + (row.name[1] - kNameFirst);
        s.specialChar[index] = SpecialChar{row.code, row.font};
    }
    s.isSpecialChar = true;
}

void specialCharacter() {
    int first = TVGetc();
    int second = TVGetc();
    if (!isPrintable(first)) {
        TVWarningPre();
        std::fputs("Expected ( followed by a printable character.\n", stderr);
        return;
    }
    if (!isPrintable(second)) {
        TVWarningPre();
        std::fprintf(stderr, "Expected (%c followed by a printable character.\n", first);
        return;
    }
    if (!s.isSpecialChar) fillSpecialChars();
    const SpecialChar& entry =
        s.specialChar[(first - kNameFirst) * kNameChars + (second - kNameFirst)];
    if (entry.code != 0) {
        push(entry.code);
        if (entry.font == 's') tv.TVReturn.isSymbol = true;
        return;
    }
    for (const SpecialTextRow& row : kSpecialTexts) {
        if (row.name[0] == first && row.name[1] == second) {
            RopeCopyString(tv.TVReturn.text.get(), row.text);
            return;
        }
    }
    passThrough('(');
    push(first);
    push(second);
}

// Reads the name of a string, font or number register: one character, or a
// left parenthesis and two. False after a warning.
[[gnu::always_inline]] inline bool readName(int letter, char name[2], bool& isLong) {
    int c = TVGetc();
    if (letter == 'n') {
        while (c == '+' || c == '-') c = TVGetc();
    }
    if (!isPrintable(c)) {
        TVWarningPre();
        std::fprintf(stderr, "Expected %c followed by a printable character.\n", letter);
        return false;
    }
    if (c != '(') {
        name[0] = static_cast<char>(c);
        name[1] = 0;
        isLong = false;
        return true;
    }
    int first = TVGetc();
    int second = TVGetc();
    if (!isPrintable(first)) {
        TVWarningPre();
        std::fprintf(stderr, "Expected %c( followed by a printable character.\n", letter);
        return false;
    }
    if (!isPrintable(second)) {
        TVWarningPre();
        std::fprintf(stderr, "Expected %c(%c followed by a printable character.\n", letter, first);
        return false;
    }
    name[0] = static_cast<char>(first);
    name[1] = static_cast<char>(second);
    isLong = true;
    return true;
}

void fontChange(const char name[2], bool isLong) {
    int position = -1;
    if (!isLong && name[0] >= '1' && name[0] <= 'S') {
        switch (name[0]) {
            case '1': case '2': case '3': case '4': position = name[0] - '1'; break;
            case 'R': position = 0; break;
            case 'I': position = 1; break;
            case 'B': position = 2; break;
            case 'S': position = 3; break;
            case 'P': std::swap(tv.TVFamilyStyle, tv.TVLastFamilyStyle); return;
            default: break;
        }
    }
    if (position < 0) {
        for (int i = 0; i < kFontPositions; i++) {
            const FontPosition& p = tv.TVFontTable[i];
            if (p.name[0] == name[0] && p.name[1] == name[1]) {
                position = i;
                break;
            }
        }
    }
    if (position < 0) return;  // an unknown font changes nothing
    tv.TVLastFamilyStyle = tv.TVFamilyStyle;
    TVFontSetByPosition(static_cast<unsigned>(position));
}

void sizeChange() {
    int c = TVGetc();
    if (!isPrintable(c)) {
        TVWarningPre();
        std::fputs("Expected \\s followed by a printable character.\n", stderr);
        return;
    }
    int sign = 0;
    if (c == '+' || c == '-') {
        sign = c == '+' ? 1 : -1;
        c = TVGetc();
    }
    // Neither a sign nor a digit (\sx) gets the same warning as a sign
    // without its digit.
    if (!isDigit(c)) {
        TVWarningPre();
        std::fputs("Expected \\s followed by # of pts or increment thereof.\n", stderr);
        return;
    }
    int value = c - '0';
    if (sign == 0 && value >= 1 && value <= 3) {
        int second = TVGetc();
        if (!isDigit(second)) {
            TVWarningPre();
            std::fprintf(stderr, "Expected \\s%d followed by a digit.\n", value);
            return;
        }
        value = value * 10 + (second - '0');
    } else if (value == 0) {
        value = tv.TVLastSize;
    }
    // Sizes are added up in 64 bits and kept within 32: repeated "+0"
    // changes grow like a Fibonacci series and would overflow.
    int64_t size = sign != 0 ? int64_t{tv.TVSize} + int64_t{sign} * value : int64_t{value};
    if (size > std::numeric_limits<int32_t>::max()) size = std::numeric_limits<int32_t>::max();
    if (size < std::numeric_limits<int32_t>::min()) size = std::numeric_limits<int32_t>::min();
    tv.TVLastSize = tv.TVSize;
    tv.TVSize = static_cast<int32_t>(size);
}

}  // namespace

void pushLiteralEscape() {
    // kLiteralNext makes the main loop write the next byte as text, whatever
    // the escape character is, so a passed-through sequence is never read as
    // an escape again. With escapes off there is no escape character: show
    // the backslash.
    push(kLiteralNext);
    push(tv.TVEscapeChar != 0 ? tv.TVEscapeChar : '\\');
}

namespace {

// Every escape but the commonest two, by its letter.
[[gnu::noinline]] void escapeByLetter(int letter, char lastOut) {
    switch (letter) {
        case -1:
        case kNewline:
        case '!':
            return;
        case ' ': case '0': case '^': case '|':
            push(kUnpaddableSpace);
            return;
        case '"': case 'c':
            TVSkipPast(kNewline);
            return;
        case '$': case 'k': case 'z': {
            int c = TVGetc();
            if (!isPrintable(c)) {
                TVWarningPre();
                std::fprintf(stderr, "Expected %c followed by a printable character.\n", letter);
                return;
            }
            passThrough(letter);
            push(c);
            return;
        }
        case '%':
            if (tv.TVHyphenationChar != 0) {
                push('%');
            } else {
                push(lastOut == ' ' || lastOut == kNewline || lastOut == kTab ? kHyphenAtWordStart
                                                                              : kHyphenInWord);
            }
            return;
        case '&':
            push(kZeroWidth);
            return;
        case '(':
            specialCharacter();
            return;
        case '*': case 'n': {
            char name[2];
            bool isLong = false;
            if (!readName(letter, name, isLong)) return;
            if (letter == '*') {
                char key[3] = {name[0], name[1], 0};
                if (const char* value = TVStringGet(key)) {
                    RopeCopyString(tv.TVReturn.text.get(), value);
                    return;
                }
            }
            // Number registers and undefined strings are shown as written.
            passThrough(letter);
            pushName(name, isLong);
            return;
        }
        case 'L': case 'b': case 'h': case 'l': case 'o': case 'v': case 'w': case 'x': {
            passThrough(letter);
            // Only what precedes the first apostrophe comes along; a byte 3
            // copied from the input is doubled so that it stays a plain 3.
            const Rope* skipped = TVSkipPast('\'');
            const char* p = RopeText(skipped);
            const char* end = p + skipped->length;
            while (p != end) {
                const auto* literal = static_cast<const char*>(std::memchr(p, kLiteralNext, static_cast<size_t>(end - p)));
                const char* upTo = literal ? literal + 1 : end;
                RopeCatChars(tv.TVReturn.text.get(), p, static_cast<size_t>(upTo - p));
                if (literal) push(kLiteralNext);
                p = upTo;
            }
            return;
        }
        case 'a': case 't':
            push(kTab);
            return;
        case 'd': case 'r': case 'u': case '{': case '}':
            passThrough(letter);
            return;
        case 'e':
            pushLiteralEscape();
            return;
        case 'p':
            push(kHardReturn);
            return;
        case 's':
            sizeChange();
            return;
        default:
            if (!isPrintable(letter)) {
                TVWarningPre();
                std::fputs("Expected \\ followed by a printable character.\n", stderr);
                return;
            }
            if (letter == '\\') {
                push(kLiteralBackslash);
            } else if (letter == tv.TVEscapeChar) {
                // A doubled escape character other than the backslash stands
                // for itself, written as text rather than read as an escape.
                push(kLiteralNext);
                push(letter);
            } else {
                push(letter);
            }
            return;
    }
}

}  // namespace

void TVEscape(char lastOut) {
    int letter = TVGetc();
    if (driver.isFull && RoffEscape(letter, lastOut)) return;
    // A font change and the minus sign, the commonest escapes of manual
    // pages, go without the set-up of the whole table.
    if (letter == '-') {
        push(static_cast<unsigned char>(kEnDash));
        return;
    }
    if (letter == 'f') {
        char name[2];
        bool isLong = false;
        if (readName(letter, name, isLong)) fontChange(name, isLong);
        return;
    }
    escapeByLetter(letter, lastOut);
}

bool TVSpecialCharGet(char first, char second, unsigned char& code, bool& isSymbol) {
    if (!isPrintable(first) || !isPrintable(second)) return false;
    if (!s.isSpecialChar) fillSpecialChars();
    const SpecialChar& entry = s.specialChar[(first - kNameFirst) * kNameChars + (second - kNameFirst)];
    if (entry.code == 0) return false;
    code = entry.code;
    isSymbol = entry.font == 's';
    return true;
}

void TVFontSetByPosition(unsigned position) {
    if (position >= static_cast<unsigned>(kFontPositions)) return;
    const FontPosition& entry = tv.TVFontTable[position];
    TVFontSetFamilyStyle(entry.family, entry.style);
}

void TVFontSetFamilyStyle(const char* family, char style) {
    // An unmounted position has no family: keep the current one, so that the
    // writer never sees a character format without a family.
    if (!family && (tv.TVFamilyStyle.mask & bit(FontBit::FFamily))) family = tv.TVFamilyStyle.FFamily;
    Font f;
    if (family) {
        f.FFamily = family;
        f.mask |= bit(FontBit::FFamily);
    }
    switch (style) {
        case 'B':
            f.FBold = kYes;
            f.FItalic = kNo;
            f.mask |= bit(FontBit::FBold) | bit(FontBit::FItalic);
            break;
        case 'I':
            f.FBold = kNo;
            f.FItalic = kYes;
            f.mask |= bit(FontBit::FBold) | bit(FontBit::FItalic);
            break;
        case 'M':
            f.FBold = kYes;
            f.FItalic = kYes;
            f.mask |= bit(FontBit::FBold) | bit(FontBit::FItalic);
            break;
        default:
            f.FPlain = kYes;
            f.mask |= bit(FontBit::FPlain);
            break;
    }
    tv.TVFamilyStyle = f;
}

void escapeReset() { s = EscapeState{}; }
