#include <cli/plan.h>

#include <algorithm>
#include <charconv>

#include <cli/messages.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_tasks.h>

namespace velia::cli {

namespace {

// Ids of jobs that have none yet: by their places, from the end.
constexpr sched_job_id_t id_of_new(size_t place) {
    return UINT32_MAX - static_cast<sched_job_id_t>(place);
}

constexpr const char *follows_tag = "Job.Schedule.Sequential.FollowsJob:";

struct FaultWords {
    uint32_t mask;
    const char *words;
};
constexpr FaultWords fault_words[] = {
    {SCHED_ERR_NAME_DUPLICATE, "its name is another job's"},
    {SCHED_ERR_FOLLOWS, "the job that it follows is not there, or follows it in its turn"},
};

std::string words_of(uint32_t mask, tbs_status_t status) {
    for (const auto &fault : fault_words)
        if ((mask & fault.mask) != 0)
            return fault.words;
    return tbs_strerror(status);
}

std::unordered_map<std::string, std::string> by_name(const std::vector<DefinitionField> &fields) {
    std::unordered_map<std::string, std::string> values;
    for (const auto &field : fields)
        values[field.name] = field.value;
    return values;
}

// In the order of the definition; what is there no more comes last.
std::vector<PlannedField> differences(const std::vector<DefinitionField> &before,
                                      const std::vector<DefinitionField> &after) {
    const auto values_before = by_name(before);
    const auto values_after = by_name(after);
    std::vector<PlannedField> fields;
    for (const auto &field : after) {
        const auto old = values_before.find(field.name);
        if (old == values_before.end() || old->second != field.value)
            fields.push_back({field.name, old != values_before.end() ? old->second : "", field.value});
    }
    for (const auto &field : before)
        if (!values_after.contains(field.name))
            fields.push_back({field.name, field.value, ""});
    return fields;
}

} // namespace

JobsThere::~JobsThere() {
    sched_free_jobs(nullptr, count_, &jobs_);
}

bool JobsThere::ask(const SchedulerHandle &scheduler, const std::string &host, int &status) {
    uint32_t task_count = 0;
    sched_task_properties_t *tasks = nullptr;
    auto asked = sched_get_tasks(scheduler.get(), &task_count, &tasks);
    for (uint32_t i = 0; i < task_count; ++i) {
        task_ids_.emplace(tasks[i].name, tasks[i].task_id);
        task_names_.emplace(tasks[i].task_id, tasks[i].name);
    }
    sched_free_tasks(scheduler.get(), task_count, &tasks);
    if (asked == TBS_ST_OK)
        asked = sched_set_get_jobs(scheduler.get(), &state_, &count_, &jobs_);
    if (asked != TBS_ST_OK) {
        status = fail_of_scheduler(asked, host, "The jobs cannot be had");
        return false;
    }
    for (uint32_t i = 0; i < count_; ++i) {
        list_.push_back(&jobs_[i]);
        by_name_.emplace(jobs_[i].rw.name, &jobs_[i]);
        by_id_.emplace(jobs_[i].ro.job_id, &jobs_[i]);
    }
    return true;
}

sched_job_properties_t *JobsThere::find(const std::string &name) const {
    const auto found = by_name_.find(name);
    return found != by_name_.end() ? found->second : nullptr;
}

sched_job_properties_t *JobsThere::find(sched_job_id_t id) const {
    const auto found = by_id_.find(id);
    return found != by_id_.end() ? found->second : nullptr;
}

sched_job_properties_t *JobsThere::find_by_name_or_number(const std::string &job) const {
    if (auto *found = find(job))
        return found;
    sched_job_id_t id = 0;
    const auto [end, error] = std::from_chars(job.data(), job.data() + job.size(), id);
    return error == std::errc() && end == job.data() + job.size() ? find(id) : nullptr;
}

bool JobsThere::select(const std::vector<std::string> &names, const std::string &host,
                       std::vector<sched_job_properties_t *> &jobs) const {
    if (names.empty())
        jobs = list_;
    for (const auto &name : names) {
        jobs.push_back(find_by_name_or_number(name));
        if (jobs.back() == nullptr) {
            fail_of_scheduler(TBS_ST_NOT_FOUND, host, "There is no job '" + name + "'");
            return false;
        }
    }
    return true;
}

// A task's name stands for it only if it is no other's, too.
Names JobsThere::names() const {
    return {[this](sched_task_id_t id) {
                const auto found = task_names_.find(id);
                return found != task_names_.end() && task_ids_.at(found->second) == id ? found->second : "";
            },
            [this](sched_job_id_t id) {
                const auto *job = find(id);
                return job != nullptr ? std::string(job->rw.name) : "";
            }};
}

Plan::Plan(const JobsThere &there, const std::deque<JobFile> &files, bool is_whole)
    : there_(there), is_whole_(is_whole) {
    take_definitions(files);
    resolve_and_compare();
}

Plan::Plan(const JobsThere &there, const std::deque<JobFile> &files, const sched_job_properties_t &job)
    : there_(there) {
    for (const auto &file : files)
        for (const auto &definition : file.jobs())
            take_definition(file, definition, there.find(job.ro.job_id));
    resolve_and_compare();
}

void Plan::take_definitions(const std::deque<JobFile> &files) {
    for (const auto &file : files) {
        findings_.insert(findings_.end(), file.findings().begin(), file.findings().end());
        for (const auto &definition : file.jobs())
            take_definition(file, definition, there_.find(definition.job->rw.name));
    }
}

void Plan::take_definition(const JobFile &file, const JobDefinition &definition, sched_job_properties_t *there) {
    const std::string name = definition.job->rw.name;
    const auto [found, is_new] = places_.emplace(name, jobs_.size() + 1);
    if (!is_new) {
        const PlannedJob &first = jobs_[found->second - 1];
        findings_.push_back(finding_at(file, definition, "Job.Name:",
                                       "Job \"" + name + "\" is defined in " + first.file->path() + ":" +
                                           std::to_string(first.definition->first_line) + ", too"));
        return;
    }
    PlannedJob job;
    job.action = there != nullptr ? PlannedJob::Action::keep : PlannedJob::Action::create;
    job.name = name;
    job.id = there != nullptr ? there->ro.job_id : 0;
    job.file = &file;
    job.definition = &definition;
    jobs_.push_back(std::move(job));
}

void Plan::resolve_and_compare() {
    if (!findings_.empty())
        return;
    for (auto &job : jobs_)
        resolve_followed(job);
    find_circles();
    for (auto &job : jobs_)
        if (job.id != 0)
            compare(job);
    if (is_whole_)
        take_removals();
}

// The followed job is one of the files' or, if it stays, one that is there.
void Plan::resolve_followed(PlannedJob &job) {
    auto &schedule = job.definition->job->rw.schedule;
    if (schedule.kind != SCHED_KIND_SEQUENTIAL)
        return;
    const std::string &name = job.definition->follows;
    const auto planned = places_.find(name);
    const auto *there = name.empty() ? there_.find(schedule.u.sequential.follows_job) : there_.find(name);
    if (!name.empty() && planned != places_.end()) {
        const PlannedJob &followed = jobs_[planned->second - 1];
        job.follows_new = followed.id == 0 ? planned->second : 0;
        schedule.u.sequential.follows_job = followed.id != 0 ? followed.id : id_of_new(planned->second);
    } else if (there != nullptr && (!is_whole_ || places_.contains(there->rw.name))) {
        schedule.u.sequential.follows_job = there->ro.job_id;
    } else {
        const std::string what = there != nullptr ? "The job that it follows is to be deleted" : "There is no such job";
        findings_.push_back(finding_at(*job.file, *job.definition, follows_tag, what));
    }
}

// Each job is gone past once, on the way of the first that leads there.
void Plan::find_circles() {
    std::unordered_map<sched_job_id_t, sched_job_id_t> followed;
    for (const auto *job : there_.jobs())
        if (job->rw.schedule.kind == SCHED_KIND_SEQUENTIAL)
            followed[job->ro.job_id] = job->rw.schedule.u.sequential.follows_job;
    const auto id_of = [&](size_t place) { return jobs_[place].id != 0 ? jobs_[place].id : id_of_new(place + 1); };
    for (size_t i = 0; i < jobs_.size(); ++i) {
        const auto &schedule = jobs_[i].definition->job->rw.schedule;
        followed.erase(id_of(i));
        if (schedule.kind == SCHED_KIND_SEQUENTIAL)
            followed[id_of(i)] = schedule.u.sequential.follows_job;
    }
    std::unordered_map<sched_job_id_t, size_t> way_past;
    for (size_t i = 0; i < jobs_.size(); ++i) {
        auto step = followed.find(id_of(i));
        while (step != followed.end() && way_past.emplace(step->first, i).second)
            step = followed.find(step->second);
        if (step != followed.end() && way_past[step->first] == i)
            findings_.push_back(finding_at(*jobs_[i].file, *jobs_[i].definition, follows_tag,
                                           "The jobs that follow one another make a circle"));
    }
}

void Plan::compare(PlannedJob &job) {
    const Names names = there_.names();
    const Names with_new = {names.of_task, [&](sched_job_id_t id) {
                                const size_t place = UINT32_MAX - id;
                                return place != 0 && place <= jobs_.size() ? jobs_[place - 1].name : names.of_job(id);
                            }};
    const auto *there = there_.find(job.id);
    job.fields =
        differences(fields_of(lines_of(there->rw, names)), fields_of(lines_of(job.definition->job->rw, with_new)));
    if (!job.fields.empty())
        job.action = PlannedJob::Action::change;
}

void Plan::take_removals() {
    for (const auto *job : there_.jobs())
        if (!places_.contains(job->rw.name)) {
            PlannedJob removed;
            removed.action = PlannedJob::Action::remove;
            removed.name = job->rw.name;
            removed.id = job->ro.job_id;
            jobs_.push_back(std::move(removed));
        }
}

bool Plan::has_changes() const {
    return std::any_of(jobs_.begin(), jobs_.end(),
                       [](const PlannedJob &job) { return job.action != PlannedJob::Action::keep; });
}

std::vector<sched_set_change_t> Plan::changes(std::vector<size_t> &places) const {
    constexpr int32_t what[] = {SCHED_SET_CREATE, SCHED_SET_CHANGE, SCHED_SET_DELETE};
    std::vector<uint32_t> place_of(jobs_.size() + 1); // in the set
    for (size_t i = 0; i < jobs_.size(); ++i)
        if (jobs_[i].action != PlannedJob::Action::keep) {
            places.push_back(i);
            place_of[i + 1] = static_cast<uint32_t>(places.size());
        }
    std::vector<sched_set_change_t> changes;
    for (const size_t place : places) {
        const PlannedJob &job = jobs_[place];
        sched_set_change_t change = {what[static_cast<int>(job.action)], job.id, place_of[job.follows_new], {}};
        if (job.definition != nullptr)
            change.rw = job.definition->job->rw;
        if (job.follows_new != 0)
            change.rw.schedule.u.sequential.follows_job = 0;
        changes.push_back(change);
    }
    return changes;
}

std::vector<Cells> rows_of(const PlannedJob &job) {
    constexpr const char *actions[] = {"create", "change", "delete", "unchanged"};
    const Cell action = actions[static_cast<int>(job.action)];
    const Cell id = job.id != 0 ? Cell(job.id) : Cell();
    const Cell file = job.file != nullptr ? Cell(job.file->path()) : Cell();
    const Cell line = job.definition != nullptr ? Cell(job.definition->first_line) : Cell();
    std::vector<Cells> rows;
    for (const auto &field : job.fields)
        rows.push_back({action, id, job.name, field.name, field.before.empty() ? Cell() : Cell(field.before),
                        field.after.empty() ? Cell() : Cell(field.after), file, line});
    if (rows.empty())
        rows.push_back({action, id, job.name, Cell(), Cell(), Cell(), file, line});
    return rows;
}

int carry_out(const Plan &plan, const JobsThere &there, const SchedulerHandle &scheduler, const std::string &host) {
    std::vector<size_t> places;
    auto changes = plan.changes(places);
    if (changes.empty())
        return exit_done;
    sched_set_fault_t fault = {};
    const auto status =
        sched_set_apply(scheduler.get(), there.state(), static_cast<uint32_t>(changes.size()), changes.data(), &fault);
    if (status == TBS_ST_OK)
        return exit_done;
    if (status == TBS_ST_STALE_ID)
        return fail_of_scheduler(status, host, "Nothing is done: the jobs have changed since the plan was made");
    if (fault.place == 0 || fault.place > places.size())
        return fail_of_scheduler(status, host, "Nothing is done");
    const PlannedJob &job = plan.jobs()[places[fault.place - 1]];
    if (job.file != nullptr)
        tell_findings({{job.file->path(), job.definition->first_line, 1, words_of(fault.err_mask, status)}});
    return fail_of_scheduler(status, host, "Nothing is done, because of the job '" + job.name + "'");
}

} // namespace velia::cli
