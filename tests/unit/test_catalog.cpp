// The prelude, the paragraph catalog with its numbered variants, and the
// Page, Document and Marker statements.
#include <gtest/gtest.h>

#include "memout.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "writer/vifout.h"

namespace {


class Catalog : public ::testing::Test {
protected:
    void SetUp() override { VifReset(); }
    void TearDown() override { VifReset(); }

    std::string catalogText() {
        MemOut out;
        EXPECT_EQ(VifCatalogOut(out.f), 1u);
        return out.text();
    }
};

// Nine tab stops every half inch from `first`.
struct NineStops {
    TabStop stops[9];
    explicit NineStops(float first) {
        for (int i = 0; i < 9; ++i) {
            stops[i].mask = bit(TabStopBit::TSX) | bit(TabStopBit::TSType);
            stops[i].TSX = {first + 0.5f * i, kUnitInch};
            stops[i].TSType = kTSLeft;
        }
    }
};

// The man package's block format as it reaches the catalog: tab stops already
// shifted by its half-inch left indent.
Pgf manBlock(TabStop* stops) {
    Pgf p;
    p.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfAlignment) | bit(PgfBit::PgfForceFont) |
             bit(PgfBit::font) | bit(PgfBit::PgfBlockSize) | bit(PgfBit::PgfLIndent) |
             bit(PgfBit::PgfFIndent) | bit(PgfBit::PgfSpBefore) | bit(PgfBit::tabStops);
    p.PgfTag = "block pgf";
    p.PgfAlignment = kAlignLeftRight;
    p.PgfForceFont = kYes;
    p.font.mask = bit(FontBit::FFamily) | bit(FontBit::FPlain) | bit(FontBit::FSize);
    p.font.FFamily = "Times";
    p.font.FPlain = kYes;
    p.font.FSize = 10;
    p.PgfBlockSize = 2;
    p.PgfLIndent = {0.5f, kUnitInch};
    p.PgfFIndent = {0.5f, kUnitInch};
    p.PgfSpBefore = {static_cast<float>(0.4 * (1.0 / 6)), kUnitInch};
    p.tabStops = stops;
    p.PgfNumTabs = 9;
    return p;
}

Pgf tagged(const char* tag, float leftIndent) {
    Pgf p;
    p.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfLIndent);
    p.PgfTag = tag;
    p.PgfLIndent = {leftIndent, kUnitInch};
    return p;
}

}  // namespace

TEST_F(Catalog, EntryOwnsItsNameAndTabStops) {
    char tag[] = "mine";
    NineStops tabs(0.5f);
    Pgf p;
    p.mask = bit(PgfBit::PgfTag) | bit(PgfBit::tabStops);
    p.PgfTag = tag;
    p.tabStops = tabs.stops;
    p.PgfNumTabs = 1;
    const char* name = VifCatalogNew(p);
    tag[0] = 'X';
    tabs.stops[0].TSX.value = 9;
    EXPECT_STREQ(name, "mine");
    EXPECT_EQ(catalogText(),
              "<Catalog\n<Pgf\n"
              "\t<PgfTag `mine'>\n\t<PgfAlignment Left>\n\t<PgfAutoNum No>\n\t<PgfHyphenate No>\n"
              "\t<PgfColumnTop No>\n\t<PgfWithNext No>\n\t<PgfForceFont No>\n\t<PgfSplit No>\n"
              "\t<PgfTolerance 0>\n\t<PgfBlockSize 0>\n\t<PgfLIndent 0.000\">\n\t<PgfFIndent 0.000\">\n"
              "\t<PgfRIndent 0.000\">\n\t<PgfLeading 0.000\">\n\t<PgfSpBefore  0.000\">\n"
              "\t<Font\n\t>\n"
              "\t<TabStop\n\t\t<TSX 0.500\">\n\t\t<TSType Left>\n\t>\n"
              ">\n> # End Catalog\n");
}

