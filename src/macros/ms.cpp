// The ms package: paragraph, heading, title-block, display and keep macros
// that switch among the package's twenty-five named paragraph formats, plus the
// column, thesis-mode, size, font and underline macros.
// The formats are built once, by init, on the first macro that needs them.

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "interp/interp.h"
#include "macros/macros.h"
#include "preproc/preproc.h"
#include "requests/rb.h"
#include "requests/troff.h"
#include "tools/rope.h"
#include "writer/model.h"

namespace {

// Depth of the RS margin stack; deeper nesting keeps counting but saves nothing.
constexpr uint32_t kRsStackSlots = 12;
constexpr int kHeadingLevels = 5;
// A kept display of up to this many lines is never split across pages.
constexpr int32_t kKeptBlockSize = 99;
// The position of the roman, italic and bold fonts in the troff font table.
constexpr unsigned kRoman = 0, kItalic = 1, kBold = 2;

struct MsState {
    // Registers: sizes in points, lengths in inches. PI is in em units until
    // init converts it at the size in force then.
    float PS = 10;
    float LL = 6;
    float PD = 3.6f;
    float PI = 5;
    float CW = 2.8f;
    float GW = 0.4f;
    float HM = 1.0f;
    float FM = 1.0f;

    bool wasCalled = false;
    float leftMargin = 0;  // moved by RS and RE, added to every paragraph's indents
    float rsStack[kRsStackSlots] = {};
    uint32_t rsLevel = 0;
    bool PgfWithNext = false;  // keep in force (KS/KF until KE)
    bool isCentering = false;  // a title-block macro switched filling off
    bool isThesisMode = false;

    TabStop tabStops[kTabStopCount];   // the current stops, saved while an IP label is set
    TabStop blockTabs[kTabStopCount];  // copy of the current stops taken by init

    Pgf blockPgf, stdPgf, indentedPgf, hangingPgf, quotation, exdentedPgf, section;
    Pgf numberedHeading[kHeadingLevels];
    Pgf title, author, institute, abstract, chapter;
    Pgf idisplay, kidisplay, cdisplay, kcdisplay, ldisplay, kldisplay, bdisplay, kbdisplay;
};
MsState s;

// Number formats are the processor's own autonumber strings: "\t" in them is
// the two characters backslash and t, the way a tab is written inside a string.
const char* const kHeadingTags[kHeadingLevels] = {
    "lev. 1 sec.", "lev. 2 sec.", "lev. 3 sec.", "lev. 4 sec.", "lev. 5 sec.",
};
const char* const kHeadingFormats[kHeadingLevels] = {
    "+\\t", "#.+\\t", "#.#.+\\t", "#.#.#.+\\t", "#.#.#.#.+\\t",
};
const char* const kLevelZeroFormat = "1.\\t";
const char* const kChapterFormat = "c:+\\t";
const char* const kPageNumberLine = "- # -";
const char* const kAdHocTag = "-ms";

void setInches(Dimension& d, float inches) {
    d.value = inches;
    d.unit = kUnitInch;
}

void setPoints(Dimension& d, float points) {
    d.value = points;
    d.unit = kUnitPoint;
}

// The font of a troff position at the package's point size, for a format.
Font fontAt(unsigned position) {
    TVFontSetByPosition(position);
    Font f = tv.TVFamilyStyle;
    f.mask |= bit(FontBit::FSize);
    f.FSize = static_cast<int32_t>(s.PS);
    return f;
}

// A format made from `base` under a new tag.
Pgf derived(const Pgf& base, const char* tag) {
    Pgf format = base;
    format.PgfTag = tag;
    return format;
}

void fillBlockPgf() {
    Pgf& b = s.blockPgf;
    b = Pgf{};
    b.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfAlignment) | bit(PgfBit::PgfAutoNum) |
             bit(PgfBit::PgfColumnTop) | bit(PgfBit::PgfWithNext) | bit(PgfBit::PgfForceFont) |
             bit(PgfBit::font) | bit(PgfBit::PgfBlockSize) | bit(PgfBit::PgfLIndent) |
             bit(PgfBit::PgfFIndent) | bit(PgfBit::PgfRIndent) | bit(PgfBit::PgfLeading) |
             bit(PgfBit::PgfSpBefore) | bit(PgfBit::PgfNumFormat) | bit(PgfBit::tabStops);
    b.PgfTag = "block pgf";
    b.PgfAlignment = kAlignLeft;
    b.PgfAutoNum = kNo;
    b.PgfColumnTop = kNo;
    b.PgfWithNext = kNo;
    b.PgfForceFont = kYes;
    b.font = fontAt(kRoman);
    b.PgfBlockSize = 2;
    setInches(b.PgfLIndent, 0);
    setInches(b.PgfFIndent, 0);
    setInches(b.PgfRIndent, 0);
    TVLeadingSet(b);
    setPoints(b.PgfSpBefore, s.PD);
    b.PgfNumFormat = "";
    // Every format shares this one copy of the stops in force at init; the
    // catalog shifts it by each format's own left indent.
    for (int i = 0; i < kTabStopCount; i++) s.blockTabs[i] = tv.TVTabStops[i];
    b.PgfNumTabs = kTabStopCount;
    b.tabStops = s.blockTabs;
}

