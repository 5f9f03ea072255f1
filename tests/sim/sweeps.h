// Sweeps: an operation run again and again with the first, second, ... n-th allocation failing (alone, and with all
// that come after it), or a raise arriving at the first, second, ... n-th support call, until a run gets by without
// one.
#pragma once

#include <cstdint>

#include <gtest/gtest.h>

#include <support/ivlthread.h>
#include <support/pfm.h>
#include <tests/sim/world.h>

namespace sim {

constexpr int sweep_limit = 400;

// What must not have grown when an operation was undone.
struct Holdings {
    size_t blocks;
    size_t descriptors;
    size_t clients;

    static Holdings now(const World &world) {
        return {world.live_blocks(), world.live_descriptors(), world.live_clients()};
    }
    bool operator==(const Holdings &) const = default;
};

// `operation` is run with the n-th allocation failing for each n, first with all behind it and then alone; `check(n)`
// judges each run in which one failed. Ends with the first run in which none failed, which is left to the caller's own
// expectations. Returns how many n there were.
template <class Operation, class Check>
int sweep_allocations(World &world, Operation &&operation, Check &&check) {
    for (int number = 1; number < sweep_limit; ++number) {
        for (const auto how_many : {World::Failing::all_further, World::Failing::one}) {
            world.fail_allocation(number, how_many);
            operation();
            const bool failed = world.allocation_failed();
            world.fail_allocation(0);
            if (!failed)
                return number - 1;
            check(number);
        }
    }
    ADD_FAILURE() << "the operation has no end of allocations";
    return sweep_limit;
}

// Runs `operation` inside a clean-up frame; the code of the raise that came out of it, or 0. The frame's function keeps
// no object with a destructor.
template <class Operation>
[[gnu::noinline]] int run_and_catch(Operation &operation) {
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0))
        return frame.code;
    operation();
    pfm_cleanup_rls(&frame);
    return 0;
}

// A raise leaves the locks it passes held by the thread. This gives back what is held.
inline int release_lock(ivlthread_mutex_t &mutex) {
    int released = 0;
    for (; mutex.depth > 0; ++released)
        ivlthread_mutex_unlock(&mutex);
    return released;
}

constexpr int raise_code = 77;

// As sweep_allocations, with a raise at the n-th support call. Each raise must come out with its own code.
template <class Operation, class Check>
int sweep_raises(World &world, Operation &&operation, Check &&check) {
    for (int number = 1; number < sweep_limit; ++number) {
        world.raise_at_call(number, raise_code);
        const int code = run_and_catch(operation);
        const bool sent = world.raise_was_sent();
        world.raise_at_call(0, 0);
        if (!sent) {
            EXPECT_EQ(code, 0);
            return number - 1;
        }
        EXPECT_EQ(code, raise_code) << "raise at support call " << number;
        check(number);
    }
    ADD_FAILURE() << "the operation has no end of support calls";
    return sweep_limit;
}

} // namespace sim
