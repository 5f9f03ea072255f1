// Fetches: one batch of a search or a scan. The six differ in what they ask and in whether the read cache is asked
// first; the rest is one road.
#include <veliaxdr/rgy_fetch.h>

#include <cstddef>

#include <rvzd/client/registry_clnt/flex_text.h>
#include <rvzd/client/registry_clnt/item_keys.h>
#include <rvzd/client/registry_clnt/with_binding.h>
#include <veliaxdr/rgy_wire.h>

using namespace velia;
using namespace velia::registry_clnt;

static_assert(offsetof(rgy_cursor_t, dtm) == 8 && offsetof(rgy_cursor_t, magic) == 40);
static_assert(offsetof(rgy_cursor_t, done) == 48 && offsetof(rgy_cursor_t, host) == 56);

namespace {

// What all fetches are given. `entries` is null in the one that leaves them raw.
struct Fetch {
    rgy_db_t db;
    const char *host;
    const char *region;
    rgy_cursor_t **cursor;
    int64_t max_entries;
    rgy_entry_t **entries;
    int64_t *count;

    rgy_cursor_t &at() const { return **cursor; }
};

// A batch on its way to the caller. The list is this side's own, unless it is lent by the cache.
struct Batch {
    int64_t count;
    rgy_elist_t elist;
    rgy_rpc_cache_t *cache; // that will keep the answer; null for none
    bool is_from_cache;
    int64_t made; // entries in the caller's array, to be taken back when a raise lands
};

const char *or_empty(const char *text) {
    return text != nullptr ? text : "";
}

void free_cursor(rgy_cursor_t *&cursor) {
    with_inhibit([&] {
        stg_free(cursor->host);
        stg_free(cursor);
        cursor = nullptr;
    });
}

// The first call fixes the host, and none changes it.
tbs_status_t settle_host(rgy_cursor_t &cursor, const char *host) {
    if (cursor.host != nullptr)
        return host == nullptr || strcmp(host, cursor.host) == 0 ? TBS_ST_OK : TBS_ST_INVALID_ARG;
    if (host == nullptr) {
        const auto status = rgy_load_svrloc(host);
        if (status != TBS_ST_OK)
            return status;
    }
    cursor.host = stg_strdup(host);
    return cursor.host != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

tbs_status_t open_cursor(rgy_cursor_t *&cursor) {
    if (cursor != nullptr)
        return TBS_ST_OK;
    return with_inhibit([&]() -> tbs_status_t {
        cursor = new_record<rgy_cursor_t>();
        if (cursor == nullptr)
            return TBS_ST_NO_MEMORY;
        cursor->magic = RGY_CURSOR_MAGIC;
        return TBS_ST_OK;
    });
}

// With the last batch delivered the next call ends the fetch; an empty last batch ends it at once.
void settle_end(const Fetch &fetch, int64_t count) {
    if (fetch.at().cursor != 0)
        return;
    if (count == 0)
        free_cursor(*fetch.cursor);
    else
        fetch.at().done = 1;
}

rgy_entry_t *make_entry(const rgy_cursor_t &cursor, const rgy_svr_entry_t &raw, tbs_status_t &status) {
    auto *entry = new_record<rgy_entry_t>();
    status = TBS_ST_NO_MEMORY;
    if (entry == nullptr)
        return nullptr;
    entry->magic = RGY_ENTRY_MAGIC;
    entry->dtm = cursor.dtm;
    entry->entry_id = raw.entry_id;
    entry->host = stg_strdup(cursor.host);
    if (entry->host != nullptr)
        status = expand(raw.flex_text, entry->flex);
    if (status != TBS_ST_OK)
        rgy_delete_entry(&entry);
    return entry;
}

void delete_entries(rgy_entry_t **entries, int64_t count) {
    while (count > 0) {
        const auto status = rgy_delete_entry(&entries[--count]);
        if (status == TBS_ST_OK)
            continue;
        tell_failed("rgy_delete_entry", status);
        return;
    }
}

// The master host is loaded for no use: who cannot tell where the registry is gets no entries, also from another host.
tbs_status_t rgy_process_fetch_reply(const Fetch &fetch, Batch &batch) {
    const char *master = nullptr;
    auto status = rgy_load_svrloc(master);
    if (status != TBS_ST_OK)
        return status;
    return with_inhibit([&] {
        for (int64_t i = 0; i < batch.count; ++i) {
            fetch.entries[i] = make_entry(fetch.at(), batch.elist[i], status);
            if (status == TBS_ST_OK)
                continue;
            delete_entries(fetch.entries, i);
            return status;
        }
        batch.made = batch.count;
        return status;
    });
}

// Calls the proxy, by way of `ask`, with a list to fill.
template <class Ask>
tbs_status_t ask_server(const Fetch &fetch, Binding binding, Batch &batch, Ask &&ask) {
    batch.elist = rgy_elist_alloc(fetch.max_entries);
    if (batch.elist == nullptr)
        return TBS_ST_NO_MEMORY;
    const tbs_status_t status = ask(rgy_rvzd_handle(binding), batch.elist, &batch.count);
    if (status == TBS_ST_OK)
        *fetch.count = batch.count;
    return status;
}

void give_up_list(const Fetch &fetch, Batch &batch) {
    if (!batch.is_from_cache)
        rgy_elist_free(batch.elist, fetch.max_entries);
    batch.elist = nullptr;
}

// Searches that are not cached.
struct NoCache {
    static bool find(const Fetch & /*fetch*/, Binding /*binding*/, Batch & /*batch*/) { return false; }
    static void keep(const Fetch &fetch, Batch &batch) { give_up_list(fetch, batch); }
};

// Searches that ask the read cache first. What is sent is noted, since the cursor moves on.
template <class Key>
struct Cached {
    Key key;
    uint32_t item;
    Lookup lookup = {};

    bool find(const Fetch &fetch, Binding binding, Batch &batch) {
        rgy_cursor_t &cursor = fetch.at();
        lookup = {item, fetch.region, fetch.max_entries, cursor.cursor, cursor.dtm};
        batch.cache = rgy_rpc_get_cache(binding, fetch.db);
        const auto *answer = batch.cache != nullptr ? find_answer(*batch.cache, key, lookup) : nullptr;
        if (answer == nullptr)
            return false;
        batch.count = *fetch.count = answer->count;
        batch.elist = answer->elist;
        batch.is_from_cache = true;
        cursor.cursor = answer->cursor_out;
        cursor.dtm = answer->dtm_out;
        return true;
    }

    // The list is the cache's from here on, or gone.
    void keep(const Fetch &fetch, Batch &batch) {
        if (!batch.is_from_cache)
            with_inhibit([&] {
                keep_answer(batch.cache, key, lookup, {batch.count, fetch.at().cursor, fetch.at().dtm, batch.elist});
                batch.elist = nullptr;
            });
    }
};

constexpr auto no_status_apart = [](tbs_status_t) { return false; };

// Bind, ask cache or server, and make entries. `is_apart` names a status that is no failure of the contact.
template <class Cache, class Ask, class IsApart>
tbs_status_t fetch_batch(const Fetch &fetch, Cache &cache, Ask &&ask, IsApart &&is_apart) {
    Batch batch = {};
    const auto work = [&](Binding &binding) -> tbs_status_t {
        auto status = tbs_status_t{TBS_ST_OK};
        if (!cache.find(fetch, binding, batch))
            status = ask_server(fetch, binding, batch, ask);
        release_binding(binding);
        if (status != TBS_ST_OK) {
            if (!is_apart(status))
                tell_trouble_contacting(fetch.at().host, status);
            give_up_list(fetch, batch);
            return is_apart(status) ? status : tbs_status_t{TBS_ST_ERROR};
        }
        status = rgy_process_fetch_reply(fetch, batch);
        cache.keep(fetch, batch);
        if (status == TBS_ST_OK)
            settle_end(fetch, batch.count);
        return status;
    };
    return with_binding(fetch.at().host, anonymous, fetch.db, work, [&] {
        give_up_list(fetch, batch);
        delete_entries(fetch.entries, batch.made);
    });
}

// The road of a fetch but for its batch: the end of one that is done, the cursor and the host.
template <class FetchBatch>
tbs_status_t run_fetch(const Fetch &fetch, FetchBatch &&take_batch) {
    if (fetch.cursor == nullptr || fetch.count == nullptr)
        return TBS_ST_INVALID_ARG;
    if (*fetch.cursor != nullptr && fetch.at().done != 0) {
        free_cursor(*fetch.cursor);
        return TBS_ST_OK;
    }
    auto status = open_cursor(*fetch.cursor);
    if (status == TBS_ST_OK)
        status = settle_host(fetch.at(), fetch.host);
    return status == TBS_ST_OK ? take_batch() : status;
}

template <class Cache, class Ask, class IsApart = decltype(no_status_apart)>
tbs_status_t fetch_entries(const Fetch &fetch, Cache cache, Ask &&ask, IsApart &&is_apart = IsApart{}) {
    if (fetch.entries == nullptr)
        return TBS_ST_INVALID_ARG;
    return run_fetch(fetch, [&] { return fetch_batch(fetch, cache, ask, is_apart); });
}

} // namespace

tbs_status_t rgy_findbystring_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                    const char *string, rgy_cursor_t **cursor, int64_t max_entries,
                                    rgy_entry_t **entries, int64_t *count) {
    if (string == nullptr)
        return TBS_ST_INVALID_ARG;
    return fetch_entries({db, host, region, cursor, max_entries, entries, count}, Cached<const char *>{string, item},
                         [&](rvzd_handle_t *handle, rgy_elist_t elist, int64_t *delivered) {
                             return rvzd_rgy_findbystring_entry(handle, db, RGY_PROTOCOL_VERSION, or_empty(region),
                                                                item_key(item), string, &(*cursor)->dtm,
                                                                &(*cursor)->cursor, max_entries, elist, delivered);
                         });
}

