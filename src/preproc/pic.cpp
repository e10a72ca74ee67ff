// Pictures (pic): the picture's source, its labels among it, never reaches
// the text. An empty anchored frame keeps its room in the document, as tall
// as the PS line says, so that the picture can be drawn there again.
#include <cstdint>
#include <string_view>
#include <vector>

#include "driver/driver.h"
#include "interp/interp.h"
#include "preproc/preproc.h"
#include "preproc/preprocstate.h"
#include "roff/roff.h"

namespace {

// A picture whose PS line gives no height is taken to be this tall.
constexpr float kDefaultHeight = 1.0f;
// And none is taken to be taller than this: a frame stays on a page.
constexpr float kMaxHeight = 22.0f;

// The numbers of the PS line (width, then the height it may not exceed), in
// inches; stops at the first word that is none.
std::vector<double> numbers(std::string_view args) {
    std::vector<double> values;
    const char* p = args.data();
    const char* end = p + args.size();
    while (values.size() < 2) {
        while (p < end && (*p == ' ' || *p == '\t')) p++;
        int64_t value = 0;
        if (p >= end || !roffExpression(p, end, 'i', value)) break;
        values.push_back(static_cast<double>(value) / 300.0);
    }
    return values;
}

}  // namespace

void PreprocPicture(std::string_view args) {
    args = trimmed(args);
    // ".PS <file": pic reads the picture from the file; no region follows.
    if (args.empty() || args[0] != '<') {
        std::vector<std::string> lines;
        readRegion({"PE", "PF"}, lines);
    }
    std::vector<double> values = numbers(args);
    // With one number it is the height; with two the second is.
    float height = values.empty() ? kDefaultHeight : static_cast<float>(values.back());
    if (!(height > 0)) height = kDefaultHeight;
    if (height > kMaxHeight) height = kMaxHeight;
    AFrameNew& frame = driver.aFrameNew;
    frame.height = frame.isPending ? frame.height + height : height;
    if (frame.height > kMaxHeight) frame.height = kMaxHeight;
    frame.isPending = true;
    tv.TVReturn.newPgf = true;
}
