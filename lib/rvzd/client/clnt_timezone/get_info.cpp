// Fills a record: offset and names from the C library, the moments of change from the cache. All of that belongs to the
// process, and so one lock is held from the first look at it to the last.
#include "timezone.h"

#include <ctime>

#include <common/with.h>
#include <support/date.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::tz;

ivlthread_mutex_t rvzd_tz_mutex;

namespace {

// What the cache held is lost with the thread that had it in hand.
void begin_with_empty_cache() {
    global_tz_cache = {};
}

ForkWatch tz_watch = {rvzd_tz_mutex, begin_with_empty_cache};

// The C library tells the offset of standard time only; daylight time is taken to be an hour ahead in every zone.
long altzone;
bool daylight_observed;

bool is_daylight_now() {
    const time_t now = time(nullptr);
    struct tm local;
    return date_get_localtime(&now, &local) != nullptr && local.tm_isdst > 0;
}

void fill_offsets(clnt_tz_info_t &info) {
    info.offset = ::timezone / seconds_of_minute;
    info.flags |= CLNT_TZ_OFFSET;
    if (!daylight_observed)
        return;
    info.bias = (altzone - ::timezone) / seconds_of_minute;
    info.flags |= CLNT_TZ_BIAS | CLNT_TZ_DT_DEFINED;
    if (is_daylight_now())
        info.flags |= CLNT_TZ_DAYLIGHT;
}

void fill_names(clnt_tz_info_t &info) {
    strutl_cpy_buf(info.st_name, tzname[0], sizeof info.st_name);
    info.flags |= CLNT_TZ_ST_NAME;
    strutl_cpy_buf(info.dt_name, tzname[1], sizeof info.dt_name);
    if (daylight_observed)
        info.flags |= CLNT_TZ_DT_NAME;
}

void fill_changes(int year, clnt_tz_info_t &info) {
    const Cache &cache = global_tz_cache;
    if (cache.state == state_zone_file)
        fill_from_zone(cache.zone, year, info);
    else if (cache.state == state_rule)
        fill_from_rule(cache.rule, year, info);
}

void fill(int year, clnt_tz_info_t &info) {
    info.version = CLNT_TZ_VERSION;
    tzset();
    daylight_observed = daylight != 0;
    altzone = ::timezone - seconds_of_hour;
    refresh_cache();
    fill_offsets(info);
    fill_names(info);
    fill_changes(year, info);
}

} // namespace

clnt_tz_status_t clnt_tz_get_info(int year, clnt_tz_info_t **info) {
    if (info == nullptr)
        return CLNT_TZ_ERROR;
    *info = nullptr;
    if (year < CLNT_TZ_YEAR_FIRST || year > CLNT_TZ_YEAR_LAST)
        return CLNT_TZ_INVALID;
    watch_at_forks(tz_watch);
    ivlthread_mutex_lock(&rvzd_tz_mutex);
    const auto status = with_cleanup(
        [&] {
            *info = clnt_tz_new_info();
            if (*info == nullptr)
                return CLNT_TZ_ERROR;
            fill(year, **info);
            return CLNT_TZ_OK;
        },
        [&] {
            clnt_tz_free_info(info);
            ivlthread_mutex_unlock(&rvzd_tz_mutex);
        });
    // Without a record the lock stays taken: that is the rule of this operation, and other threads wait from now on.
    if (status == CLNT_TZ_OK)
        ivlthread_mutex_unlock(&rvzd_tz_mutex);
    return status;
}
