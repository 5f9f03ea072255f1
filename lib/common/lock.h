// Locks and the order in which they are taken, outermost first, never the other way round.
//
// | rank           | lock                                  |
// |----------------|---------------------------------------|
// | settings       | of the catalogue of settings          |
// | registry_cache | registry_cache_lock                   |
// | broker_call    | rvzd_call_lock                        |
// | registry_host  | rgy_hostname_mutex, never taken twice |
// | local_files    | rgy_prop_local_mutex, likewise        |
//
// The broker reads a setting, settings read the registry, and the registry calls the broker: so the first three may be
// taken again by the thread that holds them. Builds with tests check the order at each lock that is taken.
#pragma once

#include <common/fork.h>
#include <support/ivlthread.h>
#include <support/pfm.h>

namespace velia {

enum class LockRank { settings, registry_cache, broker_call, registry_host, local_files };

// What such a lock guards takes no time, and no raise lands under it.
constexpr bool is_leaf(LockRank rank) {
    return rank >= LockRank::registry_host;
}

template <LockRank rank>
struct Lock {
    ivlthread_mutex_t &mutex;
    ForkWatch &watch;
};

// Ends the process if the calling thread holds a lock that is to be taken after this one.
void note_taken(const ivlthread_mutex_t &mutex, LockRank rank);
void note_given_back(const ivlthread_mutex_t &mutex);

template <LockRank rank>
inline void take(Lock<rank> lock) {
    watch_at_forks(lock.watch);
#ifdef VELIA_CHECK_INVARIANTS
    note_taken(lock.mutex, rank);
#endif
    ivlthread_mutex_lock(&lock.mutex);
}

template <LockRank rank>
inline void give_back(Lock<rank> lock) {
#ifdef VELIA_CHECK_INVARIANTS
    note_given_back(lock.mutex);
#endif
    ivlthread_mutex_unlock(&lock.mutex);
}

} // namespace velia
