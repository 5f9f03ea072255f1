// The scheduler in the daemon: jobs in memory, their database in a thread, their runs in processes of their own. The
// loop waits for none of them.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <server/loop/worker.h>
#include <server/scheduler/access.h>
#include <server/scheduler/definitions.h>
#include <server/scheduler/jobs.h>
#include <server/scheduler/on_the_way.h>
#include <server/scheduler/process_watch.h>
#include <server/scheduler/run_writer.h>
#include <server/scheduler/shared_job_store.h>
#include <server/scheduler/task.h>
#include <server/scheduler/wall_timer.h>

namespace velia::server {

struct SchedulerSettings {
    std::vector<Task> tasks;
    std::string notify_program; // empty: nobody is notified
    uint32_t runs_max = 16;
    uint32_t catch_up_s = 3600;
    uint32_t output_mib = 64;
    uint32_t take_over_s = 120;       // where several daemons have the jobs: without a word one is taken for gone
    std::vector<DefinedJob> schedule; // of predefined jobs; what is there under its name stays as it is, and what was
                                      // deleted does not come again
};

class Scheduler {
public:
    explicit Scheduler(uv_loop_t *loop);

    void configure(const SchedulerSettings &settings);

    // Reads the database and finds the runs that outlived the daemon of before; for one that does not serve yet. Where
    // there is no way to the database that is told, and no job is served.
    void open();
    // The same for jobs that several daemons have together in this database, as that of this host. Where there is no
    // way to it jobs are served once there is.
    void open_shared(const std::string &conninfo, const std::string &host);
    // Starts nothing any more. What runs goes on without the daemon.
    void stop();
    bool is_open() const { return is_open_; }
    bool is_shared() const { return !conninfo_.empty(); }

    uv_loop_t *loop() const { return loop_; }
    Jobs &jobs() { return jobs_; }
    AccessList &access() { return access_; }
    const std::vector<Task> &tasks() const { return settings_.tasks; }
    const Task *task(sched_task_id_t id) const;

    // Does the work in the thread, and then tells how it went in the loop. False: the sender's share is full.
    using Work = std::function<void(JobStore &)>;
    using Done = std::function<void(tbs_status_t)>;
    bool ask(const Sender &sender, Work work, Done done);

    // Names of jobs that are being written: no other job gets them.
    NamesOnTheWay &names_on_the_way() { return names_on_the_way_; }
    // Jobs of which a change is being written: such a job does not go with its last run.
    ChangesOnTheWay &changes_on_the_way() { return changes_on_the_way_; }

    // What has been changed is due at another time, and the job's users are told.
    void take_up(const Job &job, sched_event_mask_t event, const std::string &what);
    void schedule();

    // By hand: answered once it has begun, with its start. TBS_ST_ALREADY_EXISTS for a job that runs, TBS_ST_TRY_AGAIN
    // where as many run as may.
    void run_by_hand(Job &job, const Begun &begun);
    // TBS_ST_NOT_FOUND: it does not run.
    void terminate(const Sender &sender, sched_job_id_t id, int64_t started, const Done &done);

    // The host whose daemon has to run it; the empty name: any. Told in the loop.
    bool set_host(const Sender &sender, const Job &job, const std::string &host, std::function<Deed()> deed, Done done);

    // A job that is on disk no more. Its run ends, and what its runs put out goes.
    void remove(const Job &job);

    // Another host's daemon has or had it, and its output.
    bool is_elsewhere(const RunRow &run) const { return is_shared() && !run.host.empty() && run.host != host_; }

    // The file of what a run has put out.
    std::string output_path(const RunRow &run) const;

    // As who a job of this owner runs; false for one that would have to run as root for somebody else.
    static bool may_run(const std::optional<uint32_t> &owner);

private:
    struct Kept {
        RunRow run;
        std::unique_ptr<ProcessWatch> watch;
    };
    // A run whose end could not be written yet, or whose keeper is another daemon's and not known yet.
    struct Unended {
        RunRow run;
        bool was_kept; // by this daemon
        bool has_slot; // it counts as one that runs
    };
    struct Start {
        sched_job_id_t job;
        int64_t due;
        bool is_owed;
        Begun begun;
    };
    // What the database said when it was asked what is new.
    struct Followed {
        uint64_t doubts = 0; // when it was asked
        bool is_there = false;
        std::string fault; // why not, where nobody else tells that
        JobNews news;
        std::optional<AccessList> access; // if it is another
    };
    using RunKey = std::pair<sched_job_id_t, int64_t>;
    enum class Standing { lives, never_began, has_ended };

