// veliactl job: the jobs of a host, when they run, and running them.
#include <cli/commands.h>

#include <cli/jobs.h>
#include <cli/results.h>
#include <support/stg.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_print.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::cli {

namespace {

int show_job(const JobArguments &arguments, const Settings &settings);
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
                                  {"host", Type::text, "that has to run it", true},
                                  {"run_host", Type::text, "that runs it, or ran it last", true},
                                  {"output", Type::text, "the end of what the last run put out", true}};
constexpr Output job_output = {Output::Shape::one, job_columns};

constexpr Command commands[] = {
    {.path = "job", .help = "Jobs of a scheduler"},
    {.path = "job show",
     .help = "Tell all about a job",
     .examples = {"veliactl job show build7 nightly"},
     .make = call_of<show_job, job_options>,
     .output = &job_output},
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
    return with_job(arguments, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
        const JobHosts hosts = hosts_of_jobs(scheduler, job.ro.job_id)[job.ro.job_id];
        Cells cells = list_cells(job);
        std::vector<Cell> words;
        for (uint32_t i = 0; i < job.rw.arg_count; ++i)
            words.emplace_back(job.rw.args[i]);
        const uint32_t limit = job.rw.run_control.max_run_time;
        cells.insert(cells.end(),
                     {text_cell(job.rw.description), job.rw.task, std::move(words), limit != 0 ? Cell(limit) : Cell(),
                      text_cell(job.ro.created.who), moment(job.ro.created.when), moment(job.ro.last_modified.when),
                      host_cell(hosts.host), host_cell(hosts.run_host), text_cell(job.ro.last_completion.messages)});
        Results results(job_output, settings);
        results.add(std::move(cells));
        results.finish();
        return int{exit_done};
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
