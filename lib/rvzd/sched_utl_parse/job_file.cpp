// A file of job definitions becomes an array of jobs. One that is wrong loses the file; one that another has
// anticipated is passed over.
#include <rvzd/sched_utl_parse/definition_file.h>
#include <rvzd/sched_utl_parse/job_grammar.h>

#include <cstring>

#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_tasks.h>

using namespace velia;
using namespace velia::sched_utl_parse;

namespace {

struct JobFile {
    sched_h_t handle;
    parse_state_t *state;
    uint32_t count;
    sched_job_properties_t *jobs;
    char **infos;
    Known known;
    sched_reading_t *reading;
};

void release(JobFile &file) {
    sched_free_jobs(file.handle, file.count, &file.jobs);
    sched_utl_free_extra_job_infos(file.handle, file.count, &file.infos);
    file.count = 0;
    with_inhibit([&] { release(file.known); });
    release_state(&file.state);
}

tbs_status_t read_definition(parse_state_t *state) {
    tbs_status_t status = parse_next_line(state, true, true);
    if (status == TBS_ST_OK)
        note_begin(state);
    if (status == TBS_ST_OK)
        status = parse_cur_match(state, true, "Job.Begin", nullptr);
    return status == TBS_ST_OK
               ? parse_next_match_set_until(state, true, num_top_tag_actions, top_tag_actions, "Job.End")
               : status;
}

tbs_status_t look_up_task(parse_state_t *state) {
    if (state->task_name[0] == '\0')
        return TBS_ST_OK;
    const sched_reading_t *reading = state->reading;
    sched_task_id_t *task = &state->job_rec.rw.task;
    const tbs_status_t status = reading != nullptr ? reading->find_task(reading->context, state->task_name, task)
                                                   : sched_task_name_to_id(state->handle, state->task_name, task);
    if (status != TBS_ST_OK)
        imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, SCHED_MSG_CANNOT_LOOK_UP_TASK, state->task_name,
                   tbs_strerror(status));
    return status;
}

tbs_status_t validate(parse_state_t *state) {
    sched_validate_job_rw_properties_err_mask_t err_mask = 0;
    sched_job_properties_t &job = state->job_rec;
    return sched_utl_validate_job_rw_properties(state->handle, job.ro.job_id, &job.rw, 0, 0, &err_mask);
}

const sched_job_properties_t &job_at(const void *jobs, uint32_t place) {
    return static_cast<const sched_job_properties_t *>(jobs)[place];
}

Definitions stored(const JobFile &file) {
    return {file.jobs, [](const void *jobs, uint32_t place) { return job_at(jobs, place).ro.job_id; },
            [](const void *jobs, uint32_t place) -> const char * { return job_at(jobs, place).rw.name; }};
}

constexpr DuplicateMessages duplicate_messages = {SCHED_MSG_DUPLICATE_JOB_ID, SCHED_MSG_DUPLICATE_JOB_NAME};

bool keep_followed_name(JobFile &file) {
    char *name = nullptr;
    if (file.state->follows_name[0] != '\0') {
        name = stg_strdup(file.state->follows_name);
        if (name == nullptr)
            return false;
    }
    const bool is_kept = add_extra_job_info(file.infos, file.count, name);
    if (!is_kept)
        stg_free(name);
    return is_kept;
}

// What is left in the state is the next definition's to begin with.
tbs_status_t store_job(JobFile &file) {
    parse_state_t *state = file.state;
    const bool is_stored = with_inhibit([&] {
        if (!make_room(file.jobs, file.count) || !make_room(file.known) || !keep_followed_name(file))
            return false;
        file.jobs[file.count] = state->job_rec;
        note(file.known, stored(file), file.count++);
        state->job_rec = {};
        state->task_name[0] = state->follows_name[0] = '\0';
        return true;
    });
    if (!is_stored)
        return no_memory();
    note_taken(state, file.reading != nullptr ? file.reading->first_line : 0);
    return TBS_ST_OK;
}

tbs_status_t take_definition(JobFile &file) {
    tbs_status_t status = read_definition(file.state);
    if (status == TBS_ST_OK)
        status = look_up_task(file.state);
    if (status == TBS_ST_OK)
        status = validate(file.state);
    const sched_job_properties_t &job = file.state->job_rec;
    if (status == TBS_ST_OK && is_duplicate(file, job.ro.job_id, job.rw.name, duplicate_messages))
        return file.reading != nullptr ? tbs_status_t{TBS_ST_ALREADY_EXISTS} : status;
    return status == TBS_ST_OK ? store_job(file) : status;
}

// A task that the scheduler does not know ends the file early, as its end does; but not for those who keep sets.
tbs_status_t take_jobs(JobFile &file) {
    const tbs_status_t status = take_definitions(file);
    const bool is_whole = file.reading == nullptr || file.state->task_name[0] == '\0';
    if (status != TBS_ST_NOT_FOUND)
        return status;
    return is_whole ? TBS_ST_OK : TBS_ST_INVALID_ARG;
}

tbs_status_t read_jobs(JobFile &file, const char *path, uint32_t *count, sched_job_properties_t **jobs,
                       char ***extra_job_infos) {
    return read_definitions(file, path, take_jobs, SCHED_MSG_PROBLEM_IN_JOBS, [=](const JobFile &read) {
        *count = read.count;
        *jobs = read.jobs;
        *extra_job_infos = read.infos;
    });
}

} // namespace

tbs_status_t sched_utl_parse_job_properties(sched_h_t handle, const char *path, uint32_t *count,
                                            sched_job_properties_t **jobs, char ***extra_job_infos) {
    JobFile file = {};
    file.handle = handle;
    return read_jobs(file, path, count, jobs, extra_job_infos);
}

tbs_status_t sched_utl_read_job_definitions(sched_h_t handle, const char *path, sched_reading_t *reading,
                                            uint32_t *count, sched_job_properties_t **jobs, char ***extra_job_infos) {
    JobFile file = {};
    file.handle = handle;
    file.reading = reading;
    reading->first_line = reading->line = 0;
    return read_jobs(file, path, count, jobs, extra_job_infos);
}
