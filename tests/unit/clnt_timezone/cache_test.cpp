// The cache of what TZ says: what fills it, what empties it, and what is told of that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "zone_bytes.h"

#include <rvzd/client/clnt_timezone/timezone.h>

using namespace tz_test;
using velia::tz::global_tz_cache;

namespace {

constexpr char rule[] = "EST5EDT4,M4.1.1/2,M10.1.5/2";

// A value that is set cures what was warned of before.
void cure(TimeZone &zone) {
    zone.set("UTC");
    { const Record record(2026); }
    zone.unset();
    zone.world.take_messages();
}

// One hour later than the usual zone in spring.
ZoneBytes other_zone() {
    return zone_of_2026(march_8 + 3600, november_1);
}

constexpr clnt_tz_date_t march_8_at_3 = {126, 2, 8, 0, 3, 0, 0};

} // namespace

TEST(TimeZoneCache, FileBelowTheZoneDirectoryIsState2) {
    TimeZone zone;
    zone.set("Europe/Berlin");
    const Record record(2026);
    EXPECT_EQ(global_tz_cache.state, 2);
    EXPECT_EQ(global_tz_cache.tz_kind, 2);
    EXPECT_STREQ(global_tz_cache.tz, "Europe/Berlin");
    EXPECT_EQ(zone.world.take_messages(), Messages{refreshed_from_data()});
}

TEST(TimeZoneCache, ValueThatCouldBeARuleButExistsAsAFileIsAFile) {
    TimeZone zone;
    zone.set("EST5EDT");
    const Record record(2026);
    EXPECT_EQ(global_tz_cache.state, 2);
    EXPECT_EQ(global_tz_cache.tz_kind, 2);
    EXPECT_EQ(record->flags & change_flags, change_flags);
}

TEST(TimeZoneCache, AFileWhoseChangesHave64BitTimesOnlyIsToldOnce) {
    TimeZone zone;
    ZoneBytes empty;
    empty.types = {{-18000, 0, 0}};
    const std::string value = zone.file(empty.bytes() + usual_zone().bytes());
    zone.set(value);
    EXPECT_EQ(Record(2026)->flags & change_flags, 0u);
    const auto messages = zone.world.take_messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].severity, IMSG_WARNING);
    EXPECT_THAT(messages[0].text, testing::AllOf(testing::HasSubstr(value), testing::HasSubstr("64-bit")));
    EXPECT_EQ(messages[1], refreshed_from_data());
    { const Record record(2026); }
    EXPECT_EQ(zone.world.take_messages(), Messages{});
}

TEST(TimeZoneCache, AFileThatHasNoChangesAtAllIsNotTold) {
    ZoneBytes empty;
    empty.types = {{0, 0, 0}};
    for (const std::string &rest :
         {empty.bytes(), usual_zone().bytes().substr(0, 40), std::string(60, 'x'), std::string()}) {
        TimeZone zone;
        zone.set(zone.file(empty.bytes() + rest));
        { const Record record(2026); }
        EXPECT_EQ(zone.world.take_messages(), Messages{refreshed_from_data()});
    }
}

TEST(TimeZoneCache, RuleIsState3) {
    TimeZone zone;
    zone.set(rule);
    const Record record(2026);
    EXPECT_EQ(global_tz_cache.state, 3);
    EXPECT_EQ(global_tz_cache.tz_kind, 1);
    EXPECT_EQ(zone.world.take_messages(), Messages{refreshed_from_rule()});
}

TEST(TimeZoneCache, TwoCallsInARowReadNoFile) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_2));
    EXPECT_EQ(zone.world.take_messages(), Messages{refreshed_from_data()});
    zone.replace_secretly(other_zone().bytes());
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_2));
    EXPECT_EQ(zone.world.take_messages(), Messages{});
}

TEST(TimeZoneCache, RuleIsParsedOnce) {
    TimeZone zone;
    zone.set(rule);
    { const Record record(2026); }
    const char *name = global_tz_cache.rule.st_name;
    zone.world.take_messages();
    { const Record record(2027); }
    EXPECT_EQ(zone.world.take_messages(), Messages{});
    EXPECT_EQ(global_tz_cache.rule.st_name, name);
}

TEST(TimeZoneCache, FileIsReadAgainWhenItsModificationTimeChanges) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    { const Record record(2026); }
    zone.world.take_messages();
    const size_t blocks = zone.world.live_blocks();
    zone.replace_secretly(other_zone().bytes());
    zone.touch(1'000'000'000);
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_3));
    EXPECT_EQ(zone.world.take_messages(), Messages{refreshed_from_data()});
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_3));
    EXPECT_EQ(zone.world.take_messages(), Messages{});
    EXPECT_EQ(zone.world.live_blocks(), blocks); // of the old contents nothing is left
}

TEST(TimeZoneCache, StandsWhenTheFileIsGone) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    { const Record record(2026); }
    std::filesystem::remove(zone.path());
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_2));
    EXPECT_EQ(global_tz_cache.state, 2);
}

TEST(TimeZoneCache, ValueWithAColonIsReadOnceAndNeverAgain) {
    TimeZone zone;
    const std::string value = ":" + zone.file(usual_zone().bytes());
    zone.set(value);
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_2));
    EXPECT_EQ(global_tz_cache.tz, value);
    EXPECT_EQ(global_tz_cache.tz_kind, 2);
    zone.world.take_messages();
    zone.replace_secretly(other_zone().bytes());
    zone.touch(1'000'000'000);
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_2));
    EXPECT_EQ(zone.world.take_messages(), Messages{});
}

