// The mdoc package of the full mode: the semantic macros of BSD manual pages.
// It reads its macro lines itself, on the roff layer: a line's arguments are
// parsed as mdoc parses them (callable macros, delimiters, quoted words) and
// turned into text with font escapes, pushed back as input, while the
// structure (sections, lists, displays, the synopsis) switches among the
// package's named paragraph formats.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "driver/driver.h"
#include "interp/interp.h"
#include "macros/macros.h"
#include "macros/mdocnames.h"
#include "preproc/preproc.h"
#include "roff/roff.h"
#include "tools/rope.h"
#include "writer/model.h"

namespace {

// ---- Measures ----------------------------------------------------------------

constexpr int32_t kBodySize = 10;
constexpr float kBaseIndent = 0.5f;                        // body text, inches
constexpr float kCharWidth = 0.6f * kBodySize / 72.0f;     // the cursor's estimate
constexpr float kParaSpace = static_cast<float>(0.4 / 6);  // before a paragraph, inches
constexpr float kIndentOffset = 6 * kCharWidth;            // -offset indent, D1, Dl
constexpr float kTagWidth = 8 * kCharWidth;                // a tag list without -width
constexpr float kMarkWidth = 3 * kCharWidth;               // bullets, dashes
constexpr float kNumberWidth = 4 * kCharWidth;             // enumerated items
constexpr float kColumnGap = 2 * kCharWidth;

// Lists and displays nest this deep; deeper ones are read but indent no more,
// so that a page cannot make a new paragraph format at every level.
constexpr size_t kMaxBlocks = 64;
// No width, offset or margin goes beyond this many inches.
constexpr float kMaxMeasure = 4.0f;
constexpr float kMaxMargin = 6.0f;
// Enclosures within enclosures on one line (.Op Op Op ...) nest this deep;
// deeper ones are read as their words alone, with one warning.
constexpr int kMaxEnclosures = 64;

// ---- Macros -------------------------------------------------------------------

enum class Id {
    Ad, An, Ap, Ar, At, Bd, Bf, Bk, Bl, Bsx, Bt, Bx, Cd, Cm, D1, Db, Dd, Dl, Dt, Dv, Dx, Ed, Ef, Ek,
    El, Em, Er, Es, Ev, Ex, Fa, Fc, Fd, Fl, Fn, Fo, Fr, Ft, Fx, Hf, Ic, In, It, Lb, Li, Lk, Lp, Ms,
    Mt, Nd, Nm, No, Ns, Nx, Os, Ot, Ox, Pa, Pf, Pp, Rs, Re, Rv, Sh, Sm, Ss, St, Sx, Sy, Ta, Tg, Tn,
    Ud, Ux, Va, Vt, Xr, Ref,  // %A ... %U
    // Enclosures on one line and their block forms.
    Aq, Bq, Brq, Dq, Op, Pq, Ql, Qq, Sq, Eo, Ao, Ac, Bo, Bc, Bro, Brc, Do, Dc, Oo, Oc, Po, Pc,
    Qo, Qc, So, Sc, Ec, Xo, Xc,
};

struct Macro {
    const char* name;
    Id id;
    bool isCallable;  // may stand among another macro's arguments
    const char* font; // the words' font ("" roman)
};

// Sorted by name: searched by halves.
constexpr Macro kMacros[] = {
    {"%A", Id::Ref, false, ""}, {"%B", Id::Ref, false, ""}, {"%C", Id::Ref, false, ""},
    {"%D", Id::Ref, false, ""}, {"%I", Id::Ref, false, ""}, {"%J", Id::Ref, false, ""},
    {"%N", Id::Ref, false, ""}, {"%O", Id::Ref, false, ""}, {"%P", Id::Ref, false, ""},
    {"%Q", Id::Ref, false, ""}, {"%R", Id::Ref, false, ""}, {"%T", Id::Ref, false, ""},
    {"%U", Id::Ref, false, ""}, {"%V", Id::Ref, false, ""},
    {"Ac", Id::Ac, true, ""},   {"Ad", Id::Ad, true, "I"},  {"An", Id::An, true, ""},
    {"Ao", Id::Ao, true, ""},   {"Ap", Id::Ap, true, ""},   {"Aq", Id::Aq, true, ""},
    {"Ar", Id::Ar, true, "I"},  {"At", Id::At, true, ""},   {"Bc", Id::Bc, true, ""},
    {"Bd", Id::Bd, false, ""},  {"Bf", Id::Bf, false, ""},  {"Bk", Id::Bk, false, ""},
    {"Bl", Id::Bl, false, ""},  {"Bo", Id::Bo, true, ""},   {"Bq", Id::Bq, true, ""},
    {"Brc", Id::Brc, true, ""}, {"Bro", Id::Bro, true, ""}, {"Brq", Id::Brq, true, ""},
    {"Bsx", Id::Bsx, true, ""}, {"Bt", Id::Bt, false, ""},  {"Bx", Id::Bx, true, ""},
    {"Cd", Id::Cd, false, "B"}, {"Cm", Id::Cm, true, "B"},  {"D1", Id::D1, false, ""},
    {"Db", Id::Db, false, ""},  {"Dc", Id::Dc, true, ""},   {"Dd", Id::Dd, false, ""},
    {"Dl", Id::Dl, false, ""},  {"Do", Id::Do, true, ""},   {"Dq", Id::Dq, true, ""},
    {"Dt", Id::Dt, false, ""},  {"Dv", Id::Dv, true, ""},   {"Dx", Id::Dx, true, ""},
    {"Ec", Id::Ec, true, ""},   {"Ed", Id::Ed, false, ""},  {"Ef", Id::Ef, false, ""},
    {"Ek", Id::Ek, false, ""},  {"El", Id::El, false, ""},  {"Em", Id::Em, true, "I"},
    {"Eo", Id::Eo, true, ""},   {"Er", Id::Er, true, ""},   {"Es", Id::Es, true, ""},
    {"Ev", Id::Ev, true, ""},   {"Ex", Id::Ex, false, ""},  {"Fa", Id::Fa, true, "I"},
    {"Fc", Id::Fc, true, ""},   {"Fd", Id::Fd, false, "B"}, {"Fl", Id::Fl, true, "B"},
    {"Fn", Id::Fn, true, ""},   {"Fo", Id::Fo, false, ""},  {"Fr", Id::Fr, true, ""},
    {"Ft", Id::Ft, true, "I"},  {"Fx", Id::Fx, true, ""},   {"Hf", Id::Hf, false, ""},
    {"Ic", Id::Ic, true, "B"},  {"In", Id::In, true, "B"},  {"It", Id::It, false, ""},
    {"Lb", Id::Lb, false, ""},  {"Li", Id::Li, true, "CW"}, {"Lk", Id::Lk, true, ""},
    {"Lp", Id::Lp, false, ""},  {"Ms", Id::Ms, true, ""},   {"Mt", Id::Mt, true, ""},
    {"Nd", Id::Nd, false, ""},  {"Nm", Id::Nm, true, "B"},  {"No", Id::No, true, ""},
    {"Ns", Id::Ns, true, ""},   {"Nx", Id::Nx, true, ""},   {"Oc", Id::Oc, true, ""},
    {"Oo", Id::Oo, true, ""},   {"Op", Id::Op, true, ""},   {"Os", Id::Os, false, ""},
    {"Ot", Id::Ot, true, "I"},  {"Ox", Id::Ox, true, ""},   {"Pa", Id::Pa, true, "I"},
    {"Pc", Id::Pc, true, ""},   {"Pf", Id::Pf, true, ""},   {"Po", Id::Po, true, ""},
    {"Pp", Id::Pp, false, ""},  {"Pq", Id::Pq, true, ""},   {"Qc", Id::Qc, true, ""},
    {"Ql", Id::Ql, true, ""},   {"Qo", Id::Qo, true, ""},   {"Qq", Id::Qq, true, ""},
    {"Re", Id::Re, false, ""},  {"Rs", Id::Rs, false, ""},  {"Rv", Id::Rv, false, ""},
    {"Sc", Id::Sc, true, ""},   {"Sh", Id::Sh, false, ""},  {"Sm", Id::Sm, false, ""},
    {"So", Id::So, true, ""},   {"Sq", Id::Sq, true, ""},   {"Ss", Id::Ss, false, ""},
    {"St", Id::St, true, ""},   {"Sx", Id::Sx, true, ""},   {"Sy", Id::Sy, true, "B"},
    {"Ta", Id::Ta, true, ""},   {"Tg", Id::Tg, false, ""},  {"Tn", Id::Tn, true, ""},
    {"Ud", Id::Ud, false, ""},  {"Ux", Id::Ux, true, ""},   {"Va", Id::Va, true, "I"},
    {"Vt", Id::Vt, true, "I"},  {"Xc", Id::Xc, true, ""},   {"Xo", Id::Xo, true, ""},
    {"Xr", Id::Xr, true, ""},
};

// A name of two or three characters as one number that sorts as the name
// does; 0 for any other length. Every word of a macro line is looked up, so
// the search compares numbers, not strings.
constexpr uint32_t macroKey(std::string_view name) {
    if (name.size() < 2 || name.size() > 3) return 0;
    auto byte = [&](size_t k) { return k < name.size() ? static_cast<uint32_t>(static_cast<unsigned char>(name[k])) : 0u; };
    return byte(0) << 16 | byte(1) << 8 | byte(2);
}

const Macro* findMacro(std::string_view name) {
    uint32_t key = macroKey(name);
    if (key == 0) return nullptr;
    size_t low = 0, high = std::size(kMacros);
    while (low < high) {
        size_t mid = (low + high) / 2;
        uint32_t other = macroKey(kMacros[mid].name);
        if (key == other) return &kMacros[mid];
        if (key < other)
            high = mid;
        else
            low = mid + 1;
    }
    return nullptr;
}

// The delimiters of the one-line enclosures.
struct Enclosure {
    Id id;
    const char* open;
    const char* close;
};
constexpr Enclosure kEnclosures[] = {
    {Id::Aq, "<", ">"},          {Id::Bq, "[", "]"},          {Id::Brq, "{", "}"},
    {Id::Dq, "\\(lq", "\\(rq"},  {Id::Op, "[", "]"},          {Id::Pq, "(", ")"},
    {Id::Ql, "\\(oq", "\\(cq"},  {Id::Qq, "\"", "\""},        {Id::Sq, "\\(oq", "\\(cq"},
    {Id::Ao, "<", ""},           {Id::Ac, "", ">"},           {Id::Bo, "[", ""},
    {Id::Bc, "", "]"},           {Id::Bro, "{", ""},          {Id::Brc, "", "}"},
    {Id::Do, "\\(lq", ""},       {Id::Dc, "", "\\(rq"},       {Id::Oo, "[", ""},
    {Id::Oc, "", "]"},           {Id::Po, "(", ""},           {Id::Pc, "", ")"},
    {Id::Qo, "\"", ""},          {Id::Qc, "", "\""},          {Id::So, "\\(oq", ""},
    {Id::Sc, "", "\\(cq"},
};

const Enclosure* findEnclosure(Id id) {
    for (const Enclosure& e : kEnclosures)
        if (e.id == id) return &e;
    return nullptr;
}

// ---- State --------------------------------------------------------------------

enum class ListType { Bullet, Dash, Hyphen, Enum, Item, Tag, Diag, Hang, Ohang, Inset, Column };

enum class Section { None, Synopsis, Other };

// What the last line of the synopsis was, to put space between groups.
enum class SynopsisLine { None, Name, Include, Type, Function, Variable };

// An open list or display.
struct Block {
    bool isList = true;
    ListType type = ListType::Item;
    float outerMargin = 0;  // the margin before the block opened
    float margin = 0;       // where its items (or lines) start
    float width = 0;        // a list's tag or marker width
    bool isCompact = false;
    bool isFilled = true;   // a display's fill mode
    bool wasLiteral = false;  // the display it opened in was literal
    int items = 0;
    std::vector<float> columns;  // a column list's column widths
};

// A word of the arguments of a macro line.
struct Word {
    std::string text;
    bool isQuoted = false;
};

// The fields of the reference being gathered between Rs and Re.
struct Reference {
    std::vector<std::string> authors;
    std::string fields[26];  // by the letter after %
    bool isOpen = false;
};

struct MdocState {
    Section section = Section::None;
    bool isLiteral = false;    // in a literal display: words go back to Courier
    SynopsisLine lastSynopsis = SynopsisLine::None;
    std::string name;  // the first Nm of the page
    std::vector<Block> blocks;
    float margin = 0;  // beyond the base indent
    int enclosures = 0;        // enclosures open on the line being parsed
    bool warnedDepth = false;
    bool isSpacing = true;     // Sm
    bool noSpace = false;      // the next word joins the last one
    bool inTag = false;        // an It head is being read
    bool tagGoesOn = false;    // the head goes on over the next lines (Xo), up to Xc
    bool inFunction = false;   // between Fo and Fc
    int functionArgs = 0;
    ListType tagType = ListType::Tag;  // the list type of the open tag
    float tagWidth = 0;
    const char* baseFont = "R";        // Bf changes it
    bool splitAuthors = false;         // An -split
    bool seenAuthor = false;
    Reference ref;

