// The read cache. Entries are keyed by the lookup value alone, and everything else is tested when one is found. An
// entry is good for a few seconds by itself, and longer as long as younger answers show the same server stamp.
#include <rvzd/client/registry_clnt/read_cache.h>

#include <common/trace.h>
#include <rvzd/client/registry_clnt/item_keys.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/date.h>
#include <veliaxdr/rgy_messages.h>
#include <veliaxdr/rgy_site.h>

using namespace velia;
using namespace velia::registry_clnt;

int32_t rgy_cache_ent_lifetime = 5;
int32_t rgy_cache_idle_lifetime = 60;

ivlthread_mutex_t velia::registry_clnt::registry_cache_lock;
uint64_t velia::registry_clnt::rgy_rpc_stats[counter_count];

namespace {

constexpr size_t expected_records = 16;
constexpr int64_t cached_count_max = 1;
constexpr int lookup_trace_level = 5;
constexpr int statistics_trace_level = 3;
constexpr char no_region[] = "<NR>";

int32_t rgy_cache_enabled = 1;
timeval state_change_time; // of the last switching off: nothing that is not younger counts

timeval now() {
    timeval time;
    date_get_timeval(&time);
    return time;
}

// In single precision, which is kept: the decisions are about seconds.
float difference_s(const timeval &later, const timeval &earlier) {
    return static_cast<float>(later.tv_sec - earlier.tv_sec) +
           static_cast<float>(later.tv_usec - earlier.tv_usec) * 1e-6F;
}

// Not in the future, filled after the cache was last switched off, and not too old.
bool is_current(const timeval &filled, const timeval &time, int32_t lifetime_s) {
    return difference_s(time, filled) >= 0 && difference_s(filled, state_change_time) > 0 &&
           (time.tv_sec <= filled.tv_sec || time.tv_sec - filled.tv_sec <= lifetime_s);
}

bool is_never_filled(const rgy_rpc_cache_t &cache) {
    return cache.last_fill.tv_sec == 0 && cache.last_fill.tv_usec == 0;
}

rgy_rpc_cache_t *make_cache() {
    auto *cache = new_record<rgy_rpc_cache_t>();
    if (cache == nullptr)
        return nullptr;
    cache->uuid_hash =
        hash_flen_create(expected_records, sizeof(rgy_rpc_cache_ent_t), HASH_KEEP_COPY, sizeof(tbs_uuid_t));
    cache->string_hash = hash_str_create(expected_records, sizeof(rgy_rpc_cache_ent_t), HASH_KEEP_POINTER);
    if (cache->uuid_hash == nullptr || cache->string_hash == nullptr) {
        hash_delete_ht(&cache->uuid_hash);
        hash_delete_ht(&cache->string_hash);
        stg_free(cache);
        return nullptr;
    }
    hash_set_order(cache->uuid_hash);
    hash_set_order(cache->string_hash);
    return cache;
}

void release_contents(const rgy_rpc_cache_ent_t &entry) {
    rgy_elist_free(entry.elist, entry.max_entries);
    stg_free(entry.region);
}

bool same_region(const char *left, const char *right) {
    return left == right || (left != nullptr && right != nullptr && strcmp(left, right) == 0);
}

// The two kinds of keys: their table, their group of counters and their word in traces.
struct StringKey {
    const char *string;

    static constexpr char word[] = "string";
    static constexpr int counters = string_counters;

    const char *text(char * /*buffer*/) const { return string; }
    void *lookup(const rgy_rpc_cache_t &cache) const {
        void *record;
        hash_str_lookup(cache.string_hash, string, nullptr, &record);
        return record;
    }
    // The table keeps the pointer, so it is given a copy. Null without storage.
    void *enter(const rgy_rpc_cache_t &cache, void **key) const {
        char *copy = stg_strdup(string);
        void *record = nullptr;
        const int result = copy != nullptr ? hash_str_enter(cache.string_hash, copy, key, &record) : -1;
        if (result > 0)
            pfm_assert_fail("!hash_str_enter(cache_p->string_hash, stg_strdup(string_p), &hash_key_p, (void **)&ent_p)",
                            source_file, __LINE__);
        if (result < 0)
            stg_free(copy);
        return record;
    }
    void remove(const rgy_rpc_cache_t &cache) const {
        void *key;
        hash_str_free(cache.string_hash, string, &key, nullptr);
        stg_free(key);
    }
};

struct UuidKey {
    const tbs_uuid_t &uuid;

    static constexpr char word[] = "uuid";
    static constexpr int counters = uuid_counters;

