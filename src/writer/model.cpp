// The document model's property tables and the two generic routines they
// drive: outWorkHorse writes the set properties of a record as statements,
// diffWorkHorse finds the properties in which one record differs from another.
#include "writer/model.h"

#include <cstring>

#include "writer/put.h"

using namespace writer;

// ---- Value-name tables ------------------------------------------------------
// Each ends with a null entry so that the writer can tell an index past the
// table from a name (see valueName below).
const char* const boolean2String[] = {"No", "Yes", nullptr};
const char* const TSType2String[] = {"Left", "Center", "Right", "Decimal", nullptr};
const char* const PgfAlignment2String[] = {"Left", "Center", "Right", "LeftRight", nullptr};
const char* const PageType2String[] = {"MasterPage", "BodyPage", nullptr};
const char* const Units2String[] = {"Uin", "Ucm", "Umm", "Upica", "Upt", nullptr};
const char* const NumStyle2String[] = {"Arabic", "UCRoman", "LCRoman", "UCAlpha", "LCAlpha", nullptr};
const char* const DParity2String[] = {"FirstLeft", "FirstRight", nullptr};
const char* const MStyle2String[] = {"Plain", "Start", "End", "None", nullptr};

// ---- Property tables --------------------------------------------------------
// One row per property, in bit order; the row's position is its bit number.
#define STR(rec, field, name) {offsetof(rec, field), name, ValueKind::String, nullptr, 0, sizeof(name) - 1}
#define INT(rec, field, name) {offsetof(rec, field), name, ValueKind::Integer, nullptr, 0, sizeof(name) - 1}
#define BOOL(rec, field, name) {offsetof(rec, field), name, ValueKind::Boolean, nullptr, 0, sizeof(name) - 1}
#define DIM1(rec, field, name) {offsetof(rec, field), name, ValueKind::Dimension1, nullptr, 0, sizeof(name) - 1}
#define DIM2(rec, field, name) {offsetof(rec, field), name, ValueKind::Dimension2, nullptr, 0, sizeof(name) - 1}
#define DIM4(rec, field, name) {offsetof(rec, field), name, ValueKind::Dimension4, nullptr, 0, sizeof(name) - 1}
#define ENUM(rec, field, name, names) {offsetof(rec, field), name, ValueKind::Enumeration, names, 0, sizeof(name) - 1}
#define NESTED(rec, field, name, size) {offsetof(rec, field), name, ValueKind::Nested, nullptr, size, sizeof(name) - 1}
#define END {0, nullptr, ValueKind::String, nullptr, 0, 0}

const PropertyEntry font[] = {
    STR(Font, FFamily, "FFamily"),
    INT(Font, FSize, "FSize"),
    BOOL(Font, FPlain, "FPlain"),
    BOOL(Font, FBold, "FBold"),
    BOOL(Font, FItalic, "FItalic"),
    BOOL(Font, FUnderline, "FUnderline"),
    BOOL(Font, FStrike, "FStrike"),
    INT(Font, FDX, "FDX"),
    INT(Font, FDY, "FDY"),
    INT(Font, FDAX, "FDAX"),
    BOOL(Font, FNoAdvance, "FNoAdvance"),
    END,
};

const PropertyEntry tabStop[] = {
    DIM1(TabStop, TSX, "TSX"),
    ENUM(TabStop, TSType, "TSType", TSType2String),
    INT(TabStop, TSLeader, "TSLeader"),
    END,
};

const PropertyEntry pgf[] = {
    STR(Pgf, PgfTag, "PgfTag"),
    ENUM(Pgf, PgfAlignment, "PgfAlignment", PgfAlignment2String),
    BOOL(Pgf, PgfAutoNum, "PgfAutoNum"),
    BOOL(Pgf, PgfHyphenate, "PgfHyphenate"),
    BOOL(Pgf, PgfColumnTop, "PgfColumnTop"),
    BOOL(Pgf, PgfWithNext, "PgfWithNext"),
    BOOL(Pgf, PgfForceFont, "PgfForceFont"),
    BOOL(Pgf, PgfSplit, "PgfSplit"),
    NESTED(Pgf, font, "font", sizeof(Font)),
    INT(Pgf, PgfTolerance, "PgfTolerance"),
    INT(Pgf, PgfBlockSize, "PgfBlockSize"),
    DIM1(Pgf, PgfLIndent, "PgfLIndent"),
    DIM1(Pgf, PgfFIndent, "PgfFIndent"),
    DIM1(Pgf, PgfRIndent, "PgfRIndent"),
    DIM1(Pgf, PgfLeading, "PgfLeading"),
    DIM1(Pgf, PgfSpBefore, "PgfSpBefore "),  // the statement name ends in a blank
    DIM1(Pgf, PgfSpAfter, "PgfSpAfter"),
    STR(Pgf, PgfNumFormat, "PgfNumFormat"),
    STR(Pgf, PgfNumString, "PgfNumString"),
    NESTED(Pgf, tabStops, "tabStops", sizeof(TabStop*)),
    END,
};

