#include "common/number.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace {
TEST(NumberBase, LeavesAllToStrtolButBinaryWhichIsAZero) {
    for (const char* s : {"", "0", "0x1F90", "010", "-0x1", "b1", "x0b1", "00b1", "1 0b1", "0 b1"})
        EXPECT_EQ(0, number_base(s)) << s;
    for (const char* s : {"0b1", "0B1", "0b", "0b2", "-0b1", "+0b11", " \t\n\v\f\r0b1", "  -0B1"}) {
        EXPECT_EQ(8, number_base(s)) << s;
        EXPECT_EQ(0, strtol(s, nullptr, number_base(s))) << s;
    }
}
}  // namespace
