// What begins, ends and is passed over is written down before anything comes of it: all that has come while the last
// of it was being written, in one transaction. Behind that the processes of what begins are made. All of it is done in
// the scheduler's thread, and told in the loop.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <server/loop/worker.h>
#include <server/scheduler/job_store.h>
#include <server/scheduler/keeper.h>
#include <server/scheduler/run_file.h>

namespace velia::server {

// What a caller who has it run by hand is told.
using Begun = std::function<void(tbs_status_t, int64_t started)>;

// A step of a run with what belongs to it.
struct RunTurn {
    RunStep step;
    std::string fault; // why it was not written down; empty: it was, or it was refused

    // Of one that begins.
    RunOrder order;
    bool is_allowed = false;
    Begun begun;
    int32_t keeper = -1; // positive: its process

    // Of one that has ended.
    bool was_kept = false; // by this daemon
};

class RunWriter {
public:
    using OnWritten = std::function<void(const RunTurn &)>;
    RunWriter(Worker &worker, OnWritten on_written);

    // Before anything is added.
    void open(JobStore &store, std::string directory);

    void add(RunTurn turn) { waiting_.push_back(std::move(turn)); }
    // What was added, now or behind what is being written.
    void write();

private:
    // So many together that one transaction serves all who end at once, and so few that none waits long for the rest.
    static constexpr size_t turns_max = 256;
    static constexpr size_t makings_max = 8; // each is a copy of the daemon for a moment, and others wait for it
    using Turns = std::vector<RunTurn>;

    void do_turns(Turns &turns) const;
    void make_processes(Turns &turns) const;
    void tell(const RunTurn &turn) const;

    Worker &worker_;
    const OnWritten on_written_;
    JobStore *store_ = nullptr;
    std::string directory_;
    std::deque<RunTurn> waiting_;
    bool is_writing_ = false;
};

// Of a run whose end nobody has told.
constexpr uint32_t status_unknown = 255;

// What a run's file says of its end, which nobody may have told: its keeper itself was ended.
RunRow ended_run(RunRow run, const std::optional<RunNotes> &notes);

} // namespace velia::server
