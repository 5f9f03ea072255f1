// The moments of change of a year, out of a zone file's table and out of a rule.
#include <gtest/gtest.h>

#include <random>

#include "zone_bytes.h"

#include <rvzd/client/clnt_timezone/timezone.h>

using namespace tz_test;

namespace {

// The day of the week of a date of the Gregorian calendar; months from 1.
int weekday(int year, int month, int day) {
    constexpr int shift[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
    const int y = month < 3 ? year - 1 : year;
    return (y + y / 4 - y / 100 + y / 400 + shift[month - 1] + day) % 7;
}

int days_in(int year, int month) {
    constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool is_leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && is_leap ? 29 : days[month - 1];
}

// The day of the month of the `week`th day of the week (0 is Sunday); 5 is the last.
int day_of_rule(int year, int month, int wday, int week) {
    int day = 1;
    while (weekday(year, month, day) != wday)
        ++day;
    day += (week - 1) * 7;
    return day > days_in(year, month) ? day - 7 : day;
}

std::string text_of(const clnt_tz_date_t &date) {
    return std::to_string(date.year + 1900) + "-" + std::to_string(date.month + 1) + "-" + std::to_string(date.mday) +
           " wday " + std::to_string(date.wday) + " " + std::to_string(date.hour) + ":" + std::to_string(date.min) +
           ":" + std::to_string(date.sec);
}

} // namespace

TEST(ZoneTransition, IsTheFirstOfItsKindInTheYear) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    const Record record(2026);
    EXPECT_EQ(text_of(record->dt_trans), "2026-3-8 wday 0 2:0:0");
    EXPECT_EQ(text_of(record->st_trans), "2026-11-1 wday 0 2:0:0");
}

TEST(ZoneTransition, OfAnotherYearIsNone) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    const Record record(2027);
    EXPECT_EQ(record->flags & change_flags, 0u);
    EXPECT_TRUE(same_date(record->st_trans, no_date));
    EXPECT_TRUE(same_date(record->dt_trans, no_date));
    EXPECT_EQ(record->flags & daylight_flags, daylight_flags) << "the zone still has daylight time";
}

TEST(ZoneTransition, ZoneWhoseLastOneLiesBeforeTheYearHasNoDaylightTime) {
    TimeZone zone;
    ZoneBytes ended = usual_zone();
    zone.set(zone.file(ended.bytes(), "before"));
    ASSERT_EQ(Record(2026)->flags & daylight_flags, daylight_flags);
    // The last change is one to daylight time, in December of 2036: what the C library calls the zone now has it.
    ended.transitions = {{march_8, 1}, {november_1, 0}, {2112000000, 1}};
    zone.set(zone.file(ended.bytes(), "ended"));
    const Record record(2037);
    ASSERT_NE(daylight, 0) << "the C library says that the zone has daylight time";
    EXPECT_EQ(record->bias, 0);
    EXPECT_EQ(record->flags, static_cast<uint32_t>(CLNT_TZ_OFFSET | CLNT_TZ_ST_NAME));
    EXPECT_TRUE(same_date(record->st_trans, no_date));
    EXPECT_TRUE(same_date(record->dt_trans, no_date));
}

TEST(ZoneTransition, ZoneWithoutATableHasNoDaylightTime) {
    TimeZone zone;
    zone.world.now_us = int64_t{march_8 + 1} * 1'000'000;
    const ZoneBytes with_table = usual_zone();
    ZoneBytes without_table = with_table;
    without_table.transitions.clear();
    // The C library reads the second part of a file, of 64 bits, by which daylight time is in force.
    zone.set(zone.file(with_table.bytes_of_both(with_table), "with"));
    ASSERT_EQ(Record(2026)->flags, 255u);
    zone.set(zone.file(without_table.bytes_of_both(with_table), "without"));
    const Record record(2026);
    EXPECT_EQ(record->flags, 255u & ~(change_flags | CLNT_TZ_DT_DEFINED | CLNT_TZ_DAYLIGHT));
    EXPECT_TRUE(same_date(record->st_trans, no_date));
    EXPECT_TRUE(same_date(record->dt_trans, no_date));
}

