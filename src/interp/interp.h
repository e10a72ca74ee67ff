// The interpreter core: the main loop over input characters with its
// pushback, paragraph opening, anchored frames and copy regions; the input
// reader and escape sequences; traps, markers and string registers; and the
// interpreter state shared with the request and macro handlers.
// Owns: `tv` (every TV-prefixed global), the pushback, traps, markers, string
// registers and the special-character table. Calls: the rule dispatcher
// (TVFire), the writer's text flow, the driver's fatal routines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "tools/rope.h"
#include "writer/model.h"

// Internal character codes carried by the character stream besides text.
enum : int {
    kLiteralBackslash = 1,  // written as a backslash
    kZeroWidth = 2,         // writes no character
    kLiteralNext = 3,       // in pushed-back text only: the next byte is text, never
                            // an escape or control character (see pushLiteralEscape)
    kUnpaddableSpace = 4,
    kHyphenAtWordStart = 5,
    kHyphenInWord = 6,
    kAction = 7,            // in pushed-back text only: the next byte names an action
                            // of the macro package, run there (see TVPushAction)
    kTab = 9,
    kNewline = 10,
    kHardReturn = 13,
};
inline constexpr char kEnDash = static_cast<char>(208);

// A decoded argument of the current control line.
struct ArgValue {
    const char* text = "";  // the argument's text, or "" when absent
    bool isNumber = false;
    bool isRelative = false;
    float value = 0;        // inches; a count of vertical spaces when isVUnit
    bool isVUnit = false;
};

// What a handler hands back to the main loop.
struct TVReturnRecord {
    std::unique_ptr<Rope> text;      // pushed in front of the unread input
    void (*lineTrap)() = nullptr;    // called when lineCount text lines have ended
    void (*wordTrap)() = nullptr;    // called at every blank, tab, newline of the line
    uint32_t lineCount = 0;
    bool suppressSpace = false;      // the word trap swallows the blank that fired it
    bool newPgf = false;             // the next text opens a new paragraph
    bool isSymbol = false;           // the character just pushed is a Symbol character
    const char* endCommand = nullptr;  // request that ends the copy region; kept across calls
};

// A troff font position.
struct FontPosition {
    const char* family = nullptr;  // null at an unmounted position
    char style = 0;                // 'R', 'I', 'B', 'M', 'S' or 'P'
    char name[2] = {0, 0};         // a one-letter name has a zero second byte
};

struct Cursor {
    float x = 0;  // advance so far on the output line, inches
    float y = 0;  // largest character height on the line, inches
};

inline constexpr int kArgRopes = 11;     // [0] name, [1..9] arguments, [10] overflow/scratch
inline constexpr int kTabStopCount = 9;
inline constexpr int kFontPositions = 9;

// The interpreter's shared state: every global the handlers and the main loop
// talk through. Values are those of program start; TVDefineTroff installs the
// troff defaults.
struct TVState {
    Pgf TVPgf;
    bool TVIsFilling = true;
    char TVControlChar = '.';
    char TVNoBreakControlChar = '\'';
    char TVEscapeChar = '\\';   // 0 turns escapes off
    char TVHyphenationChar = 0; // 0: none
    Font TVFamilyStyle;         // its FSize is not used: the size is TVSize
    Font TVLastFamilyStyle;
    int32_t TVSize = 10;        // points
    int32_t TVLastSize = 10;
    Cursor TVCursor;            // x lags behind the text: read it with TVCursorX
    TabStop TVTabStops[kTabStopCount];
    int32_t TVLineSpacing = 1;
    int32_t TVVerticalSpacing = 12;  // points
    bool TVIsUnderline = false;
    bool TVIsNoBreak = false;
    const char* TVCommand = nullptr;  // name of the request dispatched last
    Page TVPage;
    Document TVDocument;
    FontPosition TVFontTable[kFontPositions];
    std::unique_ptr<Rope> TVArgs[kArgRopes];
    // How many of TVArgs, from the first, may hold characters: what fills
    // them says so, and TVArgsEmpty empties those alone.
    int TVArgsUsed = kArgRopes;
    TVReturnRecord TVReturn;
    ArgValue TVArg1, TVArg2, TVArg3, TVArg4, TVArg5, TVArg6, TVArg7, TVArg8, TVArg9;
    // The full mode's tr: what each byte of text is written as; null when
    // nothing is translated. The count goes up at every change of the table.
    const unsigned char* TVTranslation = nullptr;
    uint32_t TVTranslationChanges = 0;
    // The full mode's macro package that acts at points of its own text (a
    // list item's tag ends, a display closes): called with the action's byte
    // when the main loop reaches it. Null: no package acts.
    void (*TVAction)(int action) = nullptr;
    // The full mode's in-line equation delimiter (eqn's delim), as the reader
    // gives the character; 256, which no character is, when none is set.
    int TVEqnDelimiter = 256;
};
extern TVState tv;

// Creates the argument ropes and the TVReturn rope (driver start-up steps 6, 7).
void TVCreateRopes();

