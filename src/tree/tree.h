// trofftovif-tree: converts every manual page or paper below a source folder
// into a destination folder, keeping relative paths (man1/ls.1.gz becomes
// man1/ls.1.vif). Worker processes, several at once, each convert many files
// with the converter linked in, one after the other; a file that fails never
// stops the others, and a worker that crashes costs only the file it had.
// With --program, a converter program runs once per file instead. Pages are
// converted in the converter's full mode unless the classic one is asked for.
// Owns: the plan of the tree and the per-file results. Calls: zlib (gzip
// input), POSIX process and file routines, the converter (convertInProcess)
// or the program named.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tree {

enum class Package { None, Man, Me, Ms, Mdoc };

struct Options {
    std::string source, destination;
    std::string program;          // a converter program to run per file; "" for the built-in one
    bool isFull = true;           // the full mode; false (--classic): the classic converter's output
    unsigned jobs = 1;
    Package forced = Package::None;
    bool force = false;           // convert even when the output is newer
    bool progress = true;         // progress line on a terminal
    std::string reportFile;       // TSV report, one line per file
    unsigned timeoutSeconds = 60; // a conversion running longer is a failure
    // The largest page read, after decompression: far above any real
    // document, it bounds a worker's memory whatever a file holds (a gzip
    // stream may expand without end).
    uint64_t maxBytes = uint64_t{64} << 20;
};

// What is to be done with one file of the source tree. The planner leaves
// every plain file to Read; reading it decides among the other three.
enum class Action { Read, Convert, Redirect, Skip };

struct Job {
    std::string relative;     // path below the source folder
    std::string output;       // path below the destination folder
    Action action = Action::Skip;
    Package package = Package::None;
    std::string reason;       // why a file is skipped
    std::string target;       // a redirect's page, relative to the source folder
    // Filled by the run:
    enum class Result { Pending, Converted, UpToDate, Skipped, Redirected, Failed } result = Result::Pending;
    std::string problem;      // why a conversion failed
    unsigned warnings = 0;
    std::string firstWarning;
    uint64_t bytesIn = 0, bytesOut = 0;
};

// Reads a regular file, gunzipping it as it is read when it starts with the
// gzip magic; false with a reason on failure (a damaged gzip stream, text
// past maxBytes and anything but a regular file included: nothing is read
// from a FIFO or a device).
bool readSource(const std::string& path, std::string& text, std::string& problem, uint64_t maxBytes);

// "64 MiB", "1536 KiB" or "1000 bytes".
std::string sizeName(uint64_t bytes);

// The target of a page that holds only a ".so NAME" line (comments and blank
// lines aside), or "" when the page is not such a stub.
std::string soTarget(const std::string& text);
// True for pages written with the mdoc macros (.Dd / .Dt / .Sh), which only
// the full mode has a package for.
bool isMdoc(const std::string& text);
// The package a file is written for: man for pages in a section folder
// (man1, man3p, ...) or with .TH; ms or me by extension or by the macros
// used; None when it looks like no troff document.
Package choosePackage(const std::string& relative, const std::string& text);
// man1/ls.1.gz -> man1/ls.1.vif
std::string outputName(const std::string& relative);

// Lists every file below the source folder: symbolic links become redirects
// (or skips), plain files are left to read, anything else (a FIFO, a socket,
// a device) is skipped.
std::vector<Job> plan(const Options& options);

// Converts the planned files with options.jobs processes at a time.
void run(const Options& options, std::vector<Job>& jobs);

const char* packageOption(Package package);

}  // namespace tree