// Builds the twenty-five formats, each declared to the catalog right after it
// is filled, so the catalog lists them newest first.
void fillFormats() {
    // "block pgf" is declared once only.
    fillBlockPgf();
    TVPgfOut(s.blockPgf);
    PreprocPackageFormats(s.blockPgf);

    s.stdPgf = derived(s.blockPgf, "pgf");
    setInches(s.stdPgf.PgfFIndent, s.PI);
    TVPgfOut(s.stdPgf);

    s.indentedPgf = derived(s.stdPgf, "indented pgf");
    setInches(s.indentedPgf.PgfLIndent, s.PI);
    TVPgfOut(s.indentedPgf);

    // The hanging format keeps the shared copy of the stops like every other
    // format; IP sets the stops of the label line itself.
    s.hangingPgf = derived(s.blockPgf, "hanging pgf");
    setInches(s.hangingPgf.PgfLIndent, s.PI);
    TVPgfOut(s.hangingPgf);

    s.quotation = derived(s.blockPgf, "quotation");
    setInches(s.quotation.PgfLIndent, s.PI);
    setInches(s.quotation.PgfFIndent, s.PI);
    setInches(s.quotation.PgfRIndent, s.PI);
    setPoints(s.quotation.PgfLeading, 2.0f);
    TVPgfOut(s.quotation);

    s.exdentedPgf = derived(s.blockPgf, "exdented pgf");
    setInches(s.exdentedPgf.PgfLIndent, s.PI);
    TVPgfOut(s.exdentedPgf);

    s.section = derived(s.blockPgf, "sec.");
    s.section.font = fontAt(kBold);
    TVPgfOut(s.section);

    for (int level = 0; level < kHeadingLevels; level++) {
        Pgf& h = s.numberedHeading[level];
        h = derived(s.section, kHeadingTags[level]);
        h.PgfAutoNum = kYes;
        h.PgfNumFormat = kHeadingFormats[level];
        TVPgfOut(h);
    }

    s.title = derived(s.blockPgf, "title");
    s.title.PgfAlignment = kAlignCenter;
    s.title.font = s.section.font;
    setPoints(s.title.PgfLeading, 2.0f);
    TVPgfOut(s.title);

    s.author = derived(s.title, "author");
    s.author.font = fontAt(kItalic);
    TVPgfOut(s.author);

    s.institute = derived(s.title, "institute");
    s.institute.font = s.blockPgf.font;
    TVPgfOut(s.institute);

    s.abstract = derived(s.blockPgf, "abstract");
    setInches(s.abstract.PgfRIndent, s.LL / 6);
    setPoints(s.abstract.PgfLeading, 2.0f);
    TVPgfOut(s.abstract);

    // The chapter number format is there for the processor's use; the chapter
    // itself is not numbered automatically.
    s.chapter = derived(s.title, "chapter");
    s.chapter.PgfColumnTop = kYes;
    s.chapter.PgfNumFormat = kChapterFormat;
    TVPgfOut(s.chapter);

    s.idisplay = derived(s.indentedPgf, "idisplay");
    TVPgfOut(s.idisplay);
    s.kidisplay = derived(s.idisplay, "kidisplay");
    s.kidisplay.PgfBlockSize = kKeptBlockSize;
    TVPgfOut(s.kidisplay);

    s.cdisplay = derived(s.blockPgf, "cdisplay");
    s.cdisplay.PgfAlignment = kAlignCenter;
    TVPgfOut(s.cdisplay);
    s.kcdisplay = derived(s.cdisplay, "kcdisplay");
    s.kcdisplay.PgfBlockSize = kKeptBlockSize;
    TVPgfOut(s.kcdisplay);

    s.ldisplay = derived(s.blockPgf, "ldisplay");
    s.ldisplay.PgfAlignment = kAlignLeft;
    TVPgfOut(s.ldisplay);
    s.kldisplay = derived(s.ldisplay, "kldisplay");
    s.kldisplay.PgfBlockSize = kKeptBlockSize;
    TVPgfOut(s.kldisplay);

    s.bdisplay = derived(s.ldisplay, "bdisplay");
    TVPgfOut(s.bdisplay);
    s.kbdisplay = derived(s.kldisplay, "kbdisplay");
    TVPgfOut(s.kbdisplay);
}

