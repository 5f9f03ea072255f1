// Zones against the C library's, for all of the system's database, and files and rules that are none.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <schedule/calendar.h>
#include <schedule/zone.h>

#include "oracle.h"

using namespace velia::schedule;
using namespace schedule_test;

namespace {

std::string bytes_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

int64_t offset_of_c_library(int64_t moment) {
    const time_t time = moment;
    struct tm local;
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}

} // namespace

TEST(Zone, OffsetsAreTheCLibrarysInEveryZoneOfTheSystem) {
    const auto names = zone_names();
    ASSERT_GT(names.size(), 300U);
    constexpr int64_t step = 5 * 86400 + 3571;
    constexpr int64_t year_2060 = 2840140800;
    for (const auto &name : names) {
        const auto zone = read_zone(name);
        ASSERT_TRUE(zone) << name;
        setenv("TZ", name.c_str(), 1);
        tzset();
        for (int64_t moment = -1000000000; moment < year_2060; moment += step)
            ASSERT_EQ(zone->offset_at(moment), offset_of_c_library(moment)) << name << ' ' << moment;
    }
}

TEST(Zone, StretchesFollowOneAnotherWithoutAHole) {
    for (const char *name : {"Europe/Berlin", "Europe/Dublin", "Africa/Casablanca", "UTC", "America/Sao_Paulo"}) {
        const auto zone = read_zone(name).value();
        const auto stretches = zone.stretches(1000000000, 4000000000);
        for (size_t i = 1; i < stretches.size(); ++i) {
            EXPECT_EQ(stretches[i].begin, stretches[i - 1].end) << name;
            EXPECT_EQ(zone.offset_at(stretches[i].begin), stretches[i].offset) << name;
            EXPECT_EQ(zone.offset_at(stretches[i].begin - 1), stretches[i - 1].offset) << name;
        }
        EXPECT_LE(stretches.front().begin, 1000000000);
        EXPECT_GT(stretches.back().end, 4000000000);
    }
}

TEST(Zone, ARuleOfEveryFormIsTheCLibrarys) {
    for (const char *rule :
         {"CET-1CEST,M3.5.0,M10.5.0/3", "<-03>3<-02>,M3.5.0/-2,M10.5.0/-1", "EST5EDT,J60,J300/1:30:15",
          "EST5EDT,59,299", "AAA-12:30:15", "IST-1GMT0,M10.5.0,M3.5.0/1", "NZST-12NZDT,M9.5.0,M4.1.0/3"}) {
        const auto zone = read_zone(rule);
        ASSERT_TRUE(zone) << rule;
        setenv("TZ", rule, 1);
        tzset();
        for (int64_t moment = 1500000000; moment < 1600000000; moment += 3571)
            ASSERT_EQ(zone->offset_at(moment), offset_of_c_library(moment)) << rule << ' ' << moment;
    }
}

TEST(Zone, ARuleMayHaveDaylightTimeAllTheYear) {
    const auto zone = read_zone("XXX3EDT4,0/0,J365/23");
    ASSERT_TRUE(zone);
    for (int64_t moment = 1500000000; moment < 1600000000; moment += 1800)
        ASSERT_EQ(zone->offset_at(moment), -4 * 3600) << moment;
}

TEST(Zone, WhatIsNoRuleIsNone) {
    for (const char *text : {"", "A1", "CET", "CET-25", "CET-1CEST", "CET-1CEST,M3.5.0", "CET-1CEST,M13.5.0,M10.5.0",
                             "CET-1CEST,M3.6.0,M10.5.0", "CET-1CEST,M3.5.7,M10.5.0", "CET-1CEST,J0,J1",
                             "CET-1CEST,366,1", "CET-1CEST,M3.5.0,M10.5.0/168", "CET-1CEST,M3.5.0,M10.5.0x", "<CET-1",
                             "CET-1:60", "CET-1CEST,M3-5.0,M10.5.0", "CET-1CEST,M3.5-0,M10.5.0"})
        EXPECT_FALSE(parse_rule(text)) << text;
}

TEST(Zone, AZoneWithoutANameIsTheHosts) {
    const auto of_host = decode_zone(bytes_of("/etc/localtime"));
    const auto zone = read_zone("");
    ASSERT_EQ(zone.has_value(), of_host.has_value());
    if (zone) {
        EXPECT_EQ(zone->offset_at(1700000000), of_host->offset_at(1700000000));
    }
}

TEST(Zone, ANameMayHaveAColonOrBeAPath) {
    EXPECT_EQ(read_zone(":Asia/Tokyo")->offset_at(0), 9 * 3600);
    EXPECT_EQ(read_zone("/usr/share/zoneinfo/Asia/Tokyo")->offset_at(0), 9 * 3600);
}

TEST(Zone, ANameLeadsNowhereElse) {
    EXPECT_FALSE(read_zone("Asia/../Asia/Tokyo"));
    EXPECT_FALSE(read_zone("Asia"));
    EXPECT_FALSE(read_zone("No/Such"));
}

// A file of both parts, the first one empty, whose one offset is that of UTC.
std::string utc_with_leap_seconds(uint32_t count) {
    const auto header = [](uint32_t leap_seconds, uint32_t types, uint32_t characters) {
        std::string text = "TZif2" + std::string(15, '\0');
        for (const uint32_t number : {0U, 0U, leap_seconds, 0U, types, characters})
            for (const int shift : {24, 16, 8, 0})
                text += static_cast<char>(number >> shift);
        return text;
    };
    const std::string offset(6, '\0');
    const std::string rule = "\nUTC0\n";
    std::string text = header(0, 0, 0) + header(count, 1, 4) + offset + std::string("UTC\0", 4);
    for (uint32_t i = 0; i < count; ++i)
        text += rule + rule; // as long as a leap second: who does not look at their count takes it for what it says
    return text + rule;
}

TEST(Zone, AFileThatCountsLeapSecondsIsRefused) {
    EXPECT_TRUE(decode_zone(utc_with_leap_seconds(0)));
    EXPECT_FALSE(decode_zone(utc_with_leap_seconds(1)));
}

TEST(Zone, AFileCutOffAnywhereIsNone) {
    const std::string bytes = bytes_of("/usr/share/zoneinfo/Europe/Berlin");
    ASSERT_TRUE(decode_zone(bytes));
    for (size_t length = 0; length < bytes.size(); ++length)
        ASSERT_FALSE(decode_zone(std::string_view(bytes).substr(0, length))) << length;
}

TEST(Zone, AFileThatDoesNotFitTogetherIsNone) {
    const std::string good = bytes_of("/usr/share/zoneinfo/Europe/Berlin");
    for (size_t at = 0; at < good.size(); ++at) {
        std::string bytes = good;
        bytes[at] = static_cast<char>(bytes[at] ^ 0xFF);
        decode_zone(bytes); // is none, or another one; never a crash
    }
    std::string old = good;
    old[4] = '\0'; // of before there were 64-bit times
    EXPECT_FALSE(decode_zone(old));
}

TEST(Calendar, DaysAndDatesAreOneAnother) {
    for (Day day = first_of_month(-1, 1); day < first_of_month(10001, 1); day += 17) {
        const Date date = date_of(day);
        ASSERT_EQ(first_of_month(date.year, date.month) + date.day - 1, day);
        ASSERT_LE(date.day, length_of_month(date.year, date.month));
    }
    EXPECT_EQ(weekday_of(0), 3); // a Thursday
    EXPECT_EQ(weekday_of(-4), 6);
}
