// Where the scheduler's jobs, their runs and its access control list are kept. The interface is narrow so that another
// database can be put behind it; what the data mean is the scheduler's affair.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <veliaxdr/sched_runs.h>

namespace velia::server {

// Who did something, from where and when.
struct Deed {
    std::string who;
    std::string where;
    int64_t when = 0;
};

// A job on disk. The body is the record that its maker set, as it travels.
struct JobRow {
    sched_job_id_t id = 0;
    std::string body;
    std::optional<uint32_t> owner; // none: nobody whom the kernel knew
    Deed created;
    Deed changed;
    int64_t considered = 0;    // the start up to which all have been made or passed over
    int64_t changed_start = 0; // what "now" is, and nothing before it is made
    bool is_predefined = false;
    std::string definition; // of a predefined one: what it was made of

    // Where several daemons have the jobs.
    std::string host = {}; // that has to run it; empty: any
    uint64_t replaces = 0; // of a change: the mark of the body that it was made of; 0: of whatever is there
};

// Tells one body from another; never 0.
uint64_t mark_of(std::string_view body);

// One run. A job and a start name it.
struct RunRow {
    sched_job_id_t job = 0;
    int64_t started = 0;
    int64_t due = 0; // 0: by hand, or behind another job
    int64_t ended = 0;
    uint32_t exit_status = 0;
    std::string process_id;
    std::string messages;

    // Where several daemons have the jobs.
    std::string host = {};  // that runs it
    bool is_to_end = false; // somebody wants it ended
};

// Who changed what, in the log of changes.
struct ChangeRow {
    int64_t number = 0; // grows
    Deed deed;
    std::string what;
    sched_job_id_t job = 0; // 0: what is no job's
    std::string job_name;
    std::string fields; // of a changed job
};

struct JobContents {
    std::vector<JobRow> jobs;
    std::vector<RunRow> runs;         // of each job from the oldest to the youngest; one that has not ended has 0 there
    std::vector<sched_job_id_t> owed; // jobs whose followed one has ended, and that have not been started since
    std::vector<std::string> dropped; // definitions whose jobs were deleted
    std::string acl;
    std::string boot; // that was set last
};

// What is written down of a run.
struct RunStep {
    enum class What {
        begin,
        end,
        pass_over,         // a start, for which none is made; with 0 one that was owed
        pass_over_running, // the same, if a run of before goes on somewhere
        lose,              // the end of one whose daemon has gone: nobody knows it
    };
    // Why a step was not done that nothing failed of.
    enum class Refusal {
        none,
        taken,   // another daemon was quicker, or has another job by now
        running, // a run of before goes on: the start is passed over
    };
    What what = What::begin;
    RunRow run; // of a beginning the store may put off its moment, so that no two of a job have the same
    std::vector<sched_job_id_t> owed; // of an end: that are to be started now; a shared store tells which they are
    std::optional<ChangeRow> removal; // of an end: the job goes with it; none afterwards where it does not
    uint64_t mark = 0;                // of a beginning or a removal: of the job's body; 0: of whatever is there
    int64_t changed_start = 0;        // of a removal: as it was when that was found; 0: whatever it is
    bool is_owed = false;             // of a beginning: made only if it is owed still
    bool is_done = false;
    Refusal refusal = Refusal::none;
};

// Many changes at once. The new jobs get their numbers while it is written, one behind the other.
struct JobSet {
    uint64_t state = 0; // that the jobs are in, or nothing is done
    std::vector<JobRow> added;
    std::vector<JobRow> changed;
    std::vector<sched_job_id_t> removed;
    std::vector<ChangeRow> notes;                           // one for each of them, in this order
    std::function<void(sched_job_id_t first)> take_numbers; // called before anything is written
};

// One number for all that jobs are: of their ids and bodies, in the order of the ids.
class JobsState {
public:
    void add(sched_job_id_t id, std::string_view body);
    uint64_t value() const { return value_; }

private:
    uint64_t value_ = 0xCBF29CE484222325;
};

// All that a store has, for another one.
struct JobStock {
    JobContents contents;
    std::vector<ChangeRow> notes;   // the youngest first
    sched_job_id_t last_number = 0; // that a job has had
};

// All but reading are one transaction each, and on disk when they return. A failure is a StoreError.
class JobStore {
public:
    JobStore() = default;
    virtual ~JobStore() = default;
    JobStore(const JobStore &) = delete;
    JobStore &operator=(const JobStore &) = delete;

    virtual JobContents read() = 0;

    // Each of these goes into the log of changes, together with what it does.
    // The number of the new job, never one that another had.
    virtual sched_job_id_t add(const JobRow &row, const ChangeRow &change) = 0;
    // False: there is no such job, and nothing is noted.
    virtual bool change(const JobRow &row, const ChangeRow &change) = 0;
    virtual bool remove(sched_job_id_t id, const ChangeRow &change) = 0;
    // A StoreBusy while a run of it goes on.
    virtual bool remove_idle(sched_job_id_t id, const ChangeRow &change) = 0;
    virtual void set_acl(const std::string &acl, const ChangeRow &change) = 0;

    // Which start of the system it is.
    virtual void set_boot(const std::string &boot) = 0;

    // Changes of a job, or with 0 of all, before that number: the youngest first.
    virtual std::vector<ChangeRow> changes(sched_job_id_t job, int64_t before, uint32_t count_max) = 0;

    // False: the jobs are in another state, or one that is to be changed is not there.
    virtual bool apply(JobSet &set) = 0;

    // That their jobs were deleted is remembered no longer.
    virtual void forget_dropped(const std::vector<std::string> &definitions) = 0;

    // A run is about to begin: whatever becomes of it, none is begun for its start again.
    virtual void begin(const RunRow &run) = 0;
    // It did not, and its start may be made again, or is owed as before.
    virtual void forget(const RunRow &run, int64_t considered, bool is_owed) = 0;
    // It has ended; `owed` are to be started now; with `removal` the job goes, which is noted.
    virtual void end(const RunRow &run, const std::vector<sched_job_id_t> &owed,
                     const std::optional<ChangeRow> &removal) = 0;
    // The highest that a job has had.
    virtual sched_job_id_t last_number() = 0;
    // What another store has, with its numbers. A StoreError where there are jobs.
    virtual void put_all(const JobStock &stock) = 0;

    // Such steps together, in their order. One that fails leaves the others be; with a StoreError none is done.
    virtual void record(std::vector<RunStep *> &steps) = 0;
};

// How many ended runs of a job are kept.
constexpr int64_t runs_kept = 20;
constexpr int64_t changes_kept = SCHED_CHANGES_KEPT;

// Opens the scheduler's database, and makes it if it is not there. One of a newer version, or that something else has
// made, is refused and left as it is.
std::unique_ptr<JobStore> open_job_store(const std::string &file_name);

} // namespace velia::server
