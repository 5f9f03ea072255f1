// The files of tasks and of the default schedule that the configuration names, read by the library's own parser.
#pragma once

#include <string>
#include <vector>

#include <server/scheduler/task.h>

namespace velia::server {

// A job of the default schedule.
struct DefinedJob {
    std::string name;
    std::string body;    // the record as it is kept
    std::string follows; // the name of the job that it follows; empty for none, and for one that is named by its number
    bool operator==(const DefinedJob &) const = default;
};

// Adds the tasks of a file to those that there are. What is wrong, in words; empty if nothing is. What is wrong with a
// line is told in the log.
std::string read_tasks(const std::string &file_name, std::vector<Task> &tasks, size_t tasks_max);

std::string read_schedule(const std::string &file_name, std::vector<DefinedJob> &jobs);

} // namespace velia::server
