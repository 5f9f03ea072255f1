// Work of many senders: in whose turn it is done, and what becomes of it.
#include <server/loop/worker.h>

#include <atomic>
#include <functional>
#include <future>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/loop/handles.h>

using namespace velia::server;
using testing::ElementsAre;

namespace {

Sender sender(uint64_t host, uint64_t channel = 0) {
    return {{host, 0}, channel};
}

std::vector<std::string> all_of(FairQueue<std::string> &queue) {
    std::vector<std::string> items;
    while (auto item = queue.pop())
        items.push_back(*item);
    return items;
}

struct WorkerTest : testing::Test {
    // A worker does not keep a loop going.
    WorkerTest() {
        uv_loop_init(&loop);
        keeper.emplace(&loop, [] {});
        keeper->start(1, 1);
    }
    ~WorkerTest() override {
        keeper.reset();
        uv_run(&loop, UV_RUN_NOWAIT);
        EXPECT_EQ(uv_loop_close(&loop), 0);
    }
    void run_until(const std::function<bool()> &condition) {
        while (!condition()) {
            uv_run(&loop, UV_RUN_NOWAIT);
            std::this_thread::yield();
        }
    }

    // The worker's thread waits at the gate.
    void hold(Worker &worker) {
        std::atomic<bool> is_held = false;
        worker.submit(sender(9), {[&is_held, gate = gate.get_future().share()] {
                                      is_held = true;
                                      gate.wait();
                                  },
                                  [] {}});
        run_until([&] { return is_held.load(); });
    }

    uv_loop_t loop;
    std::optional<TimerHandle> keeper;
    std::promise<void> gate;
    static constexpr Shares shares = {4, 8, 16};
};

} // namespace

TEST(FairQueue, TakesFromHostsInTurnAndFromTheirChannelsInTurn) {
    FairQueue<std::string> queue({100, 100, 100});
    for (const char *item : {"1a1", "1a2", "1a3"})
        queue.push(sender(1, 'a'), item);
    for (const char *item : {"1b1", "1b2"})
        queue.push(sender(1, 'b'), item);
    queue.push(sender(2, 'a'), "2a1");
    EXPECT_THAT(all_of(queue), ElementsAre("1a1", "2a1", "1b1", "1a2", "1b2", "1a3"));
    EXPECT_EQ(queue.size(), 0u);
}

TEST(FairQueue, OneWhoseShareIsFullIsToldAndNobodyElseIs) {
    FairQueue<std::string> queue({2, 3, 5});
    EXPECT_TRUE(queue.push(sender(1, 'a'), "x"));
    EXPECT_TRUE(queue.push(sender(1, 'a'), "x"));
    EXPECT_FALSE(queue.push(sender(1, 'a'), "x")) << "of a channel";
    EXPECT_TRUE(queue.push(sender(1, 'b'), "x"));
    EXPECT_FALSE(queue.push(sender(1, 'c'), "x")) << "of a host";
    EXPECT_TRUE(queue.push(sender(2), "x"));
    EXPECT_TRUE(queue.push(sender(3), "x"));
    EXPECT_FALSE(queue.push(sender(4), "x")) << "of all";
    queue.pop();
    EXPECT_TRUE(queue.push(sender(4), "x"));
}

TEST_F(WorkerTest, WorkIsDoneInItsThreadAndToldInTheLoop) {
    Worker worker(&loop, {shares});
    std::thread::id worked_in;
    std::thread::id told_in;
    ASSERT_TRUE(worker.submit(
        sender(1), {[&] { worked_in = std::this_thread::get_id(); }, [&] { told_in = std::this_thread::get_id(); }}));
    run_until([&] { return told_in != std::thread::id(); });
    EXPECT_EQ(told_in, std::this_thread::get_id());
    EXPECT_NE(worked_in, std::this_thread::get_id());
    EXPECT_NE(worked_in, std::thread::id());
}

// While the thread is held up, others come; who had much waiting does not hold them up further.
TEST_F(WorkerTest, WorkIsTakenInTurnAndUrgentWorkFirst) {
    Worker worker(&loop, {shares});
    std::vector<std::string> order;
    std::atomic<size_t> told = 0;
    const auto note = [&](const char *name) {
        return Worker::Job{[&order, name] { order.emplace_back(name); }, [&] { ++told; }};
    };
    hold(worker);
    for (const char *name : {"a1", "a2", "a3"})
        EXPECT_TRUE(worker.submit(sender(1), note(name)));
    EXPECT_TRUE(worker.submit(sender(2), note("b1")));
    worker.submit_first(note("urgent"));
    gate.set_value();
    run_until([&] { return told == 5; });
    EXPECT_THAT(order, ElementsAre("urgent", "a1", "b1", "a2", "a3"));
}

TEST_F(WorkerTest, WhatWaitsTogetherIsHandedOverTogether) {
    std::vector<size_t> batches;
    std::atomic<size_t> told = 0;
    Worker worker(&loop, {shares, 3}, [&](Worker::Batch &batch) { batches.push_back(batch.size()); });
    hold(worker);
    for (uint64_t i = 1; i <= 5; ++i)
        EXPECT_TRUE(worker.submit(sender(i), {[] {}, [&] { ++told; }}));
    gate.set_value();
    run_until([&] { return told == 5; });
    EXPECT_THAT(batches, ElementsAre(3, 2));
}

TEST_F(WorkerTest, AnEndOfMemoryAtOneIsNotThatOfTheNext) {
    Worker worker(&loop, {shares, 3});
    hold(worker);
    bool is_told = false;
    worker.submit(sender(1), {[] {}, [] { throw std::bad_alloc(); }});
    worker.submit(sender(1), {[] {}, [&] { is_told = true; }});
    gate.set_value();
    run_until([&] { return is_told; });
}

TEST_F(WorkerTest, AfterItsEndNothingIsTold) {
    bool is_told = false;
    {
        Worker worker(&loop, {shares});
        worker.submit(sender(1), {[] {}, [&] { is_told = true; }});
        gate.set_value();
    }
    uv_run(&loop, UV_RUN_NOWAIT);
    EXPECT_FALSE(is_told);
}
