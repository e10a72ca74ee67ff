// The definition, control and preprocessor requests (strings, macros, the
// control and escape characters, conditional input, the regions of tables,
// equations, references and pictures, index entries) and TVDefineTroff, which
// installs the troff defaults and registers every troff request.
#include <cstring>

#include "requests/rb.h"
#include "requests/troff.h"
#include "requests/troffstate.h"

TroffState troffState;

namespace {

bool isPresent(const ArgValue& a) { return a.text[0] != '\0'; }

// ---- Definitions ----------------------------------------------------------------

// Only the second argument is the value: a value with blanks must be quoted.
void TVds() {
    if (isPresent(tv.TVArg1)) TVDefineString(tv.TVArg1.text, tv.TVArg2.text);
}

// Macros are not defined: the body is copied as text up to the ".." line.
void TVde() { tv.TVReturn.endCommand = "."; }

// ".." ends a macro body; anywhere else the line is dropped without a trace.
void TVPeriod() {}

// ---- Control and escape characters ------------------------------------------------

void TVcc() { tv.TVControlChar = isPresent(tv.TVArg1) ? tv.TVArg1.text[0] : '.'; }
void TVc2() { tv.TVNoBreakControlChar = isPresent(tv.TVArg1) ? tv.TVArg1.text[0] : '\''; }
void TVec() { tv.TVEscapeChar = isPresent(tv.TVArg1) ? tv.TVArg1.text[0] : '\\'; }
void TVeo() { tv.TVEscapeChar = '\0'; }  // NUL turns escapes off

// ---- Conditional input ----------------------------------------------------------------
// Only nroff ("n") is false and only troff ("t") is true. Any other condition
// comes back with the rest of the line, so the reader sees what was not
// understood.
void TVif() {
    const char* condition = tv.TVArg1.text;
    if (std::strcmp(condition, "n") == 0) return;
    returnArgs(std::strcmp(condition, "t") == 0 ? 2 : 1);
}

// ---- Preprocessor regions ------------------------------------------------------------
// Each opening request names the request that ends its region; the main loop
// copies the lines in between as text. The ending requests have nothing left
// to do.

void TS() { tv.TVReturn.endCommand = "TE"; }
void TE() {}
void EQ() { tv.TVReturn.endCommand = "EN"; }
void EN() {}
void leftBrack() { tv.TVReturn.endCommand = "]"; }
void rightBrack() {}

// A picture with a size is copied as a region. Without one the line comes
// back as visible text, set off by a break, and the picture's lines are read
// as ordinary input.
void picStart() {
    if (tv.TVArg1.isNumber) {
        tv.TVReturn.endCommand = "PE";
        return;
    }
    Rope* text = tv.TVReturn.text.get();
    RopeCatString(text, "\\&.");
    RopeCatString(text, tv.TVCommand ? tv.TVCommand : "");
    RopeAppend(text, ' ');
    RopeCatString(text, tv.TVArg1.text);
    RopeAppend(text, static_cast<char>(kHardReturn));
}

void PE() {}

// ---- Index entries -----------------------------------------------------------------------

// An index marker: "term" or "term:subterm"; the fifth and sixth arguments
// choose a page range, a major entry or a cross reference.
void IX() {
    constexpr uint32_t kMarkerInitialSize = 80;
    Rope built;
    RopeInit(&built, kMarkerInitialSize, 0);
    RopeCatString(&built, tv.TVArg1.text);
    if (isPresent(tv.TVArg2)) {
        RopeAppend(&built, ':');
        RopeCatString(&built, tv.TVArg2.text);
    }

    Marker m;
    m.MStyle = kMStylePlain;
    m.FBold = kNo;
    const char* kind = tv.TVArg5.text;
    const char* detail = tv.TVArg6.text;
    if (std::strcmp(kind, "PAGE") == 0) {
        if (std::strcmp(detail, "START") == 0) {
            m.MStyle = kMStyleStart;
        } else if (std::strcmp(detail, "END") == 0) {
            m.MStyle = kMStyleEnd;
        } else if (std::strcmp(detail, "MAJOR") == 0) {
            m.FBold = kYes;
        }
    } else if (std::strcmp(kind, "PRINT") == 0) {
        m.MStyle = kMStyleNone;
        if (isPresent(tv.TVArg6)) {
            RopeCatString(&built, ", see ");
            RopeCatString(&built, detail);
        }
    }

    m.mask = bit(MarkerBit::MType) | bit(MarkerBit::MText) | bit(MarkerBit::MStyle) |
             bit(MarkerBit::FBold);
    m.MType = 2;
    m.MText = built.length ? RopeText(&built) : nullptr;
    TVMarkerOut(m);  // queues its own copy of the text; `built` frees its buffer on return
}

}  // namespace

// ---- Start-up ------------------------------------------------------------------------------

