// The main loop: reads the troff source one character at a time, splits
// request lines into arguments for the dispatcher, hands escapes to the escape
// interpreter and writes text through the writer. Also the pushback, paragraph
// opening, anchored frames, copy regions and the requests sp, sv, ns and rs.
#include "interp/interp.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "driver/driver.h"
#include "preproc/preproc.h"
#include "requests/rb.h"
#include "roff/roff.h"
#include "tools/bytes.h"
#include "writer/vifout.h"

TVState tv;

namespace {

// The most characters that may be pushed back in front of the input between
// two characters read from the input file. Every pushed character is read
// again, so this bounds the work and memory one input character can cause:
// a string or macro that keeps expanding into itself, or a huge spacing
// request, stops here with one warning instead of running without end.
#ifdef TROFFTOVIF_FUZZING_LIMITS
constexpr size_t kMaxExpansion = size_t{1} << 12;  // the fuzzing build's (CMakeLists.txt)
#else
constexpr size_t kMaxExpansion = size_t{1} << 20;
#endif

// Wider than any type size, so that no size matches it: the cursor's width
// and height are then worked out at the next character.
constexpr int64_t kNoCursorSize = INT64_MIN;

struct MainLoopState {
    // Pushed-back input, kept reversed: the next character to read is at the
    // back, so reading one costs O(1) and pushing n characters costs O(n).
    // Text pushed later is read first, and all of it before the unread input.
    std::string echoes;
    size_t pushedSinceInput = 0;     // characters pushed since the input file was last read
    bool isDroppingExpansion = false;  // the limit was hit: pushes are dropped until the input moves
    bool wasFromEchoes = false;      // the character read last came from the pushback
    int inC = kNewline;              // last character read
    int lastInC = kNewline;          // the one before it
    char lastOutC = ' ';             // last character taken by the text path
    bool isPgfOpen = false;
    bool isNewPgf = true;
    bool isForcedFont = false;       // fire has already set the paragraph's font
    bool isSpaceMode = true;         // false while "ns" is in force
    float futureLIndent = 0;         // last left indent seen when a paragraph opened
    // What a copy region saves on entry and gives back when it ends.
    Pgf aPgf;
    Font aFont;
    bool wasFilling = false;
    // The tab stops of the paragraph opened last, shifted by its left indent.
    // TVPgf refers to them, so they live here rather than in pgfOpen's frame.
    TabStop shiftedTabStops[kTabStopCount];
    // The width one character of size cursorSize adds to the cursor, worked
    // out again only when the size changes or a line begins (which is also
    // when the line's height is raised, once per size). The width is kept in
    // double precision and each sum stored as a float, the rounding that
    // lengths decoded from arguments get too: single-precision sums decide
    // the other way when a line's estimate lands on an indent.
    int64_t cursorSize = kNoCursorSize;
    double charWidth = 0;
    // Characters written since the cursor's advance was last summed: most
    // lines end before anything asks where the cursor is, so each character
    // is only counted, and the sums are made when the advance is asked for
    // (TVCursorX) or the width changes, one float sum per character as ever.
    uint64_t pendingAdvances = 0;
    // The full mode's includes: the stream each one interrupted, innermost
    // last, with the folder of the file being read then.
    struct Include {
        InputStream outer;
        std::string outerFolder;
    };
    std::vector<Include> includes;
    std::string folder;  // of the file being read
};
MainLoopState s;

// The start of an output line: nothing on it yet, its first character takes
// the width and height of its size afresh.
inline void resetCursor() {
    tv.TVCursor = Cursor{};
    s.cursorSize = kNoCursorSize;
    s.pendingAdvances = 0;
}

// Adds the counted characters' widths to the cursor, one at a time, so that
// the float sums round as they always have.
void settleCursor() {
    float x = tv.TVCursor.x;
    for (uint64_t n = s.pendingAdvances; n != 0; n--) x = static_cast<float>(x + s.charWidth);
    tv.TVCursor.x = x;
    s.pendingAdvances = 0;
}

inline void writeChar(char c) {
    if (!VifCharOut(c, driver.bodyStream)) fatalStdio();
}

// Puts `text` in front of the unread pushed-back input.
void pushBack(const char* text, size_t n) {
    if (n == 0 || !text || s.isDroppingExpansion) return;
    if (n > kMaxExpansion - s.pushedSinceInput) {
        // Everything pending was pushed since the last input character, so it
        // all belongs to the runaway expansion: drop it and go on with the input.
        TVWarningPre();
        std::fputs("Expansion too long; rest dropped.\n", stderr);
        s.echoes.clear();
        s.isDroppingExpansion = true;
        return;
    }
    s.pushedSinceInput += n;
    if (n == 1) {  // an escape's one character, most often
        s.echoes.push_back(text[0]);
        return;
    }
    size_t old = s.echoes.size();
    s.echoes.resize(old + n);
    reverseCopy(text, text + n, s.echoes.data() + old);
}

// Splits the rest of a request line into TVArgs; the eleventh and later
// arguments all go to the overflow rope.
void readRequestLine() {
    TVArgsEmpty();
    int k = 0;
    while (arg(tv.TVArgs[k].get())) {
        if (k < kArgRopes - 1) k++;
    }
    // The last rope may hold what came before the line's end; a comment on
    // the line may have been skipped into the overflow rope.
    tv.TVArgsUsed = std::max(tv.TVArgsUsed, k + 1);
}

bool isCopyTag(const char* tag) { return tag && std::strcmp(tag, "copy") == 0; }

// An include has ended: reading goes back to the file that included it.
void endInclude() {
    std::fclose(driver.stdIn.file);
    driver.stdIn = s.includes.back().outer;
    s.folder = std::move(s.includes.back().outerFolder);
    s.includes.pop_back();
}

// The input of an include has ended: the next character of the files that
// included it, or -1 at the end of them all.
[[gnu::noinline, gnu::cold]] int readAfterIncludes() {
    int c = -1;
    while (c == -1 && !s.includes.empty()) {
        endInclude();
        c = driver.stdIn.file ? STREAM_GETC(driver.stdIn) : -1;
    }
    if (c != -1) {
        s.pushedSinceInput = 0;
        s.isDroppingExpansion = false;
    }
    return c;
}

// The next character: from the pushback, else from the input. The main
// loop's own reads come here directly; every other module calls TVGetc.
// It stays inline in the main loop: this is the hottest path of the program.
[[gnu::always_inline]] inline int nextChar() {
    s.lastInC = s.inC;
    int c;
    if (!s.echoes.empty()) {
        c = static_cast<signed char>(s.echoes.back());
        s.echoes.pop_back();
        s.wasFromEchoes = true;
    } else {
        c = driver.stdIn.file ? STREAM_GETC(driver.stdIn) : -1;
        // Only a character that really comes from the input renews the
        // expansion budget: at end of input a reader that runs on through
        // pushed-back text (a delimited escape whose delimiter never comes)
        // must not reset it, or an expansion that re-reads itself would never
        // stop.
        if (c != -1) {
            s.pushedSinceInput = 0;
            s.isDroppingExpansion = false;
        } else if (!s.includes.empty()) {
            c = readAfterIncludes();
        }
        s.wasFromEchoes = false;
    }
    s.inC = c;
    return c;
}

// A request line's arguments and a skipped comment are mostly read straight
// from the input's buffer while the pushback is empty. Bytes scanned there
// are then taken as nextChar would take them one by one: the column, the
// last characters read, the expansion budget. Such a scan never passes a
// newline, which moves the line count (it may end with one), nor the byte
// 255, which reads as the end of the input: those, and the end of the
// buffer, are left to nextChar. Without glibc's buffer fields every
// character goes through nextChar.

// The unread bytes of the input's buffer; empty while the pushback is not.
struct Buffered {
    const char* begin = nullptr;
    const char* end = nullptr;
};

[[gnu::always_inline]] inline Buffered buffered() {
#ifdef __GLIBC__
    const InputStream& in = driver.stdIn;
    if (!s.echoes.empty() || !in.file) return {};
    return {in.file->_IO_read_ptr, in.file->_IO_read_end};
#else
    return {};
#endif
}

// Takes the buffered bytes [begin, p), which hold no newline but perhaps the
// last one.
[[gnu::always_inline]] inline void takeBuffered(const char* begin, const char* p) {
#ifdef __GLIBC__
    InputStream& in = driver.stdIn;
    in.file->_IO_read_ptr = const_cast<char*>(p);
    auto count = static_cast<int32_t>(p - begin);
    if (p[-1] == '\n') {
        in.line++;
        in.column = 1;
    } else {
        in.column += count;
    }
    in.lastChar = static_cast<unsigned char>(p[-1]);
    s.lastInC = count >= 2 ? static_cast<signed char>(p[-2]) : s.inC;
    s.inC = static_cast<signed char>(p[-1]);
    s.pushedSinceInput = 0;
    s.isDroppingExpansion = false;
    s.wasFromEchoes = false;
#else
    (void)begin;
    (void)p;
#endif
}

// Takes the run at the front of the buffer whose end `scan` gives (it holds
// no newline); returns its bytes, still in the buffer.
struct InputRun {
    const char* begin = nullptr;
    size_t length = 0;
};

template <class Scan>
[[gnu::always_inline]] inline InputRun takeInputRun(Scan scan) {
    Buffered b = buffered();
    if (b.begin == b.end) return {};  // nothing buffered (perhaps no buffer yet)
    const char* p = scan(b.begin, b.end);
    if (p == b.begin) return {};
    takeBuffered(b.begin, p);
    return {b.begin, static_cast<size_t>(p - b.begin)};
}

// The bytes of a request line as arg sees them. isPlain[0] (outside quotes)
// and isPlain[1] (inside): appended without a second look, the printable
// ones and 127 but the double quote, the blank only inside quotes; the
// escape character is among them, what follows it is not. isBlank: passed
// over before an argument, all but the printable ones, the newline and 255.
// isEnd: ends an argument and is taken with it, the bytes below the blank
// and above 127 but the newline and 255.
struct ArgByteTables {
    bool isPlain[2][256] = {};
    bool isBlank[256] = {};
    bool isEnd[256] = {};
    constexpr ArgByteTables() {
        for (int c = 0; c < 256; c++) {
            isPlain[1][c] = c >= 32 && c <= 127 && c != '"';
            isPlain[0][c] = isPlain[1][c] && c != ' ';
            isBlank[c] = !(c >= 33 && c <= 126) && c != '\n' && c != 0xff;
            isEnd[c] = (c < 32 || c > 127) && c != '\n' && c != 0xff;
        }
    }
};
constexpr ArgByteTables argBytes;

// The character format text is written in: the current font, size and
// underline mode.
Font textFont() {
    Font format = tv.TVFamilyStyle;
    format.mask |= bit(FontBit::FSize) | bit(FontBit::FUnderline);
    format.FSize = tv.TVSize;
    format.FUnderline = tv.TVIsUnderline ? kYes : kNo;
    return format;
}

// The first byte from p on whose entry in the table is not `kGoesOn`, or
// end: the hottest loops of the program, four bytes a turn with one test of
// the end.
template <bool kGoesOn>
const char* skipWhile(const bool* table, const char* p, const char* end) {
    for (; end - p >= 4; p += 4) {
        if (table[static_cast<unsigned char>(p[0])] != kGoesOn) return p;
        if (table[static_cast<unsigned char>(p[1])] != kGoesOn) return p + 1;
        if (table[static_cast<unsigned char>(p[2])] != kGoesOn) return p + 2;
        if (table[static_cast<unsigned char>(p[3])] != kGoesOn) return p + 3;
    }
    while (p != end && table[static_cast<unsigned char>(*p)] == kGoesOn) p++;
    return p;
}

// The first byte from p on that is not plain, or end.
const char* skipPlain(const bool* plain, const char* p, const char* end) { return skipWhile<true>(plain, p, end); }

// Appends to `rope` the run of argument bytes at the front of the input's
// buffer; returns the last one, or -1 when there was none.
[[gnu::always_inline]] inline int takeArgRun(Rope* rope, bool isQuoted) {
    const bool* plain = argBytes.isPlain[isQuoted ? 1 : 0];
    InputRun run = takeInputRun([plain](const char* p, const char* end) {
        while (p != end && plain[static_cast<unsigned char>(*p)]) p++;
        return p;
    });
    if (run.length == 0) return -1;
    RopeCatChars(rope, run.begin, run.length);
    return static_cast<unsigned char>(run.begin[run.length - 1]);
}

// Takes the pushed-back characters before the first `delimiter` or byte 255
// (which reads as the end of the input) into `rope`, as nextChar would take
// them one by one; the delimiter or 255 is left to nextChar.
void takeEchoesBefore(char delimiter, Rope* rope) {
    std::string& e = s.echoes;  // reversed: the next character is at the back
    if (e.empty()) return;
    size_t from = 0;
#ifdef __GLIBC__
    for (char stop : {delimiter, static_cast<char>(0xff)}) {
        if (const void* at = memrchr(e.data() + from, stop, e.size() - from))
            from = static_cast<size_t>(static_cast<const char*>(at) - e.data()) + 1;
    }
#else
    from = e.size();
    while (from != 0 && e[from - 1] != delimiter && e[from - 1] != static_cast<char>(0xff)) from--;
#endif
    size_t count = e.size() - from;
    if (count == 0) return;
    s.lastInC = count >= 2 ? static_cast<signed char>(e[from + 1]) : s.inC;
    s.inC = static_cast<signed char>(e[from]);
    s.wasFromEchoes = true;
    std::reverse(e.begin() + static_cast<std::ptrdiff_t>(from), e.end());
    RopeCatChars(rope, e.data() + from, count);
    e.erase(from);
}

// How far argFromBuffer read an argument.
enum class ArgRead {
    NotBuffered,  // nothing read: the argument is read the ordinary way
    LineEnded,    // no argument: the line's newline is read
    Ended,        // an argument and the byte that ends it are read
    Begun,        // the argument is begun, up to a byte that needs a closer look
};

// The whole argument in one scan of the buffer, when it lies there and holds
// nothing but plain bytes: the common case of a request line.
[[gnu::always_inline]] inline ArgRead argFromBuffer(Rope* rope, bool& isQuoted, int& previous) {
    Buffered b = buffered();
    const char* p = b.begin;
    while (p != b.end && argBytes.isBlank[static_cast<unsigned char>(*p)]) p++;
    if (p == b.end || *p == static_cast<char>(0xff)) {
        // The ordinary way reads what follows (it skips the blanks again).
        if (p != b.begin) takeBuffered(b.begin, p);
        return ArgRead::NotBuffered;
    }
    if (*p == '\n') {
        takeBuffered(b.begin, p + 1);
        return ArgRead::LineEnded;
    }
    const char* first = p;
    isQuoted = *p == '"';
    const bool* plain = argBytes.isPlain[isQuoted ? 1 : 0];
    p++;
    while (p != b.end && plain[static_cast<unsigned char>(*p)]) p++;
    RopeCatChars(rope, first, static_cast<size_t>(p - first));
    previous = static_cast<unsigned char>(p[-1]);
    if (p != b.end) {
        const auto c = static_cast<unsigned char>(*p);
        if (argBytes.isEnd[c] || (c == ' ' && !isQuoted)) {
            takeBuffered(b.begin, p + 1);
            return ArgRead::Ended;
        }
        const bool isEscaped = tv.TVEscapeChar != 0 && previous == tv.TVEscapeChar;
        if (c == '\n' && !isEscaped) {
            takeBuffered(b.begin, p + 1);
            return ArgRead::LineEnded;
        }
    }
    takeBuffered(b.begin, p);
    return ArgRead::Begun;
}

// Which bytes a run of plain text may hold: those VifPlainOut takes
// (printable, and not one the writer quotes), but neither the escape nor the
// hyphenation character nor the full mode's in-line equation delimiter nor a
// byte its tr writes as another; the blank only while no word trap is armed,
// which changes often, so both tables are kept. Made again only when one of
// those characters or the translation changes, which documents seldom do, so
// that a run tests each character with one look-up.
struct PlainTables {
    bool isPlain[2][256] = {};  // [0]: the blank is not plain; [1]: it is
    int escape = -1;
    int hyphen = -1;
    int equation = -1;
    uint32_t translationChanges = 0;
};
PlainTables plainTables;

// Makes both tables again for these characters.
[[gnu::noinline]] void makePlainTables(int escape, int hyphen, int equation) {
    PlainTables& p = plainTables;
    const unsigned char* tr = tv.TVTranslation;
    for (int c = 0; c < 256; c++) {
        bool isPlain = c >= 32 && c <= 126 && c != '\'' && c != '`' && c != '>' && c != '\\' &&
                       c != escape && c != hyphen && c != equation && (!tr || tr[c] == c);
        p.isPlain[0][c] = isPlain && c != ' ';
        p.isPlain[1][c] = isPlain;
    }
    p.escape = escape;
    p.hyphen = hyphen;
    p.equation = equation;
    p.translationChanges = tv.TVTranslationChanges;
}

[[gnu::always_inline]] inline const bool* plainBytes() {
    const PlainTables& p = plainTables;
    const int escape = static_cast<unsigned char>(tv.TVEscapeChar);
    const int hyphen = static_cast<unsigned char>(tv.TVHyphenationChar);
    // 256 when no delimiter is set: no byte.
    const int equation = tv.TVEqnDelimiter == 256 ? 256 : static_cast<unsigned char>(tv.TVEqnDelimiter);
    if (p.escape != escape || p.hyphen != hyphen || p.equation != equation ||
        p.translationChanges != tv.TVTranslationChanges)
        makePlainTables(escape, hyphen, equation);
    return p.isPlain[wordTrapsArmed() ? 0 : 1];
}

// Most of a document is plain text: characters that are no escape, control,
// hyphenation or special character and that fire no trap, written into the
// open String as they are. Once the main loop has written one text character
// in full, nothing it checks per character can change until a character that
// is not plain comes: no request or escape runs in between, so the font,
// paragraph, frame and marker tests would all answer as they just did. This
// reads such a run in one go, from the pushback or the input, and writes it
// with one call. The first character that is not plain is left unread, for
// the main loop. The run's characters are counted for the cursor, as the main
// loop counts its own (settleCursor).
//
// A line end goes the same way when the main loop would do nothing with it
// but write it, that is while no trap counts lines or words: it is written as
// the main loop writes it (a blank and a line end in fill mode, a hard return
// otherwise), and the cursor starts a new line. The run goes on into the next
// line while it begins with a plain character that is no control character;
// a run that ends just after a line end says so, for the main loop's count of
// the line ends in a row (a second one ends the paragraph).
class PlainRun {
public:
    PlainRun()
        : plain_(plainBytes()),
          crossesLines_(!wordTrapsArmed() && !lineTrapsPending()),
          last_(s.inC),
          beforeLast_(s.lastInC) {}

