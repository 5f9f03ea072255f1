// Jobs that several daemons have together. What one of them changes the others learn by asking what is new.
#pragma once

#include <functional>

#include <server/loop/handles.h>
#include <server/scheduler/job_store.h>

namespace velia::server {

// What is new behind a number, all of it as it was at one moment.
struct JobNews {
    int64_t number = -1;       // to ask from the next time
    bool has_contents = false; // something has changed
    bool is_all = false;       // jobs that are not there are gone

    // Jobs that have changed, or a run of which has, with those of their runs that have changed or have not ended.
    // Starts that are owed, definitions that were dropped, and the access list are there whole.
    JobContents contents;
    std::vector<sched_job_id_t> gone;
    std::vector<RunRow> lost;            // that have not ended, of hosts whose daemons are taken for gone
    std::vector<std::string> hosts_away; // that have to run a job, and have no daemon
};

// A host and how long ago its daemon told that it lives.
struct HostHeard {
    std::string host;
    int64_t seconds = 0;
};

class SharedJobStore : public JobStore {
public:
    // What is new behind that number, with -1 all. It tells the others, too, that this daemon lives. One that has not
    // told it for `take_over_s` is taken for gone, if this one has asked for so long, again and again: were all of them
    // without their database, one is the first to be back. A StoreError where another daemon has taken this one's name.
    virtual JobNews follow(int64_t since, uint32_t take_over_s) = 0;

    // Tells the others that this daemon lives, over a connection of its own, while a call of this store waits: for any
    // thread, and for longer than the store. It throws as any call.
    virtual std::function<void()> life() const = 0;

    // The host that has to run the job; the empty name: any. False: there is no such job.
    virtual bool set_host(sched_job_id_t id, const std::string &host, const ChangeRow &change) = 0;

    // Other hosts whose daemons have told within that time that they live.
    virtual std::vector<HostHeard> others_heard(uint32_t within_s) = 0;

    // Takes all jobs and their runs away: they are elsewhere.
    virtual void clear() = 0;

    // Whose run it is ends it. False: it does not run.
    virtual bool ask_to_end(const RunRow &run) = 0;
};

// Opens the jobs in this database as the daemon of that host, and makes their tables where there are none.
using Milliseconds = std::function<int64_t()>; // of a clock that nobody sets
std::unique_ptr<SharedJobStore> open_postgres_job_store(const std::string &conninfo, const std::string &host,
                                                        Milliseconds clock = monotonic_ms);

} // namespace velia::server
