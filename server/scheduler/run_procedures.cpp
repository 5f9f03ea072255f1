// What became of jobs: their runs, the output of these, and who changed what.
#include <server/scheduler/procedures.h>

#include <algorithm>
#include <ctime>
#include <limits>

#include <server/scheduler/run_file.h>

namespace velia::server {

namespace {

constexpr size_t host_bytes_max = 255;

// With 0 the run that is on, or else the last one.
const RunRow *run_of(const Job &job, int64_t started) {
    const bool is_running = job.phase == Job::Phase::running;
    if (is_running && (started == 0 || job.run.started == started))
        return &job.run;
    if (started == 0)
        return job.runs.empty() ? nullptr : &job.runs.back();
    const auto found =
        std::find_if(job.runs.begin(), job.runs.end(), [&](const RunRow &run) { return run.started == started; });
    return found != job.runs.end() ? &*found : nullptr;
}

sched_run_t lent(const RunRow &run) {
    return {run.started, run.due, run.ended, run.exit_status, unowned(run.process_id), unowned(run.messages)};
}

sched_next_run_t next_run(const schedule::Start &start, const schedule::Zone &zone) {
    return {start.at, static_cast<int32_t>(zone.offset_at(start.at)), static_cast<uint32_t>(start.shift)};
}
static_assert(static_cast<int>(schedule::Shift::moved) == SCHED_SHIFT_MOVED);
static_assert(static_cast<int>(schedule::Shift::first) == SCHED_SHIFT_FIRST);
static_assert(static_cast<int>(schedule::Shift::second) == SCHED_SHIFT_SECOND);

sched_change_t lent(const ChangeRow &change) {
    return {static_cast<uint64_t>(change.number),
            change.deed.when,
            unowned(change.deed.who),
            unowned(change.deed.where),
            unowned(change.what),
            change.job,
            unowned(change.job_name),
            unowned(change.fields)};
}

} // namespace

// Whether it has ended is looked at before the file is read: of one that has, all is there.
void SchedulerProcedures::run_get_output(const sched_run_output_request_t &request, const Caller &caller,
                                         To<sched_run_output_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(request.job_id);
    const RunRow *run = job != nullptr ? run_of(*job, request.started) : nullptr;
    if (run == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    if (scheduler_.is_elsewhere(*run))
        return answer(TBS_ST_UNSUPPORTED, {});
    const auto piece = std::make_shared<std::optional<OutputPiece>>();
    const uint32_t size_max = std::min<uint32_t>(request.size_max, SCHED_RUN_PIECE_MAX);
    const bool is_taken = scheduler_.ask(
        sender_of(caller),
        [piece, path = scheduler_.output_path(*run), offset = request.offset, size_max](JobStore & /*store*/) {
            *piece = read_output(path, offset, size_max);
        },
        [piece, started = run->started, ended = run->ended, answer](tbs_status_t status) {
            if (!*piece && ended == 0)
                *piece = OutputPiece{}; // it is being begun
            if (status != TBS_ST_OK || !*piece)
                return answer(status != TBS_ST_OK ? status : tbs_status_t{TBS_ST_NOT_FOUND}, {});
            auto &bytes = (*piece)->bytes;
            answer(TBS_ST_OK,
                   {TBS_ST_OK, {started, ended, (*piece)->total, static_cast<uint32_t>(bytes.size()), bytes.data()}});
        });
    if (!is_taken)
        answer(TBS_ST_TRY_AGAIN, {});
}

void SchedulerProcedures::run_get_history(const sched_run_history_request_t &request, const Caller & /*caller*/,
                                          To<sched_run_history_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(request.job_id);
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    std::vector<sched_run_t> runs;
    for (const auto &run : job->runs)
        runs.push_back(lent(run));
    if (job->phase == Job::Phase::running)
        runs.push_back(lent(job->run));
    answer(TBS_ST_OK, {TBS_ST_OK, static_cast<uint32_t>(runs.size()), runs.data()});
}

void SchedulerProcedures::get_changes(const sched_changes_request_t &request, const Caller &caller,
                                      To<sched_changes_reply_t> answer) {
    constexpr int64_t last = std::numeric_limits<int64_t>::max();
    const auto before = request.before == 0 || request.before > static_cast<uint64_t>(last)
                            ? last
                            : static_cast<int64_t>(request.before);
    const uint32_t count_max = std::min<uint32_t>(request.count_max, SCHED_CHANGES_MAX);
    const auto found = std::make_shared<std::vector<ChangeRow>>();
    const bool is_taken = scheduler_.ask(
        sender_of(caller),
        [found, job = request.job_id, before, count_max](JobStore &store) {
            *found = store.changes(job, before, count_max);
        },
        [found, answer](tbs_status_t status) {
            std::vector<sched_change_t> changes;
            for (const auto &change : *found)
                changes.push_back(lent(change));
            answer(status, {status, static_cast<uint32_t>(changes.size()), changes.data()});
        });
    if (!is_taken)
        answer(TBS_ST_TRY_AGAIN, {});
}

// In the thread: of a schedule that runs seldom many days are looked at. The zone is never another once jobs are
// served.
void SchedulerProcedures::get_next_runs(const sched_next_runs_request_t &request, const Caller &caller,
                                        To<sched_next_runs_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(request.job_id);
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    const auto after = request.after != 0 ? request.after : Jobs::to_come_behind(*job, time(nullptr));
    const uint32_t count_max = std::min<uint32_t>(request.count_max, SCHED_NEXT_RUNS_MAX);
    const auto found = std::make_shared<std::vector<sched_next_run_t>>();
    const bool is_taken = scheduler_.ask(
        sender_of(caller),
        [found, after, count_max, kind = job->schedule, spec = scheduler_.jobs().spec_of(*job)](JobStore & /*store*/) {
            auto own = spec;
            own.schedule = &kind;
            if (kind.kind == SCHED_KIND_SEQUENTIAL)
                return;
            for (auto start = schedule::next_start(own, after); start && found->size() < count_max;
                 start = schedule::next_start(own, start->at))
                found->push_back(next_run(*start, *own.zone));
        },
        [found, answer](tbs_status_t status) {
            answer(status, {status, static_cast<uint32_t>(found->size()), found->data()});
        });
    if (!is_taken)
        answer(TBS_ST_TRY_AGAIN, {});
}

void SchedulerProcedures::job_set_host(const sched_set_host_request_t &request, const Caller &caller,
                                       To<sched_set_host_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(request.job_id);
    const std::string host = request.host != nullptr ? request.host : "";
    const auto refuse = [&](tbs_status_t status) { answer(status, {}); };
    if (!scheduler_.is_shared())
        return refuse(TBS_ST_UNSUPPORTED);
    if (job == nullptr)
        return refuse(TBS_ST_NOT_FOUND);
    if (!is_owner(*job, caller))
        return refuse(TBS_ST_NO_ACCESS);
    if (host.size() > host_bytes_max)
        return refuse(TBS_ST_NAME_TOO_LONG);
    const bool is_taken = scheduler_.set_host(
        sender_of(caller), *job, host, [doer = doer_of(caller)] { return deed_of(doer, time(nullptr)); },
        [answer](tbs_status_t status) { answer(status, {status}); });
    if (!is_taken)
        refuse(TBS_ST_TRY_AGAIN);
}

void SchedulerProcedures::job_create_at_host(const sched_create_at_host_request_t &request, const Caller &caller,
                                             To<sched_create_at_host_reply_t> answer) {
    const std::string host = request.host != nullptr ? request.host : "";
    if (!scheduler_.is_shared())
        return answer(TBS_ST_UNSUPPORTED, {});
    if (host.size() > host_bytes_max)
        return answer(TBS_ST_NAME_TOO_LONG, {});
    sched_job_utc_rw_props_t props = {{}, request.job};
    create(props, host, caller, [answer](tbs_status_t status, sched_job_id_t id, const uint32_t *err_mask) {
        answer(status, {status, id, err_mask != nullptr ? *err_mask : 0});
    });
}

void SchedulerProcedures::get_job_hosts(const sched_job_hosts_request_t &request, const Caller & /*caller*/,
                                        To<sched_job_hosts_reply_t> answer) {
    const auto &jobs = scheduler_.jobs().all();
    const uint32_t count_max = std::min<uint32_t>(request.count_max, SCHED_JOB_HOSTS_MAX);
    std::vector<sched_job_host_t> hosts;
    for (auto each = jobs.upper_bound(request.after); each != jobs.end() && hosts.size() < count_max; ++each) {
        const Job &job = each->second;
        const RunRow *run = run_of(job, 0);
        const std::string &run_host = run != nullptr ? run->host : job.run.host;
        if (!job.row.host.empty() || !run_host.empty())
            hosts.push_back({each->first, unowned(job.row.host), unowned(run_host)});
    }
    answer(TBS_ST_OK, {TBS_ST_OK, static_cast<uint32_t>(hosts.size()), hosts.data()});
}

} // namespace velia::server
