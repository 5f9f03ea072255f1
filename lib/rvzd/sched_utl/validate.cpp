// The checks of a job, in a fixed order: the first finding ends them.
#include <cstdio>
#include <cstring>

#include <rvzd/sched_utl/sched_utl.h>
#include <support/date.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_tasks.h>

using namespace velia::sched_utl;

namespace {

constexpr uint32_t seconds_of_day = 86400;
constexpr uint32_t days_of_month = 31;
// One more than what has a meaning.
constexpr int32_t greatest_ordinal = SCHED_MDS_ORDINAL_ROWS - 1;
constexpr int32_t greatest_day_kind = SCHED_MDS_KIND_ROWS - 1;
constexpr uint32_t all_days = 0x7F;
constexpr uint32_t all_events = 0x3FF;
constexpr uint32_t all_deliveries = 0x1;

struct Check {
    sched_h_t handle;
    bool asks_server;
    bool quiet;
    uint32_t &err_mask;

    template <class... Arguments>
    tbs_status_t find(uint32_t fault, int position, Arguments... arguments) const {
        err_mask = fault;
        if (!quiet)
            print_message(IMSG_ERROR, position, arguments...);
        return TBS_ST_INVALID_ARG;
    }
};

bool is_day_time(uint32_t time) {
    return time <= seconds_of_day;
}

bool is_within(uint32_t mask, uint32_t all) {
    return mask != 0 && (mask & ~all) == 0;
}

constexpr size_t day_time_size = 64;

const char *write_day_time(uint32_t time, char (&text)[day_time_size]) {
    const TimeOfDay of_day = time_of_day(time);
    snprintf(text, sizeof text, "%02d:%02d:%02d", of_day.hours, of_day.minutes, of_day.seconds);
    return text;
}

tbs_status_t find_wrong_order(const sched_sched_start_times_t &times, const Check &check) {
    char first[day_time_size];
    char last[day_time_size];
    return check.find(SCHED_ERR_DAILY_OR_TIME_ORDER, SCHED_MSG_START_TIME_ORDER,
                      write_day_time(times.first_start_time, first), write_day_time(times.last_start_time, last));
}

tbs_status_t validate_common(const sched_common_sched_t &common, const Check &check) {
    const sched_sched_lifetime_t &lifetime = common.lifetime;
    const sched_sched_start_times_t &times = common.start_times;
    const bool has_first = times.first_start_time != SCHED_TIME_NOT_GIVEN;
    if (lifetime.last_date != 0 && lifetime.last_date < lifetime.start_date)
        return check.find(SCHED_ERR_LAST_DATE, SCHED_MSG_LAST_DATE, date_fmt_token_date(lifetime.last_date));
    if (has_first && !is_day_time(times.first_start_time))
        return check.find(SCHED_ERR_FIRST_START, SCHED_MSG_FIRST_START, times.first_start_time);
    if (!is_day_time(times.last_start_time))
        return check.find(SCHED_ERR_LAST_START, SCHED_MSG_LAST_START, times.last_start_time);
    if (!is_day_time(times.restart_frequency))
        return check.find(SCHED_ERR_RESTART_FREQ, SCHED_MSG_RESTART_FREQUENCY, times.restart_frequency);
    if (has_first && times.first_start_time > times.last_start_time)
        return find_wrong_order(times, check);
    return TBS_ST_OK;
}

tbs_status_t validate_day_of_week(const sched_sched_monthly_day_kind_t &day, const Check &check) {
    if (day.ordinal < 1 || day.ordinal > greatest_ordinal)
        return check.find(SCHED_ERR_MDS_ORDINAL, SCHED_MSG_DAY_ORDINAL, day.ordinal);
    if (day.kind < 1 || day.kind > greatest_day_kind)
        return check.find(SCHED_ERR_MDS_KIND, SCHED_MSG_DAY_OF_WEEK_KIND, day.kind);
    return TBS_ST_OK;
}

tbs_status_t validate_monthly(const sched_monthly_sched_t &monthly, const Check &check) {
    if (monthly.frequency <= 0)
        return check.find(SCHED_ERR_MONTHLY_FREQ, SCHED_MSG_MONTHLY_FREQUENCY, monthly.frequency);
    switch (monthly.day_spec_kind) {
    case SCHED_MONTHLY_DAY_NUMBER:
        return monthly.day.number >= 1 && monthly.day.number <= days_of_month
                   ? tbs_status_t{TBS_ST_OK}
                   : check.find(SCHED_ERR_MONTH_DAY, SCHED_MSG_DAY_NUMBER, monthly.day.number);
    case SCHED_MONTHLY_DAY_KIND:
        return validate_day_of_week(monthly.day.kind, check);
    default:
        return check.find(SCHED_ERR_DAY_KIND, SCHED_MSG_DAY_KIND, monthly.day_spec_kind);
    }
}

tbs_status_t validate_weekly(const sched_weekly_sched_t &weekly, const Check &check) {
    if (weekly.frequency <= 0)
        return check.find(SCHED_ERR_WEEKLY_FREQ, SCHED_MSG_WEEKLY_FREQUENCY, weekly.frequency);
    return is_within(weekly.days, all_days) ? tbs_status_t{TBS_ST_OK}
                                            : check.find(SCHED_ERR_DOW_SET, SCHED_MSG_DAYS_OF_WEEK, weekly.days);
}

tbs_status_t validate_daily(const sched_daily_sched_t &daily, const Check &check) {
    return daily.frequency > 0 ? tbs_status_t{TBS_ST_OK}
                               : check.find(SCHED_ERR_DAILY_OR_TIME_ORDER, SCHED_MSG_DAILY_FREQUENCY, daily.frequency);
}

tbs_status_t validate_sequential(const sched_sequential_sched_t &sequential, const Check &check) {
    if (!check.asks_server)
        return TBS_ST_OK;
    const sched_job_id_t followed = sequential.follows_job;
    sched_job_h_t job = nullptr;
    const auto status = sched_job_lookup_by_id(check.handle, followed, &job);
    sched_job_free_handle(check.handle, &job);
    if (status == TBS_ST_NOT_FOUND)
        return check.find(SCHED_ERR_FOLLOWS, SCHED_MSG_NO_JOB_TO_FOLLOW, followed);
    if (status != TBS_ST_OK)
        print_message(IMSG_ERROR, SCHED_MSG_CANNOT_LOOK_UP_FOLLOWED, followed, tbs_strerror(status));
    return status;
}

tbs_status_t validate_kind(const sched_schedule_t &schedule, const Check &check) {
    switch (schedule.kind) {
    case SCHED_KIND_MONTHLY:
        return validate_monthly(schedule.u.monthly, check);
    case SCHED_KIND_WEEKLY:
        return validate_weekly(schedule.u.weekly, check);
    case SCHED_KIND_DAILY:
        return validate_daily(schedule.u.daily, check);
    case SCHED_KIND_SEQUENTIAL:
        return validate_sequential(schedule.u.sequential, check);
    default:
        return check.find(SCHED_ERR_KIND, SCHED_MSG_SCHEDULE_KIND, schedule.kind);
    }
}

tbs_status_t validate_schedule(sched_schedule_t &schedule, const Check &check) {
    check.err_mask = 0;
    const sched_common_sched_t *common = sched_utl_get_common_sched(&schedule);
    const tbs_status_t status = common != nullptr ? validate_common(*common, check) : tbs_status_t{TBS_ST_OK};
    return status == TBS_ST_OK ? validate_kind(schedule, check) : status;
}

tbs_status_t validate_uniqueness(const char *name, sched_job_id_t job_id, const Check &check) {
    sched_job_h_t job = nullptr;
    const auto status = sched_job_lookup_by_name(check.handle, name, &job);
    sched_job_id_t holder = 0;
    sched_job_get_id(check.handle, job, &holder);
    sched_job_free_handle(check.handle, &job);
    if (status == TBS_ST_NOT_FOUND)
        return TBS_ST_OK;
    if (status != TBS_ST_OK) {
        print_message(IMSG_ERROR, SCHED_MSG_CANNOT_LOOK_UP_JOB, name, tbs_strerror(status));
        return status;
    }
    sched_job_id_str_t text;
    return holder == job_id ? tbs_status_t{TBS_ST_OK}
                            : check.find(SCHED_ERR_NAME_DUPLICATE, SCHED_MSG_DUPLICATE_NAME, name,
                                         sched_job_id_to_str(check.handle, holder, text));
}

tbs_status_t validate_name(const char *name, sched_job_id_t job_id, const Check &check) {
    check.err_mask = 0;
    if (*text_or_empty(name) == '\0')
        return check.find(SCHED_ERR_NAME_NIL, SCHED_MSG_NIL_NAME);
    return check.asks_server ? validate_uniqueness(name, job_id, check) : tbs_status_t{TBS_ST_OK};
}

// A task that is not known is told, and no failure: it may be installed before the job runs.
tbs_status_t look_for_task(sched_task_id_t task, const Check &check) {
    tbs_boolean_t exists = 0;
    sched_task_id_str_t text;
    const auto status = sched_task_exists(check.handle, task, &exists);
    if (status != TBS_ST_OK)
        print_message(IMSG_ERROR, SCHED_MSG_CANNOT_LOOK_UP_TASK, sched_task_id_to_str(check.handle, task, text),
                      tbs_strerror(status));
    else if (!exists)
        check.find(SCHED_ERR_TASK, SCHED_MSG_UNKNOWN_TASK, sched_task_id_to_str(check.handle, task, text),
                   tbs_strerror(TBS_ST_INVALID_ARG));
    return status;
}

tbs_status_t validate_task(sched_task_id_t task, const Check &check) {
    if (task == 0)
        return check.find(SCHED_ERR_TASK, SCHED_MSG_NIL_TASK);
    return check.asks_server ? look_for_task(task, check) : tbs_status_t{TBS_ST_OK};
}

tbs_status_t validate_notification(const sched_notify_info_t &notification, const Check &check) {
    if (!is_within(notification.events, all_events))
        return check.find(SCHED_ERR_EVENT_MASK, SCHED_MSG_EVENT_MASK, notification.events);
    if (!is_within(notification.delivery, all_deliveries))
        return check.find(SCHED_ERR_DELIVERY_MASK, SCHED_MSG_DELIVERY_MASK, notification.delivery);
    return TBS_ST_OK;
}

// The mask begins anew here, and what was found of the task is no longer in it.
tbs_status_t validate_notifications(const sched_job_rw_properties_t &rw, const Check &check) {
    if (rw.notify_count > 0)
        check.err_mask = 0;
    tbs_status_t status = TBS_ST_OK;
    for (uint32_t i = 0; i < rw.notify_count && status == TBS_ST_OK; ++i)
        status = validate_notification(rw.notify[i], check);
    return status;
}

} // namespace

