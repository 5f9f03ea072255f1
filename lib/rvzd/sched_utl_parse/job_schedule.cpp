// The schedule of a job: its kind's own lines in their order, then those that the kinds have in common.
#include <rvzd/sched_utl_parse/job_grammar.h>

#include <cstdio>
#include <cstring>

#include <common/leading_number.h>
#include <support/strutl.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_handle.h>

namespace velia::sched_utl_parse {

namespace {

constexpr uint32_t last_second_of_day = 86399;

sched_schedule_t &schedule_of(parse_state_t *state) {
    return state->job_rec.rw.schedule;
}

// Those of a schedule that has them.
sched_common_sched_t &common_of(parse_state_t *state) {
    return *sched_utl_get_common_sched(&schedule_of(state));
}

// A value begins with the blank behind its tag, which only the last form passes over: so "0x10" reads as 0.
tbs_status_t parse_frequency(const parse_state_t *state, const char *value, int32_t &frequency) {
    uint32_t number = 0;
    bool is_read = false;
    for (const char *form : {"0x%x", "0%o"})
        if (!is_read && *value == '0')
            is_read = sscanf(value, form, &number) == 1; // NOLINT(cert-err34-c): a value may only begin with one
    if (!is_read && !read_leading_number(value, number))
        return refuse(state, SCHED_MSG_ILLEGAL_NUMBER);
    frequency = static_cast<int32_t>(number);
    return TBS_ST_OK;
}

tbs_status_t jparse_add_monthly_sched_freq(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_frequency(state, value, schedule_of(state).u.monthly.frequency);
}

tbs_status_t jparse_add_weekly_sched_freq(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_frequency(state, value, schedule_of(state).u.weekly.frequency);
}

tbs_status_t jparse_add_daily_sched_freq(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_frequency(state, value, schedule_of(state).u.daily.frequency);
}

// Two words. The row in front of the first ordinal and day has a text, too, so that is found and fails in validation.
bool read_day_kind(const char *text, sched_sched_monthly_day_kind_t &day) {
    char ordinal[256];
    char kind[256];
    if (sscanf(text, "%255s %255s", ordinal, kind) != 2)
        return false;
    day.ordinal = sched_utl_mds_ordinal_from_str(ordinal);
    day.kind = sched_utl_mds_kind_from_str(kind);
    return day.ordinal != SCHED_MDS_ORDINAL_ROWS - 1 && day.kind != SCHED_MDS_KIND_ROWS - 1;
}

tbs_status_t jparse_add_monthly_sched_days(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_monthly_sched_t &monthly = schedule_of(state).u.monthly;
    const char *text = stripped(value);
    uint32_t number = 0;
    if (read_leading_number(text, number)) { // as "2nd" does
        monthly.day_spec_kind = SCHED_MONTHLY_DAY_NUMBER;
        monthly.day.number = number;
        return TBS_ST_OK;
    }
    monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
    return read_day_kind(text, monthly.day.kind) ? tbs_status_t{TBS_ST_OK} : refuse(state, SCHED_MSG_ILLEGAL_DAY);
}

tbs_status_t jparse_add_weekly_sched_days(parse_state_t *state, const char * /*tag*/, char *value) {
    const char *text = stripped(value);
    const sched_sched_dow_mask_t days = sched_utl_dow_mask_from_str(text);
    if (days == 0)
        return refuse(state, SCHED_MSG_ILLEGAL_DAYS_OF_WEEK, text);
    schedule_of(state).u.weekly.days = days;
    return TBS_ST_OK;
}

tbs_status_t jparse_add_seq_sched_follows(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_job_id_t &follows = schedule_of(state).u.sequential.follows_job;
    if (follows != 0 || state->follows_name[0] != '\0')
        return refuse(state, SCHED_MSG_FOLLOWED_TWICE);
    char *text = nullptr;
    const tbs_status_t status = parse_quoted(state, value, &text);
    if (status != TBS_ST_OK)
        return status;
    if (sched_job_is_id_str(state->handle, text))
        return sched_job_id_from_str(state->handle, text, &follows);
    strutl_cpy_buf(state->follows_name, text, sizeof state->follows_name);
    return TBS_ST_OK;
}

bool take_colon(const char *&text) {
    return *text++ == ':';
}

tbs_status_t parse_time_of_day(const parse_state_t *state, const char *value, uint32_t &time) {
    uint32_t hours = 0;
    uint32_t minutes = 0;
    uint32_t seconds = 0;
    const char *text = value;
    const bool is_read = take_leading_number(text, hours) && take_colon(text) && take_leading_number(text, minutes) &&
                         take_colon(text) && take_leading_number(text, seconds);
    if (!is_read || hours >= 24 || minutes >= 60 || seconds >= 60)
        return refuse(state, SCHED_MSG_ILLEGAL_TIME_OF_DAY, value);
    time = (hours * 60 + minutes) * 60 + seconds;
    return TBS_ST_OK;
}

tbs_status_t jparse_add_start_date(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_get_date(state, value, &common_of(state).lifetime.start_date);
}

tbs_status_t jparse_add_last_date(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_sched_lifetime_t &lifetime = common_of(state).lifetime;
    const char *text = stripped(value);
    if (strutl_stricoll(text, "StartDate") != 0)
        return parse_get_date(state, text, &lifetime.last_date);
    lifetime.last_date = lifetime.start_date;
    return TBS_ST_OK;
}

tbs_status_t jparse_add_first_start_time(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_time_of_day(state, value, common_of(state).start_times.first_start_time);
}

tbs_status_t jparse_add_restart_frequency(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_time_of_day(state, value, common_of(state).start_times.restart_frequency);
}

// Midnight is that behind the day.
tbs_status_t jparse_add_last_start_time(parse_state_t *state, const char * /*tag*/, char *value) {
    uint32_t &last = common_of(state).start_times.last_start_time;
    const tbs_status_t status = parse_time_of_day(state, value, last);
    if (status == TBS_ST_OK && last == 0)
        last = last_second_of_day;
    return status;
}

constexpr ExpectedLine common_lines[] = {
    {"Job.Schedule.StartDate:", jparse_add_start_date},
    {"Job.Schedule.LastDate:", jparse_add_last_date},
    {"Job.Schedule.FirstStartTime:", jparse_add_first_start_time},
    {"Job.Schedule.StartTimeRestartFrequency:", jparse_add_restart_frequency},
    {"Job.Schedule.LastStartTime:", jparse_add_last_start_time},
};

// Each line may be left out, but none may stand behind one that follows it here: the top level then finds it, to which
// it looks like a second schedule.
tbs_status_t jparse_sched_common(parse_state_t *state) {
    common_of(state) = {{SCHED_DATE_NOW, 0}, {SCHED_TIME_NOT_GIVEN, last_second_of_day, 0}};
    for (const auto &[tag, action] : common_lines) {
        tbs_status_t status = parse_next_line(state, true, false);
        if (status == TBS_ST_OK)
            status = parse_cur_match(state, false, tag, action);
        if (status != TBS_ST_OK)
            return status;
    }
    return TBS_ST_OK;
}

template <size_t Count>
tbs_status_t parse_schedule(parse_state_t *state, sched_schedule_kind_t kind, const ExpectedLine (&lines)[Count]) {
    schedule_of(state).kind = kind;
    const tbs_status_t status = parse_lines(state, lines);
    const bool has_common_lines = sched_utl_get_common_sched(&schedule_of(state)) != nullptr;
    return status == TBS_ST_OK && has_common_lines ? jparse_sched_common(state) : status;
}

constexpr ExpectedLine monthly_lines[] = {
    {"Job.Schedule.Monthly.Frequency:", jparse_add_monthly_sched_freq},
    {"Job.Schedule.Monthly.Day:", jparse_add_monthly_sched_days},
};
constexpr ExpectedLine weekly_lines[] = {
    {"Job.Schedule.Weekly.Frequency:", jparse_add_weekly_sched_freq},
    {"Job.Schedule.Weekly.Days:", jparse_add_weekly_sched_days},
};
constexpr ExpectedLine daily_lines[] = {
    {"Job.Schedule.Daily.Frequency:", jparse_add_daily_sched_freq},
};
constexpr ExpectedLine sequential_lines[] = {
    {"Job.Schedule.Sequential.FollowsJob:", jparse_add_seq_sched_follows},
};

tbs_status_t jparse_add_monthly_sched(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    return parse_schedule(state, SCHED_KIND_MONTHLY, monthly_lines);
}

tbs_status_t jparse_add_weekly_sched(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    return parse_schedule(state, SCHED_KIND_WEEKLY, weekly_lines);
}

tbs_status_t jparse_add_daily_sched(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    return parse_schedule(state, SCHED_KIND_DAILY, daily_lines);
}

tbs_status_t jparse_add_seq_sched(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    return parse_schedule(state, SCHED_KIND_SEQUENTIAL, sequential_lines);
}

constexpr parse_tag_action_t schedule_tag_actions[] = {
    {"Job.Schedule.Monthly.", jparse_add_monthly_sched},
    {"Job.Schedule.Weekly.", jparse_add_weekly_sched},
    {"Job.Schedule.Daily.", jparse_add_daily_sched},
    {"Job.Schedule.Sequential.", jparse_add_seq_sched},
};

} // namespace

tbs_status_t jparse_add_schedule(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    const tbs_status_t status = parse_unget_cur_line(state);
    if (status != TBS_ST_OK)
        return status;
    if (schedule_of(state).kind != 0)
        return refuse(state, SCHED_MSG_SCHEDULE_TWICE);
    return parse_next_match_set(state, true, std::size(schedule_tag_actions), schedule_tag_actions);
}

} // namespace velia::sched_utl_parse
