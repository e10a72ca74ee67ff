// The man package: the macros of manual pages as native handlers that switch
// among six named paragraph formats (block, exdented, indented, section,
// subsection and hanging), set the page headers and footers from TH, and keep
// the indents of relative-indent blocks on a small stack.
#include <cstdint>
#include <cstring>
#include <string>

#include "driver/driver.h"
#include "interp/interp.h"
#include "macros/macros.h"
#include "preproc/preproc.h"
#include "requests/rb.h"
#include "tools/rope.h"
#include "writer/model.h"

namespace {

// Depth of the relative-indent stack: RS blocks nested deeper than this keep
// working, but their margins are no longer remembered one by one.
constexpr unsigned kRsSlots = 12;

// Font positions used by the package (troff positions 1, 2 and 3).
constexpr unsigned kRoman = 0;
constexpr unsigned kItalic = 1;
constexpr unsigned kBold = 2;

// Body text and headings are set at ten points.
constexpr int32_t kBodySize = 10;

// The space before paragraphs is given in sixths of an inch (a vertical space
// of twelve points).
constexpr double kInchesPerVSpace = 1.0 / 6;
constexpr float kDefaultPgfDistance = 0.4f;

struct RsSlot {
    float leftMargin = 0;
    float prevailingIndent = 0;
};

struct ManState {
    const ArgValue* argv[10] = {};  // [1..9] are tv.TVArg1..tv.TVArg9
    float prevailingIndent = 0.5f;  // indent of hanging and indented paragraphs
    float indent = 0.5f;            // base indent of all body text
    float leftMargin = 0;           // extra margin of RS blocks
    float pgfDistance = 0;          // space before paragraphs, inches
    RsSlot rsStack[kRsSlots];
    unsigned rsLevel = 0;
    char togglePattern[2] = {0, 0};
    unsigned toggleNo = 0;

    Pgf pgf;                 // "block pgf"
    Pgf exdentedPgf;         // "exdented pgf"
    Pgf indentedPgf;         // "indented pgf"
    Pgf sectionHeading;      // "section"
    Pgf subsectionHeading;   // "subsection"
    Pgf hangingPgf;          // "hanging pgf"
    TabStop pgfTabStops[kTabStopCount];      // the block format's own stops
    TabStop hangingTabStops[kTabStopCount];  // all at 0, left-aligned
    TabStop tabStops[kTabStopCount];         // live stops saved by a hanging paragraph

    // The page refers to these texts, so they live as long as the package;
    // a later TH replaces them and points the page at the new ones.
    std::string headerName;
    std::string footerL;
    std::string footerC;