tbs_status_t sched_utl_validate_job_rw_properties(sched_h_t handle, sched_job_id_t job_id,
                                                  sched_job_rw_properties_t *rw, int check_server, int quiet,
                                                  sched_validate_job_rw_properties_err_mask_t *err_mask) {
    const Check check = {handle, check_server != 0, quiet != 0, *err_mask};
    tbs_status_t status = validate_name(rw->name, job_id, check);
    if (status == TBS_ST_OK)
        status = validate_schedule(rw->schedule, check);
    if (status == TBS_ST_OK)
        status = validate_task(rw->task, check);
    return status == TBS_ST_OK ? validate_notifications(*rw, check) : status;
}

tbs_status_t sched_utl_validate_predef_job_rw_properties(sched_h_t handle, sched_job_rw_properties_t *before,
                                                         sched_job_rw_properties_t *after, int quiet,
                                                         sched_validate_job_rw_properties_err_mask_t *err_mask) {
    const Check check = {handle, false, quiet != 0, *err_mask};
    check.err_mask = 0;
    return strcmp(text_or_empty(before->name), text_or_empty(after->name)) == 0
               ? tbs_status_t{TBS_ST_OK}
               : check.find(SCHED_ERR_PREDEF_NAME, SCHED_MSG_PREDEFINED_NAME);
}
