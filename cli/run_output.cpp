#include <cli/run_output.h>

#include <algorithm>
#include <iostream>

#include <cli/streams.h>
#include <cli/text.h>
#include <cli/waits.h>
#include <veliaxdr/sched_runs.h>

namespace velia::cli {

namespace {

constexpr std::chrono::milliseconds between_looks{200};

constexpr Column log_columns[] = {{"line", Type::text, "of what the run put out"}};

// How many bytes at the end are the beginning of a character that is not whole.
size_t unfinished_bytes(std::string_view text) {
    constexpr size_t longest = 4;
    for (size_t back = 1; back < longest && back <= text.size(); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if (byte < 0x80)
            return 0;
        if (byte < 0xC0)
            continue;
        const size_t whole = byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : longest;
        return back < whole ? back : 0;
    }
    return 0;
}

} // namespace

constexpr Output log_output = {Output::Shape::list, log_columns};

RunOutput::State RunOutput::take_piece(const Settings &settings, const TakePiece &take) {
    begin_wait(settings.timeout);
    sched_run_output_t piece = {};
    const auto status =
        sched_run_get_output(scheduler_.get(), run_.job_id, run_.started, offset_, SCHED_RUN_PIECE_MAX, &piece);
    State state = piece.size != 0 ? State::more : piece.ended != 0 ? State::end : State::end_for_now;
    if (status == TBS_ST_NOT_FOUND && run_.started != 0 && offset_ == 0)
        state = State::end; // of one that was not made there is no output, but a word of the scheduler's
    else if (status != TBS_ST_OK) {
        const std::string where =
            status == TBS_ST_UNSUPPORTED ? hosts_of_jobs(scheduler_, run_.job_id)[run_.job_id].run_host : "";
        fail_of_scheduler(status, host_,
                          where.empty() ? "The output of the run cannot be had"
                                        : "The output of the run is at host " + where + ", whose daemon has it");
        state = State::failed;
    } else {
        run_.started = piece.started;
        offset_ += piece.size;
        if (piece.size != 0 && !take({piece.bytes, piece.size}))
            state = State::failed;
    }
    sched_run_free_output(scheduler_.get(), &piece);
    return state;
}

bool RunOutput::show(const Settings &settings, const TakePiece &take) {
    State state = State::more;
    while (state == State::more && !are_waits_over())
        state = take_piece(settings, take);
    return state == State::end_for_now || (state == State::end && take_end(take));
}

bool RunOutput::follow(const Settings &settings, const TakePiece &take) {
    while (!are_waits_over()) {
        const State state = take_piece(settings, take);
        if (state == State::failed)
            return false;
        if (state == State::end)
            return take_end(take);
        if (state == State::end_for_now && !wait_while_read(between_looks))
            return false;
    }
    return false;
}

bool RunOutput::take_end(const TakePiece &take) {
    sched_job_completion_info_t info = {};
    const auto status = sched_rjob_get_completion_info(scheduler_.get(), &run_, &info);
    bool is_taken = status == TBS_ST_OK;
    if (!is_taken)
        fail_of_scheduler(status, host_, "The end of the run cannot be had");
    else if (offset_ == 0 && info.messages != nullptr && *info.messages != '\0')
        is_taken = take(info.messages);
    exit_status_ = info.exit_status;
    sched_free_job_completion_info(scheduler_.get(), &info);
    return is_taken;
}

bool TextSink::write(std::string_view piece) {
    if (!is_terminal_) {
        stream_ << piece << std::flush;
        return stream_.good();
    }
    held_ += piece;
    const size_t whole = held_.size() - unfinished_bytes(held_);
    for (size_t at = 0; at < whole;) {
        const size_t end = std::min(held_.find('\n', at), whole);
        stream_ << escaped(held_.substr(at, end - at));
        if (end < whole)
            stream_ << '\n';
        at = end + 1;
    }
    held_.erase(0, whole);
    stream_ << std::flush;
    return stream_.good();
}

LogWriter::LogWriter(const Settings &settings, bool follows)
    : sink_(std::cout, is_terminal_for_results()), follows_(follows) {
    if (is_json(settings.format))
        results_.emplace(log_output, settings);
}

bool LogWriter::write(std::string_view piece) {
    if (results_)
        return write_lines(piece);
    return sink_.write(piece) || flush_results();
}

bool LogWriter::write_lines(std::string_view piece) {
    begun_ += piece;
    size_t at = 0;
    for (size_t end = begun_.find('\n'); end != std::string::npos; end = begun_.find('\n', at)) {
        results_->add({begun_.substr(at, end - at)});
        at = end + 1;
    }
    begun_.erase(0, at);
    return !follows_ || results_->show();
}

void LogWriter::finish() {
    if (results_ && !begun_.empty())
        results_->add({begun_});
    if (results_)
        results_->finish();
    else
        flush_results();
}

} // namespace velia::cli