    void prepare();
    void follow();
    void tell_life();
    void ask_what_is_new(Followed &followed, int64_t since, uint32_t take_over_s, const std::string &acl);
    void take(const Followed &followed);
    void tell_fault(const std::string &fault);
    void tell_hosts_away(const std::vector<std::string> &hosts);
    void take_news(const JobNews &news);
    void take_gone(const JobNews &news);
    void take_job(const JobRow &row, const std::vector<RunRow> &runs);
    void take_own_run(Job &job, RunRow run);
    void take_told_end(Job &job, const RunRow &run);
    void take_first(const JobNews &news);
    void put_run(Job &job, const RunRow &run);
    void forget_waiting(sched_job_id_t id);
    void forget_beginning(const RunRow &run);
    void lose(const RunRow &run);
    void settle(Job &job);
    void is_in_doubt(const std::string &fault);
    void ask_for_all();
    void has_not_begun(const RunTurn &turn);
    void has_passed(const RunTurn &turn);
    void has_been_lost(const RunTurn &turn);
    bool is_terminated(sched_job_id_t id, int64_t started);
    void end_own_run(sched_job_id_t id, int64_t started);
    Standing standing_of(const RunRow &run) const;
    void make_predefined();
    void forget_dropped();
    std::optional<JobRow> predefined_row(const DefinedJob &defined);
    void make(const DefinedJob &defined, const JobRow &row);
    void look();
    static void tell_passed(Job &job, Jobs::Fate fate);
    static void tell_untold_passes(Job &job);
    void pass_over(const Jobs::Due &due);
    void wait_for_slot(Job &job, int64_t due, bool is_owed);
    void start_waiting();
    void begin(Job &job, const Start &start);
    void has_been_written(const RunTurn &turn);
    void has_begun(const RunTurn &turn);
    void has_end_written(const RunTurn &turn);
    void keep(const RunRow &run, int32_t keeper);
    void adopt(const RunRow &run, std::vector<sched_job_id_t> &owed);
    void keep_watch_of(Job &job, const RunRow &run);
    void give_back_slot();
    void take_end(const RunRow &run, bool was_kept);
    void has_ended(const RunRow &run, bool is_last);
    void tell_end(Job &job, const RunRow &run);
    void start_followers(const std::vector<sched_job_id_t> &followers);
    void retry();
    void drop_output(const std::vector<RunRow> &runs);
    void clear_away();
    void notify(const Job &job, sched_event_mask_t event, const std::string &what);
    void notify(const std::string &subject, const std::vector<std::string> &recipients, const std::string &text);

    uv_loop_t *loop_;
    SchedulerSettings settings_;
    Jobs jobs_;
    AccessList access_;
    bool is_open_ = false;
    bool is_over_ = false;
    std::string directory_; // of the runs
    std::string boot_;
    bool is_of_this_boot_ = true; // what the database tells of runs that have not ended

    // Where several daemons have the jobs.
    std::string conninfo_;
    std::string host_;
    bool is_away_ = false; // nothing is begun: it could not be written down
    bool is_following_ = false;
    bool is_to_follow_ = false;  // once more
    int64_t followed_ = -1;      // what is new behind this is asked for
    std::function<void()> life_; // tells it over a connection of its own
    bool is_telling_life_ = false;
    uint64_t doubts_ = 0; // what was asked for before the last of them is no answer to it
    std::string told_fault_;
    std::set<RunKey> losing_;
    std::set<sched_job_id_t> told_waiting_; // for a host without a daemon
    std::set<std::string> made_by_others_;  // of the default schedule, it seems

    std::map<sched_job_id_t, Kept> kept_;
    std::deque<Start> waiting_;
    NamesOnTheWay names_on_the_way_;
    ChangesOnTheWay changes_on_the_way_;
    std::set<std::string> dropped_; // definitions whose jobs were deleted
    size_t running_ = 0;
    std::vector<Unended> unended_;
    std::map<int32_t, std::unique_ptr<ProcessWatch>> notifiers_;
    WallTimer due_timer_;
    TimerHandle retry_timer_;
    TimerHandle follow_timer_;
    TimerHandle life_timer_;
    std::unique_ptr<JobStore> store_;  // the thread's
    SharedJobStore *shared_ = nullptr; // the same, where it is one
    RunWriter writer_;
    std::unique_ptr<Worker> life_worker_; // where several daemons have the jobs
    Worker worker_;                       // goes first
};

} // namespace velia::server
