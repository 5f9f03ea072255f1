// The moment of a change in a year, out of a zone file's table or out of a rule.
#include "timezone.h"

#include <ctime>

#include <support/date.h>

using namespace velia::tz;

namespace {

constexpr int32_t tm_year_base = 1900;
constexpr int32_t days_of_week = 7;
constexpr int daylight_unknown = -1;

// A change as the record keeps it, and the daylight indicator of the time that begins with it.
struct Change {
    int32_t isdst;
    uint32_t flag;
    clnt_tz_date_t clnt_tz_info_t::*date;
};

constexpr Change to_standard = {0, CLNT_TZ_ST_TRANS, &clnt_tz_info_t::st_trans};
constexpr Change to_daylight = {1, CLNT_TZ_DT_TRANS, &clnt_tz_info_t::dt_trans};

void store(const Change &change, const clnt_tz_date_t &date, clnt_tz_info_t &info) {
    info.*change.date = date;
    info.flags |= change.flag;
}

clnt_tz_date_t date_of(const struct tm &moment) {
    return {moment.tm_year, moment.tm_mon, moment.tm_mday, moment.tm_wday,
            moment.tm_hour, moment.tm_min, moment.tm_sec};
}

void normalise(struct tm &moment) {
    moment.tm_isdst = daylight_unknown;
    mktime(&moment);
}

// The daylight indicator is 0 here as all else, so where January has daylight time this is an hour into the year.
time_t start_of(int year) {
    struct tm moment = {};
    moment.tm_mday = 1;
    moment.tm_year = year - tm_year_base;
    return mktime(&moment);
}

// The place of the first change behind `moment`; the number of changes if there is none.
int32_t first_after(const Zone &zone, time_t moment) {
    int32_t at = 0;
    while (at < zone.header.timecnt && zone.transitions[at].time <= moment)
        ++at;
    return at;
}

const ZoneType &type_at(const Zone &zone, int32_t at) {
    return zone.ttinfo[zone.transitions[at].type];
}

int32_t next_of_kind(const Zone &zone, int32_t at, const Change &change) {
    while (at < zone.header.timecnt && type_at(zone, at).isdst != change.isdst)
        ++at;
    return at;
}

// What the wall shows before the change, if every change is one of an hour. Kept to 32 bits, as the file's times are.
time_t wall_clock_before(int32_t moment, const ZoneType &type) {
    constexpr uint32_t hour = seconds_of_hour;
    const uint32_t after = static_cast<uint32_t>(type.gmtoff) + static_cast<uint32_t>(moment);
    return static_cast<int32_t>(type.isdst != 0 ? after - hour : after + hour);
}

// Moves to the rule's day of the week and its week of the month. The calendar is the C library's.
void move_to_day(const RuleDate &rule, struct tm &moment) {
    if (rule.day != moment.tm_wday) {
        const int64_t day = int64_t{1} + rule.day - moment.tm_wday;
        moment.tm_mday = static_cast<int>(day >= 1 ? day : day + days_of_week);
        normalise(moment);
    }
    constexpr int32_t last_week = 5;
    if (rule.week < 2 || rule.week > last_week)
        return;
    moment.tm_mday += (rule.week - 1) * days_of_week;
    if (rule.week < last_week)
        return;
    const int month = moment.tm_mon;
    normalise(moment);
    if (moment.tm_mon != month)
        moment.tm_mday -= days_of_week;
}

// Without a date in the year if the next change of this kind lies in another, or there is none any more.
void fill_change(const Zone &zone, int32_t first, const Change &change, int year, clnt_tz_info_t &info) {
    const int32_t at = next_of_kind(zone, first, change);
    if (at == zone.header.timecnt)
        return;
    const time_t wall_clock = wall_clock_before(zone.transitions[at].time, type_at(zone, at));
    struct tm moment;
    if (date_get_gmtime(&wall_clock, &moment) != nullptr && moment.tm_year == year - tm_year_base)
        store(change, date_of(moment), info);
}

void fill_change(const RuleDate &rule, const Change &change, int year, clnt_tz_info_t &info) {
    struct tm moment = {};
    moment.tm_hour = rule.hour;
    moment.tm_min = rule.min;
    moment.tm_sec = rule.sec;
    moment.tm_mday = 1;
    moment.tm_mon = rule.month;
    moment.tm_year = year - tm_year_base;
    normalise(moment);
    move_to_day(rule, moment);
    normalise(moment);
    store(change, {moment.tm_year, moment.tm_mon, moment.tm_mday, moment.tm_wday, rule.hour, rule.min, rule.sec}, info);
}

void clear_changes(clnt_tz_info_t &info) {
    info.st_trans = info.dt_trans = {};
    info.flags &= ~static_cast<uint32_t>(CLNT_TZ_ST_TRANS | CLNT_TZ_DT_TRANS);
}

} // namespace

void velia::tz::fill_from_zone(const Zone &zone, int year, clnt_tz_info_t &info) {
    clear_changes(info);
    if (zone.transitions == nullptr) {
        info.flags &= ~static_cast<uint32_t>(CLNT_TZ_DT_DEFINED | CLNT_TZ_DAYLIGHT);
        return;
    }
    const int32_t first = first_after(zone, start_of(year));
    if (first == zone.header.timecnt) {
        // The clocks of this zone have stopped changing, whatever the C library says of its daylight time.
        info.bias = 0;
        info.flags &= ~static_cast<uint32_t>(CLNT_TZ_BIAS | CLNT_TZ_DT_DEFINED | CLNT_TZ_DAYLIGHT | CLNT_TZ_DT_NAME);
        return;
    }
    fill_change(zone, first, to_standard, year, info);
    fill_change(zone, first, to_daylight, year, info);
}

void velia::tz::fill_from_rule(const Rule &rule, int year, clnt_tz_info_t &info) {
    clear_changes(info);
    // Set whether or not there is a date: readers of the record know it so.
    info.flags |= CLNT_TZ_ST_TRANS;
    if ((info.flags & CLNT_TZ_DT_DEFINED) == 0)
        return;
    fill_change(rule.st_rule, to_standard, year, info);
    fill_change(rule.dt_rule, to_daylight, year, info);
}
