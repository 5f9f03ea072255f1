// What has to be done to the jobs of a scheduler so that they are as files say: the plan that `job plan` shows and that
// `job load` carries out.
#pragma once

#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include <cli/definition_text.h>
#include <cli/definitions.h>
#include <cli/jobs.h>
#include <cli/output.h>
#include <veliaxdr/sched_sets.h>

namespace velia::cli {

// The jobs and tasks of a scheduler at one moment.
class JobsThere {
public:
    JobsThere() = default;
    ~JobsThere();
    JobsThere(const JobsThere &) = delete;
    JobsThere &operator=(const JobsThere &) = delete;

    // Asks for them; otherwise false, told, with how the command ends.
    bool ask(const SchedulerHandle &scheduler, const std::string &host, int &status);

    uint64_t state() const { return state_; }
    const TaskIds &tasks() const { return task_ids_; }
    const std::vector<sched_job_properties_t *> &jobs() const { return list_; }
    sched_job_properties_t *find(const std::string &name) const;
    sched_job_properties_t *find(sched_job_id_t id) const;
    Names names() const;

    sched_job_properties_t *find_by_name_or_number(const std::string &job) const;
    // Those of the names or numbers, or all for none. False, told, where one is not there.
    bool select(const std::vector<std::string> &names, const std::string &host,
                std::vector<sched_job_properties_t *> &jobs) const;

private:
    uint64_t state_ = 0;
    uint32_t count_ = 0;
    sched_job_properties_t *jobs_ = nullptr;
    std::vector<sched_job_properties_t *> list_;
    std::unordered_map<std::string, sched_job_properties_t *> by_name_;
    std::unordered_map<sched_job_id_t, sched_job_properties_t *> by_id_;
    TaskIds task_ids_;
    std::unordered_map<sched_task_id_t, std::string> task_names_;
};

// Opens the scheduler, asks what is there, and hands both over.
template <class Body>
int with_jobs_there(const std::string &host, const Settings &settings, Body &&body) {
    int exit_status = exit_done;
    const auto scheduler = open_scheduler(host, settings, exit_status);
    JobsThere there;
    return scheduler != nullptr && there.ask(scheduler, host, exit_status) ? body(scheduler, there) : exit_status;
}

struct PlannedField {
    std::string name;
    std::string before; // empty: there is none
    std::string after;
};

struct PlannedJob {
    enum class Action { create, change, remove, keep };
    Action action = Action::keep;
    std::string name;
    sched_job_id_t id = 0; // 0: it has none yet
    std::vector<PlannedField> fields;
    const JobFile *file = nullptr; // null for one that is removed
    const JobDefinition *definition = nullptr;
    size_t follows_new = 0; // the place among the planned jobs, from 1, of a new one that it follows
};

class Plan {
public:
    // The files stay where they are. With `is_whole` jobs that none of them defines are removed.
    Plan(const JobsThere &there, const std::deque<JobFile> &files, bool is_whole);
    // Of one job that is there, whatever name the file gives it.
    Plan(const JobsThere &there, const std::deque<JobFile> &files, const sched_job_properties_t &job);

    // With any there is nothing planned that could be carried out.
    const Findings &findings() const { return findings_; }
    const std::vector<PlannedJob> &jobs() const { return jobs_; }
    bool has_changes() const;

    // The plan as the library carries it out, and which planned job each change is of.
    std::vector<sched_set_change_t> changes(std::vector<size_t> &places) const;

private:
    void take_definitions(const std::deque<JobFile> &files);
    void take_definition(const JobFile &file, const JobDefinition &definition, sched_job_properties_t *there);
    void resolve_followed(PlannedJob &job);
    void find_circles();
    void compare(PlannedJob &job);
    void take_removals();
    void resolve_and_compare();

    const JobsThere &there_;
    bool is_whole_ = false;
    Findings findings_;
    std::vector<PlannedJob> jobs_;
    std::unordered_map<std::string, size_t> places_; // of names, from 1
};

// Rows of a plan, and its columns.
inline constexpr Column plan_columns[] = {{"action", Type::text, "create, change, delete or unchanged"},
                                          {"id", Type::integer, "number of the job", true},
                                          {"name", Type::text, "of the job"},
                                          {"field", Type::text, "of its definition, that changes", true},
                                          {"before", Type::text, "its value", true},
                                          {"after", Type::text, "what it is to be", true},
                                          {"file", Type::text, "that defines the job", true},
                                          {"line", Type::integer, "of the definition", true}};
std::vector<Cells> rows_of(const PlannedJob &job);

// Carries the plan out. What fails is told, and gives the exit status.
int carry_out(const Plan &plan, const JobsThere &there, const SchedulerHandle &scheduler, const std::string &host);

} // namespace velia::cli
