// Equations (eqn): the equation's text in a linear form a reader can follow,
// as troff input: x sup 2 becomes x^2, a sub i a_i, a over b a/b, sqrt x the
// radical sign before x, braces group, greek and special names become
// characters of the Symbol font; font, size and motion keywords shape the
// text, and define, delim and the set-up keywords are taken in. A display
// equation is a centred paragraph of its own; an in-line one stays in its
// sentence.
#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "interp/interp.h"
#include "preproc/preproc.h"
#include "preproc/preprocstate.h"
#include "roff/roff.h"

namespace {

// Definitions expand into definitions at most this deep, and an equation
// expands at most this many of them: a definition that names itself stops.
constexpr size_t kMaxDefineDepth = 32;
constexpr size_t kMaxExpansions = 4096;
// Groups nest at most this deep; deeper ones are read as flat text.
constexpr int kMaxNesting = 64;
// An in-line equation is at most this long; its closing delimiter is looked
// for no further.
constexpr size_t kMaxInlineLength = 16384;

// Names eqn sets as characters, and the groff name of each.
struct NameGlyph {
    std::string_view name;
    const char* glyph;
};
constexpr NameGlyph kNames[] = {
    {"ALPHA", "*A"},   {"BETA", "*B"},     {"CHI", "*X"},     {"DELTA", "*D"},   {"EPSILON", "*E"},
    {"ETA", "*Y"},     {"GAMMA", "*G"},    {"IOTA", "*I"},    {"KAPPA", "*K"},   {"LAMBDA", "*L"},
    {"MU", "*M"},      {"NU", "*N"},       {"OMEGA", "*W"},   {"OMICRON", "*O"}, {"PHI", "*F"},
    {"PI", "*P"},      {"PSI", "*Q"},      {"RHO", "*R"},     {"SIGMA", "*S"},   {"TAU", "*T"},
    {"THETA", "*H"},   {"UPSILON", "*U"},  {"XI", "*C"},      {"ZETA", "*Z"},    {"alpha", "*a"},
    {"approx", "~~"},  {"beta", "*b"},     {"cdot", "md"},    {"chi", "*x"},     {"del", "gr"},
    {"delta", "*d"},   {"epsilon", "*e"},  {"eta", "*y"},     {"gamma", "*g"},   {"grad", "gr"},
    {"half", "12"},    {"inf", "if"},      {"int", "is"},     {"inter", "ca"},   {"iota", "*i"},
    {"kappa", "*k"},   {"lambda", "*l"},   {"mu", "*m"},      {"nu", "*n"},      {"omega", "*w"},
    {"omicron", "*o"}, {"partial", "pd"},  {"phi", "*f"},     {"pi", "*p"},      {"prod", "*P"},
    {"psi", "*q"},     {"rho", "*r"},      {"sigma", "*s"},   {"sum", "*S"},     {"tau", "*t"},
    {"theta", "*h"},   {"times", "mu"},    {"union", "cu"},   {"upsilon", "*u"}, {"xi", "*c"},
    {"zeta", "*z"},
};

// Names set as plain text.
struct NameText {
    std::string_view name;
    const char* text;
};
constexpr NameText kTexts[] = {
    {"cdots", "..."}, {"dollar", "$"}, {"ldots", "..."}, {"nothing", ""}, {"prime", "'"},
};

// Character sequences eqn recognises inside words.
constexpr NameGlyph kSequences[] = {
    {"!=", "!="}, {"+-", "+-"}, {"->", "->"}, {"<-", "<-"}, {"<<", "<<"},
    {"<=", "<="}, {"==", "=="}, {">=", ">="}, {">>", ">>"},
};

// Marks set over or under the box before them, and what follows it here.
constexpr NameGlyph kMarks[] = {
    {"bar", "a-"}, {"dot", "a."}, {"dotdot", "ad"}, {"dyad", "<>"}, {"hat", "a^"},
    {"tilde", "a~"}, {"under", "ul"}, {"utilde", "a~"}, {"vec", "->"},
};

// Every table above is sorted by name, so a word is looked up by halving:
// equations are read a word at a time, and most words are no name at all.
// Most steps are decided by the first characters, compared here before the
// general comparison is called.
constexpr bool nameLess(std::string_view a, std::string_view b) {
    if (!a.empty() && !b.empty() && a[0] != b[0]) {
        return static_cast<unsigned char>(a[0]) < static_cast<unsigned char>(b[0]);
    }
    return a < b;
}

template <typename Row, size_t N>
constexpr bool isSorted(const Row (&rows)[N]) {
    for (size_t i = 1; i < N; i++) {
        if (!(rows[i - 1].name < rows[i].name)) return false;
    }
    return true;
}
static_assert(isSorted(kNames) && isSorted(kTexts) && isSorted(kSequences) && isSorted(kMarks));

template <typename Row, size_t N>
const Row* lookUp(const Row (&rows)[N], std::string_view name) {
    const Row* row = std::lower_bound(std::begin(rows), std::end(rows), name,
                                      [](const Row& r, std::string_view n) { return nameLess(r.name, n); });
    return row != std::end(rows) && row->name == name ? row : nullptr;
}

// What each byte is to a word, looked up in one step as words are read a
// byte at a time: it ends the word, it may begin a character sequence eqn
// recognises, or it is plain (letters, digits and the point keep a word one
// unit).
enum ByteClass : uint8_t { kEndsWord = 1, kBeginsSequence = 2, kPlain = 4 };
constexpr std::array<uint8_t, 256> kByteClasses = [] {
    std::array<uint8_t, 256> classes{};
    for (unsigned char c : std::string_view(" \t\n{}~^\"")) classes[c] |= kEndsWord;
    for (unsigned char c : std::string_view("!+-<=>")) classes[c] |= kBeginsSequence;
    for (int c = 0; c < 256; c++) {
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.') classes[c] |= kPlain;
    }
    return classes;
}();

bool isOf(char c, ByteClass byteClass) { return kByteClasses[static_cast<unsigned char>(c)] & byteClass; }

bool isKeywordOf(std::string_view word, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

// How a piece of the equation binds as an operand: a name, a number or a
// group in parentheses reads as one unit; x^2 and a_i are units for / but
// not for ^ and _; anything else (a/b, a+b, limits) needs parentheses.
enum class Binding { Unit, Script, Loose };

// The length of the escape sequence at `at` (text[at] is the escape
// character): \(xx, \[name], \*x, \*(xx, \fB, \s-2, ... stay whole.
size_t escapeLength(std::string_view text, size_t at) {
    size_t i = at + 2;
    if (i > text.size()) return text.size() - at;
    char letter = text[i - 1];
    auto bracketed = [&](size_t from) {
        size_t close = text.find(']', from);
        return close == std::string_view::npos ? text.size() : close + 1;
    };
    if (letter == '(') {
        i = std::min(text.size(), i + 2);
    } else if (letter == '[') {
        i = bracketed(i);
    } else if ((letter == '*' || letter == 'f' || letter == 'n') && i < text.size()) {
        if (text[i] == '(') {
            i = std::min(text.size(), i + 3);
        } else if (text[i] == '[') {
            i = bracketed(i);
        } else {
            i++;
        }
    } else if (letter == 's') {
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) i++;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') i++;
    }
    return i - at;
}

// A piece of the equation in linear form, and how it binds.
struct Box {
    std::string text;
    Binding binding = Binding::Unit;
    bool isStatement = false;  // a set-up statement: no text, no item
};

enum class Kind { End, Word, Quoted, Open, Close, Space, ThinSpace };

struct Token {
    Kind kind = Kind::End;
    std::string text;
    bool isKeyword = false;  // a word the parser acts on (keywordNames)
    bool mayBeName = false;  // a word the sieve lets through: one of the names, maybe
};

// Every word the parser acts on, sorted: a token is looked up here once, and
// a word that is none of them (most are) passes every keyword test at once.
constexpr std::string_view kKeywordNames[] = {
    "above",   "back",   "bold",     "ccol",   "chartype", "col",    "copy",      "cpile",
    "define",  "delim",  "down",     "fat",    "font",     "from",   "fwd",       "gbfont",
    "gfont",   "grfont", "gsize",    "ifdef",  "include",  "italic", "lcol",      "left",
    "lineup",  "lpile",  "mark",     "matrix", "ndefine",  "nosplit", "over",     "pile",
    "rcol",    "right",  "roman",    "rpile",  "set",      "size",   "smallover", "space",
    "special", "split",  "sqrt",     "sub",    "sup",      "tdefine", "to",       "type",
    "undef",   "up",     "vcenter",
};
static_assert(std::is_sorted(std::begin(kKeywordNames), std::end(kKeywordNames)));

bool isKeywordName(std::string_view word) {
    return std::binary_search(std::begin(kKeywordNames), std::end(kKeywordNames), word, nameLess);
}

// A sieve over every name above (keywords, characters, texts, marks): a word
// whose length, first and last character meet in no name's slot is none of
// them, and most words of an equation are decided by it without a search.
constexpr size_t kSieveSlots = 1024;
constexpr size_t sieveSlot(std::string_view word) {
    return (word.size() * 131 + static_cast<unsigned char>(word.front()) * 31 +
            static_cast<unsigned char>(word.back())) % kSieveSlots;
}

struct Sieve {
    bool slots[kSieveSlots] = {};
    constexpr Sieve() {
        for (std::string_view name : kKeywordNames) slots[sieveSlot(name)] = true;
        for (const NameGlyph& row : kNames) slots[sieveSlot(row.name)] = true;
        for (const NameText& row : kTexts) slots[sieveSlot(row.name)] = true;
        for (const NameGlyph& row : kMarks) slots[sieveSlot(row.name)] = true;
    }
};
constexpr Sieve kSieve;

bool mayBeName(std::string_view word) { return !word.empty() && kSieve.slots[sieveSlot(word)]; }

// Reads the equation's tokens, with definitions expanded: a word that names
// one is read as the definition's text.
class Lexer {
public:
    explicit Lexer(std::string_view source) { sources_.push_back(Source{std::string(source), 0}); }

