#include <gtest/gtest.h>
#include "tools/rope.h"
TEST(Placeholder, RopeRecordStartsEmpty) { Rope r; EXPECT_EQ(r.length, 0u); }