    ~PlainRun() {
        s.inC = last_;
        s.lastInC = beforeLast_;
        if (isLastWritten_) s.lastOutC = static_cast<char>(last_);
    }

    bool isPlain(unsigned char c) const { return plain_[c]; }

    // Whether a plain character read next may go on the run: at the start of
    // a line, a control character is the main loop's.
    bool goesOn(unsigned char c) const {
        return last_ != kNewline || (c != static_cast<unsigned char>(tv.TVControlChar) &&
                                     c != static_cast<unsigned char>(tv.TVNoBreakControlChar));
    }

    bool endsAtLineEnd() const { return last_ == kNewline; }

    // Whether a line end read next is written here: a second one in a row
    // is the main loop's.
    bool takesLineEnd() const { return crossesLines_ && last_ != kNewline; }

    void advance(unsigned char c) {
        beforeLast_ = last_;
        last_ = c;
        s.pendingAdvances++;
    }

    // The line end, written as the main loop writes it; the cursor's line
    // starts again, its height taken from the size at once (the size is the
    // one the run began with, so the width stays).
    void lineEnd() {
        beforeLast_ = last_;
        last_ = kNewline;
        if (tv.TVIsFilling) {
            writeChar(' ');
            writeChar(kNewline);
        } else {
            writeChar(kHardReturn);
        }
        tv.TVCursor.x = 0;
        s.pendingAdvances = 0;
        float height = tv.TVSize / 72.0f;
        tv.TVCursor.y = height > 0 ? height : 0;
        s.cursorSize = tv.TVSize;
    }