    Token next() {
        if (peekedCount_ == 0) return expanded();
        Token token = std::move(peeked_[0]);
        if (peekedCount_ == 2) peeked_[0] = std::move(peeked_[1]);
        peekedCount_--;
        return token;
    }

    const Token& peek() {
        if (peekedCount_ == 0) {
            peeked_[0] = expanded();
            peekedCount_ = 1;
        }
        return peeked_[0];
    }

    // The token after the next one.
    const Token& peekSecond() {
        peek();
        if (peekedCount_ == 1) {
            peeked_[1] = expanded();
            peekedCount_ = 2;
        }
        return peeked_[1];
    }

    // The next word as it stands, definitions not expanded (a name being
    // defined, a delimiter).
    std::string rawWord() {
        if (peekedCount_ != 0) return next().text;
        Token token = read();
        return token.text;
    }

    // Text between two of the delimiter that comes next (define's body).
    std::string delimited() {
        Source* source = current();
        if (!source) return std::string();
        skipBlanks(*source);
        if (source->at >= source->text.size()) return std::string();
        char delimiter = source->text[source->at++];
        size_t end = source->text.find(delimiter, source->at);
        if (end == std::string::npos) end = source->text.size();
        std::string body = source->text.substr(source->at, end - source->at);
        source->at = std::min(source->text.size(), end + 1);
        return body;
    }

private:
    struct Source {
        std::string text;
        size_t at;
    };

