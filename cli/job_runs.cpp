// veliactl job: runs of jobs. When they are to come, making one, its output as it comes, and what became of those of
// before.
#include <cli/commands.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <unistd.h>

#include <cli/jobs.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/run_output.h>
#include <cli/waits.h>
#include <schedule/next_start.h>
#include <support/date.h>
#include <veliaxdr/sched_run.h>
#include <veliaxdr/sched_runs.h>

namespace velia::cli {

namespace {

struct NextArguments {
    JobArguments of;
    int32_t count = 10;
    std::string zone;
};
struct RunNowArguments {
    std::string host;
    std::string task;
    std::string name;
    std::vector<std::string> arguments;
    bool is_dry_run = false;
};
struct LogsArguments {
    JobArguments of;
    std::string started;
    bool follows = false;
};
struct HistoryArguments {
    JobArguments of;
    bool with_changes = false;
    int32_t limit = 100;
};

Options next_options(NextArguments &arguments) {
    constexpr Range counts = {1, 10000};
    return joined(
        {job_options(arguments.of),
         {{.name = "COUNT", .help = "how many runs (default 10)", .target = &arguments.count, .range = counts},
          {.name = "--zone",
           .type = "ZONE",
           .help = "as if the scheduler's zone were this one (default: its own)",
           .target = &arguments.zone}}});
}

Options run_options(ChangeArguments &arguments) {
    return joined({change_options(arguments),
                   {{.name = "--wait",
                     .help = "until it has ended; its output is shown as it comes, and its exit status is that of the "
                             "command",
                     .target = &arguments.waits}}});
}

Options run_now_options(RunNowArguments &arguments) {
    return joined({job_host_options(arguments.host),
                   {{.name = "TASK", .help = "name of a task", .target = &arguments.task, .is_required = true},
                    {.name = "ARGUMENT", .help = "of its program, any number", .target = &arguments.arguments},
                    {.name = "--name",
                     .type = "NAME",
                     .help = "of the job (default: the task's, by hand, and a number)",
                     .target = &arguments.name},
                    {.name = "--dry-run", .help = "only tell what would be done", .target = &arguments.is_dry_run}}});
}

// As results show it, in each of their forms.
std::optional<time_t> time_of(const std::string &text) {
    time_t time = 0;
    if (date_str_to_time(text.c_str(), &time) != 0)
        return time;
    tm parts = {};
    const char *end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S%z", &parts);
    if (end == nullptr || *end != '\0')
        return std::nullopt;
    const long east_s = parts.tm_gmtoff;
    return timegm(&parts) - east_s;
}

std::string fault_of_time(const std::string &text) {
    return time_of(text) ? "" : "a time is \"2026-11-21 23:01:05\" or \"2026-11-21T23:01:05+01:00\"";
}

Options logs_options(LogsArguments &arguments) {
    return joined({job_options(arguments.of),
                   {{.name = "--run",
                     .type = "START",
                     .help = "the run that began then (default: the one that is on, or else the last)",
                     .target = &arguments.started,
                     .fault = fault_of_time},
                    {.name = "--follow",
                     .help = "until the run has ended, its output as it comes",
                     .target = &arguments.follows}}});
}

Options history_options(HistoryArguments &arguments) {
    constexpr Range limits = {1, SCHED_CHANGES_KEPT};
    return joined(
        {job_host_options(arguments.of.host),
         {{.name = "JOB", .help = "name or number of a job; with --changes all if none", .target = &arguments.of.job},
          {.name = "--changes",
           .help = "also who changed what: jobs, and who may do what with them",
           .target = &arguments.with_changes},
          {.name = "--limit",
           .type = "N",
           .help = "how many of the latest changes (default 100)",
           .target = &arguments.limit,
           .range = limits,
           .needs = "--changes"}}});
}

int show_next(const NextArguments &arguments, const Settings &settings);
int run_job(const ChangeArguments &arguments, const Settings &settings);
int run_now(const RunNowArguments &arguments, const Settings &settings);
int show_logs(const LogsArguments &arguments, const Settings &settings);
int show_history(const HistoryArguments &arguments, const Settings &settings);

constexpr Column next_columns[] = {{"time", Type::time, "of the run"},
                                   {"wall", Type::text, "what the clock of its zone shows then"},
                                   {"note", Type::text,
                                    "moved: out of an hour that the clock skips; first or second: of an hour that "
                                    "comes twice",
                                    true}};
constexpr Output next_output = {Output::Shape::list, next_columns};

constexpr Column run_now_columns[] = {{"action", Type::text, "what was done; with --dry-run what would be"},
                                      {"task", Type::text, "that was run"},
                                      {"name", Type::text, "of the job that it was, which is gone"}};
constexpr Output run_now_output = {Output::Shape::one, run_now_columns};

constexpr Column history_columns[] = {
    {"time", Type::time, "when it began, or was done"},
    {"what", Type::text, "ran, or runs; with --changes also created, changed, deleted, and access"},
    {"id", Type::integer, "number of the job", true},
    {"name", Type::text, "of the job", true},
    {"due", Type::time, "of a run; none by hand and behind another job", true},
    {"ended", Type::time, "of a run", true},
    {"duration_s", Type::integer, "of a run, in seconds", true},
    {"status", Type::integer, "exit status of a run", true},
    {"messages", Type::text, "the end of what a run put out; people are shown its last line", true},
    {"who", Type::text, "made a change; with a question mark behind what is only claimed", true, "--changes"},
    {"where", Type::text, "from which host", true, "--changes"},
    {"fields", Type::text, "of a job that was changed", true, "--changes"}};
constexpr Output history_output = {Output::Shape::list, history_columns};
constexpr size_t columns_of_runs = 9;
constexpr Output runs_output = {Output::Shape::list, std::span(history_columns).first(columns_of_runs)};

constexpr Command commands[] = {
    {.path = "job next",
     .help = "Tell when a job will run, by the scheduler's own reckoning",
     .examples = {"veliactl job next build7 nightly 20", "veliactl job next build7 nightly --zone Europe/Berlin"},
     .make = call_of<show_next, next_options>,
     .output = &next_output},
    {.path = "job run",
     .help = "Run a job now, whatever its schedule says",
     .examples = {"veliactl job run build7 nightly --wait"},
     .make = call_of<run_job, run_options>,
     .output = &change_output},
    {.path = "job run-now",
     .help = "Run a task once, as a job that is made for it and goes with it",
     .examples = {"veliactl job run-now build7 report -- -all"},
     .notes = "How it went is told in words; the exit status tells whether its end was seen.\n",
     .make = call_of<run_now, run_now_options>,
     .output = &run_now_output},
    {.path = "job logs",
     .help = "Show what a run of a job has put out",
     .examples = {"veliactl job logs build7 nightly --follow",
                  "veliactl job logs build7 nightly --run '2026-11-21 23:01:05'"},
     .notes = "Plain and table are the output as it is, but for what a terminal would obey; JSON has its lines.\n",
     .make = call_of<show_logs, logs_options>,
     .output = &log_output},
    {.path = "job history",
     .help = "Tell of the runs of a job that are kept, and who changed what",
     .examples = {"veliactl job history build7 nightly", "veliactl job history build7 --changes --output json"},
     .make = call_of<show_history, history_options>,
     .output = &history_output},
};

// ---- what is to come ----

std::string wall_text(int64_t moment, int64_t offset) {
    constexpr int64_t seconds_of_minute = 60;
    const time_t wall = moment + offset;
    tm parts = {};
    gmtime_r(&wall, &parts);
    return iso_time(parts, static_cast<int>(offset / seconds_of_minute));
}

void add_next(Results &results, const sched_next_run_t &run) {
    constexpr const char *notes[] = {nullptr, "moved", "first", "second"};
    const char *note = run.clock_shift < std::size(notes) ? notes[run.clock_shift] : nullptr;
    results.add({moment(run.at), wall_text(run.at, run.utc_offset), note != nullptr ? Cell(note) : Cell()});
}

int show_next_in(const schedule::Zone &zone, const NextArguments &arguments, const Settings &settings) {
    return with_job(arguments.of, settings, [&](const SchedulerHandle & /*scheduler*/, const auto &job) {
        const schedule::Spec spec = {&job.rw.schedule, &zone, job.ro.created.when, job.ro.last_modified.when};
        Results results(next_output, settings);
        auto start = schedule::next_start(spec, time(nullptr));
        for (int32_t i = 0; i < arguments.count && start; ++i, start = schedule::next_start(spec, start->at))
            add_next(results,
                     {start->at, static_cast<int32_t>(zone.offset_at(start->at)), static_cast<uint32_t>(start->shift)});
        results.finish();
        return int{exit_done};
    });
}

// In pieces, as many as are wanted.
int show_next_of(const SchedulerHandle &scheduler, sched_job_id_t id, const NextArguments &arguments,
                 const Settings &settings) {
    Results results(next_output, settings);
    time_t after = 0;
    for (auto left = static_cast<uint32_t>(arguments.count); left != 0;) {
        const uint32_t wanted = std::min<uint32_t>(left, SCHED_NEXT_RUNS_MAX);
        uint32_t count = 0;
        sched_next_run_t *runs = nullptr;
        begin_wait(settings.timeout);
        const auto status = sched_get_next_runs(scheduler.get(), id, after, wanted, &count, &runs);
        for (uint32_t i = 0; i < count; ++i)
            add_next(results, runs[i]);
        after = count != 0 ? runs[count - 1].at : after;
        sched_free_next_runs(scheduler.get(), count, &runs);
        if (status != TBS_ST_OK)
            return fail_of_scheduler(status, arguments.of.host, "The next runs cannot be had");
        left = count == wanted ? left - count : 0;
    }
    results.finish();
    return exit_done;
}

int show_next(const NextArguments &arguments, const Settings &settings) {
    if (arguments.zone.empty())
        return with_job(arguments.of, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
            return show_next_of(scheduler, job.ro.job_id, arguments, settings);
        });
    const auto zone = schedule::read_zone(arguments.zone);
    if (zone)
        return show_next_in(*zone, arguments, settings);
    tell_failure(TBS_ST_INVALID_ARG, "", "There is no zone '%s'\n", arguments.zone.c_str());
    return exit_usage;
}

// ---- a run, and its output ----

// Its output goes to standard error, since its result is on standard output.
int wait_and_tell(const ChangeArguments &arguments, const Settings &settings, const SchedulerHandle &scheduler,
                  const sched_job_properties_t &job, const sched_running_job_handle &run) {
    RunOutput output(scheduler, arguments.of.host, run);
    TextSink shown(std::cerr, isatty(STDERR_FILENO) != 0);
    if (!output.follow(settings, [&](std::string_view piece) { return shown.write(piece); }))
        return exit_failed;
    tell_change(arguments, settings, "ran", "", job, run.started, static_cast<int32_t>(output.exit_status()));
    return static_cast<int>(output.exit_status());
}

int run_job(const ChangeArguments &arguments, const Settings &settings) {
    return with_job(arguments.of, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
        if (arguments.is_dry_run) {
            tell_change(arguments, settings, "", "would run", job, 0, {});
            return int{exit_done};
        }
        sched_job_handle handle = {job.ro.job_id};
        sched_running_job_h_t run = nullptr;
        const auto status = sched_rjob_run_job(scheduler.get(), &handle, &run);
        const auto begun = run != nullptr ? *run : sched_running_job_handle{};
        sched_rjob_free_handle(scheduler.get(), &run);
        if (status != TBS_ST_OK)
            return fail_of_scheduler(status, arguments.of.host, "The job cannot be run");
        if (arguments.waits)
            return wait_and_tell(arguments, settings, scheduler, job, begun);
        tell_change(arguments, settings, "started", "", job, begun.started, {});
        return int{exit_done};
    });
}