    std::string out;   // the line being built
    std::vector<Word> words;

    Pgf body, sectionHeading, subsectionHeading, tagged, literal, synopsis, column;
    // The formats' tab stops, every half inch. A paragraph takes the live
    // stops (tv.TVTabStops, from its left indent): the package sets them all
    // at that indent in tagged paragraphs, at the columns in a column list,
    // and gives back the document's own (ta) elsewhere.
    TabStop formatStops[kTabStopCount];
    TabStop documentStops[kTabStopCount];
    bool ownStops = false;  // the live stops are the package's

    std::string header;   // NAME(SECTION)
    std::string volume;
    std::string date;
    std::string system;
};
MdocState s;

// Actions at points of the pushed text, run by the main loop.
enum Action : int { kActBody = 1, kActTagEnd = 2 };

// ---- Paragraph formats ----------------------------------------------------------

Dimension inches(float value) { return Dimension{value, kUnitInch}; }

Font sizedFont(char style) {
    TVFontSetFamilyStyle("Times", style);
    Font f = tv.TVFamilyStyle;
    f.FSize = kBodySize;
    f.mask |= bit(FontBit::FSize);
    return f;
}

// The live tab stops for a paragraph of `format`: the document's own, or
// the package's for tags and columns.
void useStops(const Pgf& format) {
    bool own = format.PgfTag == s.tagged.PgfTag || format.PgfTag == s.column.PgfTag;
    if (own && !s.ownStops) std::copy(tv.TVTabStops, tv.TVTabStops + kTabStopCount, s.documentStops);
    if (!own && s.ownStops) std::copy(s.documentStops, s.documentStops + kTabStopCount, tv.TVTabStops);
    s.ownStops = own;
    if (format.PgfTag == s.tagged.PgfTag) {
        for (TabStop& stop : tv.TVTabStops) {
            stop.TSX.value = 0;
            stop.TSType = kTSLeft;
        }
    }
}

// Switches to `format` with its indents from the margins, opening a new
// paragraph at the next text.
void usePgf(const Pgf& format, float first, float left, float space) {
    useStops(format);
    tv.TVPgf = format;
    tv.TVPgf.PgfFIndent.value = kBaseIndent + first;
    tv.TVPgf.PgfLIndent.value = kBaseIndent + left;
    tv.TVPgf.PgfSpBefore.value = space;
    tv.TVReturn.newPgf = true;
}

// Body text at the current margin.
void bodyPgf(float space) { usePgf(s.body, s.margin, s.margin, space); }

void defineFormats() {
    Pgf& body = s.body;
    body = Pgf{};
    body.PgfTag = "mdoc body";
    body.PgfAlignment = kAlignLeftRight;
    body.PgfForceFont = kYes;
    body.font = sizedFont('R');
    body.PgfBlockSize = 2;
    body.PgfLIndent = inches(kBaseIndent);
    body.PgfFIndent = inches(kBaseIndent);
    body.PgfSpBefore = inches(kParaSpace);
    for (int i = 0; i < kTabStopCount; i++) {
        TabStop& stop = s.formatStops[i];
        stop = TabStop{};
        stop.mask = bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
        stop.TSX = inches(0.5f * static_cast<float>(i + 1));
        tv.TVTabStops[i] = stop;
    }
    body.tabStops = s.formatStops;
    body.PgfNumTabs = kTabStopCount;
    body.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfAlignment) | bit(PgfBit::PgfForceFont) |
                bit(PgfBit::font) | bit(PgfBit::PgfBlockSize) | bit(PgfBit::PgfLIndent) |
                bit(PgfBit::PgfFIndent) | bit(PgfBit::PgfSpBefore) | bit(PgfBit::tabStops);
    TVPgfOut(body);

