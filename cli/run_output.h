// What a run of a job puts out, on its way from the scheduler to whoever looks.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include <cli/command.h>
#include <cli/jobs.h>
#include <cli/results.h>

namespace velia::cli {

// False: nobody takes any more.
using TakePiece = std::function<bool(std::string_view piece)>;

// What cannot be had is told.
class RunOutput {
public:
    // With a start of 0 it is the run that is on, or else the last one.
    RunOutput(const SchedulerHandle &scheduler, std::string host, const sched_running_job_handle &run)
        : scheduler_(scheduler), host_(std::move(host)), run_(run) {}

    // All that there is by now. True: and it was all.
    bool show(const Settings &settings, const TakePiece &take);
    // As it comes, until the run has ended. Where it put out nothing, what the scheduler says of it.
    bool follow(const Settings &settings, const TakePiece &take);

    uint32_t exit_status() const { return exit_status_; } // once it was followed

private:
    enum class State { more, end_for_now, end, failed };
    State take_piece(const Settings &settings, const TakePiece &take);
    bool take_end(const TakePiece &take);

    const SchedulerHandle &scheduler_;
    std::string host_;
    sched_running_job_handle run_;
    uint64_t offset_ = 0;
    uint32_t exit_status_ = 0;
};

// A text to a stream as it is; to a terminal with escapes in the place of what that would obey.
class TextSink {
public:
    TextSink(std::ostream &stream, bool is_terminal) : stream_(stream), is_terminal_(is_terminal) {}
    // False: it is lost.
    bool write(std::string_view piece);

private:
    std::ostream &stream_;
    bool is_terminal_;
    std::string held_; // the beginning of a character
};

extern const Output log_output;

// Output as results: as it is, or by lines as JSON has them.
class LogWriter {
public:
    // One that follows shows each piece at once.
    LogWriter(const Settings &settings, bool follows);
    bool write(std::string_view piece);
    void finish();

private:
    bool write_lines(std::string_view piece);

    std::optional<Results> results_; // of JSON
    TextSink sink_;
    bool follows_;
    std::string begun_; // of a line
};

} // namespace velia::cli
