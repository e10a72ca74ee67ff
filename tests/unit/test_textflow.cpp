// The text flow: paragraphs, strings, characters, font changes, frames and
// markers, and the small state machine that joins them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <string>

#include "writer/vifout.h"

namespace {

const char* const kParaHead = "\t<ParaLine # Begin Para's ParaLines.\n";
const char* const kParaTail = "\t> # End Paraline.\n> # End Para.\n";

class TextFlow : public ::testing::Test {
protected:
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = nullptr;

    void SetUp() override {
        VifReset();
        f = open_memstream(&buf, &len);
    }
    void TearDown() override {
        fclose(f);
        free(buf);
        VifReset();
    }
    std::string text() {
        fflush(f);
        return std::string(buf, len);
    }
    // Everything written so far, then forget it.
    std::string take() {
        std::string t = text();
        fclose(f);
        free(buf);
        buf = nullptr;
        len = 0;
        f = open_memstream(&buf, &len);
        return t;
    }
    void chars(const std::string& s) {
        for (char c : s) ASSERT_EQ(VifCharOut(c, f), 1u);
    }
    void fontOut(const Font& font) { ASSERT_EQ(VifFontOut(font, f), 1u); }
    void open(const Pgf& p) { ASSERT_EQ(VifParaOpen(p, f), 1u); }
};

Pgf plainPgf(const char* tag) {
    Pgf p;
    p.mask = bit(PgfBit::PgfTag);
    p.PgfTag = tag;
    return p;
}

Font times(int32_t size) {
    Font font;
    font.mask = bit(FontBit::FFamily) | bit(FontBit::FSize) | bit(FontBit::FPlain);
    font.FFamily = "Times";
    font.FSize = size;
    font.FPlain = kYes;
    return font;
}

// A format that forces `font` on its paragraphs.
Pgf forcing(const Font& font) {
    Pgf p = plainPgf("forced");
    p.mask |= bit(PgfBit::PgfForceFont) | bit(PgfBit::font);
    p.PgfForceFont = kYes;
    p.font = font;
    return p;
}

}  // namespace

TEST_F(TextFlow, FilledLineOfTheTroffFormat) {
    open(plainPgf("troff"));
    fontOut(times(10));
    chars("hello \n");
    ASSERT_EQ(VifParaClose(f), 1u);
    EXPECT_EQ(text(), std::string("<Para <PgfTag `troff'>\n") + kParaHead +
                          "\t<Font <FFamily `Times'> <FSize 10> <FPlain Yes>>\n"
                          "\t<String `hello '>\n"
                          "\t><ParaLine\n" +
                          kParaTail);
}

TEST_F(TextFlow, HardReturnAndQuote) {
    Pgf block = plainPgf("block pgf");
    VifCatalogNew(block);
    open(block);
    chars("Hello\rit's");
    ASSERT_EQ(VifParaClose(f), 1u);
    EXPECT_EQ(text(), std::string("<Para <PgfTag `block pgf'>\n") + kParaHead +
                          "\t<String `Hello'>\n"
                          "\t<Char HardReturn>><ParaLine\n"
                          "\t<String `it\\xD5 s'>\n" +
                          kParaTail);
}

TEST_F(TextFlow, EmptyParagraphAndCloseWithoutParagraph) {
    EXPECT_EQ(VifParaClose(f), 1u);
    EXPECT_EQ(text(), "");
    open(plainPgf("p"));
    ASSERT_EQ(VifParaClose(f), 1u);
    EXPECT_EQ(VifParaClose(f), 1u);  // already closed: nothing more
    EXPECT_EQ(text(), std::string("<Para <PgfTag `p'>\n") + kParaHead + kParaTail);
}

TEST_F(TextFlow, OpeningClosesTheOpenParagraph) {
    open(plainPgf("p"));
    chars("a");
    open(plainPgf("q"));
    chars("b");
    ASSERT_EQ(VifParaClose(f), 1u);
    EXPECT_EQ(text(), std::string("<Para <PgfTag `p'>\n") + kParaHead + "\t<String `a'>\n" + kParaTail +
                          "<Para <PgfTag `q'>\n" + kParaHead + "\t<String `b'>\n" + kParaTail);
}

TEST_F(TextFlow, StringForms) {
    open(plainPgf("p"));
    take();
    chars("a'b`c>d\\e\tf\"g");
    EXPECT_EQ(take(), "\t<String `a\\xD5 b\\xD4 c\\>d\\\\e\\tf\"g");
}