    static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

    static void skipBlanks(Source& source) {
        while (source.at < source.text.size() && isBlank(source.text[source.at])) source.at++;
    }

    // The source being read, the spent ones dropped; null at the end.
    Source* current() {
        while (!sources_.empty()) {
            Source& source = sources_.back();
            skipBlanks(source);
            if (source.at < source.text.size()) return &source;
            sources_.pop_back();
        }
        return nullptr;
    }

    // The next token, a word that names a definition read as its text.
    Token expanded() {
        for (;;) {
            Token token = read();
            if (token.kind != Kind::Word) return token;
            auto found = preproc.eqnDefines.find(token.text);
            if (found == preproc.eqnDefines.end() || sources_.size() >= kMaxDefineDepth ||
                expansions_ >= kMaxExpansions) {
                return token;
            }
            expansions_++;
            sources_.push_back(Source{found->second, 0});
        }
    }

    Token read() {
        Source* source = current();
        if (!source) return Token{};
        const std::string& text = source->text;
        size_t& at = source->at;
        char c = text[at];
        switch (c) {
            case '{': at++; return Token{Kind::Open, "{"};
            case '}': at++; return Token{Kind::Close, "}"};
            case '~': at++; return Token{Kind::Space, "~"};
            case '^': at++; return Token{Kind::ThinSpace, "^"};
            case '"': {
                size_t end = text.find('"', at + 1);
                if (end == std::string::npos) end = text.size();
                Token token{Kind::Quoted, text.substr(at + 1, end - at - 1)};
                at = std::min(text.size(), end + 1);
                return token;
            }
            default: break;
        }
        const char escape = escapeChar();
        size_t start = at;
        while (at < text.size() && !isOf(text[at], kEndsWord)) {
            if (text[at] == escape && at + 1 < text.size()) {
                at += escapeLength(text, at);
                continue;
            }
            at++;
        }
        Token token{Kind::Word, text.substr(start, at - start)};
        token.mayBeName = mayBeName(token.text);
        token.isKeyword = token.mayBeName && isKeywordName(token.text);
        return token;
    }

