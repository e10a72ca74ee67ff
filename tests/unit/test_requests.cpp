// The troff requests' helpers with sharp edges (line and point counts, the
// width-expression counter) and the handlers whose arithmetic is easy to get
// wrong (tab stops, sizes and leading, margins), called directly with the
// decoded arguments a control line would give them.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "interp/interp.h"
#include "requests/rb.h"
#include "requests/troff.h"
#include "requests/troffstate.h"

namespace {

// ---- Counts and point values --------------------------------------------------------

TEST(RequestCounts, LineCountAddsATenthAndTruncates) {
    EXPECT_EQ(lineCountOf(3.0f), 3u);
    EXPECT_EQ(lineCountOf(2.95f), 3u);  // an inch fraction just under 3 still gives 3
    EXPECT_EQ(lineCountOf(2.85f), 2u);
    EXPECT_EQ(lineCountOf(0.0f), 0u);
}

TEST(RequestCounts, NegativeAndHugeLineCountsAreClamped) {
    EXPECT_EQ(lineCountOf(-3.0f), 0u);
    EXPECT_EQ(lineCountOf(-0.05f), 0u);
    EXPECT_EQ(lineCountOf(1e30f), 4294967295u);
    EXPECT_EQ(lineCountOf(NAN), 0u);
}

TEST(RequestCounts, PointsAreClampedToTheirRange) {
    EXPECT_EQ(pointsOf(72.0 * (11.0f / 72.0f)), 11);  // 11/72 inch in single precision
    EXPECT_EQ(pointsOf(-20.0), 0);
    EXPECT_EQ(pointsOf(72.0 * 1000.0), kMaxPoints);
    EXPECT_EQ(pointsOf(NAN), 0);
}

// ---- The width-expression counter -----------------------------------------------------

struct Scan {
    bool closed;
    int64_t count;
};
Scan scan(const char* text, int64_t start = 0) {
    int64_t count = start;
    bool closed = widthExpressionScan(text, count);
    return {closed, count};
}

TEST(WidthExpression, CountsUpToTheClosingQuoteAndPassesTheUnit) {
    Scan s = scan("abc'u");
    EXPECT_TRUE(s.closed);
    EXPECT_EQ(s.count, 3);
}

TEST(WidthExpression, FontChangeCountsNothing) {
    EXPECT_EQ(scan("\\fBab'u").count, 2);
    // Only one character after \f is skipped: of "\f(BI" the letters B and I count.
    EXPECT_EQ(scan("\\f(BIx'u").count, 3);
}

TEST(WidthExpression, ArgumentEndingOpenCountsTheBlank) {
    Scan first = scan("a");
    EXPECT_FALSE(first.closed);
    EXPECT_EQ(first.count, 2);  // "a" and the blank after it
    Scan rest = scan("b'u", first.count);
    EXPECT_TRUE(rest.closed);
    EXPECT_EQ(rest.count, 3);
}

TEST(WidthExpression, PlusAfterTheUnitAddsItsNumber) {
    EXPECT_EQ(scan("abc'u+2").count, 5);
    EXPECT_EQ(scan("abc'u+12R").count, 15);
    EXPECT_EQ(scan("abc'+2").count, 3);  // "+" stands where the unit letter goes
}

TEST(WidthExpression, QuoteAtTheEndOrFontChangeAtTheEndStaysInside) {
    EXPECT_TRUE(scan("ab'").closed);
    EXPECT_EQ(scan("ab'").count, 2);
    Scan s = scan("a\\f");
    EXPECT_FALSE(s.closed);
    EXPECT_EQ(s.count, 2);
}

// ---- Handlers --------------------------------------------------------------------------

class TroffRequests : public ::testing::Test {
protected:
    void SetUp() override {
        rbReset();
        troffReset();
        tv = TVState{};
        tv.TVReturn.text = RopeNew();
        RopeInit(tv.TVReturn.text.get(), 10, 0);
        TVDefineTroff();
        clearReturn();
    }
    void TearDown() override {
        troffReset();
        rbReset();
        tv = TVState{};
    }
    void clearReturn() {
        tv.TVReturn.newPgf = false;
        tv.TVReturn.lineTrap = nullptr;
        tv.TVReturn.lineCount = 0;
        RopeEmpty(tv.TVReturn.text.get());
    }
    // The arguments as the rule would decode them: `number` says isNumber,
    // `value` is in inches.
    static void setArg(ArgValue& a, const char* text, bool number = false, float value = 0,
                       bool relative = false) {
        a.text = text;
        a.isNumber = number;
        a.value = value;
        a.isRelative = relative;
        a.isVUnit = false;
    }
    static void clearArgs() {
        for (ArgValue* a : {&tv.TVArg1, &tv.TVArg2, &tv.TVArg3, &tv.TVArg4, &tv.TVArg5, &tv.TVArg6,
                            &tv.TVArg7, &tv.TVArg8, &tv.TVArg9})
            setArg(*a, "");
    }
    static float tsx(int i) { return tv.TVTabStops[i].TSX.value; }
};

TEST_F(TroffRequests, StartUpDefaults) {
    EXPECT_NEAR(tv.TVDocument.DMargins[0].value, 0.962963f, 1e-6);
    EXPECT_NEAR(tv.TVDocument.DMargins[2].value, 1.037037f, 1e-6);
    EXPECT_EQ(tv.TVDocument.DMargins[1].value, 0.0f);
    EXPECT_TRUE(tv.TVDocument.mask & bit(DocumentBit::DMargins));
    EXPECT_EQ(tv.TVPgf.PgfLeading.value, 2.0f);
    EXPECT_EQ(tv.TVPgf.PgfLeading.unit, kUnitPoint);
    EXPECT_EQ(tv.TVPgf.mask, bit(PgfBit::PgfTag) | bit(PgfBit::PgfAlignment) |
                                 bit(PgfBit::PgfColumnTop) | bit(PgfBit::PgfBlockSize) |
                                 bit(PgfBit::PgfLeading) | bit(PgfBit::tabStops));
    EXPECT_FLOAT_EQ(tsx(0), 0.5f);
    EXPECT_FLOAT_EQ(tsx(8), 4.5f);
    EXPECT_EQ(tv.TVFamilyStyle.mask, bit(FontBit::FFamily) | bit(FontBit::FPlain));
    EXPECT_EQ(tv.TVLastFamilyStyle.mask, bit(FontBit::FFamily));
    EXPECT_STREQ(tv.TVFontTable[4].family, "Times");
    EXPECT_EQ(tv.TVFontTable[4].name[0], 'B');
    EXPECT_EQ(tv.TVFontTable[4].name[1], 'I');
    EXPECT_EQ(tv.TVFontTable[6].family, nullptr);
}

TEST_F(TroffRequests, LineLengthThenPageOffsetMoveTheMargins) {
    setArg(tv.TVArg1, "6i", true, 6.0f);
    TVll();
    EXPECT_NEAR(tv.TVDocument.DMargins[2].value, 1.537037f, 1e-5);
    setArg(tv.TVArg1, "1i", true, 1.0f);
    TVpo();
    EXPECT_FLOAT_EQ(tv.TVDocument.DMargins[0].value, 1.0f);
    EXPECT_FLOAT_EQ(tv.TVDocument.DMargins[2].value, 1.5f);
    EXPECT_FALSE(tv.TVReturn.newPgf);
}

TEST_F(TroffRequests, BarePageOffsetSwapsWithThePrevious) {
    setArg(tv.TVArg1, "");
    TVpo();
    EXPECT_EQ(tv.TVDocument.DMargins[0].value, 0.0f);
    TVpo();
    EXPECT_NEAR(tv.TVDocument.DMargins[0].value, 0.962963f, 1e-6);
}

TEST_F(TroffRequests, SizesSpacingAndLeading) {
    setArg(tv.TVArg1, "14", true, 14.0f / 72.0f);
    TVps();
    EXPECT_EQ(tv.TVSize, 14);
    EXPECT_EQ(tv.TVLastSize, 10);
    EXPECT_FALSE(tv.TVReturn.newPgf);
    EXPECT_EQ(tv.TVPgf.PgfLeading.value, 2.0f);  // "ps" leaves the leading alone
    setArg(tv.TVArg1, "12", true, 12.0f / 72.0f);
    TVvs();
    EXPECT_EQ(tv.TVPgf.PgfLeading.value, -2.0f);
    EXPECT_TRUE(tv.TVReturn.newPgf);
    setArg(tv.TVArg1, "2", true, 2.0f);
    TVls();
    EXPECT_EQ(tv.TVPgf.PgfLeading.value, 10.0f);  // 12 - 14 + 12
    setArg(tv.TVArg1, "");
    TVls();
    EXPECT_EQ(tv.TVLineSpacing, 1);
}

TEST_F(TroffRequests, NegativeAndVUnitSizesStayInRange) {
    setArg(tv.TVArg1, "-20", true, -20.0f / 72.0f, true);
    TVps();
    EXPECT_EQ(tv.TVSize, 0);
    ArgValue& a = tv.TVArg1;
    setArg(a, "1000v", true, 1000.0f);
    a.isVUnit = true;
    TVvs();
    EXPECT_EQ(tv.TVVerticalSpacing, kMaxPoints);
}

TEST_F(TroffRequests, CountsOfCentringAndUnderlining) {
    setArg(tv.TVArg1, "-3", true, -3.0f, true);
    TVce();
    EXPECT_EQ(tv.TVReturn.lineCount, 0u);
    EXPECT_TRUE(tv.TVIsFilling);  // acts as ".ce 0": fill mode stays
    EXPECT_EQ(tv.TVPgf.PgfAlignment, kAlignLeftRight);
    clearReturn();
    setArg(tv.TVArg1, "2", false, 2.0f);  // plain rule: a bare number is not isNumber
    TVul();
    EXPECT_EQ(tv.TVReturn.lineCount, 2u);
    EXPECT_TRUE(tv.TVIsUnderline);
    EXPECT_NE(tv.TVReturn.lineTrap, nullptr);
}

TEST_F(TroffRequests, TabStopsWithRelativeStopsFillUpToNine) {
    setArg(tv.TVArg1, "1i", true, 1.0f);
    setArg(tv.TVArg2, "+1i", true, 1.0f, true);
    setArg(tv.TVArg3, "3iR", true, 3.0f);
    TVta();
    EXPECT_FLOAT_EQ(tsx(0), 1.0f);
    EXPECT_FLOAT_EQ(tsx(1), 2.0f);
    EXPECT_FLOAT_EQ(tsx(2), 3.0f);
    EXPECT_EQ(tv.TVTabStops[1].TSType, kTSLeft);
    for (int i = 2; i < kTabStopCount; ++i) {
        EXPECT_FLOAT_EQ(tsx(i), 3.0f) << i;
        EXPECT_EQ(tv.TVTabStops[i].TSType, kTSRight) << i;
    }
    EXPECT_TRUE(tv.TVReturn.newPgf);
}

TEST_F(TroffRequests, TabStopsFromWidthExpressionsSplitAcrossArguments) {
    setArg(tv.TVArg1, "\\w'abc'u");
    setArg(tv.TVArg2, "+\\w'a");
    setArg(tv.TVArg3, "b'uC");
    TVta();
    EXPECT_FLOAT_EQ(tsx(0), 0.25f);                     // 3 x 10 x 0.6 / 72
    EXPECT_FLOAT_EQ(tsx(1), 0.25f + 3 * 6.0f / 72.0f);  // "a b" from the previous stop
    EXPECT_EQ(tv.TVTabStops[1].TSType, kTSCenter);
    EXPECT_FLOAT_EQ(tsx(8), tsx(1));
}

TEST_F(TroffRequests, UnusableTabStopWarnsAndTheNextTakesItsSlot) {
    setArg(tv.TVArg1, "2iL");
    setArg(tv.TVArg2, "1i", true, 1.0f);
    testing::internal::CaptureStderr();
    TVta();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Dropping tab stop because can't handle expression.\n"), std::string::npos);
    EXPECT_FLOAT_EQ(tsx(0), 1.0f);
    EXPECT_FLOAT_EQ(tsx(8), 1.0f);
}

TEST_F(TroffRequests, UnclosedWidthExpressionSetsNothingAndDoesNotFill) {
    setArg(tv.TVArg1, "1i", true, 1.0f);
    setArg(tv.TVArg2, "\\w'abc");
    TVta();
    EXPECT_FLOAT_EQ(tsx(0), 1.0f);
    EXPECT_FLOAT_EQ(tsx(1), 1.0f);  // the old list past the first stop stays
    EXPECT_FLOAT_EQ(tsx(8), 4.5f);
    EXPECT_TRUE(tv.TVPgf.mask & bit(PgfBit::tabStops));
}

TEST_F(TroffRequests, TabStopsWithoutArgumentChangeNothing) {
    clearArgs();
    TVta();
    EXPECT_FALSE(tv.TVReturn.newPgf);
    EXPECT_FLOAT_EQ(tsx(0), 0.5f);
}

TEST_F(TroffRequests, IndentThenTemporaryIndent) {
    setArg(tv.TVArg1, "0.5i", true, 0.5f);
    TVin();
    setArg(tv.TVArg1, "+0.25i", true, 0.25f, true);
    TVin();
    EXPECT_FLOAT_EQ(tv.TVPgf.PgfLIndent.value, 0.75f);
    EXPECT_FLOAT_EQ(tv.TVPgf.PgfFIndent.value, 0.75f);
    setArg(tv.TVArg1, "");
    TVin();
    EXPECT_FLOAT_EQ(tv.TVPgf.PgfLIndent.value, 0.5f);
    EXPECT_FLOAT_EQ(tv.TVPgf.PgfFIndent.value, 0.5f);
    clearReturn();
    setArg(tv.TVArg1, "1i", true, 1.0f);
    TVti();
    EXPECT_FLOAT_EQ(tv.TVPgf.PgfFIndent.value, 1.0f);
    ASSERT_NE(tv.TVReturn.lineTrap, nullptr);
    EXPECT_EQ(tv.TVReturn.lineCount, 1u);
    tv.TVReturn.lineTrap();
    EXPECT_FLOAT_EQ(tv.TVPgf.PgfFIndent.value, 0.5f);
}

TEST_F(TroffRequests, MountedFamilyOutlivesItsArgument) {
    std::string family = "Helvetica";
    setArg(tv.TVArg1, "7");
    setArg(tv.TVArg2, "H");
    setArg(tv.TVArg3, family.c_str());
    setArg(tv.TVArg4, "B");
    TVfp();
    family.assign("overwritten");
    EXPECT_STREQ(tv.TVFontTable[6].family, "Helvetica");
    EXPECT_EQ(tv.TVFontTable[6].style, 'B');
    EXPECT_EQ(tv.TVFontTable[6].name[0], 'H');
    EXPECT_EQ(tv.TVFontTable[6].name[1], '\0');
    setArg(tv.TVArg2, "HX");
    setArg(tv.TVArg3, "");
    setArg(tv.TVArg4, "");
    TVfp();
    EXPECT_STREQ(tv.TVFontTable[6].family, "Helvetica");
    EXPECT_EQ(tv.TVFontTable[6].style, 'B');
    EXPECT_EQ(tv.TVFontTable[6].name[1], 'X');
}

}  // namespace
