// One task run on one host, and watched to its end.
#include <unistd.h>

#include <common/with.h>
#include <rvzd/sched_utl/sched_utl.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_run.h>
#include <veliaxdr/sched_tasks.h>

using namespace velia;
using namespace velia::sched_utl;

namespace {

constexpr int failures_in_a_row_max = 2;

// What is wanted, and what is had of it.
struct RunNow {
    const char *host;
    const char *task_name;
    sched_h_t handle;
    sched_job_rw_properties_t rw;
    sched_job_h_t job;
    sched_job_h_t deleted; // what stands in the job's place once it was deleted
    sched_job_properties_t seen;
};

void describe_job(RunNow &run, const char *job_name, char *const *args, int32_t arg_count) {
    run.rw.name = const_cast<char *>(job_name);
    run.rw.schedule.kind = SCHED_KIND_DAILY;
    sched_daily_sched_t &daily = run.rw.schedule.u.daily;
    daily.common.lifetime = {SCHED_DATE_NOW, SCHED_DATE_NOW};
    daily.common.start_times.first_start_time = SCHED_TIME_NOT_GIVEN;
    daily.frequency = 1;
    run.rw.args = const_cast<char **>(args);
    run.rw.arg_count = static_cast<uint32_t>(arg_count);
}

tbs_status_t find_task(RunNow &run) {
    const auto status = sched_task_name_to_id(run.handle, run.task_name, &run.rw.task);
    if (status == TBS_ST_NO_ACCESS)
        print_message(IMSG_ERROR, SCHED_MSG_NO_ACCESS_TO_READ, run.host);
    else if (status != TBS_ST_OK)
        print_message(IMSG_ERROR, SCHED_MSG_NO_TASK_ID, run.task_name);
    return status;
}

void tell_refused_job(RunNow &run, tbs_status_t status) {
    sched_validate_job_rw_properties_err_mask_t err_mask = 0;
    switch (status) {
    case TBS_ST_NO_ACCESS:
        return print_message(IMSG_ERROR, SCHED_MSG_NO_ACCESS_TO_CREATE, run.host);
    case TBS_ST_INVALID_ARG:
        print_message(IMSG_ERROR, SCHED_MSG_INVALID_JOB, run.host);
        sched_utl_validate_job_rw_properties(run.handle, 0, &run.rw, 1, 0, &err_mask); // it names the field
        return;
    default:
        return print_message(IMSG_ERROR, SCHED_MSG_CANNOT_RUN, run.host, tbs_strerror(status));
    }
}

tbs_status_t create_job(RunNow &run) {
    sched_validate_job_rw_properties_err_mask_t err_mask = 0;
    const auto status = sched_job_create(run.handle, &run.rw, &run.job, &err_mask);
    if (status != TBS_ST_OK)
        tell_refused_job(run, status);
    return status;
}

// How the watch goes on from look to look.
struct Watch {
    int failures_in_a_row = 0;
    bool is_first_pass = true;
    bool saw_it_running = true;
    tbs_status_t last_status = TBS_ST_OK;
};

void print_dot() {
    imsg_print(IMSG_PROGRESS, ".", IMSG_FORMAT);
}

void tell_running(const RunNow &run) {
    print_message(IMSG_PLAIN, SCHED_MSG_JOB_IS_RUNNING, run.host);
}

void tell_progress(const RunNow &run, Watch &watch) {
    const bool is_running = run.seen.ro.running_status.started != 0;
    if (is_running && (watch.is_first_pass || !watch.saw_it_running))
        tell_running(run);
    else if (!is_running && watch.is_first_pass)
        print_message(IMSG_PLAIN, SCHED_MSG_WAITING_FOR_START, run.host);
    else
        print_dot();
    watch.saw_it_running = is_running;
    watch.is_first_pass = false;
}

// False once too many looks in a row have failed.
bool look(RunNow &run, Watch &watch) {
    watch.last_status = sched_job_get_properties(run.handle, run.job, &run.seen);
    if (watch.last_status == TBS_ST_OK) {
        watch.failures_in_a_row = 0;
        return true;
    }
    print_message(IMSG_ERROR, SCHED_MSG_CANNOT_GET_PROPERTIES, run.host, tbs_strerror(watch.last_status));
    return ++watch.failures_in_a_row <= failures_in_a_row_max;
}

// True when the run has ended; `run.seen` then tells of it.
bool watch_to_end(RunNow &run, Watch &watch) {
    while (true) {
        sleep(1);
        if (!look(run, watch))
            return false;
        if (run.seen.ro.last_completion.ended != 0)
            return true;
        tell_progress(run, watch);
        sched_free_job_properties(run.handle, &run.seen);
    }
}

void tell_outcome(const RunNow &run, const Watch &watch) {
    const sched_job_completion_info_t &completion = run.seen.ro.last_completion;
    const bool has_output = *text_or_empty(completion.messages) != '\0';
    if (!watch.saw_it_running)
        tell_running(run);
    if (completion.exit_status != 0 || has_output) {
        print_message(IMSG_ERROR, SCHED_MSG_JOB_FAILED, run.task_name, run.host,
                      static_cast<int>(completion.exit_status));
        if (has_output)
            print_message(IMSG_ERROR, SCHED_MSG_JOB_OUTPUT, completion.messages);
        return;
    }
    print_line(".\n");
    print_message(IMSG_PLAIN, SCHED_MSG_JOB_COMPLETED, run.host);
}

void delete_job(RunNow &run) {
    run.deleted = run.job;
    const auto status = sched_job_delete(run.handle, &run.deleted, 1);
    if (status != TBS_ST_OK)
        print_message(IMSG_ERROR, SCHED_MSG_CANNOT_DELETE, run.host, tbs_strerror(status));
}

tbs_status_t watch_job(RunNow &run) {
    Watch watch;
    if (!watch_to_end(run, watch)) {
        print_message(IMSG_ERROR, SCHED_MSG_TOO_MANY_FAILURES, run.host);
        return watch.last_status;
    }
    tell_outcome(run, watch);
    sched_free_job_properties(run.handle, &run.seen);
    delete_job(run);
    return TBS_ST_OK;
}

tbs_status_t run_job(RunNow &run) {
    tbs_status_t status = find_task(run);
    if (status == TBS_ST_OK)
        status = create_job(run);
    return status == TBS_ST_OK ? watch_job(run) : status;
}

void release(RunNow &run) {
    sched_free_job_properties(run.handle, &run.seen);
    if (run.deleted != run.job)
        sched_job_free_handle(run.handle, &run.deleted);
    run.deleted = nullptr;
    sched_job_free_handle(run.handle, &run.job);
    sched_free_handle(&run.handle);
}

} // namespace

tbs_status_t sched_utl_run_job_now(const char *host, const char *task_name, const char *job_name, char *const *args,
                                   int32_t arg_count) {
    RunNow run = {};
    run.host = host;
    run.task_name = task_name;
    describe_job(run, job_name, args, arg_count);
    const auto status = sched_get_handle(host, &run.handle);
    if (status != TBS_ST_OK) {
        print_message(IMSG_ERROR, SCHED_MSG_CANNOT_CONNECT, host);
        return status;
    }
    return with_release([&] { return run_job(run); }, [&] { release(run); });
}
