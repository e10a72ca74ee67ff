// The me macro package: paragraph, list, block, quotation, section and
// chapter macros switch among a fixed set of named paragraph formats; header,
// footer, margin and column macros set page and document properties; index
// macros queue markers; font and underline macros change the font for a line.
#include <cstdint>
#include <deque>
#include <new>
#include <string>

#include "driver/driver.h"
#include "interp/interp.h"
#include "macros/macros.h"
#include "preproc/preproc.h"
#include "requests/rb.h"
#include "requests/troff.h"

namespace {

constexpr int kLevels = 6;  // numbered section levels declared to the catalog

// Portion formats chosen by ++ and used by +c.
enum class Portion { chapter, appendix, prelim, abstract, bib };

struct MeState {
    // Registers. pi, ii, qi and bi count ems until the set-up converts them
    // to inches at the size then current.
    float tm = 7;               // top margin, lines of pp
    float bm = 6;               // bottom margin, lines of pp
    float pf = 1;               // paragraph font position, counted from 1
    float pp = 10.0f / 72.0f;   // paragraph point size, inches
    float pi = 5;               // paragraph first-line indent
    float npfs = 0.35f;         // space before paragraphs, fraction of a line
    float ii = 5;               // indent of ip
    float qi = 4;               // quotation indents
    float qp = 0.125f;          // quotation point size, inches
    float bi = 4;               // indent of indented lists and blocks
    float sp = 10.0f / 72.0f;   // section point size, inches
    float ss = 1;               // space before sections, fraction of a line
    float tp = 10.0f / 72.0f;   // header and footer point size, inches
    float hm = 4;               // header margin, lines of tp
    float fm = 3;               // footer margin, lines of tp

    uint32_t wasCalled = 0;
    bool isUseHangingPgf1 = true;  // the next np starts a new list at 1
    Portion portion = Portion::chapter;
    bool isSec1 = false;           // the next sh is the first after a chapter
    uint32_t lastLevel = 1;
    bool wasFilling = false;
    TabStop tabStops[kTabStopCount];  // current stops saved by ip and np
    Font undoFont;                    // format and size saved by r, i, b
    Marker aMarker;

    // The formats; they never change after the set-up.
    TabStop blockTabs[kTabStopCount];    // blockPgf's private copy, shared by most
    TabStop hangingTabs[kTabStopCount];  // hangingPgf's own stops
    Pgf blockPgf, stdPgf, indentedPgf, hangingPgf, hangingPgf1, hangingPgfi, quotation;
    Pgf llist, ilist, clist, lblock, iblock, cblock, section;
    Pgf numberedHeading[kLevels];
    Pgf chapter, appendix, prelim, abstract, bib;

