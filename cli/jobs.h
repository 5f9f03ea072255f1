// What the commands about jobs share: a handle on a host's scheduler, and a job by its name or number.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <cli/command.h>
#include <cli/output.h>
#include <veliaxdr/rvzd_wire.h>
#include <veliaxdr/sched_jobs.h>

namespace velia::cli {

struct FreeScheduler {
    void operator()(sched_h_t handle) const { sched_free_handle(&handle); }
};
using SchedulerHandle = std::unique_ptr<sched_handle, FreeScheduler>;

// Null, and told, where there is none; `status` is then how the command ends.
SchedulerHandle open_scheduler(const std::string &host, const Settings &settings, int &status);

// A job of that name, or else of that number; 0, told, for none.
sched_job_id_t job_of(const SchedulerHandle &scheduler, const std::string &host, const std::string &job, int &status);

// Tells what failed, and gives the exit status for it.
int fail_of_scheduler(tbs_status_t status, const std::string &host, const std::string &what);

// Its properties for the body; what is not there is told.
template <class Body>
int with_properties(const SchedulerHandle &scheduler, const std::string &host, sched_job_id_t id, Body &&body) {
    sched_job_handle job = {id};
    sched_job_properties_t properties = {};
    const auto status = sched_job_get_properties(scheduler.get(), &job, &properties);
    const int exit_status =
        status == TBS_ST_OK ? body(properties) : fail_of_scheduler(status, host, "The job cannot be read");
    sched_free_job_properties(scheduler.get(), &properties);
    return exit_status;
}

struct JobArguments {
    std::string host;
    std::string job;
};
Options job_host_options(std::string &host);
Options job_options(JobArguments &arguments);

// The hosts of jobs, where several daemons have them together. None from a scheduler that knows of no such thing.
struct JobHosts {
    std::string host;     // that has to run it
    std::string run_host; // that runs it, or ran it last
};
std::map<sched_job_id_t, JobHosts> hosts_of_jobs(const SchedulerHandle &scheduler, sched_job_id_t only = 0);
Cell host_cell(const std::string &host);

// A time as results have it; null for none that is known or left.
Cell moment(time_t time);

// Opens the scheduler, finds the job and hands both over.
template <class Body>
int with_job(const JobArguments &arguments, const Settings &settings, Body &&body) {
    int exit_status = exit_done;
    const auto scheduler = open_scheduler(arguments.host, settings, exit_status);
    const auto id = scheduler != nullptr ? job_of(scheduler, arguments.host, arguments.job, exit_status) : 0;
    if (id == 0)
        return exit_status;
    return with_properties(scheduler, arguments.host, id,
                           [&](const sched_job_properties_t &job) { return body(scheduler, job); });
}

// Commands that do something to a job, or only tell what they would.
struct ChangeArguments {
    JobArguments of;
    bool is_dry_run = false;
    bool waits = false;
};
Options change_options(ChangeArguments &arguments);
extern const Output change_output;
void tell_change(const ChangeArguments &arguments, const Settings &settings, const char *did, const char *would,
                 const sched_job_properties_t &job, time_t started, Cell status);

} // namespace velia::cli
