// Argument decoding by unit, the rule table's lookup by one and two
// characters, and what the dispatcher hands back for lines no rule takes.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "interp/interp.h"
#include "requests/rb.h"

namespace {

class Args : public ::testing::Test {
protected:
    void SetUp() override {
        interpReset();
        rbReset();
        TVCreateRopes();
        tv.TVSize = 10;
        calls = 0;
    }
    void TearDown() override {
        interpReset();
        rbReset();
    }

    // Decodes `text` into `value` as an argument of the given default unit.
    bool decode(const char* text, char unit, bool isSemi = false) {
        Rope* rope = tv.TVArgs[1].get();
        RopeCopyString(rope, text);
        return argSet(value, rope, unit, isSemi);
    }

    // A control line held in TVArgs, as the main loop leaves it for TVFire.
    void line(std::initializer_list<const char*> words) {
        TVArgsEmpty();
        int k = 0;
        for (const char* word : words) RopeCopyString(tv.TVArgs[k++].get(), word);
        TVReturnReset();
    }

    std::string returned() const { return RopeText(tv.TVReturn.text.get()); }

    ArgValue value;
    static int calls;
    static std::string lastCommand;
    static void countCall() {
        calls++;
        lastCommand = tv.TVCommand;
    }
    static void otherCall() { calls += 100; }
};
int Args::calls = 0;
std::string Args::lastCommand;

struct UnitCase {
    const char* text;
    float inches;
    bool isRelative;
};

class UnitConversion : public Args, public ::testing::WithParamInterface<UnitCase> {};

TEST_P(UnitConversion, ConvertsToInchesAtSizeTen) {
    const UnitCase& c = GetParam();
    ASSERT_TRUE(decode(c.text, 'm'));
    EXPECT_TRUE(value.isNumber);
    EXPECT_FALSE(value.isVUnit);
    EXPECT_EQ(value.isRelative, c.isRelative);
    EXPECT_NEAR(value.value, c.inches, 5e-7);
    EXPECT_STREQ(value.text, c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Units, UnitConversion,
    ::testing::Values(UnitCase{"1i", 1.0f, false}, UnitCase{"2.54c", 1.0f, false},
                      UnitCase{"6P", 1.0f, false}, UnitCase{"72p", 1.0f, false},
                      UnitCase{"300u", 1.0f, false}, UnitCase{"1m", 0.0833333f, false},
                      UnitCase{"2n", 0.0833333f, false}, UnitCase{"2", 0.1666667f, false},
                      UnitCase{"+1i", 1.0f, true}, UnitCase{"-1i", -1.0f, true},
                      UnitCase{"i", 0.0f, false}, UnitCase{".5i", 0.5f, false},
                      UnitCase{"5iR", 5.0f, false}, UnitCase{"1iC", 1.0f, false}));

TEST_F(Args, EmOfTheCurrentSize) {
    tv.TVSize = 12;
    ASSERT_TRUE(decode("1m", 'm'));
    EXPECT_NEAR(value.value, 0.1, 1e-7);
}

TEST_F(Args, BareNumberTakesTheDefaultUnitOfItsPosition) {
    ASSERT_TRUE(decode("4", 'n'));
    float bare = value.value;
    ASSERT_TRUE(decode("4n", 'n'));
    EXPECT_FLOAT_EQ(bare, value.value);
    EXPECT_NEAR(bare, 0.1666667f, 5e-7);
}

TEST_F(Args, VerticalSpacesStayUnconverted) {
    ASSERT_TRUE(decode("3v", 'm'));
    EXPECT_TRUE(value.isNumber);
    EXPECT_TRUE(value.isVUnit);
    EXPECT_FLOAT_EQ(value.value, 3.0f);
    ASSERT_TRUE(decode("2", 'v'));
    EXPECT_TRUE(value.isVUnit);
    EXPECT_FLOAT_EQ(value.value, 2.0f);
    // The next unit clears the flag.
    ASSERT_TRUE(decode("2i", 'v'));
    EXPECT_FALSE(value.isVUnit);
}

TEST_F(Args, UnknownUnitIsRefusedInANumericPosition) {
    EXPECT_FALSE(decode("1x", 'm'));
    EXPECT_FALSE(value.isNumber);
    EXPECT_FALSE(value.isRelative);
}

TEST_F(Args, UnknownUnitIsAcceptedBySemiNumericRules) {
    EXPECT_TRUE(decode("1x", 'm', true));
    EXPECT_FALSE(value.isNumber);
    EXPECT_FLOAT_EQ(value.value, 1.0f);  // the number read stays
}

TEST_F(Args, PlainPositionsTakeAnyText) {
    ASSERT_TRUE(decode("3", '\0'));
    EXPECT_FALSE(value.isNumber);
    EXPECT_FLOAT_EQ(value.value, 3.0f);
    value.value = 7;
    ASSERT_TRUE(decode("abc", '\0'));
    EXPECT_FALSE(value.isNumber);
    EXPECT_FLOAT_EQ(value.value, 7.0f);  // a malformed number leaves the value
    EXPECT_STREQ(value.text, "abc");
    ASSERT_TRUE(decode("abc", ' '));
    ASSERT_TRUE(decode("3", ' '));
    EXPECT_FALSE(value.isNumber);
}

TEST_F(Args, SignsAloneAreNoNumbers) {
    for (const char* text : {"+", "-", "R", "C", "+R"}) {
        SCOPED_TRACE(text);
        value.isRelative = true;
        EXPECT_FALSE(decode(text, 'm'));
        EXPECT_FALSE(value.isNumber);
        EXPECT_FALSE(value.isRelative);
        EXPECT_TRUE(decode(text, 'm', true));
        EXPECT_FALSE(value.isNumber);
    }
}

TEST_F(Args, LetterInsideTheDigitsIsRefused) {
    EXPECT_FALSE(decode("1a2i", 'm'));
    EXPECT_FALSE(decode("1.2.3x", 'm'));
    EXPECT_TRUE(decode("1.2.3i", 'm'));  // as atof reads it
    EXPECT_FLOAT_EQ(value.value, 1.2f);
}

// The decoder reads short numbers itself: every one must come out as atof
// reads it, to the last bit, however many digits and where the point is.
TEST_F(Args, NumbersComeOutAsAtofReadsThem) {
    uint32_t seed = 12345;
    auto next = [&seed](uint32_t n) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 8) % n;
    };
    for (int i = 0; i < 20000; i++) {
        std::string text;
        if (next(4) == 0) text += next(2) ? '-' : '+';
        uint32_t length = 1 + next(18);
        uint32_t point = next(length + 2);  // past the end: no point
        for (uint32_t k = 0; k < length; k++) {
            if (k == point) text += '.';
            text += static_cast<char>('0' + next(10));
        }
        text += 'i';
        ASSERT_TRUE(decode(text.c_str(), 'm')) << text;
        EXPECT_EQ(value.value, static_cast<float>(std::atof(text.c_str()))) << text;
    }
    // What atof reads further than digits and a point: a hexadecimal number
    // (the unit then is the x, which is none, but the number read stays).
    EXPECT_FALSE(decode("0xC", 'm'));
    EXPECT_EQ(value.value, 12.0f);
}

