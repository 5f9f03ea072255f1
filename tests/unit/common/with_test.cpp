// The idioms under raises: what is undone, what stays held, and when a raise may land.
#include <common/with.h>

#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <common/require.h>
#include <support/imsg.h>
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

TEST(WithRelease, GivesBackOnceBehindTheBody) {
    std::vector<int> order;
    EXPECT_EQ(with_release(
                  [&] {
                      order.push_back(1);
                      return 5;
                  },
                  [&] { order.push_back(2); }),
              5);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(WithRelease, GivesBackWhenARaiseLandsAndRaisesTheSameCodeAgain) {
    int released = 0;
    auto operation = [&] {
        with_release(
            [&] {
                pfm_raise(42);
                return 0;
            },
            [&] { ++released; });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 42);
    EXPECT_EQ(released, 1);
}

TEST(WithRelease, IsBegunAgainWhenARaiseLandsInIt) {
    int begun = 0;
    auto operation = [&] {
        with_release([] { return 0; },
                     [&] {
                         if (++begun == 1)
                             pfm_raise(7);
                     });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 7);
    EXPECT_EQ(begun, 2);
}

// One lock of each rank, as the modules have them.
template <LockRank rank>
class OfRank {
public:
    static ivlthread_mutex_t mutex;
    static int times_begun_anew;
    static ForkWatch watch;
    static constexpr Lock<rank> lock = {mutex, watch};
};
template <LockRank rank>
ivlthread_mutex_t OfRank<rank>::mutex;
template <LockRank rank>
int OfRank<rank>::times_begun_anew;
template <LockRank rank>
ForkWatch OfRank<rank>::watch = {mutex, [] { ++times_begun_anew; }};

using Settings = OfRank<LockRank::settings>;
using RegistryCache = OfRank<LockRank::registry_cache>;
using BrokerCall = OfRank<LockRank::broker_call>;
using RegistryHost = OfRank<LockRank::registry_host>;
using LocalFiles = OfRank<LockRank::local_files>;

TEST(WithLock, ARaiseLeavesTheLockOfBrokerCallsHeld) {
    auto operation = [&] { with_lock(BrokerCall::lock, [] { pfm_raise(3); }); };
    EXPECT_EQ(sim::run_and_catch(operation), 3);
    EXPECT_EQ(sim::release_lock(BrokerCall::mutex), 1);
}

TEST(WithLock, ARaiseLeavesTheLockOfBrokerCallsHeldAlsoWhereSomethingIsReleased) {
    int released = 0;
    auto operation = [&] {
        with_lock(
            BrokerCall::lock,
            [] {
                pfm_raise(3);
                return 0;
            },
            [&] { ++released; });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 3);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(sim::release_lock(BrokerCall::mutex), 1);
}

template <class Rank>
void expect_given_back_by_a_raise() {
    auto operation = [&] {
        with_lock(Rank::lock, [] {
            pfm_raise(3);
            return 0;
        });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 3);
    EXPECT_EQ(sim::release_lock(Rank::mutex), 0);
}

TEST(WithLock, ARaiseGivesTheLocksAboveItBack) {
    expect_given_back_by_a_raise<Settings>();
    expect_given_back_by_a_raise<RegistryCache>();
}

template <class Rank>
void expect_no_landing_under() {
    bool landed_under = true;
    auto operation = [&] {
        with_lock(Rank::lock, [&] {
            pfm_post_raise(4);
            landed_under = false;
        });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 4);
    EXPECT_FALSE(landed_under);
    EXPECT_EQ(sim::release_lock(Rank::mutex), 0);
}

TEST(WithLock, NoRaiseLandsUnderALeaf) {
    expect_no_landing_under<RegistryHost>();
    expect_no_landing_under<LocalFiles>();
}

TEST(WithLock, ARaiseIsUndoneBeforeWhatIsHeldIsReleased) {
    std::vector<int> order;
    order.reserve(2);
    auto operation = [&] {
        with_lock(
            RegistryCache::lock,
            [] {
                pfm_raise(9);
                return 0;
            },
            [&] { order.push_back(2); }, [&] { order.push_back(1); });
    };
    EXPECT_EQ(sim::run_and_catch(operation), 9);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(WithLock, NothingIsUndoneWithoutARaise) {
    int undone = 0;
    int released = 0;
    EXPECT_EQ(with_lock(
                  RegistryCache::lock, [] { return 4; }, [&] { ++released; }, [&] { ++undone; }),
              4);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(undone, 0);
}

TEST(WithLock, IsReentrantAndFreeAtTheEnd) {
    EXPECT_EQ(with_lock(BrokerCall::lock, [&] { return with_lock(BrokerCall::lock, [] { return 8; }); }), 8);
    EXPECT_EQ(sim::release_lock(BrokerCall::mutex), 0);
}

template <class Outer, class Inner>
int take_in_order() {
    return with_lock(Outer::lock, [] { return with_lock(Inner::lock, [] { return 6; }); });
}

TEST(LockOrder, EachLockMayBeTakenUnderThoseOfLowerRank) {
    EXPECT_EQ((take_in_order<Settings, RegistryCache>()), 6);
    EXPECT_EQ((take_in_order<RegistryCache, BrokerCall>()), 6);
    EXPECT_EQ((take_in_order<BrokerCall, RegistryHost>()), 6);
    EXPECT_EQ((take_in_order<RegistryHost, LocalFiles>()), 6);
}

TEST(LockOrder, ALockTakenAgainMayComeAfterOthers) {
    EXPECT_EQ(with_lock(Settings::lock, [] { return take_in_order<RegistryCache, Settings>(); }), 6);
}

TEST(LockOrderDeathTest, TheOtherWayRoundEndsTheProcess) {
    const sim::World world;
    imsg_set_sink(nullptr, nullptr);
    EXPECT_DEATH((take_in_order<RegistryCache, Settings>()), "note_taken");
    EXPECT_DEATH((take_in_order<BrokerCall, RegistryCache>()), "note_taken");
    EXPECT_DEATH((take_in_order<RegistryHost, BrokerCall>()), "note_taken");
    EXPECT_DEATH((take_in_order<LocalFiles, RegistryHost>()), "note_taken");
}

TEST(LockOrderDeathTest, ALeafTakenTwiceEndsTheProcess) {
    const sim::World world;
    imsg_set_sink(nullptr, nullptr);
    EXPECT_DEATH((take_in_order<RegistryHost, RegistryHost>()), "note_taken");
}

TEST(LockOrder, WhatARaiseLeftAndWasGivenBackDoesNotCount) {
    auto operation = [&] { with_lock(BrokerCall::lock, [] { pfm_raise(3); }); };
    EXPECT_EQ(sim::run_and_catch(operation), 3);
    sim::release_lock(BrokerCall::mutex);
    EXPECT_EQ((take_in_order<RegistryCache, BrokerCall>()), 6);
}

TEST(LockOrderDeathTest, WhatARaiseLeftHeldStillCounts) {
    const sim::World world;
    imsg_set_sink(nullptr, nullptr);
    auto operation = [&] { with_lock(BrokerCall::lock, [] { pfm_raise(3); }); };
    EXPECT_EQ(sim::run_and_catch(operation), 3);
    EXPECT_DEATH(with_lock(RegistryCache::lock, [] { return 0; }), "note_taken");
    sim::release_lock(BrokerCall::mutex);
}

TEST(RequireDeathTest, NamesTheFunctionTheFileAndTheLine) {
    const sim::World world;
    imsg_set_sink(nullptr, nullptr);
    EXPECT_DEATH(require(1 + 1 == 3), "assertion failed: .*TestBody.* at with_test.cpp, line [0-9]+");
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

bool is_free(ivlthread_mutex_t &mutex) {
    const bool is_taken = ivlthread_mutex_trylock(&mutex) != 0;
    if (is_taken)
        ivlthread_mutex_unlock(&mutex);
    return is_taken;
}

// In a child, with `BrokerCall` held by another thread of the parent: what `work` gives.
template <class Work>
bool holds_in_child(Work &&work) {
    std::promise<void> is_taken;
    std::promise<void> end;
    std::thread other([&] {
        with_lock(BrokerCall::lock, [&] {
            is_taken.set_value();
            end.get_future().wait();
        });
    });
    is_taken.get_future().wait();
    const pid_t child = fork();
    if (child == 0)
        _exit(work() ? EXIT_SUCCESS : EXIT_FAILURE);
    end.set_value();
    other.join();
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

TEST(AfterAFork, ALockThatAnotherThreadHeldIsFreeAndItsStateNew) {
    EXPECT_TRUE(holds_in_child(
        [] { return is_free(BrokerCall::mutex) && BrokerCall::times_begun_anew == 1 && process_generation() == 1; }));
    EXPECT_EQ(BrokerCall::times_begun_anew, 0);
    EXPECT_EQ(process_generation(), 0u);
}

TEST(AfterAFork, ALockOfTheForkingThreadItselfIsStillItsOwn) {
    with_lock(Settings::lock, [] {
        EXPECT_TRUE(holds_in_child([] {
            const uint32_t depth = Settings::mutex.depth;
            give_back(Settings::lock);
            return depth == 1 && Settings::times_begun_anew == 0 && is_free(Settings::mutex);
        }));
        return 0;
    });
}

TEST(AfterAFork, AFreeLockKeepsItsState) {
    with_lock(LocalFiles::lock, [] {});
    EXPECT_TRUE(holds_in_child([] { return LocalFiles::times_begun_anew == 0 && is_free(LocalFiles::mutex); }));
}

} // namespace