TEST_F(TextFlow, OtherCodesAreCharStatements) {
    open(plainPgf("p"));
    take();
    chars("a");
    chars(std::string(1, '\x7f'));
    chars(std::string(1, static_cast<char>(200)));
    chars(std::string(1, static_cast<char>(255)));
    chars(std::string(1, '\x01'));
    chars("b");
    chars(std::string(1, static_cast<char>(208)));
    EXPECT_EQ(take(),
              "\t<String `a'>\n"
              "\t<Char 127> # 0x7f\n"
              "\t<Char 200> # 0xc8\n"
              "\t<Char 255> # 0xff\n"
              "\t<Char 1> # 0x1\n"
              "\t<String `b'>\n"
              "\t<Char 208> # 0xd0\n");
}

TEST_F(TextFlow, LineEnds) {
    open(plainPgf("p"));
    take();
    // A hard return breaks the line once, however many line feeds follow.
    chars("a\r\n\n");
    EXPECT_EQ(take(), "\t<String `a'>\n\t<Char HardReturn>><ParaLine\n");
    // Two line feeds after text break twice, leaving an empty ParaLine.
    chars("b\n\n");
    EXPECT_EQ(take(), "\t<String `b'>\n\t><ParaLine\n><ParaLine\n");
    // A hard return with no string open, then text resets the rule.
    chars("\rc\n");
    EXPECT_EQ(take(), "\t<Char HardReturn>><ParaLine\n\t<String `c'>\n\t><ParaLine\n");
}

TEST_F(TextFlow, LastCharStartsAfreshInEachParagraph) {
    open(plainPgf("p"));
    chars("\r");
    open(plainPgf("p"));
    take();
    chars("\n");
    EXPECT_EQ(take(), "><ParaLine\n");
}

TEST_F(TextFlow, FontWritesOnlyChanges) {
    open(plainPgf("p"));
    fontOut(times(10));
    chars("ab");
    take();
    // The same font again changes nothing and keeps the string open.
    fontOut(times(10));
    chars("c");
    EXPECT_EQ(take(), "c");

    // A family equal by content in another buffer is the same family.
    char family[] = "Times";
    Font copy = times(10);
    copy.FFamily = family;
    fontOut(copy);
    EXPECT_EQ(take(), "");

    Font bold = times(10);
    bold.FBold = kYes;
    bold.mask |= bit(FontBit::FBold);
    fontOut(bold);
    EXPECT_EQ(take(), "'>\n\t<Font <FBold Yes>>\n");

    // The bold change cleared the state's FPlain, so FPlain Yes is written
    // again and resets the styles: FBold No then needs no statement.
    Font plain = times(10);
    plain.mask |= bit(FontBit::FBold);
    plain.FBold = kNo;
    fontOut(plain);
    EXPECT_EQ(take(), "\t<Font <FPlain Yes>>\n");

    Font big = times(12);
    big.FFamily = "Courier";
    big.mask |= bit(FontBit::FItalic) | bit(FontBit::FUnderline) | bit(FontBit::FStrike) |
                bit(FontBit::FDY) | bit(FontBit::FDX) | bit(FontBit::FDAX) | bit(FontBit::FNoAdvance);
    big.FItalic = kYes;
    big.FUnderline = kNo;  // already No after FPlain Yes
    big.FStrike = kYes;
    big.FDY = -2;
    big.FDX = 5;
    big.FDAX = 5;
    big.FNoAdvance = kYes;
    fontOut(big);
    EXPECT_EQ(take(), "\t<Font <FFamily `Courier'> <FSize 12> <FItalic Yes> <FStrike Yes> <FDY -2>>\n");

    // Properties the font does not set are left alone.
    Font sizeOnly;
    sizeOnly.mask = bit(FontBit::FSize);
    sizeOnly.FSize = 12;
    fontOut(sizeOnly);
    EXPECT_EQ(take(), "");
}

TEST_F(TextFlow, RepeatedFontWritesOnlyWhileItChangesTheState) {
    open(plainPgf("p"));
    take();
    // FPlain Yes with FBold Yes leaves the state's FPlain at No, so the same
    // font given again writes both again, every time.
    Font boldPlain = times(10);
    boldPlain.mask |= bit(FontBit::FBold);
    boldPlain.FBold = kYes;
    fontOut(boldPlain);
    EXPECT_EQ(take(), "\t<Font <FFamily `Times'> <FSize 10> <FPlain Yes> <FBold Yes>>\n");
    fontOut(boldPlain);
    EXPECT_EQ(take(), "\t<Font <FPlain Yes> <FBold Yes>>\n");
    fontOut(boldPlain);
    EXPECT_EQ(take(), "\t<Font <FPlain Yes> <FBold Yes>>\n");

    // A font that has nothing left to change stays quiet, and so does a
    // copy of it held elsewhere.
    Font extreme = times(INT32_MIN);
    fontOut(extreme);
    EXPECT_EQ(take(), "\t<Font <FSize -2147483648> <FPlain Yes>>\n");
    Font copy = extreme;
    fontOut(copy);
    fontOut(extreme);
    EXPECT_EQ(take(), "");
    // Another value in any one property is written.
    copy.FSize = INT32_MAX;
    fontOut(copy);
    EXPECT_EQ(take(), "\t<Font <FSize 2147483647>>\n");
}