    const char *text(char *buffer) const { return tbs_uuid_to_str(&uuid, buffer); }
    void *lookup(const rgy_rpc_cache_t &cache) const {
        void *record;
        hash_flen_lookup(cache.uuid_hash, &uuid, nullptr, &record);
        return record;
    }
    void *enter(const rgy_rpc_cache_t &cache, void **key) const {
        void *record = nullptr;
        if (hash_flen_enter(cache.uuid_hash, &uuid, key, &record) > 0)
            pfm_assert_fail("!hash_flen_enter(cache_p->uuid_hash, (u_char *)uuid_p, &hash_key_p, (void **)&ent_p)",
                            source_file, __LINE__);
        return record;
    }
    void remove(const rgy_rpc_cache_t &cache) const { hash_flen_free(cache.uuid_hash, &uuid, nullptr, nullptr); }
};

template <class Key>
void count(Counter counter) {
    ++rgy_rpc_stats[Key::counters + counter];
}

const char *shown(const char *region) {
    return region != nullptr ? region : no_region;
}

// The position's own arguments follow those that all three messages share.
template <class Key, class... Arguments>
void trace_lookup(int position, const Key &key, const Lookup &lookup, Arguments... arguments) {
    if (!is_traced(subsystem, lookup_trace_level))
        return;
    char buffer[TBS_UUID_STR_SIZE];
    imsg_print(IMSG_TRACE, &_registry_rvzd_msg_table, position, Key::word, item_key(lookup.item), key.text(buffer),
               shown(lookup.region), lookup.cursor, lookup.max_entries, arguments...);
}

// A younger fill whose server stamp is the entry's own (the caller has compared them) proves the entry current.
template <class Key>
bool is_young_enough(const rgy_rpc_cache_t &cache, rgy_rpc_cache_ent_t &entry) {
    const timeval time = now();
    if (is_current(entry.fill_time, time, rgy_cache_ent_lifetime))
        return true;
    if (!is_current(cache.last_fill, time, rgy_cache_ent_lifetime)) {
        count<Key>(timo);
        return false;
    }
    entry.fill_time = cache.last_fill;
    count<Key>(dtmsave);
    return true;
}

template <class Key>
bool rgy_rpc_cache_ent_valid(const rgy_rpc_cache_t &cache, rgy_rpc_cache_ent_t &entry, const Lookup &lookup) {
    if (!is_young_enough<Key>(cache, entry))
        return false;
    if (entry.item != lookup.item) {
        count<Key>(itemcoll);
        return false;
    }
    if (!tbs_uuid_eq(&lookup.dtm.dtm, &entry.dtm_in.dtm) || !tbs_uuid_eq(&lookup.dtm.svr_dtm, &entry.dtm_in.svr_dtm)) {
        count<Key>(dtm_differs);
        return false;
    }
    return entry.cursor_in == lookup.cursor && entry.max_entries == lookup.max_entries &&
           same_region(entry.region, lookup.region);
}

template <class Key>
bool answers(const rgy_rpc_cache_t &cache, rgy_rpc_cache_ent_t &entry, const Lookup &lookup) {
    if (tbs_uuid_eq(&entry.dtm_out.svr_dtm, &cache.dtm.svr_dtm))
        return rgy_rpc_cache_ent_valid<Key>(cache, entry, lookup);
    count<Key>(svrdtm_differs);
    return false;
}

template <class Key>
const rgy_rpc_cache_ent_t *find(rgy_rpc_cache_t &cache, const Key &key, const Lookup &lookup) {
    auto *entry = static_cast<rgy_rpc_cache_ent_t *>(key.lookup(cache));
    if (entry == nullptr) {
        trace_lookup(REGISTRY_MSG_CACHE_MISSING, key, lookup);
        count<Key>(fills);
        count<Key>(misses);
        return nullptr;
    }
    if (answers<Key>(cache, *entry, lookup)) {
        trace_lookup(REGISTRY_MSG_CACHE_FOUND, key, lookup);
        count<Key>(hits);
        return entry;
    }
    trace_lookup(REGISTRY_MSG_CACHE_STALE, key, lookup, entry->cursor_in, entry->max_entries, shown(entry->region));
    with_inhibit([&] {
        release_contents(*entry);
        key.remove(cache);
    });
    count<Key>(repl);
    count<Key>(misses);
    return nullptr;
}

// False without storage: nothing was kept then. No other entry can stand under the key: it was not found, or removed.
template <class Key>
bool enter(rgy_rpc_cache_t &cache, const Key &key, const Lookup &lookup, const LookupAnswer &answer) {
    char *region = nullptr;
    if (lookup.region != nullptr && (region = stg_strdup(lookup.region)) == nullptr)
        return false;
    void *stored_key = nullptr;
    auto *entry = static_cast<rgy_rpc_cache_ent_t *>(key.enter(cache, &stored_key));
    if (entry == nullptr) {
        stg_free(region);
        return false;
    }
    *entry = {now(),         region,        lookup.item, stored_key, lookup.max_entries, answer.count,
              lookup.cursor, answer.cursor, lookup.dtm,  answer.dtm, answer.elist};
    cache.last_fill = entry->fill_time;
    cache.dtm = entry->dtm_out;
    return true;
}

template <class Key>
void keep(rgy_rpc_cache_t *cache, const Key &key, const Lookup &lookup, const LookupAnswer &answer) {
    with_inhibit([&] {
        const bool is_kept = cache != nullptr && rgy_cache_enabled != 0 && answer.count <= cached_count_max &&
                             enter(*cache, key, lookup, answer);
        if (!is_kept)
            rgy_elist_free(answer.elist, lookup.max_entries);
    });
}

} // namespace