void TVDefineTroff() {
    TroffState& s = troffState;

    // Tab positions are relative to the paragraph's left indent.
    tv.TVDocument.DRelativeTabs = kYes;
    tv.TVDocument.mask |= bit(DocumentBit::DRelativeTabs);

    for (int k = 0; k < kTabStopCount; ++k) {
        TabStop& stop = tv.TVTabStops[k];
        stop.TSX.value = 0.5f * static_cast<float>(k + 1);
        stop.TSX.unit = kUnitInch;
        stop.TSType = kTSLeft;
        stop.mask |= bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
    }

    tv.TVPgf.mask |= bit(PgfBit::tabStops);
    tv.TVPgf.tabStops = s.pgfTabStops;
    tv.TVPgf.PgfNumTabs = kTabStopCount;

    tv.TVSize = 10;
    tv.TVLastSize = 10;

    tv.TVFamilyStyle.FFamily = "Times";
    tv.TVFamilyStyle.mask |= bit(FontBit::FFamily);
    tv.TVLastFamilyStyle = tv.TVFamilyStyle;
    tv.TVFamilyStyle.FPlain = kYes;
    tv.TVFamilyStyle.mask |= bit(FontBit::FPlain);

    struct Mount {
        const char* family;
        char style;
        char name[2];
    };
    static constexpr Mount kMounts[kFontPositions] = {
        {"Times", 'R', {'R', 0}},  {"Times", 'I', {'I', 0}}, {"Times", 'B', {'B', 0}},
        {"Symbol", 'S', {'S', 0}}, {"Times", 'M', {'B', 'I'}}, {"Courier", 'P', {'L', 0}},
        {nullptr, 0, {0, 0}},      {nullptr, 0, {0, 0}},      {nullptr, 0, {0, 0}},
    };
    for (int i = 0; i < kFontPositions; ++i) {
        tv.TVFontTable[i].family = kMounts[i].family;
        tv.TVFontTable[i].style = kMounts[i].style;
        tv.TVFontTable[i].name[0] = kMounts[i].name[0];
        tv.TVFontTable[i].name[1] = kMounts[i].name[1];
    }

    Pgf& p = tv.TVPgf;
    p.PgfAlignment = kAlignLeftRight;
    p.mask |= bit(PgfBit::PgfAlignment);
    tv.TVLineSpacing = 1;
    tv.TVVerticalSpacing = 12;
    tv.TVIsFilling = true;
    TVLeadingSet(p);
    p.PgfTag = "troff";
    p.PgfColumnTop = kNo;
    p.PgfBlockSize = 2;
    p.mask |= bit(PgfBit::PgfTag) | bit(PgfBit::PgfColumnTop) | bit(PgfBit::PgfBlockSize);
    tv.TVReturn.newPgf = true;

    // The bare "ll" and "po" swap in the line length and page offset held as
    // previous values, and compute the left and right margins from them.
    tv.TVArg1.isNumber = false;
    tv.TVDocument.mask |= bit(DocumentBit::DMargins);
    tv.TVDocument.DMargins[1] = Dimension{0, kUnitInch};
    tv.TVDocument.DMargins[3] = Dimension{0, kUnitInch};
    TVll();
    TVpo();

    tv.TVControlChar = '.';
    tv.TVNoBreakControlChar = '\'';
    tv.TVHyphenationChar = '\0';
    tv.TVEscapeChar = '\\';

    TVDefineRule("br", TVbr);
    TVDefineRule("ad", TVad);
    TVDefineRule("na", TVna);
    TVDefineRule("nf", TVnf);
    TVDefineRule("fi", TVfi);
    TVDefineRule("nh", TVnh);
    TVDefineRule("hy", TVhy);
    TVDefineRule("hc", TVhc);
    TVDefineNumericalRule("ce", TVce, "v");
    TVDefineRule("ul", TVul);
    TVDefineRule("cu", TVul);
    TVDefineNumericalRule("po", TVpo, "m");
    TVDefineNumericalRule("ll", TVll, "m");
    TVDefineNumericalRule("in", TVin, "m");
    TVDefineNumericalRule("ti", TVti, "m");
    TVDefineRule("bp", TVbp);
    TVDefineNumericalRule("ps", TVps, "p");
    TVDefineNumericalRule("vs", TVvs, "p");
    TVDefineNumericalRule("ls", TVls, "v");
    TVDefineRule("ft", TVft);
    TVDefineRule("fp", TVfp);
    TVDefineSemiNumericalRule("ta", TVta, "mmmmmmmmm");
    TVDefineRule("ds", TVds);
    TVDefineRule("de", TVde);
    TVDefineRule(".", TVPeriod);
    TVDefineRule("cc", TVcc);
    TVDefineRule("c2", TVc2);
    TVDefineRule("ec", TVec);
    TVDefineRule("eo", TVeo);
    TVDefineRule("if", TVif);
    TVDefineNumericalRule("PS", picStart, "i");
    TVDefineRule("PE", PE);
    TVDefineRule("TS", TS);
    TVDefineRule("TE", TE);
    TVDefineRule("EQ", EQ);
    TVDefineRule("EN", EN);
    TVDefineRule("[", leftBrack);
    TVDefineRule("]", rightBrack);
    TVDefineRule("IX", IX);

    const ArgValue* positions[10] = {nullptr,    &tv.TVArg1, &tv.TVArg2, &tv.TVArg3, &tv.TVArg4,
                                     &tv.TVArg5, &tv.TVArg6, &tv.TVArg7, &tv.TVArg8, &tv.TVArg9};
    std::memcpy(s.argv, positions, sizeof positions);
}

void troffReset() { troffState = TroffState{}; }
