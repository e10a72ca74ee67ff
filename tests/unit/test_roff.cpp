// The roff layer's pieces with sharp edges: units, malformed expressions and
// the substitution of a macro call's arguments into its body. Arithmetic,
// conditions and register formats are pinned by the full mode's cases.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "interp/interp.h"
#include "roff/roff.h"

namespace {

class Roff : public ::testing::Test {
protected:
    void SetUp() override {
        interpReset();
        roffReset();
        tv.TVSize = 10;
        tv.TVVerticalSpacing = 12;
    }
    void TearDown() override {
        roffReset();
        interpReset();
    }

    // The value of `text` as a whole expression, or a failure when any of it
    // is left unread.
    ::testing::AssertionResult evaluates(const std::string& text, int64_t expected, char unit = 'u') {
        const char* p = text.data();
        int64_t value = 0;
        if (!roffExpression(p, text.data() + text.size(), unit, value))
            return ::testing::AssertionFailure() << text << " is no expression";
        if (p != text.data() + text.size())
            return ::testing::AssertionFailure() << text << " stops at " << (p - text.data());
        if (value != expected) return ::testing::AssertionFailure() << text << " gives " << value;
        return ::testing::AssertionSuccess();
    }
};

TEST_F(Roff, UnitsScaleToThreeHundredToTheInch) {
    EXPECT_TRUE(evaluates("1i", 300));
    EXPECT_TRUE(evaluates("72p", 300));
    EXPECT_TRUE(evaluates("6P", 300));
    EXPECT_TRUE(evaluates("2.54c", 300));
    EXPECT_TRUE(evaluates("1m", 25));  // 0.6 em of ten points
    EXPECT_TRUE(evaluates("2n", 25));
    EXPECT_TRUE(evaluates("1v", 50));  // twelve points
    EXPECT_TRUE(evaluates("1i=72p", 1));
    EXPECT_TRUE(evaluates("3", 75, 'm'));  // a bare number takes the default unit
    EXPECT_TRUE(evaluates(".5i", 150));
}

TEST_F(Roff, MalformedExpressionsAreRefusedWithoutReadingPast) {
    const std::string text = "(1+2";
    const char* p = text.data();
    int64_t value = 0;
    EXPECT_FALSE(roffExpression(p, text.data() + text.size(), 'u', value));
    EXPECT_EQ(p, text.data());
    EXPECT_TRUE(evaluates("5/0", 5));  // troff keeps the dividend
    // Parentheses nested beyond the limit are no expression, never a crash.
    std::string deep(5000, '(');
    p = deep.data();
    EXPECT_FALSE(roffExpression(p, deep.data() + deep.size(), 'u', value));
}

TEST_F(Roff, ArgumentsSubstituteIntoTheBody) {
    std::vector<std::string> args = {"one", "two words", "3"};
    EXPECT_EQ(roffSubstituteArgs("[\\$1|\\$2|\\$4]", "XX", args.data(), args.size()), "[one|two words|]");
    EXPECT_EQ(roffSubstituteArgs("\\$*", "XX", args.data(), args.size()), "one two words 3");
    EXPECT_EQ(roffSubstituteArgs("\\$@", "XX", args.data(), args.size()), "\"one\" \"two words\" \"3\"");
    EXPECT_EQ(roffSubstituteArgs("\\$0 \\n(.$ \\n[.$]", "XX", args.data(), args.size()), "XX 3 3");
    EXPECT_EQ(roffSubstituteArgs("\\$(03 \\$[3]", "XX", args.data(), args.size()), "3 3");
    // An escaped escape waits for a later reading, as in a nested definition.
    EXPECT_EQ(roffSubstituteArgs("\\\\$1", "XX", args.data(), args.size()), "\\\\$1");
    // A body that ends inside an escape loses nothing before it.
    EXPECT_EQ(roffSubstituteArgs("ab\\", "XX", args.data(), args.size()), "ab\\");
    EXPECT_EQ(roffSubstituteArgs("ab\\$", "XX", args.data(), args.size()), "ab");
}

}  // namespace