    // Takes characters from the back of the pushback while they are plain.
    void fromPushback() {
        std::string& echoes = s.echoes;
        char run[256];
        size_t n = 0;
        while (!echoes.empty()) {
            auto c = static_cast<unsigned char>(echoes.back());
            if (!isPlain(c) || !goesOn(c)) {
                if (c != kNewline || !takesLineEnd()) break;
                flush(run, n);
                echoes.pop_back();
                s.wasFromEchoes = true;
                lineEnd();
                continue;
            }
            echoes.pop_back();
            s.wasFromEchoes = true;
            advance(c);
            run[n++] = static_cast<char>(c);
            if (n == sizeof run) flush(run, n);
        }
        flush(run, n);
    }

    // Then from the input, once the pushback is all read.
    void fromInput() {
        InputStream& in = driver.stdIn;
        bool isFromInput = false;
        for (;;) {
#ifdef __GLIBC__
            // The run is written straight from the input's buffer: the
            // characters it holds are scanned in place, and the next read
            // starts after them.
            FILE* f = in.file;
            const char* begin = f->_IO_read_ptr;
            const char* p = begin;
            const char* end = f->_IO_read_end;
            if (p != end && !goesOn(static_cast<unsigned char>(*p))) break;
            for (;;) {
                p = skipPlain(plain_, p, end);
                s.pendingAdvances += static_cast<uint64_t>(p - begin);
                if (p != begin) {
                    if (!VifPlainOut(begin, static_cast<size_t>(p - begin), driver.bodyStream)) fatalStdio();
                    auto count = static_cast<int32_t>(p - begin);
                    in.column += count;
                    beforeLast_ = count >= 2 ? static_cast<unsigned char>(p[-2]) : last_;
                    last_ = static_cast<unsigned char>(p[-1]);
                    in.lastChar = last_;  // what STREAM_GETC keeps, for the warnings
                    s.wasFromEchoes = false;
                    isFromInput = true;
                }
                if (p == end || *p != kNewline || !takesLineEnd()) break;
                lineEnd();
                in.line++;
                in.column = 1;
                in.lastChar = kNewline;
                s.wasFromEchoes = false;
                isFromInput = true;
                begin = ++p;
                if (p != end && !goesOn(static_cast<unsigned char>(*p))) break;
            }
            f->_IO_read_ptr = const_cast<char*>(p);
            if (p != end) {
                if (isRunEscape(p, end) && takeEscape()) {
                    isFromInput = true;
                    continue;
                }
                break;  // a character that is not plain: the main loop's
            }
            // The buffer is used up: one character read the ordinary way
            // fills it again.
#endif
            int raw = getc_unlocked(in.file);
            if (raw == EOF) break;  // nextChar reads the end again, and counts it
            if (!isPlain(static_cast<unsigned char>(raw)) || !goesOn(static_cast<unsigned char>(raw))) {
                // One character pushed back after a read is always taken.
                std::ungetc(raw, in.file);
                break;
            }
            char c = static_cast<char>(raw);
            if (!VifPlainOut(&c, 1, driver.bodyStream)) fatalStdio();
            in.lastChar = raw;
            in.column++;
            s.wasFromEchoes = false;
            isFromInput = true;
            advance(static_cast<unsigned char>(raw));
        }
        if (isFromInput) {
            s.pushedSinceInput = 0;
            s.isDroppingExpansion = false;
        }
    }

private:
    // Whether the input holds, at p, one of the commonest escapes of running
    // text, a font change (\fB, \f(CW, \f[...]) or a minus sign (\-), where
    // the main loop would read an escape.
    bool isRunEscape(const char* p, const char* end) const {
        const char escape = tv.TVEscapeChar;
        return escape != 0 && *p == escape && end - p >= 2 && (p[1] == 'f' || p[1] == '-') &&
               !tv.TVReturn.endCommand && goesOn(static_cast<unsigned char>(escape));
    }

