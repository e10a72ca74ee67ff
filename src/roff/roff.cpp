// The roff layer's control lines: one table of requests, the definitions of
// strings, macros and registers, conditionals with their blocks, includes,
// and the call of a user macro, whose body is read again as input with the
// call's arguments in place.
#include "roff/roff.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "driver/driver.h"
#include "interp/interp.h"
#include "preproc/preproc.h"
#include "requests/rb.h"
#include "roff/roffstate.h"

namespace {

// Includes nest at most this deep: a file that includes itself stops here.
constexpr size_t kMaxIncludeDepth = 16;
// And a document reads at most this many includes in all: a file that
// includes itself twice would otherwise be read 2^16 times.
constexpr size_t kMaxIncludes = 1024;
// The answers of ie kept for el; older ones are forgotten beyond this.
constexpr size_t kMaxElStack = 1024;

// A control line as the handlers see it: the request's name and the text after
// it, uninterpreted.
struct Line {
    std::string_view name;
    std::string_view rest;
    int controlChar;
    // False when the line is known to hold no escape character, which spares
    // the search for one.
    bool mayHoldEscape = true;
    // True when the rest is known to read as interpolation would leave it:
    // its escapes are none that interpolation replaces.
    bool isInterpolated = false;
};

// What a handler does with its line: true when done, false when the line is
// to go on to the rule table as in the classic mode.
using RoffHandler = bool (*)(const Line&);

struct RoffRequest {
    std::string_view name;  // its length known at compile time: every control line searches
    RoffHandler handler;
};

// An argument for the rule table: where it lies in Scratch::ruleText.
struct ArgSpan {
    size_t start;
    size_t length;
};

// Scratch text reused from line to line.
struct Scratch {
    std::string raw;
    std::string text;
    std::string skipped;  // a comment's text
    std::string pushed;   // a line of the pushback, in reading order
    std::string condition;  // a conditional's line, interpolated
    std::vector<std::string> args;
    // The arguments of a line for the rule table, one after the other with a
    // blank after each.
    std::string ruleText;
    std::vector<ArgSpan> ruleArgs;
};
Scratch scratch;

// The package that reads its own macro lines, if any.
RoffPackageLine packageLine = nullptr;

char escapeChar() { return tv.TVEscapeChar; }

// A table of stops: the bytes of `fixed` and the escape character (none
// when it is 0), made again only when the escape character has changed since
// `madeFor`.
struct EscapeStops {
    bool stops[256] = {};
    int madeFor = -1;

    const bool* get(std::string_view fixed) {
        const int escape = static_cast<unsigned char>(escapeChar());
        if (escape != madeFor) {
            std::fill(std::begin(stops), std::end(stops), false);
            for (char c : fixed) stops[static_cast<unsigned char>(c)] = true;
            if (escape != 0) stops[escape] = true;
            madeFor = escape;
        }
        return stops;
    }
};

// The bytes that end a run of a raw line: the newline, the byte 255 (read as
// the end of input) and the escape character.
const bool* lineStops() {
    static EscapeStops table;
    return table.get("\n\xFF");
}

// The bytes that end a name on a control line: the blanks and the escape
// character.
const bool* nameStops() {
    static EscapeStops table;
    return table.get(" \t");
}

// The newline alone: what ends a comment.
const bool* newlineStops() {
    static const auto stops = [] {
        std::array<bool, 256> table{};
        table[kNewline] = true;
        table[0xFF] = true;  // read as the end of input
        return table;
    }();
    return stops.data();
}

// Reads the rest of a comment, in runs, up to and with its newline; -1 when
// the input ends first, else the newline.
int skipComment() {
    std::string& skipped = scratch.skipped;
    for (;;) {
        skipped.clear();
        TVReadUntil(skipped, newlineStops());
        int c = TVGetc();
        if (c == kNewline || c == -1) return c;
    }
}

// Reads the rest of the current input line, up to and without its newline:
// an escaped newline joins the next line, a comment (\") ends the line, \#
// ends it and joins the next, and \. is a period. False at the end of input with nothing read.
// The characters between escapes are taken in runs. `sawEscape`, if given, is
// set when the line keeps an escape character.
bool readRawLine(std::string& out, bool* sawEscape = nullptr) {
    out.clear();
    if (sawEscape) *sawEscape = false;
    const char escape = escapeChar();
    const bool* stops = lineStops();
    bool sawAny = false;
    for (;;) {
        size_t before = out.size();
        TVReadUntil(out, stops);
        if (out.size() != before) sawAny = true;
        int c = TVGetc();
        if (c == -1) return sawAny;
        sawAny = true;
        if (c == kNewline) return true;
        if (escape != 0 && c == escape) {
            int d = TVGetc();
            if (d == -1) {
                out += escape;
                if (sawEscape) *sawEscape = true;
                return true;
            }
            if (d == kNewline) continue;
            if (d == '.') {  // an escaped period is a period, even one that ends a definition
                out += '.';
                continue;
            }
            if (d == '"' || d == '#') {
                int e = skipComment();
                if (d == '"' || e == -1) return true;
                continue;
            }
            out += escape;
            out += static_cast<char>(d);
            if (sawEscape) *sawEscape = true;
            continue;
        }
        out += static_cast<char>(c);
    }
}

void skipBlanks(const char*& p, const char* end) {
    while (p < end && (*p == ' ' || *p == '\t')) p++;
}

std::string_view firstWord(std::string_view text, std::string_view* rest = nullptr) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) i++;
    size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\t') i++;
    if (rest) {
        size_t j = i;
        while (j < text.size() && (text[j] == ' ' || text[j] == '\t')) j++;
        *rest = text.substr(j);
    }
    return text.substr(start, i - start);
}

// Removes the block escapes \{ and \} outside conditionals: what they
// enclosed has already been read as lines.
void dropBraces(std::string& text) {
    const char escape = escapeChar();
    if (escape == 0 || text.find(escape) == std::string::npos) return;
    size_t to = 0;
    for (size_t from = 0; from < text.size();) {
        if (text[from] == escape && from + 1 < text.size()) {
            char next = text[from + 1];
            if (next == '{' || next == '}') {
                from += 2;
                continue;
            }
            text[to++] = text[from++];  // the pair stays whole
        }
        text[to++] = text[from++];
    }
    text.resize(to);
}