// One-time set-up: page layout, the formats, then roman as the current font.
void init() {
    if (s.wasCalled) return;
    s.wasCalled = true;

    Document& d = tv.TVDocument;
    d.mask |= bit(DocumentBit::DMargins) | bit(DocumentBit::DHeadOnFirst) |
              bit(DocumentBit::DFootOnFirst);
    setInches(d.DMargins[1], s.HM);
    setInches(d.DMargins[3], s.FM);
    d.DHeadOnFirst = kNo;
    d.DFootOnFirst = kNo;

    tv.TVPage.mask |= bit(PageBit::HeaderC);
    tv.TVPage.HeaderC = kPageNumberLine;

    tv.TVSize = static_cast<int32_t>(s.PS);
    s.PI = static_cast<float>(s.PI * tv.TVSize * 0.6 / 72);

    fillFormats();
    TVFontSetByPosition(kRoman);
}

// Marks the current format as an ad-hoc one: the catalog files it under this
// tag, numbered when the tag is already taken by a different format.
void adHocTag() {
    tv.TVPgf.mask |= bit(PgfBit::PgfTag);
    tv.TVPgf.PgfTag = kAdHocTag;
}

void setWithNext(bool keep) {
    tv.TVPgf.mask |= bit(PgfBit::PgfWithNext);
    tv.TVPgf.PgfWithNext = keep ? kYes : kNo;
}

void centeringStart() {
    s.isCentering = true;
    tv.TVIsFilling = false;
}

void centeringStop() {
    if (!s.isCentering) return;
    s.isCentering = false;
    tv.TVIsFilling = true;
}

// The common end of the paragraph and heading macros.
void RT() {
    tv.TVPgf.PgfLIndent.value += s.leftMargin;
    tv.TVPgf.PgfFIndent.value += s.leftMargin;
    tv.TVReturn.newPgf = true;
    TVLeadingSet(tv.TVPgf);
    centeringStop();
    setWithNext(s.PgfWithNext);
}

void useFormat(const Pgf& format) {
    init();
    tv.TVPgf = format;
}

// ---- Paragraphs and headings --------------------------------------------------
void PP() { useFormat(s.stdPgf); RT(); }
void LP() { useFormat(s.blockPgf); RT(); }
void XP() { useFormat(s.exdentedPgf); RT(); }
void SH() { useFormat(s.section); RT(); }

void QP() {
    useFormat(s.quotation);
    RT();
    setPoints(tv.TVPgf.PgfLeading, 2.0f);
}

// The level is the number as written; anything outside 0 to 4, negative
// levels included, is the deepest level.
void NH() {
    init();
    int level = 1;
    if (tv.TVArg1.text[0] != '\0') {
        double truncated = std::trunc(static_cast<double>(tv.TVArg1.value) + 0.1);
        level = (truncated >= 0 && truncated <= 4) ? static_cast<int>(truncated) : 5;
    }
    if (level == 0) {
        tv.TVPgf = s.numberedHeading[0];
        tv.TVPgf.PgfNumFormat = kLevelZeroFormat;
    } else {
        tv.TVPgf = s.numberedHeading[level - 1];
    }
    RT();
}