    // Reads the escape at the input's read position as the main loop reads
    // one, and says whether the run goes on after it. It does when the escape
    // changed nothing but the font, or gave the en dash to read (the minus
    // sign), and nothing else waits: the en dash is then written as the main
    // loop writes a character, and a font change is given to the writer as
    // the main loop gives it before the next character, when that one is
    // plain. Whatever else the escape leaves is the main loop's.
    bool takeEscape() {
        s.inC = last_;
        s.lastInC = beforeLast_;
        if (isLastWritten_) s.lastOutC = static_cast<char>(last_);
        nextChar();  // the escape character
        TVReturnReset();
        TVEscape(s.lastOutC);
        fire();
        last_ = s.inC;
        beforeLast_ = s.lastInC;
        isLastWritten_ = false;
        if (s.isNewPgf || tv.TVReturn.endCommand || tv.TVReturn.isSymbol || driver.aFrameNew.isPending ||
            markersPending() || tv.TVSize != s.cursorSize || plain_ != plainBytes() ||
            crossesLines_ != (!wordTrapsArmed() && !lineTrapsPending()))
            return false;
        if (isEnDashNext()) {
            // Read as the main loop reads it: in the full mode behind a
            // literal marker.
            if (driver.isFull) nextChar();
            if (!VifFontOut(textFont(), driver.bodyStream)) fatalStdio();
            writeNext();
            return VifFontSettled();
        }
        if (!s.echoes.empty()) return false;
        const FILE* f = driver.stdIn.file;
        if (!f || f->_IO_read_ptr == f->_IO_read_end || !isPlain(static_cast<unsigned char>(*f->_IO_read_ptr)))
            return false;
        if (!VifFontOut(textFont(), driver.bodyStream)) fatalStdio();
        if (VifFontSettled()) {
            isLastWritten_ = true;  // by the scan, which takes that character next
            return true;
        }
        // The writer's font is not settled: that character is written on its
        // own, and the main loop goes on after it.
        writeNext();
        return false;
    }