// The rest of a line interpolated as a request's arguments are. Without an
// escape character in it, that is the rest as it stands.
std::string_view normalRest(const Line& line) {
    if (!line.mayHoldEscape || line.isInterpolated) return line.rest;
    const char escape = escapeChar() != 0 ? escapeChar() : '\\';
    if (std::memchr(line.rest.data(), escape, line.rest.size()) == nullptr) return line.rest;
    scratch.text.clear();
    roffInterpolate(line.rest, scratch.text, false);
    dropBraces(scratch.text);
    return scratch.text;
}

// Puts `text` and a newline in front of the unread input, to be read as a
// line; the newline goes first, the pushback being read from its end.
void unreadLine(std::string_view text) {
    const char newline = static_cast<char>(kNewline);
    TVUnread(&newline, 1);
    TVUnread(text.data(), text.size());
}

// ---- Conditionals --------------------------------------------------------------

// The change in block depth that \{ and \} make in `text`.
int braceDelta(const char* p, const char* end) {
    const char escape = escapeChar();
    int delta = 0;
    while (p < end) {
        if (*p == escape && p + 1 < end) {
            if (p[1] == '{') delta++;
            if (p[1] == '}') delta--;
            p += 2;
            continue;
        }
        p++;
    }
    return delta;
}

// Skips input until the blocks open at `depth` are closed, and the rest of
// the line that closes them.
void skipBlocks(int depth) {
    const char escape = escapeChar();
    while (depth > 0) {
        int c = TVGetc();
        if (c == -1) return;
        if (c != escape || escape == 0) continue;
        c = TVGetc();
        if (c == '{') depth++;
        if (c == '}') depth--;
        if (c == -1) return;
    }
    int c;
    do c = TVGetc(); while (c != kNewline && c != -1);
}

// The body of a conditional at `p`: read as a line of its own when the
// condition holds, skipped with the blocks it opens otherwise.
void conditionalBody(const char* p, const char* end, bool holds) {
    skipBlanks(p, end);
    const char escape = escapeChar();
    if (!holds) {
        int depth = braceDelta(p, end);
        if (depth > 0) skipBlocks(depth);
        return;
    }
    if (p + 1 < end && p[0] == escape && p[1] == '{') {
        p += 2;
        skipBlanks(p, end);
    }
    if (p < end) unreadLine(std::string_view(p, static_cast<size_t>(end - p)));
}

bool conditional(const Line& line, bool isIe) {
    std::string& text = scratch.condition;
    text.clear();
    roffInterpolate(line.rest, text, false);
    const char* p = text.data();
    const char* end = p + text.size();
    bool holds = roffCondition(p, end);
    if (isIe) {
        if (roff.elStack.size() >= kMaxElStack) roff.elStack.erase(roff.elStack.begin());
        roff.elStack.push_back(holds);
    }
    conditionalBody(p, end, holds);
    return true;
}

bool ifRequest(const Line& line) { return conditional(line, false); }
bool ieRequest(const Line& line) { return conditional(line, true); }

bool elRequest(const Line& line) {
    // An el without its ie counts as one whose ie held.
    bool holds = false;
    if (!roff.elStack.empty()) {
        holds = !roff.elStack.back();
        roff.elStack.pop_back();
    }
    std::string text;
    roffInterpolate(line.rest, text, false);
    conditionalBody(text.data(), text.data() + text.size(), holds);
    return true;
}

// ---- Definitions -------------------------------------------------------------------

// True for a line that ends a definition: the control character, blanks, the
// end name and nothing more.
bool isEndLine(const std::string& raw, std::string_view endName) {
    if (raw.empty() || (raw[0] != tv.TVControlChar && raw[0] != tv.TVNoBreakControlChar)) return false;
    std::string_view rest(raw.data() + 1, raw.size() - 1);
    return firstWord(rest) == endName;
}

// Whether a line holds a control character and blanks alone.
bool isEmptyRequest(const std::string& raw) {
    if (raw.empty() || (raw[0] != tv.TVControlChar && raw[0] != tv.TVNoBreakControlChar)) return false;
    return raw.find_first_not_of(" \t", 1) == std::string::npos;
}

// Reads the lines of a definition up to its end line; `body` gets them in
// copy mode (null: they are skipped). An end other than ".." is a macro
// call of its own: its line is read again once the definition is made.
void readBody(std::string_view endName, std::string* body) {
    std::string raw;
    while (readRawLine(raw)) {
        if (isEndLine(raw, endName)) {
            if (endName != ".") {
                raw += static_cast<char>(kNewline);
                TVUnread(raw.data(), raw.size());
            }
            return;
        }
        // A control character alone (what a comment line leaves) does
        // nothing in troff: the body does without it.
        if (body && isEmptyRequest(raw)) continue;
        if (body) {
            roffInterpolate(raw, *body, true);
            *body += static_cast<char>(kNewline);
            if (body->size() > kMaxLineLength * 8) {
                roffWarnOnce("macro-length", "Macro too long; rest dropped.");
                body = nullptr;
            }
        }
    }
}

// A name the macro package or the troff requests answer natively keeps its
// native meaning: a user's definition would lose its paragraph formats.
bool isNative(std::string_view name) {
    if (name.size() > 2) return false;
    char key[3] = {};
    std::memcpy(key, name.data(), name.size());
    return TVHasRule(key);
}

bool refuseNative(std::string_view name) {
    // A document that defines PS and PE uses them as its own macros (manual
    // pages set prototypes with them), not as the picture's bounds.
    if (!isNative(name) || name == "PS" || name == "PE") return false;
    roffWarn("Definition of " + std::string(name) + " ignored: the converter defines it.");
    return true;
}

bool defineMacro(const Line& line, bool isAppend) {
    std::string_view rest;
    std::string name(firstWord(line.rest, &rest));
    std::string endName(firstWord(rest));
    if (endName.empty()) endName = ".";
    if (name.empty() || refuseNative(name)) {
        readBody(endName, nullptr);
        return true;
    }
    std::string body;
    if (isAppend) {
        if (const std::string* old = roffStringGet(name)) body = *old;
    }
    readBody(endName, &body);
    roffStringSlot(name) = std::move(body);
    return true;
}