    s.sectionHeading = body;
    s.sectionHeading.PgfTag = "mdoc section";
    s.sectionHeading.PgfLIndent.value = 0;
    s.sectionHeading.PgfFIndent.value = 0;
    s.sectionHeading.font = sizedFont('B');
    TVPgfOut(s.sectionHeading);

    s.subsectionHeading = s.sectionHeading;
    s.subsectionHeading.PgfTag = "mdoc subsection";
    s.subsectionHeading.PgfFIndent.value = 0.25f;
    s.subsectionHeading.PgfLIndent.value = 0.25f;
    TVPgfOut(s.subsectionHeading);

    // Tags and markers at the margin, the text at the list's width beyond it.
    s.tagged = body;
    s.tagged.PgfTag = "mdoc tagged";
    s.tagged.PgfLIndent.value = kBaseIndent + kTagWidth;
    TVPgfOut(s.tagged);

    s.literal = body;
    s.literal.PgfTag = "mdoc literal";
    s.literal.PgfAlignment = kAlignLeft;
    TVFontSetFamilyStyle("Courier", 'R');
    s.literal.font = tv.TVFamilyStyle;
    s.literal.font.FSize = kBodySize;
    s.literal.font.mask |= bit(FontBit::FSize);
    TVPgfOut(s.literal);

    // A synopsis line: what does not fit hangs under the command's arguments.
    s.synopsis = body;
    s.synopsis.PgfTag = "mdoc synopsis";
    s.synopsis.PgfAlignment = kAlignLeft;
    s.synopsis.PgfLIndent.value = kBaseIndent + kBaseIndent;
    TVPgfOut(s.synopsis);

    s.column = body;
    s.column.PgfTag = "mdoc column";
    s.column.PgfAlignment = kAlignLeft;
    TVPgfOut(s.column);

    PreprocPackageFormats(body);

    TVFontSetFamilyStyle("Times", 'R');
}

// ---- Building the output line ---------------------------------------------------

void fontOn(const char* font) {
    if (font[0] == '\0' || std::strcmp(font, s.baseFont) == 0) return;
    s.out += font[1] ? "\\f(" : "\\f";
    s.out += font;
}

void fontOff(const char* font) {
    if (font[0] == '\0' || std::strcmp(font, s.baseFont) == 0) return;
    s.out += s.baseFont[1] ? "\\f(" : "\\f";
    s.out += s.baseFont;
}

void space() {
    if (!s.out.empty() && !s.noSpace && s.isSpacing) s.out += ' ';
    s.noSpace = false;
}

// A word in `font` after a blank (unless something joined it to the last).
void word(std::string_view text, const char* font) {
    if (text.empty()) return;
    space();
    fontOn(font);
    s.out += text;
    fontOff(font);
}

// Text that joins the word before it and the one after it.
void joined(std::string_view text) {
    s.noSpace = true;
    space();
    s.out += text;
    s.noSpace = true;
}

enum class Delim { None, Open, Middle, Close };

Delim delimiterOf(const Word& w) {
    if (w.isQuoted || w.text.size() != 1) return Delim::None;
    switch (w.text[0]) {
        case '(': case '[': return Delim::Open;
        case '|': return Delim::Middle;
        case '.': case ',': case ';': case ':': case '?': case '!': case ')': case ']':
            return Delim::Close;
        default: return Delim::None;
    }
}

void delimiter(const Word& w) {
    switch (delimiterOf(w)) {
        case Delim::Open:
            word(w.text, "");
            s.noSpace = true;
            break;
        case Delim::Close:
            s.noSpace = true;
            word(w.text, "");
            break;
        default: word(w.text, ""); break;
    }
}

const Macro* callable(const Word& w) {
    if (w.isQuoted) return nullptr;
    const Macro* m = findMacro(w.text);
    return m && m->isCallable ? m : nullptr;
}

// Pushes the line built, with the actions given, for the main loop to read.
void pushOut() {
    Rope* text = tv.TVReturn.text.get();
    // A line that begins with a control character stays text.
    if (s.out[0] == '.' || s.out[0] == '\'') RopeCatString(text, "\\&");
    RopeCatString(text, s.out.c_str());
    s.out.clear();
}

void flush() {
    if (s.out.empty()) return;
    Rope* text = tv.TVReturn.text.get();
    pushOut();
    // A tag that goes on is one line for the main loop, so that its width
    // is known at its end.
    if (s.tagGoesOn && !s.noSpace && s.isSpacing) RopeAppend(text, ' ');
    // The next line joins this one without a blank when spacing is off
    // or the line ended with Ns, an opening delimiter or an open function.
    if (s.noSpace || !s.isSpacing || s.tagGoesOn) RopeCatString(text, "\\c");
    RopeAppend(text, '\n');
}

