// The event loop: timers, readable descriptors, events from other threads, and its end.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <support/pfm.h>
#include <support/rt.h>

#include "alloc_probe.h"
#include "test_site.h"

namespace {

using Action = std::function<void()>;

// The loop takes plain functions: this one carries out the action that its argument is.
void act(void *action) {
    (*static_cast<Action *>(action))();
}

class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0); }
    ~Pipe() {
        close(ends_[0]);
        close_writer();
    }
    int reader() const { return ends_[0]; }
    void put() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
    bool take() const {
        char byte;
        return read(ends_[0], &byte, 1) == 1;
    }
    void close_writer() {
        if (ends_[1] >= 0)
            close(ends_[1]);
        ends_[1] = -1;
    }

private:
    int ends_[2] = {-1, -1};
};

// Runs the loop in a thread; holds the loop open until it is left.
class LoopThread {
public:
    LoopThread() {
        rt_handle_fd(RT_READ, rt_forget, held_open_.reader(), &held_open_);
        thread_ = std::thread([this] { result_ = rt_run(); });
        Action tell = [this] {
            const std::lock_guard guard(lock_);
            is_in_loop_ = true;
            entered_.notify_all();
        };
        rt_sched(act, &tell, 0);
        std::unique_lock guard(lock_);
        entered_.wait(guard, [this] { return is_in_loop_; });
    }
    ~LoopThread() {
        held_open_.put();
        thread_.join();
        EXPECT_EQ(result_, 0);
    }

private:
    static void rt_forget(void *pipe) { rt_forget_fd(static_cast<Pipe *>(pipe)->reader()); }

    Pipe held_open_;
    std::mutex lock_;
    std::condition_variable entered_;
    bool is_in_loop_ = false;
    int result_ = -1;
    std::thread thread_;
};

// A flag that one thread sets and another waits for.
class Happening {
public:
    void happen() {
        const std::lock_guard guard(lock_);
        has_happened_ = true;
        happened_.notify_all();
    }
    bool wait() {
        std::unique_lock guard(lock_);
        return happened_.wait_for(guard, std::chrono::seconds(20), [this] { return has_happened_; });
    }

private:
    std::mutex lock_;
    std::condition_variable happened_;
    bool has_happened_ = false;
};

} // namespace