TEST(ZoneTransition, MissingKindIsNone) {
    TimeZone zone;
    ZoneBytes one_way = usual_zone();
    one_way.transitions = {{0, 0}, {march_8, 1}};
    zone.set(zone.file(one_way.bytes()));
    const Record record(2026);
    EXPECT_EQ(record->flags & change_flags, static_cast<uint32_t>(CLNT_TZ_DT_TRANS));
    EXPECT_EQ(text_of(record->dt_trans), "2026-3-8 wday 0 2:0:0");
    EXPECT_TRUE(same_date(record->st_trans, no_date));
}

TEST(ZoneTransition, IsTheWallClockBeforeTheChangeIfThatIsOneOfAnHour) {
    TimeZone zone;
    ZoneBytes half_hour = usual_zone();
    half_hour.types = {{37800, 0, 0}, {39600, 1, 4}};
    half_hour.transitions = {{0, 0}, {1775316600 - 1800, 0}, {1775316600, 1}, {1791042300, 0}, {2130000000, 1}};
    zone.set(zone.file(half_hour.bytes()));
    const Record record(2026);
    EXPECT_EQ(record->bias, -60) << "the offset of an hour is taken for granted";
    EXPECT_EQ(text_of(record->dt_trans), "2026-4-5 wday 0 1:30:0");
}

TEST(ZoneTransition, MomentsNearTheEndsOf32BitsDoNotLeaveThem) {
    TimeZone zone;
    ZoneBytes extreme = usual_zone();
    extreme.types = {{INT32_MIN, 0, 0}, {INT32_MAX, 1, 4}};
    extreme.transitions = {{INT32_MIN, 0}, {INT32_MAX - 1, 1}, {INT32_MAX, 0}};
    zone.set(zone.file(extreme.bytes()));
    for (const int year : {1971, 2026, 2037})
        EXPECT_EQ(Record(year).status(), CLNT_TZ_OK);
}

TEST(RuleTransition, IsTheDayThatTheRuleNames) {
    TimeZone zone;
    zone.set("EST5EDT4,M4.1.1/2,M10.1.5/2:30");
    const Record record(2026);
    EXPECT_EQ(text_of(record->dt_trans), "2026-4-5 wday 0 2:0:0");
    EXPECT_EQ(text_of(record->st_trans), "2026-10-25 wday 0 2:30:0");
    EXPECT_EQ(record->flags & change_flags, change_flags);
}

TEST(RuleTransition, WithoutADaylightPartFlag64IsSetAndTheDateIsZero) {
    TimeZone zone;
    zone.set("EST5");
    const Record record(2026);
    EXPECT_EQ(record->flags, static_cast<uint32_t>(CLNT_TZ_OFFSET | CLNT_TZ_ST_NAME | CLNT_TZ_ST_TRANS));
    EXPECT_TRUE(same_date(record->st_trans, no_date));
    EXPECT_TRUE(same_date(record->dt_trans, no_date));
}

TEST(RuleTransition, WeekFiveIsTheLastEvenInAMonthOfFour) {
    TimeZone zone;
    // February of 2026 has four Sundays, March five.
    zone.set("EST5EDT4,M2.1.5/2,M3.1.5/2");
    const Record record(2026);
    EXPECT_EQ(text_of(record->dt_trans), "2026-2-22 wday 0 2:0:0");
    EXPECT_EQ(text_of(record->st_trans), "2026-3-29 wday 0 2:0:0");
}

TEST(RuleTransition, OtherWeeksAreTheFirst) {
    TimeZone zone;
    for (const char *week : {"0", "1", "6", "-3"}) {
        zone.set("EST5EDT4,M4.1." + std::string(week) + "/2,M10.1.5/2");
        EXPECT_EQ(text_of(Record(2026)->dt_trans), "2026-4-5 wday 0 2:0:0") << week;
    }
}

