// The man package's handlers, dispatched the way a control line reaches them
// (name and arguments in the argument ropes, then the rule dispatcher), with
// their effects read from the interpreter state and the returned record.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "interp/interp.h"
#include "macros/macros.h"
#include "requests/rb.h"
#include "requests/troff.h"
#include "tools/rope.h"
#include "writer/vifout.h"

namespace {

class Man : public ::testing::Test {
protected:
    void SetUp() override {
        interpReset();
        rbReset();
        troffReset();
        manReset();
        VifReset();
        TVCreateRopes();
        TVDefineTroff();
        ManDefine();
    }
    void TearDown() override {
        manReset();
        VifReset();
        interpReset();
        rbReset();
        troffReset();
    }

    // Runs one control line: words[0] is the macro name.
    static void line(std::initializer_list<const char*> words) {
        TVArgsEmpty();
        int k = 0;
        for (const char* w : words) RopeCopyString(tv.TVArgs[k++].get(), w);
        TVReturnReset();
        TVFire('\n');
    }

    static std::string pushed() { return RopeText(tv.TVReturn.text.get()); }
    static float lIndent() { return tv.TVPgf.PgfLIndent.value; }
    static float fIndent() { return tv.TVPgf.PgfFIndent.value; }
};

constexpr float kDefaultDistance = static_cast<float>(0.4 / 6);
constexpr float kEm = static_cast<float>(10.0 / 72 * 0.6);  // one em at ten points

// ---- Start-up -------------------------------------------------------------------------

TEST_F(Man, StartsInTheBlockFormatWithInchMarginsTopAndBottom) {
    EXPECT_STREQ(tv.TVPgf.PgfTag, "block pgf");
    EXPECT_FLOAT_EQ(lIndent(), 0.5f);
    EXPECT_FLOAT_EQ(fIndent(), 0.5f);
    EXPECT_EQ(tv.TVPgf.PgfSpBefore.value, kDefaultDistance);
    EXPECT_TRUE(tv.TVPgf.mask & bit(PgfBit::PgfForceFont));
    // The body font names the size in its field only.
    EXPECT_FALSE(tv.TVPgf.font.mask & bit(FontBit::FSize));
    EXPECT_EQ(tv.TVPgf.font.FSize, 10);
    EXPECT_EQ(tv.TVDocument.DMargins[1].value, 1.0f);
    EXPECT_EQ(tv.TVDocument.DMargins[3].value, 1.0f);
    EXPECT_STREQ(TVStringGet("R"), "\\(rg");
    EXPECT_STREQ(TVStringGet("S"), "\\s12");
}

// ---- TH ---------------------------------------------------------------------------------

TEST_F(Man, TitleFillsHeadersFootersAndMargins) {
    line({"TH", "LS", "1", "12 May 1995", "Release 2"});
    const Page& p = tv.TVPage;
    EXPECT_STREQ(p.HeaderL, "LS(1)");
    EXPECT_STREQ(p.HeaderR, "LS(1)");
    EXPECT_STREQ(p.HeaderC, "USER COMMANDS");
    EXPECT_STREQ(p.FooterL, "Release 2");
    EXPECT_STREQ(p.FooterC, "12 May 1995");
    EXPECT_STREQ(p.FooterR, "#");
    EXPECT_EQ(p.HFMargins[0].value, 1.0f);
    EXPECT_EQ(p.HFMargins[1].value, 0.5f);
    EXPECT_EQ(p.HFMargins[2].value, 1.0f);
    EXPECT_EQ(p.HFMargins[3].value, 0.5f);
    EXPECT_EQ(p.HFFont.FSize, 10);
    EXPECT_TRUE(p.HFFont.mask & bit(FontBit::FSize));
    uint32_t want = bit(PageBit::HFMargins) | bit(PageBit::HeaderL) | bit(PageBit::HeaderC) |
                    bit(PageBit::HeaderR) | bit(PageBit::FooterL) | bit(PageBit::FooterC) |
                    bit(PageBit::FooterR) | bit(PageBit::HFFont);
    EXPECT_EQ(p.mask & want, want);
    EXPECT_FALSE(tv.TVReturn.newPgf);
}

TEST_F(Man, SectionNamesFollowTheTableOrder) {
    struct Row {
        const char* section;
        const char* name;
    };
    for (Row r : {Row{"1", "USER COMMANDS"}, Row{"1V", "USER COMMANDS"},
                  Row{"1S", "SUN_SPECIFIC USER COMMANDS"}, Row{"3", "C LIBRARY FUNCTIONS"},
                  Row{"3L", "C LIBRARY FUNCTIONS"}, Row{"3s", "C LIBRARY FUNCTIONS"},
                  Row{"3M", "MATHEMATICAL FUNCTIONS"}, Row{"3X", "MISCELLANEOUS FUNCTIONS"},
                  Row{"8", "MAINTENANCE COMMANDS"}, Row{"9", "UNKNOWN SECTION OF THE MANUAL"},
                  Row{"", "UNKNOWN SECTION OF THE MANUAL"}}) {
        line({"TH", "x", r.section});
        EXPECT_STREQ(tv.TVPage.HeaderC, r.name) << "section '" << r.section << "'";
    }
}

TEST_F(Man, SecondTitleReplacesTheTextsAndAbsentArgumentsAreEmpty) {
    line({"TH", "first", "1", "centre one", "left one"});
    line({"TH", "second", "5"});
    EXPECT_STREQ(tv.TVPage.HeaderL, "second(5)");
    EXPECT_STREQ(tv.TVPage.FooterL, "");
    EXPECT_STREQ(tv.TVPage.FooterC, "");
    EXPECT_STREQ(tv.TVPage.HeaderC, "FILE FORMATS");
}

// ---- Fonts ------------------------------------------------------------------------------

TEST_F(Man, BoldPushesTheArgumentsSkippingEmptyOnes) {
    line({"B", "a", "", "c"});
    EXPECT_EQ(pushed(), "a c\n");
    EXPECT_EQ(tv.TVFamilyStyle.FBold, kYes);
    ASSERT_NE(tv.TVReturn.lineTrap, nullptr);
    EXPECT_EQ(tv.TVReturn.lineCount, 1u);
}

TEST_F(Man, BoldWithoutArgumentsPushesNothing) {
    line({"B"});
    EXPECT_EQ(pushed(), "");
    EXPECT_EQ(tv.TVFamilyStyle.FBold, kYes);
    // The trap that ends the bold line returns to roman ten point.
    tv.TVSize = 14;
    tv.TVReturn.lineTrap();
    EXPECT_EQ(tv.TVSize, 10);
    EXPECT_EQ(tv.TVFamilyStyle.FPlain, kYes);
    EXPECT_FALSE(tv.TVFamilyStyle.mask & bit(FontBit::FBold));
}

TEST_F(Man, SmallLowersTheSizeByTwo) {
    line({"SM", "text"});
    EXPECT_EQ(tv.TVSize, 8);
    EXPECT_EQ(pushed(), "text\n");
}

TEST_F(Man, AlternatingFontsKeepQuotedBlanksAndToggleEachWord) {
    line({"BR", "x y", "z"});
    EXPECT_EQ(pushed(), std::string("x\4y z\n"));
    EXPECT_TRUE(tv.TVReturn.suppressSpace);
    ASSERT_NE(tv.TVReturn.wordTrap, nullptr);
    EXPECT_EQ(tv.TVFamilyStyle.FBold, kYes);  // first word: B
    void (*toggle)() = tv.TVReturn.wordTrap;
    toggle();
    EXPECT_EQ(tv.TVFamilyStyle.FPlain, kYes);  // then R
    toggle();
    EXPECT_EQ(tv.TVFamilyStyle.FBold, kYes);  // then B again
}

TEST_F(Man, AlternatingFontsStartOverAtEachMacro) {
    line({"IR", "a", "b", "c"});
    tv.TVReturn.wordTrap();
    line({"RI", "a", "b"});
    EXPECT_EQ(tv.TVFamilyStyle.FPlain, kYes);  // R first, whatever the last line left
    tv.TVReturn.wordTrap();
    EXPECT_EQ(tv.TVFamilyStyle.FItalic, kYes);
}

// ---- Paragraphs -------------------------------------------------------------------------

TEST_F(Man, IndentedParagraphWithoutTagUsesThePrevailingIndent) {
    line({"IP"});
    EXPECT_STREQ(tv.TVPgf.PgfTag, "indented pgf");
    EXPECT_FLOAT_EQ(lIndent(), 1.0f);
    EXPECT_FLOAT_EQ(fIndent(), 1.0f);
    EXPECT_TRUE(tv.TVReturn.newPgf);
}

TEST_F(Man, TaggedParagraphZeroesTheTabStopsUntilTheTagLineEnds) {
    line({"IP", "tag", "4"});
    EXPECT_EQ(pushed(), "tag\n");
    EXPECT_STREQ(tv.TVPgf.PgfTag, "hanging pgf");
    EXPECT_FLOAT_EQ(fIndent(), 0.5f);
    EXPECT_FLOAT_EQ(lIndent(), 0.5f + 4 * kEm);
    for (const TabStop& t : tv.TVTabStops) EXPECT_EQ(t.TSX.value, 0.0f);

    void (*trap)() = tv.TVReturn.lineTrap;
    ASSERT_NE(trap, nullptr);
    TVReturnReset();
    tv.TVCursor.x = 3 * kEm;  // narrower than the four-em indent
    trap();
    EXPECT_EQ(pushed(), "\t\n");
    for (int i = 0; i < kTabStopCount; i++)
        EXPECT_FLOAT_EQ(tv.TVTabStops[i].TSX.value, 0.5f * (i + 1));
}

TEST_F(Man, WideTagEndsWithAHardReturn) {
    line({"TP"});
    EXPECT_EQ(pushed(), "");
    void (*trap)() = tv.TVReturn.lineTrap;
    ASSERT_NE(trap, nullptr);
    TVReturnReset();
    tv.TVCursor.x = 0.5f;  // exactly the indent: not less, so a break
    trap();
    EXPECT_EQ(pushed(), "\r");
}

TEST_F(Man, HangingParagraphWithoutTag) {
    line({"HP", "1i"});
    EXPECT_STREQ(tv.TVPgf.PgfTag, "exdented pgf");
    EXPECT_FLOAT_EQ(fIndent(), 0.5f);
    EXPECT_FLOAT_EQ(lIndent(), 1.5f);
}

TEST_F(Man, HeadingEndsRelativeIndentsAndBodyFollowsAtTheMargin) {
    line({"RS"});
    line({"RS"});
    line({"SH", "NAME"});
    EXPECT_EQ(pushed(), "NAME\n");
    EXPECT_STREQ(tv.TVPgf.PgfTag, "section");
    tv.TVReturn.lineTrap();
    EXPECT_STREQ(tv.TVPgf.PgfTag, "block pgf");
    EXPECT_FLOAT_EQ(lIndent(), 0.5f);
    // The depth went back to 0 too: RE now keeps the margin of the first slot.
    line({"RE"});
    EXPECT_FLOAT_EQ(lIndent(), 0.5f);
}

// ---- Relative indents -------------------------------------------------------------------

TEST_F(Man, RelativeIndentRestoresMarginAndPrevailingIndent) {
    line({"IP", "", "1i"});  // prevailing indent 1 inch
    line({"RS"});            // margin grows by it
    EXPECT_FLOAT_EQ(lIndent(), 1.5f);
    line({"RS", "2i"});
    EXPECT_FLOAT_EQ(lIndent(), 3.5f);
    line({"RE"});
    EXPECT_FLOAT_EQ(lIndent(), 1.5f);
    line({"RE"});
    EXPECT_FLOAT_EQ(lIndent(), 0.5f);
    line({"IP"});  // the prevailing indent of before the first RS is back
    EXPECT_FLOAT_EQ(lIndent(), 1.5f);
}

TEST_F(Man, EndWithoutStartKeepsTheMargin) {
    line({"RE"});
    EXPECT_FLOAT_EQ(lIndent(), 0.5f);
    EXPECT_TRUE(tv.TVReturn.newPgf);
}

TEST_F(Man, DeeperThanTheStackStaysWithinIt) {
    for (int i = 0; i < 14; i++) line({"RS"});
    EXPECT_FLOAT_EQ(lIndent(), 0.5f + 14 * 0.5f);
    // Levels 14 and 13 have no slot of their own: both go back to the last one.
    float expected[14] = {6.0f, 6.0f, 6.0f, 5.5f, 5.0f, 4.5f, 4.0f,
                          3.5f, 3.0f, 2.5f, 2.0f, 1.5f, 1.0f, 0.5f};
    for (float want : expected) {
        line({"RE"});
        EXPECT_FLOAT_EQ(lIndent(), want);
    }
    line({"RE"});
    EXPECT_FLOAT_EQ(lIndent(), 0.5f);
}

// ---- Spacing and tabs -------------------------------------------------------------------

TEST_F(Man, ParagraphDistanceIsInSixthsOfAnInch) {
    line({"PD", "0"});
    EXPECT_FALSE(tv.TVReturn.newPgf);
    line({"PP"});
    EXPECT_EQ(tv.TVPgf.PgfSpBefore.value, 0.0f);
    line({"PD", "3"});
    line({"LP"});
    EXPECT_FLOAT_EQ(tv.TVPgf.PgfSpBefore.value, 0.5f);
    line({"PD"});
    line({"PP"});
    EXPECT_EQ(tv.TVPgf.PgfSpBefore.value, kDefaultDistance);  // bit for bit, as at start
}

TEST_F(Man, DefaultTabsAreEveryHalfInch) {
    for (TabStop& t : tv.TVTabStops) {
        t.TSX.value = 9;
        t.TSType = kTSRight;
    }
    line({"DT"});
    for (int i = 0; i < kTabStopCount; i++) {
        EXPECT_FLOAT_EQ(tv.TVTabStops[i].TSX.value, 0.5f * (i + 1));
        EXPECT_EQ(tv.TVTabStops[i].TSType, kTSLeft);
    }
    EXPECT_TRUE(tv.TVReturn.newPgf);
}

}  // namespace