TEST(Timer, FiresOnceInTheLoop) {
    int count = 0;
    Action action = [&] { ++count; };
    EXPECT_NE(rt_sched(act, &action, 0), nullptr);
    EXPECT_EQ(count, 0) << "not before the loop runs";
    EXPECT_EQ(rt_run(), 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(rt_run(), 0);
    EXPECT_EQ(count, 1);
}

TEST(Timer, FiresWhenItsTimeHasCome) {
    const auto begin = std::chrono::steady_clock::now();
    std::string order;
    Action late = [&] { order += "late"; };
    Action early = [&] { order += "early "; };
    Action negative = [&] { order += "negative "; };
    rt_sched(act, &late, 1);
    rt_sched(act, &negative, -5);
    rt_sched(act, &early, 0);
    rt_run();
    EXPECT_EQ(order, "negative early late");
    // The loop's clock counts whole milliseconds.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(998));
}

TEST(Timer, MayArmAnotherAsItFires) {
    int count = 0;
    Action action = [&] {
        if (++count < 3)
            rt_sched(act, &action, 0);
    };
    rt_sched(act, &action, 0);
    rt_run();
    EXPECT_EQ(count, 3);
}

TEST(Timer, TakenBackDoesNotFire) {
    int count = 0;
    Action action = [&] { ++count; };
    rt_cancel(rt_sched(act, &action, 0));
    const rt_event_t running = rt_sched(act, &action, 3600);
    Action cancel = [&] { rt_cancel(running); };
    rt_sched(act, &cancel, 0);
    rt_cancel(nullptr);
    EXPECT_EQ(rt_run(), 0) << "no hour is waited for";
    EXPECT_EQ(count, 0);
}

TEST(Timer, WithoutMemoryThereIsNone) {
    Action action = [] {};
    rt_cancel(rt_sched(act, &action, 0));
    probe::fail_request(1);
    EXPECT_EQ(rt_sched(act, &action, 0), nullptr);
    probe::fail_request(0);
    EXPECT_EQ(rt_run(), 0);
}

TEST(ReadableDescriptor, CallsItsFunctionWheneverThereIsSomethingToRead) {
    Pipe pipe;
    int count = 0;
    Action action = [&] {
        EXPECT_TRUE(pipe.take());
        if (++count == 3)
            rt_forget_fd(pipe.reader());
        else
            pipe.put();
    };
    EXPECT_NE(rt_handle_fd(RT_READ, act, pipe.reader(), &action), 0);
    pipe.put();
    EXPECT_EQ(rt_run(), 0);
    EXPECT_EQ(count, 3);
}

TEST(ReadableDescriptor, TellsOfTheEndOfFile) {
    Pipe pipe;
    bool has_ended = false;
    Action action = [&] {
        has_ended = !pipe.take();
        rt_forget_fd(pipe.reader());
    };
    rt_handle_fd(RT_READ, act, pipe.reader(), &action);
    pipe.close_writer();
    rt_run();
    EXPECT_TRUE(has_ended);
}

TEST(ReadableDescriptor, BecomesNonBlocking) {
    Pipe pipe;
    pipe.put();
    Action action = [&] {
        EXPECT_NE(fcntl(pipe.reader(), F_GETFL) & O_NONBLOCK, 0);
        rt_forget_fd(pipe.reader());
    };
    rt_handle_fd(RT_READ, act, pipe.reader(), &action);
    rt_run();
}

TEST(ReadableDescriptor, WatchedAgainHasTheNewerFunction) {
    Pipe pipe;
    std::string called;
    Action older = [&] { called += "older "; };
    Action newer = [&] {
        called += "newer";
        rt_forget_fd(pipe.reader());
    };
    Action replace = [&] { rt_handle_fd(RT_READ, act, pipe.reader(), &newer); };
    rt_handle_fd(RT_READ, act, pipe.reader(), &older);
    rt_handle_fd(RT_READ, act, pipe.reader(), &replace);
    pipe.put();
    rt_run();
    EXPECT_EQ(called, "newer");
}

TEST(ReadableDescriptor, ForgottenIsNotWaitedFor) {
    Pipe pipe;
    bool is_called = false;
    Action action = [&] { is_called = true; };
    rt_handle_fd(RT_READ, act, pipe.reader(), &action);
    rt_forget_fd(pipe.reader());
    rt_forget_fd(pipe.reader());
    pipe.put();
    EXPECT_EQ(rt_run(), 0);
    EXPECT_FALSE(is_called);
}

TEST(ReadableDescriptor, NumberMayBeUsedAgainOnceForgottenAndClosed) {
    int count = 0;
    Action action;
    for (int round = 0; round < 3; ++round) {
        Pipe pipe;
        action = [&] {
            ++count;
            rt_forget_fd(pipe.reader());
        };
        ASSERT_NE(rt_handle_fd(RT_READ, act, pipe.reader(), &action), 0);
        pipe.put();
        ASSERT_EQ(rt_run(), 0);
    }
    EXPECT_EQ(count, 3);
}

TEST(ReadableDescriptor, ThatCannotBeWatchedIsRefused) {
    TestSite site;
    Pipe pipe;
    Action action = [] {};
    const int file = open(site.write("file", "text").c_str(), O_RDONLY);
    const int directory = open(site.path("").c_str(), O_RDONLY);
    EXPECT_EQ(rt_handle_fd(RT_READ, act, file, &action), 0);
    EXPECT_EQ(rt_handle_fd(RT_READ, act, directory, &action), 0);
    EXPECT_EQ(rt_handle_fd(RT_READ, act, -1, &action), 0);
    EXPECT_EQ(rt_handle_fd(RT_READ + 1, act, pipe.reader(), &action), 0);
    close(file);
    close(directory);
    EXPECT_EQ(rt_run(), 0);
}

TEST(ReadableDescriptor, WithoutMemoryIsRefused) {
    Pipe pipe;
    Action action = [] {};
    rt_cancel(rt_sched(act, &action, 0));
    probe::fail_request(1);
    EXPECT_EQ(rt_handle_fd(RT_READ, act, pipe.reader(), &action), 0);
    probe::fail_request(0);
    EXPECT_EQ(rt_run(), 0);
}

TEST(EventsOfOtherThreads, TimersTakeEffectAtOnce) {
    Happening fired;
    Action action = [&] { fired.happen(); };
    LoopThread loop;
    EXPECT_NE(rt_sched(act, &action, 0), nullptr);
    EXPECT_TRUE(fired.wait());
}

TEST(EventsOfOtherThreads, DescriptorsTakeEffectAtOnce) {
    Happening called;
    Pipe pipe;
    Action action = [&] {
        rt_forget_fd(pipe.reader());
        called.happen();
    };
    LoopThread loop;
    EXPECT_NE(rt_handle_fd(RT_READ, act, pipe.reader(), &action), 0);
    pipe.put();
    EXPECT_TRUE(called.wait());
}

TEST(EventsOfOtherThreads, AllAreCarriedOutHoweverManyThreadsAddThem) {
    constexpr size_t thread_count = 4;
    constexpr size_t event_count = 50;
    std::atomic<size_t> carried_out{0};
    Happening all_carried_out;
    Action count = [&] {
        if (++carried_out == 2 * thread_count * event_count)
            all_carried_out.happen();
    };
    std::vector<Pipe> pipes(thread_count * event_count);
    std::vector<Action> actions;
    for (const Pipe &pipe : pipes) {
        actions.emplace_back([&] {
            rt_forget_fd(pipe.reader());
            count();
        });
    }
    LoopThread loop;
    std::vector<std::thread> threads;
    for (size_t first = 0; first < pipes.size(); first += event_count) {
        threads.emplace_back([&, first] {
            for (size_t i = first; i < first + event_count; ++i) {
                EXPECT_NE(rt_sched(act, &count, 0), nullptr);
                EXPECT_NE(rt_handle_fd(RT_READ, act, pipes[i].reader(), &actions[i]), 0);
                pipes[i].put();
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_TRUE(all_carried_out.wait());
}

TEST(Loop, EndsWhenNothingIsLeftToWaitFor) {
    EXPECT_EQ(rt_run(), 0);
}

TEST(Loop, IsForOneThreadAtATime) {
    int inner = 0;
    int other = 0;
    Action action = [&] {
        inner = rt_run();
        std::thread([&] { other = rt_run(); }).join();
    };
    rt_sched(act, &action, 0);
    EXPECT_EQ(rt_run(), 0);
    EXPECT_NE(inner, 0);
    EXPECT_NE(other, 0);
}

TEST(Loop, StopsAfterTheFunctionThatSaysSo) {
    bool is_finished = false;
    Pipe pipe;
    Action never = [] { FAIL(); };
    Action action = [&] {
        rt_stop();
        is_finished = true;
    };
    rt_handle_fd(RT_READ, act, pipe.reader(), &never);
    rt_sched(act, &action, 0);
    EXPECT_EQ(rt_run(), 0);
    EXPECT_TRUE(is_finished);
    rt_forget_fd(pipe.reader());
    EXPECT_EQ(rt_run(), 0) << "the word counts for one run";
}

TEST(Loop, StoppedBeforeItRunsReturnsAtOnce) {
    int count = 0;
    Action action = [&] { ++count; };
    rt_sched(act, &action, 0);
    rt_stop();
    EXPECT_EQ(rt_run(), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(rt_run(), 0);
    EXPECT_EQ(count, 1) << "the timer is still armed";
}

TEST(Loop, StopsFromAnotherThread) {
    Pipe pipe;
    Action never = [] { FAIL(); };
    rt_handle_fd(RT_READ, act, pipe.reader(), &never);
    std::thread other;
    Action start = [&] { other = std::thread([] { rt_stop(); }); };
    rt_sched(act, &start, 0);
    EXPECT_EQ(rt_run(), 0);
    other.join();
    rt_forget_fd(pipe.reader());
}

TEST(Loop, StopsFromASignalHandler) {
    Pipe pipe;
    Action never = [] { FAIL(); };
    rt_handle_fd(RT_READ, act, pipe.reader(), &never);
    signal(SIGUSR1, [](int) { rt_stop(); });
    Action start = [] { raise(SIGUSR1); };
    rt_sched(act, &start, 0);
    EXPECT_EQ(rt_run(), 0);
    rt_forget_fd(pipe.reader());
}

namespace {

// The code with which a raise left the loop; 0 if it returned.
[[gnu::noinline]] int code_that_leaves_the_loop() {
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0))
        return frame.code;
    rt_run();
    pfm_cleanup_rls(&frame);
    return 0;
}

} // namespace

// Leaves this many descriptors to the process, of those below a limit, until it goes.
class FewDescriptors {
public:
    explicit FewDescriptors(size_t left) {
        getrlimit(RLIMIT_NOFILE, &usual_);
        const rlimit limit = {64, usual_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int fd; (fd = dup(STDERR_FILENO)) >= 0;)
            taken_.push_back(fd);
        for (; left > 0; --left, taken_.pop_back())
            close(taken_.back());
    }
    ~FewDescriptors() {
        setrlimit(RLIMIT_NOFILE, &usual_);
        for (const int fd : taken_)
            close(fd);
    }
    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;

private:
    rlimit usual_;
    std::vector<int> taken_;
};

// A process of its own: the loop lasts as long as the process. The exit status is 0 if there was no timer at first and
// one in the end.
[[noreturn]] void arm_with_few_descriptors() {
    const auto arm = [] { return rt_sched([](void *) {}, nullptr, 1) != nullptr; };
    bool armed_without = false;
    for (size_t left = 0; left < 6; ++left) {
        const FewDescriptors few(left);
        armed_without = armed_without || arm();
    }
    _exit(!armed_without && arm() ? 0 : 1);
}

TEST(LoopDeathTest, ThatCannotBeMadeForWantOfDescriptorsEndsNoProcessAndIsMadeLater) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(arm_with_few_descriptors(), testing::ExitedWithCode(0), "");
}

TEST(Loop, RaiseOfAFunctionLeavesIt) {
    int later = 0;
    Action raise_four = [] { pfm_raise(4); };
    Action count = [&] { ++later; };
    rt_sched(act, &raise_four, 0);
    EXPECT_EQ(code_that_leaves_the_loop(), 4);
    rt_sched(act, &count, 0);
    EXPECT_EQ(rt_run(), 0) << "the loop may be entered again";
    EXPECT_EQ(later, 1);
}
