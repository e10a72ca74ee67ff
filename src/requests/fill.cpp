// The requests that shape paragraphs: breaks, fill and no-fill mode,
// adjustment, centring, underlining, hyphenation, page offset, line length,
// indents, temporary indents and page breaks. None of them writes output; each
// changes the paragraph format, the document or a flag and reports through
// tv.TVReturn.
#include <cmath>
#include <utility>

#include "requests/troff.h"
#include "requests/troffstate.h"

namespace {

// Paper width in inches: the right margin is what the page offset and the
// line length leave of it.
constexpr float kPaperWidth = 8.5f;

void markPgf(uint32_t property) { tv.TVPgf.mask |= bit(property); }

bool hasArgument() { return tv.TVArg1.text[0] != '\0'; }

// Puts the adjustment mode into the paragraph format. In no-fill mode nothing
// happens: the mode is applied when fill mode returns.
void adSet() {
    if (!tv.TVIsFilling) return;
    markPgf(PgfBit::PgfAlignment);
    switch (troffState.ad) {
        case 'b':
        case 'n': tv.TVPgf.PgfAlignment = kAlignLeftRight; break;
        case 'c': tv.TVPgf.PgfAlignment = kAlignCenter; break;
        case 'l': tv.TVPgf.PgfAlignment = kAlignLeft; break;
        case 'r': tv.TVPgf.PgfAlignment = kAlignRight; break;
        default: break;  // an unknown mode keeps the alignment, but still counts as set
    }
    tv.TVReturn.newPgf = true;
}

// Ends centring: the fill mode of before comes back with its adjustment.
void ceTrap() {
    tv.TVIsFilling = troffState.ceIsFilling;
    if (tv.TVIsFilling) {
        adSet();
    } else {
        TVnf();
    }
    tv.TVReturn.newPgf = true;
}

void ulTrap() { tv.TVIsUnderline = false; }

// The first-line indent returns to the left indent of when "ti" ran. The
// paragraph opened next picks it up; no new paragraph is asked for here.
void tiTrap() {
    tv.TVPgf.PgfFIndent = troffState.tiLIndent;
    markPgf(PgfBit::PgfFIndent);
}

// Only the paragraph that begins next starts at the top of a column.
void bpTrap() {
    tv.TVPgf.PgfColumnTop = kNo;
    markPgf(PgfBit::PgfColumnTop);
}

// The count of "ce", "ul" and "cu": 1 without an argument.
uint32_t countArgument() { return hasArgument() ? lineCountOf(tv.TVArg1.value) : 1; }

// A number sets the value (relative ones add to it) and keeps the old one;
// anything else swaps the current and the previous value.
void setOrSwap(float& current, float& previous) {
    if (tv.TVArg1.isNumber) {
        previous = current;
        current = tv.TVArg1.isRelative ? current + tv.TVArg1.value : tv.TVArg1.value;
    } else {
        std::swap(current, previous);
    }
}

void rightMarginSet() {
    tv.TVDocument.DMargins[2].value = kPaperWidth - (troffState.po + troffState.ll);
    tv.TVDocument.DMargins[2].unit = kUnitInch;
}

}  // namespace

uint32_t lineCountOf(float value) {
    double n = std::trunc(static_cast<double>(value) + 0.1);
    if (!(n > 0)) return 0;  // negative, zero, or not a number at all
    if (n >= 4294967295.0) return 4294967295u;
    return static_cast<uint32_t>(n);
}

// ---- Breaks and fill mode ------------------------------------------------------

// A carriage return in pushed-back text is a break.
void TVbr() {
    if (!tv.TVIsNoBreak) RopeAppend(tv.TVReturn.text.get(), static_cast<char>(kHardReturn));
}

void TVfi() {
    tv.TVIsFilling = true;
    adSet();
    tv.TVReturn.newPgf = true;
}

// No-fill lines are set flush left. The alignment is written without marking
// it, so a format that never set an alignment does not gain one here.
void TVnf() {
    tv.TVPgf.PgfAlignment = kAlignLeft;
    tv.TVIsFilling = false;
    tv.TVReturn.newPgf = true;
}

// ---- Adjustment ------------------------------------------------------------------