    // Reads the next character and writes it as a plain one, in the font
    // already given to the writer.
    [[gnu::always_inline]] void writeNext() {
        int c = nextChar();
        writeChar(static_cast<char>(c));
        s.pendingAdvances++;
        s.lastOutC = static_cast<char>(c);
        last_ = s.inC;
        beforeLast_ = s.lastInC;
        isLastWritten_ = true;
    }

    // Whether the pushback holds just the en dash a minus sign leaves (in the
    // full mode behind a literal marker), which the main loop would take as
    // text: not if it is the escape, hyphenation or equation character.
    static bool isEnDashNext() {
        const std::string& e = s.echoes;  // reversed
        bool isDash = driver.isFull ? e.size() == 2 && e[1] == kLiteralNext && e[0] == kEnDash
                                    : e.size() == 1 && e[0] == kEnDash;
        return isDash && tv.TVEscapeChar != kEnDash && tv.TVHyphenationChar != kEnDash &&
               tv.TVEqnDelimiter != static_cast<signed char>(kEnDash);
    }

    static void flush(const char* run, size_t& n) {
        if (!VifPlainOut(run, n, driver.bodyStream)) fatalStdio();
        n = 0;
    }

    const bool* plain_;
    const bool crossesLines_;
    int last_;
    int beforeLast_;
    bool isLastWritten_ = true;  // last_ is the character written last
};

// Whether the run ended just after a line end.
bool writePlainRun() {
    PlainRun run;
    run.fromPushback();
    if (s.echoes.empty() && driver.stdIn.file) run.fromInput();
    return run.endsAtLineEnd();
}

}  // namespace

void TVCreateRopes() {
    for (auto& rope : tv.TVArgs) {
        rope = RopeNew();
        if (!rope) TVFatalVM();
        RopeInit(rope.get(), 10, 0);
    }
    tv.TVReturn.text = RopeNew();
    if (!tv.TVReturn.text) TVFatalVM();
    RopeInit(tv.TVReturn.text.get(), 10, 0);
}

int TVGetc() { return nextChar(); }

float TVCursorX() {
    settleCursor();
    return tv.TVCursor.x;
}

void TVReadUntil(std::string& out, const bool* stop, size_t limit) {
    auto isStop = [stop](unsigned char c) { return stop[c]; };
    int last = s.inC;
    int beforeLast = s.lastInC;
    if (!s.echoes.empty()) {
        // The pushback is reversed: its run is the stretch before the last
        // stop, copied back to front.
        const char* first = s.echoes.data() + (s.echoes.size() > limit ? s.echoes.size() - limit : 0);
        const char* p = s.echoes.data() + s.echoes.size();
        while (p != first && !isStop(static_cast<unsigned char>(p[-1]))) p--;
        auto count = static_cast<size_t>(s.echoes.data() + s.echoes.size() - p);
        limit -= count;
        if (count != 0) {
            size_t old = out.size();
            out.resize(old + count);
            reverseCopy(p, p + count, out.data() + old);
            beforeLast = count >= 2 ? static_cast<signed char>(p[1]) : last;
            last = static_cast<signed char>(p[0]);
            s.echoes.resize(s.echoes.size() - count);
            s.wasFromEchoes = true;
        }
        if (!s.echoes.empty() || limit == 0) {
            s.inC = last;
            s.lastInC = beforeLast;
            return;
        }
    }
    InputStream& in = driver.stdIn;
    if (in.file && limit != 0) {
        bool isFromInput = false;
        for (;;) {
#ifdef __GLIBC__
            // Scanned in place in the input's buffer, as a plain run is.
            FILE* f = in.file;
            const char* begin = f->_IO_read_ptr;
            const char* p = begin;
            const char* end = f->_IO_read_end;
            if (static_cast<size_t>(end - begin) > limit) end = begin + limit;
            p = skipWhile<false>(stop, p, end);
            if (p != begin) {
                limit -= static_cast<size_t>(p - begin);
                out.append(begin, static_cast<size_t>(p - begin));
                f->_IO_read_ptr = const_cast<char*>(p);
                auto count = static_cast<int32_t>(p - begin);
                in.column += count;
                beforeLast = count >= 2 ? static_cast<signed char>(p[-2]) : last;
                last = static_cast<signed char>(p[-1]);
                in.lastChar = static_cast<unsigned char>(p[-1]);
                isFromInput = true;
            }
            if (p != f->_IO_read_end) break;  // a stop, or the limit short of the buffer's end
#endif
            if (limit == 0) break;
            int raw = getc_unlocked(in.file);
            if (raw == EOF) break;
            if (isStop(static_cast<unsigned char>(raw))) {
                std::ungetc(raw, in.file);
                break;
            }
            out += static_cast<char>(raw);
            limit--;
            in.lastChar = raw;
            in.column++;
            isFromInput = true;
            beforeLast = last;
            last = static_cast<signed char>(raw);
        }
        if (isFromInput) {
            s.wasFromEchoes = false;
            s.pushedSinceInput = 0;
            s.isDroppingExpansion = false;
        }
    }
    s.inC = last;
    s.lastInC = beforeLast;
}