    std::vector<Source> sources_;
    size_t expansions_ = 0;
    Token peeked_[2];  // read ahead by peek and peekSecond, the next first
    int peekedCount_ = 0;
};

// The equation's parser: eqn's grammar, each rule giving the linear text of
// what it read.
class Parser {
public:
    explicit Parser(std::string_view source) : lexer_(source) {
        const Font& f = tv.TVFamilyStyle;
        bool isBold = (f.mask & bit(FontBit::FBold)) && f.FBold;
        bool isItalic = (f.mask & bit(FontBit::FItalic)) && f.FItalic;
        font_ = isBold && isItalic ? "BI" : isBold ? "B" : isItalic ? "I" : "R";
        size_ = tv.TVSize;
    }

    std::string run() {
        std::string out;
        while (lexer_.peek().kind != Kind::End) {
            out += equation(0).text;
            // A closing brace or keyword with nothing open: dropped.
            if (lexer_.peek().kind != Kind::End) lexer_.next();
        }
        return out;
    }

private:
    bool atWord(std::string_view word) {
        const Token& token = lexer_.peek();
        return token.isKeyword && token.text == word;
    }

    // The box as the operand of ^ and _ (`isScript`), or of / and the radical.
    static std::string operand(const Box& box, bool isScript) {
        bool isUnit = box.binding == Binding::Unit || (!isScript && box.binding == Binding::Script);
        if (isUnit) return box.text;
        return "(" + box.text + ")";
    }

    std::string glyph(std::string_view name) const {
        std::string text(1, escapeChar());
        text += name.size() == 2 ? "(" : "[";
        text += name;
        if (name.size() != 2) text += ']';
        return text;
    }