    // The address of the open UR or MT link, and whether text came before
    // its end.
    std::string linkAddress;
    bool linkHasText = false;
};
ManState s;

// Header names of the manual sections, searched in this order: a key matches
// a section with the same first character when the key has no second
// character or the second characters agree.
struct Section {
    const char* key;
    const char* name;
};
constexpr Section sections[] = {
    {"1S", "SUN_SPECIFIC USER COMMANDS"},
    {"1", "USER COMMANDS"},
    {"2", "SYSTEM CALLS"},
    {"3C", "COMPATIBILITY ROUTINES"},
    {"3F", "FORTRAN LIBRARY ROUTINES"},
    {"3S", "STANDARD I/O LIBRARY"},
    {"3M", "MATHEMATICAL FUNCTIONS"},
    {"3N", "NETWORK FUNCTIONS"},
    {"3R", "RPC SERVICES"},
    {"3X", "MISCELLANEOUS FUNCTIONS"},
    {"3", "C LIBRARY FUNCTIONS"},
    {"4", "SPECIAL FILES"},
    {"5", "FILE FORMATS"},
    {"6", "GAMES AND DEMOS"},
    {"7", "TABLES"},
    {"8", "MAINTENANCE COMMANDS"},
};
constexpr const char* kUnknownSection = "UNKNOWN SECTION OF THE MANUAL";

// Header and footer margins of a manual page, in the page's HFMargins order.
constexpr Dimension ManPageHFMargins[4] = {{1.0f, kUnitInch}, {0.5f, kUnitInch},
                                          {1.0f, kUnitInch}, {0.5f, kUnitInch}};

Dimension inches(float value) { return Dimension{value, kUnitInch}; }

Rope* returnText() { return tv.TVReturn.text.get(); }

void newPgf() { tv.TVReturn.newPgf = true; }

void lineTrap(void (*trap)()) {
    tv.TVReturn.lineTrap = trap;
    tv.TVReturn.lineCount = 1;
}

// ---- Fonts and the block format --------------------------------------------

// Back to roman ten point; every font macro ends with it.
void curlyF() {
    tv.TVSize = kBodySize;
    TVFontSetByPosition(kRoman);
}

// The current font at the current size, with the size marked as set.
Font sizedFont() {
    Font f = tv.TVFamilyStyle;
    f.FSize = tv.TVSize;
    f.mask |= bit(FontBit::FSize);
    return f;
}

// Back to body text at the current margin.
void curlyE() {
    tv.TVPgf = s.pgf;
    tv.TVPgf.PgfLIndent.value = s.leftMargin + s.indent;
    tv.TVPgf.PgfFIndent.value = s.leftMargin + s.indent;
    tv.TVPgf.PgfSpBefore.value = s.pgfDistance;
    tv.TVPgf.tabStops = tv.TVTabStops;
    curlyF();
    // The size travels in the field only: the paragraph states the family and
    // style, and its first character states the size.
    tv.TVPgf.font = tv.TVFamilyStyle;
    tv.TVPgf.font.FSize = tv.TVSize;
}

// Tab stops every half inch, left-aligned; their masks and units stay.
void dt() {
    for (int i = 0; i < kTabStopCount; i++) {
        tv.TVTabStops[i].TSX.value = 0.5f * static_cast<float>(i + 1);
        tv.TVTabStops[i].TSType = kTSLeft;
    }
}

// Appends the non-empty arguments, one blank apart, as one input line.
// `keepBlanks` turns the blanks inside an argument into unpaddable spaces so
// that a quoted argument stays one word.
void appendArgsLine(bool keepBlanks) {
    Rope* text = returnText();
    for (int k = 1; k <= 9; k++) {
        const char* a = s.argv[k]->text;
        if (a[0] == '\0') continue;
        // The stretches between blanks go in whole.
        const char* end = a + std::strlen(a);
        const char* p = a;
        while (keepBlanks) {
            const auto* blank = static_cast<const char*>(std::memchr(p, ' ', static_cast<size_t>(end - p)));
            if (!blank) break;
            RopeCatChars(text, p, static_cast<size_t>(blank - p));
            RopeAppend(text, static_cast<char>(kUnpaddableSpace));
            p = blank + 1;
        }
        RopeCatChars(text, p, static_cast<size_t>(end - p));
        RopeAppend(text, ' ');
    }
    if (text->length > 0) {
        RopeDeleteLast(text);
        RopeAppend(text, '\n');
    }
}

void returnAllArgs() { appendArgsLine(false); }

// ---- Font macros -------------------------------------------------------------

void B() {
    returnAllArgs();
    TVFontSetByPosition(kBold);
    lineTrap(curlyF);
}

void I() {
    returnAllArgs();
    TVFontSetByPosition(kItalic);
    lineTrap(curlyF);
}

void SM() {
    tv.TVSize -= 2;
    lineTrap(curlyF);
    returnAllArgs();
}

// One word of an alternating-font line: the next letter of the pattern.
void fontToggle() {
    char letter = s.togglePattern[s.toggleNo % 2];
    s.toggleNo++;
    tv.TVFamilyStyle = Font{};
    switch (letter) {
    case 'R': TVFontSetByPosition(kRoman); break;
    case 'I': TVFontSetByPosition(kItalic); break;
    case 'B': TVFontSetByPosition(kBold); break;
    default: break;
    }
}

// BI, BR, IB, IR, RB, RI: the arguments come back as one line whose words
// alternate between the two fonts the macro's name spells, joined without
// the blanks between them.
void fontToggleInit() {
    // In the full mode, as in troff, a line without arguments alternates
    // nothing; the classic mode takes the next line. (An empty argument, as
    // in .RI "" word, is no argument to show.)
    bool hasText = false;
    for (int k = 1; k <= 9; k++) hasText = hasText || s.argv[k]->text[0] != '\0';
    if (driver.isFull && !hasText) return;
    appendArgsLine(true);
    lineTrap(curlyF);
    tv.TVReturn.wordTrap = fontToggle;
    tv.TVReturn.suppressSpace = true;
    s.toggleNo = 0;
    const char* name = tv.TVCommand ? tv.TVCommand : "";
    s.togglePattern[0] = name[0];
    s.togglePattern[1] = name[0] ? name[1] : '\0';
    fontToggle();
}

// ---- Title -------------------------------------------------------------------

const char* sectionName(const char* section) {
    for (const Section& entry : sections) {
        if (entry.key[0] != section[0]) continue;
        if (entry.key[1] == '\0' || entry.key[1] == section[1]) return entry.name;
    }
    return kUnknownSection;
}

void TH() {
    Page& page = tv.TVPage;
    for (int i = 0; i < 4; i++) page.HFMargins[i] = ManPageHFMargins[i];

    const char* name = s.argv[1]->text;
    const char* section = s.argv[2]->text;
    s.headerName = std::string(name) + "(" + section + ")";
    s.footerL = s.argv[4]->text;
    s.footerC = s.argv[3]->text;
    page.HeaderL = s.headerName.c_str();
    page.HeaderR = s.headerName.c_str();
    page.HeaderC = sectionName(section);
    page.FooterL = s.footerL.c_str();
    page.FooterC = s.footerC.c_str();
    page.FooterR = "#";

    TVFontSetByPosition(kRoman);
    page.HFFont = sizedFont();

    page.mask |= bit(PageBit::HFMargins) | bit(PageBit::HeaderL) | bit(PageBit::HeaderC) |
                 bit(PageBit::HeaderR) | bit(PageBit::FooterL) | bit(PageBit::FooterC) |
                 bit(PageBit::FooterR) | bit(PageBit::HFFont);
}

// ---- Headings and paragraphs ---------------------------------------------------

// After the heading line: body text at the left margin again.
void headingTrap() {
    s.prevailingIndent = 0.5f;
    s.leftMargin = 0;
    curlyE();
    newPgf();
}

// The heading is the arguments or, without any, the next input line. A
// heading ends every relative-indent block.
void heading(const Pgf& format) {
    returnAllArgs();
    lineTrap(headingTrap);
    newPgf();
    tv.TVPgf = format;
    tv.TVPgf.PgfSpBefore.value = s.pgfDistance;
    s.rsLevel = 0;
    s.prevailingIndent = 0.5f;
    s.leftMargin = 0;
    tv.TVIsFilling = true;
}

void SH() { heading(s.sectionHeading); }
void SS() { heading(s.subsectionHeading); }

void PP() {
    s.prevailingIndent = 0.5f;
    curlyE();
    newPgf();
}

// A paragraph whose first line starts at the margin and the others at the
// prevailing indent beyond it.
void hangingIndents(Pgf& format) {
    format.PgfFIndent.value = s.leftMargin + s.indent;
    format.PgfLIndent.value = format.PgfFIndent.value + s.prevailingIndent;
    format.PgfSpBefore.value = s.pgfDistance;
}

void HP() {
    if (s.argv[1]->isNumber) s.prevailingIndent = s.argv[1]->value;
    tv.TVPgf = s.exdentedPgf;
    tv.TVPgf.tabStops = tv.TVTabStops;
    hangingIndents(tv.TVPgf);
    newPgf();
}

// At the end of the tag line: a tag narrower than the indent is followed by a
// tab, so that the body goes on beside it at the indent; a wider one by a
// hard return, so that the body starts on the next line.
void hangingPgfTrap() {
    Rope* text = returnText();
    if (TVCursorX() < s.prevailingIndent) {
        RopeAppend(text, '\t');
        RopeAppend(text, '\n');
    } else {
        RopeAppend(text, static_cast<char>(kHardReturn));
    }
    for (int i = 0; i < kTabStopCount; i++) tv.TVTabStops[i] = s.tabStops[i];
}

// A tagged paragraph: the tag (or, when empty, the next input line) is set at
// the margin and the body at the prevailing indent. While the tag line is
// read, every tab stop is at 0, which the paragraph's left indent turns into
// the hanging indent.
void hangingPgfEmulate(const char* tag) {
    if (tag[0] != '\0') {
        RopeCatString(returnText(), tag);
        RopeAppend(returnText(), '\n');
    }
    lineTrap(hangingPgfTrap);
    tv.TVPgf = s.hangingPgf;
    tv.TVPgf.tabStops = tv.TVTabStops;
    tv.TVPgf.PgfNumTabs = kTabStopCount;
    for (int i = 0; i < kTabStopCount; i++) {
        s.tabStops[i] = tv.TVTabStops[i];
        tv.TVTabStops[i].TSX.value = 0;
        tv.TVTabStops[i].TSType = kTSLeft;
    }
    hangingIndents(tv.TVPgf);
    newPgf();
}

void TP() {
    if (s.argv[1]->isNumber) s.prevailingIndent = s.argv[1]->value;
    hangingPgfEmulate("");
}

void IP() {
    if (s.argv[2]->isNumber) s.prevailingIndent = s.argv[2]->value;
    const char* tag = s.argv[1]->text;
    if (tag[0] != '\0') {
        hangingPgfEmulate(tag);
        return;
    }
    tv.TVPgf = s.indentedPgf;
    tv.TVPgf.tabStops = tv.TVTabStops;
    float body = s.leftMargin + s.indent + s.prevailingIndent;
    tv.TVPgf.PgfFIndent.value = body;
    tv.TVPgf.PgfLIndent.value = body;
    tv.TVPgf.PgfSpBefore.value = s.pgfDistance;
    newPgf();
}

// ---- Relative indents, tabs, spacing --------------------------------------------

void RS() {
    // Blocks deeper than the stack still indent, but only the first twelve
    // levels remember what to go back to.
    if (s.rsLevel < kRsSlots) s.rsStack[s.rsLevel] = RsSlot{s.leftMargin, s.prevailingIndent};
    s.rsLevel++;
    s.leftMargin += s.argv[1]->isNumber ? s.argv[1]->value : s.prevailingIndent;
    s.prevailingIndent = 0.5f;
    curlyE();
    newPgf();
}

void RE() {
    if (s.rsLevel > 0) {
        s.rsLevel--;
        // Beyond the stack every level goes back to the deepest saved slot,
        // so an RE never reads outside the stack.
        const RsSlot& slot = s.rsStack[s.rsLevel < kRsSlots ? s.rsLevel : kRsSlots - 1];
        s.leftMargin = slot.leftMargin;
        s.prevailingIndent = slot.prevailingIndent;
    } else {
        s.leftMargin = s.rsStack[0].leftMargin;
    }
    curlyE();
    newPgf();
}

void DT() {
    dt();
    newPgf();
}

// The distance is a count of vertical spaces; it takes effect at the next
// change of paragraph format.
void PD() {
    s.pgfDistance = s.argv[1]->isNumber ? s.argv[1]->value : kDefaultPgfDistance;
    s.pgfDistance = static_cast<float>(static_cast<double>(s.pgfDistance) * kInchesPerVSpace);
}

// ---- Initialisation ------------------------------------------------------------

// Builds the six formats, declaring each to the catalog as soon as it is
// built, and sets the page up for a manual page.
void th() {
    tv.TVDocument.DMargins[1].value = 1.0f;
    tv.TVDocument.DMargins[3].value = 1.0f;

    curlyF();
    dt();
    s.prevailingIndent = 0.5f;
    s.indent = 0.5f;
    s.leftMargin = 0;
    s.pgfDistance = static_cast<float>(0.4 * kInchesPerVSpace);

    Pgf& block = s.pgf;
    block = Pgf{};
    block.PgfTag = "block pgf";
    block.PgfAlignment = kAlignLeftRight;
    block.PgfForceFont = kYes;
    TVFontSetByPosition(kRoman);
    block.font = sizedFont();
    block.PgfBlockSize = 2;
    block.PgfLIndent = inches(s.indent);
    block.PgfFIndent = inches(s.indent);
    block.PgfSpBefore = inches(s.pgfDistance);
    for (int i = 0; i < kTabStopCount; i++) s.pgfTabStops[i] = tv.TVTabStops[i];
    block.tabStops = s.pgfTabStops;
    block.PgfNumTabs = kTabStopCount;
    block.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfAlignment) | bit(PgfBit::PgfForceFont) |
                 bit(PgfBit::font) | bit(PgfBit::PgfBlockSize) | bit(PgfBit::PgfLIndent) |
                 bit(PgfBit::PgfFIndent) | bit(PgfBit::PgfSpBefore) | bit(PgfBit::tabStops);
    TVPgfOut(block);
    PreprocPackageFormats(block);

