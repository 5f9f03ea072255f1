// A thread with a store of its own. What it is asked comes in turn from those who ask, and an answer is the loop's.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <server/loop/worker.h>
#include <server/registry/store.h>
#include <support/tbs.h>

namespace velia::server {

// Why there is no answer.
struct StoreFailure {
    tbs_status_t status =
        TBS_ST_OK; // NO_SERVER: no store is open; TRY_AGAIN: somebody has it, or it is away; ERROR: see the words
    std::string words;
    bool is_final = false; // it may have been done, so it is not tried again
};

class StoreWorker {
public:
    struct Task {
        std::function<void(Store &)> work;              // in the thread; may throw, and may be done again then
        std::function<void(const StoreFailure &)> done; // in the loop
    };

    // `is_writer`: what waits is done together, so that all of it costs one wait for the disk.
    StoreWorker(uv_loop_t *loop, const Worker::Shape &shape, bool is_writer);

    // False: the sender's share, or all the room, is full.
    bool submit(const Sender &sender, Task task);

    // The store that this opens from now on, when it is asked; null where there is none. No opener: none; it is closed.
    using Opener = std::function<std::unique_ptr<Store>()>;
    void use(Opener open);

    // What this opens answers while that one is away. No opener: nothing does.
    void use_meanwhile(Opener open);

    // Does what concerns the store itself, which may be null, before all that waits. It throws nothing.
    void change(std::function<void(std::unique_ptr<Store> &)> work, std::function<void()> done);

    // Until all that was asked for has been done and told.
    void wait() { worker_.wait(); }

private:
    void run(Task &task, StoreFailure &failure);
    void run_together(Worker::Batch &batch);
    Store &store();
    void work_meanwhile(Task &task);
    void tell_who_has_it(const StoreFailure &failure);

    // The thread's.
    std::unique_ptr<Store> store_;
    Opener open_;
    std::unique_ptr<Store> meanwhile_;
    Opener open_meanwhile_;
    bool is_together_ = false;
    bool is_busy_told_ = false;
    std::optional<StoreFailure> refusal_; // of all that is being done together

    Worker worker_; // goes first
};

} // namespace velia::server