// ---- Indented paragraphs ------------------------------------------------------
// The end of an IP label line: a label narrower than the indent is followed
// on its own line by a tab to the indent, a wider one by a forced break.
void ipTrap() {
    if (TVCursorX() < tv.TVPgf.PgfLIndent.value) {
        RopeAppend(tv.TVReturn.text.get(), static_cast<char>(kTab));
        RopeAppend(tv.TVReturn.text.get(), static_cast<char>(kNewline));
    } else {
        RopeAppend(tv.TVReturn.text.get(), static_cast<char>(kHardReturn));
    }
    for (int i = 0; i < kTabStopCount; i++) tv.TVTabStops[i] = s.tabStops[i];
}

void IP() {
    init();
    centeringStop();
    float indent = tv.TVArg2.isNumber ? tv.TVArg2.value : s.PI;
    const char* label = tv.TVArg1.text;
    if (label[0] != '\0') {
        RopeCatString(tv.TVReturn.text.get(), label);
        RopeAppend(tv.TVReturn.text.get(), static_cast<char>(kNewline));
        tv.TVReturn.lineTrap = ipTrap;
        tv.TVReturn.lineCount = 1;
        // With every stop at 0, the label line's stops all fall on the
        // paragraph's left indent, where the tab after the label must land.
        for (int i = 0; i < kTabStopCount; i++) {
            s.tabStops[i] = tv.TVTabStops[i];
            tv.TVTabStops[i].TSX.value = 0;
            tv.TVTabStops[i].TSType = kTSLeft;
        }
        tv.TVPgf = s.hangingPgf;
        tv.TVPgf.PgfFIndent.value = s.leftMargin;
        tv.TVPgf.PgfLIndent.value = indent + s.leftMargin;
    } else {
        tv.TVPgf = s.indentedPgf;
        tv.TVPgf.PgfFIndent.value = indent + s.leftMargin;
        tv.TVPgf.PgfLIndent.value = indent + s.leftMargin;
    }
    setWithNext(s.PgfWithNext);
    tv.TVReturn.newPgf = true;
}

// ---- Relative indents ---------------------------------------------------------
// The current format, under the ad-hoc tag, moved to the current margin.
void marginApply() {
    adHocTag();
    tv.TVPgf.mask |= bit(PgfBit::PgfLIndent) | bit(PgfBit::PgfFIndent);
    tv.TVPgf.PgfFIndent.value = s.leftMargin;
    tv.TVPgf.PgfLIndent.value = s.leftMargin;
    tv.TVReturn.newPgf = true;
    centeringStop();
    setWithNext(s.PgfWithNext);
}

void RS() {
    init();
    if (s.rsLevel < kRsStackSlots) s.rsStack[s.rsLevel] = s.leftMargin;
    if (s.rsLevel < UINT32_MAX) s.rsLevel++;
    s.leftMargin += s.PI;
    marginApply();
}

// Below the depth the stack holds, the deepest saved margin is restored.
void RE() {
    init();
    if (s.rsLevel != 0) s.rsLevel--;
    s.leftMargin = s.rsStack[s.rsLevel < kRsStackSlots ? s.rsLevel : kRsStackSlots - 1];
    marginApply();
}

// ---- Title block ---------------------------------------------------------------
// Each input line of a title-block item is one centred line until the next
// paragraph-like macro brings filling back.
void titleBlock(const Pgf& format) {
    init();
    centeringStart();
    tv.TVPgf = format;
    tv.TVReturn.newPgf = true;
}

void TL() { titleBlock(s.title); }
void AU() { titleBlock(s.author); }
void AI() { titleBlock(s.institute); }

void abTrap() {
    tv.TVPgf = s.abstract;
    tv.TVReturn.newPgf = true;
}

void AB() {
    init();
    centeringStop();
    tv.TVPgf = s.abstract;
    if (std::strcmp(tv.TVArg1.text, "no") != 0) {
        tv.TVPgf.PgfAlignment = kAlignCenter;
        tv.TVPgf.PgfRIndent.value = 0;
        RopeCopyString(tv.TVReturn.text.get(), "ABSTRACT\n");
        tv.TVReturn.lineTrap = abTrap;
        tv.TVReturn.lineCount = 1;
    }
    tv.TVReturn.newPgf = true;
}