// The end of an It head: the words, the action that decides what follows
// the tag (it runs where the tag ends, with its width in the cursor), the
// end of the line.
void endTag() {
    if (!s.out.empty()) pushOut();
    TVPushAction(kActTagEnd);
    RopeAppend(tv.TVReturn.text.get(), '\n');
    s.inTag = false;
    s.tagGoesOn = false;
    s.noSpace = false;
}

// ---- Arguments --------------------------------------------------------------------

// Splits a macro line into its name and its arguments: blanks separate words, a quoted word may
// hold blanks ("" is a quote). In a column list a tab separates cells too.
void splitWords(std::string_view name, std::string_view rest, bool tabIsCell, std::vector<Word>& words) {
    words.clear();
    words.push_back(Word{std::string(name), false});
    size_t i = 0, n = rest.size();
    while (i < n) {
        while (i < n && rest[i] == ' ') i++;
        if (i < n && rest[i] == '\t') {
            if (tabIsCell) words.push_back(Word{"Ta", false});
            i++;
            continue;
        }
        if (i >= n) break;
        Word w;
        if (rest[i] == '"') {
            w.isQuoted = true;
            i++;
            while (i < n) {
                if (rest[i] == '"') {
                    if (i + 1 < n && rest[i + 1] == '"') {
                        w.text += '"';
                        i += 2;
                        continue;
                    }
                    i++;
                    break;
                }
                if (rest[i] == '\\' && i + 1 < n) w.text += rest[i++];
                w.text += rest[i++];
            }
        } else {
            while (i < n && rest[i] != ' ' && rest[i] != '\t') {
                if (rest[i] == '\\' && i + 1 < n) w.text += rest[i++];
                w.text += rest[i++];
            }
        }
        words.push_back(std::move(w));
    }
}

// The words of a parse, from `i` up to `end`.
struct Span {
    const std::vector<Word>& words;
    size_t i;
    size_t end;
    bool atEnd() const { return i >= end; }
    const Word& peek() const { return words[i]; }
};

void parse(Span& span);
void runMacro(const Macro& m, Span& span);

// The end of the span without its trailing closing delimiters, which an
// enclosure leaves outside.
size_t withoutTrailingDelimiters(const Span& span) {
    size_t end = span.end;
    while (end > span.i && delimiterOf(span.words[end - 1]) == Delim::Close) end--;
    return end;
}

// Words in the macro's font up to the next callable macro; delimiters among
// them keep their own spacing. `fallback` stands in for no words at all.
void inlineWords(const Macro& m, Span& span, const char* fallback = nullptr) {
    while (!span.atEnd() && delimiterOf(span.peek()) == Delim::Open) delimiter(span.words[span.i++]);
    int count = 0;
    while (!span.atEnd() && !callable(span.peek())) {
        const Word& w = span.words[span.i];
        if (delimiterOf(w) != Delim::None) {
            if (count == 0 && fallback) {
                word(fallback, m.font);
                count++;
            }
            delimiter(w);
        } else {
            word(w.text, m.font);
            count++;
        }
        span.i++;
    }
    if (count == 0 && fallback) word(fallback, m.font);
}

// Fl: each word a flag with its dash.
void flags(const Macro& m, Span& span) {
    while (!span.atEnd() && delimiterOf(span.peek()) == Delim::Open) delimiter(span.words[span.i++]);
    int count = 0;
    while (!span.atEnd() && !callable(span.peek())) {
        const Word& w = span.words[span.i++];
        if (delimiterOf(w) != Delim::None) {
            if (count++ == 0) word("-", m.font);
            delimiter(w);
            continue;
        }
        word("-" + w.text, m.font);
        count++;
    }
    if (count == 0) word("-", m.font);
}

// The next word if it is an argument (not a macro nor a delimiter).
bool takeArgument(Span& span, std::string& text) {
    if (span.atEnd() || callable(span.peek()) || delimiterOf(span.peek()) != Delim::None) return false;
    text = span.words[span.i++].text;
    return true;
}

void enclose(const char* open, const char* close, Span& span) {
    if (s.enclosures >= kMaxEnclosures) {
        if (!s.warnedDepth) {
            TVWarningPre();
            std::fprintf(stderr, "Enclosures nested deeper than %d; the deeper ones enclose nothing.\n",
                         kMaxEnclosures);
            s.warnedDepth = true;
        }
        return;
    }
    s.enclosures++;
    size_t end = withoutTrailingDelimiters(span);
    word(open, "");
    s.noSpace = true;
    Span inner{span.words, span.i, end};
    parse(inner);
    span.i = inner.i;
    s.noSpace = true;
    word(close, "");
    s.enclosures--;
}

// Fn: the function's name, its arguments in parentheses.
void function(Span& span) {
    std::string name;
    if (!takeArgument(span, name)) return;
    word(name, "B");
    joined("(");
    int count = 0;
    std::string arg;
    while (takeArgument(span, arg)) {
        if (count++ > 0) {
            s.out += ",";
        }
        word(arg, "I");
    }
    s.noSpace = true;
    word(")", "");
    if (s.section == Section::Synopsis) {
        s.noSpace = true;
        word(";", "");
    }
}

void xr(Span& span) {
    std::string name, section;
    if (!takeArgument(span, name)) return;
    word(name, "");
    if (takeArgument(span, section)) {
        s.noSpace = true;
        word("(" + section + ")", "");
    }
}

// At, Bsx, Bx, ...: a system's name with its version.
void systemName(const Macro& m, Span& span) {
    std::string version, more;
    if (takeArgument(span, version) && m.id == Id::Bx) {
        if (takeArgument(span, more)) version += " " + more;
    }
    word(mdocSystemName(m.name, version), "");
}

// ---- Structure ------------------------------------------------------------------

bool isFirstOnLine(const Span& span) { return span.i == 1; }

// A line of the synopsis: a paragraph of its own, after a space when it
// starts a group of another kind.
void synopsisLine(SynopsisLine kind, bool afterType = false) {
    float space = s.lastSynopsis == kind || afterType ? 0 : kParaSpace;
    s.lastSynopsis = kind;
    flush();
    Pgf& format = s.synopsis;
    usePgf(format, s.margin, s.margin + kBaseIndent, space);
}

void nameMacro(const Macro& m, Span& span) {
    if (s.section == Section::Synopsis && isFirstOnLine(span) && s.blocks.empty()) {
        std::string first = !span.atEnd() && !callable(span.peek()) ? span.peek().text : s.name;
        synopsisLine(SynopsisLine::Name);
        float hang = kCharWidth * static_cast<float>(first.size() + 1);
        tv.TVPgf.PgfLIndent.value = kBaseIndent + s.margin + (hang < kBaseIndent ? hang : kBaseIndent);
    }
    bool any = false;
    while (!span.atEnd() && !callable(span.peek())) {
        const Word& w = span.words[span.i++];
        if (delimiterOf(w) != Delim::None) {
            if (!any && !s.name.empty()) word(s.name, m.font);
            any = true;
            delimiter(w);
            continue;
        }
        if (s.name.empty()) s.name = w.text;
        word(w.text, m.font);
        any = true;
    }
    if (!any) word(s.name, m.font);
}