    s.exdentedPgf = block;
    s.exdentedPgf.PgfTag = "exdented pgf";
    s.exdentedPgf.PgfLIndent.value += s.prevailingIndent;
    TVPgfOut(s.exdentedPgf);

    s.indentedPgf = block;
    s.indentedPgf.PgfTag = "indented pgf";
    s.indentedPgf.PgfLIndent.value = s.indent + s.prevailingIndent;
    s.indentedPgf.PgfFIndent.value = s.indent + s.prevailingIndent;
    TVPgfOut(s.indentedPgf);

    s.sectionHeading = block;
    s.sectionHeading.PgfTag = "section";
    s.sectionHeading.PgfLIndent.value = 0;
    s.sectionHeading.PgfFIndent.value = 0;
    TVFontSetByPosition(kBold);
    s.sectionHeading.font = sizedFont();
    TVPgfOut(s.sectionHeading);
    curlyF();

    s.subsectionHeading = s.sectionHeading;
    s.subsectionHeading.PgfTag = "subsection";
    s.subsectionHeading.PgfFIndent.value = 0.25f;
    TVPgfOut(s.subsectionHeading);

    s.hangingPgf = s.exdentedPgf;
    s.hangingPgf.PgfTag = "hanging pgf";
    for (TabStop& stop : s.hangingTabStops) {
        stop = TabStop{};
        stop.mask = bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
        stop.TSX = inches(0);
        stop.TSType = kTSLeft;
        stop.TSLeader = 0;
    }
    s.hangingPgf.tabStops = s.hangingTabStops;
    TVPgfOut(s.hangingPgf);