// The abstract's format stays until the next paragraph macro; only the tag
// says the abstract has ended.
void AE() {
    tv.TVReturn.newPgf = true;
    adHocTag();
}

void CT() {
    init();
    centeringStop();
    tv.TVPgf = s.chapter;
    tv.TVReturn.newPgf = true;
}

// ---- Columns ---------------------------------------------------------------------
void C1() {
    tv.TVPage.mask |= bit(PageBit::Columns);
    tv.TVPage.Columns = 1;
}

// The right margin leaves room for two columns of CW and the gap, measured
// from the page width the Page statement holds (0 while nothing has set it,
// which gives a negative margin that the output raises to a quarter inch).
void C2() {
    tv.TVPage.mask |= bit(PageBit::Columns) | bit(PageBit::ColumnGap);
    tv.TVPage.Columns = 2;
    setInches(tv.TVPage.ColumnGap, s.GW);
    Dimension* margins = tv.TVDocument.DMargins;
    margins[2].value = tv.TVPage.PageSize[0].value - (2 * s.CW + margins[0].value + s.GW);
}

// As many columns of the given width and gap as the line length holds. A
// width and gap that cancel out, or sizes too large to count, leave one column.
void MC() {
    if (!tv.TVArg1.isNumber) {
        C2();
        return;
    }
    double width = tv.TVArg1.value;
    double gap = tv.TVArg2.isNumber ? tv.TVArg2.value : s.GW;
    double columns = std::trunc((s.LL - width) / (width + gap) + 1.0 + 0.1);
    tv.TVPage.mask |= bit(PageBit::Columns) | bit(PageBit::ColumnGap);
    tv.TVPage.Columns =
        (columns >= INT32_MIN && columns <= INT32_MAX) ? static_cast<int32_t>(columns) : 1;
    setInches(tv.TVPage.ColumnGap, static_cast<float>(gap));
}

// ---- Thesis mode -------------------------------------------------------------------
// The page number moves to the foot, and the text is double spaced through
// an ls request read as input.
void TM() {
    tv.TVPage.mask &= ~bit(PageBit::HeaderC);
    tv.TVPage.mask |= bit(PageBit::FooterC);
    tv.TVPage.FooterC = kPageNumberLine;
    tv.TVDocument.mask |= bit(DocumentBit::DHeadOnFirst) | bit(DocumentBit::DFootOnFirst);
    tv.TVDocument.DHeadOnFirst = kNo;
    tv.TVDocument.DFootOnFirst = kNo;
    s.isThesisMode = true;
    RopeCatString(tv.TVReturn.text.get(), "\n.ls 2\n");
}

void P1() {
    if (s.isThesisMode) tv.TVDocument.DHeadOnFirst = kYes;
}

// ---- Keeps ---------------------------------------------------------------------------
void keep(bool withNext) {
    s.PgfWithNext = withNext;
    setWithNext(withNext);
    tv.TVReturn.newPgf = true;
}

void KS() { keep(true); }
void KE() { keep(false); }

// ---- Displays --------------------------------------------------------------------------
void display(const Pgf& format) {
    init();
    centeringStop();
    tv.TVPgf = format;
    tv.TVIsFilling = false;
    tv.TVReturn.newPgf = true;
}

// ID, LD, CD and BD: displays that may be split.
void SD() {
    switch (tv.TVCommand ? tv.TVCommand[0] : '\0') {
    case 'C': display(s.cdisplay); break;
    case 'B': display(s.bdisplay); break;
    case 'L': display(s.ldisplay); break;
    default: display(s.idisplay); break;
    }
}

// DS: displays kept in one piece.
void DS() {
    switch (tv.TVArg1.text[0]) {
    case 'C': display(s.kcdisplay); break;
    case 'B': display(s.kbdisplay); break;
    case 'L': display(s.kldisplay); break;
    default: display(s.kidisplay); break;
    }
}

