// What a child process takes over of the library after fork(): no lock that another thread of its parent held, no state
// that such a thread had in hand, and no connection.
#pragma once

#include <cstdint>

#include <support/ivlthread.h>

namespace velia {

// A lock, and how to begin anew with what it guards when another thread held it at the moment of a fork. That runs in
// the child before fork() returns: it calls nothing that takes a lock or gives storage back.
struct ForkWatch {
    ivlthread_mutex_t &mutex;
    void (*begin_anew)();
    ForkWatch *next = nullptr;
    uint32_t is_watched = 0;
};

void begin_to_watch(ForkWatch &watch);

// At each taking of the lock; it costs one load after the first.
inline void watch_at_forks(ForkWatch &watch) {
    if (__atomic_load_n(&watch.is_watched, __ATOMIC_RELAXED) == 0)
        begin_to_watch(watch);
}

// In a child whose parent was about to make the key of per-thread storage.
void forget_unfinished_key();

// Counts the forks between this process and the first that used the library: a connection is its maker's alone.
uint32_t process_generation();

} // namespace velia
