// A file of task definitions becomes an array of tasks.
#include <rvzd/sched_utl_parse/definition_file.h>

#include <cstring>

#include <support/credutl.h>
#include <veliaxdr/sched_handle.h>
#include <veliaxdr/sched_tasks.h>

using namespace velia;
using namespace velia::sched_utl_parse;

namespace {

tbs_status_t tparse_add_id(parse_state_t *state, const char * /*tag*/, char *value) {
    return sched_task_id_from_str(state->handle, stripped(value), &state->task_rec.task_id);
}

tbs_status_t tparse_add_name(parse_state_t *state, const char * /*tag*/, char *value) {
    return replace_by_quoted(state, value, &state->task_rec.name);
}

tbs_status_t tparse_add_pname(parse_state_t *state, const char * /*tag*/, char *value) {
    return replace_by_quoted(state, value, &state->task_rec.pathname);
}

tbs_status_t tparse_add_ui_info(parse_state_t *state, const char * /*tag*/, char *value) {
    return replace_by_quoted(state, value, &state->task_rec.ui.ui_info);
}

// Credentials are printed, and never read.
tbs_status_t tparse_add_creds(parse_state_t * /*state*/, const char * /*tag*/, char * /*value*/) {
    imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, SCHED_MSG_CREDENTIALS_NOT_READ);
    return TBS_ST_ERROR;
}

constexpr ExpectedLine first_lines[] = {
    {"Task.Begin", nullptr},
    {"Task.Id:", tparse_add_id},
    {"Task.Name:", tparse_add_name},
    {"Task.Pathname:", tparse_add_pname},
};

constexpr parse_tag_action_t optional_lines[] = {
    {"Task.UIInfo:", tparse_add_ui_info},
    {"Task.RunAsCredentials:", tparse_add_creds},
};

struct TaskFile {
    sched_h_t handle;
    parse_state_t *state;
    uint32_t count;
    sched_task_properties_t *tasks;
    Known known;
    sched_reading_t *reading;
};

void release(TaskFile &file) {
    sched_free_tasks(file.handle, file.count, &file.tasks);
    file.count = 0;
    with_inhibit([&] { release(file.known); });
    release_state(&file.state);
}

tbs_status_t read_lines(parse_state_t *state) {
    credutl_init_credentials(CREDUTL_NO_ID, CREDUTL_NO_ID, 0, nullptr, &state->task_rec.run_as);
    const tbs_status_t status = parse_lines(state, first_lines);
    return status == TBS_ST_OK
               ? parse_next_match_set_until(state, true, std::size(optional_lines), optional_lines, "Task.End")
               : status;
}

tbs_status_t read_definition(parse_state_t *state) {
    const tbs_status_t status = read_lines(state);
    return status == TBS_ST_OK && state->task_rec.task_id == 0 ? refuse(state, SCHED_MSG_ILLEGAL_TASK_ID) : status;
}

const sched_task_properties_t &task_at(const void *tasks, uint32_t place) {
    return static_cast<const sched_task_properties_t *>(tasks)[place];
}

Definitions stored(const TaskFile &file) {
    return {file.tasks, [](const void *tasks, uint32_t place) { return task_at(tasks, place).task_id; },
            [](const void *tasks, uint32_t place) -> const char * { return task_at(tasks, place).name; }};
}

constexpr DuplicateMessages duplicate_messages = {SCHED_MSG_DUPLICATE_TASK_ID, SCHED_MSG_DUPLICATE_TASK_NAME};

tbs_status_t store_task(TaskFile &file) {
    const bool is_stored = with_inhibit([&] {
        if (!make_room(file.tasks, file.count) || !make_room(file.known))
            return false;
        file.tasks[file.count] = file.state->task_rec;
        note(file.known, stored(file), file.count++);
        file.state->task_rec = {};
        return true;
    });
    if (!is_stored)
        return no_memory();
    note_taken(file.state, file.reading != nullptr ? file.reading->first_line : 0);
    return TBS_ST_OK;
}

// A first line tells whether there is a further definition; then it is read anew, as that one's.
tbs_status_t take_definition(TaskFile &file) {
    tbs_status_t status = parse_next_line(file.state, true, true);
    if (status != TBS_ST_OK)
        return status;
    note_begin(file.state);
    status = read_definition(file.state);
    const sched_task_properties_t &task = file.state->task_rec;
    if (status == TBS_ST_OK && is_duplicate(file, task.task_id, task.name, duplicate_messages))
        return file.reading != nullptr ? tbs_status_t{TBS_ST_ALREADY_EXISTS} : status;
    return status == TBS_ST_OK ? store_task(file) : status;
}

tbs_status_t take_tasks(TaskFile &file) {
    const tbs_status_t status = take_definitions(file);
    return status == TBS_ST_NOT_FOUND ? tbs_status_t{TBS_ST_OK} : status;
}

tbs_status_t read_tasks(TaskFile &file, const char *path, uint32_t *count, sched_task_properties_t **tasks) {
    return read_definitions(file, path, take_tasks, SCHED_MSG_PROBLEM_IN_TASKS, [=](const TaskFile &read) {
        *count = read.count;
        *tasks = read.tasks;
    });
}

} // namespace

tbs_status_t sched_utl_parse_task_properties(sched_h_t handle, const char *path, uint32_t *count,
                                             sched_task_properties_t **tasks) {
    TaskFile file = {};
    file.handle = handle;
    return read_tasks(file, path, count, tasks);
}

tbs_status_t sched_utl_read_task_definitions(sched_h_t handle, const char *path, sched_reading_t *reading,
                                             uint32_t *count, sched_task_properties_t **tasks) {
    TaskFile file = {};
    file.handle = handle;
    file.reading = reading;
    reading->first_line = reading->line = 0;
    return read_tasks(file, path, count, tasks);
}