// The library's own operation, which makes the job, waits, tells and deletes it.
int run_now(const RunNowArguments &arguments, const Settings &settings) {
    const std::string name =
        !arguments.name.empty() ? arguments.name : arguments.task + " by hand " + std::to_string(getpid());
    int exit_status = exit_done;
    if (open_scheduler(arguments.host, settings, exit_status) == nullptr)
        return exit_status;
    std::vector<char *> words;
    for (const auto &word : arguments.arguments)
        words.push_back(const_cast<char *>(word.c_str()));
    const auto status = arguments.is_dry_run
                            ? tbs_status_t{TBS_ST_OK}
                            : sched_utl_run_job_now(arguments.host.c_str(), arguments.task.c_str(), name.c_str(),
                                                    words.data(), static_cast<int32_t>(words.size()));
    if (status != TBS_ST_OK)
        return fail_of_scheduler(status, arguments.host, "The task cannot be run, or its end was not seen");
    Results results(run_now_output, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
    results.add({arguments.is_dry_run ? "would run" : "ran", arguments.task, name});
    results.finish();
    return exit_done;
}

int show_logs(const LogsArguments &arguments, const Settings &settings) {
    return with_job(arguments.of, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
        const time_t started = arguments.started.empty() ? 0 : time_of(arguments.started).value_or(0);
        RunOutput output(scheduler, arguments.of.host, {job.ro.job_id, started});
        LogWriter writer(settings, arguments.follows);
        const auto write = [&](std::string_view piece) { return writer.write(piece); };
        const bool is_whole = arguments.follows ? output.follow(settings, write) : output.show(settings, write);
        if (is_whole)
            writer.finish();
        return is_whole ? int{exit_done} : int{exit_failed};
    });
}