TEST_F(Args, EmptyArgumentKeepsTheRestOfTheRecord) {
    ASSERT_TRUE(decode("-3v", 'm'));
    ASSERT_TRUE(decode("", 'm'));
    EXPECT_STREQ(value.text, "");
    EXPECT_FALSE(value.isNumber);
    EXPECT_TRUE(value.isRelative);
    EXPECT_TRUE(value.isVUnit);
    EXPECT_FLOAT_EQ(value.value, -3.0f);
}

TEST_F(Args, HugeNumbersStayFinite) {
    ASSERT_TRUE(decode("1000000000000000000000000000000000000000000000000i", 'm'));
    EXPECT_TRUE(value.isNumber);
    EXPECT_GT(value.value, 1e38f);
}

TEST_F(Args, NamesCountByTheirFirstTwoCharacters) {
    TVDefineRule("THemulate", countCall);
    line({"TH", "x"});
    TVFire(' ');
    line({"THX", "x"});
    TVFire(' ');
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(lastCommand, "THX");
    EXPECT_EQ(returned(), "");
}

TEST_F(Args, OneAndTwoCharacterNamesAreDifferentRules) {
    TVDefineRule("x", countCall);
    TVDefineRule("xy", otherCall);
    line({"x"});
    TVFire(' ');
    EXPECT_EQ(calls, 1);
    line({"xy"});
    TVFire(' ');
    EXPECT_EQ(calls, 101);
    line({"xz"});  // the second level of x exists, but not this entry
    TVFire(' ');
    EXPECT_EQ(calls, 101);
    EXPECT_EQ(returned(), "\r\\&.xz\r");
}

