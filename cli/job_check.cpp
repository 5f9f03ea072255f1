// veliactl job check and job fmt, and task check: files of definitions, without a scheduler. And the tasks that one
// has.
#include <cli/commands.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include <cli/definition_format.h>
#include <cli/definitions.h>
#include <cli/jobs.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/run_times.h>
#include <schedule/next_start.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::cli {

namespace {

struct CheckArguments {
    std::vector<std::string> files;
    std::string tasks;
    int32_t next = 0;
    std::string zone;
};
struct FormatArguments {
    std::vector<std::string> files;
    bool only_tells = false;
};
struct TaskCheckArguments {
    std::vector<std::string> files;
};
struct TaskListArguments {
    std::string host;
};
struct TaskShowArguments {
    std::string host;
    std::string task;
};

Options file_options(std::vector<std::string> &files, const char *help) {
    return {{.name = "FILE", .help = help, .target = &files, .is_required = true}};
}

Options check_options(CheckArguments &arguments) {
    constexpr Range counts = {1, 10000};
    return joined({file_options(arguments.files, "of definitions of jobs; any number"),
                   {{.name = "--tasks",
                     .type = "FILE",
                     .help = "of definitions of tasks, of which each job's has to be one",
                     .target = &arguments.tasks},
                    {.name = "--next",
                     .type = "COUNT",
                     .help = "tell the next run times of each job",
                     .target = &arguments.next,
                     .range = counts},
                    {.name = "--zone",
                     .type = "ZONE",
                     .help = "the zone of the scheduler's host (default: of this host)",
                     .target = &arguments.zone}}});
}

Options format_options(FormatArguments &arguments) {
    return joined(
        {file_options(arguments.files, "of definitions of jobs; any number"),
         {{.name = "--check", .help = "only tell which would be rewritten", .target = &arguments.only_tells}}});
}

Options task_check_options(TaskCheckArguments &arguments) {
    return file_options(arguments.files, "of definitions of tasks; any number");
}

Options task_list_options(TaskListArguments &arguments) {
    return job_host_options(arguments.host);
}

Options task_show_options(TaskShowArguments &arguments) {
    return joined(
        {job_host_options(arguments.host),
         {{.name = "TASK", .help = "name or number of a task", .target = &arguments.task, .is_required = true}}});
}

int check_jobs(const CheckArguments &arguments, const Settings &settings);
int format_jobs(const FormatArguments &arguments, const Settings &settings);
int check_tasks(const TaskCheckArguments &arguments, const Settings &settings);
int list_tasks(const TaskListArguments &arguments, const Settings &settings);
int show_task(const TaskShowArguments &arguments, const Settings &settings);

constexpr Column check_columns[] = {{"file", Type::text, "as it was named"},
                                    {"line", Type::integer, "of the definition, or of what is wrong", true},
                                    {"column", Type::integer, "of what is wrong", true},
                                    {"job", Type::text, "that the definition is of", true},
                                    {"message", Type::text, "what is wrong", true},
                                    {"next_runs", Type::texts,
                                     "with `--next`: when it runs, by the clocks of its "
                                     "zone; a job that follows another has none",
                                     true}};
constexpr Output check_output = {Output::Shape::list, check_columns};

constexpr Column format_columns[] = {{"file", Type::text, "as it was named"},
                                     {"action", Type::text, "unchanged or rewritten; with --check would rewrite"}};
constexpr Output format_output = {Output::Shape::list, format_columns};

constexpr Column task_check_columns[] = {{"file", Type::text, "as it was named"},
                                         {"line", Type::integer, "of the definition, or of what is wrong", true},
                                         {"column", Type::integer, "of what is wrong", true},
                                         {"id", Type::integer, "number of the task", true},
                                         {"task", Type::text, "that the definition is of", true},
                                         {"message", Type::text, "what is wrong", true}};
constexpr Output task_check_output = {Output::Shape::list, task_check_columns};

constexpr Column task_columns[] = {{"id", Type::integer, "number of the task"},
                                   {"name", Type::text, "of the task"},
                                   {"program", Type::text, "what it runs"},
                                   {"text", Type::text, "for user interfaces", true}};
constexpr Output task_output = {Output::Shape::one, task_columns};
constexpr Output tasks_output = {Output::Shape::list, task_columns};

constexpr Command commands[] = {
    {.path = "job check",
     .help = "Check files of definitions of jobs, without a scheduler",
     .examples = {"veliactl job check views.jobs", "veliactl job check *.jobs --tasks views.tasks --next 3"},
     .notes =
         "What is wrong is told as FILE:LINE:COLUMN: MESSAGE. In each file the first such thing ends the reading.\n",
     .make = call_of<check_jobs, check_options>,
     .output = &check_output},
    {.path = "job fmt",
     .help = "Rewrite files of definitions of jobs in the form that a scheduler's jobs are printed in",
     .examples = {"veliactl job fmt views.jobs", "veliactl job fmt --check *.jobs"},
     .notes = "With --check the exit status is 4 if a file would be rewritten.\n",
     .make = call_of<format_jobs, format_options>,
     .output = &format_output},
    {.path = "task", .help = "The programs that jobs may run"},
    {.path = "task list",
     .help = "List them all",
     .examples = {"veliactl task list build7"},
     .make = call_of<list_tasks, task_list_options>,
     .output = &tasks_output},
    {.path = "task check",
     .help = "Check files of definitions of tasks, without a scheduler",
     .examples = {"veliactl task check views.tasks"},
     .make = call_of<check_tasks, task_check_options>,
     .output = &task_check_output},
    {.path = "task show",
     .help = "Tell all about a task",
     .examples = {"veliactl task show build7 \"clean views\""},
     .make = call_of<show_task, task_show_options>,
     .output = &task_output},
};

// People read findings as compilers tell them; programs have them among the results.
void add_finding(Results &results, const Output &output, const Finding &finding) {
    if (!tells_in_json())
        return tell_findings({finding});
    Cells cells(output.columns.size());
    for (size_t i = 0; i < cells.size(); ++i) {
        const std::string name = output.columns[i].name;
        if (name == "file")
            cells[i] = finding.file;
        else if (name == "message")
            cells[i] = finding.message;
        else if (finding.line != 0 && (name == "line" || name == "column"))
            cells[i] = name == "line" ? finding.line : finding.column;
    }
    results.add(std::move(cells));
}

std::vector<Cell> next_runs(const sched_schedule_t &schedule, const schedule::Zone &zone, int32_t count) {
    const time_t now = time(nullptr);
    const schedule::Spec spec = {&schedule, &zone, now, now};
    std::vector<Cell> runs;
    auto start = schedule::next_start(spec, now - 1);
    for (int32_t i = 0; i < count && start; ++i, start = schedule::next_start(spec, start->at))
        runs.emplace_back(wall_text(zone, start->at));
    return runs;
}

// Ids and names of a file of tasks; false, told, where it is none.
bool read_tasks(const std::string &path, TaskIds &ids) {
    const TaskFile file(path);
    for (const auto &task : file.tasks())
        ids[task.task->name] = task.task->task_id;
    tell_findings(file.findings());
    return file.findings().empty();
}

// A job has one definition in the whole set.
Finding anticipated(const JobFile &file, const JobDefinition &job, const std::string &where) {
    return {file.path(), job.first_line, 1,
            "Job \"" + std::string(job.job->rw.name) + "\" is defined in " + where + ", too"};
}

class JobCheck {
public:
    JobCheck(const CheckArguments &arguments, const schedule::Zone &zone, TaskFinder find_task, Results &results)
        : arguments_(arguments), zone_(zone), find_task_(std::move(find_task)), results_(results) {}