const PropertyEntry page[] = {
    NESTED(Page, PageNum, "PageNum", sizeof(int32_t)),
    NESTED(Page, PageNum2, "PageNum", sizeof(int32_t)),
    ENUM(Page, PageType, "PageType", PageType2String),
    ENUM(Page, Units, "Units", Units2String),
    BOOL(Page, Verbose, "Verbose"),
    DIM2(Page, PageSize, "PageSize"),
    INT(Page, Columns, "Columns"),
    DIM1(Page, ColumnGap, "ColumnGap"),
    STR(Page, HeaderL, "HeaderL"),
    STR(Page, HeaderC, "HeaderC"),
    STR(Page, HeaderR, "HeaderR"),
    STR(Page, FooterL, "FooterL"),
    STR(Page, FooterC, "FooterC"),
    STR(Page, FooterR, "FooterR"),
    DIM4(Page, HFMargins, "HFMargins"),
    NESTED(Page, HFFont, "HFFont", sizeof(Font)),
    ENUM(Page, NumStyle, "NumStyle", NumStyle2String),
    END,
};

const PropertyEntry document[] = {
    DIM2(Document, DPageSize, "DPageSize"),
    DIM4(Document, DMargins, "DMargins"),
    INT(Document, DColumns, "DColumns"),
    DIM1(Document, DColumnGap, "DColumnGap"),
    BOOL(Document, DHeadOnFirst, "DHeadOnFirst"),
    BOOL(Document, DFootOnFirst, "DFootOnFirst"),
    INT(Document, DStartPage, "DStartPage"),
    BOOL(Document, DTwoSides, "DTwoSides"),
    BOOL(Document, DFrozenPages, "DFrozenPages"),
    ENUM(Document, DParity, "DParity", DParity2String),
    BOOL(Document, DRelativeTabs, "DRelativeTabs"),
    END,
};

const PropertyEntry marker[] = {
    INT(Marker, MType, "MType"),
    STR(Marker, MText, "MText"),
    ENUM(Marker, MStyle, "MStyle", MStyle2String),
    BOOL(Marker, FPlain, "FPlain"),
    BOOL(Marker, FBold, "FBold"),
    BOOL(Marker, FItalic, "FItalic"),
    INT(Marker, MCurrPage, "MCurrPage"),
    END,
};

#undef STR
#undef INT
#undef BOOL
#undef DIM1
#undef DIM2
#undef DIM4
#undef ENUM
#undef NESTED
#undef END

// ---- Small helpers ----------------------------------------------------------
namespace {

const char* const kTabs[] = {"", "\t", "\t\t", "\t\t\t", "\t\t\t\t"};

// Number of Dimensions held by a dimension property.
size_t dimensionCount(ValueKind kind) {
    switch (kind) {
    case ValueKind::Dimension1: return 1;
    case ValueKind::Dimension2:
    case ValueKind::Dimension2b: return 2;
    case ValueKind::Dimension4: return 4;
    default: return 0;
    }
}

// Bytes of the record field a property occupies.
size_t fieldSize(const PropertyEntry& e) {
    switch (e.kind) {
    case ValueKind::String: return sizeof(const char*);
    case ValueKind::Integer:
    case ValueKind::Integer2:
    case ValueKind::Boolean:
    case ValueKind::Enumeration: return sizeof(uint32_t);
    case ValueKind::Nested: return e.size;
    default: return dimensionCount(e.kind) * sizeof(Dimension);
    }
}

// The name of value v in a null-terminated name table, or null when v lies
// past the table. The rest of the program never stores such a value; should
// one arrive anyway, the writer prints the number rather than read past the
// table.
const char* valueName(const char* const* names, uint32_t v) {
    if (names == nullptr) return nullptr;
    for (uint32_t i = 0; names[i] != nullptr; ++i)
        if (i == v) return names[i];
    return nullptr;
}

// The first part of a statement: its indentation, "<", its name and a blank.
void lineStart(Line& line, unsigned level, const PropertyEntry& e) {
    line.add(kTabs[level > 4 ? 4 : level], level > 4 ? 4 : level);
    line.add("<");
    line.add(e.name, e.nameLength);
    line.add(" ");
}

// A dimension's value and unit; an unknown unit prints nothing.
void addDimension(Line& line, const Dimension& d) {
    static const char* const units[] = {"\"", "cm", "mm", "pica", "pt"};
    static const size_t unitLengths[] = {1, 2, 2, 4, 2};
    if (d.unit > kUnitPoint) return;
    line.addFixed3(d.value);
    line.add(units[d.unit], unitLengths[d.unit]);
}

void addDimensions(Line& line, const Dimension* d, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (i > 0) line.add(" ");
        addDimension(line, d[i]);
    }
}

