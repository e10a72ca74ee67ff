// The property tables, the generic writer and comparison, dimension text and
// the margin rounding of the document model.
#include <gtest/gtest.h>

#include "memout.h"

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "writer/model.h"

namespace {


std::string writeRecord(const void* record, unsigned level, const PropertyEntry* table) {
    MemOut out;
    EXPECT_EQ(outWorkHorse(record, out.f, level, table), 1u);
    return out.text();
}

std::string dimensionText(float value, uint32_t unit) {
    MemOut out;
    EXPECT_EQ(VifDimensionOut(Dimension{value, unit}, out.f), 1u);
    return out.text();
}

float rounded(float value, uint32_t unit) {
    Dimension d{value, unit};
    laserWriterRound(d);
    return d.value;
}

}  // namespace

TEST(PropertyTables, NamesAndOrderFollowTheBits) {
    EXPECT_STREQ(pgf[PgfBit::PgfSpBefore].name, "PgfSpBefore ");
    EXPECT_STREQ(pgf[PgfBit::tabStops].name, "tabStops");
    EXPECT_EQ(pgf[PgfBit::tabStops + 1].name, nullptr);
    EXPECT_EQ(pgf[PgfBit::font].kind, ValueKind::Nested);
    EXPECT_EQ(pgf[PgfBit::font].size, sizeof(Font));
    EXPECT_STREQ(page[PageBit::PageNum2].name, "PageNum");
    EXPECT_EQ(page[PageBit::NumStyle + 1].name, nullptr);
    EXPECT_STREQ(document[DocumentBit::DRelativeTabs].name, "DRelativeTabs");
    EXPECT_EQ(document[DocumentBit::DRelativeTabs + 1].name, nullptr);
    EXPECT_STREQ(marker[MarkerBit::MCurrPage].name, "MCurrPage");
    EXPECT_EQ(font[FontBit::FNoAdvance + 1].name, nullptr);
    EXPECT_EQ(tabStop[TabStopBit::TSLeader + 1].name, nullptr);
}

TEST(OutWorkHorse, EmptyMaskWritesNothing) {
    Pgf p;
    p.PgfTag = "x";
    p.PgfLIndent = {1, kUnitInch};
    EXPECT_EQ(writeRecord(&p, 1, pgf), "");
    Document d;
    d.DColumns = 2;
    EXPECT_EQ(writeRecord(&d, 1, document), "");
}

TEST(OutWorkHorse, SpaceBeforeHasTwoBlanks) {
    Pgf p;
    p.mask = bit(PgfBit::PgfSpBefore);
    p.PgfSpBefore = {0.0666667f, kUnitInch};
    EXPECT_EQ(writeRecord(&p, 1, pgf), "\t<PgfSpBefore  0.067\">\n");
}

TEST(OutWorkHorse, EnumerationsBooleansAndLevels) {
    Pgf p;
    p.mask = bit(PgfBit::PgfAlignment);
    p.PgfAlignment = kAlignLeftRight;
    EXPECT_EQ(writeRecord(&p, 1, pgf), "\t<PgfAlignment LeftRight>\n");

    Font f;
    f.mask = bit(FontBit::FBold);
    f.FBold = kYes;
    EXPECT_EQ(writeRecord(&f, 2, font), "\t\t<FBold Yes>\n");
    EXPECT_EQ(writeRecord(&f, 0, font), "<FBold Yes>\n");
    EXPECT_EQ(writeRecord(&f, 6, font), "\t\t\t\t<FBold Yes>\n");
    EXPECT_STREQ(tabsFor(4), "\t\t\t\t");
    EXPECT_STREQ(tabsFor(100), "\t\t\t\t");
}

TEST(OutWorkHorse, StringsAreVerbatim) {
    Page p;
    p.mask = bit(PageBit::HeaderL) | bit(PageBit::FooterR);
    p.HeaderL = "ls(1)";
    p.FooterR = "it's `x' > \\";
    EXPECT_EQ(writeRecord(&p, 1, page), "\t<HeaderL `ls(1)'>\n\t<FooterR `it's `x' > \\'>\n");
}

TEST(OutWorkHorse, RecordInTableOrderWithoutNestedParts) {
    TabStop stops[1];
    Pgf p;
    p.mask = bit(PgfBit::PgfNumFormat) | bit(PgfBit::PgfTag) | bit(PgfBit::font) |
             bit(PgfBit::PgfTolerance) | bit(PgfBit::PgfSpAfter) | bit(PgfBit::tabStops) |
             bit(PgfBit::PgfSplit);
    p.PgfTag = "block pgf";
    p.PgfSplit = kYes;
    p.PgfTolerance = -3;
    p.PgfSpAfter = {3.6f, kUnitPoint};
    p.PgfNumFormat = "";
    p.tabStops = stops;
    p.PgfNumTabs = 1;
    p.font.mask = bit(FontBit::FSize);
    EXPECT_EQ(writeRecord(&p, 1, pgf),
              "\t<PgfTag `block pgf'>\n"
              "\t<PgfSplit Yes>\n"
              "\t<PgfTolerance -3>\n"
              "\t<PgfSpAfter 3.600pt>\n"
              "\t<PgfNumFormat `'>\n");
}