    curlyE();
}

enum class RuleKind { Plain, Numerical };

struct ManRule {
    const char* name;
    RuleKind kind;
    const char* units;
    Handler handler;
};

constexpr ManRule manRules[] = {
    {"B", RuleKind::Plain, "", B},
    {"I", RuleKind::Plain, "", I},
    {"BI", RuleKind::Plain, "", fontToggleInit},
    {"BR", RuleKind::Plain, "", fontToggleInit},
    {"IB", RuleKind::Plain, "", fontToggleInit},
    {"IR", RuleKind::Plain, "", fontToggleInit},
    {"RB", RuleKind::Plain, "", fontToggleInit},
    {"RI", RuleKind::Plain, "", fontToggleInit},
    {"SM", RuleKind::Plain, "", SM},
    {"TH", RuleKind::Plain, "", TH},
    {"SH", RuleKind::Plain, "", SH},
    {"SS", RuleKind::Plain, "", SS},
    {"HP", RuleKind::Numerical, "m", HP},
    {"IP", RuleKind::Numerical, " m", IP},  // the tag is any text, the indent in ems
    {"TP", RuleKind::Numerical, "m", TP},
    {"PP", RuleKind::Plain, "", PP},
    {"LP", RuleKind::Plain, "", PP},
    {"RS", RuleKind::Numerical, "m", RS},
    {"RE", RuleKind::Plain, "", RE},
    {"DT", RuleKind::Plain, "", DT},
    {"PD", RuleKind::Numerical, "v", PD},
};

