// Whether two jobs are the same in all that a client may set.
#include <algorithm>
#include <cstring>

#include <rvzd/sched_utl/sched_utl.h>
#include <veliaxdr/sched_check.h>

using namespace velia::sched_utl;

namespace {

bool same(const char *left, const char *right) {
    return strcmp(text_or_empty(left), text_or_empty(right)) == 0;
}

bool same(const sched_common_sched_t &left, const sched_common_sched_t &right) {
    return left.lifetime.start_date == right.lifetime.start_date &&
           left.lifetime.last_date == right.lifetime.last_date &&
           left.start_times.first_start_time == right.start_times.first_start_time &&
           left.start_times.last_start_time == right.start_times.last_start_time &&
           left.start_times.restart_frequency == right.start_times.restart_frequency;
}

bool same_day(const sched_monthly_sched_t &left, const sched_monthly_sched_t &right) {
    switch (left.day_spec_kind) {
    case SCHED_MONTHLY_DAY_NUMBER:
        return left.day.number == right.day.number;
    case SCHED_MONTHLY_DAY_KIND:
        return left.day.kind.ordinal == right.day.kind.ordinal && left.day.kind.kind == right.day.kind.kind;
    default:
        return false;
    }
}

bool same(const sched_monthly_sched_t &left, const sched_monthly_sched_t &right) {
    return same(left.common, right.common) && left.frequency == right.frequency &&
           left.day_spec_kind == right.day_spec_kind && same_day(left, right);
}

bool same(const sched_weekly_sched_t &left, const sched_weekly_sched_t &right) {
    return same(left.common, right.common) && left.frequency == right.frequency && left.days == right.days;
}

bool same(const sched_daily_sched_t &left, const sched_daily_sched_t &right) {
    return same(left.common, right.common) && left.frequency == right.frequency;
}

bool same(const sched_schedule_t &left, const sched_schedule_t &right) {
    if (left.kind != right.kind)
        return false;
    switch (left.kind) {
    case SCHED_KIND_MONTHLY:
        return same(left.u.monthly, right.u.monthly);
    case SCHED_KIND_WEEKLY:
        return same(left.u.weekly, right.u.weekly);
    case SCHED_KIND_DAILY:
        return same(left.u.daily, right.u.daily);
    case SCHED_KIND_SEQUENTIAL:
        return left.u.sequential.follows_job == right.u.sequential.follows_job;
    default:
        return false;
    }
}

bool same(const sched_notify_info_t &left, const sched_notify_info_t &right);

// Counts that differ are not the same, whatever the elements are.
template <class Element, class Count>
bool same_all(Element *left, Count left_count, Element *right, Count right_count) {
    if (left_count != right_count)
        return false;
    for (Count i = 0; i < left_count; ++i)
        if (!same(left[i], right[i]))
            return false;
    return true;
}

bool same(const sched_notify_info_t &left, const sched_notify_info_t &right) {
    return left.events == right.events && left.delivery == right.delivery &&
           same_all(left.recipients, left.recipient_count, right.recipients, right.recipient_count);
}

bool same(const sched_job_rw_properties_t &left, const sched_job_rw_properties_t &right) {
    return same(left.name, right.name) && same(left.description, right.description) &&
           same(left.schedule, right.schedule) && left.task == right.task &&
           same_all(left.args, left.arg_count, right.args, right.arg_count) &&
           left.run_control.max_run_time == right.run_control.max_run_time &&
           left.delete_when_completed == right.delete_when_completed &&
           same_all(left.notify, left.notify_count, right.notify, right.notify_count);
}

} // namespace

tbs_status_t sched_utl_equal_job_rw_properties(sched_h_t /*handle*/, sched_job_rw_properties_t *left,
                                               sched_job_rw_properties_t *right, tbs_boolean_t *equal) {
    *equal = same(*left, *right) ? 1 : 0;
    return TBS_ST_OK;
}

sched_common_sched_t *sched_utl_get_common_sched(sched_schedule_t *schedule) {
    switch (schedule->kind) {
    case SCHED_KIND_MONTHLY:
        return &schedule->u.monthly.common;
    case SCHED_KIND_WEEKLY:
        return &schedule->u.weekly.common;
    case SCHED_KIND_DAILY:
        return &schedule->u.daily.common;
    default:
        return nullptr;
    }
}
