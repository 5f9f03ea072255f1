// The lines of a job's schedule, by its kind.
#include <algorithm>

#include <rvzd/sched_utl/print.h>
#include <support/date.h>
#include <support/strutl.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_jobs.h>

namespace velia::sched_utl {

namespace {

void print_common(const char *tag, const char *value) {
    print_line("    %s%s %s\n", "Job.Schedule.", tag, value);
}

void print_date(const char *tag, time_t date) {
    print_common(tag, date == SCHED_DATE_NOW ? now_text() : date_fmt_token_date(date));
}

void print_day_time(const char *tag, uint32_t time) {
    char text[64];
    const TimeOfDay of_day = time_of_day(time);
    strutl_snprintf(text, sizeof text, "%02d:%02d:%02d", of_day.hours, of_day.minutes, of_day.seconds);
    print_common(tag, text);
}

void sched_utl_print_common_sched(const sched_common_sched_t &common) {
    print_date("StartDate:", common.lifetime.start_date);
    if (common.lifetime.last_date != 0)
        print_date("LastDate:", common.lifetime.last_date);
    print_day_time("FirstStartTime:", common.start_times.first_start_time);
    if (common.start_times.restart_frequency == 0)
        return;
    print_day_time("StartTimeRestartFrequency:", common.start_times.restart_frequency);
    print_day_time("LastStartTime:", common.start_times.last_start_time);
}

// Values that there are not show as the last row.
template <size_t Count>
const char *text_of(int32_t value, const sched_str_map_t (&map)[Count]) {
    return map[std::min(static_cast<uint32_t>(value), static_cast<uint32_t>(Count) - 1)].text;
}

constexpr char day_tag[] = "Job.Schedule.Monthly.Day:";

void print_monthly(const sched_monthly_sched_t &monthly) {
    print_number("Job.Schedule.Monthly.Frequency:", static_cast<uint32_t>(monthly.frequency));
    switch (monthly.day_spec_kind) {
    case SCHED_MONTHLY_DAY_NUMBER:
        print_number(day_tag, monthly.day.number);
        break;
    case SCHED_MONTHLY_DAY_KIND:
        print_line("    %s %s %s\n", day_tag, text_of(monthly.day.kind.ordinal, mds_ordinal_str_map),
                   text_of(monthly.day.kind.kind, mds_kind_str_map));
        break;
    default:
        return print_message(IMSG_PLAIN, SCHED_MSG_DAY_KIND, monthly.day_spec_kind);
    }
    sched_utl_print_common_sched(monthly.common);
}

void print_weekly(const sched_weekly_sched_t &weekly) {
    print_number("Job.Schedule.Weekly.Frequency:", static_cast<uint32_t>(weekly.frequency));
    print_tagged("Job.Schedule.Weekly.Days:", strutl_flags_to_str(weekly.days, ",", dow_flags, SCHED_DOW_FLAGS));
    sched_utl_print_common_sched(weekly.common);
}

void print_daily(const sched_daily_sched_t &daily) {
    print_number("Job.Schedule.Daily.Frequency:", static_cast<uint32_t>(daily.frequency));
    sched_utl_print_common_sched(daily.common);
}

constexpr char follows_tag[] = "Job.Schedule.Sequential.FollowsJob:";

// A job that cannot be looked up shows as a missing line.
void print_followed_name(sched_h_t handle, sched_job_id_t id) {
    sched_job_h_t job = nullptr;
    sched_job_properties_t properties = {};
    if (sched_job_lookup_by_id(handle, id, &job) == TBS_ST_OK &&
        sched_job_get_properties(handle, job, &properties) == TBS_ST_OK)
        print_quoted(follows_tag, text_or_empty(properties.rw.name));
    sched_free_job_properties(handle, &properties);
    sched_job_free_handle(handle, &job);
}

void print_sequential(sched_h_t handle, const sched_sequential_sched_t &sequential) {
    sched_job_id_str_t id;
    print_remark(follows_tag, sched_job_id_to_str(handle, sequential.follows_job, id));
    print_followed_name(handle, sequential.follows_job);
}

} // namespace

void print_schedule(sched_h_t handle, sched_schedule_t &schedule) {
    switch (schedule.kind) {
    case SCHED_KIND_MONTHLY:
        return print_monthly(schedule.u.monthly);
    case SCHED_KIND_WEEKLY:
        return print_weekly(schedule.u.weekly);
    case SCHED_KIND_DAILY:
        return print_daily(schedule.u.daily);
    case SCHED_KIND_SEQUENTIAL:
        return print_sequential(handle, schedule.u.sequential);
    default:
        return print_message(IMSG_PLAIN, SCHED_MSG_SCHEDULE_KIND, schedule.kind);
    }
}

} // namespace velia::sched_utl
