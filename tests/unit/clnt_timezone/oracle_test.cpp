// Every zone of the system's database and every year, against a computation of its own from the same file: another
// reader, another search, another calendar. From the C library it takes only what the record takes from it by
// definition: where January 1 begins, the offset, and the names.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "zone_bytes.h"

using namespace tz_test;

namespace {

constexpr char database[] = "/usr/share/zoneinfo/";
constexpr int first_year = 1971;
constexpr int last_year = 2037;

std::string contents_of(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The names of all zones, the parallel trees of the database included.
std::vector<std::string> all_zones() {
    std::vector<std::string> names;
    const auto options = std::filesystem::directory_options::follow_directory_symlink;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(database, options)) {
        if (entry.is_regular_file() && contents_of(entry.path()).starts_with("TZif"))
            names.push_back(entry.path().string().substr(strlen(database)));
    }
    std::sort(names.begin(), names.end());
    return names;
}

struct Moment {
    int64_t time;
    int64_t offset;
    bool is_daylight;
};

// A zone file as the oracle reads it: a map of moments instead of a table, types resolved.
struct OracleZone {
    std::vector<Moment> moments;
    std::map<int64_t, int64_t> leap_seconds; // total correction from a moment on

    explicit OracleZone(const std::string &bytes) {
        const auto word = [&](size_t at) {
            int64_t value = static_cast<int8_t>(bytes.at(at));
            for (size_t i = 1; i < 4; ++i)
                value = value * 256 + static_cast<uint8_t>(bytes.at(at + i));
            return value;
        };
        const auto count = [&](size_t index) { return static_cast<size_t>(word(20 + 4 * index)); };
        const size_t leaps = count(2);
        const size_t times = count(3);
        const size_t types = count(4);
        const size_t chars = count(5);
        const size_t kinds_at = 44 + 4 * times;
        const size_t types_at = kinds_at + times;
        for (size_t i = 0; i < times; ++i) {
            const size_t type_at = types_at + 6 * static_cast<uint8_t>(bytes.at(kinds_at + i));
            moments.push_back({word(44 + 4 * i), word(type_at), bytes.at(type_at + 4) == 1});
        }
        const size_t leaps_at = types_at + 6 * types + chars;
        for (size_t i = 0; i < leaps; ++i)
            leap_seconds[word(leaps_at + 8 * i)] = word(leaps_at + 8 * i + 4);
    }

