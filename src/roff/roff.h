// The roff layer of the full mode: what the classic rules hand back as text,
// interpreted. Macro, string and register definitions, conditionals, includes,
// groff's escapes and long names, and UTF-8 input. The layer sits in front of
// the classic machinery: the main loop gives it every control line and the
// escape reader every escape it does not know, and whatever the layer does not
// take (package macros, the classic requests) goes on to the rule table as an
// ordinary line. The man, me and ms handlers never learn that the layer exists.
// Owns: the name table (strings and macros), the number registers, the stacks
// of conditionals and includes. Calls: the interpreter's reader and pushback,
// the rule table (to tell a package macro), the driver's warning prefix.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Registers the full mode's requests and sets its start-up state; called by
// the driver after the macro package, only when the mode is on.
void RoffDefine();

// The main loop has read the control character `controlChar` at the start of
// a line. The layer reads the line and deals with it itself, or puts the
// name and the arguments, interpolated and split as troff splits them, into
// TVArgs for the rule table to dispatch (a line inside a copy region is left
// unread, for the classic reader).
enum class RoffLine { Done, Dispatch, Classic };
RoffLine RoffControlLine(int controlChar);

// The escape reader has read the escape character and `letter`. True when the
// full mode handled the escape (its result pushed through TVReturn as the
// classic escapes do); false leaves the letter to the classic escapes.
bool RoffEscape(int letter, char lastOut);

// A byte of text at or above 128 (`c` as the reader gives it, negative): in
// the full mode a UTF-8 sequence is decoded and the character written in the
// output character set. Returns the byte to write (marking it for the Symbol
// font in TVReturn when it belongs there); -1 when nothing is to be written.
int RoffTextByte(int c);

// A macro package that reads its own macro lines (mdoc): the layer hands it
// every control line that is no string, macro or request of the layer, with
// the name and the arguments interpolated. It returns false for a name that
// is none of its macros (the line then goes on as any other).
using RoffPackageLine = bool (*)(std::string_view name, std::string_view rest);
void RoffSetPackageLine(RoffPackageLine handler);

// Defines the string `name` as `value`, taken as it is (as .ds takes a value
// without escapes to read in copy mode).
void roffDefineString(std::string_view name, std::string_view value);

// ---- For the preprocessor layer (src/preproc) -------------------------------

// Reads the rest of the current input line as the layer reads a control line:
// an escaped newline joins the next line, a comment ends it. False at the end
// of input with nothing read.
bool RoffReadLine(std::string& out);
// Whether `line` is a control line that calls `name` (".TE", ".  EN").
bool RoffIsCall(std::string_view line, std::string_view name);
// The width troff would estimate for `text` (0.6 em a character at the
// current size), its strings and registers interpolated first; basic units.
int64_t RoffTextWidth(std::string_view text);

// ---- Pieces with sharp edges, exposed for the unit tests ---------------------

// Evaluates a numeric expression at `p` (troff's left-to-right arithmetic with
// scaling units, `defaultUnit` for bare numbers), advancing `p` past it.
// Returns false when no expression starts there. Values are in basic units
// (300 to the inch).
bool roffExpression(const char*& p, const char* end, char defaultUnit, int64_t& value);
// Basic units in one `unit` ('i', 'c', 'p', 'P', 'm', 'n', 'v', 'u', ...), or 0
// for a letter that is no unit.
double roffUnitFactor(char unit);
// Evaluates the condition of if/ie/while at `p`, advancing past it.
bool roffCondition(const char*& p, const char* end);
// A register's value as troff formats it (af), after adding `step` times its
// increment (\n+ and \n-); an unknown register is 0.
std::string roffRegisterText(std::string_view name, int step = 0);
// A register's format as \g gives it (digits as zeros, "i", "A", ...); ""
// for an unknown register.
std::string roffRegisterFormat(std::string_view name);
// A register's value; false (and 0) for an unknown name.
bool roffRegisterValue(std::string_view name, int64_t& value);
void roffSetRegister(std::string_view name, int64_t value);
// Substitutes the call's arguments into a macro body: \$1..\$9, \$(nn,
// \$[n], \$*, \$@, \$0 and the count register .$.
std::string roffSubstituteArgs(std::string_view body, std::string_view name,
                               const std::string* args, size_t count);

// Puts the layer's state back as at program start (for convertInProcess).
void roffReset();
