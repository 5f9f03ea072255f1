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
#include <server/scheduler/process_watch.h>
#include <server/scheduler/run_writer.h>
#include <server/scheduler/task.h>
#include <server/scheduler/wall_timer.h>

namespace velia::server {

struct SchedulerSettings {
    std::vector<Task> tasks;
    std::string notify_program; // empty: nobody is notified
    uint32_t runs_max = 16;
    uint32_t catch_up_s = 3600;
    uint32_t output_mib = 64;
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
    // Starts nothing any more. What runs goes on without the daemon.
    void stop() { is_open_ = false; }
    bool is_open() const { return is_open_; }

    uv_loop_t *loop() const { return loop_; }
    Jobs &jobs() { return jobs_; }
    AccessList &access() { return access_; }
    const std::vector<Task> &tasks() const { return settings_.tasks; }
    const Task *task(sched_task_id_t id) const;

    // Does the work in the thread, and then tells how it went in the loop. False: the sender's share is full.
    using Work = std::function<void(JobStore &)>;
    using Done = std::function<void(tbs_status_t)>;
    bool ask(const Sender &sender, Work work, Done done);

    // A job of that name is being made.
    bool is_on_the_way(const std::string &name) const { return on_the_way_.contains(name); }

    // What has been changed is due at another time, and the job's users are told.
    void take_up(const Job &job, sched_event_mask_t event, const std::string &what);
    void schedule();

    // By hand: answered once it has begun, with its start. TBS_ST_ALREADY_EXISTS for a job that runs, TBS_ST_TRY_AGAIN
    // where as many run as may.
    void run_by_hand(Job &job, const Begun &begun);
    // False: it does not run.
    bool terminate(sched_job_id_t id, int64_t started);

    // A job that is on disk no more. Its run ends, and what its runs put out goes.
    void remove(const Job &job);

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
        Begun begun;
    };

    void make_predefined();
    void forget_dropped();
    std::optional<JobRow> predefined_row(const DefinedJob &defined);
    void make(const DefinedJob &defined, const JobRow &row);
    void look();
    void pass_over(const Jobs::Due &due);
    void start_waiting();
    void begin(Job &job, const Start &start);
    void has_been_written(const RunTurn &turn);
    void has_begun(const RunTurn &turn);
    void keep(const RunRow &run, int32_t keeper);
    void adopt(const RunRow &run, bool is_of_this_boot, std::vector<sched_job_id_t> &owed);
    void give_back_slot();
    void take_end(const RunRow &run, bool was_kept);
    void has_ended(const RunRow &run, bool is_last);
    void tell_end(const Job &job, const RunRow &run);
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
    std::string directory_; // of the runs
    std::map<sched_job_id_t, Kept> kept_;
    std::deque<Start> waiting_;
    std::set<std::string> on_the_way_;
    std::set<std::string> dropped_; // definitions whose jobs were deleted
    size_t running_ = 0;
    std::vector<Unended> unended_;
    std::map<int32_t, std::unique_ptr<ProcessWatch>> notifiers_;
    WallTimer due_timer_;
    TimerHandle retry_timer_;
    std::unique_ptr<JobStore> store_; // the thread's
    RunWriter writer_;
    Worker worker_; // goes first
};

} // namespace velia::server