TEST(OutWorkHorse, MultiDimensionAndEnumerationsOfPageAndDocument) {
    Page p;
    p.mask = bit(PageBit::PageType) | bit(PageBit::Units) | bit(PageBit::PageSize) |
             bit(PageBit::HFMargins) | bit(PageBit::NumStyle) | bit(PageBit::PageNum) |
             bit(PageBit::HFFont);
    p.PageType = 1;
    p.Units = 4;
    p.PageSize[0] = {8.5f, kUnitInch};
    p.PageSize[1] = {11, kUnitInch};
    p.HFMargins[0] = {1, kUnitInch};
    p.HFMargins[1] = {0.5f, kUnitInch};
    p.HFMargins[2] = {2.54f, kUnitCm};
    p.HFMargins[3] = {3, kUnitPica};
    p.NumStyle = 2;
    EXPECT_EQ(writeRecord(&p, 1, page),
              "\t<PageType BodyPage>\n"
              "\t<Units Upt>\n"
              "\t<PageSize 8.500\" 11.000\">\n"
              "\t<HFMargins 1.000\" 0.500\" 2.540cm 3.000pica>\n"
              "\t<NumStyle LCRoman>\n");

    Document d;
    d.mask = bit(DocumentBit::DParity) | bit(DocumentBit::DTwoSides);
    d.DParity = 1;
    EXPECT_EQ(writeRecord(&d, 1, document), "\t<DTwoSides No>\n\t<DParity FirstRight>\n");
}

TEST(Dimensions, UnitsAndThreeDecimals) {
    EXPECT_EQ(dimensionText(6.5f, kUnitInch), "6.500\"");
    EXPECT_EQ(dimensionText(12, kUnitPoint), "12.000pt");
    EXPECT_EQ(dimensionText(2.54f, kUnitCm), "2.540cm");
    EXPECT_EQ(dimensionText(25.4f, kUnitMm), "25.400mm");
    EXPECT_EQ(dimensionText(6, kUnitPica), "6.000pica");
    EXPECT_EQ(dimensionText(-0.25f, kUnitInch), "-0.250\"");
    EXPECT_EQ(dimensionText(1, 5), "");
}

TEST(Dimensions, ThreeDecimalsAsPrintfRoundsThem) {
    // Values at and near the rounding points of three decimals, signs and
    // zeros, the extremes of float, and what arithmetic on them may give.
    const float values[] = {0.0005f, 0.0015f, 0.0025f, 1.0005f, 0.1235f, 2.9995f, -0.0005f, -0.0f, 0.0f,
                            1e-30f, 123456.789f, 3.4028235e38f, -3.4028235e38f, 1.17549435e-38f,
                            std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::quiet_NaN()};
    for (float v : values) {
        char expected[400];
        std::snprintf(expected, sizeof expected, "%.3fpt", static_cast<double>(v));
        EXPECT_EQ(dimensionText(v, kUnitPoint), expected) << "value " << v;
    }
}

TEST(Dimensions, StatementForms) {
    Pgf p;
    p.mask = bit(PgfBit::PgfLIndent);
    p.PgfLIndent = {1, 5};
    EXPECT_EQ(writeRecord(&p, 1, pgf), "\t<PgfLIndent >\n");

    Dimension d[4] = {{1, kUnitInch}, {2, kUnitCm}, {3, kUnitMm}, {4, kUnitPoint}};
    MemOut out;
    EXPECT_EQ(VifDimension2Out(d, out.f), 1u);
    EXPECT_EQ(VifIndentsOut(d, out.f), 1u);
    EXPECT_EQ(VifStmtDimensionOut(d[0], out.f, 2, "TSX"), 1u);
    EXPECT_EQ(VifStmtDimension2Out(d, out.f, 0, "PageSize"), 1u);
    EXPECT_EQ(VifStmtIndentsOut(d, out.f, 1, "DMargins"), 1u);
    EXPECT_EQ(out.text(),
              "1.000\" 2.000cm"
              "1.000\" 2.000cm 3.000mm 4.000pt"
              "\t\t<TSX 1.000\">\n"
              "<PageSize 1.000\" 2.000cm>\n"
              "\t<DMargins 1.000\" 2.000cm 3.000mm 4.000pt>\n");
}

