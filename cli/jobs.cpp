#include <cli/jobs.h>

#include <charconv>

#include <cli/broker.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <schedule/next_start.h>
#include <support/date.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_runs.h>

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

Options change_options(ChangeArguments &arguments) {
    return joined({job_options(arguments.of),
                   {{.name = "--dry-run", .help = "only tell what would be done", .target = &arguments.is_dry_run}}});
}

namespace {

constexpr Column change_columns[] = {{"action", Type::text, "what was done; with --dry-run what would be"},
                                     {"id", Type::integer, "number of the job"},
                                     {"name", Type::text, "of the job"},
                                     {"started", Type::time, "of the run", true},
                                     {"status", Type::integer, "exit status of a run that was waited for", true}};

} // namespace

constexpr Output change_output = {Output::Shape::one, change_columns};

void tell_change(const ChangeArguments &arguments, const Settings &settings, const char *did, const char *would,
                 const sched_job_properties_t &job, time_t started, Cell status) {
    Results results(change_output, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
    results.add({arguments.is_dry_run ? would : did, job.ro.job_id, job.rw.name, moment(started), std::move(status)});
    results.finish();
}

Options job_host_options(std::string &host) {
    return {{.name = "HOST", .help = "host of the scheduler", .target = &host, .is_required = true}};
}

Options job_options(JobArguments &arguments) {
    return joined(
        {job_host_options(arguments.host),
         {{.name = "JOB", .help = "name or number of a job", .target = &arguments.job, .is_required = true}}});
}

std::map<sched_job_id_t, JobHosts> hosts_of_jobs(const SchedulerHandle &scheduler, sched_job_id_t only) {
    const uint32_t count_max = only != 0 ? 1 : SCHED_JOB_HOSTS_MAX;
    std::map<sched_job_id_t, JobHosts> all;
    uint32_t count = 0;
    sched_job_id_t after = only != 0 ? only - 1 : 0;
    do {
        sched_job_host_t *hosts = nullptr;
        tbs_status_t status = TBS_ST_OK;
        hear([](const Heard & /*heard*/) {},
             [&] { status = sched_get_job_hosts(scheduler.get(), after, count_max, &count, &hosts); });
        for (uint32_t i = 0; status == TBS_ST_OK && i < count; ++i)
            all[after = hosts[i].job_id] = {hosts[i].host, hosts[i].run_host};
        sched_free_job_hosts(scheduler.get(), count, &hosts);
        if (status != TBS_ST_OK)
            break;
    } while (only == 0 && count == count_max);
    return all;
}

Cell host_cell(const std::string &host) {
    return host.empty() ? Cell() : Cell(host);
}

} // namespace velia::cli
