// The jobs of this host, and which of them is due when. It knows neither a clock nor a process: it is given the time,
// and tells what is to be started.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <schedule/next_start.h>
#include <server/scheduler/followers.h>
#include <server/scheduler/job_store.h>
#include <server/scheduler/xdr_bytes.h>

namespace velia::server {

using JobBody = OwnedRecord<sched_job_utc_rw_props_t, xdr_sched_job_utc_rw_props_t>;

struct Job {
    enum class Phase { idle, waiting, running };

    JobRow row;
    std::string name;
    sched_schedule_t schedule = {};
    sched_task_id_t task = 0;
    bool is_deleted_when_completed = false;
    std::vector<RunRow> runs; // that have ended, the youngest last
    Phase phase = Phase::idle;
    RunRow run;           // while it runs
    bool is_ours = false; // what runs, or is being begun or written down as ended, is this daemon's
    RunRow elsewhere;     // where several daemons have the jobs: the run that is another's; none: its start is 0
    bool has_unknown_run = false;  // the same: one of this daemon was told while it was beginning another
    int64_t considered_by_all = 0; // the same: of the starts, as was last heard
    int64_t passes_told_of = 0;    // the run during which a start was told to be passed over
    int untold_passes = 0;         // of that run, behind the first one
    int64_t next_run = 0;
    uint64_t version = 0; // of what clients see of it

    bool has_completed() const { return next_run == schedule::next_run_never; }
};

class Jobs {
public:
    // What has become of a start whose time has come.
    enum class Fate {
        to_start,
        still_running, // of before, so that it is passed over
        too_old,       // the same
    };
    struct Due {
        sched_job_id_t job;
        int64_t start;
        Fate fate;
    };

    void set_zone(schedule::Zone zone);
    const schedule::Zone &zone() const { return zone_; }
    void set_catch_up(int64_t seconds) { catch_up_s_ = seconds; }

    // Where several daemons have the jobs: which of them are this one's to start.
    void set_host(std::string host) { host_ = std::move(host); }
    bool may_start(const Job &job) const { return job.row.host.empty() || job.row.host == host_; }

    // As they were read. A body that cannot be decoded is left out and counted.
    size_t load(const JobContents &contents);

    bool add(const JobRow &row);
    bool change(const JobRow &row);
    // What another daemon made of it: also starts that were considered here are as that has them.
    bool take(const JobRow &row);
    static void put_run(Job &job, const RunRow &run); // in its place, or in that of the one with its start
    void remove(sched_job_id_t id);

    Job *find(sched_job_id_t id);
    Job *find(const std::string &name);
    const std::map<sched_job_id_t, Job> &all() const { return jobs_; }

    // The earliest moment at which take_due() has something.
    std::optional<int64_t> next_due() const;
    std::vector<Due> take_due(int64_t now);

    // The next run, after starts have been made or passed over, or are to be made again.
    void consider(Job &job, int64_t considered);

    std::vector<sched_job_id_t> followers_of(sched_job_id_t id) const { return followers_.of(id); }
    // Whether `follower` would, by whatever way, follow itself.
    bool would_go_round(sched_job_id_t follower, sched_job_id_t followed) const;

    // What clients see of the job, or of all, has changed.
    void touch(Job &job) { job.version = ++version_; }
    uint64_t version() const { return version_; }

    // Behind which moment the starts are that a job will make, if it is `now`.
    static int64_t to_come_behind(const Job &job, int64_t now) { return std::max(now - 1, job.row.considered); }

    // Points into the job, and to the zone.
    schedule::Spec spec_of(const Job &job) const;

private:
    bool take_body(Job &job) const;
    void reckon(Job &job);
    void forget_due(const Job &job) { due_.erase({job.next_run, job.row.id}); }
    Due pass(Job &job, int64_t now);

    schedule::Zone zone_;
    int64_t catch_up_s_ = 3600;
    std::string host_;
    std::map<sched_job_id_t, Job> jobs_;
    std::map<std::string, sched_job_id_t> names_;
    std::set<std::pair<int64_t, sched_job_id_t>> due_;
    Followers<> followers_;
    uint64_t version_ = 1;
};

} // namespace velia::server
