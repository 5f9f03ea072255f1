#include <server/scheduler/jobs.h>

#include <algorithm>

namespace velia::server {

void Jobs::set_zone(schedule::Zone zone) {
    zone_ = std::move(zone);
    for (auto &[id, job] : jobs_)
        reckon(job);
}

schedule::Spec Jobs::spec_of(const Job &job) const {
    return {&job.schedule, &zone_, job.row.created.when, job.row.changed_start};
}

bool Jobs::take_body(Job &job) const {
    JobBody body(job.row.body);
    if (!body.is_whole())
        return false;
    const auto &rw = body.get().rw;
    job.name = rw.name;
    job.schedule = rw.schedule;
    job.task = rw.task;
    job.is_deleted_when_completed = rw.delete_when_completed != 0;
    return true;
}

void Jobs::reckon(Job &job) {
    forget_due(job);
    job.next_run = schedule::next_run_unknown;
    if (job.schedule.kind == SCHED_KIND_SEQUENTIAL)
        return;
    const auto start = schedule::next_start(spec_of(job), job.row.considered);
    job.next_run = start ? start->at : schedule::next_run_never;
    if (start && may_start(job))
        due_.insert({job.next_run, job.row.id});
}

void Jobs::consider(Job &job, int64_t considered) {
    job.row.considered = considered;
    reckon(job);
    touch(job);
}

size_t Jobs::load(const JobContents &contents) {
    size_t left_out = 0;
    for (const auto &row : contents.jobs)
        left_out += add(row) ? 0 : 1;
    for (const auto &run : contents.runs)
        if (Job *job = find(run.job); job != nullptr && run.ended != 0)
            job->runs.push_back(run);
    return left_out;
}

bool Jobs::add(const JobRow &row) {
    Job job;
    job.row = row;
    job.considered_by_all = row.considered;
    if (!take_body(job))
        return false;
    Job &added = jobs_.insert_or_assign(row.id, std::move(job)).first->second;
    names_[added.name] = row.id;
    if (added.schedule.kind == SCHED_KIND_SEQUENTIAL)
        followers_.add(added.schedule.u.sequential.follows_job, row.id);
    reckon(added);
    touch(added);
    return true;
}

// Its runs stay, and so does what has been made or passed over since the row was taken.
bool Jobs::change(const JobRow &row) {
    const auto found = jobs_.find(row.id);
    if (found == jobs_.end())
        return false;
    const Job before = found->second;
    JobRow latest = row;
    latest.considered = std::max(row.considered, before.row.considered);
    remove(row.id);
    if (!add(latest))
        return false;
    Job &job = jobs_.at(row.id);
    job.runs = before.runs;
    job.phase = before.phase;
    job.run = before.run;
    job.is_ours = before.is_ours;
    job.elsewhere = before.elsewhere;
    job.has_unknown_run = before.has_unknown_run;
    job.considered_by_all = before.considered_by_all;
    return true;
}

bool Jobs::take(const JobRow &row) {
    Job *job = find(row.id);
    if (job != nullptr && !job->is_ours)
        job->row.considered = row.considered;
    const bool is_taken = job != nullptr ? change(row) : add(row);
    if (is_taken)
        find(row.id)->considered_by_all = row.considered;
    return is_taken;
}

void Jobs::put_run(Job &job, const RunRow &run) {
    const auto place = std::lower_bound(job.runs.begin(), job.runs.end(), run.started,
                                        [](const RunRow &each, int64_t started) { return each.started < started; });
    if (place != job.runs.end() && place->started == run.started)
        *place = run;
    else
        job.runs.insert(place, run);
}

void Jobs::remove(sched_job_id_t id) {
    const auto found = jobs_.find(id);
    if (found == jobs_.end())
        return;
    const Job &job = found->second;
    forget_due(job);
    if (const auto named = names_.find(job.name); named != names_.end() && named->second == id)
        names_.erase(named); // another one may have taken it over
    if (job.schedule.kind == SCHED_KIND_SEQUENTIAL)
        followers_.remove(job.schedule.u.sequential.follows_job, id);
    jobs_.erase(found);
    ++version_;
}

Job *Jobs::find(sched_job_id_t id) {
    const auto found = jobs_.find(id);
    return found != jobs_.end() ? &found->second : nullptr;
}

Job *Jobs::find(const std::string &name) {
    const auto found = names_.find(name);
    return found != names_.end() ? find(found->second) : nullptr;
}

std::optional<int64_t> Jobs::next_due() const {
    return due_.empty() ? std::nullopt : std::optional(due_.begin()->first);
}

// Of the starts that have gone by the last one counts, if it is young enough. Older ones are not even looked at: there
// may be any number of them.
Jobs::Due Jobs::pass(Job &job, int64_t now) {
    const int64_t oldest = now - catch_up_s_;
    const auto spec = spec_of(job);
    std::optional<int64_t> latest;
    for (auto start = schedule::next_start(spec, std::max(job.row.considered, oldest - 1)); start && start->at <= now;
         start = schedule::next_start(spec, start->at))
        latest = start->at;
    Due due = {job.row.id, latest.value_or(job.next_run), Fate::to_start};
    if (!latest)
        due.fate = Fate::too_old;
    else if (job.phase != Job::Phase::idle)
        due.fate = Fate::still_running;
    consider(job, latest.value_or(std::max(job.next_run, oldest - 1)));
    return due;
}

std::vector<Jobs::Due> Jobs::take_due(int64_t now) {
    std::vector<Due> taken;
    while (!due_.empty() && due_.begin()->first <= now)
        taken.push_back(pass(jobs_.at(due_.begin()->second), now));
    return taken;
}

bool Jobs::would_go_round(sched_job_id_t follower, sched_job_id_t followed) const {
    for (size_t steps = 0; steps <= jobs_.size(); ++steps) {
        if (followed == follower)
            return true;
        const auto found = jobs_.find(followed);
        if (found == jobs_.end() || found->second.schedule.kind != SCHED_KIND_SEQUENTIAL)
            return false;
        followed = found->second.schedule.u.sequential.follows_job;
    }
    return true;
}

} // namespace velia::server