    void check(const std::string &path) {
        const JobFile file(path, find_task_);
        for (const auto &finding : file.findings())
            add(finding);
        for (const auto &job : file.jobs())
            check(file, job);
    }
    bool is_good() const { return is_good_; }

private:
    void add(const Finding &finding) {
        add_finding(results_, check_output, finding);
        is_good_ = false;
    }

    void check(const JobFile &file, const JobDefinition &job) {
        const std::string name = job.job->rw.name;
        const auto [found, is_new] = defined_.insert({name, file.path() + ":" + std::to_string(job.first_line)});
        if (!is_new)
            return add(anticipated(file, job, found->second));
        if (!tells_in_json() && arguments_.next == 0)
            return;
        results_.add({file.path(), job.first_line, Cell(), name, Cell(),
                      arguments_.next != 0 ? Cell(next_runs(job.job->rw.schedule, zone_, arguments_.next)) : Cell()});
    }

    const CheckArguments &arguments_;
    const schedule::Zone &zone_;
    TaskFinder find_task_;
    Results &results_;
    std::map<std::string, std::string> defined_;
    bool is_good_ = true;
};

int check_jobs(const CheckArguments &arguments, const Settings &settings) {
    const auto zone = zone_for(arguments.zone);
    if (!zone)
        return exit_usage;
    TaskIds ids;
    if (!arguments.tasks.empty() && !read_tasks(arguments.tasks, ids))
        return exit_failed;
    Results results(check_output, settings);
    JobCheck check(arguments, *zone, arguments.tasks.empty() ? TaskFinder(any_task) : finder_of(ids), results);
    for (const auto &path : arguments.files)
        check.check(path);
    results.finish();
    return check.is_good() ? exit_done : exit_failed;
}

bool fail_to_write(const std::string &path) {
    tell_failure(tbs_errno2status(errno), "", "%s cannot be written: %s\n", path.c_str(), strerror(errno));
    return false;
}

bool write_all(int descriptor, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
        if (count < 0)
            return false;
        done += static_cast<size_t>(count);
    }
    return fsync(descriptor) == 0;
}