unsigned dimensionsOut(const Dimension* d, size_t n, FILE* stream) {
    Line line;
    addDimensions(line, d, n);
    return line.writeTo(stream);
}

// A statement of one to four dimensions under a name of any length.
unsigned stmtDimensionsOut(const Dimension* d, size_t n, FILE* stream, unsigned level, const char* name) {
    if (!putText(tabsFor(level), stream) || !put("<", stream) || !putText(name, stream) || !put(" ", stream))
        return 0;
    Line line;
    addDimensions(line, d, n);
    line.add(">\n");
    return line.writeTo(stream);
}

}  // namespace

const char* tabsFor(unsigned level) { return kTabs[level > 4 ? 4 : level]; }

// ---- Dimensions -------------------------------------------------------------
unsigned VifDimensionOut(const Dimension& d, FILE* stream) { return dimensionsOut(&d, 1, stream); }

unsigned VifDimension2Out(const Dimension* d, FILE* stream) { return dimensionsOut(d, 2, stream); }
unsigned VifIndentsOut(const Dimension* d, FILE* stream) { return dimensionsOut(d, 4, stream); }

unsigned VifStmtDimensionOut(const Dimension& d, FILE* stream, unsigned level, const char* name) {
    return stmtDimensionsOut(&d, 1, stream, level, name);
}
unsigned VifStmtDimension2Out(const Dimension* d, FILE* stream, unsigned level, const char* name) {
    return stmtDimensionsOut(d, 2, stream, level, name);
}
unsigned VifStmtIndentsOut(const Dimension* d, FILE* stream, unsigned level, const char* name) {
    return stmtDimensionsOut(d, 4, stream, level, name);
}

// ---- The generic writer and comparison --------------------------------------
unsigned outWorkHorse(const void* record, FILE* stream, unsigned level, const PropertyEntry* table) {
    const auto* base = static_cast<const unsigned char*>(record);
    uint32_t mask;
    std::memcpy(&mask, base, sizeof mask);
    for (uint32_t i = 0; table[i].name != nullptr; ++i) {
        const PropertyEntry& e = table[i];
        if (i >= 32 || !(mask & bit(i)) || e.kind == ValueKind::Nested) continue;
        const unsigned char* field = base + e.offset;
        // Each statement is one line written with one call; a text of any
        // length is written apart.
        Line line;
        lineStart(line, level, e);
        switch (e.kind) {
        case ValueKind::String: {
            const char* text;
            std::memcpy(&text, field, sizeof text);
            // A set string with no text is written as an empty one.
            line.add("`");
            if (!line.writeTo(stream) || !putText(text ? text : "", stream) || !put("'>\n", stream)) return 0;
            continue;
        }
        case ValueKind::Integer:
        case ValueKind::Integer2: {
            int32_t v;
            std::memcpy(&v, field, sizeof v);
            line.addNumber(v);
            break;
        }
        case ValueKind::Boolean:
        case ValueKind::Enumeration: {
            uint32_t v;
            std::memcpy(&v, field, sizeof v);
            const char* text = valueName(e.kind == ValueKind::Boolean ? boolean2String : e.names, v);
            if (text != nullptr)
                line.add(text, std::strlen(text));
            else
                line.addUnsigned(v);
            break;
        }
        case ValueKind::Dimension1:
        case ValueKind::Dimension2:
        case ValueKind::Dimension2b:
        case ValueKind::Dimension4: {
            Dimension d[4];
            size_t n = dimensionCount(e.kind);
            std::memcpy(d, field, n * sizeof(Dimension));
            addDimensions(line, d, n);
            break;
        }
        case ValueKind::Nested:
            break;  // the record's own writer writes nested parts
        }
        line.add(">\n");
        if (!line.writeTo(stream)) return 0;
    }
    return 1;
}