bool deRequest(const Line& line) { return defineMacro(line, false); }
bool amRequest(const Line& line) { return defineMacro(line, true); }

bool igRequest(const Line& line) {
    std::string endName(firstWord(line.rest));
    readBody(endName.empty() ? "." : endName, nullptr);
    return true;
}

bool defineString(const Line& line, bool isAppend) {
    std::string_view value;
    std::string name(firstWord(line.rest, &value));
    if (name.empty()) return true;
    if (!value.empty() && value[0] == '"') value.remove_prefix(1);
    std::string text;
    if (isAppend) {
        if (const std::string* old = roffStringGet(name)) text = *old;
        else if (name.size() <= 2) {
            if (const char* classic = TVStringGet(name.c_str())) text = classic;
        }
    }
    roffInterpolate(value, text, true);
    roffStringSlot(name) = std::move(text);
    return true;
}

bool dsRequest(const Line& line) { return defineString(line, false); }
bool asRequest(const Line& line) { return defineString(line, true); }

bool rmRequest(const Line& line) {
    std::string_view rest = normalRest(line);
    roffSplitArgs(rest, scratch.args);
    for (const std::string& name : scratch.args) roff.strings.erase(name);
    return true;
}

bool rnRequest(const Line& line) {
    roffSplitArgs(normalRest(line), scratch.args);
    if (scratch.args.size() < 2 || refuseNative(scratch.args[1])) return true;
    auto found = roff.strings.find(scratch.args[0]);
    if (found == roff.strings.end()) return true;
    std::string value = std::move(found->second);
    roff.strings.erase(found);
    roffStringSlot(scratch.args[1]) = std::move(value);
    return true;
}

// An alias of a native macro calls it with the same arguments.
bool alsRequest(const Line& line) {
    roffSplitArgs(normalRest(line), scratch.args);
    if (scratch.args.size() < 2 || refuseNative(scratch.args[0])) return true;
    const std::string& to = scratch.args[1];
    if (const std::string* value = roffStringGet(to)) {
        roffStringSlot(scratch.args[0]) = *value;
    } else if (isNative(to)) {
        roffStringSlot(scratch.args[0]) = "." + to + " \\$@\n";
    }
    return true;
}

// ---- Registers ------------------------------------------------------------------------

bool nrRequest(const Line& line) {
    std::string_view rest = normalRest(line);
    std::string_view tail;
    const std::string_view name = firstWord(rest, &tail);
    if (name.empty()) return true;
    std::string_view valueText = firstWord(tail, &tail);
    const char* p = valueText.data();
    const char* end = p + valueText.size();
    int sign = 0;
    if (p < end && (*p == '+' || *p == '-')) sign = *p++ == '+' ? 1 : -1;
    int64_t value = 0;
    if (!roffExpression(p, end, 'u', value)) return true;
    // Most registers are set again and again: found by the name as it is.
    auto found = roff.registers.find(name);
    if (found == roff.registers.end()) found = roff.registers.try_emplace(std::string(name)).first;
    Register& r = found->second;
    r.value = sign == 0 ? value : r.value + sign * value;
    std::string_view stepText = firstWord(tail);
    const char* q = stepText.data();
    int64_t step = 0;
    if (!stepText.empty() && roffExpression(q, q + stepText.size(), 'u', step)) r.step = step;
    return true;
}

bool rrRequest(const Line& line) {
    roffSplitArgs(normalRest(line), scratch.args);
    for (const std::string& name : scratch.args) roff.registers.erase(name);
    return true;
}

bool rnnRequest(const Line& line) {
    roffSplitArgs(normalRest(line), scratch.args);
    if (scratch.args.size() < 2) return true;
    auto found = roff.registers.find(scratch.args[0]);
    if (found == roff.registers.end()) return true;
    Register r = found->second;
    roff.registers.erase(found);
    roff.registers[scratch.args[1]] = r;
    return true;
}

bool afRequest(const Line& line) {
    roffSplitArgs(normalRest(line), scratch.args);
    if (scratch.args.size() < 2) return true;
    const std::string& f = scratch.args[1];
    bool isValid = f == "i" || f == "I" || f == "a" || f == "A" ||
                   (!f.empty() && std::all_of(f.begin(), f.end(), [](char c) { return c >= '0' && c <= '9'; }));
    if (isValid) roff.registers[scratch.args[0]].format = f;
    return true;
}

// ---- Includes and the end of input -------------------------------------------------------

// Whether `path` (resolved) lies in `folder` (resolved) or below it.
bool isInside(const std::string& path, const std::string& folder) {
    if (folder == "/") return true;
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           path[folder.size()] == '/';
}

bool soRequest(const Line& line) {
    std::string name(firstWord(normalRest(line)));
    if (name.empty()) return true;
    if (TVIncludeDepth() >= kMaxIncludeDepth) {
        roffWarn("Includes nested too deep; " + name + " skipped.");
        return true;
    }
    if (roff.includeCount >= kMaxIncludes) {
        roffWarnOnce("includes", "Too many includes; " + name + " and later ones skipped.");
        return true;
    }
    std::string path = name[0] == '/' ? name : TVCurrentFolder() + "/" + name;
    // The name is judged as written before the file system is asked about
    // it, so that a warning never tells whether a file outside exists.
    std::string written = std::filesystem::path(path).lexically_normal().string();
    if (!isInside(written, roff.rootFolder)) {
        roffWarn("Can't include " + name + ": outside the document's folder; skipped.");
        return true;
    }
    char resolved[PATH_MAX];
    struct stat st {};
    if (!realpath(path.c_str(), resolved)) {
        const int missing = errno;
        // Not beside the including file: whoever lent a finder may know it.
        FILE* found = missing == ENOENT && name[0] != '/' && driver.findInclude ? driver.findInclude(name) : nullptr;
        if (found) {
            roff.includeCount++;
            TVIncludeFile(found, TVCurrentFolder());
        } else {
            roffWarn("Can't include " + name + ": " + std::strerror(missing) + "; skipped.");
        }
        return true;
    }
    if (!isInside(resolved, roff.rootFolder)) {
        roffWarn("Can't include " + name + ": outside the document's folder; skipped.");
        return true;
    }
    if (stat(resolved, &st) != 0 || !S_ISREG(st.st_mode)) {
        roffWarn("Can't include " + name + ": not a regular file; skipped.");
        return true;
    }
    FILE* file = std::fopen(resolved, "r");
    if (!file) {
        roffWarn("Can't include " + name + ": " + std::strerror(errno) + "; skipped.");
        return true;
    }
    std::string folder(resolved);
    folder.erase(folder.rfind('/') == 0 ? 1 : folder.rfind('/'));
    roff.includeCount++;
    TVIncludeFile(file, folder);
    return true;
}

