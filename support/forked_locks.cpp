#include "forked_locks.h"

#include <cstddef>

namespace velia::support {

namespace {

constexpr size_t locks_max = 8;

pthread_mutex_t *locks[locks_max];
size_t is_registered;
uint32_t generation;

void begin_in_child() {
    __atomic_fetch_add(&generation, 1, __ATOMIC_RELAXED);
    for (pthread_mutex_t *lock : locks)
        if (lock != nullptr)
            pthread_mutex_init(lock, nullptr);
}

void watch_forks() {
    if (__atomic_load_n(&is_registered, __ATOMIC_RELAXED) == 0 &&
        __atomic_exchange_n(&is_registered, 1, __ATOMIC_ACQ_REL) == 0)
        pthread_atfork(nullptr, nullptr, begin_in_child);
}

} // namespace

// The first free place is this lock's, unless it has one before that.
void free_in_children(pthread_mutex_t &lock) {
    for (pthread_mutex_t *&place : locks) {
        pthread_mutex_t *there = nullptr;
        if (__atomic_load_n(&place, __ATOMIC_RELAXED) == &lock ||
            __atomic_compare_exchange_n(&place, &there, &lock, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED) ||
            there == &lock)
            break;
    }
    watch_forks();
}

uint32_t process_generation() {
    watch_forks();
    return __atomic_load_n(&generation, __ATOMIC_RELAXED);
}

} // namespace velia::support
