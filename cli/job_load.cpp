// veliactl job dump, plan and load: the jobs of a scheduler as files, and files as its jobs.
#include <cli/commands.h>

#include <fstream>
#include <iostream>

#include <cli/definition_text.h>
#include <cli/messages.h>
#include <cli/plan.h>
#include <cli/results.h>

namespace velia::cli {

namespace {

struct DumpArguments {
    std::string host;
    std::vector<std::string> jobs;
};
struct PlanArguments {
    std::string host;
    std::vector<std::string> files;
    bool is_whole = false;
    bool is_dry_run = false;
    std::string state_file;
};

Options dump_options(DumpArguments &arguments) {
    return joined({job_host_options(arguments.host),
                   {{.name = "JOB", .help = "names or numbers of jobs (default: all)", .target = &arguments.jobs}}});
}

Options set_options(PlanArguments &arguments, const char *help_of_state) {
    return joined({job_host_options(arguments.host),
                   {{.name = "FILE",
                     .help = "of definitions of jobs; any number, which are one set",
                     .target = &arguments.files,
                     .is_required = true},
                    {.name = "--prune", .help = "delete jobs that no file defines", .target = &arguments.is_whole},
                    {.name = "--state", .type = "FILE", .help = help_of_state, .target = &arguments.state_file}}});
}

Options plan_options(PlanArguments &arguments) {
    return set_options(arguments, "write down what the jobs are by now, for job load --state");
}

Options load_options(PlanArguments &arguments) {
    return joined({set_options(arguments, "refuse if the jobs are not what job plan --state wrote down any more"),
                   {{.name = "--dry-run", .help = "only tell what would be done", .target = &arguments.is_dry_run}}});
}

int dump_jobs(const DumpArguments &arguments, const Settings &settings);
int plan_jobs(const PlanArguments &arguments, const Settings &settings);
int load_jobs(const PlanArguments &arguments, const Settings &settings);

constexpr Column dump_columns[] = {{"id", Type::integer, "number of the job"},
                                   {"name", Type::text, "of the job"},
                                   {"definition", Type::text, "as job load reads it"}};
constexpr Output dump_output = {Output::Shape::list, dump_columns};
constexpr Output plan_output = {Output::Shape::list, plan_columns};

constexpr Command commands[] = {
    {.path = "job dump",
     .help = "Write jobs as definitions, which job load reads",
     .examples = {"veliactl job dump build7 > build7.jobs", "veliactl job dump build7 nightly"},
     .notes = "But in JSON, the definitions are written as they stand in a file, whatever the form of results is.\n",
     .make = call_of<dump_jobs, dump_options>,
     .output = &dump_output},
    {.path = "job plan",
     .help = "Tell what has to be done so that the jobs of a host are as files say",
     .examples = {"veliactl job plan build7 *.jobs", "veliactl job plan build7 *.jobs --prune --state build7.state"},
     .notes = "Exit status 0: there is nothing to do; 4: there is.\n",
     .make = call_of<plan_jobs, plan_options>,
     .output = &plan_output},
    {.path = "job load",
     .help = "Make the jobs of a host as files say: all of it or nothing",
     .examples = {"veliactl job load build7 *.jobs --dry-run", "veliactl job load build7 *.jobs --prune"},
     .notes =
         "A job is known by its name. What job plan tells is done in one step of the scheduler's, unless the jobs\n"
         "have changed meanwhile.\n",
     .make = call_of<load_jobs, load_options>,
     .output = &plan_output},
};

void write_definition(Results &results, const sched_job_properties_t &job, const JobsThere &there) {
    const std::string text = definition_of(lines_of(job.rw, there.names()));
    if (tells_in_json())
        results.add({job.ro.job_id, job.rw.name, text});
    else
        std::cout << text << '\n';
}

int dump_jobs(const DumpArguments &arguments, const Settings &settings) {
    return with_jobs_there(arguments.host, settings, [&](const SchedulerHandle & /*scheduler*/, const auto &there) {
        std::vector<sched_job_properties_t *> jobs;
        if (!there.select(arguments.jobs, arguments.host, jobs))
            return int{exit_failed};
        Results results(dump_output, settings);
        for (const auto *job : jobs)
            write_definition(results, *job, there);
        if (tells_in_json())
            results.finish();
        return int{exit_done};
    });
}

bool write_state(const std::string &path, uint64_t state) {
    std::ofstream file(path);
    file << state << '\n';
    file.close();
    if (!file)
        tell_failure(TBS_ST_ERROR, "", "%s cannot be written\n", path.c_str());
    return !file.fail();
}

bool is_in_state(const std::string &path, uint64_t state) {
    std::string text;
    Findings findings;
    if (!read_text_file(path, text, findings)) {
        tell_findings(findings);
        return false;
    }
    const bool is_same = text == std::to_string(state) + "\n";
    if (!is_same)
        tell_failure(TBS_ST_STALE_ID, "", "Nothing is done: the jobs are not what %s tells\n", path.c_str());
    return is_same;
}

void tell_plan(const Plan &plan, const Settings &settings, Results::Of of) {
    Results results(plan_output, settings, of);
    for (const auto &job : plan.jobs())
        for (auto &row : rows_of(job))
            results.add(std::move(row));
    results.finish();
}

// The files with the tasks of the scheduler, and the plan of them.
template <class Body>
int with_plan(const PlanArguments &arguments, const Settings &settings, Body &&body) {
    return with_jobs_there(arguments.host, settings, [&](const SchedulerHandle &scheduler, const JobsThere &there) {
        std::deque<JobFile> files;
        const auto find_task = finder_of(there.tasks());
        for (const auto &path : arguments.files)
            files.emplace_back(path, find_task);
        const Plan plan(there, files, arguments.is_whole);
        tell_findings(plan.findings());
        return plan.findings().empty() ? body(scheduler, there, plan) : int{exit_failed};
    });
}

int plan_jobs(const PlanArguments &arguments, const Settings &settings) {
    return with_plan(arguments, settings, [&](const auto & /*scheduler*/, const JobsThere &there, const Plan &plan) {
        if (!arguments.state_file.empty() && !write_state(arguments.state_file, there.state()))
            return int{exit_failed};
        tell_plan(plan, settings, Results::Of::look);
        return plan.has_changes() ? int{exit_changes} : int{exit_done};
    });
}

int load_jobs(const PlanArguments &arguments, const Settings &settings) {
    return with_plan(arguments, settings, [&](const auto &scheduler, const JobsThere &there, const Plan &plan) {
        if (!arguments.state_file.empty() && !is_in_state(arguments.state_file, there.state()))
            return int{exit_failed};
        const int status = arguments.is_dry_run ? int{exit_done} : carry_out(plan, there, scheduler, arguments.host);
        if (status == exit_done)
            tell_plan(plan, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
        return status;
    });
}

} // namespace

const Commands job_load_commands = commands;

} // namespace velia::cli