void heading(const Pgf& format, Span& span) {
    s.blocks.clear();
    s.margin = 0;
    s.inTag = false;
    s.tagGoesOn = false;
    s.inFunction = false;
    s.isLiteral = false;
    s.baseFont = "R";
    s.isSpacing = true;
    s.noSpace = false;
    tv.TVPgf = format;
    tv.TVPgf.PgfSpBefore.value = kParaSpace;
    tv.TVReturn.newPgf = true;
    tv.TVIsFilling = true;
    parse(span);
    flush();
    TVPushAction(kActBody);
}

void sh(Span& span) {
    std::string title;
    for (size_t k = span.i; k < span.end; k++) title += (k > span.i ? " " : "") + span.words[k].text;
    s.section = title == "SYNOPSIS" ? Section::Synopsis : Section::Other;
    s.lastSynopsis = SynopsisLine::None;
    s.splitAuthors = title == "AUTHORS";
    s.seenAuthor = false;
    heading(s.sectionHeading, span);
}

// A scaling width ("6n", "1.5i", "20"), in inches. As on a terminal, for
// which manual pages are written, an en and an em are one character.
bool scalingWidth(const std::string& text, float& inches) {
    size_t i = 0;
    double value = 0, scale = 1;
    bool any = false, point = false;
    for (; i < text.size(); i++) {
        char c = text[i];
        if (c == '.' && !point) {
            point = true;
        } else if (c >= '0' && c <= '9') {
            if (point) scale /= 10;
            value = value * 10 + (c - '0');
            any = true;
        } else {
            break;
        }
    }
    if (!any || value > 1e6 || i + 1 < text.size()) return false;
    double unit;
    switch (i < text.size() ? text[i] : 'n') {
        case 'n': case 'm': case 'M': unit = kCharWidth; break;
        case 'i': unit = 1; break;
        case 'c': unit = 1 / 2.54; break;
        case 'p': unit = 1.0 / 72; break;
        case 'P': case 'v': unit = 1.0 / 6; break;
        case 'u': unit = 1.0 / 300; break;
        default: return false;
    }
    inches = static_cast<float>(value * scale * unit);
    return true;
}

// The width of -width or the offset of -offset: a scaling width ("6n",
// "1i"), a name of mdoc's own ("indent"), or a text as wide as itself.
float measure(const std::string& text, bool isWidth) {
    if (text == "indent" || text == "Ds") return kIndentOffset;
    if (text == "indent-two") return 2 * kIndentOffset;
    if (text == "left") return 0;
    if (float scaled; scalingWidth(text, scaled)) return std::min(scaled, kMaxMeasure);
    if (text == "right" || text == "center") return kIndentOffset;
    float width = kCharWidth * static_cast<float>(std::min<size_t>(text.size(), 48));
    return isWidth ? width + kColumnGap : width;
}

// A list's or display's margin: `offset` beyond the margin in force, up to
// the deepest level that still indents.
float blockMargin(float offset) {
    if (s.blocks.size() >= kMaxBlocks) return s.margin;
    return std::min(s.margin + offset, kMaxMargin);
}

void pushBlock(const Block& block) {
    s.blocks.push_back(block);
    s.margin = block.margin;
}

bool popBlock(bool isList) {
    if (s.blocks.empty() || s.blocks.back().isList != isList) return false;
    s.margin = s.blocks.back().outerMargin;
    s.blocks.pop_back();
    return true;
}

void bl(Span& span) {
    Block list;
    list.outerMargin = s.margin;
    float offset = 0;
    bool hasWidth = false;
    while (!span.atEnd()) {
        const std::string& option = span.words[span.i++].text;
        static constexpr struct {
            const char* name;
            ListType type;
        } types[] = {{"-bullet", ListType::Bullet}, {"-dash", ListType::Dash},
                     {"-hyphen", ListType::Hyphen}, {"-enum", ListType::Enum},
                     {"-item", ListType::Item},     {"-tag", ListType::Tag},
                     {"-diag", ListType::Diag},     {"-hang", ListType::Hang},
                     {"-ohang", ListType::Ohang},   {"-inset", ListType::Inset},
                     {"-column", ListType::Column}};
        bool isType = false;
        for (const auto& t : types) {
            if (option == t.name) {
                list.type = t.type;
                isType = true;
            }
        }
        if (isType) continue;
        if (option == "-compact") {
            list.isCompact = true;
        } else if (option == "-width" && !span.atEnd()) {
            list.width = measure(span.words[span.i++].text, true);
            hasWidth = true;
        } else if (option == "-offset" && !span.atEnd()) {
            offset = measure(span.words[span.i++].text, false);
        } else if (list.type == ListType::Column) {
            list.columns.push_back(measure(option, true));
        }
    }
    if (!hasWidth) {
        switch (list.type) {
            case ListType::Bullet: case ListType::Dash: case ListType::Hyphen:
                list.width = kMarkWidth;
                break;
            case ListType::Enum: list.width = kNumberWidth; break;
            case ListType::Tag: case ListType::Hang: list.width = kTagWidth; break;
            default: list.width = 0; break;
        }
    }
    list.margin = blockMargin(offset);
    pushBlock(list);
}

// A paragraph that hangs from the list's margin: its first line at the
// margin, the others at the item's width.
void itemPgf(const Block& list, const Pgf& format) {
    float space = list.isCompact && list.items > 1 ? 0 : kParaSpace;
    usePgf(format, list.margin, list.margin + list.width, space);
}

// Where the text of a list's items stands: beside the tags and markers, or
// at the list's margin for lists whose items have no hanging part.
float itemTextMargin(const Block& list) {
    switch (list.type) {
        case ListType::Item: case ListType::Ohang: case ListType::Inset: case ListType::Diag:
        case ListType::Column:
            return list.margin;
        default: return list.margin + list.width;
    }
}