void DE() {
    tv.TVIsFilling = true;
    adHocTag();
    tv.TVReturn.newPgf = true;
}

// ---- Tabs, sizes, fonts ----------------------------------------------------------------
// A stop every five ems at the current size, whatever the arguments.
void TA() {
    for (int i = 0; i < kTabStopCount; i++) {
        tv.TVTabStops[i].TSX.value = static_cast<float>((i + 1) * 5.0 * tv.TVSize / 72 * 0.6);
        tv.TVTabStops[i].TSType = kTSLeft;
    }
    tv.TVReturn.newPgf = true;
}

// Size steps saturate instead of overflowing the point count.
void sizeStep(int32_t delta) {
    int64_t size = static_cast<int64_t>(tv.TVSize) + delta;
    if (size > INT32_MAX) size = INT32_MAX;
    if (size < INT32_MIN) size = INT32_MIN;
    tv.TVSize = static_cast<int32_t>(size);
}

void LG() { sizeStep(2); }
void SM() { sizeStep(-2); }
void NL() { tv.TVSize = static_cast<int32_t>(s.PS); }

// With a word, the word alone in the font, read back as input; without one,
// the font for the text that follows.
void fontMacro(const char* escape, unsigned position) {
    const char* word = tv.TVArg1.text;
    if (word[0] == '\0') {
        TVFontSetByPosition(position);
        return;
    }
    Rope* text = tv.TVReturn.text.get();
    RopeCatString(text, escape);
    RopeCatString(text, word);
    RopeCatString(text, "\\fP");
    RopeAppend(text, static_cast<char>(kNewline));
}

void B() { fontMacro("\\fB", kBold); }
void I() { fontMacro("\\fI", kItalic); }
void R() { fontMacro("\\fR", kRoman); }

void ulTrap() { tv.TVIsUnderline = false; }

void UL() {
    const char* word = tv.TVArg1.text;
    if (word[0] == '\0') return;
    RopeCatString(tv.TVReturn.text.get(), word);
    RopeAppend(tv.TVReturn.text.get(), static_cast<char>(kNewline));
    tv.TVReturn.lineTrap = ulTrap;
    tv.TVReturn.lineCount = 1;
    tv.TVIsUnderline = true;
}

struct MsRule {
    const char* name;
    Handler handler;
    const char* units;  // null: a plain rule
};

// One row per macro, in registration order; a null unit string is a plain rule.
const MsRule kRules[] = {
    {"B", B, nullptr},     {"I", I, nullptr},     {"UL", UL, nullptr},   {"R", R, nullptr},
    {"LG", LG, nullptr},   {"NL", NL, nullptr},   {"SM", SM, nullptr},   {"PP", PP, nullptr},
    {"LP", LP, nullptr},   {"QP", QP, nullptr},   {"XP", XP, nullptr},   {"NH", NH, "v"},
    {"SH", SH, nullptr},   {"IP", IP, " n"},      {"RS", RS, nullptr},   {"RE", RE, nullptr},
    {"TL", TL, nullptr},   {"AU", AU, nullptr},   {"AI", AI, nullptr},   {"AB", AB, nullptr},
    {"AE", AE, nullptr},   {"TM", TM, nullptr},   {"CT", CT, nullptr},   {"P1", P1, nullptr},
    {"1C", C1, nullptr},   {"2C", C2, nullptr},   {"MC", MC, "nn"},      {"KS", KS, nullptr},
    {"KF", KS, nullptr},   {"KE", KE, nullptr},   {"DS", DS, nullptr},   {"ID", SD, nullptr},
    {"LD", SD, nullptr},   {"CD", SD, nullptr},   {"BD", SD, nullptr},   {"DE", DE, nullptr},
    {"TA", TA, nullptr},
};

}  // namespace

void MsDefine() {
    for (const MsRule& rule : kRules) {
        if (rule.units)
            TVDefineNumericalRule(rule.name, rule.handler, rule.units);
        else
            TVDefineRule(rule.name, rule.handler);
    }
    // The output character set's opening and closing double quotation marks.
    TVDefineString("Q", "\xD2");
    TVDefineString("U", "\xD3");
    TVDefineString("-", "\\(em");
}

void msReset() { s = MsState{}; }
