// Reading a zone file: its layout, and everything that is none.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include <tests/bad_files.h>
#include <tests/sim/sweeps.h>

#include "zone_bytes.h"

#include <rvzd/client/clnt_timezone/timezone.h>

using namespace tz_test;
using namespace velia::tz;

namespace {

ZoneBytes rich_zone() {
    ZoneBytes zone = usual_zone();
    zone.leaps = {{78796800, 1}, {94694401, 2}};
    zone.isstd = std::string("\1\0", 2);
    zone.isgmt = std::string("\0\1", 2);
    return zone;
}

// A decoded zone that is released at its end.
class Decoded {
public:
    explicit Decoded(const std::string &bytes) : outcome(decode_zone(bytes, zone)) {}
    ~Decoded() {
        if (outcome == ReadOutcome::done)
            release_zone(zone);
    }
    Decoded(const Decoded &) = delete;
    Decoded &operator=(const Decoded &) = delete;

    Zone zone;
    ReadOutcome outcome;
};

ReadOutcome outcome_of(const std::string &bytes) {
    return Decoded(bytes).outcome;
}

bool has_nothing(const Zone &zone) {
    const Zone nothing = {};
    return memcmp(&zone, &nothing, sizeof zone) == 0;
}

} // namespace

TEST(ZoneFile, IsClosedAgain) {
    sim::World world;
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    world.write_file("zone", rich_zone().bytes());
    world.write_file("none", "no zone");
    const auto before = open_files();
    for (const char *name : {"/zone", "/none"}) {
        Zone zone;
        if (read_zone_file((world.root() + name).c_str(), zone) == ReadOutcome::done)
            release_zone(zone);
        EXPECT_EQ(open_files(), before) << name;
    }
}

TEST(ZoneFile, IsReadInItsOrder) {
    sim::World world;
    const Decoded decoded(rich_zone().bytes());
    ASSERT_EQ(decoded.outcome, ReadOutcome::done);
    const Zone &zone = decoded.zone;
    EXPECT_EQ(memcmp(zone.header.unread, "TZif", 4), 0);
    EXPECT_EQ(zone.header.timecnt, 5);
    EXPECT_EQ(zone.transitions[1].time, march_8);
    EXPECT_EQ(zone.transitions[1].type, 1);
    EXPECT_EQ(zone.transitions[2].time, november_1);
    EXPECT_EQ(zone.header.typecnt, 2);
    EXPECT_EQ(zone.ttinfo[0].gmtoff, -18000);
    EXPECT_EQ(zone.ttinfo[0].isdst, 0);
    EXPECT_EQ(zone.ttinfo[1].gmtoff, -14400);
    EXPECT_EQ(zone.ttinfo[1].isdst, 1);
    EXPECT_EQ(zone.ttinfo[1].abbrind, 4);
    EXPECT_EQ(zone.header.charcnt, 8);
    EXPECT_STREQ(zone.chars + 4, "DST");
    EXPECT_EQ(zone.header.leapcnt, 2);
    EXPECT_EQ(zone.leaps[1].time, 94694401);
    EXPECT_EQ(zone.leaps[1].correction, 2);
    EXPECT_EQ(zone.header.ttisstdcnt, 2);
    EXPECT_EQ(zone.isstd[0], 1);
    EXPECT_EQ(zone.header.ttisgmtcnt, 2);
    EXPECT_EQ(zone.isgmt[1], 1);
}

TEST(ZoneFile, CountsTellGmtFromStandard) {
    sim::World world;
    ZoneBytes zone = usual_zone();
    zone.isstd = std::string("\1", 1);
    const Decoded decoded(zone.bytes());
    EXPECT_EQ(decoded.zone.header.ttisstdcnt, 1);
    EXPECT_NE(decoded.zone.isstd, nullptr);
    EXPECT_EQ(decoded.zone.header.ttisgmtcnt, 0);
    EXPECT_EQ(decoded.zone.isgmt, nullptr);
}

TEST(ZoneFile, LastAbbreviationIsTerminated) {
    sim::World world;
    ZoneBytes zone = usual_zone();
    zone.chars = "STDxDSTx";
    EXPECT_EQ(Decoded(zone.bytes()).zone.chars[7], '\0');
}

TEST(ZoneFile, BytesOfATypeAreExtendedBySign) {
    sim::World world;
    ZoneBytes zone = usual_zone();
    zone.types[1] = {-14400, -1, 255};
    const Decoded decoded(zone.bytes());
    EXPECT_EQ(decoded.zone.ttinfo[1].isdst, -1);
    EXPECT_EQ(decoded.zone.ttinfo[1].abbrind, -1);
}

TEST(ZoneFile, NeitherMagicNorVersionIsTested) {
    sim::World world;
    EXPECT_EQ(outcome_of(std::string(20, 'x') + usual_zone().bytes().substr(20)), ReadOutcome::done);
}

TEST(ZoneFile, LaterBlockIsNotRead) {
    sim::World world;
    EXPECT_EQ(outcome_of(usual_zone().bytes() + "TZif2 and whatever follows"), ReadOutcome::done);
}

