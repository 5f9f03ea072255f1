// The idioms that shape every function of the library. The support layer raises with siglongjmp, which runs no
// destructor, so what is taken is given back by functions that receive the work as a lambda.
#pragma once

#include <type_traits>

#include <setjmp.h>

#include <support/ivlthread.h>
#include <support/pfm.h>

namespace velia {

// Runs `body` with `mutex` held and returns what it returned. A raise leaves the mutex held: that is the system's rule.
template <class Body>
inline auto with_lock(ivlthread_mutex_t &mutex, Body &&body) {
    ivlthread_mutex_lock(&mutex);
    if constexpr (std::is_void_v<decltype(body())>) {
        body();
        ivlthread_mutex_unlock(&mutex);
    } else {
        const auto result = body();
        ivlthread_mutex_unlock(&mutex);
        return result;
    }
}

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

// Runs `body`; when a raise lands in it, runs `undo` and raises the same code again. Body and undo share their state
// through the caller's frame, by reference. This function must stay a frame of its own: no variable of the function
// that calls sigsetjmp may be changed between the two returns, and so none needs to be volatile.
template <class Body, class Undo>
[[gnu::noinline]]
#if !defined(__clang__)
[[gnu::noipa]]
#endif
auto with_cleanup(Body &&body, Undo &&undo) {
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

} // namespace velia
