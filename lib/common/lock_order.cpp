// What locks the calling thread holds, for the check of their order in builds with tests.
//
// A raise leaves functions without a word, and with them what they noted. So a note counts only as long as the thread
// really holds the lock, and giving one back forgets what was noted after it.
#include <common/lock.h>

#ifdef VELIA_CHECK_INVARIANTS

#include <algorithm>
#include <cstddef>

#include <pthread.h>

#include <common/require.h>

namespace velia {

namespace {

constexpr size_t held_max = 32;

struct Held {
    const ivlthread_mutex_t *mutex;
    LockRank rank;
};

struct HeldLocks {
    Held locks[held_max];
    size_t count;

    Held *end() { return locks + count; }
};

constinit thread_local HeldLocks held = {};

bool is_really_held(const ivlthread_mutex_t &mutex) {
    return mutex.depth > 0 && __atomic_load_n(&mutex.owner, __ATOMIC_RELAXED) == pthread_self();
}

void forget_what_was_left() {
    Held *end = std::remove_if(held.locks, held.end(), [](const Held &lock) { return !is_really_held(*lock.mutex); });
    held.count = static_cast<size_t>(end - held.locks);
}

} // namespace

void note_taken(const ivlthread_mutex_t &mutex, LockRank rank) {
    forget_what_was_left();
    const auto is_this = [&](const Held &lock) { return lock.mutex == &mutex; };
    const auto comes_before = [&](const Held &lock) { return lock.rank < rank; };
    const bool is_taken_again = !is_leaf(rank) && std::any_of(held.locks, held.end(), is_this);
    require(is_taken_again || std::all_of(held.locks, held.end(), comes_before));
    require(held.count < held_max);
    *held.end() = {&mutex, rank};
    ++held.count;
}

void note_given_back(const ivlthread_mutex_t &mutex) {
    while (held.count > 0 && held.locks[held.count - 1].mutex != &mutex)
        --held.count;
    require(held.count > 0);
    --held.count;
}

} // namespace velia

#endif
