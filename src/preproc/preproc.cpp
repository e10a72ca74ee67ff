// The layer's shared machinery: the table and equation formats a package
// declares, the reading of a region's lines, and the reading back of a
// region's paragraphs, one at a time, each started by the layer's own request.
#include <cstdio>
#include <string>
#include <utility>

#include "driver/driver.h"
#include "interp/interp.h"
#include "preproc/preproc.h"
#include "preproc/preprocstate.h"
#include "roff/roff.h"

PreprocState preproc;

void preprocWarnOnce(const std::string& key, const std::string& message) {
    if (!preproc.warned.insert(key).second) return;
    TVWarningPre();
    std::fprintf(stderr, "%s\n", message.c_str());
}

char escapeChar() { return tv.TVEscapeChar != 0 ? tv.TVEscapeChar : '\\'; }

bool isControlLine(std::string_view line) {
    return !line.empty() && (line[0] == tv.TVControlChar || line[0] == tv.TVNoBreakControlChar);
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    return text;
}

bool readRegion(std::initializer_list<std::string_view> ends, std::vector<std::string>& lines) {
    lines.clear();
    std::string raw;
    size_t bytes = 0;
    while (RoffReadLine(raw)) {
        for (std::string_view end : ends) {
            if (RoffIsCall(raw, end)) return true;
        }
        bytes += raw.size() + 1;
        if (bytes > kMaxRegionBytes) {
            preprocWarnOnce("region-length", "Table, equation or picture too long; rest dropped.");
            continue;
        }
        lines.push_back(raw);
    }
    return false;
}

namespace {

// A format made from `base`: rows of a table start at the left indent, one
// after the other; a display equation is centred.
Pgf derived(const Pgf& base, const char* tag, uint32_t alignment) {
    Pgf format = base;
    format.PgfTag = tag;
    format.mask |= bit(PgfBit::PgfTag) | bit(PgfBit::PgfAlignment) | bit(PgfBit::PgfFIndent);
    format.PgfAlignment = alignment;
    format.PgfFIndent = format.PgfLIndent;
    if (format.mask & bit(PgfBit::PgfSpBefore)) format.PgfSpBefore.value = 0;
    if (format.mask & bit(PgfBit::PgfSpAfter)) format.PgfSpAfter.value = 0;
    return format;
}

// A region's paragraphs start at the left indent in force.
Pgf atCurrentIndent(Pgf format) {
    if (tv.TVPgf.mask & bit(PgfBit::PgfLIndent)) {
        format.mask |= bit(PgfBit::PgfLIndent) | bit(PgfBit::PgfFIndent);
        format.PgfLIndent = tv.TVPgf.PgfLIndent;
        format.PgfFIndent = tv.TVPgf.PgfLIndent;
    }
    return format;
}

void restoreRegion(const Region& region) {
    tv.TVPgf = region.savedPgf;
    tv.TVIsFilling = region.savedFilling;
    std::copy(region.savedTabs.begin(), region.savedTabs.end(), tv.TVTabStops);
    tv.TVReturn.newPgf = true;
}

}  // namespace

void PreprocPackageFormats(const Pgf& body) {
    if (!driver.isFull) return;
    preproc.tableFormat = derived(body, "table", kAlignLeft);
    preproc.equationFormat = derived(body, "equation", kAlignCenter);
    preproc.hasFormats = true;
    TVPgfOut(preproc.tableFormat);
    TVPgfOut(preproc.equationFormat);
}

Pgf tableFormat() {
    return atCurrentIndent(preproc.hasFormats ? preproc.tableFormat
                                              : derived(tv.TVPgf, "table", kAlignLeft));
}

Pgf equationFormat() {
    return atCurrentIndent(preproc.hasFormats ? preproc.equationFormat
                                              : derived(tv.TVPgf, "equation", kAlignCenter));
}

void beginRegion(Region&& region) {
    if (region.blocks.empty()) return;
    if (preproc.regions.size() >= kMaxRegionDepth) {
        preprocWarnOnce("region-depth", "Tables and equations nested too deep; inner ones dropped.");
        return;
    }
    region.savedPgf = tv.TVPgf;
    region.savedFilling = tv.TVIsFilling;
    std::copy(tv.TVTabStops, tv.TVTabStops + kTabStopCount, region.savedTabs.begin());
    preproc.regions.push_back(std::move(region));
    PreprocStep();
}

void PreprocStep() {
    if (preproc.regions.empty()) return;
    Region& region = preproc.regions.back();
    if (region.next >= region.blocks.size()) {
        restoreRegion(region);
        preproc.regions.pop_back();
        return;
    }
    const Block& block = region.blocks[region.next++];
    tv.TVPgf = region.format;
    tv.TVIsFilling = true;
    if (block.hasTabs) std::copy(block.tabs.begin(), block.tabs.end(), tv.TVTabStops);
    tv.TVReturn.newPgf = true;
    // The paragraph's text, then the request that starts the next one.
    std::string text = block.text;
    text += '\n';
    text += tv.TVControlChar;
    text += kPreprocStep;
    text += '\n';
    TVUnread(text.data(), text.size());
}

void preprocReset() {
    preproc = PreprocState{};
}