std::string_view TVBufferedLine() {
    Buffered b = buffered();
    if (b.begin == b.end) return {};
    const void* newline = std::memchr(b.begin, kNewline, static_cast<size_t>(b.end - b.begin));
    if (!newline) return {};
    return {b.begin, static_cast<size_t>(static_cast<const char*>(newline) + 1 - b.begin)};
}

bool TVPushedLine(std::string& out) {
#ifdef __GLIBC__
    const std::string& e = s.echoes;  // reversed: the next character is at the back
    if (e.empty()) return false;
    const void* found = memrchr(e.data(), kNewline, e.size());
    if (!found) return false;
    const char* first = static_cast<const char*>(found) + 1;
    const auto n = static_cast<size_t>(e.data() + e.size() - first);
    out.resize(n + 1);
    reverseCopy(first, e.data() + e.size(), out.data());
    out[n] = static_cast<char>(kNewline);
    return true;
#else
    (void)out;
    return false;
#endif
}

void TVTakePushedLine(size_t n) {
    // As n + 1 calls of nextChar would leave it: the newline last read,
    // the line's last character before it.
    std::string& e = s.echoes;
    s.lastInC = n > 0 ? static_cast<signed char>(e[e.size() - n]) : s.inC;
    s.inC = kNewline;
    s.wasFromEchoes = true;
    e.resize(e.size() - n - 1);
}

void TVTakeBuffered(size_t n) {
    const char* begin = driver.stdIn.file->_IO_read_ptr;
    takeBuffered(begin, begin + n);
}

void TVUnread(const char* text, size_t length) { pushBack(text, length); }

void TVContinueLine() {
    if (s.inC == kNewline) s.inC = s.lastInC;
}

void TVPushAction(int action) {
    RopeAppend(tv.TVReturn.text.get(), static_cast<char>(kAction));
    RopeAppend(tv.TVReturn.text.get(), static_cast<char>(action));
}

void TVIncludeFile(FILE* file, const std::string& folder) {
    s.includes.push_back(MainLoopState::Include{driver.stdIn, s.folder});
    driver.stdIn = InputStream{};
    driver.stdIn.file = file;
    s.folder = folder;
}

size_t TVIncludeDepth() { return s.includes.size(); }

const std::string& TVCurrentFolder() { return s.folder; }

void TVSetDocumentFolder(const std::string& folder) { s.folder = folder; }

void TVEndInput() {
    s.echoes.clear();
    while (!s.includes.empty()) endInclude();
    driver.stdIn.file = nullptr;
}

void doIt() {
    uint32_t newlines = 0;  // consecutive newlines of text
    s.echoes.clear();
    s.lastOutC = ' ';
    resetCursor();

    for (;;) {
        int c = nextChar();
        if (c == -1) break;

        // A literal marker in pushed-back text: the byte after it is text,
        // never an escape or the start of a request line. A marker read from
        // the input file itself is an ordinary character.
        bool isLiteral = false;
        if (c == kLiteralNext && s.wasFromEchoes) {
            if (s.echoes.empty()) continue;
            c = nextChar();
            if (c == -1) break;
            isLiteral = true;
        } else if (c == kAction && s.wasFromEchoes && tv.TVAction) {
            // The package's action runs here; the line start it stands at
            // stays a line start for the text after it.
            int lastIn = s.lastInC;
            int action = nextChar();
            if (action == -1) break;
            s.inC = lastIn;
            TVReturnReset();
            tv.TVAction(action & 0xff);
            fire();
            continue;
        }

        if (!isLiteral) {
            if ((s.lastInC == kNewline || s.lastInC == kHardReturn) &&
                (c == tv.TVControlChar || c == tv.TVNoBreakControlChar)) {
                if (driver.isFull && newlines > 1) {
                    // A blank line breaks the text before a request as it
                    // does before text, as in troff.
                    s.isNewPgf = true;
                }
                newlines = 0;
                if (driver.isFull) {
                    // The roff layer reads the line; it hands on what the
                    // rule table is to dispatch.
                    TVReturnReset();
                    RoffLine taken = RoffControlLine(c);
                    if (taken == RoffLine::Done) {
                        fire();
                        continue;
                    }
                    if (taken == RoffLine::Dispatch) {
                        tv.TVIsNoBreak = (c == tv.TVNoBreakControlChar);
                        TVFire(s.lastOutC);
                        fire();
                        continue;
                    }
                }
                readRequestLine();
                tv.TVIsNoBreak = (c == tv.TVNoBreakControlChar);
                TVReturnReset();
                TVFire(s.lastOutC);
                fire();
                continue;
            }
            // Inside a copy region the escape character is text.
            if (tv.TVEscapeChar != 0 && c == tv.TVEscapeChar && !tv.TVReturn.endCommand) {
                newlines = 0;
                TVReturnReset();
                TVEscape(s.lastOutC);
                fire();
                continue;
            }
            // Only the full mode sets a delimiter.
            if (c == tv.TVEqnDelimiter && !tv.TVReturn.endCommand) {
                newlines = 0;
                TVReturnReset();
                PreprocInlineEquation();
                fire();
                continue;
            }
        }

        // Text. In the full mode a byte above 127 from the input starts a
        // UTF-8 sequence.
        // (Only the full mode sets a translation, so the classic mode pays one
        // test of a pointer it already has at hand.)
        if (c < 0) {
            if (driver.isFull && !isLiteral) {
                c = RoffTextByte(c);
                if (c < 0) {
                    // A character the output has no room for still makes
                    // its line one of text, not a blank line.
                    newlines = 0;
                    continue;
                }
            }
        } else if (tv.TVTranslation && !isLiteral && c != kNewline) {
            c = tv.TVTranslation[c];
        }
        bool isWritten = true;
        if ((c == ' ' || c == kNewline || c == kTab) && !(isLiteral && driver.isFull)) {
            if (fireWordTraps(c == kNewline)) isWritten = false;
        }
        if (c == kNewline) {
            fireLineTraps();
            newlines++;
            // The second and later newlines of a run are dropped in fill mode.
            if (newlines >= 2 && tv.TVIsFilling) {
                s.lastOutC = kNewline;
                continue;
            }
        }
        // Frames and markers go into the paragraph still open, before any
        // new paragraph is opened below.
        if (s.isPgfOpen) {
            if (driver.aFrameNew.isPending) aFrameNewF();
            if (markersPending()) markersNew();
        }
        if (newlines > 1 || s.isNewPgf) {
            if (c == kNewline) {
                s.lastOutC = kNewline;
                continue;
            }
            pgfOpen();
            s.isNewPgf = false;
        }
        if (driver.aFrameNew.isPending) aFrameNewF();
        if (c != kNewline) newlines = 0;

        // A hyphenation character of 0 means none: a NUL byte stays a NUL byte.
        if (tv.TVHyphenationChar != 0 && c == tv.TVHyphenationChar) {
            c = (s.lastOutC == ' ' || s.lastOutC == kNewline || s.lastOutC == kTab)
                    ? kHyphenAtWordStart
                    : kHyphenInWord;
        }

        // The character format; a special character of the Symbol font
        // switches the family for itself alone. The writer writes only what
        // changed.
        Font format = textFont();
        const bool isSymbol = tv.TVReturn.isSymbol;
        if (isSymbol) {
            tv.TVReturn.isSymbol = false;
            format.FFamily = "Symbol";
        }
        if (!VifFontOut(format, driver.bodyStream)) fatalStdio();

        if (!isWritten || c == kZeroWidth) {
            s.lastOutC = static_cast<char>(c);
            continue;
        }
        if (c == kNewline) {
            if (tv.TVIsFilling) {
                writeChar(' ');
                writeChar(kNewline);
            } else {
                writeChar(kHardReturn);
            }
            resetCursor();
            s.lastOutC = kNewline;
            continue;
        }
        writeChar(c == kLiteralBackslash ? '\\' : static_cast<char>(c));
        if (tv.TVSize != s.cursorSize) {
            settleCursor();
            s.cursorSize = tv.TVSize;
            s.charWidth = 0.6 * tv.TVSize / 72.0;
            float height = tv.TVSize / 72.0f;
            if (height > tv.TVCursor.y) tv.TVCursor.y = height;
        }
        s.pendingAdvances++;
        s.lastOutC = static_cast<char>(c);

        // The characters after this one go the short way while they are
        // plain, if nothing this character did not see is waiting: the font
        // it was written in must be settled in the writer, a Symbol
        // character's font lasts for it alone, a marker set before the
        // paragraph opened goes out after its first character, and a hard
        // return read last starts a line.
        if (VifFontSettled() && !isSymbol && !driver.aFrameNew.isPending &&
            !markersPending() && s.inC != kHardReturn && s.inC != kNewline && writePlainRun())
            newlines = 1;
    }

    if (s.isPgfOpen) {
        markersNew();
        if (!VifParaClose(driver.bodyStream)) fatalStdio();
        s.isPgfOpen = false;
    }
}

