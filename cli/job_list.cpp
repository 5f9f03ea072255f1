// veliactl job list and job status.
#include <cli/commands.h>

#include <algorithm>

#include <cli/jobs.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <schedule/next_start.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_sets.h>

namespace velia::cli {

namespace {

struct ListArguments {
    std::string host;
    bool shows_all = false;
    bool shows_durations = false;
    bool shows_hosts = false;
};

Options list_options(ListArguments &arguments) {
    return joined(
        {job_host_options(arguments.host),
         {{.name = "--all",
           .help = "also jobs that do not run any more: their schedule has come to its end",
           .target = &arguments.shows_all},
          {.name = "--durations", .help = "tell how long the last run took", .target = &arguments.shows_durations},
          {.name = "--hosts",
           .help = "tell where they have to run, and where they ran, of daemons that have them together",
           .target = &arguments.shows_hosts}}});
}

int list_jobs(const ListArguments &arguments, const Settings &settings);
int show_status(const JobArguments &arguments, const Settings &settings);

// The youngest run, failures and the longest run are what is looked for.
constexpr Column list_columns[] = {
    {"id", Type::integer, "number of the job"},
    {"name", Type::text, "of the job"},
    {"next_run", Type::time, "when it runs next", true, nullptr, "next"},
    {"running_since", Type::time, "while it runs", true},
    {"last_started", Type::time, "its last run that has ended", true, nullptr, "last", true},
    {"last_ended", Type::time, "of that run", true},
    {"last_status", Type::integer, "exit status of that run", true, nullptr, "status", true},
    {"duration_s", Type::integer, "of that run", true, "--durations", "duration", true},
    {"host", Type::text, "that has to run it", true, "--hosts"},
    {"run_host", Type::text, "that runs it, or ran it last", true, "--hosts"}};
constexpr Output list_output = {Output::Shape::list, list_columns};

constexpr Column status_columns[] = {{"id", Type::integer, "number of the job"},
                                     {"name", Type::text, "of the job"},
                                     {"state", Type::text,
                                      "running; waiting, for its time or for another job; completed: it does not run "
                                      "any more"},
                                     {"next_run", Type::time, "when it runs next", true},
                                     {"running_since", Type::time, "while it runs", true},
                                     {"process", Type::text, "while it runs", true},
                                     {"last_started", Type::time, "its last run that has ended", true},
                                     {"last_status", Type::integer, "exit status of that run", true},
                                     {"duration_s", Type::integer, "of that run", true}};
constexpr Output status_output = {Output::Shape::one, status_columns};

constexpr Command commands[] = {
    {.path = "job list",
     .help = "List the jobs of a host",
     .examples = {"veliactl job list build7", "veliactl job list build7 --all --sort duration --limit 10",
                  "veliactl job list build7 --output json"},
     .make = call_of<list_jobs, list_options>,
     .output = &list_output},
    {.path = "job status",
     .help = "Tell how it stands with a job",
     .examples = {"veliactl job status build7 nightly"},
     .make = call_of<show_status, job_options>,
     .output = &status_output},
};

bool is_running(const sched_job_properties_t &job) {
    return job.ro.running_status.started != 0;
}

bool has_completed(const sched_job_properties_t &job) {
    return job.ro.next_run_time == schedule::next_run_never && !is_running(job);
}

bool has_run(const sched_job_properties_t &job) {
    return job.ro.last_completion.ended != 0;
}

int64_t duration_of(const sched_job_properties_t &job) {
    return has_run(job) ? job.ro.last_completion.ended - job.ro.last_completion.started : -1;
}

Cell status_cell(const sched_job_properties_t &job) {
    return has_run(job) ? Cell(job.ro.last_completion.exit_status) : Cell();
}

Cell duration_cell(const sched_job_properties_t &job) {
    return has_run(job) ? Cell(duration_of(job)) : Cell();
}

bool is_shown(const Column &column, const ListArguments &arguments) {
    return column.needs == nullptr ||
           (column.needs == std::string_view("--hosts") ? arguments.shows_hosts : arguments.shows_durations);
}

Cells cells_of(const sched_job_properties_t &job, const JobHosts &hosts, const ListArguments &arguments) {
    const auto &last = job.ro.last_completion;
    Cells cells = {job.ro.job_id,
                   job.rw.name,
                   moment(job.ro.next_run_time),
                   moment(job.ro.running_status.started),
                   moment(last.started),
                   moment(last.ended),
                   status_cell(job),
                   duration_cell(job),
                   host_cell(hosts.host),
                   host_cell(hosts.run_host)};
    Cells shown;
    for (size_t i = 0; i < cells.size(); ++i)
        if (is_shown(list_columns[i], arguments))
            shown.push_back(std::move(cells[i]));
    return shown;
}

// In pieces, however many there are; as a whole from a scheduler that knows no pieces.
tbs_status_t get_jobs(const SchedulerHandle &scheduler, uint32_t &count, sched_job_properties_t *&jobs) {
    tbs_status_t status = TBS_ST_OK;
    uint64_t state = 0;
    hear([](const Heard & /*heard*/) {}, [&] { status = sched_set_get_jobs(scheduler.get(), &state, &count, &jobs); });
    return status == TBS_ST_RPC_FAILED ? sched_get_jobs(scheduler.get(), &count, &jobs) : status;
}

int list_jobs(const ListArguments &arguments, const Settings &settings) {
    int exit_status = exit_done;
    const auto scheduler = open_scheduler(arguments.host, settings, exit_status);
    if (scheduler == nullptr)
        return exit_status;
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    const auto status = get_jobs(scheduler, count, jobs);
    if (status != TBS_ST_OK)
        return fail_of_scheduler(status, arguments.host, "The jobs cannot be listed");
    std::vector<const sched_job_properties_t *> shown;
    for (uint32_t i = 0; i < count; ++i)
        if (arguments.shows_all || !has_completed(jobs[i]))
            shown.push_back(&jobs[i]);
    std::stable_sort(shown.begin(), shown.end(),
                     [](const auto *left, const auto *right) { return left->ro.job_id < right->ro.job_id; });
    std::vector<Column> columns;
    for (const Column &column : list_columns)
        if (is_shown(column, arguments))
            columns.push_back(column);
    auto hosts = arguments.shows_hosts ? hosts_of_jobs(scheduler) : std::map<sched_job_id_t, JobHosts>{};
    const Output output = {Output::Shape::list, columns};
    Results results(output, settings);
    for (const auto *job : shown)
        results.add(cells_of(*job, hosts[job->ro.job_id], arguments));
    sched_free_jobs(scheduler.get(), count, &jobs);
    results.finish();
    return exit_done;
}

int show_status(const JobArguments &arguments, const Settings &settings) {
    return with_job(arguments, settings, [&](const SchedulerHandle & /*scheduler*/, const auto &job) {
        const auto &running = job.ro.running_status;
        const char *state = is_running(job) ? "running" : has_completed(job) ? "completed" : "waiting";
        Results results(status_output, settings);
        results.add({job.ro.job_id, job.rw.name, state, moment(job.ro.next_run_time), moment(running.started),
                     is_running(job) ? Cell(running.process_id) : Cell(), moment(job.ro.last_completion.started),
                     status_cell(job), duration_cell(job)});
        results.finish();
        return int{exit_done};
    });
}

} // namespace

const Commands job_list_commands = commands;

} // namespace velia::cli
