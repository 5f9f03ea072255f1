// veliactl job: the jobs of a host, when they run, and running them.
#include <cli/commands.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include <cli/jobs.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/run_times.h>
#include <cli/waits.h>
#include <schedule/next_start.h>
#include <support/date.h>
#include <support/stg.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_print.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::cli {

namespace {

struct NextArguments {
    JobArguments of;
    int32_t count = 10;
    std::string zone;
};
struct ChangeArguments {
    JobArguments of;
    bool is_dry_run = false;
    bool waits = false;
};

Options next_options(NextArguments &arguments) {
    constexpr Range counts = {1, 10000};
    return joined(
        {job_options(arguments.of),
         {{.name = "COUNT", .help = "how many runs (default 10)", .target = &arguments.count, .range = counts},
          {.name = "--zone",
           .type = "ZONE",
           .help = "the zone of the scheduler's host (default: of this host)",
           .target = &arguments.zone}}});
}

Options change_options(ChangeArguments &arguments) {
    return joined({job_options(arguments.of),
                   {{.name = "--dry-run", .help = "only tell what would be done", .target = &arguments.is_dry_run}}});
}

Options run_options(ChangeArguments &arguments) {
    return joined({change_options(arguments),
                   {{.name = "--wait",
                     .help = "until it has ended; its output follows, and its exit status is that of the command",
                     .target = &arguments.waits}}});
}

int show_job(const JobArguments &arguments, const Settings &settings);
int show_next(const NextArguments &arguments, const Settings &settings);
int run_job(const ChangeArguments &arguments, const Settings &settings);
int stop_job(const ChangeArguments &arguments, const Settings &settings);
int delete_job(const ChangeArguments &arguments, const Settings &settings);

#define JOB_COLUMNS                                                                                                    \
    {"id", Type::integer, "number of the job"}, {"name", Type::text, "of the job"},                                    \
        {"next_run", Type::time, "when it runs next", true}, {"running_since", Type::time, "while it runs", true},     \
        {"last_started", Type::time, "its last run that has ended", true},                                             \
        {"last_ended", Type::time, "of that run", true}, {                                                             \
        "last_status", Type::integer, "exit status of that run", true                                                  \
    }

constexpr Column job_columns[] = {JOB_COLUMNS,
                                  {"description", Type::text, "free text", true},
                                  {"task", Type::integer, "number of its task"},
                                  {"arguments", Type::texts, "of its program"},
                                  {"time_limit_s", Type::integer, "of a run", true},
                                  {"created_by", Type::text, "who made it", true},
                                  {"created", Type::time, "when that was", true},
                                  {"modified", Type::time, "when it was changed last", true},
                                  {"output", Type::text, "the end of what the last run put out", true}};
constexpr Output job_output = {Output::Shape::one, job_columns};

constexpr Column next_columns[] = {{"time", Type::time, "of the run"},
                                   {"wall", Type::text, "what the clock of its zone shows then"},
                                   {"note", Type::text,
                                    "moved: out of an hour that the clock skips; first or second: of an hour that "
                                    "comes twice",
                                    true}};
constexpr Output next_output = {Output::Shape::list, next_columns};

constexpr Column change_columns[] = {{"action", Type::text, "what was done; with --dry-run what would be"},
                                     {"id", Type::integer, "number of the job"},
                                     {"name", Type::text, "of the job"},
                                     {"started", Type::time, "of the run", true},
                                     {"status", Type::integer, "exit status of a run that was waited for", true}};
constexpr Output change_output = {Output::Shape::one, change_columns};

constexpr Command commands[] = {
    {.path = "job", .help = "Jobs of a scheduler"},
    {.path = "job show",
     .help = "Tell all about a job",
     .examples = {"veliactl job show build7 nightly"},
     .make = call_of<show_job, job_options>,
     .output = &job_output},
    {.path = "job next",
     .help = "Tell when a job will run, by the scheduler's own reckoning",
     .examples = {"veliactl job next build7 nightly 20 --zone Europe/Berlin"},
     .make = call_of<show_next, next_options>,
     .output = &next_output},
    {.path = "job run",
     .help = "Run a job now, whatever its schedule says",
     .examples = {"veliactl job run build7 nightly --wait"},
     .make = call_of<run_job, run_options>,
     .output = &change_output},
    {.path = "job stop",
     .help = "End the run of a job",
     .examples = {"veliactl job stop build7 nightly"},
     .make = call_of<stop_job, change_options>,
     .output = &change_output},
    {.path = "job delete",
     .help = "Delete a job; a run of it ends",
     .examples = {"veliactl job delete build7 nightly --dry-run"},
     .make = call_of<delete_job, change_options>,
     .output = &change_output},
};

Cell text_cell(const char *text) {
    return text != nullptr && *text != '\0' ? Cell(text) : Cell();
}

Cells list_cells(const sched_job_properties_t &job) {
    const auto &last = job.ro.last_completion;
    return {job.ro.job_id,
            job.rw.name,
            moment(job.ro.next_run_time),
            moment(job.ro.running_status.started),
            moment(last.started),
            moment(last.ended),
            last.ended != 0 ? Cell(last.exit_status) : Cell()};
}

int show_job(const JobArguments &arguments, const Settings &settings) {
    return with_job(arguments, settings, [&](const SchedulerHandle & /*scheduler*/, const auto &job) {
        Cells cells = list_cells(job);
        std::vector<Cell> words;
        for (uint32_t i = 0; i < job.rw.arg_count; ++i)
            words.emplace_back(job.rw.args[i]);
        const uint32_t limit = job.rw.run_control.max_run_time;
        cells.insert(cells.end(),
                     {text_cell(job.rw.description), job.rw.task, std::move(words), limit != 0 ? Cell(limit) : Cell(),
                      text_cell(job.ro.created.who), moment(job.ro.created.when), moment(job.ro.last_modified.when),
                      text_cell(job.ro.last_completion.messages)});
        Results results(job_output, settings);
        results.add(std::move(cells));
        results.finish();
        return int{exit_done};
    });
}

int show_next(const NextArguments &arguments, const Settings &settings) {
    constexpr const char *notes[] = {nullptr, "moved", "first", "second"};
    const auto zone = zone_for(arguments.zone);
    if (!zone)
        return exit_usage;
    return with_job(arguments.of, settings, [&](const SchedulerHandle & /*scheduler*/, const auto &job) {
        const schedule::Spec spec = {&job.rw.schedule, &*zone, job.ro.created.when, job.ro.last_modified.when};
        Results results(next_output, settings);
        auto start = schedule::next_start(spec, time(nullptr));
        for (int32_t i = 0; i < arguments.count && start; ++i, start = schedule::next_start(spec, start->at)) {
            const char *note = notes[static_cast<int>(start->shift)];
            results.add({moment(start->at), wall_text(*zone, start->at), note != nullptr ? Cell(note) : Cell()});
        }
        results.finish();
        return int{exit_done};
    });
}

void tell_change(const ChangeArguments &arguments, const Settings &settings, const char *did, const char *would,
                 const sched_job_properties_t &job, time_t started, Cell status) {
    Results results(change_output, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
    results.add({arguments.is_dry_run ? would : did, job.ro.job_id, job.rw.name, moment(started), std::move(status)});
    results.finish();
}

// Asks again and again; the scheduler has no way to tell by itself. Nothing, told, if it cannot be asked any more.
bool wait_for_end(const SchedulerHandle &scheduler, const std::string &host, sched_running_job_h_t run,
                  const Settings &settings, sched_job_completion_info_t &info) {
    constexpr useconds_t interval_us = 200000;
    while (!are_waits_over()) {
        begin_wait(settings.timeout);
        const auto status = sched_rjob_get_completion_info(scheduler.get(), run, &info);
        if (status != TBS_ST_OK) {
            fail_of_scheduler(status, host, "The run cannot be watched");
            return false;
        }
        if (info.ended != 0)
            return true;
        sched_free_job_completion_info(scheduler.get(), &info);
        usleep(interval_us);
    }
    return false;
}

int wait_and_tell(const ChangeArguments &arguments, const Settings &settings, const SchedulerHandle &scheduler,
                  const sched_job_properties_t &job, sched_running_job_h_t run) {
    sched_job_completion_info_t info = {};
    if (!wait_for_end(scheduler, arguments.of.host, run, settings, info))
        return exit_failed;
    const auto exit_status = static_cast<int>(info.exit_status);
    if (info.messages != nullptr)
        fputs(info.messages, stderr);
    sched_free_job_completion_info(scheduler.get(), &info);
    tell_change(arguments, settings, "ran", "", job, run->started, exit_status);
    return exit_status;
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
        int exit_status = exit_done;
        if (status != TBS_ST_OK)
            exit_status = fail_of_scheduler(status, arguments.of.host, "The job cannot be run");
        else if (arguments.waits)
            exit_status = wait_and_tell(arguments, settings, scheduler, job, run);
        else
            tell_change(arguments, settings, "started", "", job, run->started, {});
        sched_rjob_free_handle(scheduler.get(), &run);
        return exit_status;
    });
}

