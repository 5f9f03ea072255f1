// Files of definitions as the tool reads them: once, into memory, so that what is told of a line is true of that line.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <veliaxdr/sched_definitions.h>

namespace velia::cli {

// What is wrong, and where: line 0 is the file as a whole, columns count from 1.
struct Finding {
    std::string file;
    uint32_t line = 0;
    uint32_t column = 0;
    std::string message;

    std::string text() const; // "views.jobs:12:15: message"
};
using Findings = std::vector<Finding>;

// The whole of a file within its bounds; otherwise false, with the finding. One that was changed meanwhile is refused.
bool read_text_file(const std::string &path, std::string &text, Findings &findings);

// As the library counts them: one of more than 1999 bytes comes in pieces.
using TextLines = std::vector<std::string_view>;
TextLines lines_of_text(std::string_view text);

// The id of a task by its name; false for none.
using TaskFinder = std::function<bool(const std::string &name, sched_task_id_t &id)>;
// One for which every name is one.
bool any_task(const std::string &name, sched_task_id_t &id);
// One that knows the tasks of a list.
using TaskIds = std::map<std::string, sched_task_id_t>;
TaskFinder finder_of(const TaskIds &tasks);

struct JobDefinition {
    sched_job_properties_t *job; // the file's
    std::string follows;         // the name of a job; empty where it is an id, or none
    uint32_t first_line;
    uint32_t last_line;
};

// A file of jobs. Where something is wrong there are no jobs, but findings.
class JobFile {
public:
    JobFile(std::string path, const TaskFinder &find_task);
    // The same of a text that is not in a file.
    JobFile(std::string name, std::string text, const TaskFinder &find_task);
    ~JobFile();
    JobFile(const JobFile &) = delete;
    JobFile &operator=(const JobFile &) = delete;

    const std::string &path() const { return path_; }
    const std::string &text() const { return text_; }
    const TextLines &lines() const { return lines_; }
    const Findings &findings() const { return findings_; }
    const std::vector<JobDefinition> &jobs() const { return definitions_; }

private:
    void read(const TaskFinder &find_task);

    std::string path_;
    std::string text_;
    TextLines lines_;
    Findings findings_;
    std::vector<JobDefinition> definitions_;
    uint32_t count_ = 0;
    sched_job_properties_t *jobs_ = nullptr;
    char **followed_ = nullptr;
};

// About the line of a definition that has this tag, or else about its first.
Finding finding_at(const JobFile &file, const JobDefinition &job, const char *tag, std::string message);

struct TaskDefinition {
    sched_task_properties_t *task; // the file's
    uint32_t first_line;
};

class TaskFile {
public:
    explicit TaskFile(const std::string &path);
    ~TaskFile();
    TaskFile(const TaskFile &) = delete;
    TaskFile &operator=(const TaskFile &) = delete;

    const Findings &findings() const { return findings_; }
    const std::vector<TaskDefinition> &tasks() const { return definitions_; }

private:
    Findings findings_;
    std::vector<TaskDefinition> definitions_;
    uint32_t count_ = 0;
    sched_task_properties_t *tasks_ = nullptr;
};

// Tells findings as compilers do, one a line; as JSON they are results.
void tell_findings(const Findings &findings);

} // namespace velia::cli