void TVad() {
    if (hasArgument()) {
        troffState.lastAd = troffState.ad;
        troffState.ad = tv.TVArg1.text[0];
    } else {
        std::swap(troffState.ad, troffState.lastAd);
    }
    adSet();
}

// The mode itself is kept, so that a later "fi" or "ad" brings it back.
void TVna() {
    if (!tv.TVIsFilling) return;
    tv.TVPgf.PgfAlignment = kAlignLeft;
    markPgf(PgfBit::PgfAlignment);
    tv.TVReturn.newPgf = true;
}

// ---- Centring and underlining ------------------------------------------------------

// A negative count (".ce -3") centres nothing: it acts as ".ce 0".
void TVce() {
    uint32_t n = countArgument();
    tv.TVReturn.lineCount = n;
    troffState.ceIsFilling = tv.TVIsFilling;
    if (n == 0) {
        ceTrap();
    } else {
        tv.TVPgf.PgfAlignment = kAlignCenter;
        markPgf(PgfBit::PgfAlignment);
        tv.TVIsFilling = false;
        tv.TVReturn.newPgf = true;
    }
    tv.TVReturn.lineTrap = ceTrap;
}

// "ul" and "cu" alike. The rule is a plain one, so a bare number arrives as
// its value with isNumber clear. A negative count clears underlining as 0 does.
void TVul() {
    uint32_t n = countArgument();
    tv.TVReturn.lineCount = n;
    if (n != 0) {
        tv.TVReturn.lineTrap = ulTrap;
        tv.TVIsUnderline = true;
    } else {
        tv.TVIsUnderline = false;
    }
}

// ---- Hyphenation --------------------------------------------------------------------

void TVhy() {
    tv.TVPgf.PgfHyphenate = tv.TVArg1.text[0] == '0' ? kNo : kYes;
    markPgf(PgfBit::PgfHyphenate);
    tv.TVReturn.newPgf = true;
}

void TVnh() {
    tv.TVPgf.PgfHyphenate = kNo;
    markPgf(PgfBit::PgfHyphenate);
    tv.TVReturn.newPgf = true;
}

void TVhc() { tv.TVHyphenationChar = tv.TVArg1.text[0]; }

// ---- Page offset and line length ------------------------------------------------------
// Both belong to the document, written once at the end, so neither asks for a
// new paragraph.

void TVpo() {
    setOrSwap(troffState.po, troffState.lastPo);
    tv.TVDocument.DMargins[0].value = troffState.po;
    tv.TVDocument.DMargins[0].unit = kUnitInch;
    rightMarginSet();
}

void TVll() {
    setOrSwap(troffState.ll, troffState.lastLl);
    rightMarginSet();
}

// ---- Indents ------------------------------------------------------------------------------

void TVin() {
    Pgf& p = tv.TVPgf;
    setOrSwap(p.PgfLIndent.value, troffState.lastIn);
    p.PgfLIndent.unit = kUnitInch;
    markPgf(PgfBit::PgfLIndent);
    markPgf(PgfBit::PgfFIndent);
    p.PgfFIndent = p.PgfLIndent;
    tv.TVReturn.newPgf = true;
}

// A relative temporary indent counts from the first-line indent, which equals
// the left indent unless an earlier "ti" is still pending.
void TVti() {
    if (!tv.TVArg1.isNumber) return;
    Pgf& p = tv.TVPgf;
    p.PgfFIndent.value = tv.TVArg1.isRelative ? p.PgfFIndent.value + tv.TVArg1.value : tv.TVArg1.value;
    p.PgfFIndent.unit = kUnitInch;
    markPgf(PgfBit::PgfFIndent);
    troffState.tiLIndent = p.PgfLIndent;
    tv.TVReturn.lineCount = 1;
    tv.TVReturn.lineTrap = tiTrap;
    tv.TVReturn.newPgf = true;
}

// ---- Page break ----------------------------------------------------------------------------

void TVbp() {
    tv.TVPgf.PgfColumnTop = kYes;
    markPgf(PgfBit::PgfColumnTop);
    tv.TVReturn.newPgf = true;
    tv.TVReturn.lineCount = 1;
    tv.TVReturn.lineTrap = bpTrap;
}