// ---- what has been ----

struct HistoryRow {
    time_t time;
    Cells cells;
};

Cell text_cell(const char *text) {
    return text != nullptr && *text != '\0' ? Cell(text) : Cell();
}

// Its last line is what a person looks for.
Cell messages_cell(const char *messages) {
    const std::string all = messages != nullptr ? messages : "";
    const size_t end = all.find_last_not_of('\n');
    if (end == std::string::npos)
        return {};
    const size_t before = all.rfind('\n', end);
    const size_t begin = before == std::string::npos ? 0 : before + 1;
    return Cell::told(all, all.substr(begin, end + 1 - begin));
}

Cells run_cells(const sched_run_t &run, const sched_job_properties_t &job, const HistoryArguments &arguments) {
    const bool has_ended = run.ended != 0;
    Cells cells = {moment(run.started),
                   has_ended ? "ran" : "runs",
                   job.ro.job_id,
                   job.rw.name,
                   moment(run.due),
                   moment(run.ended),
                   has_ended ? Cell(int64_t{run.ended - run.started}) : Cell(),
                   has_ended ? Cell(run.exit_status) : Cell(),
                   messages_cell(run.messages)};
    if (arguments.with_changes)
        cells.resize(std::size(history_columns));
    return cells;
}

Cells change_cells(const sched_change_t &change) {
    Cells cells = {moment(change.when), text_cell(change.what), change.job_id != 0 ? Cell(change.job_id) : Cell(),
                   text_cell(change.job_name)};
    cells.resize(columns_of_runs);
    cells.insert(cells.end(), {text_cell(change.who), text_cell(change.where), text_cell(change.fields)});
    return cells;
}

