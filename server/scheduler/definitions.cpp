#include <server/scheduler/definitions.h>

#include <algorithm>

#include <server/scheduler/xdr_bytes.h>
#include <veliaxdr/sched_definitions.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::server {

namespace {

std::string text_of(const char *text) {
    return text != nullptr ? text : "";
}

std::string add_task(const sched_task_properties_t &read, std::vector<Task> &tasks, size_t tasks_max) {
    const Task task = {read.task_id, text_of(read.name), text_of(read.pathname), text_of(read.ui.ui_info)};
    const bool is_known = std::any_of(
        tasks.begin(), tasks.end(), [&](const Task &other) { return other.id == task.id || other.name == task.name; });
    if (is_known)
        return "The task stands already: " + task.name;
    if (!task.path.starts_with('/'))
        return "The program's path is not absolute: " + task.name;
    if (tasks.size() == tasks_max)
        return "Too many tasks";
    tasks.push_back(task);
    return "";
}

std::string unreadable(const char *of_what, const std::string &file_name, tbs_status_t status) {
    return std::string(of_what) + " in \"" + file_name + "\" cannot be read: " + tbs_strerror(status);
}

} // namespace

std::string read_tasks(const std::string &file_name, std::vector<Task> &tasks, size_t tasks_max) {
    uint32_t count = 0;
    sched_task_properties_t *read = nullptr;
    const auto status = sched_utl_parse_task_properties(nullptr, file_name.c_str(), &count, &read);
    if (status != TBS_ST_OK)
        return unreadable("The tasks", file_name, status);
    std::string fault;
    for (uint32_t i = 0; i < count && fault.empty(); ++i)
        fault = add_task(read[i], tasks, tasks_max);
    sched_free_tasks(nullptr, count, &read);
    return fault;
}

// Nobody is asked for the number of a task: it stands there itself.
std::string read_schedule(const std::string &file_name, std::vector<DefinedJob> &jobs) {
    uint32_t count = 0;
    sched_job_properties_t *read = nullptr;
    char **followed = nullptr;
    const auto status = sched_utl_parse_job_properties(nullptr, file_name.c_str(), &count, &read, &followed);
    if (status != TBS_ST_OK)
        return unreadable("The jobs", file_name, status);
    for (uint32_t i = 0; i < count; ++i) {
        sched_job_utc_rw_props_t props = {{}, read[i].rw};
        jobs.push_back({text_of(read[i].rw.name), xdr_bytes(xdr_sched_job_utc_rw_props_t, props),
                        text_of(followed != nullptr ? followed[i] : nullptr)});
    }
    sched_utl_free_extra_job_infos(nullptr, count, &followed);
    sched_free_jobs(nullptr, count, &read);
    const bool is_whole =
        std::none_of(jobs.begin(), jobs.end(), [](const DefinedJob &job) { return job.body.empty(); });
    return is_whole ? "" : "A job in \"" + file_name + "\" is too long";
}

} // namespace velia::server