bool notSupportedRequest(const Line& line) {
    roffWarnOnce("request " + std::string(line.name),
                 "The " + std::string(line.name) + " request is not supported; line ignored.");
    return true;
}

bool tmRequest(const Line& line) {
    std::string text;
    roffInterpolate(line.rest, text, true);
    if (line.name == "tm1" && !text.empty() && text[0] == '"') text.erase(0, 1);
    TVWarningPre();
    std::fputs(text.c_str(), stderr);
    if (line.name != "tmc") std::fputc('\n', stderr);
    return true;
}

bool abRequest(const Line& line) {
    tmRequest(line);
    TVEndInput();
    return true;
}

bool exRequest(const Line&) {
    TVEndInput();
    return true;
}

// ---- Requests that become lines of another kind ---------------------------------------------

// do: the rest is a control line of its own.
bool doRequest(const Line& line) {
    std::string text(1, static_cast<char>(line.controlChar));
    text.append(line.rest);
    unreadLine(text);
    return true;
}

// nop: the rest is an input line.
bool nopRequest(const Line& line) {
    if (!line.rest.empty()) unreadLine(line.rest);
    return true;
}

// tl: the three parts of a title, one blank apart, on a line of their own.
bool tlRequest(const Line& line) {
    std::string_view rest = normalRest(line);
    if (rest.empty()) return true;
    char delimiter = rest[0];
    std::string text = ".br\n";
    std::string parts;
    for (size_t i = 1; i < rest.size(); i++) {
        if (rest[i] == delimiter) {
            if (!parts.empty() && parts.back() != ' ') parts += ' ';
        } else {
            parts += rest[i];
        }
    }
    while (!parts.empty() && parts.back() == ' ') parts.pop_back();
    text += parts + "\n.br";
    unreadLine(text);
    return true;
}

bool brpRequest(const Line&) {
    unreadLine(".br");
    return true;
}

// Courier and other families by groff's names; the classic ft knows the
// positions and their one-letter names.
bool ftRequest(const Line& line) {
    std::string name(firstWord(normalRest(line)));
    return roffSelectFont(name);
}

// ---- Preprocessor regions ---------------------------------------------------------------

// Tables, equations and pictures are read by their own layer.
bool tsRequest(const Line& line) {
    PreprocTable(line.rest);
    return true;
}

bool eqRequest(const Line& line) {
    PreprocEquation(line.rest);
    return true;
}

bool psRequest(const Line& line) {
    PreprocPicture(line.rest);
    return true;
}

bool preprocStepRequest(const Line&) {
    PreprocStep();
    return true;
}

// nf and fi begin a new paragraph, which starts in its format's font: the
// font in force (a verbatim block's Courier, set just before) becomes that.
bool fillRequest(const Line&) {
    if (tv.TVPgf.mask & bit(PgfBit::PgfForceFont)) {
        // The size travels in the field only, as the packages keep it.
        tv.TVPgf.font = tv.TVFamilyStyle;
        tv.TVPgf.font.FSize = tv.TVSize;
    }
    return false;
}

// tr: pairs of characters, the first of each written as the second; an odd
// one out becomes a blank.
bool trRequest(const Line& line) {
    std::string_view rest = normalRest(line);
    std::string_view pairs = firstWord(rest);
    for (size_t i = 0; i < pairs.size(); i += 2) {
        unsigned char from = static_cast<unsigned char>(pairs[i]);
        char to = i + 1 < pairs.size() ? pairs[i + 1] : ' ';
        if (from == static_cast<unsigned char>(escapeChar()) || to == escapeChar()) break;
        roff.tr[from] = static_cast<unsigned char>(to);
    }
    bool isIdentity = true;
    for (int c = 0; c < 256; c++) isIdentity = isIdentity && roff.tr[c] == c;
    tv.TVTranslation = isIdentity ? nullptr : roff.tr;
    tv.TVTranslationChanges++;
    return true;
}

// Requests that change nothing a document keeps: layout for a printer,
// hyphenation, environments, diversions, traps, colours, output control.
bool ignoreRequest(const Line&) { return true; }

