// State and handlers shared by the three files of the troff requests
// (fill.cpp, type.cpp, define.cpp). Private to the requests module: only these
// files include it, plus the unit tests of the helpers with sharp edges.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "interp/interp.h"
#include "writer/model.h"

// Everything the troff requests remember between two requests. troffReset()
// puts it back as at program start; TVDefineTroff then installs the defaults.
struct TroffState {
    // Adjustment: the mode in force and the one before it, swapped by a bare "ad".
    char ad = 'b';
    char lastAd = 'b';
    bool ceIsFilling = false;  // fill mode in force when centring began

    // Page offset and line length in inches. Both start at 0 and the previous
    // values hold the real defaults, so that the bare "po" and "ll" run at
    // start-up swap them in.
    float po = 0;
    float ll = 0;
    float lastPo = 26.0f / 27.0f;
    float lastLl = 6.5f;
    float lastIn = 0;
    Dimension tiLIndent;  // the left indent a temporary indent returns to

    int32_t lastVs = 12;  // points
    int32_t lastLs = 1;

    // The nine empty tab stops the paragraph format refers to until the main
    // loop gives each paragraph its shifted copy of the current stops.
    TabStop pgfTabStops[kTabStopCount];

    // Family names mounted by "fp". A deque never moves its elements, so the
    // font table can point into it; nothing is released before the run ends.
    std::deque<std::string> families;

    // Arguments by position: entries 1 to 9 are tv.TVArg1 to tv.TVArg9.
    const ArgValue* argv[10] = {};
};
extern TroffState troffState;

// ---- Helpers with sharp edges (exposed for the unit tests) ------------------

// A line count from a request argument: the value plus 0.1, truncated toward
// zero. A negative count means no line at all, so it becomes 0 rather than
// wrapping round to four thousand million lines; huge values stop at the
// largest count.
uint32_t lineCountOf(float value);

// A whole number of points (or a line-spacing count): x + 0.1 truncated toward
// zero, kept within 0 .. kMaxPoints so that a negative or absurd result
// (".ps -20", ".vs 3v" taken as inches) can never wrap or overflow.
inline constexpr int32_t kMaxPoints = 10000;
int32_t pointsOf(double x);

// Scans the sample text of a width expression ("\w'...'") from `text`, which
// is either the character after the opening quote or the start of an argument
// that continues an open expression, and adds to `count` the characters that
// would be set. "\f" and the one character after it (a font change) count
// nothing. At the closing quote, the unit letter after it is passed over and a
// "+N" that follows adds N; the result is true. When the argument ends first,
// one is counted for the blank that split the control line there and the
// result is false: the count goes on in the next argument.
bool widthExpressionScan(const char* text, int64_t& count);

// ---- Handlers, registered by TVDefineTroff ------------------------------------
void TVbr();
void TVfi();
void TVnf();
void TVad();
void TVna();
void TVce();
void TVul();
void TVhy();
void TVnh();
void TVhc();
void TVpo();
void TVll();
void TVin();
void TVti();
void TVbp();

void TVps();
void TVvs();
void TVls();
void TVft();
void TVfp();
void TVta();
