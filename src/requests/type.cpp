// The requests for type size, vertical and line spacing (and the paragraph
// leading that follows from them), font selection and mounting, and tab stops,
// including stops measured by the width of a sample text.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include "driver/driver.h"
#include "requests/troff.h"
#include "requests/troffstate.h"

namespace {

// The width of one character: troff's em of 0.6 x the type size, in points.
constexpr double kCharWidthPerPoint = 0.6;
constexpr double kPointsPerInch = 72.0;

// Sets a point count from the first argument: a number sets it (relative ones
// add to it) and keeps the old one; no number swaps current and previous.
// The value arrives in inches and 72 x value is the point count. A v unit
// arrives unconverted and is taken as inches all the same; the clamp in
// pointsOf keeps even ".vs 1000v" within 0 .. kMaxPoints.
void pointsSetOrSwap(int32_t& current, int32_t& previous, double scale) {
    if (tv.TVArg1.isNumber) {
        previous = current;
        double x = scale * tv.TVArg1.value;
        if (tv.TVArg1.isRelative) x += current;
        current = pointsOf(x);
    } else {
        std::swap(current, previous);
    }
}

void selectPosition(unsigned position) {
    tv.TVLastFamilyStyle = tv.TVFamilyStyle;
    TVFontSetByPosition(position);
}

// Index (0 to 8) of the first position mounted under the name made of the first
// two characters of `name`, or -1.
int positionByName(const char* name) {
    char first = name[0];
    char second = first ? name[1] : '\0';
    for (int i = 0; i < kFontPositions; ++i) {
        const FontPosition& fp = tv.TVFontTable[i];
        if (fp.name[0] == first && fp.name[1] == second) return i;
    }
    return -1;
}

uint32_t tabTypeOf(const char* text) {
    size_t n = std::strlen(text);
    char last = n ? text[n - 1] : '\0';
    if (last == 'C') return kTSCenter;
    if (last == 'R') return kTSRight;
    return kTSLeft;
}

bool startsWith(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

}  // namespace

int32_t pointsOf(double x) {
    double n = std::trunc(x + 0.1);
    if (!(n > 0)) return 0;  // negative, or not a number at all
    if (n > kMaxPoints) return kMaxPoints;
    return static_cast<int32_t>(n);
}

bool widthExpressionScan(const char* text, int64_t& count) {
    const char* p = text;
    while (*p != '\'') {
        if (*p == '\0') {
            ++count;  // the blank between this argument and the next
            return false;
        }
        if (p[0] == '\\' && p[1] == 'f') {
            p += 2;
            if (*p != '\0') ++p;  // the font's name: counts nothing
            continue;
        }
        ++count;
        ++p;
    }
    ++p;                    // the closing quote
    if (*p != '\0') ++p;    // the unit letter
    if (*p == '+') {
        ++p;
        // A decimal integer with an optional sign, read as far as its digits
        // go; the sum is kept far from overflow.
        bool negative = false;
        if (*p == '+' || *p == '-') negative = *p++ == '-';
        int64_t n = 0;
        while (*p >= '0' && *p <= '9') {
            if (n < 1000000000) n = n * 10 + (*p - '0');
            ++p;
        }
        count += negative ? -n : n;
    }
    return true;
}

// ---- Sizes and spacing -------------------------------------------------------------
// Negative results (".ps -20" at size 10) become 0 and results past kMaxPoints
// stop there: the counts are points and a wrap-around would be nonsense.

// The leading is not recomputed here: a size change inside a paragraph does
// not change its format.
void TVps() { pointsSetOrSwap(tv.TVSize, tv.TVLastSize, kPointsPerInch); }

void TVvs() {
    pointsSetOrSwap(tv.TVVerticalSpacing, troffState.lastVs, kPointsPerInch);
    TVLeadingSet(tv.TVPgf);
    tv.TVReturn.newPgf = true;
}

// The default unit is v, so a bare number arrives as a plain count.
void TVls() {
    pointsSetOrSwap(tv.TVLineSpacing, troffState.lastLs, 1.0);
    TVLeadingSet(tv.TVPgf);
    tv.TVReturn.newPgf = true;
}

void TVLeadingSet(Pgf& format) {
    int64_t vs = tv.TVVerticalSpacing;
    int64_t leading = vs - tv.TVSize + (static_cast<int64_t>(tv.TVLineSpacing) - 1) * vs;
    format.mask |= bit(PgfBit::PgfLeading);
    format.PgfLeading.value = static_cast<float>(leading);
    format.PgfLeading.unit = kUnitPoint;
}

// ---- Fonts ------------------------------------------------------------------------------

// R, I, B and S select positions 1 to 4 whatever is mounted there. A position
// with nothing mounted is still selected; the character format then keeps the
// current family. A name that matches nothing changes nothing.
void TVft() {
    const char* name = tv.TVArg1.text;
    if (name[0] == '\0' || std::strcmp(name, "P") == 0) {
        std::swap(tv.TVFamilyStyle, tv.TVLastFamilyStyle);
        return;
    }
    int position = TVFontPositionOf(name);
    if (position >= 0) selectPosition(static_cast<unsigned>(position));
}

int TVFontPositionOf(const char* name) {
    int position = -1;
    if (name[0] != '\0' && name[1] == '\0') position = TVFontPositionOfLetter(name[0]);
    if (position < 0) position = positionByName(name);
    return position;
}

// The family name is copied into storage of this module and kept to the end
// of the run: the old name may still be in use by a character format.
void TVfp() {
    char digit = tv.TVArg1.text[0];
    const char* name = tv.TVArg2.text;
    if (digit < '1' || digit > '9' || name[0] == '\0') return;
    FontPosition& fp = tv.TVFontTable[digit - '1'];
    fp.name[0] = name[0];
    fp.name[1] = name[1];
    if (tv.TVArg3.text[0] != '\0') {
        troffState.families.emplace_back(tv.TVArg3.text);
        fp.family = troffState.families.back().c_str();
        char style = tv.TVArg4.text[0];
        fp.style = (style == 'I' || style == 'B' || style == 'M') ? style : 'R';
    }
}

// ---- Tab stops --------------------------------------------------------------------------

// Up to nine stops from the arguments: numbers (relative ones measured from
// the previous stop), width expressions "\w'...'u" and "+\w'...'u" whose sample
// text the control line may have split at blanks, each with an optional type
// letter R or C at its end. An empty argument ends the list and the last stop
// is repeated to fill all nine.
void TVta() {
    const ArgValue* const* args = troffState.argv;
    if (args[1]->text[0] == '\0') return;

    TabStop* stops = tv.TVTabStops;
    int n = 0;                  // stops set so far
    bool isOpen = false;        // a width expression runs on into the next argument
    bool isOpenRelative = false;
    int64_t count = 0;

    auto setStop = [&](float value, bool isRelative, const char* text) {
        TabStop& stop = stops[n];
        stop.TSX.value = (isRelative && n > 0) ? stops[n - 1].TSX.value + value : value;
        stop.TSType = tabTypeOf(text);
        stop.mask |= bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
        ++n;
    };
    auto widthOf = [](int64_t characters) {
        return static_cast<float>(characters * tv.TVSize * kCharWidthPerPoint / kPointsPerInch);
    };

    for (int k = 1; k <= 9 && n < kTabStopCount; ++k) {
        const ArgValue& a = *args[k];
        const char* text = a.text;
        if (isOpen) {
            // An empty argument (a quoted "") inside the sample text stands
            // between two blanks of it and is counted as one, like any other
            // argument that ends before the closing quote.
            if (widthExpressionScan(text, count)) {
                isOpen = false;
                setStop(widthOf(count), isOpenRelative, text);
            }
            continue;
        }
        if (text[0] == '\0') {
            // The list ends: the last stop fills the rest so that there are
            // always nine; with no stop set the old list stays.
            for (int i = n; n > 0 && i < kTabStopCount; ++i) {
                stops[i].TSX = stops[n - 1].TSX;
                stops[i].TSType = stops[n - 1].TSType;
                stops[i].mask |= bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
            }
            break;
        }
        if (a.isNumber) {
            setStop(a.value, a.isRelative, text);
        } else if (startsWith(text, "\\w'") || startsWith(text, "+\\w'")) {
            isOpenRelative = text[0] == '+';
            count = 0;
            const char* sample = std::strchr(text, '\'') + 1;
            if (widthExpressionScan(sample, count)) {
                setStop(widthOf(count), isOpenRelative, text);
            } else {
                isOpen = true;
            }
        } else {
            TVWarningPre();
            std::fputs("Dropping tab stop because can't handle expression.\n", stderr);
        }
    }
    tv.TVPgf.mask |= bit(PgfBit::tabStops);
    tv.TVReturn.newPgf = true;
}
