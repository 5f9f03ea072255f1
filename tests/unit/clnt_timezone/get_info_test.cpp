// What the record says of the process's zone, and which years have one.
#include <gtest/gtest.h>

#include <thread>

#include "zone_bytes.h"

#include <rvzd/client/clnt_timezone/timezone.h>
#include <tests/sim/sweeps.h>

using namespace tz_test;
using velia::tz::global_tz_cache;

TEST(TimeZoneYear, OutsideTheRangeIsInvalidAndHasNoRecord) {
    TimeZone zone;
    for (const int year : {1970, 2038, 0, -1, INT32_MAX, INT32_MIN}) {
        clnt_tz_info_t somewhere;
        clnt_tz_info_t *info = &somewhere;
        EXPECT_EQ(clnt_tz_get_info(year, &info), CLNT_TZ_INVALID) << year;
        EXPECT_EQ(info, nullptr);
    }
    EXPECT_EQ(zone.world.take_messages(), Messages{});
}

TEST(TimeZoneYear, AtTheEndsOfTheRangeHasARecord) {
    TimeZone zone;
    zone.set("UTC");
    for (const int year : {1971, 2037}) {
        const Record record(year);
        EXPECT_EQ(record.status(), CLNT_TZ_OK) << year;
        ASSERT_NE(record.get(), nullptr);
        EXPECT_EQ(record->version, 1);
    }
}

TEST(TimeZoneYear, IsRefusedBeforeAnyLockIsTaken) {
    TimeZone zone;
    ivlthread_mutex_lock(&rvzd_tz_mutex);
    std::thread([] {
        clnt_tz_info_t *info = nullptr;
        EXPECT_EQ(clnt_tz_get_info(1970, &info), CLNT_TZ_INVALID);
    }).join();
    ivlthread_mutex_unlock(&rvzd_tz_mutex);
}

TEST(TimeZoneInfo, NullOutArgumentIsAnError) {
    EXPECT_EQ(clnt_tz_get_info(2026, nullptr), CLNT_TZ_ERROR);
}

TEST(TimeZoneInfo, WithoutTzHasOffsetAndNamesOfTheCLibraryAndNoTransitions) {
    TimeZone zone;
    zone.set("UTC");
    { const Record cured(2026); }
    zone.unset();
    zone.world.take_messages();
    tzset();
    const long offset = ::timezone / 60;
    const Record record(2026);
    ASSERT_EQ(record.status(), CLNT_TZ_OK);
    EXPECT_EQ(record->offset, offset);
    EXPECT_STREQ(record->st_name, tzname[0]);
    EXPECT_EQ(record->flags & (CLNT_TZ_OFFSET | CLNT_TZ_ST_NAME | change_flags), CLNT_TZ_OFFSET | CLNT_TZ_ST_NAME);
    EXPECT_TRUE(same_date(record->st_trans, no_date));
    EXPECT_TRUE(same_date(record->dt_trans, no_date));
    EXPECT_EQ(zone.world.take_messages(), Messages{not_set()});
}

TEST(TimeZoneInfo, OfAZoneWithDaylightTimeHasBothNamesTheBiasAndBothMoments) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    const Record record(2026);
    ASSERT_EQ(record.status(), CLNT_TZ_OK);
    EXPECT_EQ(record->offset, 300);
    EXPECT_EQ(record->bias, -60);
    EXPECT_STREQ(record->st_name, "STD");
    EXPECT_STREQ(record->dt_name, "DST");
    EXPECT_EQ(record->flags, 255u & ~uint32_t{CLNT_TZ_DAYLIGHT}); // which is not in force in November of 2023
    EXPECT_TRUE(same_date(record->dt_trans, march_8_at_2));
    EXPECT_TRUE(same_date(record->st_trans, november_1_at_2));
    EXPECT_EQ(global_tz_cache.state, 2);
}

TEST(TimeZoneInfo, OfAZoneWithoutDaylightTimeHasNoBias) {
    TimeZone zone;
    ZoneBytes only_standard;
    only_standard.types = {{3600, 0, 0}};
    zone.set(zone.file(only_standard.bytes()));
    const Record record(2026);
    EXPECT_EQ(record->offset, -60);
    EXPECT_EQ(record->bias, 0);
    EXPECT_EQ(record->flags, static_cast<uint32_t>(CLNT_TZ_OFFSET | CLNT_TZ_ST_NAME));
}

TEST(TimeZoneInfo, SaysWhetherDaylightTimeIsInForceNow) {
    TimeZone zone;
    const std::string value = zone.file(usual_zone().bytes());
    const std::pair<int32_t, bool> moments[] = {
        {march_8 - 1, false}, {march_8, true}, {november_1 - 1, true}, {november_1, false}};
    for (const auto &[moment, is_daylight] : moments)
        for (const int year : {1999, 2026, 2037}) {
            zone.world.now_us = int64_t{moment} * 1'000'000;
            zone.set(value);
            EXPECT_EQ((Record(year)->flags & CLNT_TZ_DAYLIGHT) != 0, is_daylight) << moment << " in " << year;
        }
}

TEST(TimeZoneInfo, LongNameIsCutToItsField) {
    TimeZone zone;
    const std::string long_name(100, 'N');
    zone.set("<" + long_name + ">5");
    const Record record(2026);
    ASSERT_EQ(std::string(tzname[0]), long_name);
    EXPECT_EQ(record->st_name, long_name.substr(0, CLNT_TZ_NAME_SIZE - 1));
}