    // The items of a list up to a closing brace, right, above or the end.
    Box equation(int depth) {
        Box out;
        size_t items = 0;
        for (;;) {
            const Token& token = lexer_.peek();
            if (token.kind == Kind::End || token.kind == Kind::Close) break;
            if (token.isKeyword && isKeywordOf(token.text, {"right", "above", "ccol", "lcol", "rcol", "col"}))
                break;
            // A word that is no keyword, with no operator or mark after it,
            // is an item of its own: most words of an equation are.
            Box item;
            if (token.kind == Kind::Word && !token.isKeyword && !lexer_.peekSecond().mayBeName) {
                Token plain = lexer_.next();
                item = word(plain.text, plain.mayBeName);
            } else {
                item = fromTo(depth);
            }
            if (item.isStatement) continue;
            out.text += item.text;
            out.binding = items == 0 ? item.binding : Binding::Loose;
            items++;
        }
        return out;
    }

    // The operators below call themselves for their right operand; beyond
    // kMaxNesting the keyword is left to stand for nothing.
    bool canNest(int depth) const { return depth < kMaxNesting; }

    Box fromTo(int depth) {
        Box base = overs(depth);
        bool isLimits = false;
        if (atWord("from") || atWord("to")) base.text = operand(base, true);
        if (atWord("from")) {
            lexer_.next();
            Box from = overs(depth + 1);
            base.text += "_" + operand(from, true);
            isLimits = true;
        }
        if (atWord("to") && canNest(depth)) {
            lexer_.next();
            Box to = fromTo(depth + 1);
            base.text += "^" + operand(to, true);
            isLimits = true;
        }
        if (isLimits) base.binding = Binding::Script;
        return base;
    }

    // a over b over c reads from the left, as a/b/c does: no parentheses
    // around the left operand.
    Box overs(int depth) {
        Box left = radical(depth);
        bool isFirst = true;
        while (atWord("over") || atWord("smallover")) {
            lexer_.next();
            Box right = radical(depth + 1);
            if (isFirst) left.text = operand(left, false);
            isFirst = false;
            left.text += "/";
            left.text += operand(right, false);
            left.binding = Binding::Loose;
        }
        return left;
    }

    Box radical(int depth) {
        if (!atWord("sqrt") || !canNest(depth)) return script(depth);
        lexer_.next();
        Box inner = radical(depth + 1);
        Box out;
        out.text = glyph("sr") + operand(inner, true);
        return out;
    }

    // x sub i sup 2 puts both scripts on x: x_i^2. Any other base that is
    // no unit gets parentheses: {n+1} sup 2 is (n+1)^2.
    Box script(int depth) {
        bool hasSub = false;
        Box base = nonSup(depth, hasSub);
        if (atWord("sup") && canNest(depth)) {
            lexer_.next();
            Box power = script(depth + 1);
            if (!hasSub) base.text = operand(base, true);
            base.text += "^" + operand(power, true);
            base.binding = Binding::Script;
        }
        return base;
    }

    Box nonSup(int depth, bool& hasSub) {
        Box base = simple(depth);
        if (atWord("sub") && canNest(depth)) {
            lexer_.next();
            bool isNested = false;
            Box index = nonSup(depth + 1, isNested);
            base.text = operand(base, true) + "_" + operand(index, true);
            base.binding = Binding::Script;
            hasSub = true;
        }
        return base;
    }

    // A keyword's number or name argument (size 12, font B, fwd 50).
    std::string argument() { return lexer_.rawWord(); }

    // The box after a font keyword, in that font; the font in force comes back after it.
    Box inFont(const std::string& font, int depth) {
        std::string outer = font_;
        font_ = font;
        Box inner = simple(depth);
        font_ = outer;
        if (tv.TVEscapeChar == 0 || font == outer) return inner;
        inner.text = std::string(1, escapeChar()) + "f[" + font + "]" + inner.text + escapeChar() + "f[" + outer + "]";
        return inner;
    }

