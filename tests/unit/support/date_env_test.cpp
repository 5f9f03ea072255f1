#include <cerrno>
#include <climits>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include <support/date.h>
#include <support/env.h>

#include "test_site.h"

namespace {

class Date : public testing::Test {
protected:
    Date() { tzset(); }
    ScopedEnv zone_{"TZ", "UTC0"};
};

time_t parsed(const char *text) {
    time_t time = -1;
    return date_str_to_time(text, &time) != 0 ? time : -1;
}

} // namespace

TEST_F(Date, FormsAreIsoLike) {
    EXPECT_STREQ(date_fmt_token_date(1716903223), "2024-05-28");
    EXPECT_STREQ(date_fmt_token_date_time(1716903223), "2024-05-28 13:33:43");
}

TEST_F(Date, WhatIsWrittenIsReadBack) {
    for (const time_t time : {time_t{0}, time_t{1}, time_t{1716903223}, time_t{4102444800}, time_t{-86401},
                              time_t{253402300800}, time_t{-62000000000}, time_t{LONG_MAX}, time_t{LONG_MIN}}) {
        time_t read = 7;
        EXPECT_NE(date_str_to_time(date_fmt_token_date_time(time), &read), 0) << time;
        EXPECT_EQ(read, time);
    }
}

TEST_F(Date, ADateAloneIsItsMidnight) {
    EXPECT_EQ(parsed("2024-05-28"), 1716854400);
    EXPECT_EQ(parsed("2024-05-28T00:00:01"), 1716854401);
}

TEST_F(Date, NowIsOne) {
    EXPECT_EQ(parsed("<now>"), 1);
}

TEST_F(Date, RefusesAllElse) {
    for (const char *text : {"",
                             "<now",
                             "<now> ",
                             "<NOW>",
                             "now",
                             "2024",
                             "2024-5-28",
                             "2024-05-28 ",
                             "2024-05-28 13:33",
                             "2024-05-28 13:33:43 ",
                             "2024-02-30",
                             "2023-02-29",
                             "2024-13-01",
                             "2024-00-10",
                             "2024-05-00",
                             "2024-05-28 24:00:00",
                             "2024-05-28 13:60:00",
                             "2024-05-28 13:33:60",
                             "02024-05-280",
                             "x2024-05-28",
                             "@",
                             "@x",
                             "@1x",
                             "@99999999999999999999",
                             "@ 5",
                             "12345678901-01-01"})
        EXPECT_EQ(parsed(text), -1) << text;
    time_t untouched = 42;
    EXPECT_EQ(date_str_to_time(nullptr, &untouched), 0);
    EXPECT_EQ(untouched, 42);
}

TEST_F(Date, LeapDayIsADay) {
    EXPECT_EQ(parsed("2024-02-29"), 1709164800);
}

TEST_F(Date, EightTextsOfAThreadLiveAtOnce) {
    const std::string expected = date_fmt_token_date(0);
    const char *first = date_fmt_token_date(0);
    for (time_t day = 1; day < 9; ++day)
        date_fmt_token_date(day * 86400);
    EXPECT_EQ(first, expected);
}

TEST(DateInAZoneWithSummerTime, RoundTripsOnBothSides) {
    ScopedEnv zone("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    tzset();
    for (const time_t time : {time_t{1716903223}, time_t{1704067200}}) {
        time_t read = 0;
        EXPECT_NE(date_str_to_time(date_fmt_token_date_time(time), &read), 0);
        EXPECT_EQ(read, time);
    }
    EXPECT_STREQ(date_fmt_token_date_time(1716903223), "2024-05-28 15:33:43");
}

TEST(Clock, IsTheSystemsClock) {
    struct timeval now;
    const time_t before = time(nullptr);
    date_get_timeval(&now);
    EXPECT_GE(now.tv_sec, before);
    EXPECT_LE(now.tv_sec, before + 10);
    EXPECT_LT(now.tv_usec, 1000000);
}

TEST(BrokenDownTime, IsGivenInTheCallersRecord) {
    const time_t time = 1716903223;
    struct tm parts;
    EXPECT_EQ(date_get_gmtime(&time, &parts), &parts);
    EXPECT_EQ(parts.tm_hour, 13);
    EXPECT_EQ(date_get_localtime(&time, &parts), &parts);
    const time_t too_far = LONG_MAX;
    EXPECT_EQ(date_get_gmtime(&too_far, &parts), nullptr);
}

TEST(Getenv, NeverCutsAValue) {
    ScopedEnv variable("VELIA_TEST_VARIABLE", "12345");
    char buffer[8] = "before";
    EXPECT_EQ(getenv_safe("VELIA_TEST_VARIABLE", buffer, 5, 0), nullptr);
    EXPECT_STREQ(buffer, "before");
    EXPECT_EQ(getenv_safe("VELIA_TEST_VARIABLE", buffer, 6, 0), buffer);
    EXPECT_STREQ(buffer, "12345");
}

TEST(Getenv, UnsetIsNullAndEmptyIsAValue) {
    char buffer[8] = "before";
    {
        ScopedEnv variable("VELIA_TEST_VARIABLE", nullptr);
        EXPECT_EQ(getenv_safe("VELIA_TEST_VARIABLE", buffer, sizeof buffer, 0), nullptr);
    }
    ScopedEnv variable("VELIA_TEST_VARIABLE", "");
    EXPECT_EQ(getenv_safe("VELIA_TEST_VARIABLE", buffer, sizeof buffer, 0), buffer);
    EXPECT_STREQ(buffer, "");
}

TEST(FileSystemConfigDirectory, IsANameOrNone) {
    {
        ScopedEnv variable("VELIA_LYFS_CONFIG", "ws1");
        EXPECT_STREQ(lyfs_get_host_config_dir(), "ws1");
    }
    for (const char *value : {"a/b", "..", ".", ""}) {
        ScopedEnv variable("VELIA_LYFS_CONFIG", value);
        EXPECT_STREQ(lyfs_get_host_config_dir(), "") << value;
    }
    ScopedEnv variable("VELIA_LYFS_CONFIG", nullptr);
    EXPECT_STREQ(lyfs_get_host_config_dir(), "");
}