void fire() {
    TVReturnRecord& r = tv.TVReturn;
    if (r.text && r.text->length != 0) pushBack(r.text->text, r.text->length);
    if (r.lineTrap || r.wordTrap) trapNew();
    if (r.endCommand) {
        if (tv.TVCommand && std::strcmp(tv.TVCommand, r.endCommand) == 0) {
            // The request that closes the copy region has run: restore.
            r.endCommand = nullptr;
            tv.TVIsFilling = s.wasFilling;
            tv.TVPgf = s.aPgf;
            tv.TVFamilyStyle = s.aFont;
            tv.TVSize = s.aFont.FSize;
            r.newPgf = true;
        } else if (!isCopyTag(tv.TVPgf.PgfTag)) {
            s.aPgf = tv.TVPgf;
            tv.TVPgf = driver.copyPgf;
            s.aFont = tv.TVFamilyStyle;
            s.aFont.FSize = tv.TVSize;
            s.wasFilling = tv.TVIsFilling;
            tv.TVIsFilling = false;
            r.newPgf = true;
        }
    }
    if (r.newPgf) {
        if (tv.TVPgf.mask & bit(PgfBit::PgfForceFont)) {
            tv.TVFamilyStyle = tv.TVPgf.font;
            tv.TVSize = tv.TVPgf.font.FSize;
            s.isForcedFont = true;
        }
        s.isNewPgf = true;
    }
}

void pgfOpen() {
    Pgf& pgf = tv.TVPgf;
    if (!VifParaClose(driver.bodyStream)) fatalStdio();
    if (pgf.mask & bit(PgfBit::PgfLIndent)) s.futureLIndent = pgf.PgfLIndent.value;
    if (pgf.mask & bit(PgfBit::tabStops)) {
        for (int i = 0; i < kTabStopCount; i++) {
            s.shiftedTabStops[i] = tv.TVTabStops[i];
            s.shiftedTabStops[i].TSX.value += s.futureLIndent;
        }
        pgf.tabStops = s.shiftedTabStops;
        pgf.PgfNumTabs = kTabStopCount;
    }
    if (!(pgf.mask & bit(PgfBit::PgfTag)) || !pgf.PgfTag) {
        pgf.PgfTag = "trofftovif";
        pgf.mask |= bit(PgfBit::PgfTag);
    }
    if (!VifParaOpen(pgf, driver.bodyStream)) fatalStdio();
    s.isPgfOpen = true;
    // A font change made between the request and the first character (an
    // escape at the start of the line) survives when fire already did this.
    // In the full mode, as in troff, only a request resets the font: one
    // set before the document's first paragraph, or before a blank line's,
    // holds there too.
    if (!s.isForcedFont && !driver.isFull && (pgf.mask & bit(PgfBit::PgfForceFont))) {
        tv.TVFamilyStyle = pgf.font;
        tv.TVSize = pgf.font.FSize;
    }
    s.isForcedFont = false;
}

