// Lines that hold exactly what no line of the described language can: a limit of the run time, texts with line feeds,
// or longer than a line, the end of a day as a time. They come behind what they set, and only those who keep sets of
// definitions read them.
#include <rvzd/sched_utl_parse/job_grammar.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <common/with.h>
#include <support/strutl.h>
#include <veliaxdr/sched_check.h>

namespace velia::sched_utl_parse {

namespace {

int value_of_hex(char digit) {
    const int lower = tolower(static_cast<uint8_t>(digit));
    return isdigit(lower) != 0 ? lower - '0' : lower - 'a' + 10;
}

bool is_hex(char character) {
    return isxdigit(static_cast<uint8_t>(character)) != 0;
}

// One character behind a backslash; moves `from` to its last one. One that means nothing stands for itself.
char escaped(const char *&from) {
    if (*from == 'n')
        return '\n';
    if (*from != 'x' || !is_hex(from[1]) || !is_hex(from[2]))
        return *from;
    from += 2;
    return static_cast<char>(value_of_hex(from[-1]) * 16 + value_of_hex(from[0]));
}

// A text between quotation marks, in place; false where it does not end, or goes on behind its end.
bool read_text(char *value, char **out) {
    char *text = stripped(value);
    if (*text != '"')
        return false;
    char *to = text;
    const char *from = text + 1;
    for (; *from != '\0' && *from != '"'; ++from)
        *to++ = *from == '\\' && from[1] != '\0' ? escaped(++from) : *from;
    const bool is_whole = from[0] == '"' && from[1] == '\0';
    *to = '\0';
    *out = text;
    return is_whole;
}

// Puts a copy of the text where `slot` is, and lets lines of more go on there.
bool set_text(parse_state_t *state, char **slot, const char *text) {
    return with_inhibit([&] {
        char *copy = stg_strdup(text);
        if (copy == nullptr)
            return false;
        stg_free(*slot);
        *slot = copy;
        state->exact_text = slot;
        state->exact_length = strlen(text);
        state->exact_delivery = state->deliveries;
        return true;
    });
}

// The text becomes one more of an array, which may have been made by others.
template <class Count>
bool append_text(parse_state_t *state, char **&array, Count &count, const char *text) {
    return with_inhibit([&] {
        const size_t room = static_cast<size_t>(count) + 1;
        auto **grown = static_cast<char **>(stg_realloc(array, room * sizeof(char *)));
        if (grown == nullptr)
            return false;
        array = grown;
        array[count] = nullptr;
        if (!set_text(state, &array[count], text))
            return false;
        ++count;
        return true;
    });
}

// What is there already is not looked at: it may have come in thousands of lines.
bool lengthen_exact_text(parse_state_t *state, const char *by) {
    return with_inhibit([&] {
        const size_t added = strlen(by);
        auto *grown = static_cast<char *>(stg_realloc(*state->exact_text, state->exact_length + added + 1));
        if (grown == nullptr)
            return false;
        *state->exact_text = grown;
        memcpy(grown + state->exact_length, by, added + 1);
        state->exact_length += added;
        state->exact_delivery = state->deliveries;
        return true;
    });
}

// Reads the text and lets `keep` have it, which is false without storage.
template <class Keep>
tbs_status_t with_text(parse_state_t *state, char *value, Keep &&keep) {
    char *text = nullptr;
    if (!read_text(value, &text))
        return refuse(state, SCHED_MSG_MISSING_QUOTE);
    return keep(text) ? tbs_status_t{TBS_ST_OK} : no_memory();
}

// A number and nothing else.
tbs_status_t read_number(const parse_state_t *state, char *value, uint32_t &number) {
    const char *text = stripped(value);
    char *end = nullptr;
    errno = 0;
    const unsigned long long read = strtoull(text, &end, 0);
    if (isdigit(static_cast<uint8_t>(*text)) == 0 || *end != '\0' || errno != 0 || read > UINT32_MAX)
        return refuse(state, SCHED_MSG_ILLEGAL_NUMBER);
    number = static_cast<uint32_t>(read);
    return TBS_ST_OK;
}

tbs_status_t jparse_exact_name(parse_state_t *state, const char * /*tag*/, char *value) {
    return with_text(state, value, [&](const char *text) { return set_text(state, &state->job_rec.rw.name, text); });
}

tbs_status_t jparse_exact_description(parse_state_t *state, const char * /*tag*/, char *value) {
    return with_text(state, value,
                     [&](const char *text) { return set_text(state, &state->job_rec.rw.description, text); });
}

tbs_status_t jparse_exact_arg(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_job_rw_properties_t &rw = state->job_rec.rw;
    return with_text(state, value, [&](const char *text) { return append_text(state, rw.args, rw.arg_count, text); });
}

tbs_status_t jparse_exact_more(parse_state_t *state, const char *tag, char *value) {
    if (state->exact_text == nullptr || state->exact_delivery + 1 != state->deliveries)
        return refuse(state, SCHED_MSG_EXPECTED_TAG, tag);
    return with_text(state, value, [&](const char *text) { return lengthen_exact_text(state, text); });
}

tbs_status_t jparse_exact_run_time(parse_state_t *state, const char * /*tag*/, char *value) {
    return read_number(state, value, state->job_rec.rw.run_control.max_run_time);
}

tbs_status_t read_start_time(parse_state_t *state, char *value, uint32_t sched_sched_start_times_t::*time) {
    sched_common_sched_t *common = sched_utl_get_common_sched(&state->job_rec.rw.schedule);
    if (common == nullptr)
        return refuse(state, SCHED_MSG_EXPECTED_TAG, "Job.Schedule.");
    return read_number(state, value, common->start_times.*time);
}

tbs_status_t jparse_exact_first_start(parse_state_t *state, const char * /*tag*/, char *value) {
    return read_start_time(state, value, &sched_sched_start_times_t::first_start_time);
}

tbs_status_t jparse_exact_restart(parse_state_t *state, const char * /*tag*/, char *value) {
    return read_start_time(state, value, &sched_sched_start_times_t::restart_frequency);
}

tbs_status_t jparse_exact_last_start(parse_state_t *state, const char * /*tag*/, char *value) {
    return read_start_time(state, value, &sched_sched_start_times_t::last_start_time);
}

// The rows of the two words, as numbers: also those that no word of the language means.
tbs_status_t jparse_exact_day(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_schedule_t &schedule = state->job_rec.rw.schedule;
    if (schedule.kind != SCHED_KIND_MONTHLY)
        return refuse(state, SCHED_MSG_EXPECTED_TAG, "Job.Schedule.Monthly.");
    char *text = stripped(value);
    char *blank = strchr(text, ' ');
    if (blank == nullptr)
        return refuse(state, SCHED_MSG_ILLEGAL_DAY);
    *blank = '\0';
    uint32_t ordinal = 0;
    uint32_t kind = 0;
    tbs_status_t status = read_number(state, text, ordinal);
    if (status == TBS_ST_OK)
        status = read_number(state, blank + 1, kind);
    schedule.u.monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
    schedule.u.monthly.day.kind = {static_cast<int32_t>(ordinal), static_cast<int32_t>(kind)};
    return status;
}

// That was read last; null for none.
sched_notify_info_t *last_notification(parse_state_t *state) {
    sched_job_rw_properties_t &rw = state->job_rec.rw;
    return rw.notify_count != 0 ? &rw.notify[rw.notify_count - 1] : nullptr;
}

tbs_status_t jparse_exact_recipient(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_notify_info_t *notification = last_notification(state);
    if (notification == nullptr)
        return refuse(state, SCHED_MSG_EXPECTED_TAG, "Job.NotifyInfo.OnEvents:");
    return with_text(state, value, [&](const char *text) {
        return append_text(state, notification->recipients, notification->recipient_count, text);
    });
}

constexpr parse_tag_action_t exact_lines[] = {
    {"Job.RunCntl.MaxRunTime:", jparse_exact_run_time},
    {"Job.RunCntl.Name:", jparse_exact_name},
    {"Job.RunCntl.Description:", jparse_exact_description},
    {"Job.RunCntl.Arg:", jparse_exact_arg},
    {"Job.RunCntl.More:", jparse_exact_more},
    {"Job.RunCntl.Day:", jparse_exact_day},
    {"Job.RunCntl.FirstStartTime:", jparse_exact_first_start},
    {"Job.RunCntl.StartTimeRestartFrequency:", jparse_exact_restart},
    {"Job.RunCntl.LastStartTime:", jparse_exact_last_start},
    {"Job.RunCntl.Recipient:", jparse_exact_recipient},
};

} // namespace

tbs_status_t jparse_add_exact(parse_state_t *state, const char *tag, char *value) {
    for (const auto &line : exact_lines)
        if (strutl_stricoll(tag, line.tag) == 0)
            return line.action(state, tag, value);
    return refuse(state, SCHED_MSG_EXPECTED_TAG, tag);
}

} // namespace velia::sched_utl_parse