TEST(ZoneFile, CountsThatAreNotPositiveAreNone) {
    sim::World world;
    for (const int32_t count : {0, -1, INT32_MIN}) {
        const Decoded decoded(ZoneBytes::header(count, count, count, count, count, count));
        ASSERT_EQ(decoded.outcome, ReadOutcome::done);
        EXPECT_EQ(decoded.zone.transitions, nullptr);
        EXPECT_EQ(decoded.zone.chars, nullptr);
        EXPECT_EQ(world.live_blocks(), 0u);
    }
}

TEST(ZoneFile, CutAnywhereIsNone) {
    sim::World world;
    const std::string bytes = rich_zone().bytes();
    for (size_t length = 0; length < bytes.size(); ++length) {
        const Decoded decoded(bytes.substr(0, length));
        EXPECT_EQ(decoded.outcome, ReadOutcome::unusable) << length;
        EXPECT_EQ(decoded.zone.transitions, nullptr);
    }
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST(ZoneFile, CutAnywhereOnDiskIsToldAndNothingIsLost) {
    TimeZone zone;
    const std::string bytes = rich_zone().bytes();
    for (size_t length = 0; length < bytes.size(); ++length) {
        const std::string value = zone.file(bytes.substr(0, length), "cut" + std::to_string(length));
        zone.set(value);
        { EXPECT_EQ(Record(2026)->flags & change_flags, 0u) << length; }
        EXPECT_EQ(zone.world.take_messages(), Messages{cannot_open(value)}) << length;
        EXPECT_EQ(zone.world.live_blocks(), 0u);
    }
}

TEST(ZoneFile, HostileCountsCostNoMemory) {
    sim::World world;
    const std::string tail(1000, '\0');
    for (int field = 0; field < 6; ++field) {
        int32_t counts[6] = {};
        counts[field] = INT32_MAX;
        const std::string bytes =
            ZoneBytes::header(counts[0], counts[1], counts[2], counts[3], counts[4], counts[5]) + tail;
        world.fail_allocation(1);
        EXPECT_EQ(outcome_of(bytes), ReadOutcome::unusable) << field;
        EXPECT_FALSE(world.allocation_failed()) << "nothing was asked for";
        world.fail_allocation(0);
    }
    const std::string all = ZoneBytes::header(INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX) + tail;
    EXPECT_EQ(outcome_of(all), ReadOutcome::unusable);
}

TEST(ZoneFile, ChangeToATypeThatIsNotThereMakesItNone) {
    sim::World world;
    ZoneBytes zone = usual_zone();
    zone.transitions[4].type = 2;
    EXPECT_EQ(outcome_of(zone.bytes()), ReadOutcome::unusable);
    zone.types.clear();
    zone.transitions[4].type = 0;
    EXPECT_EQ(outcome_of(zone.bytes()), ReadOutcome::unusable);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST(ZoneFile, WithoutMemoryIsNotReadAndLosesNothing) {
    sim::World world;
    const std::string bytes = rich_zone().bytes();
    ReadOutcome outcome = ReadOutcome::done;
    Zone zone;
    const int failures = sim::sweep_allocations(
        world, [&] { outcome = decode_zone(bytes, zone); },
        [&](int number) {
            EXPECT_EQ(outcome, ReadOutcome::no_memory) << number;
            EXPECT_TRUE(has_nothing(zone));
            EXPECT_EQ(world.live_blocks(), 0u);
        });
    EXPECT_EQ(failures, 6);
    EXPECT_EQ(outcome, ReadOutcome::done);
    release_zone(zone);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST(ZoneFile, WhatIsNoFileIsNoneAndIsNotWaitedFor) {
    TimeZone zone;
    bad_files::for_each(zone.path("bad"), 16 << 20, [&](const std::string &) {
        Zone read;
        EXPECT_EQ(read_zone_file(zone.path("bad").c_str(), read), ReadOutcome::unusable);
        EXPECT_TRUE(has_nothing(read));
    });
}

TEST(ZoneFile, CountsOfALargeFileAreBoundedByItsSizeAndTheReaders) {
    TimeZone zone;
    const std::string header = ZoneBytes::header(0, 0, 0, INT32_MAX, 1, 1);
    zone.file(header);
    ASSERT_EQ(truncate(zone.path().c_str(), 16 << 20), 0);
    zone.world.fail_allocation(1);
    Zone read;
    EXPECT_EQ(read_zone_file(zone.path().c_str(), read), ReadOutcome::unusable);
    EXPECT_FALSE(zone.world.allocation_failed()) << "nothing was asked for";
}

TEST(ZoneFile, DeviceIsNone) {
    sim::World world;
    Zone zone;
    EXPECT_EQ(read_zone_file("/dev/zero", zone), ReadOutcome::unusable);
    EXPECT_EQ(read_zone_file("/dev/null", zone), ReadOutcome::unusable);
}