TEST_F(Catalog, OptionalTailPropertiesAndNewestFirst) {
    Pgf first;
    first.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfNumFormat) | bit(PgfBit::tabStops) |
                 bit(PgfBit::PgfSpAfter) | bit(PgfBit::PgfNumString);
    first.PgfTag = "first";
    first.PgfNumFormat = "";
    first.PgfNumString = "1.";
    first.PgfSpAfter = {3.6f, kUnitPoint};
    first.PgfNumTabs = 0;
    VifCatalogNew(first);
    Pgf second;
    second.PgfTag = "second";  // nothing set, not even the tag bit
    VifCatalogNew(second);

    const std::string common =
        "\t<PgfAlignment Left>\n\t<PgfAutoNum No>\n\t<PgfHyphenate No>\n"
        "\t<PgfColumnTop No>\n\t<PgfWithNext No>\n\t<PgfForceFont No>\n\t<PgfSplit No>\n"
        "\t<PgfTolerance 0>\n\t<PgfBlockSize 0>\n\t<PgfLIndent 0.000\">\n\t<PgfFIndent 0.000\">\n"
        "\t<PgfRIndent 0.000\">\n\t<PgfLeading 0.000\">\n\t<PgfSpBefore  0.000\">\n";
    EXPECT_EQ(catalogText(),
              "<Catalog\n"
              "<Pgf\n\t<PgfTag `second'>\n" + common + "\t<Font\n\t>\n>\n"
              "<Pgf\n\t<PgfTag `first'>\n" + common +
              "\t<PgfSpAfter 3.600pt>\n\t<PgfNumFormat `'>\n\t<PgfNumString `1.'>\n"
              "\t<Font\n\t>\n\t<PgfNumTabs 0>\n>\n"
              "> # End Catalog\n");
}

TEST_F(Catalog, DeclaringTwiceMakesTwoEntries) {
    Pgf p = tagged("pgf", 0);
    EXPECT_STREQ(VifCatalogNew(p), "pgf");
    EXPECT_STREQ(VifCatalogNew(p), "pgf");
    std::string text = catalogText();
    size_t count = 0;
    for (size_t at = text.find("<PgfTag `pgf'>"); at != std::string::npos;
         at = text.find("<PgfTag `pgf'>", at + 1))
        ++count;
    EXPECT_EQ(count, 2u);
}

TEST_F(Catalog, NumberedVariants) {
    NineStops tabs(1.0f);
    Pgf block = manBlock(tabs.stops);
    VifCatalogNew(block);
    Pgf section = block;
    section.PgfTag = "section";
    section.PgfLIndent = {0, kUnitInch};
    VifCatalogNew(section);

    // An equal paragraph names the declared entry itself.
    EXPECT_STREQ(VifCatalogName(block), "block pgf");

    // A different left indent makes a numbered variant, reused afterwards.
    Pgf wide = block;
    wide.PgfLIndent = {1.5f, kUnitInch};
    const char* variant = VifCatalogName(wide);
    EXPECT_STREQ(variant, "block pgf1");
    EXPECT_EQ(VifCatalogName(wide), variant);

    // The counter is shared by all tags.
    Pgf sectionWide = section;
    sectionWide.PgfFIndent = {0.25f, kUnitInch};
    EXPECT_STREQ(VifCatalogName(sectionWide), "section2");

    // A tag that names no entry gets an entry of exactly that name.
    Pgf other = block;
    other.PgfTag = "other";
    EXPECT_STREQ(VifCatalogName(other), "other");
    EXPECT_STREQ(VifCatalogName(other), "other");

    // Differences in the font or the tab stops count too.
    Pgf bold = block;
    bold.font.mask |= bit(FontBit::FBold);
    bold.font.FBold = kYes;
    EXPECT_STREQ(VifCatalogName(bold), "block pgf3");
    NineStops shifted(1.0f);
    shifted.stops[8].TSLeader = 1;
    Pgf tabbed = block;
    tabbed.tabStops = shifted.stops;
    EXPECT_STREQ(VifCatalogName(tabbed), "block pgf4");
    tabbed.PgfNumTabs = 8;  // the first eight stops equal the entry's, the count does not
    EXPECT_STREQ(VifCatalogName(tabbed), "block pgf5");

    // The bold variant holds every property the declared format sets, the
    // same, plus one more: being newer, it is the one taken.
    EXPECT_STREQ(VifCatalogName(block), "block pgf3");
}