template <size_t N>
void defineRules(const ManRule (&rules)[N]) {
    for (const ManRule& rule : rules) {
        if (rule.kind == RuleKind::Plain)
            TVDefineRule(rule.name, rule.handler);
        else
            TVDefineNumericalRule(rule.name, rule.handler, rule.units);
    }
}

// ---- Macros of today's manual pages (full mode) ----------------------------------

// Lines for the input after the macro, each ended by a newline.
void pushLines(const std::string& lines) { RopeCatString(returnText(), lines.c_str()); }

std::string argText(int k) { return s.argv[k]->text; }

// EX and EE: an example, unfilled, in Courier.
void EX() { pushLines(".nf\n.ft CR\n"); }
void EE() { pushLines(".ft R\n.fi\n"); }

// SY: a synopsis, its command in bold, the rest hanging beside it; YS ends it.
void SY() {
    std::string command = argText(1);
    float indent = 0.6f * kBodySize / 72.0f * static_cast<float>(command.size() + 1);
    if (indent < 0.5f) indent = 0.5f;
    s.prevailingIndent = indent;
    tv.TVPgf = s.exdentedPgf;
    tv.TVPgf.tabStops = tv.TVTabStops;
    hangingIndents(tv.TVPgf);
    newPgf();
    if (!command.empty()) pushLines("\\fB" + command + "\\fR\n");
}

