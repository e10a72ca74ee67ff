// The prelude, the paragraph catalog and the Page and Document statements.
// The catalog keeps every paragraph format of the document by name: the
// packages declare theirs, and a paragraph whose format matches none of them
// gets a new entry, numbered when its tag is already taken.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "writer/put.h"
#include "writer/textstate.h"
#include "writer/vifout.h"

namespace {

// One paragraph format of the catalog. The entry owns its name (the copy's
// PgfTag points at it) and its own copy of the tab stops; the other strings of
// the copy are shared with the format it was made from. Entries are held by
// pointer so that they never move once made.
struct CatalogEntry {
    Pgf pgf;
    std::string name;
    std::vector<TabStop> tabs;
};

// The properties a paragraph's lookup compares: its own set properties but
// the tag, and, when it sets the font, the font's set properties. An entry
// can match a paragraph only if it sets all of them (and possibly more).
struct Shape {
    uint32_t pgfMask = 0;
    uint32_t fontMask = 0;
    // The entries that set every property of the shape, by a hash of their
    // values of those properties: indices into the catalog, oldest first.
    std::unordered_map<uint64_t, std::vector<uint32_t>> buckets;
};

// A paragraph format looked up before, with what the look-up found: its own
// copy of the format (its tag and tab stops; the other texts are shared, as an
// entry's are), the entry found and the bucket where newer entries that
// could match it land. Documents repeat a handful of formats thousands of
// times; the answer holds until an entry of that bucket is made.
struct RecentFormat {
    Pgf pgf;
    std::string tag;
    std::vector<TabStop> tabs;
    std::vector<uint32_t>* bucket = nullptr;  // null: the slot is free
    uint32_t answer = 0;   // an index into the catalog
    uint32_t checked = 0;  // the catalog's size when the answer was known right
};
constexpr size_t kRecentSlots = 256;  // in pairs: two formats may share a place

struct CatalogState {
    std::vector<std::unique_ptr<CatalogEntry>> theCatalog;  // the newest at the back
    unsigned deviationNo = 0;  // numbers the variants of all tags alike; only grows
    // The look-up structures: every entry's exact name, the shapes seen with
    // their buckets, and the formats looked up last.
    std::unordered_set<std::string_view> names;
    std::vector<std::unique_ptr<Shape>> shapes;
    std::unordered_map<uint64_t, uint32_t> shapeOf;  // both masks -> index into shapes
    // Made at the first look-up, each slot at its first use: a page with
    // few paragraphs pays for few.
    std::vector<std::unique_ptr<RecentFormat>> recent;
    // Without memory for the structures above the catalog is searched entry
    // by entry, which needs none; once set, it stays so until the reset.
    bool isWalking = false;
    std::string scratch;  // the key being built
};
CatalogState s;

const char* tagOf(const Pgf& format) { return format.PgfTag ? format.PgfTag : ""; }

// Whether the paragraph `format` sets a property that `entry` does not match
// (unset in the entry or holding another value); the tag is not compared.
// Stops at the first difference.
bool VifPgfDiff(const Pgf& entry, const Pgf& format) {
    if (differsWorkHorse(&entry, &format, pgf, bit(PgfBit::PgfTag))) return true;
    // Both set the font here if the paragraph does, or the line above said so.
    if ((format.mask & bit(PgfBit::font)) && differsWorkHorse(&entry.font, &format.font, font))
        return true;
    if (format.mask & bit(PgfBit::tabStops)) {
        uint32_t n = format.PgfNumTabs;
        if (entry.PgfNumTabs != n) return true;
        if (n > 0 && !(entry.tabStops && format.tabStops &&
                       std::memcmp(entry.tabStops, format.tabStops, n * sizeof(TabStop)) == 0))
            return true;
    }
    return false;
}

bool matches(const CatalogEntry& e, const char* tag, size_t tagLength, const Pgf& format) {
    return e.name.compare(0, tagLength, tag) == 0 && !VifPgfDiff(e.pgf, format);
}

// Tab stops counted but missing differ from everything, themselves included:
// such a paragraph never matches an entry, so its content names no answer.
bool hasMissingStops(const Pgf& p) {
    return (p.mask & bit(PgfBit::tabStops)) && p.PgfNumTabs > 0 && p.tabStops == nullptr;
}

// ---- Keys -------------------------------------------------------------------
// A key lays out values byte for byte as the comparison sees them: numbers and
// dimensions as stored, texts by content up to their end (a missing text as an
// empty one), tab stops as their count and bytes.

void appendRaw(std::string& key, const void* p, size_t n) { key.append(static_cast<const char*>(p), n); }

void appendText(std::string& key, const char* text) {
    if (text) key.append(text);
    key.push_back('\0');
}

// The values of the set properties of `mask` in `record`, in table order;
// nested properties are left to the caller.
void appendValues(std::string& key, const void* record, uint32_t mask, const PropertyEntry* table) {
    const auto* base = static_cast<const unsigned char*>(record);
    for (uint32_t m = mask; m != 0; m &= m - 1) {
        const PropertyEntry& e = table[__builtin_ctz(m)];
        const unsigned char* field = base + e.offset;
        switch (e.kind) {
        case ValueKind::String: {
            const char* text;
            std::memcpy(&text, field, sizeof text);
            appendText(key, text);
            break;
        }
        case ValueKind::Integer:
        case ValueKind::Integer2:
        case ValueKind::Boolean:
        case ValueKind::Enumeration: appendRaw(key, field, sizeof(uint32_t)); break;
        case ValueKind::Dimension1: appendRaw(key, field, sizeof(Dimension)); break;
        case ValueKind::Dimension2:
        case ValueKind::Dimension2b: appendRaw(key, field, 2 * sizeof(Dimension)); break;
        case ValueKind::Dimension4: appendRaw(key, field, 4 * sizeof(Dimension)); break;
        case ValueKind::Nested: break;
        }
    }
}

// The values of `p` that a shape compares. An entry that matches a paragraph
// of that shape has the same values, hence the same bytes.
void appendShapeValues(std::string& key, const Pgf& p, uint32_t pgfMask, uint32_t fontMask) {
    appendValues(key, &p, pgfMask, pgf);
    if (pgfMask & bit(PgfBit::font)) appendValues(key, &p.font, fontMask, font);
    if (pgfMask & bit(PgfBit::tabStops)) {
        appendRaw(key, &p.PgfNumTabs, sizeof p.PgfNumTabs);
        if (p.PgfNumTabs > 0) {
            key.push_back(p.tabStops ? '\1' : '\0');
            if (p.tabStops) appendRaw(key, p.tabStops, p.PgfNumTabs * sizeof(TabStop));
        }
    }
}

uint64_t hashBytes(const char* p, size_t n, uint64_t h) {
    constexpr uint64_t kMultiplier = 0x9E3779B97F4A7C15u;
    for (; n >= 8; p += 8, n -= 8) {
        uint64_t w;
        std::memcpy(&w, p, sizeof w);
        h = (h ^ w) * kMultiplier;
        h ^= h >> 32;
    }
    uint64_t w = 0;
    std::memcpy(&w, p, n);
    h = (h ^ w ^ (uint64_t{n} << 56)) * kMultiplier;
    return h ^ (h >> 29);
}

// The comparison looks at no bit past its tables' last rows.
constexpr uint32_t kPgfBits = bit(PgfBit::tabStops + 1) - 1;
constexpr uint32_t kFontBits = bit(FontBit::FNoAdvance + 1) - 1;

uint32_t shapePgfMask(const Pgf& p) { return p.mask & kPgfBits & ~bit(PgfBit::PgfTag); }
uint32_t shapeFontMask(const Pgf& p) { return (p.mask & bit(PgfBit::font)) ? p.font.mask & kFontBits : 0; }

// The hash of an entry's values for a shape it holds all properties of.
uint64_t shapeHash(const Pgf& p, const Shape& shape) {
    s.scratch.clear();
    appendShapeValues(s.scratch, p, shape.pgfMask, shape.fontMask);
    return hashBytes(s.scratch.data(), s.scratch.size(), 0);
}

bool holdsShape(const Pgf& p, const Shape& shape) {
    if ((p.mask & shape.pgfMask) != shape.pgfMask) return false;
    return !(shape.pgfMask & bit(PgfBit::font)) || (p.font.mask & shape.fontMask) == shape.fontMask;
}

// Files entry `index` under every shape it holds. May throw std::bad_alloc.
void indexEntry(uint32_t index) {
    const Pgf& p = s.theCatalog[index]->pgf;
    for (auto& shape : s.shapes)
        if (holdsShape(p, *shape)) shape->buckets[shapeHash(p, *shape)].push_back(index);
}

// The shape of a paragraph, made and filled with the entries the first time it
// is seen. May throw std::bad_alloc.
Shape& shapeFor(const Pgf& format) {
    uint32_t pgfMask = shapePgfMask(format), fontMask = shapeFontMask(format);
    uint64_t both = uint64_t{pgfMask} << 32 | fontMask;
    auto found = s.shapeOf.find(both);
    if (found != s.shapeOf.end()) return *s.shapes[found->second];
    auto shape = std::make_unique<Shape>();
    shape->pgfMask = pgfMask;
    shape->fontMask = fontMask;
    for (uint32_t i = 0; i < s.theCatalog.size(); ++i) {
        const Pgf& p = s.theCatalog[i]->pgf;
        if (holdsShape(p, *shape)) shape->buckets[shapeHash(p, *shape)].push_back(i);
    }
    s.shapes.push_back(std::move(shape));
    s.shapeOf.emplace(both, static_cast<uint32_t>(s.shapes.size() - 1));
    return *s.shapes.back();
}

// Gives up the look-up structures for the walk, which needs no memory.
template <class T>
void release(T& storage) {
    T().swap(storage);
}

void startWalking() {
    s.isWalking = true;
    release(s.names);
    release(s.shapes);
    release(s.shapeOf);
    release(s.recent);
    release(s.scratch);
}

// A pair of slots for the format, from some of what makes two formats equal:
// equal formats always share a pair. The first tab stop counts: formats that
// differ only in their stops are common, as the stops move with the left
// indent of the paragraph before. The tag counts by its first two bytes,
// which tell the packages' formats apart without a walk along the text.
size_t pairOf(const Pgf& format) {
    constexpr uint64_t kMultiplier = 0x9E3779B97F4A7C15u;
    const auto* tag = reinterpret_cast<const unsigned char*>(tagOf(format));
    const uint32_t tagHead = tag[0] == 0 ? 0u : tag[0] | uint32_t{tag[1]} << 8;
    uint32_t lIndent, fIndent, firstStop = 0;
    std::memcpy(&lIndent, &format.PgfLIndent.value, sizeof lIndent);
    std::memcpy(&fIndent, &format.PgfFIndent.value, sizeof fIndent);
    if (format.PgfNumTabs > 0 && format.tabStops)
        std::memcpy(&firstStop, &format.tabStops[0].TSX.value, sizeof firstStop);
    uint64_t h = (uint64_t{format.mask} << 32 | format.font.mask) * kMultiplier;
    h = (h ^ (uint64_t{lIndent} << 32 | fIndent)) * kMultiplier;
    h = (h ^ (uint64_t{firstStop} << 32 | tagHead << 16 | format.PgfAlignment << 8 | format.PgfNumTabs)) *
        kMultiplier;
    return static_cast<size_t>(h >> 40) % (kRecentSlots / 2);
}

bool sameText(const char* a, const char* b) {
    return a == b || std::strcmp(a ? a : "", b ? b : "") == 0;
}

// Whether two formats hold the same values in every field, set or not (the
// texts by content): then they are one format to the look-up. Stricter than
// the look-up itself, which a format that only differs in an unset field
// merely costs a longer way.
bool sameContent(const Pgf& a, const Pgf& b) {
    if (a.mask != b.mask || a.PgfNumTabs != b.PgfNumTabs || a.font.mask != b.font.mask) return false;
    // Three runs of numbers, padding left out.
    constexpr size_t kFlags = offsetof(Pgf, PgfSplit) + sizeof(uint32_t) - offsetof(Pgf, PgfAlignment);
    constexpr size_t kSizes = offsetof(Pgf, PgfSpAfter) + sizeof(Dimension) - offsetof(Pgf, PgfTolerance);
    constexpr size_t kFont = offsetof(Font, FNoAdvance) + sizeof(uint32_t) - offsetof(Font, FSize);
    if (std::memcmp(&a.PgfAlignment, &b.PgfAlignment, kFlags) != 0 ||
        std::memcmp(&a.PgfTolerance, &b.PgfTolerance, kSizes) != 0 ||
        std::memcmp(&a.font.FSize, &b.font.FSize, kFont) != 0)
        return false;
    if (!sameText(a.PgfTag, b.PgfTag) || !sameText(a.font.FFamily, b.font.FFamily) ||
        !sameText(a.PgfNumFormat, b.PgfNumFormat) || !sameText(a.PgfNumString, b.PgfNumString))
        return false;
    if (a.PgfNumTabs == 0 || a.tabStops == b.tabStops) return true;
    return a.tabStops && b.tabStops && std::memcmp(a.tabStops, b.tabStops, a.PgfNumTabs * sizeof(TabStop)) == 0;
}

// Keeps a format's answer in its slot. May throw std::bad_alloc.
void remember(RecentFormat& slot, const Pgf& format, std::vector<uint32_t>* bucket, uint32_t answer) {
    slot.bucket = nullptr;
    slot.pgf = format;
    slot.tag = tagOf(format);
    slot.pgf.PgfTag = slot.tag.c_str();
    if (format.PgfNumTabs > 0 && format.tabStops) {
        slot.tabs.assign(format.tabStops, format.tabStops + format.PgfNumTabs);
        slot.pgf.tabStops = slot.tabs.data();
    }
    slot.answer = answer;
    slot.checked = static_cast<uint32_t>(s.theCatalog.size());
    slot.bucket = bucket;
}

// Adds one entry holding a copy of `format`. Unless `plain`, a tag that some
// entry already has as its exact name gets the next deviation number. Returns
// the entry's name, or null (adding nothing) when memory runs out.
const char* catalogNew(const Pgf& format, bool plain) {
    const char* tag = tagOf(format);
    unsigned number = 0;
    if (!plain) {
        bool taken = false;
        if (!s.isWalking) {
            taken = s.names.count(std::string_view(tag)) != 0;
        } else {
            for (const auto& e : s.theCatalog)
                if (e->name == tag) {
                    taken = true;
                    break;
                }
        }
        if (taken) number = ++s.deviationNo;  // drawn before any memory is taken
    }
    try {
        auto entry = std::make_unique<CatalogEntry>();
        entry->pgf = format;
        entry->name = tag;
        if (number != 0) entry->name += std::to_string(number);
        entry->pgf.PgfTag = entry->name.c_str();
        if ((format.mask & bit(PgfBit::tabStops)) && format.PgfNumTabs > 0 && format.tabStops) {
            entry->tabs.assign(format.tabStops, format.tabStops + format.PgfNumTabs);
            entry->pgf.tabStops = entry->tabs.data();
        }
        s.theCatalog.push_back(std::move(entry));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    const std::string& name = s.theCatalog.back()->name;
    if (!s.isWalking) {
        try {
            s.names.insert(std::string_view(name));
            indexEntry(static_cast<uint32_t>(s.theCatalog.size() - 1));
        } catch (const std::bad_alloc&) {
            startWalking();
        }
    }
    return name.c_str();
}

// The newest entry that matches, found entry by entry; else a new entry.
const char* walk(const Pgf& format) {
    const char* tag = tagOf(format);
    size_t tagLength = std::strlen(tag);
    for (auto it = s.theCatalog.rbegin(); it != s.theCatalog.rend(); ++it)
        if (matches(**it, tag, tagLength, format)) return (*it)->name.c_str();
    return catalogNew(format, false);
}

// The answer a slot holds for the format it keeps, brought up to date with
// the entries made since in its bucket: the newest that matches wins.
const char* recentAnswer(RecentFormat& slot, const Pgf& format) {
    const uint32_t size = static_cast<uint32_t>(s.theCatalog.size());
    if (slot.checked != size) {
        const char* tag = tagOf(format);
        const size_t tagLength = std::strlen(tag);
        const std::vector<uint32_t>& bucket = *slot.bucket;
        for (auto it = bucket.rbegin(); it != bucket.rend() && *it >= slot.checked; ++it)
            if (matches(*s.theCatalog[*it], tag, tagLength, format)) {
                slot.answer = *it;
                break;
            }
        slot.checked = size;
    }
    return s.theCatalog[slot.answer]->name.c_str();
}

}  // namespace

void catalogReset() { s = CatalogState{}; }

unsigned VifPreludeOut(FILE* stream, const char* generator) {
    if (fprintf(stream, "<VIFFile 1.0> # Generated by %s version %s\n", generator, kVifVersion) < 0)
        return 0;
    return fputs("include(vif_read.m4)\n", stream) != EOF;
}

const char* VifCatalogNew(const Pgf& format) { return catalogNew(format, true); }

// The newest entry equal to the format whose name begins with its tag (so
// "block pgf" may be named "block pgf" or "block pgf2"), else a new entry.
// A format looked up just before costs a comparison and a look at the
// entries made since that could match it; another, a look at the entries
// that hold its properties with the same values.
const char* VifCatalogName(const Pgf& format) {
    if (s.isWalking || hasMissingStops(format)) return walk(format);
    // The pair holds the format it answered last first.
    const size_t first = 2 * pairOf(format);
    if (!s.recent.empty()) {
        for (size_t i = first; i < first + 2; ++i) {
            RecentFormat* slot = s.recent[i].get();
            if (slot == nullptr || slot->bucket == nullptr || !sameContent(slot->pgf, format)) continue;
            if (i != first) std::swap(s.recent[first], s.recent[i]);
            return recentAnswer(*slot, format);
        }
    }
    try {
        if (s.recent.empty()) s.recent.resize(kRecentSlots);
        // The older format of the pair gives its slot to this one.
        std::swap(s.recent[first], s.recent[first + 1]);
        if (!s.recent[first]) s.recent[first] = std::make_unique<RecentFormat>();
        RecentFormat& slot = *s.recent[first];
        const char* tag = tagOf(format);
        size_t tagLength = std::strlen(tag);
        Shape& shape = shapeFor(format);
        std::vector<uint32_t>* bucket = &shape.buckets[shapeHash(format, shape)];
        for (auto it = bucket->rbegin(); it != bucket->rend(); ++it)
            if (matches(*s.theCatalog[*it], tag, tagLength, format)) {
                remember(slot, format, bucket, *it);
                return s.theCatalog[*it]->name.c_str();
            }
        const char* name = catalogNew(format, false);
        if (name != nullptr && !s.isWalking)
            remember(slot, format, bucket, static_cast<uint32_t>(s.theCatalog.size() - 1));
        return name;
    } catch (const std::bad_alloc&) {
        startWalking();
        return walk(format);
    }
}

unsigned VifPgfOut(const Pgf& format, FILE* stream) {
    if (!writer::put("<Pgf\n", stream)) return 0;
    if (!outWorkHorse(&format, stream, 1, pgf)) return 0;
    if (format.mask & bit(PgfBit::font)) {
        if (!writer::put("\t<Font\n", stream)) return 0;
        if (!outWorkHorse(&format.font, stream, 2, font)) return 0;
        if (!writer::put("\t>\n", stream)) return 0;
    }
    if (format.mask & bit(PgfBit::tabStops)) {
        // A count without an array is written like an empty list.
        if (format.PgfNumTabs == 0 || format.tabStops == nullptr) {
            if (!writer::put("\t<PgfNumTabs 0>\n", stream)) return 0;
        } else {
            for (uint32_t i = 0; i < format.PgfNumTabs; ++i) {
                if (!writer::put("\t<TabStop\n", stream)) return 0;
                if (!outWorkHorse(&format.tabStops[i], stream, 2, tabStop)) return 0;
                if (!writer::put("\t>\n", stream)) return 0;
            }
        }
    }
    return writer::put(">\n", stream);
}

unsigned VifCatalogOut(FILE* stream) {
    if (!writer::put("<Catalog\n", stream)) return 0;
    for (auto it = s.theCatalog.rbegin(); it != s.theCatalog.rend(); ++it) {
        Pgf& entry = (*it)->pgf;
        // PgfTag to PgfSpBefore are always written, set or not.
        entry.mask |= 0xFFFFu;
        if (!VifPgfOut(entry, stream)) return 0;
    }
    return writer::put("> # End Catalog\n", stream);
}

unsigned VifPageOut(Page& page, FILE* stream) {
    if (!writer::put("<Page\n", stream)) return 0;
    if (page.mask & bit(PageBit::HFFont)) {
        if (!writer::put("\t<HFFont\n", stream)) return 0;
        if (!outWorkHorse(&page.HFFont, stream, 2, font)) return 0;
        if (!writer::put("\t>\n", stream)) return 0;
    }
    if (page.mask & bit(PageBit::PageNum)) {
        int written = (page.mask & bit(PageBit::PageNum2))
                          ? fprintf(stream, "\t<PageNum %d.%d>\n", page.PageNum, page.PageNum2)
                          : fprintf(stream, "\t<PageNum %d>\n", page.PageNum);
        if (written < 0) return 0;
    }
    for (Dimension& d : page.HFMargins) laserWriterRound(d);
    if (!outWorkHorse(&page, stream, 1, ::page)) return 0;
    return writer::put(">\n", stream);
}

unsigned VifDocumentOut(Document& doc, FILE* stream) {
    if (!writer::put("<Document\n", stream)) return 0;
    for (Dimension& d : doc.DMargins) laserWriterRound(d);
    doc.mask &= ~bit(DocumentBit::DRelativeTabs);  // never written
    if (!outWorkHorse(&doc, stream, 1, document)) return 0;
    return writer::put(">\n", stream);
}
