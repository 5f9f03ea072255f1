// The loop's end of a worker is one asynchronous handle: it is sent after the lock is given back, and however often it
// was sent, one event takes all that has ended.
#include <server/loop/worker.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iterator>
#include <new>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>

#include <server/loop/handles.h>

namespace velia::server {

namespace {

// Signals are the loop's.
void hold_signals(sigset_t *former) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, former);
}

} // namespace

Worker::Worker(uv_loop_t *loop, const Shape &shape, std::function<void(Batch &)> run_batch)
    : shape_(shape), run_batch_(std::move(run_batch)), waiting_(shape.shares), wake_loop_(new uv_async_t) {
    if (uv_async_init(loop, wake_loop_, [](uv_async_t *handle) {
            if (handle->data != nullptr)
                static_cast<Worker *>(handle->data)->finish();
        }) != 0) {
        delete wake_loop_;
        throw std::runtime_error("uv_async_init");
    }
    wake_loop_->data = this;
    uv_unref(reinterpret_cast<uv_handle_t *>(wake_loop_));
    sigset_t former;
    hold_signals(&former);
    thread_ = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

namespace {

// There is nobody to answer to in a thread: it waits until the loop has given some memory back.
template <class Body>
void with_memory(Body &&body) {
    constexpr std::chrono::milliseconds wait(1);
    for (;;)
        try {
            return body();
        } catch (const std::bad_alloc &) {
            std::this_thread::sleep_for(wait);
        }
}

} // namespace

Worker::~Worker() {
    {
        const std::lock_guard held(lock_);
        is_over_ = true;
    }
    is_wanted_.notify_one();
    thread_.join();
    wake_loop_->data = nullptr;
    uv_close(reinterpret_cast<uv_handle_t *>(wake_loop_),
             [](uv_handle_t *handle) { delete reinterpret_cast<uv_async_t *>(handle); });
}

bool Worker::submit(const Sender &sender, Job job) {
    {
        const std::lock_guard held(lock_);
        if (!waiting_.push(sender, std::move(job)))
            return false;
        ++unended_;
    }
    is_wanted_.notify_one();
    return true;
}

void Worker::submit_first(Job job) {
    {
        const std::lock_guard held(lock_);
        urgent_.push_back(std::move(job));
        ++unended_;
    }
    is_wanted_.notify_one();
}

// Waits until there is something to do; false at the end. An urgent job comes alone.
bool Worker::take(Batch &batch) {
    std::unique_lock held(lock_);
    is_wanted_.wait(held, [this] { return is_over_ || !urgent_.empty() || waiting_.size() != 0; });
    if (is_over_)
        return false;
    if (!urgent_.empty()) {
        batch.push_back(std::move(urgent_.front()));
        urgent_.pop_front();
        return true;
    }
    while (batch.size() < shape_.batch_max) // and so much room there is
        if (auto job = waiting_.pop())
            batch.push_back(std::move(*job));
        else
            break;
    return true;
}

void Worker::run() {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), shape_.niceness); // of this thread alone
    Batch batch;
    with_memory([&] { batch.reserve(std::max<size_t>(shape_.batch_max, 1)); });
    for (; take(batch); batch.clear()) {
        if (run_batch_ && batch.size() > 1)
            run_batch_(batch);
        else
            for (const Job &job : batch)
                job.work();
        with_memory([&] {
            const std::lock_guard held(lock_);
            ended_.reserve(ended_.size() + batch.size());
            std::move(batch.begin(), batch.end(), std::back_inserter(ended_));
            unended_ -= batch.size();
        });
        is_idle_.notify_one();
        uv_async_send(wake_loop_);
    }
}

void Worker::wait() {
    {
        std::unique_lock held(lock_);
        is_idle_.wait(held, [this] { return unended_ == 0; });
    }
    finish();
}

void Worker::finish() {
    Batch ended;
    {
        const std::lock_guard held(lock_);
        ended.swap(ended_);
    }
    for (const Job &job : ended)
        try {
            job.done();
        } catch (const std::bad_alloc &) {
            no_memory_for_event();
        }
}

} // namespace velia::server
