// Updates that wait at one moment are one transaction. Where that fails, none of them has been made, and each is tried
// by itself, so that the one that fails is the only one.
#include <server/registry/store_worker.h>

#include <utility>

#include <support/imsg.h>

namespace velia::server {

namespace {

class NoStore : public StoreError {
    using StoreError::StoreError;
};

// Without words, where there is no memory for them.
StoreFailure failed_with(const char *words) {
    try {
        return {TBS_ST_ERROR, words};
    } catch (const std::bad_alloc &) {
        return {TBS_ST_ERROR, ""};
    }
}

template <class Body>
StoreFailure failure_of(Body &&body) {
    try {
        body();
        return {};
    } catch (const NoStore &) {
        return {TBS_ST_NO_SERVER, ""};
    } catch (const StoreMoved &error) {
        StoreFailure failure = failed_with(error.what());
        failure.status = TBS_ST_NO_SERVER;
        return failure;
    } catch (const StoreAway &) { // told where it is noticed
        return {TBS_ST_TRY_AGAIN, ""};
    } catch (const StoreBusy &error) {
        StoreFailure failure = failed_with(error.what());
        failure.status = TBS_ST_TRY_AGAIN;
        return failure;
    } catch (const StoreUncertain &error) {
        StoreFailure failure = failed_with(error.what());
        failure.is_final = true;
        return failure;
    } catch (const std::exception &error) {
        return failed_with(error.what());
    }
}

} // namespace

StoreWorker::StoreWorker(uv_loop_t *loop, const Worker::Shape &shape, bool is_writer)
    : worker_(loop, shape,
              is_writer ? [this](Worker::Batch &batch) { run_together(batch); }
                        : std::function<void(Worker::Batch &)>()) {}

Store &StoreWorker::store() {
    if (store_ == nullptr && open_)
        store_ = open_();
    if (store_ == nullptr)
        throw NoStore("no registry is open");
    return *store_;
}

void StoreWorker::run(Task &task, StoreFailure &failure) {
    if (is_together_)
        return task.work(*store_);
    failure = refusal_ ? *refusal_ : failure_of([&] {
        try {
            store().refresh();
            task.work(*store_);
        } catch (const StoreAway &) {
            work_meanwhile(task);
        }
    });
    tell_who_has_it(failure);
}

// Whoever waits is only told to try again; why, the first of them tells the log, until one comes through.
void StoreWorker::tell_who_has_it(const StoreFailure &failure) {
    const bool is_busy = failure.status == TBS_ST_TRY_AGAIN && !failure.words.empty();
    if (is_busy && !std::exchange(is_busy_told_, true))
        imsg_print(IMSG_WARNING, "The registry is not to be had for now: %s\n", IMSG_FORMAT, failure.words.c_str());
    if (failure.status == TBS_ST_OK)
        is_busy_told_ = false;
}

// Within the handling of why.
void StoreWorker::work_meanwhile(Task &task) {
    if (meanwhile_ != nullptr && !meanwhile_->is_in_place())
        meanwhile_.reset();
    if (meanwhile_ == nullptr && open_meanwhile_)
        meanwhile_ = open_meanwhile_();
    if (meanwhile_ == nullptr)
        throw;
    meanwhile_->refresh();
    task.work(*meanwhile_);
}

void StoreWorker::run_together(Worker::Batch &batch) {
    const StoreFailure failure = failure_of([&] {
        store().refresh();
        is_together_ = true;
        store_->together([&] {
            for (const auto &job : batch)
                job.work();
        });
    });
    is_together_ = false;
    tell_who_has_it(failure);
    if (failure.status == TBS_ST_OK)
        return;
    if (failure.status != TBS_ST_ERROR || failure.is_final)
        refusal_ = failure;
    for (const auto &job : batch)
        job.work();
    refusal_.reset();
}

bool StoreWorker::submit(const Sender &sender, Task task) {
    struct Running {
        Task task;
        StoreFailure failure;
    };
    const auto running = std::make_shared<Running>(Running{std::move(task), {}});
    return worker_.submit(sender, {[this, running] { run(running->task, running->failure); },
                                   [running] { running->task.done(running->failure); }});
}

void StoreWorker::use(Opener open) {
    worker_.submit_first({[this, open = std::move(open)] {
                              store_.reset();
                              open_ = open;
                          },
                          [] {}});
}

void StoreWorker::use_meanwhile(Opener open) {
    worker_.submit_first({[this, open = std::move(open)] {
                              meanwhile_.reset();
                              open_meanwhile_ = open;
                          },
                          [] {}});
}

void StoreWorker::change(std::function<void(std::unique_ptr<Store> &)> work, std::function<void()> done) {
    worker_.submit_first({[this, work = std::move(work)] { work(store_); }, std::move(done)});
}

} // namespace velia::server