void aFrameNewF() {
    AFrameNew& frame = driver.aFrameNew;
    frame.isPending = false;
    frame.id++;
    if (!VifAFrameOut(frame.id, driver.bodyStream)) fatalStdio();
    writeChar(kHardReturn);
    if (frame.file) {
        // A write error here shows up when the frame file is copied out.
        std::fprintf(frame.file, "<Frame <BRect 0 0 6.5\" %f\"> <FrameType Below> <ID %d>>\n",
                     static_cast<double>(frame.height), frame.id);
    }
}

void TVPgfOut(const Pgf& format) {
    // The catalog takes its own copy of the stops, so a local copy will do.
    Pgf shifted = format;
    TabStop stops[kTabStopCount];
    if (format.tabStops) {
        for (int i = 0; i < kTabStopCount; i++) {
            stops[i] = format.tabStops[i];
            stops[i].TSX.value += format.PgfLIndent.value;
        }
        shifted.tabStops = stops;
    }
    if (!VifCatalogNew(shifted)) TVFatalVM();
}

void TVsp() {
    // "sp" obeys no-space mode; "sv" never does.
    if (tv.TVCommand && tv.TVCommand[0] && tv.TVCommand[1] == 'p' && !s.isSpaceMode) return;
    const ArgValue& a = tv.TVArg1;
    double distance = a.isNumber ? a.value : 1.0;
    bool isVertical = a.isNumber ? a.isVUnit : true;
    if (!isVertical) {
        AFrameNew& frame = driver.aFrameNew;
        if (frame.isPending) {
            frame.height += static_cast<float>(distance);
        } else {
            frame.isPending = true;
            frame.height = static_cast<float>(distance);
        }
        return;
    }
    Rope* text = tv.TVReturn.text.get();
    if (s.lastOutC != kNewline && s.lastOutC != kHardReturn) RopeAppend(text, kHardReturn);
    // More line breaks than the expansion limit allows would only be dropped
    // by fire, which warns: stop building them one past the limit.
    double lines = distance + 0.1;
    size_t count = 0;
    if (lines >= 1) {
        count = lines > static_cast<double>(kMaxExpansion) ? kMaxExpansion + 1
                                                          : static_cast<size_t>(lines);
    }
    for (size_t i = 0; i < count; i++) RopeAppend(text, kHardReturn);
}

void TVns() { s.isSpaceMode = false; }
void TVrs() { s.isSpaceMode = true; }

void TVReturnReset() {
    TVReturnRecord& r = tv.TVReturn;
    if (r.text) RopeEmpty(r.text.get());
    r.lineTrap = nullptr;
    r.wordTrap = nullptr;
    r.lineCount = 0;
    r.suppressSpace = false;
    r.newPgf = false;
    r.isSymbol = false;
}

void TVArgsEmpty() {
    // An empty rope already holds its terminator, and a rope that holds
    // characters has a buffer: only those in use are touched.
    for (int k = 0; k < tv.TVArgsUsed; k++) {
        Rope* r = tv.TVArgs[k].get();
        if (r && r->length != 0) {
            r->length = 0;
            r->text[0] = '\0';
        }
    }
    tv.TVArgsUsed = 0;
}

namespace {

// The rest of an argument begun in `rope`: isQuoted when it began with a
// double quote; previous, the last byte read.
bool argRest(Rope* rope, bool isQuoted, int previous) {
    bool isEscapeOn = tv.TVEscapeChar != 0;
    for (;;) {
        int last = takeArgRun(rope, isQuoted);
        if (last != -1) previous = last;
        int c = nextChar();
        if (c == kNewline) {
            if (isEscapeOn && previous == tv.TVEscapeChar) {
                // An escaped newline joins the next line to the argument.
                RopeDeleteLast(rope);
                previous = c;
                continue;
            }
            return false;
        }
        if (c == -1) return false;
        if (c < 32 || c > 127) return true;
        if (!isQuoted && c == ' ') return true;
        if (c == '"' && isEscapeOn && previous == tv.TVEscapeChar) {
            // A comment: the rest of the line goes, and so does the escape.
            TVSkipPast(kNewline);
            RopeDeleteLast(rope);
            return false;
        }
        if (isQuoted && c == '"') {
            RopeDeleteFirst(rope);
            return true;
        }
        RopeAppend(rope, static_cast<char>(c));
        previous = c;
    }
}

}  // namespace

bool arg(Rope* rope) {
    bool isQuoted = false;
    int previous = 0;
    switch (argFromBuffer(rope, isQuoted, previous)) {
        case ArgRead::LineEnded: return false;
        case ArgRead::Ended: return true;
        case ArgRead::Begun: return argRest(rope, isQuoted, previous);
        case ArgRead::NotBuffered: break;
    }
    int c;
    for (;;) {
        c = nextChar();
        if (c == kNewline || c == -1) return false;
        if (c >= 33 && c <= 126) break;
    }
    RopeAppend(rope, static_cast<char>(c));
    return argRest(rope, c == '"', c);
}

Rope* TVSkipPast(char delimiter) {
    Rope* scratch = tv.TVArgs[10].get();
    RopeEmpty(scratch);
    tv.TVArgsUsed = kArgRopes;
    // What lies before the delimiter in the input's buffer is taken in one go
    // (up to a newline or a byte 255, which nextChar takes).
    auto scan = [delimiter](const char* p, const char* end) {
        auto n = static_cast<size_t>(end - p);
        if (const void* at = std::memchr(p, delimiter, n)) n = static_cast<size_t>(static_cast<const char*>(at) - p);
        if (delimiter != kNewline) {
            if (const void* at = std::memchr(p, kNewline, n)) n = static_cast<size_t>(static_cast<const char*>(at) - p);
        }
        if (const void* at = std::memchr(p, 0xff, n)) n = static_cast<size_t>(static_cast<const char*>(at) - p);
        return p + n;
    };
    for (;;) {
        takeEchoesBefore(delimiter, scratch);
        InputRun run = takeInputRun(scan);
        if (run.length != 0) RopeCatChars(scratch, run.begin, run.length);
        int c = nextChar();
        if (c == -1 || c == delimiter) break;
        RopeAppend(scratch, static_cast<char>(c));
    }
    return scratch;
}

void interpReset() {
    while (!s.includes.empty()) endInclude();
    tv = TVState{};
    s = MainLoopState{};
    escapeReset();
    registersReset();
}