TEST(RuleTransition, HourOfTheRuleStandsAsItIs) {
    TimeZone zone;
    zone.set("EST5EDT4,M4.2.1/26:70:80,M10.1.5/-3");
    const Record record(2026);
    EXPECT_EQ(record->dt_trans.hour, 26);
    EXPECT_EQ(record->dt_trans.min, 70);
    EXPECT_EQ(record->dt_trans.sec, 80);
    EXPECT_EQ(record->st_trans.hour, -3);
}

TEST(RuleTransition, AnHourBeforeMidnightOfDaylightTimeIsStillOfThatDay) {
    TimeZone zone;
    zone.set("EST5EDT4,M4.1.1/2,M11.1.1/23");
    EXPECT_EQ(text_of(Record(2026)->st_trans), "2026-11-1 wday 0 23:0:0");
}

TEST(RuleTransition, TimesWithoutTheirDatesAreNone) {
    TimeZone zone;
    zone.set("EST5EDT4-3-2");
    const Record record(2026);
    EXPECT_EQ(record->flags & change_flags, 0u);
    EXPECT_TRUE(same_date(record->st_trans, no_date));
    EXPECT_TRUE(same_date(record->dt_trans, no_date));
}

TEST(RuleTransition, NumbersBeyondAllBoundsAreNoHarm) {
    TimeZone zone;
    const std::string huge = "99999999999";
    zone.set("EST5EDT4,M" + huge + "." + huge + "." + huge + "/" + huge + ",M-" + huge + ".-" + huge + ".-" + huge +
             "/-" + huge);
    EXPECT_EQ(Record(2026).status(), CLNT_TZ_OK);
}

TEST(RuleTransition, AgreesWithTheCalendarForEveryRuleAndYear) {
    TimeZone zone;
    for (int month = 1; month <= 12; ++month) {
        for (int day = 1; day <= 7; ++day) {
            const int week = 1 + (month + day) % 5;
            const std::string date =
                ",M" + std::to_string(month) + "." + std::to_string(day) + "." + std::to_string(week);
            zone.set("EST5EDT4" + date + "/12" + date + "/13");
            for (int year = 1971; year <= 2037; ++year) {
                const Record record(year);
                const int mday = day_of_rule(year, month, day - 1, week);
                const clnt_tz_date_t expected = {year - 1900, month - 1, mday, day - 1, 12, 0, 0};
                ASSERT_EQ(text_of(record->dt_trans), text_of(expected)) << date;
                ASSERT_EQ(record->st_trans.mday, mday) << date;
                ASSERT_EQ(record->st_trans.hour, 13);
            }
            zone.world.take_messages();
        }
    }
}

TEST(RuleTransition, AgreesWithTheCalendarForGeneratedRules) {
    TimeZone zone;
    std::mt19937 random(4711);
    const auto number = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
    for (int round = 0; round < 2000; ++round) {
        const int months[] = {number(1, 12), number(1, 12)};
        const int days[] = {number(1, 7), number(1, 7)};
        const int weeks[] = {number(1, 5), number(1, 5)};
        const int hours[] = {number(4, 20), number(4, 20)};
        std::string value = "EST5EDT4";
        for (int i = 0; i < 2; ++i)
            value += ",M" + std::to_string(months[i]) + "." + std::to_string(days[i]) + "." + std::to_string(weeks[i]) +
                     "/" + std::to_string(hours[i]);
        zone.set(value);
        const int year = number(1971, 2037);
        const Record record(year);
        for (int i = 0; i < 2; ++i) {
            const clnt_tz_date_t expected = {year - 1900,
                                             months[i] - 1,
                                             day_of_rule(year, months[i], days[i] - 1, weeks[i]),
                                             days[i] - 1,
                                             hours[i],
                                             0,
                                             0};
            ASSERT_EQ(text_of(i == 0 ? record->dt_trans : record->st_trans), text_of(expected)) << value << " " << year;
        }
        zone.world.take_messages();
    }
}