TEST(Writers, FailedWriteReturnsZero) {
    FILE* readOnly = fopen("/dev/null", "r");
    ASSERT_NE(readOnly, nullptr);
    Font f;
    f.mask = bit(FontBit::FSize);
    EXPECT_EQ(outWorkHorse(&f, readOnly, 1, font), 0u);
    EXPECT_EQ(VifDimensionOut(Dimension{1, kUnitInch}, readOnly), 0u);
    Font empty;
    EXPECT_EQ(outWorkHorse(&empty, readOnly, 1, font), 1u);  // nothing to write
    fclose(readOnly);
}

TEST(DiffWorkHorse, OnlyPropertiesTheExaminedRecordSets) {
    Pgf a, b, out;
    a.mask = bit(PgfBit::PgfLIndent) | bit(PgfBit::PgfFIndent);
    a.PgfLIndent = {0.5f, kUnitInch};
    a.PgfFIndent = {1, kUnitInch};
    b.mask = bit(PgfBit::PgfLIndent);
    b.PgfLIndent = {0.5f, kUnitInch};
    b.PgfFIndent = {7, kUnitInch};  // not set in b: ignored
    out.mask = ~0u;
    EXPECT_EQ(diffWorkHorse(&a, &b, &out, pgf), 1u);
    EXPECT_EQ(out.mask, 0u);

    // a lacks what b sets: flagged and copied, even with equal field contents.
    b.mask |= bit(PgfBit::PgfRIndent) | bit(PgfBit::PgfTolerance);
    b.PgfTolerance = 0;
    diffWorkHorse(&a, &b, &out, pgf);
    EXPECT_EQ(out.mask, bit(PgfBit::PgfRIndent) | bit(PgfBit::PgfTolerance));
    EXPECT_EQ(out.PgfTolerance, 0);
}

TEST(DiffWorkHorse, StringsByContentDimensionsBitwise) {
    char first[] = "a", second[] = "a";
    Pgf a, b, out;
    a.mask = b.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfLIndent) | bit(PgfBit::PgfAlignment);
    a.PgfTag = first;
    b.PgfTag = second;
    a.PgfLIndent = {1, kUnitInch};
    b.PgfLIndent = {1, kUnitInch};
    diffWorkHorse(&a, &b, &out, pgf);
    EXPECT_EQ(out.mask, 0u);

    b.PgfLIndent = {2.54f, kUnitCm};  // the same length in another unit differs
    b.PgfAlignment = 2;
    second[0] = 'b';
    diffWorkHorse(&a, &b, &out, pgf);
    EXPECT_EQ(out.mask, bit(PgfBit::PgfTag) | bit(PgfBit::PgfLIndent) | bit(PgfBit::PgfAlignment));
    EXPECT_EQ(out.PgfTag, second);  // the pointer is copied
    EXPECT_EQ(out.PgfLIndent.unit, kUnitCm);
    EXPECT_EQ(out.PgfAlignment, 2u);
}

TEST(DiffWorkHorse, NestedPartsNeverDifferWhenBothSet) {
    Pgf a, b, out;
    a.mask = b.mask = bit(PgfBit::font);
    b.font.FSize = 12;
    diffWorkHorse(&a, &b, &out, pgf);
    EXPECT_EQ(out.mask, 0u);
    a.mask = 0;
    diffWorkHorse(&a, &b, &out, pgf);
    EXPECT_EQ(out.mask, bit(PgfBit::font));
    EXPECT_EQ(out.font.FSize, 12);
}

TEST(LaserWriterRound, QuarterInchBelowThreshold) {
    EXPECT_EQ(rounded(0.1f, kUnitInch), 0.25f);
    EXPECT_EQ(rounded(0.3f, kUnitInch), 0.25f);
    EXPECT_EQ(rounded(0.35f, kUnitInch), 0.25f);  // 0.35f lies below the double 0.35
    EXPECT_EQ(rounded(0.4f, kUnitInch), 0.4f);
    EXPECT_EQ(rounded(-1, kUnitInch), 0.25f);
    EXPECT_EQ(rounded(25.2f, kUnitPoint), 25.2f);  // 25.2f lies above the double 25.2
    EXPECT_EQ(rounded(20, kUnitPoint), 18.0f);
    EXPECT_EQ(rounded(8.89f, kUnitMm), 8.89f);
    EXPECT_EQ(rounded(8, kUnitMm), 6.35f);
    EXPECT_EQ(rounded(0.5f, kUnitCm), 0.635f);
    EXPECT_EQ(rounded(2, kUnitPica), 1.5f);
    EXPECT_EQ(rounded(2.1f, kUnitPica), 1.5f);  // 2.1f lies below 0.35 * 6 in double
    EXPECT_EQ(rounded(0.1f, 5), 0.1f);
}
