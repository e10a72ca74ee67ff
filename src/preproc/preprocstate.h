// State and helpers shared by the files of the preprocessor layer
// (preproc.cpp, tbl.cpp, eqn.cpp, pic.cpp). Private to the layer: only its
// files and the unit tests include it.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "interp/interp.h"
#include "writer/model.h"

// A region holds at most this many bytes of source, and a table at most this
// many rows and columns: they bound what one region can cost. Each limit
// gives one warning; what lies beyond is dropped.
#ifdef TROFFTOVIF_FUZZING_LIMITS
inline constexpr size_t kMaxRegionBytes = size_t{1} << 14;  // the fuzzing build's
#else
inline constexpr size_t kMaxRegionBytes = size_t{1} << 22;
#endif
inline constexpr size_t kMaxTableColumns = 64;
// Regions read back inside regions (an equation in a table's text block)
// nest at most this deep; a deeper one is read and dropped.
inline constexpr size_t kMaxRegionDepth = 8;

// One paragraph a region gives back: its text (troff input, lines without
// the last newline) and, for a table row, the tab stops of its columns.
struct Block {
    std::string text;
    bool hasTabs = false;
    std::array<TabStop, kTabStopCount> tabs{};
};

// A region being read back: the paragraphs still to come, and what the
// region puts back as it was when it ends.
struct Region {
    Pgf format;
    std::vector<Block> blocks;
    size_t next = 0;
    Pgf savedPgf;
    bool savedFilling = true;
    std::array<TabStop, kTabStopCount> savedTabs{};
};

struct PreprocState {
    bool hasFormats = false;  // a package declared its formats
    Pgf tableFormat;
    Pgf equationFormat;
    std::vector<Region> regions;  // innermost last
    // eqn's definitions (define, ndefine, tdefine) by name.
    std::unordered_map<std::string, std::string> eqnDefines;
    // The character that closes an in-line equation (the second of delim's
    // pair); the opening one is tv.TVEqnDelimiter.
    char closingDelimiter = 0;
    // Keys already warned about, so that each gives one warning.
    std::unordered_set<std::string> warned;
};
extern PreprocState preproc;

// One warning, in the program's format, for each distinct `key`.
void preprocWarnOnce(const std::string& key, const std::string& message);

// Reads the region's lines, after its request line, up to the line that
// calls one of `ends` (not kept); false when the input ends first. Lines
// beyond kMaxRegionBytes are dropped with a warning.
bool readRegion(std::initializer_list<std::string_view> ends, std::vector<std::string>& lines);

// The paragraph formats a region's paragraphs take: the package's, or ones
// made from the format in force.
Pgf tableFormat();
Pgf equationFormat();

// Starts reading `region` back: saves the format, fill mode and tab stops in
// force and sets up its first paragraph. A region without paragraphs changes
// nothing.
void beginRegion(Region&& region);

// The escape character as text ("\\" when escapes are off: the text is then
// read as it stands).
char escapeChar();
// Whether `line` is a control line.
bool isControlLine(std::string_view line);
std::string_view trimmed(std::string_view text);