tbs_status_t rgy_findbyuuid_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                  const tbs_uuid_t *uuid, rgy_cursor_t **cursor, int64_t max_entries,
                                  rgy_entry_t **entries, int64_t *count) {
    if (uuid == nullptr)
        return TBS_ST_INVALID_ARG;
    return fetch_entries(
        {db, host, region, cursor, max_entries, entries, count}, Cached<const tbs_uuid_t &>{*uuid, item},
        [&](rvzd_handle_t *handle, rgy_elist_t elist, int64_t *delivered) {
            return rvzd_rgy_findbyuuid_entry(handle, db, RGY_PROTOCOL_VERSION, or_empty(region), item_key(item), uuid,
                                             &(*cursor)->dtm, &(*cursor)->cursor, max_entries, elist, delivered);
        });
}

tbs_status_t rgy_findbyattr_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                  const char *attr_name, const char *attr_value, rgy_cursor_t **cursor,
                                  int64_t max_entries, rgy_entry_t **entries, int64_t *count) {
    return fetch_entries({db, host, region, cursor, max_entries, entries, count}, NoCache{},
                         [&](rvzd_handle_t *handle, rgy_elist_t elist, int64_t *delivered) {
                             return rvzd_rgy_findbyattr_entry(handle, db, RGY_PROTOCOL_VERSION, or_empty(region),
                                                              item_key(item), or_empty(attr_name), or_empty(attr_value),
                                                              &(*cursor)->dtm, &(*cursor)->cursor, max_entries, elist,
                                                              delivered);
                         });
}

