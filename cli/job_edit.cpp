// veliactl job edit and job validate.
#include <cli/commands.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include <cli/definition_text.h>
#include <cli/messages.h>
#include <cli/plan.h>
#include <cli/results.h>
#include <veliaxdr/sched_check.h>
#include <veliaxdr/sched_runs.h>

namespace velia::cli {

namespace {

struct EditArguments {
    JobArguments of;
    std::string host;
    bool is_dry_run = false;
};
struct ValidateArguments {
    std::string host;
    std::vector<std::string> jobs;
};

Options edit_options(EditArguments &arguments) {
    return joined({job_options(arguments.of),
                   {{.name = "--host",
                     .type = "HOST",
                     .help = "only name the host whose daemon has to run it, of those that have their jobs together; "
                             "any for any of them",
                     .target = &arguments.host},
                    {.name = "--dry-run", .help = "only tell what would be done", .target = &arguments.is_dry_run}}});
}

Options validate_options(ValidateArguments &arguments) {
    return joined({job_host_options(arguments.host),
                   {{.name = "JOB", .help = "names or numbers of jobs (default: all)", .target = &arguments.jobs}}});
}

int edit_job(const EditArguments &arguments, const Settings &settings);
int validate_jobs(const ValidateArguments &arguments, const Settings &settings);

constexpr const char *any_host = "any";

constexpr Output edit_output = {Output::Shape::list, plan_columns};

constexpr Column validate_columns[] = {{"id", Type::integer, "number of the job"},
                                       {"name", Type::text, "of the job"},
                                       {"is_good", Type::text, "yes or no"},
                                       {"message", Type::text, "what is wrong", true}};
constexpr Output validate_output = {Output::Shape::list, validate_columns};

constexpr Command commands[] = {
    {.path = "job edit",
     .help = "Change a job with an editor",
     .examples = {"veliactl job edit build7 nightly",
                  "EDITOR=\"sed -i s/01:00/02:00/\" veliactl job edit build7 nightly",
                  "veliactl job edit build7 nightly --host build8"},
     .notes =
         "The editor is that of VISUAL or EDITOR, or else vi. It has the definition of the job, as job dump writes\n"
         "it. What is wrong with the new one is told, and its file stays. A new name renames the job.\n",
     .make = call_of<edit_job, edit_options>,
     .output = &edit_output},
    {.path = "job validate",
     .help = "Check the jobs of a host once more, with the tasks and jobs that it has by now",
     .examples = {"veliactl job validate build7", "veliactl job validate build7 nightly"},
     .make = call_of<validate_jobs, validate_options>,
     .output = &validate_output},
};

// A folder of its own, which only its user may look into; it goes with the object unless it is kept.
class DraftFile {
public:
    explicit DraftFile(const std::string &text) {
        std::error_code failure;
        std::string made = std::filesystem::temp_directory_path(failure).string() + "/veliactl-XXXXXX";
        if (failure || mkdtemp(made.data()) == nullptr)
            return;
        folder_ = made;
        std::ofstream(path()) << text;
    }
    ~DraftFile() {
        std::error_code failure;
        if (!is_kept_ && is_good())
            std::filesystem::remove_all(folder_, failure);
    }
    DraftFile(const DraftFile &) = delete;
    DraftFile &operator=(const DraftFile &) = delete;

    bool is_good() const { return !folder_.empty(); }
    std::string path() const { return folder_ + "/definition.jobs"; }
    void keep() { is_kept_ = true; }

private:
    std::string folder_;
    bool is_kept_ = false;
};

// As a shell would, since the variable may hold options, too. False, told, unless it ended well.
bool run_editor(const std::string &path) {
    const char *visual = getenv("VISUAL");
    const char *editor = visual != nullptr && *visual != '\0' ? visual : getenv("EDITOR");
    const std::string command = std::string(editor != nullptr && *editor != '\0' ? editor : "vi") + " \"$1\"";
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), "sh", path.c_str(), nullptr);
        _exit(127);
    }
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const bool is_good = child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!is_good)
        tell_failure(TBS_ST_ERROR, "", "The editor failed; nothing is done\n");
    return is_good;
}

