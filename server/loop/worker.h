// A thread that does what the loop must not wait for: what waits for a disk or for a lock, or takes long. Its work is
// taken in turn from those who want it; that it is done becomes an event of the loop.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <uv.h>

#include <server/loop/fair_queue.h>

namespace velia::server {

class Worker {
public:
    struct Job {
        std::function<void()> work; // in the thread; throws nothing
        std::function<void()> done; // in the loop, afterwards
    };
    using Batch = std::vector<Job>;

    struct Shape {
        Shares shares;
        size_t batch_max = 1; // jobs that are handed over together
        int niceness = 0;
    };

    // `run_batch` does the work of several jobs together, in place of one after the other.
    Worker(uv_loop_t *loop, const Shape &shape, std::function<void(Batch &)> run_batch = {});
    // Waits for what is being done. What waits is not done, and nothing is told any more.
    ~Worker();
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    // False: the sender's share, or all the room, is full.
    bool submit(const Sender &sender, Job job);

    // Before everything that waits, and by itself.
    void submit_first(Job job);

    // Until all that was submitted has been done and told; in the loop's thread, where nothing else is to happen.
    void wait();

private:
    void run();
    bool take(Batch &batch);
    void finish();

    const Shape shape_;
    const std::function<void(Batch &)> run_batch_;
    std::mutex lock_; // of what follows, up to the thread
    std::condition_variable is_wanted_;
    std::condition_variable is_idle_;
    size_t unended_ = 0; // jobs that wait or are being done
    FairQueue<Job> waiting_;
    std::deque<Job> urgent_;
    Batch ended_;
    bool is_over_ = false;
    uv_async_t *wake_loop_;
    std::thread thread_;
};

} // namespace velia::server
