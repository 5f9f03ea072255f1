// The read cache: the answers to recent lookups of at most one entry, by string and by uuid, for one database of one
// binding. It lives for seconds, to collapse the bursts of identical lookups that a command makes. All of it is guarded
// by registry_cache_lock; whoever changes it has raises inhibited.
#pragma once

#include <sys/time.h>

#include <common/lock.h>
#include <support/hash.h>
#include <veliaxdr/rgy_entry.h>

namespace velia::registry_clnt {

// Guards the binding table, the caches, the statistics and the switch; held across the call to the registry.
// Re-entrant.
extern ivlthread_mutex_t registry_cache_lock;
extern ForkWatch cache_lock_watch; // stands beside the table of bindings
inline constexpr Lock<LockRank::registry_cache> cache_lock = {registry_cache_lock, cache_lock_watch};

struct rgy_rpc_cache_ent_t {
    timeval fill_time;
    char *region;     // null for none
    uint32_t item;    // of the lookup
    void *hash_key_p; // the key inside its table
    int64_t max_entries;
    int64_t count; // 0 or 1
    uint64_t cursor_in;
    uint64_t cursor_out;
    rgy_dtm_pair_t dtm_in;
    rgy_dtm_pair_t dtm_out;
    rgy_elist_t elist; // of max_entries elements
};

struct rgy_rpc_cache_t {
    hash_table_t uuid_hash;
    hash_table_t string_hash;
    rgy_dtm_pair_t dtm; // of the last reply stored
    timeval last_fill;  // all zero: never filled
};

// Positions in a group of the statistics.
enum Counter { hits, misses, fills, timo, dtm_differs, itemcoll, repl, svrdtm_differs, dtmsave, counters_a_group };
enum { string_counters = 0, uuid_counters = 9, idleflush = 18, tsflush = 19, counter_count = 20 };
extern uint64_t rgy_rpc_stats[counter_count];

// A lookup, but for its key: what an answer must have been given to.
struct Lookup {
    uint32_t item;
    const char *region; // null for none
    int64_t max_entries;
    uint64_t cursor;
    rgy_dtm_pair_t dtm;
};

// What a lookup was answered. The list passes to the cache, or is released.
struct LookupAnswer {
    int64_t count;
    uint64_t cursor;
    rgy_dtm_pair_t dtm;
    rgy_elist_t elist;
};

// The cache in `slot`, if it may still be used: one that has grown old is destroyed, and a missing one made if caching
// is on. Null without one.
rgy_rpc_cache_t *usable_cache(rgy_rpc_cache_t *&slot);

void rgy_destroy_cache(rgy_rpc_cache_t *&slot);

// The valid answer to a lookup by this key, which stays the cache's; null if there is none. A stale one is removed.
const rgy_rpc_cache_ent_t *find_answer(rgy_rpc_cache_t &cache, const char *string, const Lookup &lookup);
const rgy_rpc_cache_ent_t *find_answer(rgy_rpc_cache_t &cache, const tbs_uuid_t &uuid, const Lookup &lookup);

// Takes the answer's list: keeps the answer, or releases the list if it is not one to keep. `cache` may be null.
void keep_answer(rgy_rpc_cache_t *cache, const char *string, const Lookup &lookup, const LookupAnswer &answer);
void keep_answer(rgy_rpc_cache_t *cache, const tbs_uuid_t &uuid, const Lookup &lookup, const LookupAnswer &answer);

// Message 80, if the registry is traced at level 3.
void print_statistics();

} // namespace velia::registry_clnt