    // Header and footer texts: the page refers to them until the run ends.
    std::deque<std::string> headerTexts;
};
MeState s;

ArgValue* argv[10];

const char* const kLevelTags[kLevels] = {
    "lev. 1 sec.", "lev. 2 sec.", "lev. 3 sec.", "lev. 4 sec.", "lev. 5 sec.", "lev. 6 sec.",
};
// A backslash and t is how a tab is written inside a number format.
const char* const kLevelFormats[kLevels] = {
    "+\\t", "#.+\\t", "#.#.+\\t", "#.#.#.+\\t", "#.#.#.#.+\\t", "#.#.#.#.#.+\\t",
};

Rope* out() { return tv.TVReturn.text.get(); }

int32_t pointsOf(float inches) { return static_cast<int32_t>(inches * 72); }

Pgf& portionFormat() {
    switch (s.portion) {
    case Portion::appendix: return s.appendix;
    case Portion::prelim: return s.prelim;
    case Portion::abstract: return s.abstract;
    case Portion::bib: return s.bib;
    case Portion::chapter: break;
    }
    return s.chapter;
}

void setIndents(Pgf& f, float left, float first) {
    f.PgfLIndent = {left, kUnitInch};
    f.PgfFIndent = {first, kUnitInch};
}

// A copy of `from` under another tag.
Pgf derive(const Pgf& from, const char* tag) {
    Pgf f = from;
    f.PgfTag = tag;
    return f;
}

void fillBlockPgf() {
    Pgf& f = s.blockPgf;
    namespace B = PgfBit;
    f.mask = bit(B::PgfTag) | bit(B::PgfAlignment) | bit(B::PgfAutoNum) | bit(B::PgfColumnTop) |
             bit(B::PgfWithNext) | bit(B::PgfForceFont) | bit(B::font) | bit(B::PgfBlockSize) |
             bit(B::PgfLIndent) | bit(B::PgfFIndent) | bit(B::PgfRIndent) | bit(B::PgfLeading) |
             bit(B::PgfSpBefore) | bit(B::PgfSpAfter) | bit(B::PgfNumFormat) | bit(B::tabStops);
    f.PgfTag = "block pgf";
    f.PgfAlignment = kAlignLeft;
    f.PgfAutoNum = kNo;
    f.PgfColumnTop = kNo;
    f.PgfWithNext = kNo;
    f.PgfForceFont = kYes;
    TVFontSetByPosition(static_cast<unsigned>(s.pf - 1 + 0.1f));
    f.font = tv.TVFamilyStyle;
    f.font.FSize = pointsOf(s.pp);
    f.font.mask |= bit(FontBit::FSize);
    f.PgfBlockSize = 2;
    setIndents(f, 0, 0);
    f.PgfRIndent = {0, kUnitInch};
    TVLeadingSet(f);
    f.PgfSpBefore = {(f.font.FSize + f.PgfLeading.value) * s.npfs, kUnitPoint};
    f.PgfSpAfter = {0, kUnitPoint};
    f.PgfNumFormat = "";
    for (int k = 0; k < kTabStopCount; ++k) s.blockTabs[k] = tv.TVTabStops[k];
    f.PgfNumTabs = kTabStopCount;
    f.tabStops = s.blockTabs;
}

// Section formats: bold at the section size, a full line of space before.
void fillSectionFormats() {
    s.section = derive(s.blockPgf, "sec.");
    TVFontSetByPosition(2);
    s.section.font = tv.TVFamilyStyle;
    s.section.font.FSize = pointsOf(s.sp);
    s.section.font.mask |= bit(FontBit::FSize);
    s.section.PgfSpBefore = {(s.section.font.FSize + s.section.PgfLeading.value) * s.ss,
                             kUnitPoint};
    TVPgfOut(s.section);
    for (int k = 0; k < kLevels; ++k) {
        Pgf& f = s.numberedHeading[k];
        f = derive(s.section, kLevelTags[k]);
        f.PgfAutoNum = kYes;
        f.PgfNumFormat = kLevelFormats[k];
        TVPgfOut(f);
    }
    s.chapter = derive(s.numberedHeading[0], "chapter");
    s.chapter.PgfColumnTop = kYes;
    s.chapter.PgfAlignment = kAlignCenter;
    s.chapter.PgfNumFormat = "c:CHAPTER +";
    TVPgfOut(s.chapter);
    s.appendix = derive(s.chapter, "appendix");
    s.appendix.PgfNumFormat = "a:APPENDIX +";
    TVPgfOut(s.appendix);
    s.prelim = derive(s.chapter, "prelim.");
    s.prelim.PgfNumFormat = "";  // still autonumbered, with an empty number
    TVPgfOut(s.prelim);
    s.abstract = derive(s.prelim, "abstract");
    TVPgfOut(s.abstract);
    s.bib = derive(s.prelim, "bib.");
    TVPgfOut(s.bib);
}

// Lists and blocks: block spacing at the paragraph size; blocks keep up to
// 99 lines together.
void fillListFormats() {
    s.llist = derive(s.blockPgf, "llist");
    s.llist.PgfLeading = {2.0f, kUnitPoint};
    s.llist.font.FSize = pointsOf(s.pp);
    TVPgfOut(s.llist);
    s.ilist = derive(s.llist, "ilist");
    setIndents(s.ilist, s.bi, s.bi);
    TVPgfOut(s.ilist);
    s.clist = derive(s.llist, "clist");
    s.clist.PgfAlignment = kAlignCenter;
    TVPgfOut(s.clist);
    s.lblock = derive(s.llist, "lblock");
    s.lblock.PgfBlockSize = 99;
    TVPgfOut(s.lblock);
    s.iblock = derive(s.ilist, "iblock");
    s.iblock.PgfBlockSize = 99;
    TVPgfOut(s.iblock);
    s.cblock = derive(s.clist, "cblock");
    s.cblock.PgfBlockSize = 99;
    TVPgfOut(s.cblock);
}

// The one-time set-up: converts the indent registers, sets the document
// margins and declares every format to the catalog, each right after it is
// filled.
void init() {
    if (s.wasCalled) return;
    s.wasCalled = 1;
    const double size = tv.TVSize;
    for (float* reg : {&s.pi, &s.ii, &s.qi, &s.bi}) *reg = static_cast<float>(*reg * size * 0.6 / 72);
    tv.TVSize = pointsOf(s.pp);
    tv.TVDocument.mask |= bit(DocumentBit::DMargins);
    tv.TVDocument.DMargins[1] = {s.tm * s.pp, kUnitInch};
    tv.TVDocument.DMargins[3] = {s.bm * s.pp, kUnitInch};

    fillBlockPgf();
    TVPgfOut(s.blockPgf);
    PreprocPackageFormats(s.blockPgf);
    s.stdPgf = derive(s.blockPgf, "pgf");
    s.stdPgf.PgfFIndent = {s.pi, kUnitInch};
    TVPgfOut(s.stdPgf);
    s.indentedPgf = derive(s.blockPgf, "indented pgf");
    setIndents(s.indentedPgf, s.ii, s.ii);
    TVPgfOut(s.indentedPgf);
    s.hangingPgf = derive(s.blockPgf, "hanging pgf");
    s.hangingPgf.PgfLIndent = {s.ii, kUnitInch};
    for (TabStop& t : s.hangingTabs) {
        t = TabStop{};
        t.mask = bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
        t.TSX = {0, kUnitInch};
        t.TSType = kTSLeft;
    }
    s.hangingPgf.tabStops = s.hangingTabs;
    TVPgfOut(s.hangingPgf);
    s.hangingPgf1 = derive(s.hangingPgf, "hanging pgf first");
    s.hangingPgf1.PgfAutoNum = kYes;
    s.hangingPgf1.PgfNumFormat = "h:1\\t";
    TVPgfOut(s.hangingPgf1);
    s.hangingPgfi = derive(s.hangingPgf1, "hanging pgf next");
    s.hangingPgfi.PgfNumFormat = "h:+\\t";
    TVPgfOut(s.hangingPgfi);
    s.quotation = derive(s.blockPgf, "quotation");
    setIndents(s.quotation, s.qi, s.qi);
    s.quotation.PgfRIndent = {s.qi, kUnitInch};
    s.quotation.PgfLeading = {2.0f, kUnitPoint};
    s.quotation.font.FSize = pointsOf(s.qp);
    s.quotation.PgfSpAfter = s.quotation.PgfSpBefore;
    TVPgfOut(s.quotation);
    fillListFormats();
    fillSectionFormats();  // leaves bold selected
}

void use(const Pgf& format) {
    tv.TVPgf = format;
    tv.TVReturn.newPgf = true;
}

// ip and np put the label or number at the left indent: every current stop
// goes to 0 (relative to that indent) until the first line has ended.
void zeroTabStops() {
    for (int k = 0; k < kTabStopCount; ++k) {
        s.tabStops[k] = tv.TVTabStops[k];
        tv.TVTabStops[k].TSX.value = 0;
        tv.TVTabStops[k].TSType = kTSLeft;
    }
}

void restoreTabStops() {
    for (int k = 0; k < kTabStopCount; ++k) tv.TVTabStops[k] = s.tabStops[k];
}

// ---- Paragraphs -------------------------------------------------------------

void H() {
    const bool runsSetUp = !s.wasCalled;
    init();
    s.isUseHangingPgf1 = true;
    // The set-up leaves the section font (bold) selected. Every other macro
    // that runs it opens a paragraph whose font takes over; after H nothing
    // does, so the text goes on in roman at the paragraph size.
    if (runsSetUp) {
        TVFontSetByPosition(0);
        tv.TVSize = pointsOf(s.pp);
    }
}

void ppEmulate() {
    H();
    use(s.stdPgf);
}

void lp() {
    H();
    use(s.blockPgf);
}

void ipTrap() {
    // A label shorter than the indent: the body goes on after a tab on the
    // label's line; a longer one is followed by a forced break.
    if (TVCursorX() < tv.TVPgf.PgfLIndent.value) {
        RopeAppend(out(), kTab);
        RopeAppend(out(), kNewline);
    } else {
        RopeAppend(out(), kHardReturn);
    }
    restoreTabStops();
}

void ip() {
    H();
    const float indent = tv.TVArg2.isNumber ? tv.TVArg2.value : s.ii;
    if (*tv.TVArg1.text) {
        RopeCatString(out(), tv.TVArg1.text);
        RopeAppend(out(), kNewline);
        tv.TVReturn.lineTrap = ipTrap;
        tv.TVReturn.lineCount = 1;
        zeroTabStops();
        tv.TVPgf = s.hangingPgf;
        tv.TVPgf.PgfLIndent = {indent, kUnitInch};
    } else {
        tv.TVPgf = s.indentedPgf;
        setIndents(tv.TVPgf, indent, indent);
    }
    tv.TVReturn.newPgf = true;
}

void npTrap() { restoreTabStops(); }

// The number itself comes from the paragraph's autonumbering, followed by a
// tab that stops at the left indent.
void np() {
    init();
    if (s.isUseHangingPgf1) {
        tv.TVPgf = s.hangingPgf1;
        s.isUseHangingPgf1 = false;
    } else {
        tv.TVPgf = s.hangingPgfi;
    }
    zeroTabStops();
    tv.TVReturn.lineTrap = npTrap;
    tv.TVReturn.lineCount = 1;
    tv.TVReturn.newPgf = true;
}

// ---- Quotations, lists and blocks --------------------------------------------

void openQ() {
    init();
    use(s.quotation);
}

void closeQ() {}  // the quotation lasts until the next paragraph macro

// (l, (b and (z: the first argument picks centred, left or indented; the
// second turns filling on when it begins with F. Only one level of filling
// is kept for the closing macro.
void openListOrBlock(const Pgf& centred, const Pgf& left, const Pgf& indented) {
    init();
    const char kind = tv.TVArg1.text[0];
    use(kind == 'C' ? centred : kind == 'L' ? left : indented);
    s.wasFilling = tv.TVIsFilling;
    tv.TVIsFilling = tv.TVArg2.text[0] == 'F';
}

void openL() { openListOrBlock(s.clist, s.llist, s.ilist); }
void openB() { openListOrBlock(s.cblock, s.lblock, s.iblock); }

// )l, )b and )z: the format stays until the next paragraph macro.
void closeListOrBlock() { tv.TVIsFilling = s.wasFilling; }
void closeL() { closeListOrBlock(); }
void closeB() { closeListOrBlock(); }

// ---- Headers and footers -------------------------------------------------------

// The non-empty arguments 1 to 9, each followed by one blank.
std::string joinedArguments() {
    std::string joined;
    for (int k = 1; k <= 9; ++k) {
        if (!*argv[k]->text) continue;
        joined += argv[k]->text;
        joined += ' ';
    }
    return joined;
}

// he and fo: the text is 'left'centre'right' with any first character as the
// delimiter. A part whose closing delimiter is missing is not assigned.
void heFo() {
    const std::string text = joinedArguments();
    if (text.empty()) return;
    const bool isHeader = tv.TVCommand && tv.TVCommand[0] == 'h';
    const char** parts[3];
    uint32_t bits[3];
    if (isHeader) {
        parts[0] = &tv.TVPage.HeaderL, parts[1] = &tv.TVPage.HeaderC, parts[2] = &tv.TVPage.HeaderR;
        bits[0] = PageBit::HeaderL, bits[1] = PageBit::HeaderC, bits[2] = PageBit::HeaderR;
    } else {
        parts[0] = &tv.TVPage.FooterL, parts[1] = &tv.TVPage.FooterC, parts[2] = &tv.TVPage.FooterR;
        bits[0] = PageBit::FooterL, bits[1] = PageBit::FooterC, bits[2] = PageBit::FooterR;
    }
    const char delimiter = text[0];
    size_t start = 1;
    for (int k = 0; k < 3; ++k) {
        const size_t end = text.find(delimiter, start);
        if (end == std::string::npos) break;
        try {
            s.headerTexts.push_back(text.substr(start, end - start));
        } catch (const std::bad_alloc&) {
            TVFatalVM();
        }
        *parts[k] = s.headerTexts.back().c_str();
        tv.TVPage.mask |= bit(bits[k]);
        start = end + 1;
    }
}

// ---- Margins --------------------------------------------------------------------
// A bare number counts lines; a number with a unit is already in inches.

void m1() {
    if (!tv.TVArg1.isNumber) return;
    s.hm = tv.TVArg1.isRelative ? s.hm + tv.TVArg1.value : tv.TVArg1.value;
    tv.TVPage.HFMargins[1] = {s.hm * s.tp, kUnitInch};  // written only if marked elsewhere
}

void m3() {
    if (!tv.TVArg1.isNumber) return;
    s.fm = tv.TVArg1.isRelative ? s.fm + tv.TVArg1.value : tv.TVArg1.value;
    tv.TVPage.HFMargins[3] = {s.fm * s.tp, kUnitInch};
}

void m2() {
    if (!tv.TVArg1.isNumber) return;
    s.tm = tv.TVArg1.isRelative ? s.tm + tv.TVArg1.value : tv.TVArg1.value + s.hm;
    tv.TVDocument.mask |= bit(DocumentBit::DMargins);
    tv.TVDocument.DMargins[1] = {s.tm * s.pp, kUnitInch};
}

void m4() {
    if (!tv.TVArg1.isNumber) return;
    s.bm = tv.TVArg1.isRelative ? s.bm + tv.TVArg1.value : tv.TVArg1.value + s.fm;
    tv.TVDocument.mask |= bit(DocumentBit::DMargins);
    tv.TVDocument.DMargins[3] = {s.bm * s.pp, kUnitInch};
}

// ---- Index -----------------------------------------------------------------------

// (x: the next input line becomes an xx request whose arguments are the entry.
void openX() {
    s.aMarker.mask = bit(MarkerBit::MType) | bit(MarkerBit::MText) | bit(MarkerBit::MStyle);
    s.aMarker.MType = 2;
    s.aMarker.MStyle = kMStylePlain;
    RopeCatString(out(), ".xx ");
}

void xx() {
    const std::string entry = joinedArguments();
    // An entry without any word would be an empty index marker: none is queued.
    if (entry.empty()) return;
    s.aMarker.MText = entry.c_str();
    TVMarkerOut(s.aMarker);  // keeps its own copy of the text
    s.aMarker.MText = nullptr;
}

void closeX() {}
void xp() {}

// ---- Section headings --------------------------------------------------------------

void uh() {
    init();
    use(s.section);
    RopeCatString(out(), tv.TVArg1.text);
    RopeAppend(out(), kNewline);
}

// The level of a number given to sh: 1 to 5. Anything from 5 up, and every
// negative level, selects the fifth; the sixth is declared but never used.
// There is no level before the first, so a level of 0 selects the first.
uint32_t levelOf(float value) {
    const double v = static_cast<double>(value) + 0.1f;
    if (v >= 5 || v <= -1) return 5;
    const int32_t level = static_cast<int32_t>(v);
    return level < 1 ? 1 : static_cast<uint32_t>(level);
}

void sh() {
    init();
    if (tv.TVArg1.isNumber) s.lastLevel = levelOf(tv.TVArg1.value);
    tv.TVPgf = s.numberedHeading[s.lastLevel - 1];
    if (s.isSec1) {
        // The first section after a chapter starts the numbering again.
        s.lastLevel = 1;
        s.isSec1 = false;
        tv.TVPgf.PgfNumFormat = "1.\\t";
    }
    tv.TVReturn.newPgf = true;
    RopeCatString(out(), tv.TVArg2.text);
    RopeAppend(out(), kNewline);
}

// ---- Chapters and portions -----------------------------------------------------------

void plusPlus() {
    const char* t = tv.TVArg1.text;
    switch (t[0]) {
    case 'C': s.portion = Portion::chapter; break;
    case 'P': s.portion = Portion::prelim; break;
    case 'B': s.portion = Portion::bib; break;
    case 'A': s.portion = t[1] == 'B' ? Portion::abstract : Portion::appendix; break;
    default: break;
    }
}

// A numbered portion holds its number, a break, the title and a break; the
// others hold the title and a break.
void plusC() {
    init();
    const Pgf& format = portionFormat();
    use(format);
    s.isSec1 = true;
    if (*format.PgfNumFormat) RopeAppend(out(), kHardReturn);
    RopeCatString(out(), tv.TVArg1.text);
    RopeAppend(out(), kHardReturn);
}

// ---- Other macros ---------------------------------------------------------------------

void c2() {
    tv.TVPage.mask |= bit(PageBit::Columns);
    tv.TVPage.Columns = 2;
}

void th() { RopeCatString(out(), "\n.ls 2\n"); }

void fontTrap() {
    tv.TVFamilyStyle = s.undoFont;
    tv.TVSize = s.undoFont.FSize;
}

// r, i and b: with a word, the word is set in the font and the font before
// comes back after its line; without one the change lasts.
void fontForLine(unsigned position) {
    if (*tv.TVArg1.text) {
        RopeCatString(out(), tv.TVArg1.text);
        RopeAppend(out(), kNewline);
        tv.TVReturn.lineTrap = fontTrap;
        tv.TVReturn.lineCount = 1;
        s.undoFont = tv.TVFamilyStyle;
        s.undoFont.FSize = tv.TVSize;
    }
    TVFontSetByPosition(position);
}

void r() { fontForLine(0); }
void i() { fontForLine(1); }
void b() { fontForLine(2); }

void biEmulate() {
    if (!*tv.TVArg1.text) return;
    RopeCatString(out(), "\\f(BI");
    RopeCatString(out(), tv.TVArg1.text);
    RopeCatString(out(), "\\fP");
    RopeAppend(out(), kNewline);
}

void uTrap() { tv.TVIsUnderline = false; }

void u() {
    if (!*tv.TVArg1.text) return;
    RopeCatString(out(), tv.TVArg1.text);
    RopeAppend(out(), kNewline);
    tv.TVReturn.lineTrap = uTrap;
    tv.TVReturn.lineCount = 1;
    tv.TVIsUnderline = true;
}

}  // namespace