constexpr RoffRequest kRequests[] = {
    {kPreprocStep, preprocStepRequest},
    {"EQ", eqRequest},           {"PS", psRequest},
    {"TS", tsRequest},           {"ab", abRequest},           {"af", afRequest},
    {"aln", ignoreRequest},      {"als", alsRequest},         {"am", amRequest},
    {"am1", amRequest},          {"ami", amRequest},          {"as", asRequest},
    {"as1", asRequest},          {"asciify", ignoreRequest},  {"backtrace", ignoreRequest},
    {"bd", ignoreRequest},       {"blm", ignoreRequest},      {"box", ignoreRequest},
    {"boxa", ignoreRequest},     {"break", ignoreRequest},    {"brp", brpRequest},
    {"cflags", ignoreRequest},   {"ch", ignoreRequest},       {"char", ignoreRequest},
    {"chop", ignoreRequest},     {"close", ignoreRequest},    {"composite", ignoreRequest},
    {"continue", ignoreRequest}, {"cp", ignoreRequest},       {"cs", ignoreRequest},
    {"da", ignoreRequest},       {"de", deRequest},           {"de1", deRequest},
    {"defcolor", ignoreRequest}, {"dei", deRequest},          {"device", ignoreRequest},
    {"devicem", ignoreRequest},  {"di", ignoreRequest},       {"do", doRequest},
    {"ds", dsRequest},           {"ds1", dsRequest},          {"dt", ignoreRequest},
    {"el", elRequest},           {"em", ignoreRequest},       {"ev", ignoreRequest},
    {"evc", ignoreRequest},      {"ex", exRequest},           {"fam", ignoreRequest},
    {"fc", ignoreRequest},       {"fchar", ignoreRequest},    {"fcolor", ignoreRequest},
    {"fi", fillRequest},         {"fl", ignoreRequest},       {"fschar", ignoreRequest},
    {"fspecial", ignoreRequest}, {"ft", ftRequest},           {"ftr", ignoreRequest},
    {"fzoom", ignoreRequest},    {"gcolor", ignoreRequest},   {"hcode", ignoreRequest},
    {"hla", ignoreRequest},      {"hlm", ignoreRequest},      {"hpf", ignoreRequest},
    {"hpfa", ignoreRequest},     {"hpfcode", ignoreRequest},  {"hw", ignoreRequest},
    {"hy", ignoreRequest},       {"hym", ignoreRequest},      {"hys", ignoreRequest},
    {"ie", ieRequest},           {"if", ifRequest},           {"ig", igRequest},
    {"it", ignoreRequest},       {"itc", ignoreRequest},      {"kern", ignoreRequest},
    {"lc", ignoreRequest},       {"length", ignoreRequest},   {"lf", ignoreRequest},
    {"lg", ignoreRequest},       {"linetabs", ignoreRequest}, {"lsm", ignoreRequest},
    {"lt", ignoreRequest},       {"mc", ignoreRequest},       {"mk", ignoreRequest},
    {"mso", notSupportedRequest},{"msoquiet", ignoreRequest}, {"ne", ignoreRequest},
    {"nf", fillRequest},         {"nh", ignoreRequest},       {"nm", ignoreRequest},
    {"nn", ignoreRequest},       {"nop", nopRequest},         {"nr", nrRequest},
    {"nroff", ignoreRequest},    {"nx", exRequest},           {"open", ignoreRequest},
    {"opena", ignoreRequest},    {"os", ignoreRequest},       {"output", ignoreRequest},
    {"pc", ignoreRequest},       {"pev", ignoreRequest},      {"pi", ignoreRequest},
    {"pl", ignoreRequest},       {"pm", ignoreRequest},       {"pn", ignoreRequest},
    {"pnr", ignoreRequest},      {"pso", notSupportedRequest},{"ptr", ignoreRequest},
    {"pvs", ignoreRequest},      {"rchar", ignoreRequest},    {"return", ignoreRequest},
    {"rj", ignoreRequest},       {"rm", rmRequest},           {"rn", rnRequest},
    {"rnn", rnnRequest},         {"rr", rrRequest},           {"rt", ignoreRequest},
    {"schar", ignoreRequest},    {"shc", ignoreRequest},      {"shift", ignoreRequest},
    {"sizes", ignoreRequest},    {"so", soRequest},           {"soquiet", soRequest},
    {"special", ignoreRequest},  {"spreadwarn", ignoreRequest},{"ss", ignoreRequest},
    {"sty", ignoreRequest},      {"substring", ignoreRequest},{"sy", ignoreRequest},
    {"tag", ignoreRequest},      {"taga", ignoreRequest},     {"tc", ignoreRequest},
    {"tkf", ignoreRequest},      {"tl", tlRequest},           {"tm", tmRequest},
    {"tm1", tmRequest},          {"tmc", tmRequest},          {"tr", trRequest},
    {"trf", ignoreRequest},      {"trin", ignoreRequest},     {"trnt", ignoreRequest},
    {"troff", ignoreRequest},    {"uf", ignoreRequest},       {"unformat", ignoreRequest},
    {"vpt", ignoreRequest},      {"warn", ignoreRequest},     {"warnscale", ignoreRequest},
    {"wh", ignoreRequest},       {"while", notSupportedRequest},{"write", ignoreRequest},
    {"writec", ignoreRequest},   {"writem", ignoreRequest},
};

// The rows of kRequests by the first byte of their names: every control line
// searches the table, and most of them (the package's capitalised macros)
// find no row with their first byte.
struct RequestRange {
    uint16_t first = 0;
    uint16_t last = 0;
};
constexpr auto kRequestsByFirstByte = [] {
    std::array<RequestRange, 256> ranges{};
    for (size_t i = 0; i < std::size(kRequests); i++) {
        RequestRange& range = ranges[static_cast<unsigned char>(kRequests[i].name[0])];
        if (range.last == 0) range.first = static_cast<uint16_t>(i);
        range.last = static_cast<uint16_t>(i + 1);
    }
    return ranges;
}();

// The rows of kRequests whose names have one or two bytes, by those bytes
// (the second 0 for a one-byte name), as the row's index + 1 (0: no row):
// most control lines name one or two bytes, and are found at one step.
constexpr auto kShortRequests = [] {
    std::array<uint8_t, 65536> rows{};
    static_assert(std::size(kRequests) < 255);
    for (size_t i = 0; i < std::size(kRequests); i++) {
        const std::string_view name = kRequests[i].name;
        if (name.size() > 2) continue;
        size_t key = static_cast<size_t>(static_cast<unsigned char>(name[0])) << 8 |
                     (name.size() == 2 ? static_cast<unsigned char>(name[1]) : 0);
        if (rows[key] == 0) rows[key] = static_cast<uint8_t>(i + 1);
    }
    return rows;
}();

[[gnu::always_inline]] inline const RoffRequest* findRequest(std::string_view name) {
    if (name.empty()) return nullptr;
    if (name.size() <= 2) {
        size_t key = static_cast<size_t>(static_cast<unsigned char>(name[0])) << 8 |
                     (name.size() == 2 ? static_cast<unsigned char>(name[1]) : 0);
        const uint8_t row = kShortRequests[key];
        // The key holds both bytes; a two-byte name whose second byte is 0
        // has the key of a one-byte name: the length decides.
        return row != 0 && kRequests[row - 1].name.size() == name.size() ? &kRequests[row - 1] : nullptr;
    }
    const RequestRange& range = kRequestsByFirstByte[static_cast<unsigned char>(name[0])];
    for (size_t i = range.first; i < range.last; i++) {
        std::string_view row = kRequests[i].name;
        if (row.size() != name.size()) continue;
        size_t k = 1;
        while (k < row.size() && row[k] == name[k]) k++;
        if (k == row.size()) return &kRequests[i];
    }
    return nullptr;
}

