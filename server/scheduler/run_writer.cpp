// Whoever waits for a disk waits with all others: a commit costs the same for one run and for a hundred.
#include <server/scheduler/run_writer.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include <server/broker/service_process.h>
#include <server/loop/handles.h>
#include <server/registry/store.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr const char *this_program = "/proc/self/exe";
using What = RunStep::What;

// Behind this the run's file is the keeper's.
BegunProcess begin_keeper(const RunPaths &paths, const RunOrder &order, int *error_number) {
    const UniqueFd notes = make_run_file(paths.notes);
    const UniqueFd output(::open(paths.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW,
                                 S_IRUSR | S_IWUSR));
    const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    *error_number = errno;
    if (!notes || !output || !null)
        return {};
    auto arguments = keeper_arguments(order);
    arguments.insert(arguments.begin(), this_program);
    const Account own;
    return begin_process({arguments,
                          environment_of(own),
                          own,
                          {null.get(), null.get(), null.get(), notes.get(), output.get()},
                          true,
                          true},
                         error_number);
}

// A keeper on its way.
struct Making {
    RunTurn *turn;
    BegunProcess process;
    int error_number = 0;
};

Making begin_run(RunTurn &turn, const std::string &directory) {
    Making making = {&turn, {}, 0};
    try {
        if (turn.is_allowed)
            making.process = begin_keeper(run_paths(directory, turn.step.run), turn.order, &making.error_number);
    } catch (const std::bad_alloc &) {
        making.error_number = ENOMEM;
    }
    return making;
}

// It may go on without its keeper, if that was ended.
void take_end_from_file(RunTurn &turn, const std::string &directory) {
    const auto notes = read_run_file(run_paths(directory, turn.step.run).notes);
    if (turn.was_kept && notes && !notes->ended && notes->process > 0)
        kill(-notes->process, SIGKILL);
    turn.step.run = ended_run(turn.step.run, notes);
}

void end_unmade(RunRow &run, uint32_t exit_status, const std::string &words) {
    run.ended = time(nullptr);
    run.exit_status = exit_status;
    run.messages = words + "\n";
}

// Without one the run has ended.
void take_keeper(const Making &making, const std::string &directory) {
    RunTurn &turn = *making.turn;
    int error_number = making.error_number;
    turn.keeper = finish_process(making.process, &error_number);
    if (turn.keeper > 0)
        return;
    if (turn.is_allowed)
        unlink(run_paths(directory, turn.step.run).notes.c_str());
    end_unmade(turn.step.run, status_not_found,
               turn.is_allowed ? imsg_strerror(error_number) : "There is no such task, or nobody as whom it may run");
}

// Those of a failed transaction are not done; what failed, in words.
std::string record(JobStore &store, std::vector<RunStep *> &steps) {
    try {
        store.record(steps);
        return {};
    } catch (const StoreError &error) {
        return error.what();
    }
}

} // namespace

RunWriter::RunWriter(Worker &worker, OnWritten on_written) : worker_(worker), on_written_(std::move(on_written)) {}

void RunWriter::open(JobStore &store, std::string directory) {
    store_ = &store;
    directory_ = std::move(directory);
}

// What is added while it is told goes with the next ones.
void RunWriter::write() {
    if (is_writing_ || waiting_.empty())
        return;
    is_writing_ = true;
    const auto end = waiting_.begin() + static_cast<ptrdiff_t>(std::min(waiting_.size(), turns_max));
    const auto turns = std::make_shared<Turns>(std::make_move_iterator(waiting_.begin()), std::make_move_iterator(end));
    waiting_.erase(waiting_.begin(), end);
    worker_.submit_first({[this, turns] { do_turns(*turns); },
                          [this, turns] {
                              for (const auto &turn : *turns)
                                  tell(turn);
                              is_writing_ = false;
                              write();
                          }});
}

void RunWriter::tell(const RunTurn &turn) const {
    try {
        on_written_(turn);
    } catch (const std::bad_alloc &) {
        no_memory_for_event();
    }
}

void RunWriter::do_turns(Turns &turns) const {
    std::vector<RunStep *> steps;
    steps.reserve(turns.size());
    for (auto &turn : turns) {
        if (turn.step.what == What::end && turn.step.run.ended == 0)
            take_end_from_file(turn, directory_);
        steps.push_back(&turn.step);
    }
    const std::string fault = record(*store_, steps);
    for (auto &turn : turns)
        turn.fault = fault;
    for (const auto &turn : turns)
        if (turn.step.what == What::end && turn.step.is_done)
            unlink(run_paths(directory_, turn.step.run).notes.c_str());
    make_processes(turns);
}

// Many at a time: with other work on the host each takes a while to get a processor.
void RunWriter::make_processes(Turns &turns) const {
    std::vector<Making> makings;
    const auto finish = [&] {
        for (auto &making : makings)
            take_keeper(making, directory_);
        makings.clear();
    };
    for (auto &turn : turns) {
        if (turn.step.what != What::begin)
            continue;
        if (!turn.step.is_done) {
            end_unmade(turn.step.run, status_unknown, "The run could not be written down, and was not made.");
            continue;
        }
        makings.push_back(begin_run(turn, directory_));
        if (makings.size() == makings_max)
            finish();
    }
    finish();
}

RunRow ended_run(RunRow run, const std::optional<RunNotes> &notes) {
    if (notes && notes->ended) {
        run.ended = *notes->ended;
        run.exit_status = notes->exit_status;
        run.messages = notes->messages;
    } else {
        run.ended = time(nullptr);
        run.exit_status = status_unknown;
        run.messages = "The run's end is not known: its keeper was ended.\n";
    }
    return run;
}

} // namespace velia::server