    // Leap seconds that a count of seconds has in it which the calendar has not.
    int64_t leap_correction(int64_t moment) const {
        const auto after = leap_seconds.upper_bound(moment);
        return after == leap_seconds.begin() ? 0 : std::prev(after)->second;
    }
};

// The proleptic Gregorian calendar, from the days since 1970-01-01.
clnt_tz_date_t calendar(int64_t seconds) {
    constexpr int64_t day_length = 86400;
    int64_t days = seconds / day_length - (seconds % day_length < 0 ? 1 : 0);
    const int64_t of_day = seconds - days * day_length;
    const auto wday = static_cast<int32_t>(((days + 4) % 7 + 7) % 7);
    int year = 1970;
    const auto year_length = [](int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0 ? 366 : 365; };
    for (; days < 0; days += year_length(year))
        --year;
    for (; days >= year_length(year); ++year)
        days -= year_length(year);
    const int month_lengths[] = {31, year_length(year) - 337, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int month = 0;
    for (; days >= month_lengths[month]; ++month)
        days -= month_lengths[month];
    return {year - 1900,
            month,
            static_cast<int32_t>(days) + 1,
            wday,
            static_cast<int32_t>(of_day / 3600),
            static_cast<int32_t>(of_day / 60 % 60),
            static_cast<int32_t>(of_day % 60)};
}

// What a record is expected to say.
struct Expected {
    uint32_t flags;
    int64_t offset;
    int64_t bias;
    std::string st_name;
    std::string dt_name;
    std::optional<clnt_tz_date_t> st_trans;
    std::optional<clnt_tz_date_t> dt_trans;
};

int64_t start_of(int year) {
    struct tm moment = {};
    moment.tm_mday = 1;
    moment.tm_year = year - 1900;
    return mktime(&moment);
}

std::optional<clnt_tz_date_t> change_of(const OracleZone &zone, int64_t start, int year, bool to_daylight) {
    const auto found = std::find_if(zone.moments.begin(), zone.moments.end(), [&](const Moment &moment) {
        return moment.time > start && moment.is_daylight == to_daylight;
    });
    if (found == zone.moments.end())
        return std::nullopt;
    const int64_t wall = found->time + found->offset + (to_daylight ? -3600 : 3600);
    clnt_tz_date_t date = calendar(wall - zone.leap_correction(wall));
    date.sec += zone.leap_seconds.contains(wall) ? 1 : 0; // the leap second itself reads 23:59:60
    return date.year == year - 1900 ? std::optional(date) : std::nullopt;
}

// What the C library says of a zone depends on what it was asked before, so it is asked for the year's start first, and
// then made to read the zone afresh, here and for the record.
Expected expected_of(TimeZone &process, const std::string &name, const OracleZone &zone, int year) {
    Expected expected = {};
    const int64_t start = start_of(year);
    process.set(name);
    tzset();
    const bool is_daylight_observed = daylight != 0;
    expected.flags = CLNT_TZ_OFFSET | CLNT_TZ_ST_NAME;
    expected.offset = ::timezone / 60;
    if (is_daylight_observed) {
        const time_t now = time(nullptr);
        struct tm local = {};
        localtime_r(&now, &local);
        expected.bias = -60;
        expected.flags |= daylight_flags | (local.tm_isdst > 0 ? CLNT_TZ_DAYLIGHT : 0);
    }
    expected.st_name = tzname[0];
    expected.dt_name = tzname[1];
    if (zone.moments.empty()) {
        expected.flags &= ~static_cast<uint32_t>(CLNT_TZ_DT_DEFINED | CLNT_TZ_DAYLIGHT);
        return expected;
    }
    if (zone.moments.back().time <= start) {
        expected.bias = 0;
        expected.flags &= ~(daylight_flags | CLNT_TZ_DAYLIGHT);
        return expected;
    }
    expected.st_trans = change_of(zone, start, year, false);
    expected.dt_trans = change_of(zone, start, year, true);
    expected.flags |= (expected.st_trans ? CLNT_TZ_ST_TRANS : 0) | (expected.dt_trans ? CLNT_TZ_DT_TRANS : 0);
    return expected;
}

std::string text_of(const clnt_tz_date_t &date) {
    std::ostringstream text;
    text << date.year + 1900 << '-' << date.month + 1 << '-' << date.mday << " wday " << date.wday << ' ' << date.hour
         << ':' << date.min << ':' << date.sec;
    return text.str();
}

std::string text_of(const Expected &expected) {
    std::ostringstream text;
    text << "flags " << expected.flags << " offset " << expected.offset << " bias " << expected.bias << " names "
         << expected.st_name << ' ' << expected.dt_name << " changes " << text_of(expected.st_trans.value_or(no_date))
         << " and " << text_of(expected.dt_trans.value_or(no_date));
    return text.str();
}

std::string text_of(const clnt_tz_info_t &info) {
    return text_of({info.flags, info.offset, info.bias, info.st_name, info.dt_name, info.st_trans, info.dt_trans});
}

} // namespace

TEST(TimeZoneOracle, DatabaseIsThere) {
    const std::vector<std::string> zones = all_zones();
    EXPECT_GT(zones.size(), 400u) << "the system's time-zone database must be installed";
    EXPECT_TRUE(std::binary_search(zones.begin(), zones.end(), "Europe/Berlin"));
}

TEST(TimeZoneOracle, AgreesInEveryZoneAndYear) {
    TimeZone zone;
    size_t records = 0;
    size_t with_changes = 0;
    for (const std::string &name : all_zones()) {
        const OracleZone oracle(contents_of(database + name));
        zone.set(name);
        for (int year = first_year; year <= last_year; ++year) {
            const std::string expected = text_of(expected_of(zone, name, oracle, year));
            zone.set(name);
            const Record record(year);
            ASSERT_EQ(record.status(), CLNT_TZ_OK) << name << " in " << year;
            ASSERT_EQ(text_of(*record.get()), expected) << name << " in " << year;
            ++records;
            with_changes += (record->flags & change_flags) != 0 ? 1 : 0;
        }
        ASSERT_EQ(zone.world.take_messages(), Messages{refreshed_from_data()}) << name;
    }
    RecordProperty("records", std::to_string(records));
    EXPECT_GT(with_changes, records / 4) << "an oracle that sees no change proves nothing";
}