// ---- Arguments for the rule table ---------------------------------------------------------

// A number as the rule table reads it: a sign, digits with a point, and one
// unit letter at most.
bool isPlainNumber(std::string_view arg) {
    size_t i = arg.size() > 0 && (arg[0] == '+' || arg[0] == '-') ? 1 : 0;
    bool hasDigit = false;
    for (; i < arg.size(); i++) {
        char c = arg[i];
        if ((c >= '0' && c <= '9') || c == '.') {
            hasDigit = true;
            continue;
        }
        return hasDigit && i + 1 == arg.size() && roffUnitFactor(c) != 0;
    }
    return hasDigit;
}

// An expression in a numeric argument (\w'...'u+2n, \n[x]u, 1+1) becomes the
// number it stands for in the argument's default unit, keeping a sign that
// makes it relative: true with that number in `number`, false when the
// argument stays as it is.
bool evaluateNumericArg(std::string_view arg, char unit, std::string& number) {
    if (arg.empty() || isPlainNumber(arg)) return false;
    double factor = roffUnitFactor(unit);
    if (factor == 0) return false;
    const char* p = arg.data();
    const char* end = p + arg.size();
    number.clear();
    if (*p == '+' || *p == '-') number = *p++;
    int64_t value = 0;
    // As in troff, the argument's number ends where its expression does:
    // what follows (the n of "2in") is left out, but for a tab stop's type
    // (480uR), which the rule reads after the number.
    if (!roffExpression(p, end, unit, value)) return false;
    if (end - p == 1 && (*p == 'R' || *p == 'C' || *p == 'L')) return false;
    char digits[64];
    std::snprintf(digits, sizeof digits, "%.4f%c", static_cast<double>(value) / factor, unit);
    number += digits;
    return true;
}

// Splits a line's arguments as roffSplitArgs does, into scratch.ruleText and
// scratch.ruleArgs, each argument followed by a blank.
void splitRuleArgs(std::string_view rest) {
    std::string& text = scratch.ruleText;
    std::vector<ArgSpan>& spans = scratch.ruleArgs;
    text.clear();
    spans.clear();
    size_t i = 0, n = rest.size();
    while (i < n) {
        while (i < n && (rest[i] == ' ' || rest[i] == '\t')) i++;
        if (i >= n) break;
        size_t start = text.size();
        if (rest[i] == '"') {
            // Runs between quotes and escapes go in whole.
            i++;
            size_t run = i;
            while (i < n) {
                if (rest[i] == '"') {
                    text.append(rest.data() + run, i - run);
                    if (i + 1 < n && rest[i + 1] == '"') {
                        text += '"';
                        i += 2;
                        run = i;
                        continue;
                    }
                    i++;
                    run = i;
                    break;
                }
                i += rest[i] == '\\' && i + 1 < n ? 2 : 1;
            }
            if (run < i) text.append(rest.data() + run, i - run);
        } else {
            size_t from = i;
            while (i < n && rest[i] != ' ' && rest[i] != '\t') i += rest[i] == '\\' && i + 1 < n ? 2 : 1;
            text.append(rest.data() + from, i - from);
        }
        spans.push_back(ArgSpan{start, text.size() - start});
        text += ' ';
    }
}

// Appends n characters to a rope as n RopeAppend calls would, at once when
// they fit.
void ropeAppendBlock(Rope* rope, const char* text, size_t n) {
    if (rope->text && n <= rope->capacity - rope->length) {
        std::memcpy(rope->text + rope->length, text, n);
        rope->length += static_cast<uint32_t>(n);
        rope->text[rope->length] = '\0';
        return;
    }
    for (size_t i = 0; i < n; i++) RopeAppend(rope, text[i]);
}

// Puts a native request's or macro's name and arguments into TVArgs for the
// rule table; `units` are the rule's argument units.
void setRuleArgs(const Line& line, const char* units) {
    const std::string_view name = line.name;
    splitRuleArgs(normalRest(line));
    std::vector<ArgSpan>& spans = scratch.ruleArgs;
    std::string& text = scratch.ruleText;
    // The rules take nine arguments: the ninth gets the rest, so that a
    // heading of many words keeps them all (one blank apart).
    constexpr size_t kRuleArgs = 9;
    if (spans.size() > kRuleArgs) {
        ArgSpan& ninth = spans[kRuleArgs - 1];
        ninth.length = spans.back().start + spans.back().length - ninth.start;
        spans.resize(kRuleArgs);
    }
    for (size_t k = 0; k < spans.size() && units[k] != '\0'; k++) {
        std::string_view arg(text.data() + spans[k].start, spans[k].length);
        if (evaluateNumericArg(arg, units[k], scratch.text)) {
            spans[k] = ArgSpan{text.size(), scratch.text.size()};
            text += scratch.text;
        }
    }
    TVArgsEmpty();
    tv.TVArgsUsed = std::max(tv.TVArgsUsed, static_cast<int>(std::min(spans.size() + 1, static_cast<size_t>(kArgRopes))));
    // The name as a C string, to its first NUL.
    const void* nul = std::memchr(name.data(), '\0', name.size());
    size_t nameLength = nul ? static_cast<size_t>(static_cast<const char*>(nul) - name.data()) : name.size();
    ropeAppendBlock(tv.TVArgs[0].get(), name.data(), nameLength);
    // Only a line that held one can give an argument an escape character.
    const char escape = line.mayHoldEscape ? escapeChar() : 0;
    for (size_t k = 0; k < spans.size(); k++) {
        Rope* rope = tv.TVArgs[k + 1 < kArgRopes ? k + 1 : kArgRopes - 1].get();
        const char* arg = text.data() + spans[k].start;
        const size_t length = spans[k].length;
        // Packages hand text arguments back as lines: one that begins
        // with a control character must stay text, as in troff, where
        // the macro sets it after a font change. Numbers (.5i) stay.
        const char first = length > 0 ? arg[0] : '\0';
        bool isControl = first == tv.TVControlChar || first == tv.TVNoBreakControlChar;
        if (isControl && !(length > 1 && arg[1] >= '0' && arg[1] <= '9')) {
            RopeAppend(rope, escapeChar() != 0 ? escapeChar() : '\\');
            RopeAppend(rope, '&');
        }
        // An escaped blank stays an escape whatever the package does
        // with the blanks of an argument.
        size_t i = 0;
        while (i < length) {
            const void* found = escape != 0 ? std::memchr(arg + i, escape, length - i) : nullptr;
            size_t at = found ? static_cast<size_t>(static_cast<const char*>(found) - arg) : length;
            ropeAppendBlock(rope, arg + i, at - i);
            if (at == length) break;
            RopeAppend(rope, escape);
            if (at + 1 < length) {
                RopeAppend(rope, arg[at + 1] == ' ' ? '~' : arg[at + 1]);
                i = at + 2;
            } else {
                i = at + 1;
            }
        }
    }
}

