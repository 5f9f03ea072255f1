#include <server/rpc/figures.h>

#include <gtest/gtest.h>

using namespace velia::server;

TEST(CallFigures, TellMedianAndNinetyNinthPercentileToAFifth) {
    CallFigures figures;
    for (int64_t time = 1; time <= 1000; ++time)
        figures.add(7, time);
    figures.add(3, 2);
    const auto rows = figures.rows();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].procedure, 3u);
    EXPECT_EQ(rows[0].calls, 1u);
    EXPECT_EQ(rows[0].median_us, 2u);
    EXPECT_EQ(rows[0].p99_us, 2u);
    EXPECT_EQ(rows[1].calls, 1000u);
    EXPECT_GE(rows[1].median_us, 500u);
    EXPECT_LE(rows[1].median_us, 600u);
    EXPECT_GE(rows[1].p99_us, 990u);
    EXPECT_LE(rows[1].p99_us, 1200u);
}

// As many calls take no longer than what is told, and one more does where a call is slower.
TEST(CallFigures, TellTheLongestTimeOfAShareToTheCall) {
    CallFigures figures;
    for (int i = 0; i < 98; ++i)
        figures.add(7, 100);
    figures.add(7, 1000);
    figures.add(7, 100000);
    EXPECT_EQ(figures.rows()[0].median_us, 111u) << "what is counted with it ends there";
    EXPECT_EQ(figures.rows()[0].p99_us, 1023u) << "the ninety-ninth of a hundred";
    CallFigures next;
    next.add(7, 112);
    EXPECT_EQ(next.rows()[0].median_us, 127u);
}

TEST(CallFigures, TakeAnyTime) {
    CallFigures figures;
    figures.add(1, -5);
    EXPECT_EQ(figures.rows()[0].median_us, 0u);
    for (int64_t time = 1; time > 0 && time < (int64_t{1} << 38); time = time * 5 / 4 + 1) {
        CallFigures one;
        one.add(1, time);
        EXPECT_GE(one.rows()[0].median_us, static_cast<uint64_t>(time));
        EXPECT_LE(one.rows()[0].median_us, static_cast<uint64_t>(time) * 5 / 4 + 1);
    }
    figures.add(1, INT64_MAX);
    EXPECT_GT(figures.rows()[0].p99_us, uint64_t{1} << 39);
}

TEST(CallFigures, AreNoneBeforeTheFirstCall) {
    EXPECT_TRUE(CallFigures().rows().empty());
}