void it(Span& span) {
    if (s.blocks.empty() || !s.blocks.back().isList) return;
    flush();
    Block& list = s.blocks.back();
    list.items++;
    // Paragraphs, displays and lists inside the item stand at its text.
    s.margin = s.blocks.size() > kMaxBlocks ? list.margin : std::min(itemTextMargin(list), kMaxMargin);
    s.noSpace = false;
    switch (list.type) {
        case ListType::Bullet: case ListType::Dash: case ListType::Hyphen: case ListType::Enum: {
            itemPgf(list, s.tagged);
            std::string mark = list.type == ListType::Bullet ? "\\(bu"
                               : list.type == ListType::Enum  ? std::to_string(list.items) + "."
                                                             : "\\-";
            s.out = mark + "\t";
            s.noSpace = true;
            parse(span);
            flush();
            break;
        }
        case ListType::Item:
            usePgf(s.body, list.margin, list.margin, list.isCompact && list.items > 1 ? 0 : kParaSpace);
            parse(span);
            flush();
            break;
        case ListType::Column: {
            float space = list.isCompact && list.items > 1 ? 0 : kParaSpace;
            usePgf(s.column, list.margin, list.margin, space);
            // A stop after each column, from the left indent; half inches
            // beyond the last.
            float x = 0;
            size_t n = list.columns.size() < kTabStopCount ? list.columns.size() : kTabStopCount;
            for (size_t k = 0; k < kTabStopCount; k++) {
                x += k < n ? list.columns[k] : 0.5f;
                tv.TVTabStops[k].TSX.value = x;
                tv.TVTabStops[k].TSType = kTSLeft;
            }
            parse(span);
            flush();
            break;
        }
        default: {
            // The tag, then (at the end of the line or at Xc) what follows it.
            const Pgf& format = list.type == ListType::Tag || list.type == ListType::Hang ? s.tagged : s.body;
            if (list.type == ListType::Tag || list.type == ListType::Hang)
                itemPgf(list, format);
            else
                usePgf(s.body, list.margin, list.margin, list.isCompact && list.items > 1 ? 0 : kParaSpace);
            s.tagType = list.type;
            s.tagWidth = list.width;
            s.inTag = true;
            s.tagGoesOn = false;
            const char* saved = s.baseFont;
            if (list.type == ListType::Diag) {
                s.baseFont = "B";
                s.out = "\\fB";
                s.noSpace = true;
            }
            parse(span);
            if (list.type == ListType::Diag) {
                s.baseFont = saved;
                s.out += saved[1] ? "\\f(" : "\\f";
                s.out += saved;
            }
            if (s.tagGoesOn)
                flush();  // Xo: the head goes on over the next lines, up to Xc
            else
                endTag();
            break;
        }
    }
}

// The end of a tag (the main loop is there): the text goes on beside a short
// tag, on the next line after a long one, or after it on the same line.
void tagEnd() {
    Rope* text = tv.TVReturn.text.get();
    bool fits = TVCursorX() < s.tagWidth;
    switch (s.tagType) {
        case ListType::Tag:
            RopeAppend(text, fits ? '\t' : static_cast<char>(kHardReturn));
            RopeCatString(text, "\\c");
            break;
        case ListType::Hang:
            if (fits) RopeCatString(text, "\t\\c");
            break;
        case ListType::Ohang:
            bodyPgf(0);
            break;
        default:  // diag, inset: the text follows the tag after a blank
            break;
    }
}

void el() {
    flush();
    bool wasCompact = !s.blocks.empty() && s.blocks.back().isCompact;
    if (!popBlock(true)) return;
    bodyPgf(wasCompact ? 0 : kParaSpace);
}

void bd(Span& span) {
    Block display;
    display.isList = false;
    display.outerMargin = s.margin;
    float offset = 0;
    bool isLiteral = false;
    bool isCentred = false;
    while (!span.atEnd()) {
        const std::string& option = span.words[span.i++].text;
        if (option == "-literal") {
            isLiteral = true;
            display.isFilled = false;
        } else if (option == "-unfilled") {
            display.isFilled = false;
        } else if (option == "-centered") {
            isCentred = true;
            display.isFilled = false;
        } else if (option == "-offset" && !span.atEnd()) {
            offset = measure(span.words[span.i++].text, false);
        } else if (option == "-compact") {
            display.isCompact = true;
        }
    }
    display.margin = blockMargin(offset);
    display.wasLiteral = s.isLiteral;
    pushBlock(display);
    usePgf(isLiteral ? s.literal : s.body, s.margin, s.margin, display.isCompact ? 0 : kParaSpace);
    if (isCentred) tv.TVPgf.PgfAlignment = kAlignCenter;
    tv.TVIsFilling = display.isFilled;
    s.isLiteral = isLiteral;
    s.baseFont = isLiteral ? "CW" : "R";
}

void ed() {
    flush();
    if (s.blocks.empty() || s.blocks.back().isList) return;
    s.isLiteral = s.blocks.back().wasLiteral;
    popBlock(false);
    // The display it sits in, if any, goes on as it was.
    tv.TVIsFilling = true;
    for (auto b = s.blocks.rbegin(); b != s.blocks.rend(); ++b) {
        if (b->isList) continue;
        tv.TVIsFilling = b->isFilled;
        break;
    }
    s.baseFont = s.isLiteral ? "CW" : "R";
    bodyPgf(kParaSpace);
}

// D1 and Dl: one line of display, indented.
void oneLineDisplay(bool isLiteral, Span& span) {
    flush();
    usePgf(isLiteral ? s.literal : s.body, s.margin + kIndentOffset, s.margin + kIndentOffset, kParaSpace);
    const char* saved = s.baseFont;
    if (isLiteral) s.baseFont = "CW";
    parse(span);
    s.baseFont = saved;
    flush();
    TVPushAction(kActBody);
}

// ---- References -----------------------------------------------------------------

void refField(const Macro& m, Span& span) {
    std::string text;
    for (size_t k = span.i; k < span.end; k++) text += (k > span.i ? " " : "") + span.words[k].text;
    span.i = span.end;
    if (!s.ref.isOpen) {
        word(text, "");
        return;
    }
    char letter = m.name[1];
    if (letter == 'A') {
        s.ref.authors.push_back(text);
        return;
    }
    std::string& field = s.ref.fields[letter - 'A'];
    field += field.empty() ? text : " " + text;
}

// The reference in the usual order: authors, title, book or journal, the
// rest, each after a comma, a full stop at the end.
void re() {
    if (!s.ref.isOpen) return;
    std::string text;
    const std::vector<std::string>& authors = s.ref.authors;
    for (size_t k = 0; k < authors.size(); k++) {
        if (k > 0) text += authors.size() > 2 ? ", " : " ";
        if (k > 0 && k + 1 == authors.size()) text += "and ";
        text += authors[k];
    }
    auto field = [](char letter) -> const std::string& { return s.ref.fields[letter - 'A']; };
    bool quoteTitle = !field('B').empty() || !field('J').empty();
    static constexpr struct {
        char letter;
        const char* font;
    } order[] = {{'T', ""}, {'B', "I"}, {'I', ""}, {'J', "I"}, {'R', ""}, {'N', ""},
                 {'V', ""}, {'U', ""},  {'P', ""}, {'Q', ""},  {'C', ""}, {'D', ""}, {'O', ""}};
    for (const auto& part : order) {
        const std::string& value = field(part.letter);
        if (value.empty()) continue;
        if (!text.empty()) text += ", ";
        if (part.letter == 'T' && quoteTitle)
            text += "\\(lq" + value + "\\(rq";
        else if (part.font[0])
            text += std::string("\\f") + part.font + value + "\\fR";
        else
            text += value;
    }
    if (!text.empty()) word(text + ".", "");
    s.ref = Reference{};
}

// ---- Standard sentences -----------------------------------------------------------

// The names of Rv and Ex: the arguments after -std, or the page's name.
std::vector<std::string> stdNames(Span& span) {
    std::vector<std::string> names;
    if (!span.atEnd() && span.peek().text == "-std") span.i++;
    std::string n;
    while (takeArgument(span, n)) names.push_back(n);
    if (names.empty() && !s.name.empty()) names.push_back(s.name);
    return names;
}