using Rows = std::vector<HistoryRow>;

tbs_status_t add_runs(const SchedulerHandle &scheduler, const sched_job_properties_t &job,
                      const HistoryArguments &arguments, Rows &rows) {
    uint32_t count = 0;
    sched_run_t *runs = nullptr;
    const auto status = sched_run_get_history(scheduler.get(), job.ro.job_id, &count, &runs);
    for (uint32_t i = 0; i < count; ++i)
        rows.push_back({runs[i].started, run_cells(runs[i], job, arguments)});
    sched_run_free_history(scheduler.get(), count, &runs);
    return status;
}

// The latest ones, in pieces.
tbs_status_t add_changes(const SchedulerHandle &scheduler, sched_job_id_t job, const HistoryArguments &arguments,
                         const Settings &settings, Rows &rows) {
    uint64_t before = 0;
    for (auto left = static_cast<uint32_t>(arguments.limit); left != 0;) {
        const uint32_t wanted = std::min<uint32_t>(left, SCHED_CHANGES_MAX);
        uint32_t count = 0;
        sched_change_t *changes = nullptr;
        begin_wait(settings.timeout);
        const auto status = sched_get_changes(scheduler.get(), job, before, wanted, &count, &changes);
        for (uint32_t i = 0; i < count; ++i)
            rows.push_back({changes[i].when, change_cells(changes[i])});
        before = count != 0 ? changes[count - 1].number : before;
        sched_free_changes(scheduler.get(), count, &changes);
        if (status != TBS_ST_OK)
            return status;
        left = count == wanted ? left - count : 0;
    }
    return TBS_ST_OK;
}

int tell_history(tbs_status_t status, const HistoryArguments &arguments, const Settings &settings, Rows &rows) {
    if (status != TBS_ST_OK)
        return fail_of_scheduler(status, arguments.of.host, "The history cannot be had");
    std::stable_sort(rows.begin(), rows.end(),
                     [](const HistoryRow &left, const HistoryRow &right) { return left.time < right.time; });
    Results results(arguments.with_changes ? history_output : runs_output, settings);
    for (auto &row : rows)
        results.add(std::move(row.cells));
    results.finish();
    return exit_done;
}

int show_history_of_all(const HistoryArguments &arguments, const Settings &settings) {
    int exit_status = exit_done;
    const auto scheduler = open_scheduler(arguments.of.host, settings, exit_status);
    if (scheduler == nullptr)
        return exit_status;
    Rows rows;
    const auto status = add_changes(scheduler, 0, arguments, settings, rows);
    std::reverse(rows.begin(), rows.end());
    return tell_history(status, arguments, settings, rows);
}

int show_history(const HistoryArguments &arguments, const Settings &settings) {
    if (arguments.of.job.empty() && arguments.with_changes)
        return show_history_of_all(arguments, settings);
    if (arguments.of.job.empty()) {
        tell_failure(TBS_ST_INVALID_ARG, "", "Without --changes a job is to be named\n");
        return exit_usage;
    }
    return with_job(arguments.of, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
        Rows rows;
        tbs_status_t status = TBS_ST_OK;
        if (arguments.with_changes)
            status = add_changes(scheduler, job.ro.job_id, arguments, settings, rows);
        std::reverse(rows.begin(), rows.end());
        if (status == TBS_ST_OK)
            status = add_runs(scheduler, job, arguments, rows);
        return tell_history(status, arguments, settings, rows);
    });
}

} // namespace

const Commands job_run_commands = commands;

} // namespace velia::cli