TEST(TimeZoneCache, ValueWithAColonIsNeverARule) {
    TimeZone zone;
    zone.set(std::string(":") + rule);
    EXPECT_EQ(Record(2026)->flags & change_flags, 0u);
    EXPECT_EQ(global_tz_cache.state, 0);
    EXPECT_EQ(zone.world.take_messages(), Messages{cannot_open(rule)});
}

TEST(TimeZoneCache, NewValueTakesThePlaceOfTheOld) {
    TimeZone zone;
    zone.set(rule);
    { const Record record(2026); }
    zone.set(zone.file(usual_zone().bytes()));
    { const Record record(2026); }
    EXPECT_EQ(global_tz_cache.state, 2);
    zone.set(rule);
    { const Record record(2026); }
    EXPECT_EQ(global_tz_cache.state, 3);
    EXPECT_STREQ(global_tz_cache.tz, rule);
}

TEST(TimeZoneCache, IsEmptyOnceTzIsUnset) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    { const Record record(2026); }
    EXPECT_GT(zone.world.live_blocks(), 0u);
    zone.unset();
    EXPECT_EQ(Record(2026)->flags & change_flags, 0u);
    EXPECT_EQ(global_tz_cache.state, 0);
    EXPECT_EQ(global_tz_cache.tz, nullptr);
    EXPECT_EQ(zone.world.live_blocks(), 0u);
}

TEST(TimeZoneCache, MissingTzIsToldOnceUntilItIsSetAgain) {
    TimeZone zone;
    cure(zone);
    { const Record record(2026); }
    { const Record record(2026); }
    EXPECT_EQ(zone.world.take_messages(), Messages{not_set()});
    cure(zone);
    { const Record record(2026); }
    EXPECT_EQ(zone.world.take_messages(), Messages{not_set()});
}

TEST(TimeZoneCache, ValueTooLongToBeReadCountsAsUnset) {
    TimeZone zone;
    cure(zone);
    zone.set(std::string(1024, 'x'));
    { const Record record(2026); }
    EXPECT_EQ(zone.world.take_messages(), Messages{not_set()});
}

TEST(TimeZoneCache, MissingMemoryForTheValueIsToldOnceUntilItWasCured) {
    TimeZone zone;
    zone.set("UTC");
    const auto get_with_second_allocation_failing = [&] {
        zone.world.fail_allocation(2);
        { const Record record(2026); }
        EXPECT_TRUE(zone.world.allocation_failed());
        zone.world.fail_allocation(0);
        return zone.world.take_messages();
    };
    EXPECT_EQ(get_with_second_allocation_failing(), Messages{no_memory()});
    EXPECT_EQ(get_with_second_allocation_failing(), Messages{});
    EXPECT_EQ(global_tz_cache.state, 0);
    { const Record cured(2026); }
    zone.world.take_messages();
    EXPECT_EQ(get_with_second_allocation_failing(), Messages{no_memory()});
}

TEST(TimeZoneCache, MissingMemoryForAPathIsToldAndEmptiesTheCache) {
    TimeZone zone;
    for (const char *value : {"UTC", ":UTC"}) {
        zone.set(value);
        zone.world.fail_allocation(3);
        EXPECT_EQ(Record(2026)->flags & change_flags, 0u);
        zone.world.fail_allocation(0);
        EXPECT_EQ(zone.world.take_messages(),
                  Messages{message(IMSG_WARNING, CLNT_TZ_MSG_NULL_PATH, "Unexpected NULL input parameter.\n")});
        EXPECT_EQ(global_tz_cache.state, 0);
        EXPECT_EQ(global_tz_cache.tz, nullptr);
    }
}

TEST(TimeZoneCache, StandsWithoutMemoryToLookAtItsFileAgain) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    { const Record record(2026); }
    zone.world.take_messages();
    zone.world.fail_allocation(3);
    EXPECT_TRUE(same_date(Record(2026)->dt_trans, march_8_at_2));
    EXPECT_TRUE(zone.world.allocation_failed());
    EXPECT_EQ(zone.world.take_messages(), Messages{});
}

TEST(TimeZoneCache, MissingMemoryForTheFileIsToldEachTime) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    for (int round = 0; round < 2; ++round) {
        zone.world.fail_allocation(4);
        EXPECT_EQ(Record(2026)->flags & change_flags, 0u);
        zone.world.fail_allocation(0);
        EXPECT_EQ(zone.world.take_messages(), Messages{no_memory()});
        EXPECT_EQ(zone.world.live_blocks(), 0u);
    }
}

TEST(TimeZoneCache, FileThatCannotBeReadIsToldAndTriedAgain) {
    TimeZone zone;
    zone.set(":No/Such_Zone");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(Record(2026)->flags & change_flags, 0u);
        EXPECT_EQ(zone.world.take_messages(), Messages{cannot_open("No/Such_Zone")});
        EXPECT_EQ(global_tz_cache.tz, nullptr);
    }
}

TEST(TimeZoneCache, BadRuleIsSilent) {
    TimeZone zone;
    for (const char *value : {"No/Such_Zone", "XY5", "ESX", "EST5EDT4,J60,J300", "12"}) {
        zone.set(value);
        EXPECT_EQ(Record(2026)->flags & change_flags, 0u) << value;
        EXPECT_EQ(global_tz_cache.state, 0) << value;
        EXPECT_EQ(zone.world.take_messages(), Messages{}) << value;
    }
}

TEST(TimeZoneCache, DirectoryIsNoZoneFile) {
    TimeZone zone;
    for (const char *value : {"Europe", ""}) {
        zone.set(value);
        EXPECT_EQ(Record(2026)->flags & change_flags, 0u);
        EXPECT_EQ(zone.world.take_messages(), Messages{cannot_open(value)});
        EXPECT_EQ(global_tz_cache.state, 0);
    }
}
