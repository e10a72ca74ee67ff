// The rope: capacity choice, doubling growth up to the ceiling, dropped
// characters, copies, concatenation and deletion at either end.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tools/rope.h"

namespace {

std::string textOf(const Rope& rope) { return std::string(RopeText(&rope)); }

// Every operation must leave the text NUL-terminated right at `length`.
void expectConsistent(const Rope& rope) {
    ASSERT_NE(rope.text, nullptr);
    EXPECT_LE(rope.length, rope.capacity);
    EXPECT_EQ(std::strlen(rope.text), rope.length);
    if (rope.maxSize != 0) {
        EXPECT_LE(rope.capacity, rope.maxSize);
    }
}

struct Sizes {
    uint32_t initial, max, capacity;
};

class RopeCapacity : public ::testing::TestWithParam<Sizes> {};

TEST_P(RopeCapacity, InitChoosesTheSmallerOfSizeAndCeiling) {
    Sizes sizes = GetParam();
    Rope rope;
    RopeInit(&rope, sizes.initial, sizes.max);
    EXPECT_EQ(rope.capacity, sizes.capacity);
    EXPECT_EQ(rope.initialSize, sizes.capacity);
    EXPECT_EQ(rope.maxSize, sizes.max);
    EXPECT_EQ(rope.length, 0u);
    EXPECT_STREQ(rope.text, "");
}

INSTANTIATE_TEST_SUITE_P(Sizes, RopeCapacity,
                         ::testing::Values(Sizes{0, 0, 80}, Sizes{0, 20, 20}, Sizes{0, 100, 80},
                                           Sizes{10, 0, 10}, Sizes{200, 50, 50}, Sizes{1, 0, 1}));

TEST(RopeGrowth, DoublesWhenFullAndKeepsTheText) {
    Rope rope;
    RopeInit(&rope, 10, 0);
    std::string expected;
    for (int i = 0; i < 10; i++) {
        RopeAppend(&rope, static_cast<char>('a' + i));
        expected += static_cast<char>('a' + i);
    }
    EXPECT_EQ(rope.capacity, 10u);
    RopeAppend(&rope, 'k');
    expected += 'k';
    EXPECT_EQ(rope.capacity, 20u);
    EXPECT_EQ(rope.length, 11u);
    for (int i = 0; i < 9; i++) RopeAppend(&rope, 'x');
    expected += std::string(9, 'x');
    EXPECT_EQ(rope.capacity, 20u);  // 20 characters fit exactly
    RopeAppend(&rope, 'y');         // the 21st
    expected += 'y';
    EXPECT_EQ(rope.capacity, 40u);
    EXPECT_EQ(textOf(rope), expected);
    expectConsistent(rope);
}

TEST(RopeGrowth, CeilingLowersTheDoublingAndDropsTheRest) {
    Rope rope;
    RopeInit(&rope, 3, 4);
    RopeCatString(&rope, "abcdef");
    EXPECT_EQ(rope.capacity, 4u);
    EXPECT_EQ(textOf(rope), "abcd");
    RopeAppend(&rope, 'g');
    EXPECT_EQ(textOf(rope), "abcd");
    expectConsistent(rope);
}

TEST(RopeGrowth, DoublingThatPassesTheCeilingStopsAtIt) {
    Rope rope;
    RopeInit(&rope, 10, 25);
    RopeCatString(&rope, std::string(30, 'z').c_str());
    EXPECT_EQ(rope.capacity, 25u);  // 10 -> 20 -> 25, never 40
    EXPECT_EQ(rope.length, 25u);
    expectConsistent(rope);
}

TEST(RopeGrowth, LongTextGrowsFromTheSmallestSize) {
    Rope rope;
    RopeInit(&rope, 1, 0);
    std::string expected;
    for (int i = 0; i < 5000; i++) {
        char c = static_cast<char>('A' + i % 26);
        RopeAppend(&rope, c);
        expected += c;
    }
    EXPECT_EQ(textOf(rope), expected);
    EXPECT_EQ(rope.capacity, 8192u);
    expectConsistent(rope);
}

TEST(RopeCopy, CopyStringReplacesAndEmptyLeavesEmpty) {
    Rope rope;
    RopeInit(&rope, 0, 0);
    RopeCopyString(&rope, "xyz");
    EXPECT_EQ(textOf(rope), "xyz");
    RopeCopyString(&rope, "");
    EXPECT_EQ(rope.length, 0u);
    EXPECT_STREQ(rope.text, "");
    RopeCopyString(&rope, "pq");
    RopeCopyString(&rope, nullptr);
    EXPECT_EQ(rope.length, 0u);
    EXPECT_STREQ(rope.text, "");
}

TEST(RopeCopy, CopyStringOfItsOwnTail) {
    Rope rope;
    RopeInit(&rope, 4, 0);
    RopeCopyString(&rope, "hello world");
    RopeCopyString(&rope, rope.text + 6);
    EXPECT_EQ(textOf(rope), "world");
    expectConsistent(rope);
}

TEST(RopeCopy, CopyRopeAndCopyOntoItself) {
    Rope a, b;
    RopeInit(&a, 2, 0);
    RopeInit(&b, 0, 0);
    RopeCopyString(&a, "first");
    RopeCopyString(&b, "second text");
    RopeCopy(&a, &b);
    EXPECT_EQ(textOf(a), "second text");
    EXPECT_EQ(textOf(b), "second text");
    RopeCopy(&a, &a);
    EXPECT_EQ(textOf(a), "second text");
    Rope empty;
    RopeInit(&empty, 0, 0);
    RopeCopy(&a, &empty);
    EXPECT_EQ(a.length, 0u);
    expectConsistent(a);
}

TEST(RopeCat, AppendsAndEmptySourceChangesNothing) {
    Rope to, from, empty;
    RopeInit(&to, 3, 0);
    RopeInit(&from, 0, 0);
    RopeInit(&empty, 0, 0);
    RopeCatString(&to, "ab");
    RopeCatString(&from, "cdefg");
    RopeCat(&to, &from);
    EXPECT_EQ(textOf(to), "abcdefg");
    RopeCat(&to, &empty);
    EXPECT_EQ(textOf(to), "abcdefg");
    RopeCatString(&to, nullptr);
    RopeCatString(&to, "");
    EXPECT_EQ(textOf(to), "abcdefg");
    RopeCat(&empty, &empty);
    EXPECT_EQ(textOf(empty), "");
    expectConsistent(to);
}

TEST(RopeCat, OntoItselfDoublesTheTextAcrossGrowth) {
    Rope rope;
    RopeInit(&rope, 4, 0);
    RopeCatString(&rope, "abcd");
    RopeCat(&rope, &rope);  // the buffer is replaced while it is read
    EXPECT_EQ(textOf(rope), "abcdabcd");
    expectConsistent(rope);
}

TEST(RopeCat, CeilingAppliesToConcatenation) {
    Rope to, from;
    RopeInit(&to, 2, 5);
    RopeInit(&from, 0, 0);
    RopeCatString(&from, "0123456789");
    RopeCat(&to, &from);
    EXPECT_EQ(textOf(to), "01234");
    expectConsistent(to);
}

TEST(RopeCat, TextThatJustFitsAndOneMore) {
    Rope exact, over;
    RopeInit(&exact, 4, 0);
    RopeInit(&over, 4, 6);
    RopeCatString(&exact, "a");
    RopeCatString(&exact, "bcd");  // fills the free space exactly
    EXPECT_EQ(textOf(exact), "abcd");
    EXPECT_EQ(exact.capacity, 4u);
    RopeCatString(&exact, "e");  // one more grows the buffer
    EXPECT_EQ(textOf(exact), "abcde");
    EXPECT_EQ(exact.capacity, 8u);
    RopeCatString(&over, "abcdefgh");  // grows to the ceiling, drops the rest
    EXPECT_EQ(textOf(over), "abcdef");
    expectConsistent(exact);
    expectConsistent(over);
}

TEST(RopeDelete, FirstAndLast) {
    Rope rope;
    RopeInit(&rope, 0, 0);
    RopeCopyString(&rope, "ab");
    RopeDeleteFirst(&rope);
    EXPECT_EQ(textOf(rope), "b");
    RopeCopyString(&rope, "ab");
    RopeDeleteLast(&rope);
    EXPECT_EQ(textOf(rope), "a");
    RopeDeleteFirst(&rope);
    EXPECT_EQ(rope.length, 0u);
    RopeDeleteFirst(&rope);  // empty: nothing happens
    RopeDeleteLast(&rope);
    EXPECT_EQ(rope.length, 0u);
    EXPECT_STREQ(rope.text, "");
}

TEST(RopeDelete, ConsumingFromTheFrontReadsTheTextInOrder) {
    Rope rope;
    RopeInit(&rope, 0, 0);
    RopeCopyString(&rope, "pushback");
    std::string read;
    while (rope.length > 0) {
        read += rope.text[0];
        RopeDeleteFirst(&rope);
        expectConsistent(rope);
    }
    EXPECT_EQ(read, "pushback");
}

TEST(RopeWithoutBuffer, EveryOperationIsHarmless) {
    Rope rope;
    RopeInit(&rope, 0, 0);
    RopeCopyString(&rope, "abc");
    RopeRelease(&rope);
    EXPECT_EQ(rope.text, nullptr);
    RopeAppend(&rope, 'x');
    RopeCatString(&rope, "more");
    RopeCopyString(&rope, "copy");
    Rope other;
    RopeInit(&other, 0, 0);
    RopeCopyString(&other, "other");
    RopeCat(&rope, &other);
    RopeCopy(&rope, &other);
    RopeDeleteFirst(&rope);
    RopeDeleteLast(&rope);
    RopeEmpty(&rope);
    EXPECT_EQ(rope.text, nullptr);
    EXPECT_EQ(rope.length, 0u);
    EXPECT_STREQ(RopeText(&rope), "");
    RopeCat(&other, &rope);  // an unallocated source reads as empty
    EXPECT_EQ(textOf(other), "other");
}

TEST(RopeWithoutBuffer, InitAfterReleaseMakesItUsableAgain) {
    Rope rope;
    RopeInit(&rope, 0, 0);
    RopeRelease(&rope);
    RopeInit(&rope, 5, 0);
    RopeCatString(&rope, "again");
    EXPECT_EQ(textOf(rope), "again");
}

TEST(RopeNew, GivesARecordReadyForInit) {
    std::unique_ptr<Rope> rope = RopeNew();
    ASSERT_NE(rope, nullptr);
    RopeInit(rope.get(), 10, 0);
    RopeAppend(rope.get(), 'q');
    EXPECT_EQ(textOf(*rope), "q");
}

}  // namespace