// The commonest macro line holds words alone: no quote, no escape character,
// at most nine words, none of them a number to evaluate. Its words go
// straight into TVArgs as setRuleArgs would put them; false, with nothing
// done, for any other line.
bool setWordArgs(std::string_view name, const char* p, const char* end, const char* units) {
    constexpr size_t kWords = 9;
    const char* starts[kWords];  // filled as far as `count`
    size_t lengths[kWords];
    size_t count = 0;
    for (;;) {
        skipBlanks(p, end);
        if (p == end) break;
        if (count == kWords) return false;
        const char* start = p;
        while (p < end && *p != ' ' && *p != '\t') {
            if (*p == '"') return false;
            p++;
        }
        starts[count] = start;
        lengths[count++] = static_cast<size_t>(p - start);
    }
    for (size_t k = 0; k < count && units[k] != '\0'; k++) {
        if (evaluateNumericArg(std::string_view(starts[k], lengths[k]), units[k], scratch.text)) return false;
    }
    for (char c : name) {  // one or two bytes
        if (c == '\0') return false;
    }
    TVArgsEmpty();
    tv.TVArgsUsed = std::max(tv.TVArgsUsed, static_cast<int>(count + 1));
    for (char c : name) RopeAppend(tv.TVArgs[0].get(), c);
    for (size_t k = 0; k < count; k++) {
        Rope* rope = tv.TVArgs[k + 1].get();
        // A word that begins with a control character stays text, as in
        // setRuleArgs.
        const std::string_view word(starts[k], lengths[k]);
        bool isControl = word[0] == tv.TVControlChar || word[0] == tv.TVNoBreakControlChar;
        if (isControl && !(word.size() > 1 && word[1] >= '0' && word[1] <= '9')) {
            RopeAppend(rope, escapeChar());
            RopeAppend(rope, '&');
        }
        ropeAppendBlock(rope, word.data(), word.size());
    }
    return true;
}

// ---- Macro calls ---------------------------------------------------------------------------

void callMacro(const Line& line, const std::string& body) {
    roffSplitArgs(normalRest(line), scratch.args);
    std::string expanded = roffSubstituteArgs(body, line.name, scratch.args.data(), scratch.args.size());
    if (!expanded.empty() && expanded.back() != kNewline) expanded += static_cast<char>(kNewline);
    TVUnread(expanded.data(), expanded.size());
}

}  // namespace

bool roffIsDefined(std::string_view name) {
    if (name.empty()) return false;
    if (roffStringGet(name) || findRequest(name)) return true;
    if (name.size() <= 2) {
        std::string key(name);
        return TVHasRule(key.c_str()) || TVStringGet(key.c_str());
    }
    return false;
}

void RoffDefine() {
    for (int c = 0; c < 256; c++) roff.tr[c] = static_cast<unsigned char>(c);
    tv.TVTranslationChanges++;
    // The table is searched by halves: keep it sorted.
    for (size_t i = 1; i < std::size(kRequests); i++) {
        if (kRequests[i - 1].name >= kRequests[i].name) std::abort();
    }
    roffSetRegister("%", 1);
    char resolved[PATH_MAX];
    std::string document = driver.documentPath.empty() ? "." : driver.documentPath;
    std::string folder = document;
    if (!driver.documentPath.empty()) {
        size_t slash = folder.rfind('/');
        folder = slash == std::string::npos ? "." : slash == 0 ? "/" : folder.substr(0, slash);
    }
    roff.rootFolder = realpath(folder.c_str(), resolved) ? resolved : folder;
    TVSetDocumentFolder(roff.rootFolder);
}

