// The document model: the six records (Pgf, Font, TabStop, Page, Document,
// Marker), each led by a set mask, and the constant property tables that drive
// the generic writer (outWorkHorse) and comparison (diffWorkHorse).
// Owns: the property and value-name tables. Calls: the C standard I/O library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Units of a Dimension, in the order of Units2String.
enum : uint32_t { kUnitInch = 0, kUnitCm = 1, kUnitMm = 2, kUnitPica = 3, kUnitPoint = 4 };

struct Dimension {
    float value = 0;
    uint32_t unit = kUnitInch;
};

// Booleans are 32-bit words holding 0 ("No") or 1 ("Yes").
enum : uint32_t { kNo = 0, kYes = 1 };

// Property bit numbers; bit i of a record's mask says property i holds a value.
namespace FontBit {
enum : uint32_t { FFamily, FSize, FPlain, FBold, FItalic, FUnderline, FStrike, FDX, FDY, FDAX, FNoAdvance };
}
namespace TabStopBit {
enum : uint32_t { TSX, TSType, TSLeader };
}
namespace PgfBit {
enum : uint32_t {
    PgfTag, PgfAlignment, PgfAutoNum, PgfHyphenate, PgfColumnTop, PgfWithNext, PgfForceFont,
    PgfSplit, font, PgfTolerance, PgfBlockSize, PgfLIndent, PgfFIndent, PgfRIndent, PgfLeading,
    PgfSpBefore, PgfSpAfter, PgfNumFormat, PgfNumString, tabStops
};
}
namespace PageBit {
enum : uint32_t {
    PageNum, PageNum2, PageType, Units, Verbose, PageSize, Columns, ColumnGap, HeaderL, HeaderC,
    HeaderR, FooterL, FooterC, FooterR, HFMargins, HFFont, NumStyle
};
}
namespace DocumentBit {
enum : uint32_t {
    DPageSize, DMargins, DColumns, DColumnGap, DHeadOnFirst, DFootOnFirst, DStartPage, DTwoSides,
    DFrozenPages, DParity, DRelativeTabs
};
}
namespace MarkerBit {
enum : uint32_t { MType, MText, MStyle, FPlain, FBold, FItalic, MCurrPage };
}

inline constexpr uint32_t bit(uint32_t i) { return 1u << i; }

// Value names of the enumerations.
enum : uint32_t { kTSLeft = 0, kTSCenter = 1, kTSRight = 2, kTSDecimal = 3 };
enum : uint32_t { kAlignLeft = 0, kAlignCenter = 1, kAlignRight = 2, kAlignLeftRight = 3 };
enum : uint32_t { kMStylePlain = 0, kMStyleStart = 1, kMStyleEnd = 2, kMStyleNone = 3 };

// Strings are not owned by the records: they point at constant text, at the
// font table, or at storage kept by whoever filled the record.
struct Font {
    uint32_t mask = 0;
    const char* FFamily = nullptr;
    int32_t FSize = 0;
    uint32_t FPlain = 0, FBold = 0, FItalic = 0, FUnderline = 0, FStrike = 0;
    int32_t FDX = 0, FDY = 0, FDAX = 0;
    uint32_t FNoAdvance = 0;
};

struct TabStop {
    uint32_t mask = 0;
    Dimension TSX;
    uint32_t TSType = kTSLeft;
    int32_t TSLeader = 0;
};

struct Pgf {
    uint32_t mask = 0;
    const char* PgfTag = nullptr;
    uint32_t PgfAlignment = 0, PgfAutoNum = 0, PgfHyphenate = 0, PgfColumnTop = 0,
             PgfWithNext = 0, PgfForceFont = 0, PgfSplit = 0;
    Font font;
    int32_t PgfTolerance = 0, PgfBlockSize = 0;
    Dimension PgfLIndent, PgfFIndent, PgfRIndent, PgfLeading, PgfSpBefore, PgfSpAfter;
    const char* PgfNumFormat = nullptr;
    const char* PgfNumString = nullptr;
    uint32_t PgfNumTabs = 0;            // belongs to the tabStops property
    TabStop* tabStops = nullptr;        // not owned
};