    Box inSize(const std::string& size, int depth) {
        int32_t outer = size_;
        int32_t value = 0;
        const char* p = size.c_str();
        bool isRelative = *p == '+' || *p == '-';
        int sign = *p == '-' ? -1 : 1;
        if (isRelative) p++;
        while (*p >= '0' && *p <= '9' && value < 1000) value = value * 10 + (*p++ - '0');
        int32_t inner = isRelative ? outer + sign * value : value;
        if (inner <= 0 || inner > 1000) inner = outer;
        size_ = inner;
        Box box = simple(depth);
        size_ = outer;
        if (tv.TVEscapeChar == 0 || inner == outer) return box;
        box.text = std::string(1, escapeChar()) + "s[" + std::to_string(inner) + "]" + box.text + escapeChar() + "s[" +
                   std::to_string(outer) + "]";
        return box;
    }

    // A word's text: a name eqn knows as a character, or the word with the
    // character sequences eqn recognises in it.
    Box word(const std::string& text, bool mayBeName) {
        Box box;
        if (const NameGlyph* name = mayBeName ? lookUp(kNames, text) : nullptr) {
            box.text = glyph(name->glyph);
            return box;
        }
        if (const NameText* name = mayBeName ? lookUp(kTexts, text) : nullptr) {
            box.text = name->text;
            return box;
        }
        const char escape = escapeChar();
        for (size_t i = 0; i < text.size();) {
            if (text[i] == escape && i + 1 < text.size()) {
                size_t length = escapeLength(text, i);
                box.text.append(text, i, length);
                // A word of one escape (a character) reads as one unit.
                if (i > 0 || i + length < text.size()) box.binding = Binding::Loose;
                i += length;
                continue;
            }
            const NameGlyph* sequence = nullptr;
            if (i + 1 < text.size() && isOf(text[i], kBeginsSequence)) {
                sequence = lookUp(kSequences, std::string_view(text).substr(i, 2));
            }
            if (sequence) {
                box.text += glyph(sequence->glyph);
                box.binding = Binding::Loose;
                i += 2;
                continue;
            }
            // The characters up to the next escape or sequence, in one go.
            size_t stretch = i + 1;
            bool isPlain = isOf(text[i], kPlain);
            while (stretch < text.size() && text[stretch] != escape && !isOf(text[stretch], kBeginsSequence)) {
                isPlain = isPlain && isOf(text[stretch], kPlain);
                stretch++;
            }
            if (!isPlain) box.binding = Binding::Loose;
            box.text.append(text, i, stretch - i);
            i = stretch;
        }
        // A lone character reads as one unit all the same.
        if (box.text.size() <= 1) box.binding = Binding::Unit;
        return box;
    }

    // left ( ... right ): the delimiters around the list.
    std::string delimiter(const std::string& name) {
        if (name == "floor") return glyph("lf");
        if (name == "ceiling") return glyph("lc");
        if (name == "\"\"" || name.empty()) return std::string();
        return name;
    }
    std::string closingDelimiter(const std::string& name) {
        if (name == "floor") return glyph("rf");
        if (name == "ceiling") return glyph("rc");
        return delimiter(name);
    }

    // The text between { and }, the brace read; an unclosed group runs to the end.
    Box group(int depth) {
        Box inner = equation(depth + 1);
        if (lexer_.peek().kind == Kind::Close) lexer_.next();
        return inner;
    }

    // pile { a above b }, and a column of a matrix: its rows.
    std::vector<std::string> pile(int depth) {
        std::vector<std::string> rows;
        if (lexer_.peek().kind != Kind::Open) return rows;
        lexer_.next();
        for (;;) {
            rows.push_back(equation(depth + 1).text);
            if (!atWord("above")) break;
            lexer_.next();
        }
        if (lexer_.peek().kind == Kind::Close) lexer_.next();
        return rows;
    }

