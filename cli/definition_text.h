// A job as the text of its definition. The writer differs from the library's printer only where it must: what it writes
// is read again as the same job, for every job that passes the checks.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <veliaxdr/sched_wire.h>

namespace velia::cli {

// One line: a tag with its colon, and its value; of a description all its lines.
struct DefinitionLine {
    std::string tag;
    std::string value;
};
using DefinitionLines = std::vector<DefinitionLine>;

// Names of tasks and jobs by their ids; empty for one that is not known, which is then written as its id.
struct Names {
    std::function<std::string(sched_task_id_t)> of_task;
    std::function<std::string(sched_job_id_t)> of_job;
};

DefinitionLines lines_of(const sched_job_rw_properties_t &job, const Names &names);

// The whole definition, from its begin to its end.
std::string definition_of(const DefinitionLines &lines);

// What the definition says of a field, and what a field is called: its tag without the colon. Lines of one field that
// come again are joined.
struct DefinitionField {
    std::string name;
    std::string value;
};
std::vector<DefinitionField> fields_of(const DefinitionLines &lines);

// Values as the printer writes them.
std::string quoted(const std::string &text);
std::string text_of_name(const std::string &name);
std::string text_of_date(time_t date);
std::string text_of_day_time(uint32_t seconds);

inline constexpr const char *description_begin = "Job.Description.Begin:";
inline constexpr const char *description_end = "Job.Description.End:";

} // namespace velia::cli
