// The cache of what TZ says about the moments of change. It is made again when the value of TZ changes, or the
// modification time of the zone file that it names. What is new is read aside and taken over in one stretch, so that a
// raise on the way leaves the cache whole. A cache that could not be made is empty, and the next call tries again.
#include "timezone.h"

#include <cstring>

#include <sys/stat.h>

#include <common/with.h>
#include <support/env.h>
#include <support/fileutl.h>
#include <support/stg.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::tz;

Cache velia::tz::global_tz_cache;

namespace {

constexpr size_t value_size = 1024;
constexpr char tz_variable[] = "TZ";

struct stat old_stat_buf; // of the zone file read last

// Whether the warnings of a missing TZ and of missing memory may be printed: not again until what they warn of was
// cured.
bool log_ev_null = true;
bool log_alloc_fail = true;

// What a refresh holds while it is under way. What a raise has left here is released by the next one: that is cheaper
// than a clean-up frame for each call, which in the ordinary case only looks.
struct Work {
    char *value; // of TZ, until the cache takes it over
    char *path;
};
Work work;

void warn(int message) {
    imsg_print(IMSG_WARNING, &_clnt_timezone_rvzd_msg_table, message);
}

void warn_of(int message, const char *name) {
    imsg_print(IMSG_WARNING, &_clnt_timezone_rvzd_msg_table, message, name);
}

void flush() {
    with_inhibit([] {
        if (global_tz_cache.state == state_zone_file)
            release_zone(global_tz_cache.zone);
        if (global_tz_cache.state == state_rule)
            release_rule(global_tz_cache.rule);
        stg_free(global_tz_cache.tz);
        global_tz_cache.tz = nullptr;
        global_tz_cache.tz_kind = kind_unknown;
        global_tz_cache.state = state_empty;
    });
}

// Empties the cache and makes it one of the value at hand.
void begin_anew(int32_t kind) {
    flush();
    with_inhibit([&] {
        global_tz_cache.tz = work.value;
        global_tz_cache.tz_kind = kind;
        work.value = nullptr;
    });
}

// Reads the file aside, then takes it over.
ReadOutcome take_zone_over() {
    return with_inhibit([] {
        Zone zone = {};
        const ReadOutcome outcome = read_zone_file(work.path, zone);
        if (outcome == ReadOutcome::done) {
            global_tz_cache.zone = zone;
            global_tz_cache.state = state_zone_file;
        }
        return outcome;
    });
}

bool take_rule_over() {
    return with_inhibit([] {
        Rule rule = {};
        const bool is_rule = parse_rule(global_tz_cache.tz, rule);
        if (is_rule) {
            global_tz_cache.rule = rule;
            global_tz_cache.state = state_rule;
        }
        return is_rule;
    });
}

void read_zone() {
    if (work.path == nullptr) {
        warn(CLNT_TZ_MSG_NULL_PATH);
        flush();
        return;
    }
    const ReadOutcome outcome = take_zone_over();
    if (outcome == ReadOutcome::done) {
        if (global_tz_cache.zone.is_slim)
            imsg_print(IMSG_WARNING,
                       "Zone file '%s' has its changes with 64-bit times only, which are not read: dates of change are "
                       "not known.\n",
                       IMSG_FORMAT, work.path);
        imsg_print(IMSG_PLAIN, &_clnt_timezone_rvzd_msg_table, CLNT_TZ_MSG_REFRESHED_FROM_DATA);
        return;
    }
    flush();
    if (outcome == ReadOutcome::no_memory)
        warn(CLNT_TZ_MSG_NO_MEMORY);
    else
        warn_of(CLNT_TZ_MSG_CANNOT_OPEN, work.path);
}

// A bad rule is no error in words: many a good value of TZ is none of ours.
void read_rule() {
    if (take_rule_over())
        imsg_print(IMSG_PLAIN, &_clnt_timezone_rvzd_msg_table, CLNT_TZ_MSG_REFRESHED_FROM_RULE);
    else
        flush();
}

// The path of the zone file of a name, on the heap; null without memory.
char *zone_path(const char *name) {
    const size_t size = sizeof zone_directory + strlen(name);
    auto *path = static_cast<char *>(stg_malloc(size));
    if (path != nullptr)
        strutl_concat(path, size, 2, zone_directory, name);
    return path;
}

bool is_there(const char *path, struct stat &status) {
    return path != nullptr && fileutl_stat(path, 1, &status) == 0;
}

bool same_time(const timespec &left, const timespec &right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

// The path is made of the whole value here, so a value that begins with ":" is never found: its file is read once.
void check_file_again() {
    struct stat status;
    work.path = zone_path(work.value);
    if (!is_there(work.path, status) || same_time(status.st_mtim, old_stat_buf.st_mtim))
        return;
    old_stat_buf = status;
    begin_anew(kind_zone_file);
    read_zone();
}

void take_new_value() {
    const bool names_a_file = work.value[0] == ':';
    struct stat status;
    work.path = zone_path(names_a_file ? work.value + 1 : work.value);
    if (names_a_file || work.path == nullptr) {
        begin_anew(kind_zone_file);
        read_zone();
    } else if (is_there(work.path, status)) {
        begin_anew(kind_zone_file);
        old_stat_buf = status;
        read_zone();
    } else {
        begin_anew(kind_rule);
        read_rule();
    }
}

// A value whose file or rule was not read to the end, because a raise came in between, is as good as new.
void use_value() {
    const Cache &cache = global_tz_cache;
    if (cache.state == state_empty || strcmp(cache.tz, work.value) != 0)
        take_new_value();
    else if (cache.tz_kind == kind_zone_file)
        check_file_again();
}

void release_work() {
    with_inhibit([] {
        stg_free(work.value);
        stg_free(work.path);
        work = {};
    });
}

} // namespace

void velia::tz::refresh_cache() {
    char value[value_size];
    release_work();
    if (getenv_safe(tz_variable, value, sizeof value, 0) == nullptr) {
        flush();
        if (log_ev_null)
            warn_of(CLNT_TZ_MSG_NOT_SET, tz_variable);
        log_ev_null = false;
        return;
    }
    log_ev_null = true;
    work.value = stg_strdup(value);
    if (work.value == nullptr) {
        flush();
        if (log_alloc_fail)
            warn(CLNT_TZ_MSG_NO_MEMORY);
        log_alloc_fail = false;
        return;
    }
    log_alloc_fail = true;
    use_value();
    release_work();
}
