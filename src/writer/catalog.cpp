// The prelude, the paragraph catalog and the Page and Document statements.
// The catalog keeps every paragraph format of the document by name: the
// packages declare theirs, and a paragraph whose format matches none of them
// gets a new entry, numbered when its tag is already taken.
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

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

// A paragraph format looked up before, with the name the walk found for it.
// Documents repeat a handful of formats thousands of times; the answer holds
// as long as the catalog has not grown, since entries never change.
struct RecentName {
    CatalogEntry format;  // an own copy of the format: its tag and tab stops
    const char* name = nullptr;
    size_t catalogSize = 0;  // the catalog's size when found; 0: slot unused
};
constexpr size_t kRecentSlots = 64;

struct CatalogState {
    std::vector<std::unique_ptr<CatalogEntry>> theCatalog;  // the newest at the back
    unsigned deviationNo = 0;  // numbers the variants of all tags alike; only grows
    std::vector<RecentName> recent = std::vector<RecentName>(kRecentSlots);
};
CatalogState s;

const char* tagOf(const Pgf& format) { return format.PgfTag ? format.PgfTag : ""; }

// Adds one entry holding a copy of `format`. Unless `plain`, a tag that some
// entry already has as its exact name gets the next deviation number. Returns
// the entry's name, or null (adding nothing) when memory runs out.
const char* catalogNew(const Pgf& format, bool plain) {
    const char* tag = tagOf(format);
    unsigned number = 0;
    if (!plain) {
        for (const auto& e : s.theCatalog)
            if (e->name == tag) {
                number = ++s.deviationNo;  // drawn before any memory is taken
                break;
            }
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
    return s.theCatalog.back()->name.c_str();
}

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

// A slot for the format, from some of what makes two formats equal: equal
// formats always share a slot.
size_t slotOf(const Pgf& format) {
    uint64_t h = 1469598103934665603u ^ format.mask;
    for (const char* p = tagOf(format); *p; ++p) h = (h ^ static_cast<unsigned char>(*p)) * 1099511628211u;
    auto mix = [&h](uint32_t v) { h = (h ^ v) * 1099511628211u; };
    if (format.mask & bit(PgfBit::PgfLIndent)) {
        uint32_t v;
        std::memcpy(&v, &format.PgfLIndent.value, sizeof v);
        mix(v);
    }
    if (format.mask & bit(PgfBit::font)) mix(format.font.mask);
    return static_cast<size_t>(h ^ (h >> 29)) % kRecentSlots;
}

// Whether two formats set the same properties to the same values, tags included.
bool sameFormat(const Pgf& a, const Pgf& b) {
    if (a.mask != b.mask || std::strcmp(tagOf(a), tagOf(b)) != 0) return false;
    if ((a.mask & bit(PgfBit::font)) && a.font.mask != b.font.mask) return false;
    return !VifPgfDiff(a, b);
}

void remember(RecentName& slot, const Pgf& format, const char* name) {
    try {
        CatalogEntry& copy = slot.format;
        copy.pgf = format;
        copy.name = tagOf(format);
        copy.pgf.PgfTag = copy.name.c_str();
        copy.pgf.tabStops = nullptr;
        if ((format.mask & bit(PgfBit::tabStops)) && format.PgfNumTabs > 0 && format.tabStops) {
            copy.tabs.assign(format.tabStops, format.tabStops + format.PgfNumTabs);
            copy.pgf.tabStops = copy.tabs.data();
        }
        slot.name = name;
        slot.catalogSize = s.theCatalog.size();
    } catch (const std::bad_alloc&) {
        slot.catalogSize = 0;  // without memory the walk answers next time too
    }
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
// "block pgf" may be named "block pgf" or "block pgf2"), else a new entry. The
// walk is linear in the size of the catalog.
const char* VifCatalogName(const Pgf& format) {
    RecentName& slot = s.recent[slotOf(format)];
    if (slot.catalogSize != 0 && slot.catalogSize == s.theCatalog.size() &&
        sameFormat(slot.format.pgf, format))
        return slot.name;
    const char* tag = tagOf(format);
    size_t tagLength = std::strlen(tag);
    for (auto it = s.theCatalog.rbegin(); it != s.theCatalog.rend(); ++it) {
        const CatalogEntry& e = **it;
        if (e.name.compare(0, tagLength, tag) == 0 && !VifPgfDiff(e.pgf, format)) {
            remember(slot, format, e.name.c_str());
            return e.name.c_str();
        }
    }
    const char* name = catalogNew(format, false);
    if (name) remember(slot, format, name);
    return name;
}

unsigned VifPgfOut(const Pgf& format, FILE* stream) {
    if (fputs("<Pgf\n", stream) == EOF) return 0;
    if (!outWorkHorse(&format, stream, 1, pgf)) return 0;
    if (format.mask & bit(PgfBit::font)) {
        if (fputs("\t<Font\n", stream) == EOF) return 0;
        if (!outWorkHorse(&format.font, stream, 2, font)) return 0;
        if (fputs("\t>\n", stream) == EOF) return 0;
    }
    if (format.mask & bit(PgfBit::tabStops)) {
        // A count without an array is written like an empty list.
        if (format.PgfNumTabs == 0 || format.tabStops == nullptr) {
            if (fputs("\t<PgfNumTabs 0>\n", stream) == EOF) return 0;
        } else {
            for (uint32_t i = 0; i < format.PgfNumTabs; ++i) {
                if (fputs("\t<TabStop\n", stream) == EOF) return 0;
                if (!outWorkHorse(&format.tabStops[i], stream, 2, tabStop)) return 0;
                if (fputs("\t>\n", stream) == EOF) return 0;
            }
        }
    }
    return fputs(">\n", stream) != EOF;
}

unsigned VifCatalogOut(FILE* stream) {
    if (fputs("<Catalog\n", stream) == EOF) return 0;
    for (auto it = s.theCatalog.rbegin(); it != s.theCatalog.rend(); ++it) {
        Pgf& entry = (*it)->pgf;
        // PgfTag to PgfSpBefore are always written, set or not.
        entry.mask |= 0xFFFFu;
        if (!VifPgfOut(entry, stream)) return 0;
    }
    return fputs("> # End Catalog\n", stream) != EOF;
}

unsigned VifPageOut(Page& page, FILE* stream) {
    if (fputs("<Page\n", stream) == EOF) return 0;
    if (page.mask & bit(PageBit::HFFont)) {
        if (fputs("\t<HFFont\n", stream) == EOF) return 0;
        if (!outWorkHorse(&page.HFFont, stream, 2, font)) return 0;
        if (fputs("\t>\n", stream) == EOF) return 0;
    }
    if (page.mask & bit(PageBit::PageNum)) {
        int written = (page.mask & bit(PageBit::PageNum2))
                          ? fprintf(stream, "\t<PageNum %d.%d>\n", page.PageNum, page.PageNum2)
                          : fprintf(stream, "\t<PageNum %d>\n", page.PageNum);
        if (written < 0) return 0;
    }
    for (Dimension& d : page.HFMargins) laserWriterRound(d);
    if (!outWorkHorse(&page, stream, 1, ::page)) return 0;
    return fputs(">\n", stream) != EOF;
}

unsigned VifDocumentOut(Document& doc, FILE* stream) {
    if (fputs("<Document\n", stream) == EOF) return 0;
    for (Dimension& d : doc.DMargins) laserWriterRound(d);
    doc.mask &= ~bit(DocumentBit::DRelativeTabs);  // never written
    if (!outWorkHorse(&doc, stream, 1, document)) return 0;
    return fputs(">\n", stream) != EOF;
}