// The file has the one text or the other, whatever happens; a link goes on naming its file.
bool replace_file(const std::string &path, const std::string &text) {
    std::array<char, PATH_MAX> resolved;
    struct stat old = {};
    if (realpath(path.c_str(), resolved.data()) == nullptr || stat(resolved.data(), &old) != 0)
        return fail_to_write(path);
    std::string made = std::string(resolved.data()) + ".XXXXXX";
    const int descriptor = mkostemp(made.data(), O_CLOEXEC);
    if (descriptor < 0)
        return fail_to_write(path);
    const bool is_written = fchmod(descriptor, old.st_mode & ALLPERMS) == 0 && write_all(descriptor, text);
    const bool is_closed = close(descriptor) == 0;
    if (is_written && is_closed && rename(made.c_str(), resolved.data()) == 0)
        return true;
    fail_to_write(path);
    unlink(made.c_str());
    return false;
}

struct Formatting {
    bool is_good = true;
    bool has_changes = false;
};

void format_file(const std::string &path, bool only_tells, Results &results, Formatting &formatting) {
    const JobFile file(path, any_task);
    Findings findings = file.findings();
    const std::string text = findings.empty() ? formatted(file, findings) : "";
    tell_findings(findings);
    const bool is_new = findings.empty() && text != file.text();
    if (!findings.empty() || (is_new && !only_tells && !replace_file(path, text))) {
        formatting.is_good = false;
        return;
    }
    formatting.has_changes = formatting.has_changes || is_new;
    const char *action = only_tells ? "would rewrite" : "rewritten";
    results.add({path, is_new ? action : "unchanged"});
}

int format_jobs(const FormatArguments &arguments, const Settings &settings) {
    Results results(format_output, settings, arguments.only_tells ? Results::Of::look : Results::Of::change);
    Formatting formatting;
    for (const auto &path : arguments.files)
        format_file(path, arguments.only_tells, results, formatting);
    results.finish();
    if (!formatting.is_good)
        return exit_failed;
    return arguments.only_tells && formatting.has_changes ? exit_changes : exit_done;
}

int check_tasks(const TaskCheckArguments &arguments, const Settings &settings) {
    Results results(task_check_output, settings);
    bool is_good = true;
    for (const auto &path : arguments.files) {
        const TaskFile file(path);
        is_good = is_good && file.findings().empty();
        for (const auto &finding : file.findings())
            add_finding(results, task_check_output, finding);
        for (const auto &task : file.tasks())
            results.add({path, task.first_line, Cell(), task.task->task_id, task.task->name, Cell()});
    }
    results.finish();
    return is_good ? exit_done : exit_failed;
}

const sched_task_properties_t *find_task(const sched_task_properties_t *tasks, uint32_t count,
                                         const std::string &task) {
    for (uint32_t i = 0; i < count; ++i)
        if (task == tasks[i].name)
            return &tasks[i];
    for (uint32_t i = 0; i < count; ++i)
        if (task == std::to_string(tasks[i].task_id))
            return &tasks[i];
    return nullptr;
}

Cells cells_of(const sched_task_properties_t &task) {
    const char *text = task.ui.ui_info;
    return {task.task_id, task.name, task.pathname, text != nullptr && *text != '\0' ? Cell(text) : Cell()};
}

// The scheduler's tasks, for the body, which says how the command ends.
template <class Body>
int with_tasks(const std::string &host, const Settings &settings, const std::string &failed, Body &&body) {
    int exit_status = exit_done;
    const auto scheduler = open_scheduler(host, settings, exit_status);
    if (scheduler == nullptr)
        return exit_status;
    uint32_t count = 0;
    sched_task_properties_t *tasks = nullptr;
    const auto status = sched_get_tasks(scheduler.get(), &count, &tasks);
    if (status != TBS_ST_OK)
        return fail_of_scheduler(status, host, failed);
    exit_status = body(tasks, count);
    sched_free_tasks(scheduler.get(), count, &tasks);
    return exit_status;
}

int list_tasks(const TaskListArguments &arguments, const Settings &settings) {
    return with_tasks(arguments.host, settings, "The tasks cannot be listed",
                      [&](const sched_task_properties_t *tasks, uint32_t count) {
                          Results results(tasks_output, settings);
                          for (uint32_t i = 0; i < count; ++i)
                              results.add(cells_of(tasks[i]));
                          results.finish();
                          return int{exit_done};
                      });
}

int show_task(const TaskShowArguments &arguments, const Settings &settings) {
    const std::string failed = "There is no task '" + arguments.task + "'";
    return with_tasks(arguments.host, settings, failed, [&](const sched_task_properties_t *tasks, uint32_t count) {
        const auto *task = find_task(tasks, count, arguments.task);
        if (task == nullptr)
            return fail_of_scheduler(TBS_ST_NOT_FOUND, arguments.host, failed);
        Results results(task_output, settings);
        results.add(cells_of(*task));
        results.finish();
        return int{exit_done};
    });
}

} // namespace

const Commands job_check_commands = commands;

} // namespace velia::cli
