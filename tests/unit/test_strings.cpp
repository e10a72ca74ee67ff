// String registers: definition-time expansion of references, redefinition
// with a reference to the old value, and definitions that end inside a
// reference.
#include <gtest/gtest.h>

#include <string>

#include "interp/interp.h"

namespace {

class Strings : public ::testing::Test {
protected:
    void SetUp() override { interpReset(); }
    void TearDown() override { interpReset(); }
    static std::string get(const char* name) {
        const char* value = TVStringGet(name);
        return value ? value : "<absent>";
    }
};

TEST_F(Strings, RedefinitionSeesTheOldValue) {
    TVDefineString("x", "a");
    TVDefineString("x", "\\*xb");
    EXPECT_EQ(get("x"), "ab");
    TVDefineString("x", "\\*x\\*x");
    EXPECT_EQ(get("x"), "abab");
}

TEST_F(Strings, UndefinedReferenceIsDropped) {
    TVDefineString("y", "a\\*qb\\*(zzc");
    EXPECT_EQ(get("y"), "abc");
}

TEST_F(Strings, TwoCharacterReferences) {
    TVDefineString("ab", "AB");
    TVDefineString("c", "[\\*(ab]");
    EXPECT_EQ(get("c"), "[AB]");
    // A one-character reference takes a single character: "a", then "b".
    TVDefineString("a", "1");
    TVDefineString("d", "\\*ab");
    EXPECT_EQ(get("d"), "1b");
}

TEST_F(Strings, ReferenceEndingAtTheEndOfTheDefinitionIsDropped) {
    TVDefineString("a", "xy\\*");
    EXPECT_EQ(get("a"), "xy");
    TVDefineString("b", "xy\\*(");
    EXPECT_EQ(get("b"), "xy");
    TVDefineString("c", "xy\\*(a");
    EXPECT_EQ(get("c"), "xy");
}

TEST_F(Strings, UnfinishedReferenceReadsNothingPastTheDefinition) {
    // The byte after the terminator must never be looked at: an unfinished
    // reference whose name would be "ab" from beyond the end stays dropped.
    TVDefineString("ab", "WRONG");
    const char storage[] = {'x', '\\', '*', '(', '\0', 'a', 'b', '\0'};
    EXPECT_EQ(ParseDefineString(storage), "x");
    const char storage2[] = {'x', '\\', '*', '(', 'a', '\0', 'b', '\0'};
    EXPECT_EQ(ParseDefineString(storage2), "x");
}

TEST_F(Strings, StarFollowedByASpaceIsText) {
    TVDefineString(" ", "never");
    TVDefineString("s", "a\\* b");
    EXPECT_EQ(get("s"), "a\\* b");
}

TEST_F(Strings, OtherEscapesStayInTheValue) {
    TVDefineString("v", "x");
    // A doubled backslash is not special here: the second one starts a reference.
    TVDefineString("w", "\\fB\\\\*v");
    EXPECT_EQ(get("w"), "\\fB\\x");
}

TEST_F(Strings, ReferencesUseTheBackslashWhateverTheEscapeCharacter) {
    tv.TVEscapeChar = '#';
    TVDefineString("v", "x");
    TVDefineString("w", "#*v\\*v");
    EXPECT_EQ(get("w"), "#*vx");
}

TEST_F(Strings, NamesCountByTheirFirstTwoBytes) {
    TVDefineString("abc", "one");
    EXPECT_EQ(get("ab"), "one");
    EXPECT_EQ(get("abz"), "one");
    EXPECT_EQ(get("a"), "<absent>");
    TVDefineString("a", "two");
    EXPECT_EQ(get("a"), "two");
    EXPECT_EQ(get("ab"), "one");
}

TEST_F(Strings, ResetForgetsEveryRegister) {
    TVDefineString("q", "1");
    interpReset();
    EXPECT_EQ(get("q"), "<absent>");
}

}  // namespace
