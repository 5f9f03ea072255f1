#include <server/loop/line_rate.h>

#include <gtest/gtest.h>

using velia::server::LineRate;

TEST(LineRate, LeavesOutAndCountsWhatIsTooMuch) {
    LineRate rate;
    uint64_t left_out = 7;
    for (int i = 0; i < LineRate::LINES_AT_ONCE; ++i) {
        EXPECT_TRUE(rate.take(1000, left_out)) << i;
        EXPECT_EQ(left_out, 0u);
    }
    for (int i = 0; i < 100; ++i)
        EXPECT_FALSE(rate.take(1000, left_out));
    EXPECT_TRUE(rate.take(1000 + 1000 / LineRate::LINES_A_SECOND, left_out));
    EXPECT_EQ(left_out, 100u);
    EXPECT_FALSE(rate.take(1000 + 1000 / LineRate::LINES_A_SECOND, left_out));
}

TEST(LineRate, HasAllItsRoomAgainAfterAWhile) {
    LineRate rate;
    uint64_t left_out = 0;
    for (const int64_t now_ms : {1000, 100000})
        for (int i = 0; i < LineRate::LINES_AT_ONCE; ++i)
            EXPECT_TRUE(rate.take(now_ms, left_out)) << now_ms << ' ' << i;
}
