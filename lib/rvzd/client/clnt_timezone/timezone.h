// The parts of the time-zone module among themselves. rvzd_tz_mutex guards all of it.
#pragma once

#include <cstdint>
#include <string_view>

#include <support/ivlthread.h>
#include <veliaxdr/clnt_timezone.h>

extern ivlthread_mutex_t rvzd_tz_mutex;

namespace velia::tz {

constexpr char zone_directory[] = "/usr/share/zoneinfo/";
constexpr int32_t seconds_of_hour = 3600;
constexpr int32_t seconds_of_minute = 60;

enum : int32_t { kind_unknown = 0, kind_rule = 1, kind_zone_file = 2 };
enum : int32_t { state_empty = 0, state_zone_file = 2, state_rule = 3 };

// The head of a zone file; the counts are kept in the machine's order.
struct ZoneHeader {
    unsigned char unread[20];
    int32_t ttisgmtcnt;
    int32_t ttisstdcnt;
    int32_t leapcnt;
    int32_t timecnt;
    int32_t typecnt;
    int32_t charcnt;
};
static_assert(sizeof(ZoneHeader) == 44);

struct Transition {
    int32_t time;
    uint8_t type; // below typecnt: a file with any other is not taken over
};

struct ZoneType {
    int32_t gmtoff; // seconds east of UTC
    int32_t isdst;
    int32_t abbrind;
};

struct Leap {
    int32_t time;
    int32_t correction;
};

// What a zone file holds; null pointers for counts that are not positive. Transitions and their types are used; the
// rest is kept as it was read.
struct Zone {
    ZoneHeader header;
    Transition *transitions;
    ZoneType *ttinfo;
    char *chars;
    Leap *leaps;
    uint8_t *isgmt;
    uint8_t *isstd;
    bool is_slim; // the file has changes, but none that are read
};

// A change as a rule gives it, month and day of the week from 0.
struct RuleDate {
    int32_t month;
    int32_t day;
    int32_t week;
    int32_t hour;
    int32_t min;
    int32_t sec;
};

// What a rule holds. The two dates are used; names and offsets are kept as they were read.
struct Rule {
    char *st_name;
    char *dt_name;
    int32_t st_offset;
    int32_t dt_offset;
    RuleDate dt_rule;
    RuleDate st_rule;
};

struct Cache {
    char *tz; // the value of TZ that it was made from
    int32_t tz_kind;
    int32_t state;
    Zone zone; // with state_zone_file
    Rule rule; // with state_rule
};

extern Cache global_tz_cache;

// Brings the cache in line with TZ as it is now.
void refresh_cache();

enum class ReadOutcome { done, no_memory, unusable };

// Reads the zone file `path`. Anything but `done` leaves `zone` with nothing to release.
ReadOutcome read_zone_file(const char *path, Zone &zone);

// Reads the bytes of a zone file; `unusable` if they are cut off or do not fit together.
ReadOutcome decode_zone(std::string_view bytes, Zone &zone);
void release_zone(Zone &zone);

// Reads a rule; false, with nothing to release, if it is none or without memory.
bool parse_rule(const char *text, Rule &rule);
void release_rule(Rule &rule);

// Store the dates of both changes in `year` with their flags. What the record says of daylight time is in it before; a
// zone file may correct that.
void fill_from_zone(const Zone &zone, int year, clnt_tz_info_t &info);
void fill_from_rule(const Rule &rule, int year, clnt_tz_info_t &info);

} // namespace velia::tz