rgy_rpc_cache_t *velia::registry_clnt::usable_cache(rgy_rpc_cache_t *&slot) {
    return with_inhibit([&] {
        if (slot != nullptr && !is_never_filled(*slot) &&
            !is_current(slot->last_fill, now(), rgy_cache_idle_lifetime)) {
            rgy_destroy_cache(slot);
            ++rgy_rpc_stats[idleflush];
        }
        if (slot == nullptr && rgy_cache_enabled != 0)
            slot = make_cache();
        return slot;
    });
}

void velia::registry_clnt::rgy_destroy_cache(rgy_rpc_cache_t *&slot) {
    if (slot == nullptr)
        return;
    with_inhibit([&] {
        void *key;
        void *entry;
        for (hash_iter_t state = 0; hash_flen_next(slot->uuid_hash, &state, nullptr, &entry) != 0;)
            release_contents(*static_cast<rgy_rpc_cache_ent_t *>(entry));
        hash_delete_ht(&slot->uuid_hash);
        for (hash_iter_t state = 0; hash_str_next(slot->string_hash, &state, &key, &entry) != 0;) {
            release_contents(*static_cast<rgy_rpc_cache_ent_t *>(entry));
            stg_free(key);
        }
        hash_delete_ht(&slot->string_hash);
        stg_free(slot);
        slot = nullptr;
    });
}

const rgy_rpc_cache_ent_t *velia::registry_clnt::find_answer(rgy_rpc_cache_t &cache, const char *string,
                                                             const Lookup &lookup) {
    return find(cache, StringKey{string}, lookup);
}

const rgy_rpc_cache_ent_t *velia::registry_clnt::find_answer(rgy_rpc_cache_t &cache, const tbs_uuid_t &uuid,
                                                             const Lookup &lookup) {
    return find(cache, UuidKey{uuid}, lookup);
}

void velia::registry_clnt::keep_answer(rgy_rpc_cache_t *cache, const char *string, const Lookup &lookup,
                                       const LookupAnswer &answer) {
    keep(cache, StringKey{string}, lookup, answer);
}

void velia::registry_clnt::keep_answer(rgy_rpc_cache_t *cache, const tbs_uuid_t &uuid, const Lookup &lookup,
                                       const LookupAnswer &answer) {
    keep(cache, UuidKey{uuid}, lookup, answer);
}

void velia::registry_clnt::print_statistics() {
    if (!is_traced(subsystem, statistics_trace_level))
        return;
    const uint64_t *s = &rgy_rpc_stats[string_counters];
    const uint64_t *u = &rgy_rpc_stats[uuid_counters];
    imsg_print(IMSG_TRACE, &_registry_rvzd_msg_table, REGISTRY_MSG_CACHE_STATISTICS, s[hits], s[misses], s[timo],
               s[dtm_differs], s[svrdtm_differs], s[dtmsave], s[itemcoll], s[fills], s[repl], u[hits], u[misses],
               u[timo], u[dtm_differs], u[svrdtm_differs], u[dtmsave], u[itemcoll], u[fills], u[repl],
               rgy_rpc_stats[idleflush], rgy_rpc_stats[tsflush]);
}

int32_t rgy_cache_action(int32_t enable) {
    return with_lock(cache_lock, [&] {
        const int32_t before = rgy_cache_enabled;
        if (enable == 0)
            state_change_time = now();
        rgy_cache_enabled = enable;
        return before;
    });
}
