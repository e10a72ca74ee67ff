// The driver: command line, choice of streams, temporary files, start-up
// order, the fatal-error routines with the warning prefix, and the assembly of
// the output at shut-down.
// Owns: the driver state below. Calls: every other module's start-up routine,
// the main loop (doIt) and the writer's statement writers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "tools/stream.h"
#include "writer/model.h"

// Result codes of the command-line routines.
enum : int32_t {
    kStreamsReady = 0,
    kStatFailed = -4,
    kInputUnreadable = -10,
    kOutputUnwritable = -11,
    kNoMemoryForName = -20,
    kSameFile = -31,
    kSameTerminal = -32,
    kTooManyFiles = -33,
};

// The anchored frame that stands for vertical space. The driver owns the file;
// the main loop owns the rest.
struct AFrameNew {
    bool isPending = false;
    int32_t id = 0;        // identifier of the last frame anchored
    float height = 0;      // inches
    FILE* file = nullptr;
    std::string fileName;
};

// Reads an include the converter does not find beside the including file:
// the whole-tree command lends one that looks the name up from the root of
// its manual tree (where man(1) reads "man1/bash.1" from) and reads pages
// kept gzipped, which the converter alone cannot. An open stream the
// converter closes, or nullptr.
using IncludeFinder = FILE* (*)(const std::string& name);

struct DriverState {
    std::string program;       // last path component of the invocation name
    std::string macroPackage;  // from -mNAME; empty without one
    FILE* inFile = nullptr;
    FILE* outFile = nullptr;
    InputStream stdIn;
    std::string bodyFileName;
    FILE* bodyStream = nullptr;
    AFrameNew aFrameNew;
    Pgf copyPgf;               // the fixed "copy" format of copy regions
    bool isShuttingDown = false;
    bool isFull = false;       // --full: the roff layer interprets what the classic rules hand back
    std::string documentPath;  // the input named on the command line; empty for standard input
    IncludeFinder findInclude = nullptr;  // the full mode's last resort for a missing include
};
extern DriverState driver;

// Handles the option word and the file names; writes the message and ends the
// process with status 1 for the codes that carry one.
int32_t CommandLine(int argc, char** argv, FILE** in, FILE** out);
int32_t ProcessCommandLineFilenames(int count, char** words, FILE** in, FILE** out);
int32_t SetupStandardIO(const char* inName, const char* outName, FILE** in, FILE** out);

// The name of a newly created temporary file, or null. The text lives in one
// buffer shared by all calls and is overwritten by the next one.
const char* FileGetTmpFileName(const char* directory, const char* name);

// Start-up steps after the command line: temporary files, buffers, request
// table, macro package, main loop, shut-down. Never returns.
[[noreturn]] void convert();
[[noreturn]] void shutDown();

void TVWarningPre();
[[noreturn]] void TVFatalVM();
[[noreturn]] void fatalStdio();
[[noreturn]] void fatalPost();

// Ends the process, or calls the hook set in its place (which must not
// return): convertInProcess ends only the conversion this way, and the unit
// tests catch the fatal routines' exits.
using ExitHook = void (*)(int status);
void setExitHook(ExitHook hook);
[[noreturn]] void processExit(int status);

// Puts the driver state back as at program start.
void driverReset();

// Runs one whole conversion inside this process, as the program would with
// the option -PACKAGE (e.g. "man"; "" for none) from `in` to `out`, and
// returns the status the program would exit with instead of exiting. Every
// module starts as at program start and is put back so afterwards; the
// streams stay open and belong to the caller. The whole-tree command's
// workers and the fuzzing harness convert many documents this way.
int convertInProcess(const char* package, FILE* in, FILE* out);

// The same with the full mode's choices: the mode itself, and the document's
// path, whose folder includes are looked for in and may not leave ("" for
// the current folder), and what reads an include missing there.
struct ConversionOptions {
    const char* package = "";
    bool isFull = false;
    const char* documentPath = "";
    IncludeFinder findInclude = nullptr;
};
int convertInProcess(const ConversionOptions& options, FILE* in, FILE* out);
