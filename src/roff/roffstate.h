// State and helpers shared by the files of the roff layer (roff.cpp,
// expr.cpp, escapes.cpp). Private to the layer: only its files and the unit
// tests include it.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <functional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// Interpolation of strings within strings stops this deep, and one line grows
// to at most this many characters: both bound what a self-referring string
// can cost. Each limit gives one warning.
inline constexpr int kMaxInterpolationDepth = 64;
#ifdef TROFFTOVIF_FUZZING_LIMITS
inline constexpr size_t kMaxLineLength = size_t{1} << 12;  // the fuzzing build's
#else
inline constexpr size_t kMaxLineLength = size_t{1} << 20;
#endif

// A number register: its value, the step of \n+ and \n-, and the format af
// gave it ("1", "001", "i", "I", "a", "A").
struct Register {
    int64_t value = 0;
    int64_t step = 0;
    std::string format = "1";
};

// Names are looked up by a view of them, without a string made for the key.
struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
};
template <class Value>
using NameTable = std::unordered_map<std::string, Value, NameHash, std::equal_to<>>;

// The first two bytes of a name (the second 0 for a one-byte name), for the
// filter of string names below.
inline size_t nameFilterKey(std::string_view name) {
    size_t first = name.empty() ? 0 : static_cast<unsigned char>(name[0]);
    size_t second = name.size() < 2 ? 0 : static_cast<unsigned char>(name[1]);
    return first << 8 | second;
}

struct RoffState {
    // Strings and macros share one table, as in troff: a macro is a string
    // whose value is read as lines. Only roffStringSlot adds to it.
    NameTable<std::string> strings;
    // The first two bytes of every name that was ever given a string or
    // macro: a control line whose name has no mark here (most of them, the
    // package's own macros) is known to call none without hashing it.
    std::bitset<65536> stringNames;
    NameTable<Register> registers;
    // The answers of the ie requests not yet taken by an el, newest last.
    std::vector<bool> elStack;
    // Names already warned about, so that each gives one warning.
    std::unordered_set<std::string> warned;
    // The translations of tr, by byte; identity where none.
    unsigned char tr[256] = {};
    bool hasTr = false;
    // The folder no include may leave (resolved), set from the document's
    // path, and how many includes the document has read.
    std::string rootFolder;
    size_t includeCount = 0;  // includes read so far
    // Code points of the input that have no character in the output, each
    // warned about once.
    std::unordered_set<uint32_t> unmapped;
};
extern RoffState roff;

// One warning, in the program's format, for each distinct `key`.
void roffWarnOnce(const std::string& key, const std::string& message);
void roffWarn(const std::string& message);

// The value of a string or macro, or null: the layer's own table first, then
// the strings the macro package defined.
const std::string* roffStringFind(std::string_view name);
// Most names (the package's own macros) were never given a string: the
// filter says so without a call.
inline const std::string* roffStringGet(std::string_view name) {
    if (!roff.stringNames.test(nameFilterKey(name))) return nullptr;
    return roffStringFind(name);
}
// The value of the string or macro `name` to be set (empty when it is new):
// every definition goes through here, which keeps the filter of names.
std::string& roffStringSlot(std::string_view name);

// Interpolates \*, \n, \$ (empty outside a macro), \w, \B and \A in `in`,
// appending to `out`. In copy mode (definitions) a doubled escape character
// becomes one and \E the escape character; otherwise both stay as written, so
// that a line can be interpolated again without change.
void roffInterpolate(std::string_view in, std::string& out, bool isCopyMode, int depth = 0);

// Reads the name after \*, \n, \f, ...: one character, "(xx", or "[name]"
// (for \* the name ends at the first blank, the rest being arguments, which
// go to `rest`). `p` points after the escape letter and is advanced. False
// when the text ends first.
bool roffReadName(const char*& p, const char* end, std::string& name, std::string* rest = nullptr);
// The same, without a copy: `name` is the name within the text, or in
// `resolved` when the name held escapes.
bool roffReadNameView(const char*& p, const char* end, std::string_view& name, std::string& resolved,
                      std::string* rest = nullptr);

// A bracketed name that holds escapes (\n[a\n[b]]) becomes what they
// interpolate to; any other name stays as it is.
void roffResolveName(std::string& name);

// Reads a delimited argument ('...' with any delimiter) at `p`, skipping nested
// escapes with delimited arguments of their own; `content` gets what lies
// between the delimiters. False when the closing delimiter never comes.
bool roffReadDelimited(const char*& p, const char* end, std::string& content);

// The width troff would give `text` (\w), in basic units: the cursor's
// estimate of 0.6 em a character.
int64_t roffWidth(std::string_view text);

// A character name of \(xx, \[name] or \C'name' that the converter can write.
bool roffGlyphKnown(const std::string& name);

// Selects a font by any of its names (R, B, BI, CW, CB, HR, 1 to 9, P, ...);
// false for a name only the classic font table may know.
bool roffSelectFont(std::string_view name);

// True for a name the layer or the rule table answers as a request or macro.
bool roffIsDefined(std::string_view name);

// Splits a macro call's arguments as troff does: blanks separate them, a
// double quote starts a quoted argument in which "" stands for one quote.
void roffSplitArgs(std::string_view rest, std::vector<std::string>& args);