void MeDefine() {
    ArgValue* const args[] = {&tv.TVArg1, &tv.TVArg2, &tv.TVArg3, &tv.TVArg4, &tv.TVArg5,
                              &tv.TVArg6, &tv.TVArg7, &tv.TVArg8, &tv.TVArg9};
    argv[0] = nullptr;
    for (int k = 1; k <= 9; ++k) argv[k] = args[k - 1];

    TVDefineRule("H", H);
    TVDefineNumericalRule("m2", m2, "v");
    TVDefineNumericalRule("m4", m4, "v");
    TVDefineRule("2c", c2);
    TVDefineRule("th", th);
    TVDefineRule("pp", ppEmulate);
    TVDefineRule("lp", lp);
    TVDefineNumericalRule("ip", ip, " n");
    TVDefineRule("np", np);
    TVDefineRule("(q", openQ);
    TVDefineRule(")q", closeQ);
    TVDefineRule("(l", openL);
    TVDefineRule(")l", closeL);
    TVDefineRule("(b", openB);
    TVDefineRule(")b", closeB);
    TVDefineRule("(z", openB);
    TVDefineRule(")z", closeB);
    TVDefineNumericalRule("sh", sh, "v");
    TVDefineRule("uh", uh);
    TVDefineRule("+c", plusC);
    TVDefineRule("++", plusPlus);
    TVDefineRule("r", r);
    TVDefineRule("i", i);
    TVDefineRule("b", b);
    TVDefineRule("u", u);
    TVDefineRule("biEmulate", biEmulate);  // keyed by its first two letters: bi
    TVDefineRule("he", heFo);
    TVDefineRule("fo", heFo);
    TVDefineNumericalRule("m1", m1, "v");
    TVDefineNumericalRule("m3", m3, "v");
    TVDefineRule("(x", openX);
    TVDefineRule("xx", xx);
    TVDefineRule(")x", closeX);
    TVDefineRule("xp", xp);

    TVDefineString("lq", "\xD2");  // the output's opening double quotation mark
    TVDefineString("rq", "\xD3");  // and its closing one
    TVDefineString("-", "\\(em");
}

void meReset() {
    s = MeState{};
    for (ArgValue*& a : argv) a = nullptr;
}