// ---- Main loop (mainloop.cpp) ------------------------------------------------
void doIt();
void fire();
void pgfOpen();
void aFrameNewF();
void TVPgfOut(const Pgf& format);
void TVsp();
void TVns();
void TVrs();
// Appends to TVReturn.text the action `action` (1..255) of the package's
// TVAction, run when the main loop reaches that point of the text.
void TVPushAction(int action);
// Empties TVReturn (all but endCommand) and the argument ropes.
void TVReturnReset();
void TVArgsEmpty();

// The one character reader: pushed-back text first, then the input file.
int TVGetc();
// The cursor's advance on the output line so far, in inches.
float TVCursorX();
// Appends to `out` the characters TVGetc would give up to the first whose
// byte is marked in `stop` (256 entries), which is left unread, the end of
// input, or `limit` characters. The same reads, done in one go. `stop` must
// mark the byte 255, which TVGetc gives as the end of input.
void TVReadUntil(std::string& out, const bool* stop, size_t limit = SIZE_MAX);
// The rest of the input line, its newline included, when it lies whole in the
// input's buffer and nothing is pushed back; else empty. TVTakeBuffered(n)
// then takes its first n bytes as TVGetc would have read them.
std::string_view TVBufferedLine();
void TVTakeBuffered(size_t n);
// The same for the pushback (a macro's body being read): the rest of the
// pushed line, when its newline is pushed too, copied to `out` in reading
// order with its newline; false, `out` untouched, otherwise.
// TVTakePushedLine(n) then takes its first n bytes and the newline.
bool TVPushedLine(std::string& out);
void TVTakePushedLine(size_t n);
// Puts `text` in front of the unread input at once, within the expansion
// budget that every pushed character counts against.
void TVUnread(const char* text, size_t length);
// After an escaped newline: the next input line goes on the line it ends, so
// its first character is text, never the start of a control line.
void TVContinueLine();

// ---- Input files of the full mode (mainloop.cpp) ----------------------------
// Reading goes on in `file` (an include) until its end, then in the file that
// included it; the reader closes it. `folder` is where its own includes are
// looked for.
void TVIncludeFile(FILE* file, const std::string& folder);
size_t TVIncludeDepth();
// The folder of the file being read: the document's, or an include's.
const std::string& TVCurrentFolder();
void TVSetDocumentFolder(const std::string& folder);
// Ends the input: pushed-back text and open includes are dropped.
void TVEndInput();
// Reads one argument of the current request line into `rope`; true when
// another argument may follow on the same line.
bool arg(Rope* rope);
// Reads up to and including `delimiter` (or end of input); returns TVArgs[10]
// holding what came before the delimiter.
Rope* TVSkipPast(char delimiter);

// ---- Escapes (escape.cpp) ------------------------------------------------------
void TVEscape(char lastOut);
void TVFontSetByPosition(unsigned position);
// Sets the current font to `family` (null: the current one) in `style`: 'R',
// 'I', 'B' or 'M' (bold italic).
void TVFontSetFamilyStyle(const char* family, char style);
// The classic table's special character of the two-character name; false
// when it has none.
bool TVSpecialCharGet(char first, char second, unsigned char& code, bool& isSymbol);
// Appends to TVReturn.text the escape character in a form that is written as
// text and never read as an escape again, whatever the escape character is.
void pushLiteralEscape();

// ---- Traps, markers, string registers (registers.cpp) --------------------------
void trapNew();
// What the text path asks of the traps and markers at its characters, kept
// by registers.cpp as they change, so that each answer is one load.
struct TrapCounts {
    uint32_t armedWordTraps = 0;    // records with an armed word trap
    uint32_t pendingLineTraps = 0;  // records with a line count running
    bool isMarkerHeadPending = false;  // the head of the marker list is in use
};
extern TrapCounts trapCounts;
bool fireArmedWordTraps(bool isNewline);
void firePendingLineTraps();
// Fires the armed word traps at a blank, tab or newline of text; returns true
// when the character must not be written (a trap swallows it).
inline bool fireWordTraps(bool isNewline) {
    return trapCounts.armedWordTraps != 0 && fireArmedWordTraps(isNewline);
}
// Counts down the line traps at a newline of text, firing those that run out.
inline void fireLineTraps() {
    if (trapCounts.pendingLineTraps != 0) firePendingLineTraps();
}
// Whether a blank of text may fire a word trap.
inline bool wordTrapsArmed() { return trapCounts.armedWordTraps != 0; }
// Whether a line end of text may fire a line trap.
inline bool lineTrapsPending() { return trapCounts.pendingLineTraps != 0; }
void TVMarkerOut(const Marker& marker);
inline bool markersPending() { return trapCounts.isMarkerHeadPending; }
void markersNew();
void TVDefineString(const char* name, const char* definition);
std::string ParseDefineString(const char* definition);
const char* TVStringGet(const char* name);

// Puts all interpreter state back as at program start (for convertInProcess).
void interpReset();
// The parts of interpReset kept by escape.cpp and registers.cpp.
void escapeReset();
void registersReset();
