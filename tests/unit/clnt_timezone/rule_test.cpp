// The grammar of rules.
#include <gtest/gtest.h>

#include <random>

#include "zone_bytes.h"

#include <rvzd/client/clnt_timezone/timezone.h>

using namespace velia::tz;

namespace {

struct Tod {
    int used;
    int32_t hours;
    int32_t minutes;
    int32_t seconds;

    bool operator==(const Tod &) const = default;
};

Tod tod(const char *text) {
    clnt_tz_tod_t time = {9, 9, 9};
    const int used = tod_from_str(text, &time);
    return {used, time.hours, time.minutes, time.seconds};
}

std::string text_of(const RuleDate &date) {
    return "month " + std::to_string(date.month) + " day " + std::to_string(date.day) + " week " +
           std::to_string(date.week) + " at " + std::to_string(date.hour) + ":" + std::to_string(date.min) + ":" +
           std::to_string(date.sec);
}

// A rule as text: "<none>" if it is none.
std::string parsed(const std::string &text) {
    Rule rule;
    if (!parse_rule(text.c_str(), rule))
        return "<none>";
    std::string words = std::string(rule.st_name) + " " + std::to_string(rule.st_offset);
    if (rule.dt_name != nullptr)
        words += ", " + std::string(rule.dt_name) + " " + std::to_string(rule.dt_offset) + ", " +
                 text_of(rule.dt_rule) + ", " + text_of(rule.st_rule);
    release_rule(rule);
    return words;
}

class RuleGrammar : public testing::Test {
protected:
    sim::World world;
};

class TimeOfDay : public RuleGrammar {};

} // namespace

TEST_F(TimeOfDay, HasHoursMinutesAndSeconds) {
    EXPECT_EQ(tod("5"), (Tod{1, 5, 0, 0}));
    EXPECT_EQ(tod("5:30"), (Tod{4, 5, 30, 0}));
    EXPECT_EQ(tod("05:30:15"), (Tod{8, 5, 30, 15}));
    EXPECT_EQ(tod("5:30:15:9"), (Tod{7, 5, 30, 15}));
    EXPECT_EQ(tod("5EDT"), (Tod{1, 5, 0, 0}));
}

TEST_F(TimeOfDay, NumbersMayHaveASignAndWhiteSpaceBeforeThem) {
    EXPECT_EQ(tod("-5:-30:+15"), (Tod{10, -5, -30, 15}));
    EXPECT_EQ(tod(" \t5: 30"), (Tod{7, 5, 30, 0}));
}

TEST_F(TimeOfDay, TextThatBeginsWithNoNumberIsNone) {
    for (const char *text : {"", "x", ":5", "-", "+x", " ", "- 5"})
        EXPECT_EQ(tod(text), (Tod{0, 0, 0, 0})) << text;
    EXPECT_EQ(tod(nullptr), (Tod{0, 0, 0, 0}));
}

TEST_F(TimeOfDay, ColonWithoutANumberIsNotUsed) {
    EXPECT_EQ(tod("5:"), (Tod{1, 5, 0, 0}));
    EXPECT_EQ(tod("5:30:x"), (Tod{4, 5, 30, 0}));
    EXPECT_EQ(tod("5::15"), (Tod{1, 5, 0, 0}));
}

TEST_F(TimeOfDay, NumberBeyond32BitsIsHeldToThem) {
    EXPECT_EQ(tod("99999999999999999999"), (Tod{20, INT32_MAX, 0, 0}));
    EXPECT_EQ(tod("-99999999999"), (Tod{12, INT32_MIN, 0, 0}));
    EXPECT_EQ(tod("-2147483648"), (Tod{11, INT32_MIN, 0, 0}));
}

TEST_F(RuleGrammar, OfAZoneWithoutDaylightTimeIsANameAndAnOffset) {
    EXPECT_EQ(parsed("EST5"), "EST -18000");
    EXPECT_EQ(parsed("CET-1"), "CET 3600");
    EXPECT_EQ(parsed("IST-5:30"), "IST 16200") << "minutes count against the hours' sign";
    EXPECT_EQ(parsed("ABC5:30:15"), "ABC -19815");
}

TEST_F(RuleGrammar, OfAZoneWithDaylightTimeSpellsEverythingOut) {
    EXPECT_EQ(parsed("EST5EDT4,M4.1.1/2,M10.1.5/2:30:15"),
              "EST -18000, EDT 14400, month 3 day 0 week 1 at 2:0:0, month 9 day 0 week 5 at 2:30:15");
}