    Box matrix(int depth) {
        std::vector<std::vector<std::string>> columns;
        if (lexer_.peek().kind == Kind::Open) {
            lexer_.next();
            while (lexer_.peek().kind == Kind::Word &&
                   isKeywordOf(lexer_.peek().text, {"ccol", "lcol", "rcol", "col"})) {
                lexer_.next();
                columns.push_back(pile(depth));
            }
            if (lexer_.peek().kind == Kind::Close) lexer_.next();
        }
        size_t rows = 0;
        for (const auto& column : columns) rows = std::max(rows, column.size());
        Box box;
        for (size_t r = 0; r < rows; r++) {
            if (r > 0) box.text += "; ";
            for (size_t k = 0; k < columns.size(); k++) {
                if (k > 0) box.text += ' ';
                if (r < columns[k].size()) box.text += columns[k][r];
            }
        }
        box.binding = Binding::Loose;
        return box;
    }

    // A statement that sets something up and gives no text.
    Box statement(const std::string& keyword) {
        if (keyword == "define" || keyword == "ndefine" || keyword == "tdefine") {
            std::string name = lexer_.rawWord();
            std::string body = lexer_.delimited();
            if (!name.empty() && keyword != "ndefine") preproc.eqnDefines[name] = body;
        } else if (keyword == "delim") {
            std::string pair = lexer_.rawWord();
            if (pair == "off" || pair.empty()) {
                tv.TVEqnDelimiter = 256;
            } else {
                tv.TVEqnDelimiter = static_cast<signed char>(pair[0]);
                preproc.closingDelimiter = pair.size() > 1 ? pair[1] : pair[0];
            }
        } else if (keyword == "set" || keyword == "chartype") {
            lexer_.rawWord();
            lexer_.rawWord();
        } else if (keyword == "ifdef") {
            lexer_.rawWord();
            lexer_.delimited();
        } else if (keyword == "undef" || keyword == "gsize" || keyword == "gfont" || keyword == "gbfont" ||
                   keyword == "grfont" || keyword == "space" || keyword == "include" || keyword == "copy") {
            lexer_.rawWord();
        }
        Box none;
        none.isStatement = true;
        return none;
    }

    Box simple(int depth) {
        Box box = primary(depth);
        // Marks over or under the box.
        while (lexer_.peek().mayBeName) {
            const NameGlyph* mark = lookUp(kMarks, lexer_.peek().text);
            if (!mark) break;
            lexer_.next();
            box.text += glyph(mark->glyph);
        }
        return box;
    }

    Box primary(int depth) {
        Token token = lexer_.next();
        switch (token.kind) {
            case Kind::End:
            case Kind::Close: return Box{};
            case Kind::Space: return Box{" ", Binding::Loose};
            case Kind::ThinSpace: return Box{};
            case Kind::Quoted: {
                Box box{token.text};
                for (char c : token.text) {
                    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) box.binding = Binding::Loose;
                }
                return box;
            }
            case Kind::Open:
                if (depth >= kMaxNesting) return Box{};
                return group(depth);
            case Kind::Word: break;
        }
        const std::string& w = token.text;
        if (depth >= kMaxNesting || !token.isKeyword) return word(w, token.mayBeName);
        if (w == "roman" || w == "italic" || w == "bold" || w == "fat") {
            return inFont(w == "roman" ? "R" : w == "italic" ? "I" : "B", depth + 1);
        }
        if (w == "font") return inFont(argument(), depth + 1);
        if (w == "size") return inSize(argument(), depth + 1);
        if (isKeywordOf(w, {"fwd", "back", "up", "down", "type", "special"})) {
            argument();
            return simple(depth + 1);
        }
        if (isKeywordOf(w, {"vcenter", "mark", "lineup", "split", "nosplit"})) return simple(depth + 1);
        if (isKeywordOf(w, {"pile", "lpile", "cpile", "rpile"})) {
            std::vector<std::string> rows = pile(depth);
            Box box;
            for (size_t r = 0; r < rows.size(); r++) box.text += (r > 0 ? "; " : "") + rows[r];
            box.binding = rows.size() <= 1 ? Binding::Unit : Binding::Loose;
            return box;
        }
        if (w == "matrix") return matrix(depth);
        if (w == "left") {
            std::string open = delimiter(lexer_.rawWord());
            Box inner = equation(depth + 1);
            std::string close;
            if (atWord("right")) {
                lexer_.next();
                close = closingDelimiter(lexer_.rawWord());
            }
            return Box{open + inner.text + close, !open.empty() && !close.empty() ? Binding::Unit : Binding::Loose};
        }
        if (isKeywordOf(w, {"define", "ndefine", "tdefine", "delim", "set", "chartype", "ifdef", "undef", "gsize",
                            "gfont", "gbfont", "grfont", "space", "include", "copy"}))
            return statement(w);
        // A binary keyword with nothing before it stands for nothing.
        if (isKeywordOf(w, {"sub", "sup", "over", "smallover", "from", "to", "sqrt"})) return Box{};
        return word(w, token.mayBeName);
    }

