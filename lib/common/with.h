// The idioms that shape every function of the library. The support layer raises with siglongjmp, which runs no
// destructor, so what is taken is given back by functions that receive the work as a lambda.
//
// | with_inhibit(body)             | a raise that comes waits for the end                           |
// | with_cleanup(body, undo)       | undone if a raise lands, kept otherwise                        |
// | with_release(body, release)    | given back on every way out                                    |
// | with_lock(lock, body)          | the lock is held for the body                                  |
// | with_lock(lock, body, release) | the same, and what is given back on every way out under it     |
//
// Those that open a clean-up frame must stay frames of their own: no variable of the function that calls sigsetjmp may
// change between its two returns, but for the volatile ones. Body, undo and release share their state through the
// caller's frame, by reference.
#pragma once

#include <type_traits>

#include <setjmp.h>

#include <common/lock.h>
#include <support/pfm.h>

#if defined(__clang__)
#define VELIA_OWN_FRAME [[gnu::noinline]]
#else
#define VELIA_OWN_FRAME [[gnu::noinline, gnu::noipa]]
#endif

namespace velia {

inline void nothing() {}

// Runs `body` as a stretch in which a raise may not land; one that arrives meanwhile lands at its end.
template <class Body>
inline auto with_inhibit(Body &&body) {
    pfm_inhibit();
    if constexpr (std::is_void_v<decltype(body())>) {
        body();
        pfm_enable();
    } else {
        const auto result = body();
        pfm_enable();
        return result;
    }
}

// Runs `body`; when a raise lands in it, runs `undo` and raises the same code again.
template <class Body, class Undo>
VELIA_OWN_FRAME auto with_cleanup(Body &&body, Undo &&undo) {
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0)) {
        undo();
        pfm_raise(frame.code);
    }
    const auto result = body();
    pfm_cleanup_rls(&frame);
    return result;
}

// Runs `body`, then `release`, which also runs when a raise lands in either: it has to bear to be begun again.
template <class Body, class Release>
VELIA_OWN_FRAME auto with_release(Body &&body, Release &&release) {
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0)) {
        release();
        pfm_raise(frame.code);
    }
    const auto result = body();
    release();
    pfm_cleanup_rls(&frame);
    return result;
}

// with_release under a lock; when a raise lands, `undo` is run before `release`. A raise gives the lock back, but for
// that of broker calls: whoever lands a raise that went through a broker call keeps it, and ends.
template <LockRank rank, class Body, class Release, class Undo = void()>
VELIA_OWN_FRAME auto with_lock(Lock<rank> lock, Body &&body, Release &&release, Undo &&undo = nothing) {
    volatile bool is_held = false;
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0)) {
        if (is_held) {
            undo();
            release();
            if (rank != LockRank::broker_call)
                give_back(lock);
        }
        pfm_raise(frame.code);
    }
    pfm_inhibit();
    take(lock);
    is_held = true;
    pfm_enable();
    const auto result = body();
    release();
    pfm_cleanup_rls(&frame);
    give_back(lock);
    return result;
}

// Runs `body` with `lock` held and returns what it returned. A raise leaves the lock of broker calls held. Under a leaf
// none lands.
template <LockRank rank, class Body>
inline auto with_lock(Lock<rank> lock, Body &&body) {
    using Result = decltype(body());
    if constexpr (rank == LockRank::settings || rank == LockRank::registry_cache) {
        return with_lock(lock, body, nothing);
    } else {
        constexpr bool holds_raises_off = is_leaf(rank);
        if constexpr (holds_raises_off)
            pfm_inhibit();
        take(lock);
        if constexpr (std::is_void_v<Result>) {
            body();
            give_back(lock);
            if constexpr (holds_raises_off)
                pfm_enable();
        } else {
            const auto result = body();
            give_back(lock);
            if constexpr (holds_raises_off)
                pfm_enable();
            return result;
        }
    }
}

} // namespace velia
