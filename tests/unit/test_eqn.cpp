// The linear form of equations: how eqn's operators bind (which operands
// need parentheses), the names that become characters, definitions, and the
// limits that keep a hostile equation cheap.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "interp/interp.h"
#include "preproc/preproc.h"

namespace {

class Eqn : public ::testing::Test {
protected:
    void SetUp() override {
        interpReset();
        preprocReset();
        tv.TVSize = 10;
    }
    void TearDown() override {
        preprocReset();
        interpReset();
    }
};

TEST_F(Eqn, ScriptsAndFractionsBindAsEqnReadsThem) {
    EXPECT_EQ(eqnLinear("x sup 2"), "x^2");
    EXPECT_EQ(eqnLinear("a sub i"), "a_i");
    EXPECT_EQ(eqnLinear("a over b"), "a/b");
    // sup binds tighter than over, so no parentheses are needed around x^2.
    EXPECT_EQ(eqnLinear("x sup 2 over y"), "x^2/y");
    // Both scripts sit on x.
    EXPECT_EQ(eqnLinear("x sub i sup 2"), "x_i^2");
    // sup is right-associative: x to the power y^z.
    EXPECT_EQ(eqnLinear("x sup y sup z"), "x^(y^z)");
    // over reads from the left, as / does.
    EXPECT_EQ(eqnLinear("a over b over c"), "a/b/c");
    EXPECT_EQ(eqnLinear("{a+b} over {c+d}"), "(a+b)/(c+d)");
    EXPECT_EQ(eqnLinear("{n+1} sup 2"), "(n+1)^2");
    EXPECT_EQ(eqnLinear("{x sup 2} sup 3"), "(x^2)^3");
    EXPECT_EQ(eqnLinear("e sup {x sup 2}"), "e^(x^2)");
    // Juxtaposed items run together, as eqn sets them; ~ is a space.
    EXPECT_EQ(eqnLinear("a + b ~ c"), "a+b c");
}

TEST_F(Eqn, NamesBecomeCharacters) {
    EXPECT_EQ(eqnLinear("alpha + PI"), "\\(*a+\\(*P");
    EXPECT_EQ(eqnLinear("sqrt x"), "\\(srx");
    EXPECT_EQ(eqnLinear("sqrt {a+b}"), "\\(sr(a+b)");
    EXPECT_EQ(eqnLinear("x >= 0"), "x\\(>=0");
    // Inside a word too, as eqn recognises them.
    EXPECT_EQ(eqnLinear("a<=b"), "a\\(<=b");
    EXPECT_EQ(eqnLinear("sum from {i=0} to inf x sub i"), "\\(*S_(i=0)^\\(ifx_i");
    EXPECT_EQ(eqnLinear("int from a to b"), "\\(is_a^b");
    // A quoted word is never a name.
    EXPECT_EQ(eqnLinear("\"alpha\" sup 2"), "alpha^2");
    // Escapes stay whole.
    EXPECT_EQ(eqnLinear("\\(*b sub 1"), "\\(*b_1");
}

TEST_F(Eqn, SetUpWordsGiveNoText) {
    EXPECT_EQ(eqnLinear("gsize 12 gfont I x"), "x");
    EXPECT_EQ(eqnLinear("fwd 50 x back 20 y up 10 z down 5 w"), "xyzw");
    EXPECT_EQ(eqnLinear("delim $$"), "");
    EXPECT_EQ(tv.TVEqnDelimiter, '$');
    EXPECT_EQ(eqnLinear("delim off"), "");
    EXPECT_EQ(tv.TVEqnDelimiter, 256);
}

TEST_F(Eqn, FontsAndSizesComeBack) {
    EXPECT_EQ(eqnLinear("bold x + y"), "\\f[B]x\\f[R]+y");
    EXPECT_EQ(eqnLinear("italic {bold x}"), "\\f[I]\\f[B]x\\f[I]\\f[R]");
    EXPECT_EQ(eqnLinear("size +2 x"), "\\s[12]x\\s[10]");
    EXPECT_EQ(eqnLinear("roman x"), "x");  // already roman
}

TEST_F(Eqn, DefinitionsExpand) {
    EXPECT_EQ(eqnLinear("define sq 'sup 2' x sq"), "x^2");
    EXPECT_EQ(eqnLinear("y sq"), "y^2");  // kept for later equations
    // A definition that names itself stops at the expansion limit.
    std::string out = eqnLinear("define loop 'a loop' loop");
    EXPECT_FALSE(out.empty());
    EXPECT_LT(out.size(), 20000u);
}

TEST_F(Eqn, DelimitersPilesAndMatrices) {
    EXPECT_EQ(eqnLinear("left ( a over b right )"), "(a/b)");
    EXPECT_EQ(eqnLinear("left floor x right floor"), "\\(lfx\\(rf");
    EXPECT_EQ(eqnLinear("pile { a above b }"), "a; b");
    EXPECT_EQ(eqnLinear("matrix { ccol { 1 above 2 } ccol { 3 above 4 } }"), "1 3; 2 4");
    EXPECT_EQ(eqnLinear("x dot + y bar"), "x\\(a.+y\\(a-");
}

TEST_F(Eqn, BrokenInputEndsQuietly) {
    EXPECT_EQ(eqnLinear("} x sup"), "x^");
    EXPECT_EQ(eqnLinear("{ a over"), "a/");
    // Operators without operands keep their signs, and nothing is lost.
    EXPECT_EQ(eqnLinear("sup over from to"), "(/)^");
    EXPECT_EQ(eqnLinear("left ( x"), "(x");
    EXPECT_EQ(eqnLinear("\"unclosed"), "unclosed");
}

TEST_F(Eqn, DeepNestingIsBounded) {
    std::string deep;
    for (int i = 0; i < 100000; i++) deep += "x sup ";
    deep += "y";
    std::string braces(100000, '{');
    std::string radicals;
    for (int i = 0; i < 100000; i++) radicals += "sqrt ";
    // Each finishes without exhausting the stack, keeping every x.
    std::string linear = eqnLinear(deep);
    EXPECT_EQ(std::count(linear.begin(), linear.end(), 'x'), 100000);
    EXPECT_EQ(eqnLinear(braces + "z"), "z");
    EXPECT_NE(eqnLinear(radicals + "z").find('z'), std::string::npos);
}

}  // namespace
