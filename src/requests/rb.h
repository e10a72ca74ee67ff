// The rule table: every troff request and package macro is a rule, a handler
// under a one- or two-character name with the default unit of each argument.
// TVFire decodes a control line's arguments by its rule and calls the handler,
// or hands the line back to the input as visible text.
// Owns: the rule table. Calls: the interpreter state (TVArgs, TVArg1..9,
// TVReturn) and the driver's warning prefix.
#pragma once

#include "interp/interp.h"

using Handler = void (*)();

struct Rule {
    Handler handler = nullptr;   // null: the name has no rule
    const char* units = "";      // default unit of argument k at position k-1
    bool isSemiNumerical = false;
};

void TVDefineRule(const char* name, Handler handler);
// True when a rule of that one- or two-character name exists.
bool TVHasRule(const char* name);
// The default units of the rule's arguments ("" for none), or null when the
// name has no rule.
const char* TVRuleUnits(const char* name);
void TVDefineNumericalRule(const char* name, Handler handler, const char* units);
void TVDefineSemiNumericalRule(const char* name, Handler handler, const char* units);

// Dispatches the control line held in TVArgs; lastOut is the main loop's lastOutC.
void TVFire(char lastOut);
// Hands arguments `first` to 9 back to the input as one line.
void returnArgs(int first);

// Decodes one argument (exposed for the unit tests); true when accepted.
bool argSet(ArgValue& value, const Rope* rope, char defaultUnit, bool isSemiNumerical);

// Empties the rule table (for convertInProcess).
void rbReset();