TEST_F(Catalog, SubsetAndPrefixMatches) {
    NineStops tabs(1.0f);
    Pgf block = manBlock(tabs.stops);
    VifCatalogNew(block);
    Pgf wide = block;
    wide.PgfLIndent = {1.5f, kUnitInch};
    EXPECT_STREQ(VifCatalogName(wide), "block pgf1");

    // Fewer properties, all equal: the newest entry that holds them.
    EXPECT_STREQ(VifCatalogName(tagged("block pgf", 0.5f)), "block pgf");
    EXPECT_STREQ(VifCatalogName(tagged("block pgf", 1.5f)), "block pgf1");

    // A tag matches an entry whose name merely begins with it.
    EXPECT_STREQ(VifCatalogName(tagged("block", 1.5f)), "block pgf1");
    // The tag is compared only as a prefix, never the other way round.
    EXPECT_STREQ(VifCatalogName(tagged("block pgf1x", 1.5f)), "block pgf1x");
}

// The interpreter changes its tab stops in place: a format looked up before
// with the same array holds other stops now.
TEST_F(Catalog, LookupsSeeStopsChangedInPlace) {
    NineStops tabs(1.0f);
    Pgf block = manBlock(tabs.stops);
    EXPECT_STREQ(VifCatalogName(block), "block pgf");
    tabs.stops[3].TSX.value = 7.0f;
    EXPECT_STREQ(VifCatalogName(block), "block pgf1");
    tabs.stops[3].TSX.value = 2.5f;
    EXPECT_STREQ(VifCatalogName(block), "block pgf");
}

// More formats than the look-up remembers, differing only in their tab
// stops, looked up in turns and two by two (so that two sharing a place in
// the look-up alternate): each keeps the name its first look-up gave, and an
// entry made later that matches one of them takes over that one alone.
TEST_F(Catalog, ManyFormatsInTurnKeepTheirNames) {
    constexpr int kFormats = 300;
    std::vector<NineStops> stops;
    for (int i = 0; i < kFormats; ++i) stops.emplace_back(1.0f + 0.125f * static_cast<float>(i));
    VifCatalogNew(manBlock(stops[0].stops));
    auto name = [&](int i) { return std::string(VifCatalogName(manBlock(stops[i].stops))); };
    auto expected = [](int i) { return i == 0 ? std::string("block pgf") : "block pgf" + std::to_string(i); };
    for (int i = 0; i < kFormats; ++i) ASSERT_EQ(name(i), expected(i));
    for (int i = 0; i < 40; ++i)
        for (int j = i + 1; j < 40; ++j)
            for (int k : {i, j, i, j}) ASSERT_EQ(name(k), expected(k)) << i << " then " << j;
    for (int round = 0; round < 3; ++round)
        for (int k = 0; k < kFormats; ++k) {
            int i = round == 1 ? kFormats - 1 - k : (k * 7 + round) % kFormats;
            ASSERT_EQ(name(i), expected(i)) << "round " << round;
        }
    Pgf bold = manBlock(stops[5].stops);
    bold.font.mask |= bit(FontBit::FBold);
    for (int k : {6, 5}) ASSERT_EQ(name(k), expected(k));
    EXPECT_STREQ(VifCatalogName(bold), "block pgf300");
    for (int k : {5, 6}) ASSERT_EQ(name(k), k == 5 ? "block pgf300" : expected(k));
    for (int i = 0; i < kFormats; ++i) ASSERT_EQ(name(i), i == 5 ? "block pgf300" : expected(i));
}

TEST_F(Catalog, ResetForgetsEntriesAndCounter) {
    VifCatalogNew(tagged("a", 0));
    EXPECT_STREQ(VifCatalogName(tagged("a", 1)), "a1");
    VifReset();
    EXPECT_EQ(catalogText(), "<Catalog\n> # End Catalog\n");
    VifCatalogNew(tagged("a", 0));
    EXPECT_STREQ(VifCatalogName(tagged("a", 1)), "a1");
}

TEST_F(Catalog, FailedWritesReturnZero) {
    FILE* readOnly = fopen("/dev/null", "r");
    ASSERT_NE(readOnly, nullptr);
    VifCatalogNew(tagged("a", 0));
    EXPECT_EQ(VifCatalogOut(readOnly), 0u);
    EXPECT_EQ(VifPreludeOut(readOnly, "trofftovif -"), 0u);
    Page p;
    EXPECT_EQ(VifPageOut(p, readOnly), 0u);
    Document d;
    EXPECT_EQ(VifDocumentOut(d, readOnly), 0u);
    fclose(readOnly);
}