std::string nameList(const std::vector<std::string>& names, const char* suffix) {
    std::string text;
    for (size_t k = 0; k < names.size(); k++) {
        if (k > 0) text += names.size() > 2 ? ", " : " ";
        if (k > 0 && k + 1 == names.size()) text += "and ";
        text += "\\fB" + names[k] + "\\fR" + suffix;
    }
    return text;
}

void rv(Span& span) {
    std::vector<std::string> names = stdNames(span);
    bool many = names.size() > 1;
    std::string text = "The " + nameList(names, "()");
    text += many ? " functions return" : " function returns";
    text += " the value\\~0 if successful; otherwise the value\\~\\-1 is returned and the global "
            "variable \\fIerrno\\fR is set to indicate the error.";
    if (names.empty()) text = "Upon successful completion, the value\\~0 is returned; otherwise "
                              "the value\\~\\-1 is returned and the global variable \\fIerrno\\fR "
                              "is set to indicate the error.";
    word(text, "");
}

void ex(Span& span) {
    std::vector<std::string> names = stdNames(span);
    std::string text = "The " + nameList(names, "");
    text += names.size() > 1 ? " utilities exit" : " utility exits";
    text += "\\~0 on success, and\\~>0 if an error occurs.";
    word(text, "");
}

// ---- The macros -----------------------------------------------------------------

void prologue(const Macro& m, Span& span) {
    std::string text;
    for (size_t k = span.i; k < span.end; k++) text += (k > span.i ? " " : "") + span.words[k].text;
    Page& page = tv.TVPage;
    if (m.id == Id::Dd) {
        s.date = text == "$Mdocdate$" ? "" : text;
        if (s.date.rfind("$Mdocdate: ", 0) == 0 && s.date.size() > 13)
            s.date = s.date.substr(11, s.date.size() - 13);
        page.FooterC = s.date.c_str();
    } else if (m.id == Id::Dt) {
        std::string title = span.end > span.i ? span.words[span.i].text : "";
        std::string section = span.end > span.i + 1 ? span.words[span.i + 1].text : "";
        s.header = title + "(" + section + ")";
        const char* volume = mdocVolume(section);
        s.volume = volume ? volume : "";
        page.HeaderL = s.header.c_str();
        page.HeaderR = s.header.c_str();
        page.HeaderC = s.volume.c_str();
        page.FooterR = "#";
    } else {
        s.system = text;
        page.FooterL = s.system.c_str();
    }
    page.HFFont = s.body.font;
    page.mask |= bit(PageBit::HFMargins) | bit(PageBit::HeaderL) | bit(PageBit::HeaderC) |
                 bit(PageBit::HeaderR) | bit(PageBit::FooterL) | bit(PageBit::FooterC) |
                 bit(PageBit::FooterR) | bit(PageBit::HFFont);
    span.i = span.end;
}

void runMacro(const Macro& m, Span& span) {
    switch (m.id) {
        case Id::Ad: case Id::Cd: case Id::Cm: case Id::Dv: case Id::Em: case Id::Er: case Id::Ev:
        case Id::Ic: case Id::Li: case Id::Ms: case Id::Ot: case Id::Sx: case Id::Sy: case Id::Tn:
        case Id::Va: case Id::No: case Id::Fr:
            inlineWords(m, span);
            break;
        case Id::Ar: inlineWords(m, span, "file ..."); break;
        case Id::Pa: inlineWords(m, span, "\\(ti"); break;
        case Id::Fl: flags(m, span); break;
        case Id::Nm: nameMacro(m, span); break;
        case Id::Fa:
            if (s.inFunction) {
                std::string arg;
                while (takeArgument(span, arg)) {
                    if (s.functionArgs++ > 0) joined(", ");
                    word(arg, "I");
                }
                s.noSpace = true;
            } else {
                inlineWords(m, span);
            }
            break;
        case Id::Ft:
            if (s.section == Section::Synopsis && isFirstOnLine(span)) synopsisLine(SynopsisLine::Type);
            inlineWords(m, span);
            break;
        case Id::Vt:
            if (s.section == Section::Synopsis && isFirstOnLine(span)) synopsisLine(SynopsisLine::Variable);
            inlineWords(m, span);
            break;
        case Id::Fd:
            if (s.section == Section::Synopsis) synopsisLine(SynopsisLine::Include);
            inlineWords(m, span);
            break;
        case Id::In: {
            std::string file;
            if (s.section == Section::Synopsis && isFirstOnLine(span)) {
                synopsisLine(SynopsisLine::Include);
                word("#include", "B");
            }
            if (takeArgument(span, file)) word("<" + file + ">", "B");
            break;
        }
        case Id::Fn:
            if (s.section == Section::Synopsis && isFirstOnLine(span))
                synopsisLine(SynopsisLine::Function, s.lastSynopsis == SynopsisLine::Type);
            function(span);
            break;
        case Id::Fo: {
            if (s.section == Section::Synopsis && isFirstOnLine(span))
                synopsisLine(SynopsisLine::Function, s.lastSynopsis == SynopsisLine::Type);
            std::string name;
            if (takeArgument(span, name)) word(name, "B");
            joined("(");
            s.inFunction = true;
            s.functionArgs = 0;
            break;
        }
        case Id::Fc:
            if (!s.inFunction) break;
            s.inFunction = false;
            s.noSpace = true;
            word(s.section == Section::Synopsis ? ");" : ")", "");
            break;
        case Id::Xr: xr(span); break;
        case Id::At: case Id::Bsx: case Id::Bx: case Id::Dx: case Id::Fx: case Id::Nx: case Id::Ox:
        case Id::Ux:
            systemName(m, span);
            break;
        case Id::St: {
            std::string flag;
            if (takeArgument(span, flag)) {
                const char* text = mdocStandard(flag);
                word(text ? text : flag, "");
            }
            break;
        }
        case Id::Lk: {
            std::string address, text;
            if (!takeArgument(span, address)) break;
            if (takeArgument(span, text)) {
                word(text + ":", "");
            }
            word(address, "");
            break;
        }
        case Id::Mt: inlineWords(m, span, "\\(ti"); break;
        case Id::An: {
            if (!span.atEnd() && (span.peek().text == "-split" || span.peek().text == "-nosplit")) {
                s.splitAuthors = span.peek().text == "-split";
                span.i = span.end;
                break;
            }
            if (s.splitAuthors && s.seenAuthor && isFirstOnLine(span)) {
                flush();
                RopeCatString(tv.TVReturn.text.get(), ".br\n");
            }
            s.seenAuthor = true;
            inlineWords(m, span);
            break;
        }
        case Id::Ap: joined("'"); break;
        case Id::Ns: s.noSpace = true; break;
        case Id::Pf: {
            std::string prefix;
            if (!span.atEnd()) prefix = span.words[span.i++].text;
            word(prefix, "");
            s.noSpace = true;
            break;
        }
        case Id::Ta:
            if (!s.blocks.empty() && s.blocks.back().type == ListType::Column) {
                s.out += '\t';
                s.noSpace = true;
            }
            break;
        case Id::Aq: case Id::Bq: case Id::Brq: case Id::Dq: case Id::Op: case Id::Pq: case Id::Qq:
        case Id::Sq: {
            const Enclosure* e = findEnclosure(m.id);
            enclose(e->open, e->close, span);
            break;
        }
        case Id::Ql: {
            const Enclosure* e = findEnclosure(m.id);
            size_t end = withoutTrailingDelimiters(span);
            word(e->open, "");
            s.noSpace = true;
            Macro literal{"Li", Id::Li, true, "CW"};
            Span inner{span.words, span.i, end};
            inlineWords(literal, inner);
            span.i = inner.i;
            s.noSpace = true;
            word(e->close, "");
            break;
        }
        case Id::Eo: {
            std::string open;
            if (!span.atEnd()) open = span.words[span.i++].text;
            word(open, "");
            s.noSpace = true;
            break;
        }
        case Id::Ec: {
            std::string close;
            if (!span.atEnd()) close = span.words[span.i++].text;
            s.noSpace = true;
            word(close, "");
            break;
        }
        case Id::Ao: case Id::Bo: case Id::Bro: case Id::Do: case Id::Oo: case Id::Po: case Id::Qo:
        case Id::So:
            word(findEnclosure(m.id)->open, "");
            s.noSpace = true;
            break;
        case Id::Ac: case Id::Bc: case Id::Brc: case Id::Dc: case Id::Oc: case Id::Pc: case Id::Qc:
        case Id::Sc:
            s.noSpace = true;
            word(findEnclosure(m.id)->close, "");
            break;
        case Id::Xo:
            if (s.inTag) s.tagGoesOn = true;
            break;
        case Id::Xc:
            if (s.tagGoesOn) {
                parse(span);
                endTag();
            }
            break;
        case Id::Es: case Id::Bt: case Id::Ud: case Id::Hf: case Id::Db: case Id::Tg: case Id::Bk:
        case Id::Ek:
            if (m.id == Id::Bt) word("is currently in beta test.", "");
            if (m.id == Id::Ud) word("currently under development.", "");
            span.i = span.end;
            break;
        default:
            span.i = span.end;
            break;
    }
}

