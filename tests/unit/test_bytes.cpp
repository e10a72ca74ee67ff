#include "tools/bytes.h"

#include <gtest/gtest.h>

#include <string>

// Every length from empty to past two steps of eight, so that both the
// eight-byte steps and the bytes left over are taken, each byte distinct.
TEST(Bytes, ReverseCopyTurnsEveryLengthRound) {
    std::string source;
    for (int i = 0; i < 19; i++) source += static_cast<char>('a' + i);
    for (size_t n = 0; n <= source.size(); n++) {
        std::string expected(source.rbegin() + static_cast<std::ptrdiff_t>(source.size() - n), source.rend());
        std::string out(n + 2, '#');  // guards: nothing written past n
        reverseCopy(source.data(), source.data() + n, out.data());
        EXPECT_EQ(out.substr(0, n), expected) << "length " << n;
        EXPECT_EQ(out.substr(n), "##") << "length " << n;
    }
}
