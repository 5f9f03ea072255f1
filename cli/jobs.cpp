#include <cli/jobs.h>

#include <charconv>

#include <cli/broker.h>
#include <cli/messages.h>
#include <schedule/next_start.h>
#include <support/date.h>
#include <veliaxdr/sched_jobs.h>

namespace velia::cli {

namespace {

bool is_number(const std::string &text, sched_job_id_t &number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

tbs_status_t look_up(sched_h_t scheduler, const std::string &job, sched_job_id_t &id) {
    sched_job_h_t found = nullptr;
    auto status = sched_job_lookup_by_name(scheduler, job.c_str(), &found);
    if (status == TBS_ST_NOT_FOUND && is_number(job, id)) {
        sched_job_free_handle(scheduler, &found);
        status = sched_job_lookup_by_id(scheduler, id, &found);
    }
    if (status == TBS_ST_OK)
        sched_job_get_id(scheduler, found, &id);
    sched_job_free_handle(scheduler, &found);
    return status;
}

} // namespace

SchedulerHandle open_scheduler(const std::string &host, const Settings &settings, int &status) {
    status = exit_unreachable;
    if (reach_broker(host, RVZD_PROTOCOL_TCP, settings.timeout) == nullptr)
        return nullptr;
    sched_timeout.tv_sec = whole_seconds(settings.timeout);
    sched_h_t handle = nullptr;
    const auto opened = sched_get_handle(host.c_str(), &handle);
    if (opened == TBS_ST_OK)
        status = exit_done;
    else
        status = fail_of_scheduler(opened, host, "There is no scheduler");
    return SchedulerHandle(handle);
}

sched_job_id_t job_of(const SchedulerHandle &scheduler, const std::string &host, const std::string &job, int &status) {
    sched_job_id_t id = 0;
    const auto found = look_up(scheduler.get(), job, id);
    if (found == TBS_ST_OK)
        return id;
    status = fail_of_scheduler(found, host, "There is no job '" + job + "'");
    return 0;
}

int fail_of_scheduler(tbs_status_t status, const std::string &host, const std::string &what) {
    tell_failure(status, host, "%s on host '%s': %s\n", what.c_str(), host.c_str(), tbs_strerror(status));
    return status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
}

Cell moment(time_t time) {
    return time == schedule::next_run_unknown || time == schedule::next_run_never
               ? Cell()
               : time_cell(time, date_fmt_token_date_time(time));
}

Options job_host_options(std::string &host) {
    return {{.name = "HOST", .help = "host of the scheduler", .target = &host, .is_required = true}};
}

Options job_options(JobArguments &arguments) {
    return joined(
        {job_host_options(arguments.host),
         {{.name = "JOB", .help = "name or number of a job", .target = &arguments.job, .is_required = true}}});
}

} // namespace velia::cli