// The words of a line from `span.i`: callable macros run, the rest is text.
void parse(Span& span) {
    while (!span.atEnd()) {
        const Word& w = span.peek();
        if (const Macro* m = callable(w)) {
            span.i++;
            runMacro(*m, span);
            continue;
        }
        if (delimiterOf(w) != Delim::None)
            delimiter(w);
        else
            word(w.text, "");
        span.i++;
    }
}

// A macro line: the macros that shape the page act here, the others build
// words through parse().
void line(const Macro& m, Span& span) {
    switch (m.id) {
        case Id::Dd: case Id::Dt: case Id::Os: prologue(m, span); return;
        case Id::Sh: sh(span); return;
        case Id::Ss: heading(s.subsectionHeading, span); return;
        case Id::Pp: case Id::Lp:
            flush();
            s.noSpace = false;
            bodyPgf(kParaSpace);
            return;
        case Id::Nd:
            word("\\-", "");
            parse(span);
            break;
        case Id::Bl: bl(span); return;
        case Id::El: el(); return;
        case Id::It: it(span); return;
        case Id::Bd: bd(span); return;
        case Id::Ed: ed(); return;
        case Id::D1: oneLineDisplay(false, span); return;
        case Id::Dl: oneLineDisplay(true, span); return;
        case Id::Bf: {
            std::string kind = span.atEnd() ? "" : span.peek().text;
            s.baseFont = kind == "-emphasis" || kind == "Em"   ? "I"
                         : kind == "-literal" || kind == "Li"  ? "CW"
                         : kind == "-symbolic" || kind == "Sy" ? "B"
                                                                : "R";
            s.out += s.baseFont[1] ? "\\f(" : "\\f";
            s.out += s.baseFont;
            s.noSpace = true;
            break;
        }
        case Id::Ef:
            s.baseFont = "R";
            s.out += "\\fR";
            s.noSpace = true;
            break;
        case Id::Sm: {
            std::string mode = span.atEnd() ? "" : span.peek().text;
            bool wasSpacing = s.isSpacing;
            s.isSpacing = mode == "on" ? true : mode == "off" ? false : !s.isSpacing;
            // The last line joined what was to come: what comes now is
            // apart from it again.
            if (s.isSpacing && !wasSpacing) RopeCatString(tv.TVReturn.text.get(), "\\& \\c\n");
            return;
        }
        case Id::Rs:
            flush();
            s.ref = Reference{};
            s.ref.isOpen = true;
            if (s.section != Section::Synopsis) bodyPgf(kParaSpace);
            return;
        case Id::Re: re(); break;
        case Id::Ref: refField(m, span); return;
        case Id::Lb: {
            std::string library;
            if (takeArgument(span, library)) {
                const char* text = mdocLibrary(library);
                word(text ? std::string(text) : "library \\(lq" + library + "\\(rq", "");
            }
            parse(span);
            break;
        }
        case Id::Rv: rv(span); break;
        case Id::Ex: ex(span); break;
        default:
            runMacro(m, span);
            parse(span);
            break;
    }
    flush();
}

bool mdocLine(std::string_view name, std::string_view rest) {
    const Macro* m = findMacro(name);
    if (!m) return false;
    bool isColumnRow = m->id == Id::It && !s.blocks.empty() && s.blocks.back().type == ListType::Column;
    // The macro itself, then its arguments; the vector keeps its room from
    // line to line.
    splitWords(name, rest, isColumnRow, s.words);
    Span span{s.words, 1, s.words.size()};
    s.out.clear();
    line(*m, span);
    return true;
}

void action(int id) {
    switch (id) {
        case kActBody: bodyPgf(0); break;
        case kActTagEnd: tagEnd(); break;
        default: break;
    }
}

// The strings an mdoc page may use.
constexpr struct {
    const char* name;
    const char* value;
} kStrings[] = {
    {"Am", "&"},        {"Ba", "|"},        {"Ge", "\\(>="},   {"Gt", ">"},
    {"If", "\\(if"},    {"Le", "\\(<="},    {"Lq", "\\(lq"},   {"Lt", "<"},
    {"Na", "NaN"},      {"Ne", "\\(!="},    {"Pi", "\\(*p"},   {"Pm", "\\(+-"},
    {"Rq", "\\(rq"},    {"Tm", "\\(tm"},    {"q", "\""},       {"Px", "POSIX"},
    {"Ai", "ANSI"},
};

}  // namespace

void MdocDefine() {
    for (size_t i = 1; i < std::size(kMacros); i++) {
        if (std::string_view(kMacros[i - 1].name) >= kMacros[i].name) std::abort();
    }
    tv.TVDocument.DMargins[1].value = 1.0f;
    tv.TVDocument.DMargins[3].value = 1.0f;
    constexpr Dimension kMargins[4] = {{1.0f, kUnitInch}, {0.5f, kUnitInch},
                                       {1.0f, kUnitInch}, {0.5f, kUnitInch}};
    for (int i = 0; i < 4; i++) tv.TVPage.HFMargins[i] = kMargins[i];
    tv.TVSize = kBodySize;
    defineFormats();
    for (const auto& str : kStrings) roffDefineString(str.name, str.value);
    RoffSetPackageLine(mdocLine);
    tv.TVAction = action;
    bodyPgf(0);
}

void mdocReset() { s = MdocState{}; }