void YS() { PP(); }

// OP: an option in brackets, its name bold and its argument italic.
void OP() {
    std::string text = "[\\fB" + argText(1) + "\\fR";
    if (!argText(2).empty()) text += " \\fI" + argText(2) + "\\fR";
    pushLines(text + "]\n");
}

// A word trap while a link is open: the text of the link has begun.
void linkTextTrap() {
    if (TVCursorX() > 0) s.linkHasText = true;
}

// UR and MT open a link; its text is the lines up to UE or ME, which add the
// address in angle brackets (or the address alone when there was no text).
void linkOpen() {
    s.linkAddress = argText(1);
    s.linkHasText = false;
    tv.TVReturn.wordTrap = linkTextTrap;
}

void linkClose() {
    std::string text = s.linkHasText ? "<" + s.linkAddress + ">" : s.linkAddress;
    pushLines("\\&" + text + argText(1) + "\n");
    s.linkAddress.clear();
}

// MR: a reference to another page, name(section) with the name in italics.
void MR() {
    pushLines("\\fI" + argText(1) + "\\fR(" + argText(2) + ")" + argText(3) + "\n");
}

// SB: small bold, two points smaller.
void SB() {
    B();
    tv.TVSize -= 2;
}

constexpr ManRule manFullRules[] = {
    {"EX", RuleKind::Plain, "", EX},
    {"EE", RuleKind::Plain, "", EE},
    {"SY", RuleKind::Plain, "", SY},
    {"YS", RuleKind::Plain, "", YS},
    {"OP", RuleKind::Plain, "", OP},
    {"UR", RuleKind::Plain, "", linkOpen},
    {"UE", RuleKind::Plain, "", linkClose},
    {"MT", RuleKind::Plain, "", linkOpen},
    {"ME", RuleKind::Plain, "", linkClose},
    {"MR", RuleKind::Plain, "", MR},
    {"TQ", RuleKind::Numerical, "m", TP},
    {"SB", RuleKind::Plain, "", SB},
    {"P", RuleKind::Plain, "", PP},
};

}  // namespace

void ManDefineFull() { defineRules(manFullRules); }

void ManDefine() {
    ArgValue* const args[9] = {&tv.TVArg1, &tv.TVArg2, &tv.TVArg3, &tv.TVArg4, &tv.TVArg5,
                               &tv.TVArg6, &tv.TVArg7, &tv.TVArg8, &tv.TVArg9};
    s.argv[0] = nullptr;
    for (int k = 1; k <= 9; k++) s.argv[k] = args[k - 1];

    defineRules(manRules);
    TVDefineString("R", "\\(rg");
    TVDefineString("S", "\\s12");
    th();
}

void manReset() { s = ManState{}; }