TEST_F(Args, LaterRegistrationReplaces) {
    TVDefineRule("sp", otherCall);
    TVDefineNumericalRule("sp", countCall, "v");
    line({"sp", "2"});
    TVFire(' ');
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(tv.TVArg1.isVUnit);
}

TEST_F(Args, UnprintableNamesAreNotRegistered) {
    ::testing::internal::CaptureStderr();
    TVDefineRule("\x01x", countCall);
    TVDefineRule("a\x7f", countCall);  // 127 still counts as printable
    TVDefineRule("b\x80", countCall);
    TVDefineRule("\x02\x03", countCall);
    std::string err = ::testing::internal::GetCapturedStderr();
    const std::string message = "Can't define a rule for an unprintable character.\n";
    size_t count = 0;
    for (size_t at = err.find(message); at != std::string::npos; at = err.find(message, at + 1)) count++;
    EXPECT_EQ(count, 4u);  // once for \x01, \x80, \x02 and \x03
    line({"a\x7f"});
    TVFire(' ');
    EXPECT_EQ(calls, 1);
    line({"b\x80"});
    TVFire(' ');
    EXPECT_EQ(calls, 1);
}

TEST_F(Args, RefusedArgumentIsHandedBackQuoted) {
    TVDefineNumericalRule("po", countCall, "m");
    line({"po", "1x"});
    TVFire('a');
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(returned(), "\r\\&.po \"1x\"\r");
}

TEST_F(Args, RefusalStopsTheDecodingOfLaterArguments) {
    TVDefineNumericalRule("zz", countCall, "mm");
    tv.TVArg2.value = 42;
    line({"zz", "1x", "2i"});
    TVFire(' ');
    EXPECT_EQ(calls, 0);
    EXPECT_FLOAT_EQ(tv.TVArg2.value, 42.0f);
}

TEST_F(Args, UnknownRequestAfterABreakNeedsNoFirstBreak) {
    line({"zz"});
    TVFire('\r');
    EXPECT_EQ(returned(), "\\&.zz\r");
    line({"zz"});
    TVFire('\n');
    EXPECT_EQ(returned(), "\r\\&.zz\r");
}

TEST_F(Args, HandBackKeepsEmptyArgumentsInBetweenAndTheControlCharacter) {
    tv.TVIsNoBreak = true;
    line({"zz", "a b", "", "c"});
    TVFire(' ');
    EXPECT_EQ(returned(), "\r\\&'zz \"a b\" \"\" \"c\"\r");
}

TEST_F(Args, EmptyNameIsDropped) {
    line({""});
    TVFire(' ');
    EXPECT_EQ(returned(), "");
}

TEST_F(Args, CopyRegionRunsOnlyItsEndingRequest) {
    TVDefineRule("ft", countCall);
    TVDefineRule("TE", otherCall);
    tv.TVReturn.endCommand = "TE";
    line({"ft", "B"});
    TVFire('\n');
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(returned(), "\r\\&.ft \"B\"\r");
    line({"TEX"});  // the whole name must match
    TVFire('\n');
    EXPECT_EQ(calls, 0);
    line({"TE"});
    TVFire('\n');
    EXPECT_EQ(calls, 100);
}

TEST_F(Args, ReturnArgsMakesOneInputLine) {
    TVDefineRule("if", countCall);
    line({"if", "t", ".sp", "2"});
    TVFire(' ');
    ASSERT_EQ(calls, 1);
    TVReturnReset();
    returnArgs(2);
    EXPECT_EQ(returned(), ".sp 2\n");
    TVReturnReset();
    returnArgs(1);
    EXPECT_EQ(returned(), "t .sp 2\n");
    TVReturnReset();
    returnArgs(4);
    EXPECT_EQ(returned(), "");
}

}  // namespace
