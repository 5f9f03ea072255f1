// What a definition of a job may have, but for its schedule and its notifications.
#include <rvzd/sched_utl_parse/job_grammar.h>

#include <cstring>

#include <common/with.h>
#include <support/clp.h>
#include <support/strutl.h>
#include <veliaxdr/sched_handle.h>

using namespace velia;
using namespace velia::sched_utl_parse;

namespace {

constexpr size_t description_size_max = 256;

tbs_status_t jparse_add_predefined(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_get_bool(state, value, &state->job_rec.ro.predefined);
}

tbs_status_t jparse_add_id(parse_state_t *state, const char * /*tag*/, char *value) {
    return sched_job_id_from_str(state->handle, stripped(value), &state->job_rec.ro.job_id);
}

tbs_status_t jparse_add_name(parse_state_t *state, const char * /*tag*/, char *value) {
    return replace_by_quoted(state, value, &state->job_rec.rw.name);
}

tbs_status_t jparse_add_delete_when_completed(parse_state_t *state, const char * /*tag*/, char *value) {
    return parse_get_bool(state, value, &state->job_rec.rw.delete_when_completed);
}

// Nothing in the described language limits the time of a run.
tbs_status_t jparse_add_run_cntl(parse_state_t *state, const char *tag, char *value) {
    return state->reading != nullptr ? jparse_add_exact(state, tag, value) : tbs_status_t{TBS_ST_OK};
}

// The line as it stands, and its end.
bool append_line(char *&text, const char *line) {
    return with_inhibit([&] {
        const size_t length = text != nullptr ? strlen(text) : 0;
        const size_t size = length + strlen(line) + 2;
        auto *grown = static_cast<char *>(stg_realloc(text, size));
        if (grown == nullptr)
            return false;
        text = grown;
        text[length] = '\0';
        return strutl_concat(text, size, 3, text, line, "\n") == 0;
    });
}

tbs_status_t jparse_add_description_line(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    char *&description = state->job_rec.rw.description;
    const size_t length = description != nullptr ? strlen(description) : 0;
    if (length + strlen(state->line) + 2 > description_size_max)
        return refuse(state, SCHED_MSG_DESCRIPTION_TOO_LONG, static_cast<int>(description_size_max));
    return append_line(description, state->line) ? tbs_status_t{TBS_ST_OK} : no_memory();
}

constexpr parse_tag_action_t description_lines[] = {{"*", jparse_add_description_line}};

tbs_status_t jparse_add_description(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    const tbs_status_t status = parse_cur_match(state, true, "Job.Description.Begin:", nullptr);
    return status == TBS_ST_OK ? parse_next_match_set_until(state, false, std::size(description_lines),
                                                            description_lines, "Job.Description.End:")
                               : status;
}

tbs_status_t jparse_add_task(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_task_id_t &task = state->job_rec.rw.task;
    if (task != 0 || state->task_name[0] != '\0')
        return refuse(state, SCHED_MSG_TASK_TWICE);
    char *text = nullptr;
    const tbs_status_t status = parse_quoted(state, value, &text);
    if (status != TBS_ST_OK)
        return status;
    if (sched_task_is_id_str(state->handle, text))
        return sched_task_id_from_str(state->handle, text, &task);
    strutl_cpy_buf(state->task_name, text, sizeof state->task_name);
    return TBS_ST_OK;
}

tbs_status_t jparse_add_task_args(parse_state_t *state, const char * /*tag*/, char *value) {
    sched_job_rw_properties_t &rw = state->job_rec.rw;
    if (rw.arg_count != 0)
        return refuse(state, SCHED_MSG_ARGS_TWICE);
    const bool is_split =
        with_inhibit([&] { return clp_parse_string(value, 1, &rw.arg_count, &rw.args, nullptr, STG_HEAP_AREA) == 0; });
    return is_split ? tbs_status_t{TBS_ST_OK} : refuse(state, SCHED_MSG_MALFORMED_ARGS);
}

constexpr parse_tag_action_t dropped_lines[] = {{"*", nullptr}};

tbs_status_t jparse_ignore_messages(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    return parse_next_match_set_until(state, false, std::size(dropped_lines), dropped_lines,
                                      "Job.LastCompletionInfo.Messages.End:");
}

constexpr ExpectedLine completion_lines[] = {
    {"Job.LastCompletionInfo.ProcessId:", nullptr},
    {"Job.LastCompletionInfo.Started:", nullptr},
    {"Job.LastCompletionInfo.Ended:", nullptr},
    {"Job.LastCompletionInfo.ExitStatus:", nullptr},
};

tbs_status_t jparse_ignore_completion_info(parse_state_t *state, const char * /*tag*/, char * /*value*/) {
    tbs_status_t status = parse_lines(state, completion_lines);
    if (status == TBS_ST_OK)
        status = parse_next_line(state, true, false);
    return status == TBS_ST_OK
               ? parse_cur_match(state, false, "Job.LastCompletionInfo.Messages.Begin:", jparse_ignore_messages)
               : status;
}

} // namespace

// What printers write and no definition sets is accepted and ignored.
constexpr parse_tag_action_t top_tag_actions[NUM_TOP_TAG_ACTIONS] = {
    {"Job.Predefined:", jparse_add_predefined},
    {"Job.Id:", jparse_add_id},
    {"Job.NextRunTime:", nullptr},
    {"Job.RunningStatus.", nullptr},
    {"Job.LastCompletionInfo.", jparse_ignore_completion_info},
    {"Job.Created:", nullptr},
    {"Job.LastModified:", nullptr},
    {"Job.Name:", jparse_add_name},
    {"Job.Description.", jparse_add_description},
    {"Job.Schedule.", jparse_add_schedule},
    {"Job.Task:", jparse_add_task},
    {"Job.Args:", jparse_add_task_args},
    {"Job.RunCntl.", jparse_add_run_cntl},
    {"Job.DeleteWhenCompleted:", jparse_add_delete_when_completed},
    {"Job.NotifyInfo.", jparse_add_notify_info},
};

constexpr uint32_t num_top_tag_actions = NUM_TOP_TAG_ACTIONS;