namespace {

// The escapes that interpolating a request's arguments replaces (strings,
// registers, arguments, widths, the checks of \B and \A, block braces): a
// line without them reads as it stands.
bool isInterpolatedEscape(char letter) {
    switch (letter) {
        case '*': case 'n': case '$': case 'w': case 'B': case 'A': case '{': case '}':
            return true;
        default:
            return false;
    }
}

// Whether the raw line's reader would read [p, end) as it stands: no comment,
// escaped period or joined line among its escapes, no byte 255 (the end of
// input). Says in `hasEscape` whether it holds an escape, and in
// `isInterpolated` whether interpolation would leave it as it is.
bool readsAsItStands(const char* p, const char* end, char escape, bool& hasEscape, bool& isInterpolated) {
    hasEscape = false;
    isInterpolated = true;
    if (static_cast<size_t>(end - p) > kMaxLineLength) return false;
    if (std::memchr(p, 0xFF, static_cast<size_t>(end - p))) return false;
    while (const void* at = std::memchr(p, escape, static_cast<size_t>(end - p))) {
        const char* e = static_cast<const char*>(at);
        if (e + 1 == end || e[1] == '"' || e[1] == '#' || e[1] == '.') return false;
        hasEscape = true;
        if (isInterpolatedEscape(e[1])) isInterpolated = false;
        p = e + 2;
    }
    return true;
}

// Takes a line of `size` bytes, its newline included, from the pushback or
// the input's buffer.
void takeLine(bool isPushed, size_t size) {
    if (isPushed) {
        TVTakePushedLine(size - 1);
    } else {
        TVTakeBuffered(size);
    }
}

// How a control line lying whole in the input's buffer, or in the pushback,
// was taken.
enum class Buffered {
    None,        // not so: nothing was read
    Dispatched,  // its rule's arguments are set and the line is read
    Read,        // the line is read, as the raw line's reader would give it
};

// Most control lines of a page call one of the package's macros, and most
// lines of a macro's body lie whole in the pushback. When such a line lies
// whole in the input's buffer or the pushback, reads as it stands and names
// no string, macro or request of this layer, but a rule, its arguments are
// set from it and the line is taken as read. Any other line that reads as it
// stands is copied to `raw`; the rest go the long way.
Buffered readBuffered(int controlChar, std::string& raw, bool& sawEscape, bool& isInterpolated) {
    const char escape = escapeChar();
    if (escape == 0) return Buffered::None;
    std::string_view buffered = TVBufferedLine();
    const bool isPushed = buffered.empty();
    if (isPushed) {
        if (!TVPushedLine(scratch.pushed)) return Buffered::None;
        buffered = scratch.pushed;
    }
    const char* p = buffered.data();
    const char* end = p + buffered.size() - 1;  // at the newline
    bool hasEscape = false;
    if (!readsAsItStands(p, end, escape, hasEscape, isInterpolated)) return Buffered::None;
    sawEscape = hasEscape;
    skipBlanks(p, end);
    // A rule's name has one or two bytes: a third ends the scan.
    const bool* stops = nameStops();
    auto endsName = [&](const char* q) { return q == end || stops[static_cast<unsigned char>(*q)]; };
    const char* nameStart = p;
    const size_t nameLength = endsName(p) ? 0 : endsName(p + 1) ? 1 : endsName(p + 2) ? 2 : 3;
    p += nameLength;
    const std::string_view name(nameStart, nameLength);
    const char* units = nullptr;
    if (!packageLine && nameLength > 0 && nameLength <= 2 && !(p < end && *p == escape) && !roffStringGet(name) &&
        !findRequest(name)) {
        const char key[3] = {name[0], nameLength == 2 ? name[1] : '\0', '\0'};
        units = TVRuleUnits(key);
    }
    if (!units) {
        raw.assign(buffered.data(), buffered.size() - 1);
        takeLine(isPushed, buffered.size());
        return Buffered::Read;
    }
    skipBlanks(p, end);
    if (!hasEscape && setWordArgs(name, p, end, units)) {
        takeLine(isPushed, buffered.size());
        return Buffered::Dispatched;
    }
    // Arguments that may be interpolated are read once the line is taken,
    // as the raw line's reader takes it (\n(.c counts its end); its bytes
    // stay where they are, the pushback's copy or the input's buffer, which
    // nothing refills before the next read.
    takeLine(isPushed, buffered.size());
    setRuleArgs(Line{name, std::string_view(p, static_cast<size_t>(end - p)), controlChar, hasEscape, isInterpolated},
                units);
    return Buffered::Dispatched;
}

}  // namespace

RoffLine RoffControlLine(int controlChar) {
    // Inside a copy region the classic reader takes every line as it is.
    if (tv.TVReturn.endCommand) return RoffLine::Classic;
    std::string& raw = scratch.raw;
    bool sawEscape = false, isInterpolated = false;
    const Buffered buffered = readBuffered(controlChar, raw, sawEscape, isInterpolated);
    if (buffered == Buffered::Dispatched) return RoffLine::Dispatch;
    if (buffered == Buffered::None) {
        readRawLine(raw, &sawEscape);
        isInterpolated = false;
    }
    const char* p = raw.data();
    const char* end = p + raw.size();
    skipBlanks(p, end);
    const char* nameStart = p;
    const char escape = escapeChar();
    while (p < end && *p != ' ' && *p != '\t' && !(escape != 0 && *p == escape)) p++;
    // A line of only the control character, a comment or the end of a block.
    if (p == nameStart) return RoffLine::Done;
    std::string_view name(nameStart, static_cast<size_t>(p - nameStart));
    skipBlanks(p, end);
    // Without an escape character the line's text is all it can hold; with
    // none set (eo), a backslash is still looked for.
    Line line{name, std::string_view(p, static_cast<size_t>(end - p)), controlChar, sawEscape || escape == 0,
              isInterpolated};

    if (const std::string* body = roffStringGet(name)) {
        // The body is read before anything the call does can redefine it.
        callMacro(line, *body);
        return RoffLine::Done;
    }
    // A package's own macros have capitalised names that no request has.
    if (packageLine && packageLine(name, normalRest(line))) return RoffLine::Done;
    if (const RoffRequest* request = findRequest(name)) {
        if (request->handler(line)) return RoffLine::Done;
    }
    // A name the rule table answers (two characters at most) has units, if
    // only "".
    const char* units = nullptr;
    if (name.size() <= 2) {
        char key[3] = {};
        std::memcpy(key, name.data(), name.size());
        units = TVRuleUnits(key);
    }
    if (units) {
        setRuleArgs(line, units);
        return RoffLine::Dispatch;
    }
    std::string text(name);
    roffWarnOnce("macro " + text, "Unknown macro or request " + text + "; line dropped.");
    return RoffLine::Done;
}

void RoffSetPackageLine(RoffPackageLine handler) { packageLine = handler; }

void roffDefineString(std::string_view name, std::string_view value) {
    roffStringSlot(name) = std::string(value);
}

bool RoffReadLine(std::string& out) { return readRawLine(out); }

bool RoffIsCall(std::string_view line, std::string_view name) {
    if (line.empty() || (line[0] != tv.TVControlChar && line[0] != tv.TVNoBreakControlChar)) return false;
    return firstWord(line.substr(1)) == name;
}

int64_t RoffTextWidth(std::string_view text) {
    std::string interpolated;
    roffInterpolate(text, interpolated, false);
    return roffWidth(interpolated);
}

void roffReset() {
    packageLine = nullptr;
    roff = RoffState{};
    scratch = Scratch{};
    preprocReset();
}