TEST_F(RuleGrammar, DateIsMonthDayOfTheWeekAndWeek) {
    EXPECT_EQ(parsed("EST5EDT4,M3.7.2/1,M11.6.4/3"),
              "EST -18000, EDT 14400, month 2 day 6 week 2 at 1:0:0, month 10 day 5 week 4 at 3:0:0");
}

TEST_F(RuleGrammar, DaylightNameOfFewerThanThreeCharactersIsNone) {
    EXPECT_EQ(parsed("EST5ED"), "EST -18000");
    EXPECT_EQ(parsed("EST5,M4.1.1/2,M10.1.5/2"), "EST -18000");
    EXPECT_EQ(parsed("EST5:x"), "EST -18000");
}

TEST_F(RuleGrammar, ShortFormsOfDaylightTimeAreNotParsed) {
    EXPECT_EQ(parsed("EST5EDT"), "<none>");
    EXPECT_EQ(parsed("EST5EDT,M4.1.1/2,M10.1.5/2"), "<none>");
    EXPECT_EQ(parsed("EST5EDT4"), "<none>");
    EXPECT_EQ(parsed("EST5EDT4,M4.1.1,M10.1.5"), "<none>");
    EXPECT_EQ(parsed("EST5EDT4,J100/2,J300/2"), "<none>");
}

TEST_F(RuleGrammar, NeedsAStandardNameAndItsOffset) {
    for (const char *text : {"", "ES5", "5", "EST", "EST,", "EST:", "+5"})
        EXPECT_EQ(parsed(text), "<none>") << text;
}

TEST_F(RuleGrammar, NamesMayHoldWhateverEndsNoName) {
    EXPECT_EQ(parsed("<E S/T>5"), "<E S/T> -18000");
}

TEST_F(RuleGrammar, CutAnywhereIsNoneOrHasNoDaylightTime) {
    const std::string whole = "EST5EDT4,M4.1.1/2,M10.1.5/2";
    const std::string without_daylight = "EST -18000";
    for (size_t length = 0; length < whole.size(); ++length) {
        const bool is_short_form = length >= 4 && length <= 6;
        EXPECT_EQ(parsed(whole.substr(0, length)), is_short_form ? without_daylight : "<none>") << length;
    }
}

TEST_F(RuleGrammar, SecondDateThatCannotBeReadCountsAsLongAsTheFirst) {
    // ",M4.1.1/" has eight characters: the time is looked for that far behind the second date's begin.
    EXPECT_EQ(parsed("EST5EDT4,M4.1.1/2,M9.2.3x4:30"),
              "EST -18000, EDT 14400, month 3 day 0 week 1 at 2:0:0, month 8 day 1 week 3 at 4:30:0");
    EXPECT_EQ(parsed("EST5EDT4,M4.1.1/2,"), "<none>") << "never beyond the end";
    EXPECT_EQ(parsed("EST5EDT4,M4.1.1x2,M9.2.3/4"), "<none>") << "the first must be read";
}

TEST_F(RuleGrammar, WithoutMemoryHasNoDaylightTimeOrIsNone) {
    world.fail_allocation(1);
    EXPECT_EQ(parsed("EST5EDT4,M4.1.1/2,M10.1.5/2"), "<none>");
    world.fail_allocation(2);
    EXPECT_EQ(parsed("EST5EDT4,M4.1.1/2,M10.1.5/2"), "EST -18000");
    world.fail_allocation(0);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(RuleGrammar, GeneratedOnesAreReadAsTheyWereWritten) {
    std::mt19937 random(4711);
    const auto number = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
    for (int round = 0; round < 5000; ++round) {
        const int offset = number(-12, 12);
        const int dates[2][6] = {
            {number(1, 12), number(1, 7), number(1, 5), number(0, 23), number(0, 59), number(0, 59)},
            {number(1, 12), number(1, 7), number(1, 5), number(0, 23), number(0, 59), number(0, 59)}};
        std::string text = "ABC" + std::to_string(offset) + "DEFG" + std::to_string(offset - 1);
        std::string expected =
            "ABC " + std::to_string(offset * -3600) + ", DEFG " + std::to_string((offset - 1) * 3600);
        for (const auto &date : dates) {
            text += ",M" + std::to_string(date[0]) + "." + std::to_string(date[1]) + "." + std::to_string(date[2]) +
                    "/" + std::to_string(date[3]) + ":" + std::to_string(date[4]) + ":" + std::to_string(date[5]);
            expected += ", " + text_of({date[0] - 1, date[1] - 1, date[2], date[3], date[4], date[5]});
        }
        ASSERT_EQ(parsed(text), expected) << text;
    }
}