struct Page {
    uint32_t mask = 0;
    int32_t PageNum = 0, PageNum2 = 0;
    uint32_t PageType = 0, Units = 0, Verbose = 0;
    Dimension PageSize[2];
    int32_t Columns = 0;
    Dimension ColumnGap;
    const char *HeaderL = nullptr, *HeaderC = nullptr, *HeaderR = nullptr;
    const char *FooterL = nullptr, *FooterC = nullptr, *FooterR = nullptr;
    Dimension HFMargins[4];
    Font HFFont;
    uint32_t NumStyle = 0;
};

struct Document {
    uint32_t mask = 0;
    Dimension DPageSize[2];
    Dimension DMargins[4];  // left, top, right, bottom
    int32_t DColumns = 0;
    Dimension DColumnGap;
    uint32_t DHeadOnFirst = 0, DFootOnFirst = 0;
    int32_t DStartPage = 0;
    uint32_t DTwoSides = 0, DFrozenPages = 0, DParity = 0, DRelativeTabs = 0;
};

struct Marker {
    uint32_t mask = 0;
    int32_t MType = 0;
    const char* MText = nullptr;
    uint32_t MStyle = 0;
    uint32_t FPlain = 0, FBold = 0, FItalic = 0;
    int32_t MCurrPage = 0;
};

// Value kinds of a property.
enum class ValueKind : uint32_t {
    String = 0, Integer = 1, Boolean = 2, Dimension1 = 3, Dimension2 = 4, Dimension2b = 5,
    Dimension4 = 6, Enumeration = 7, Integer2 = 8, Nested = 9
};

// One row of a property table; its position in the table is its bit number.
struct PropertyEntry {
    size_t offset;             // the field of the record that holds the value
    const char* name;          // the VIF statement name; null ends the table
    ValueKind kind;
    const char* const* names;  // value names, for enumerations only
    size_t size;               // field size, for nested fields only
    size_t nameLength;         // of `name`
};

extern const PropertyEntry pgf[];
extern const PropertyEntry font[];
extern const PropertyEntry tabStop[];
extern const PropertyEntry page[];
extern const PropertyEntry document[];
extern const PropertyEntry marker[];

extern const char* const boolean2String[];      // "No", "Yes"
extern const char* const TSType2String[];       // "Left", "Center", "Right", "Decimal"
extern const char* const PgfAlignment2String[]; // "Left", "Center", "Right", "LeftRight"
extern const char* const PageType2String[];
extern const char* const Units2String[];
extern const char* const NumStyle2String[];
extern const char* const DParity2String[];
extern const char* const MStyle2String[];

// Every writer returns 1 when all writes succeeded and 0 at the first failure.
unsigned VifDimensionOut(const Dimension& d, FILE* stream);
unsigned VifDimension2Out(const Dimension* d, FILE* stream);
unsigned VifIndentsOut(const Dimension* d, FILE* stream);
unsigned VifStmtDimensionOut(const Dimension& d, FILE* stream, unsigned level, const char* name);
unsigned VifStmtDimension2Out(const Dimension* d, FILE* stream, unsigned level, const char* name);
unsigned VifStmtIndentsOut(const Dimension* d, FILE* stream, unsigned level, const char* name);

// Writes the set properties of `record` in table order at the given level.
unsigned outWorkHorse(const void* record, FILE* stream, unsigned level, const PropertyEntry* table);
// Fills `out` with the properties `b` sets that `a` lacks or holds otherwise.
unsigned diffWorkHorse(const void* a, const void* b, void* out, const PropertyEntry* table);
// Whether diffWorkHorse would find a difference, leaving the `ignored`
// properties out; stops at the first one.
bool differsWorkHorse(const void* a, const void* b, const PropertyEntry* table, uint32_t ignored = 0);
// Margins a laser printer cannot print are moved to a quarter inch.
void laserWriterRound(Dimension& d);

// The indentation string of a level: "" and one to four tabs.
const char* tabsFor(unsigned level);