int stop_job(const ChangeArguments &arguments, const Settings &settings) {
    return with_job(arguments.of, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
        sched_running_job_handle run = {job.ro.job_id, job.ro.running_status.started};
        const auto status = arguments.is_dry_run && run.started != 0 ? tbs_status_t{TBS_ST_OK}
                                                                     : sched_rjob_terminate(scheduler.get(), &run);
        if (status != TBS_ST_OK)
            return fail_of_scheduler(status, arguments.of.host, "No run of the job can be ended");
        tell_change(arguments, settings, "stopped", "would stop", job, run.started, {});
        return int{exit_done};
    });
}

int delete_job(const ChangeArguments &arguments, const Settings &settings) {
    return with_job(arguments.of, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
        sched_job_handle handle = {job.ro.job_id};
        sched_job_h_t slot = &handle;
        const auto status =
            arguments.is_dry_run ? tbs_status_t{TBS_ST_OK} : sched_job_delete(scheduler.get(), &slot, 1);
        if (slot != &handle)
            sched_job_free_handle(scheduler.get(), &slot);
        if (status != TBS_ST_OK)
            return fail_of_scheduler(status, arguments.of.host, "The job cannot be deleted");
        tell_change(arguments, settings, "deleted", "would delete", job, 0, {});
        return int{exit_done};
    });
}

} // namespace

const Commands job_commands = commands;

} // namespace velia::cli
