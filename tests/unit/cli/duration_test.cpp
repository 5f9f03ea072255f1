// Seconds as people write them.
#include <gtest/gtest.h>

#include <cli/duration.h>

using namespace velia::cli;

TEST(Durations, AreSecondsWithAFraction) {
    EXPECT_EQ(duration_of_text("25"), Duration(25'000));
    EXPECT_EQ(duration_of_text("0.5"), Duration(500));
    EXPECT_EQ(duration_of_text(".25"), Duration(250));
    EXPECT_EQ(duration_of_text("3."), Duration(3000));
    EXPECT_EQ(duration_of_text("0"), Duration(0));
    EXPECT_EQ(duration_of_text("1.001000"), Duration(1001));
}

TEST(Durations, FinerThanAMillisecondAreRoundedUp) {
    EXPECT_EQ(duration_of_text("0.0001"), Duration(1));
    EXPECT_EQ(duration_of_text("0.9991"), Duration(1000));
}

TEST(Durations, AreDigitsAndOnePoint) {
    for (const char *text : {"", ".", "-1", "+1", "1e3", "0x10", "inf", "nan", "1,5", "1.2.3", " 1", "1 ", "1s",
                             "1000000000", "99999999999999999999"})
        EXPECT_EQ(duration_of_text(text), std::nullopt) << text;
}

TEST(Durations, AreWrittenWithoutZerosBehind) {
    EXPECT_EQ(text_of_duration(Duration(25'000)), "25");
    EXPECT_EQ(text_of_duration(Duration(500)), "0.5");
    EXPECT_EQ(text_of_duration(Duration(10'010)), "10.01");
    EXPECT_EQ(text_of_duration(Duration(0)), "0");
}

TEST(Durations, OfWholeSecondsAreRoundedUp) {
    EXPECT_EQ(whole_seconds(Duration(1)), 1);
    EXPECT_EQ(whole_seconds(Duration(2000)), 2);
    const timeval time = timeval_of(Duration(2500));
    EXPECT_EQ(time.tv_sec, 2);
    EXPECT_EQ(time.tv_usec, 500'000);
}
