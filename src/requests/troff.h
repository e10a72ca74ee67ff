// The troff requests: filling, adjustment and indentation; type size,
// spacing, fonts and tab stops; definitions, control characters, conditional
// input, preprocessor regions and index entries; and TVDefineTroff, which
// installs the interpreter's troff defaults and registers every request.
// Owns: the requests' own state (adjustment, page offset, line length, previous
// values, the family names mounted by fp). Calls: the rule table, the
// interpreter state and its string and marker routines.
#pragma once

#include "writer/model.h"

void TVDefineTroff();
// The font position (0 to 8) that ft selects for `name`: R, I, B, S, a digit,
// or the first two characters of a mounted name; -1 for none.
int TVFontPositionOf(const char* name);
// The position a one-character name has whatever is mounted: R, I, B and S
// the first four, a digit its own; -1 for any other character.
inline int TVFontPositionOfLetter(char c) {
    switch (c) {
        case 'R': return 0;
        case 'I': return 1;
        case 'B': return 2;
        case 'S': return 3;
        default: return c >= '1' && c <= '9' ? c - '1' : -1;
    }
}
// PgfLeading of `format` becomes vertical spacing - size + (line spacing - 1)
// x vertical spacing, in points.
void TVLeadingSet(Pgf& format);

// Puts the requests' state back as at program start (for convertInProcess).
void troffReset();