TEST(TimeZoneInfo, FollowsTzFromCallToCall) {
    TimeZone zone;
    zone.set(zone.file(usual_zone().bytes()));
    EXPECT_EQ(Record(2026)->offset, 300);
    zone.set("XYZ-2");
    const Record ahead(2026);
    EXPECT_EQ(ahead->offset, -120);
    EXPECT_STREQ(ahead->st_name, "XYZ");
}

TEST(TimeZoneInfo, WithoutMemoryForTheRecordKeepsTheLock) {
    TimeZone zone;
    zone.set("UTC");
    zone.world.fail_allocation(1);
    clnt_tz_info_t somewhere;
    clnt_tz_info_t *info = &somewhere;
    EXPECT_EQ(clnt_tz_get_info(2026, &info), CLNT_TZ_ERROR);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(sim::release_lock(rvzd_tz_mutex), 1);
}

TEST(TimeZoneInfo, GivesTheLockBackOtherwise) {
    TimeZone zone;
    zone.set("UTC");
    const Record record(2026);
    EXPECT_EQ(rvzd_tz_mutex.depth, 0u);
}

TEST(TimeZoneInfo, IsTheSameForManyThreadsAtOnce) {
    constexpr size_t thread_count = 4;
    TimeZone zone;
    zone.set("Europe/Berlin");
    // The world's own books are kept under the module's lock as long as nobody frees outside of it.
    std::vector<clnt_tz_info_t *> records(thread_count * 50);
    std::vector<std::thread> threads;
    for (size_t thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([&records, thread] {
            for (size_t i = thread; i < records.size(); i += thread_count)
                clnt_tz_get_info(2026, &records[i]);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (clnt_tz_info_t *&record : records) {
        ASSERT_NE(record, nullptr);
        EXPECT_TRUE(same_date(record->dt_trans, {126, 2, 29, 0, 2, 0, 0}));
        EXPECT_TRUE(same_date(record->st_trans, {126, 9, 25, 0, 3, 0, 0}));
        EXPECT_EQ(record->offset, -60);
        clnt_tz_free_info(&record);
    }
    EXPECT_EQ(zone.world.take_messages(), Messages{refreshed_from_data()});
}

TEST(TimeZoneInfo, FailedAllocationsLeaveTheRecordWithoutMomentsAndLoseNothing) {
    TimeZone zone;
    const std::string value = zone.file(usual_zone().bytes());
    const auto get_anew = [&] {
        zone.unset();
        { const Record flushed(2026); }
        zone.world.take_messages();
        EXPECT_EQ(zone.world.live_blocks(), 0u);
        zone.set(value);
    };
    // The first is the record, without which the lock stays taken.
    const auto has_failed_at = [&](int number, sim::World::Failing how_many) {
        get_anew();
        zone.world.fail_allocation(number, how_many);
        const Record record(2026);
        const bool has_failed = zone.world.allocation_failed();
        zone.world.fail_allocation(0);
        EXPECT_EQ(record.status(), CLNT_TZ_OK);
        EXPECT_EQ((record->flags & change_flags) == 0, has_failed) << number;
        EXPECT_EQ(global_tz_cache.state == 0, has_failed) << number;
        EXPECT_EQ(record->offset, 300);
        return has_failed;
    };
    for (const auto how_many : {sim::World::Failing::one, sim::World::Failing::all_further}) {
        int number = 2;
        while (has_failed_at(number, how_many))
            ++number;
        EXPECT_GT(number, 6);
    }
}

TEST(TimeZoneInfo, RaiseOnTheWayFreesRecordAndLockAndLeavesTheCacheWhole) {
    TimeZone zone;
    const std::string file = zone.file(usual_zone().bytes());
    for (const std::string &value : {file, std::string("EST5EDT4,M4.1.1/2,M10.1.5/2")}) {
        zone.unset();
        { const Record flushed(2026); }
        zone.set(value);
        clnt_tz_info_t *info = nullptr;
        sim::sweep_raises(
            zone.world, [&] { clnt_tz_get_info(2026, &info); },
            [&](int number) {
                EXPECT_EQ(info, nullptr) << number;
                EXPECT_EQ(rvzd_tz_mutex.depth, 0u) << number;
                zone.unset();
                { const Record flushed(2026); }
                EXPECT_EQ(zone.world.live_blocks(), 0u) << number;
                zone.set(value);
            });
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->flags & CLNT_TZ_ST_TRANS, static_cast<uint32_t>(CLNT_TZ_ST_TRANS));
        clnt_tz_free_info(&info);
    }
}

TEST(TimeZoneInfo, RaiseOnTheWayIsNoMoreSeenInTheNextRecord) {
    TimeZone zone;
    const std::string file = zone.file(usual_zone().bytes());
    for (const std::string &value : {file, std::string("EST5EDT4,M3.1.2/2,M11.1.1/2")}) {
        zone.set(value);
        clnt_tz_info_t *info = nullptr;
        sim::sweep_raises(
            zone.world,
            [&] {
                clnt_tz_free_info(&info);
                clnt_tz_get_info(2026, &info);
            },
            [&](int number) {
                {
                    const Record record(2026);
                    EXPECT_TRUE(same_date(record->dt_trans, march_8_at_2)) << number;
                }
                zone.unset();
                { const Record flushed(2026); }
                zone.set(value);
            });
        clnt_tz_free_info(&info);
    }
}