tbs_status_t rgy_get_entry(rgy_db_t db, const char *host, const char *region, rgy_cursor_t **cursor,
                           int64_t max_entries, rgy_entry_t **entries, int64_t *count) {
    return fetch_entries({db, host, region, cursor, max_entries, entries, count}, NoCache{},
                         [&](rvzd_handle_t *handle, rgy_elist_t elist, int64_t *delivered) {
                             return rvzd_rgy_get_entry(handle, db, RGY_PROTOCOL_VERSION, or_empty(region),
                                                       &(*cursor)->dtm, &(*cursor)->cursor, max_entries, elist,
                                                       delivered);
                         });
}

// A daemon that predates patterns is no trouble.
tbs_status_t rgy_get_pattern_entry(rgy_db_t db, const char *host, const char *region, const char *const *patterns,
                                   int32_t pattern_count, rgy_cursor_t **cursor, int64_t max_entries,
                                   rgy_entry_t **entries, int64_t *count) {
    if (pattern_count < 0 || (patterns == nullptr && pattern_count > 0))
        return TBS_ST_INVALID_ARG;
    return fetch_entries(
        {db, host, region, cursor, max_entries, entries, count}, NoCache{},
        [&](rvzd_handle_t *handle, rgy_elist_t elist, int64_t *delivered) {
            return rvzd_rgy_get_pattern_entry(handle, db, RGY_PROTOCOL_VERSION, or_empty(region), &(*cursor)->dtm,
                                              &(*cursor)->cursor, patterns, pattern_count, max_entries, elist,
                                              delivered);
        },
        [](tbs_status_t status) { return status == TBS_ST_UNSUPPORTED; });
}

tbs_status_t rgy_get_entry_unexpanded(rgy_db_t db, const char *host, const char *region, rgy_cursor_t **cursor,
                                      int64_t max_entries, rgy_elist_t elist, int64_t *count) {
    if (elist == nullptr)
        return TBS_ST_INVALID_ARG;
    const Fetch fetch = {db, host, region, cursor, max_entries, nullptr, count};
    return run_fetch(fetch, [&] {
        bool is_bound = false;
        const auto status = with_binding(
            fetch.at().host, anonymous, db,
            [&](Binding binding) {
                is_bound = true;
                return rvzd_rgy_get_entry(rgy_rvzd_handle(binding), db, RGY_PROTOCOL_VERSION, or_empty(region),
                                          &fetch.at().dtm, &fetch.at().cursor, max_entries, elist, count);
            },
            [] {});
        if (status == TBS_ST_OK) {
            settle_end(fetch, *count);
            return status;
        }
        if (!is_bound)
            return status;
        tell_trouble_contacting(fetch.at().host, status);
        return tbs_status_t{TBS_ST_ERROR};
    });
}

tbs_status_t rgy_close_cursor(rgy_cursor_t **cursor) {
    if (cursor == nullptr || *cursor == nullptr)
        return TBS_ST_INVALID_ARG;
    free_cursor(*cursor);
    return TBS_ST_OK;
}