TEST_F(TextFlow, FirstFontOfAParagraphWritesEveryStyleItSets) {
    open(plainPgf("p"));
    Font italic = times(10);
    italic.mask = bit(FontBit::FFamily) | bit(FontBit::FSize) | bit(FontBit::FBold) | bit(FontBit::FItalic);
    italic.FItalic = kYes;
    fontOut(italic);
    EXPECT_EQ(take(), std::string("<Para <PgfTag `p'>\n") + kParaHead +
                          "\t<Font <FFamily `Times'> <FSize 10> <FBold No> <FItalic Yes>>\n");
    // The next paragraph forgets what was written.
    open(plainPgf("p"));
    fontOut(italic);
    EXPECT_EQ(take(), std::string(kParaTail) + "<Para <PgfTag `p'>\n" + kParaHead +
                          "\t<Font <FFamily `Times'> <FSize 10> <FBold No> <FItalic Yes>>\n");
    // FPlain Yes makes the other styles No: FBold No and FItalic No then go
    // without a word, even though italic was on.
    Font roman = times(10);
    roman.mask |= bit(FontBit::FBold) | bit(FontBit::FItalic);
    fontOut(roman);
    EXPECT_EQ(take(), "\t<Font <FPlain Yes>>\n");
    italic.mask = bit(FontBit::FItalic);
    fontOut(italic);
    EXPECT_EQ(take(), "\t<Font <FItalic Yes>>\n");
}

TEST_F(TextFlow, ForcedParagraphFont) {
    Font forced = times(10);
    forced.mask &= ~bit(FontBit::FPlain);
    open(forcing(forced));
    take();
    Font f = times(10);
    f.mask = bit(FontBit::FFamily) | bit(FontBit::FSize) | bit(FontBit::FItalic);
    f.FItalic = kYes;
    fontOut(f);
    // Family and size come from the paragraph's font; the styles are unknown.
    EXPECT_EQ(take(), "\t<Font <FItalic Yes>>\n");

    open(forcing(times(10)));
    take();
    Font underline = times(10);
    underline.mask |= bit(FontBit::FUnderline);
    underline.FUnderline = kNo;
    fontOut(underline);
    EXPECT_EQ(take(), "\t<Font <FUnderline No>>\n");

    // A format that does not force its font starts from nothing.
    Pgf loose = forcing(times(10));
    loose.PgfForceFont = kNo;
    open(loose);
    take();
    fontOut(times(10));
    EXPECT_EQ(take(), "\t<Font <FFamily `Times'> <FSize 10> <FPlain Yes>>\n");
}

TEST_F(TextFlow, VerticalShiftCarriesOverParagraphs) {
    open(plainPgf("p"));
    Font raised;
    raised.mask = bit(FontBit::FDY);
    raised.FDY = 3;
    fontOut(raised);
    open(plainPgf("p"));
    take();
    fontOut(raised);
    EXPECT_EQ(take(), "");
    raised.FDY = 0;
    fontOut(raised);
    EXPECT_EQ(take(), "\t<Font <FDY 0>>\n");
}

TEST_F(TextFlow, FrameAndMarkerContinueTheLine) {
    open(plainPgf("p"));
    take();
    chars("ab");
    ASSERT_EQ(VifAFrameOut(3, f), 1u);
    chars("\r");
    EXPECT_EQ(take(), "\t<String `ab'>\n\t<AFrame 3>\t<Char HardReturn>><ParaLine\n");

    chars("cd");
    Marker m;
    m.mask = bit(MarkerBit::MType) | bit(MarkerBit::MText) | bit(MarkerBit::MStyle);
    m.MType = 2;
    m.MText = "entry";
    m.MStyle = kMStyleEnd;
    ASSERT_EQ(VifMarkerOut(m, f), 1u);
    chars("e");
    EXPECT_EQ(take(),
              "\t<String `cd'>\n"
              "\t<Marker\n\t\t<MType 2>\n\t\t<MText `entry'>\n\t\t<MStyle End>\n\t>"
              "\t<String `e");
}

TEST_F(TextFlow, FailedWritesReturnZero) {
    FILE* readOnly = fopen("/dev/null", "r");
    ASSERT_NE(readOnly, nullptr);
    EXPECT_EQ(VifParaOpen(plainPgf("p"), readOnly), 0u);
    EXPECT_EQ(VifCharOut('a', readOnly), 0u);
    EXPECT_EQ(VifCharOut('\x80', readOnly), 0u);
    EXPECT_EQ(VifFontOut(times(10), readOnly), 0u);
    EXPECT_EQ(VifAFrameOut(1, readOnly), 0u);
    fclose(readOnly);
}