    Lexer lexer_;
    std::string font_;
    int32_t size_ = 10;
};

// The bytes that end a run of an in-line equation: the newline and the
// closing delimiter. Made again only when the delimiter changes.
const bool* inlineStops() {
    static bool stops[256];
    static int madeFor = -1;
    const int closing = static_cast<unsigned char>(preproc.closingDelimiter);
    if (closing != madeFor) {
        std::fill(std::begin(stops), std::end(stops), false);
        stops[kNewline] = true;
        stops[0xFF] = true;  // read as the end of input
        stops[closing] = true;
        madeFor = closing;
    }
    return stops;
}

// Reads the in-line equation's text up to the closing delimiter, the
// characters between newlines in runs.
std::string readInline() {
    const bool* stops = inlineStops();
    std::string text;
    const int closing = static_cast<signed char>(preproc.closingDelimiter);
    while (text.size() < kMaxInlineLength) {
        TVReadUntil(text, stops, kMaxInlineLength - text.size());
        if (text.size() >= kMaxInlineLength) break;
        int c = TVGetc();
        if (c == -1 || c == closing) break;
        text += c == kNewline ? ' ' : static_cast<char>(c);
    }
    return text;
}

}  // namespace

std::string eqnLinear(std::string_view source) { return Parser(source).run(); }

void PreprocEquation(std::string_view args) {
    std::vector<std::string> lines;
    readRegion({"EN"}, lines);
    std::string source;
    for (const std::string& line : lines) {
        if (isControlLine(line)) continue;
        source += line;
        source += '\n';
    }
    std::string text = eqnLinear(source);
    if (trimmed(text).empty()) return;
    // ".EQ C (1.2)": a place letter, then the label, set after the equation.
    args = trimmed(args);
    std::string_view first = args.substr(0, args.find_first_of(" \t"));
    if (first == "C" || first == "L" || first == "I") args = trimmed(args.substr(first.size()));
    if (!args.empty()) {
        text += ' ';
        text += args;
    }
    Region region;
    region.format = equationFormat();
    Block block;
    // An equation that begins with the control character is text all the same.
    if (isControlLine(text) && tv.TVEscapeChar != 0) block.text = std::string(1, escapeChar()) + "&";
    block.text += text;
    region.blocks.push_back(std::move(block));
    beginRegion(std::move(region));
}

void PreprocInlineEquation() {
    std::string text = eqnLinear(readInline());
    // The delimiter in the equation's own text is text, never another equation.
    const bool hasDelimiter = tv.TVEqnDelimiter >= -128 && tv.TVEqnDelimiter <= 127 &&
                              text.find(static_cast<char>(tv.TVEqnDelimiter)) != std::string::npos;
    if (!hasDelimiter) {
        TVUnread(text.data(), text.size());
        return;
    }
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (static_cast<signed char>(c) == tv.TVEqnDelimiter) out += static_cast<char>(kLiteralNext);
        out += c;
    }
    TVUnread(out.data(), out.size());
}