int load_draft(const EditArguments &arguments, const Settings &settings, const SchedulerHandle &scheduler,
               const JobsThere &there, const sched_job_properties_t &job, DraftFile &draft) {
    std::deque<JobFile> files;
    files.emplace_back(draft.path(), finder_of(there.tasks()));
    const Plan plan(there, files, job);
    Findings findings = plan.findings();
    if (findings.empty() && plan.jobs().size() != 1)
        findings.push_back({draft.path(), 0, 0, "this is not the definition of one job"});
    tell_findings(findings);
    const bool is_done =
        findings.empty() && (arguments.is_dry_run || carry_out(plan, there, scheduler, arguments.of.host) == exit_done);
    if (!is_done) {
        draft.keep();
        tell_failure(TBS_ST_ERROR, "", "Nothing is done; what was written is in %s\n", draft.path().c_str());
        return exit_failed;
    }
    Results results(edit_output, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
    for (auto &row : rows_of(plan.jobs().front()))
        results.add(std::move(row));
    results.finish();
    return exit_done;
}

int edit_host(const EditArguments &arguments, const Settings &settings) {
    return with_job(arguments.of, settings, [&](const SchedulerHandle &scheduler, const auto &job) {
        const std::string before = hosts_of_jobs(scheduler, job.ro.job_id)[job.ro.job_id].host;
        const std::string after = arguments.host == any_host ? "" : arguments.host;
        const auto status = arguments.is_dry_run ? tbs_status_t{TBS_ST_OK}
                                                 : sched_job_set_host(scheduler.get(), job.ro.job_id, after.c_str());
        if (status != TBS_ST_OK)
            return fail_of_scheduler(status, arguments.of.host, "The host of the job cannot be set");
        const bool is_same = before == after;
        Results results(edit_output, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
        results.add({is_same ? "unchanged" : "change", job.ro.job_id, job.rw.name, is_same ? Cell() : Cell("host"),
                     is_same ? Cell() : host_cell(before), is_same ? Cell() : host_cell(after), Cell(), Cell()});
        results.finish();
        return int{exit_done};
    });
}

int edit_job(const EditArguments &arguments, const Settings &settings) {
    if (!arguments.host.empty())
        return edit_host(arguments, settings);
    return with_jobs_there(arguments.of.host, settings, [&](const SchedulerHandle &scheduler, const auto &there) {
        const auto *job = there.find_by_name_or_number(arguments.of.job);
        if (job == nullptr)
            return fail_of_scheduler(TBS_ST_NOT_FOUND, arguments.of.host, "There is no job '" + arguments.of.job + "'");
        DraftFile draft(definition_of(lines_of(job->rw, there.names())));
        if (!draft.is_good()) {
            tell_failure(tbs_errno2status(errno), "", "No file can be made for the editor: %s\n", strerror(errno));
            return int{exit_failed};
        }
        return run_editor(draft.path()) ? load_draft(arguments, settings, scheduler, there, *job, draft)
                                        : int{exit_failed};
    });
}

// The first thing that is wrong; empty for nothing. An unknown task is told by the library, and lets the job pass.
std::string fault_of(const SchedulerHandle &scheduler, sched_job_properties_t &job) {
    std::string told;
    tbs_status_t status = TBS_ST_OK;
    hear([&](const Heard &heard) { told = told.empty() ? heard.text.substr(0, heard.text.find('\n')) : told; },
         [&] {
             uint32_t mask = 0;
             status = sched_utl_validate_job_rw_properties(scheduler.get(), job.ro.job_id, &job.rw, 1, 0, &mask);
         });
    return status != TBS_ST_OK && told.empty() ? tbs_strerror(status) : told;
}

int validate_jobs(const ValidateArguments &arguments, const Settings &settings) {
    return with_jobs_there(arguments.host, settings, [&](const SchedulerHandle &scheduler, const auto &there) {
        std::vector<sched_job_properties_t *> jobs;
        if (!there.select(arguments.jobs, arguments.host, jobs))
            return int{exit_failed};
        bool is_good = true;
        Results results(validate_output, settings);
        for (auto *job : jobs) {
            const std::string fault = fault_of(scheduler, *job);
            is_good = is_good && fault.empty();
            results.add(
                {job->ro.job_id, job->rw.name, fault.empty() ? "yes" : "no", fault.empty() ? Cell() : Cell(fault)});
        }
        results.finish();
        return is_good ? int{exit_done} : int{exit_failed};
    });
}

} // namespace

const Commands job_edit_commands = commands;

} // namespace velia::cli
