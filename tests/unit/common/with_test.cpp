// The idioms under raises: what is undone, what stays held, and when a raise may land.
#include <common/with.h>

#include <vector>

#include <gtest/gtest.h>

#include <tests/sim/sweeps.h>
#include <tests/sim/world.h>

using namespace velia;

namespace {

TEST(WithCleanup, GivesTheBodysResultAndLeavesTheUndoAlone) {
    bool undone = false;
    EXPECT_EQ(with_cleanup([] { return 5; }, [&] { undone = true; }), 5);
    EXPECT_FALSE(undone);
}

TEST(WithCleanup, UndoesWhenARaiseLandsAndRaisesTheSameCodeAgain) {
    int state = 0;
    auto operation = [&] {
        with_cleanup(
            [&] {
                state = 1;
                pfm_raise(42);
                return 0;
            },
            [&] { state = state == 1 ? 2 : -1; });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 42);
    EXPECT_EQ(state, 2);
}

TEST(WithCleanup, UndoesNestedFramesFromTheInnermostOut) {
    std::vector<int> order;
    order.reserve(2);
    auto operation = [&] {
        with_cleanup(
            [&] {
                return with_cleanup(
                    [&] {
                        pfm_raise(9);
                        return 0;
                    },
                    [&] { order.push_back(1); });
            },
            [&] { order.push_back(2); });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 9);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(WithLock, ARaiseLeavesTheLockHeld) {
    static ivlthread_mutex_t mutex;
    auto operation = [&] { with_lock(mutex, [] { pfm_raise(3); }); };
    EXPECT_EQ(sim::run_and_catch(operation), 3);
    EXPECT_EQ(sim::release_lock(mutex), 1);
}

TEST(WithLock, IsReentrantAndFreeAtTheEnd) {
    static ivlthread_mutex_t mutex;
    EXPECT_EQ(with_lock(mutex, [&] { return with_lock(mutex, [] { return 8; }); }), 8);
    EXPECT_EQ(sim::release_lock(mutex), 0);
}

TEST(WithInhibit, ARaiseThatArrivesInsideLandsAtTheOutermostEnd) {
    int steps = 0;
    auto operation = [&] {
        with_inhibit([&] {
            with_inhibit([&] {
                pfm_post_raise(6);
                ++steps;
            });
            ++steps;
        });
        steps = -1;
    };
    EXPECT_EQ(sim::run_and_catch(operation), 6);
    EXPECT_EQ(steps, 2);
}

} // namespace