namespace {

// Whether property e of record b differs from that of record a; both set it.
// Every field size is spelled out, so the compiler compares in place.
inline bool propertyDiffers(const PropertyEntry& e, const unsigned char* fa, const unsigned char* fb) {
    switch (e.kind) {
    case ValueKind::String: {
        const char *ta, *tb;
        std::memcpy(&ta, fa, sizeof ta);
        std::memcpy(&tb, fb, sizeof tb);
        // Texts compare by content; a missing text counts as an empty one.
        return ta != tb && std::strcmp(ta ? ta : "", tb ? tb : "") != 0;
    }
    case ValueKind::Integer:
    case ValueKind::Integer2:
    case ValueKind::Boolean:
    case ValueKind::Enumeration: return std::memcmp(fa, fb, sizeof(uint32_t)) != 0;
    case ValueKind::Dimension1: return std::memcmp(fa, fb, sizeof(Dimension)) != 0;
    case ValueKind::Dimension2:
    case ValueKind::Dimension2b: return std::memcmp(fa, fb, 2 * sizeof(Dimension)) != 0;
    case ValueKind::Dimension4: return std::memcmp(fa, fb, 4 * sizeof(Dimension)) != 0;
    case ValueKind::Nested: return false;  // the caller compares nested parts itself
    }
    return false;
}

uint32_t maskOf(const void* record) {
    uint32_t mask;
    std::memcpy(&mask, record, sizeof mask);
    return mask;
}

}  // namespace

unsigned diffWorkHorse(const void* a, const void* b, void* out, const PropertyEntry* table) {
    const auto* pa = static_cast<const unsigned char*>(a);
    const auto* pb = static_cast<const unsigned char*>(b);
    auto* po = static_cast<unsigned char*>(out);
    uint32_t maskA = maskOf(a), maskB = maskOf(b), maskOut = 0;
    for (uint32_t i = 0; i < 32 && table[i].name != nullptr; ++i) {
        const PropertyEntry& e = table[i];
        uint32_t m = bit(i);
        if (!(maskB & m)) continue;
        if (!(maskA & m) || propertyDiffers(e, pa + e.offset, pb + e.offset)) {
            maskOut |= m;
            std::memcpy(po + e.offset, pb + e.offset, fieldSize(e));
        }
    }
    std::memcpy(po, &maskOut, sizeof maskOut);
    return 1;
}

bool differsWorkHorse(const void* a, const void* b, const PropertyEntry* table, uint32_t ignored) {
    const auto* pa = static_cast<const unsigned char*>(a);
    const auto* pb = static_cast<const unsigned char*>(b);
    uint32_t maskA = maskOf(a), maskB = maskOf(b) & ~ignored;
    for (uint32_t i = 0; i < 32 && table[i].name != nullptr; ++i) {
        const PropertyEntry& e = table[i];
        uint32_t m = bit(i);
        if (!(maskB & m)) continue;
        if (!(maskA & m) || propertyDiffers(e, pa + e.offset, pb + e.offset)) return true;
    }
    return false;
}

// ---- Margin rounding --------------------------------------------------------
void laserWriterRound(Dimension& d) {
    // A quarter inch and 0.35 inch in each unit. The thresholds stay in double
    // precision, so 0.35f (just below the double 0.35) is still rounded while
    // 25.2f pt (just above the double 25.2) is not.
    static const double threshold[] = {0.35, 0.35 * 2.54, 0.35 * 25.4, 0.35 * 6, 0.35 * 72};
    static const float replacement[] = {0.25f, 0.635f, 6.35f, 1.5f, 18.0f};
    if (d.unit > kUnitPoint) return;
    if (static_cast<double>(d.value) < threshold[d.unit]) d.value = replacement[d.unit];
}
