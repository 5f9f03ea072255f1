// Fetches: one batch of a search or a scan. The six differ in the question, which is data; the rest is one road.
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

// What is searched for. The fields that a kind of search does not have are null.
struct Question {
    enum class By { nothing, string, uuid, attribute, pattern };
    By by = By::nothing;
    uint32_t item = 0;
    const char *string = nullptr;
    const tbs_uuid_t *uuid = nullptr;
    const char *attr_name = nullptr;
    const char *attr_value = nullptr;
    const char *const *patterns = nullptr;
    int32_t pattern_count = 0;
};

// What all fetches are given.
struct Fetch {
    rgy_db_t db;
    const char *host;
    const char *region;
    rgy_cursor_t **cursor;
    int64_t max_entries;
    int64_t *count;
    Question question;

    rgy_cursor_t &at() const { return **cursor; }
};

// A batch on its way to the caller. The list is this side's own, unless it is lent by the cache.
struct Batch {
    rgy_entry_t **entries; // the caller's array
    int64_t count;
    rgy_elist_t elist;
    Lookup lookup;          // as it was sent, since the cursor moves on
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
        print_failed("rgy_delete_entry", status);
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
            batch.entries[i] = make_entry(fetch.at(), batch.elist[i], status);
            if (status == TBS_ST_OK)
                continue;
            delete_entries(batch.entries, i);
            return status;
        }
        batch.made = batch.count;
        return status;
    });
}

tbs_status_t call_proxy(const Fetch &fetch, rvzd_handle_t *handle, rgy_elist_t elist, int64_t *count) {
    using enum Question::By;
    const Question &asked = fetch.question;
    const char *region = or_empty(fetch.region);
    rgy_dtm_pair_t *pair = &fetch.at().dtm;
    uint64_t *cursor = &fetch.at().cursor;
    switch (asked.by) {
    case string:
        return rvzd_rgy_findbystring_entry(handle, fetch.db, RGY_PROTOCOL_VERSION, region, item_key(asked.item),
                                           asked.string, pair, cursor, fetch.max_entries, elist, count);
    case uuid:
        return rvzd_rgy_findbyuuid_entry(handle, fetch.db, RGY_PROTOCOL_VERSION, region, item_key(asked.item),
                                         asked.uuid, pair, cursor, fetch.max_entries, elist, count);
    case attribute:
        return rvzd_rgy_findbyattr_entry(handle, fetch.db, RGY_PROTOCOL_VERSION, region, item_key(asked.item),
                                         or_empty(asked.attr_name), or_empty(asked.attr_value), pair, cursor,
                                         fetch.max_entries, elist, count);
    case pattern:
        return rvzd_rgy_get_pattern_entry(handle, fetch.db, RGY_PROTOCOL_VERSION, region, pair, cursor, asked.patterns,
                                          asked.pattern_count, fetch.max_entries, elist, count);
    case nothing:
        break;
    }
    return rvzd_rgy_get_entry(handle, fetch.db, RGY_PROTOCOL_VERSION, region, pair, cursor, fetch.max_entries, elist,
                              count);
}

// Searches by string and by uuid ask the read cache first.
bool is_cached(const Question &asked) {
    return asked.by == Question::By::string || asked.by == Question::By::uuid;
}

const rgy_rpc_cache_ent_t *find_in_cache(const Question &asked, const Batch &batch) {
    if (batch.cache == nullptr)
        return nullptr;
    return asked.string != nullptr ? find_answer(*batch.cache, asked.string, batch.lookup)
                                   : find_answer(*batch.cache, *asked.uuid, batch.lookup);
}

bool take_from_cache(const Fetch &fetch, Binding binding, Batch &batch) {
    if (!is_cached(fetch.question))
        return false;
    rgy_cursor_t &cursor = fetch.at();
    batch.lookup = {fetch.question.item, fetch.region, fetch.max_entries, cursor.cursor, cursor.dtm};
    batch.cache = rgy_rpc_get_cache(binding, fetch.db);
    const auto *answer = find_in_cache(fetch.question, batch);
    if (answer == nullptr)
        return false;
    batch.count = *fetch.count = answer->count;
    batch.elist = answer->elist;
    batch.is_from_cache = true;
    cursor.cursor = answer->cursor_out;
    cursor.dtm = answer->dtm_out;
    return true;
}

void give_up_list(const Fetch &fetch, Batch &batch) {
    if (!batch.is_from_cache)
        rgy_elist_free(batch.elist, fetch.max_entries);
    batch.elist = nullptr;
}

// The list is the cache's from here on, or gone.
void keep_in_cache(const Fetch &fetch, Batch &batch) {
    if (batch.is_from_cache)
        return;
    if (!is_cached(fetch.question))
        return give_up_list(fetch, batch);
    const Question &asked = fetch.question;
    const LookupAnswer answer = {batch.count, fetch.at().cursor, fetch.at().dtm, batch.elist};
    with_inhibit([&] {
        if (asked.string != nullptr)
            keep_answer(batch.cache, asked.string, batch.lookup, answer);
        else
            keep_answer(batch.cache, *asked.uuid, batch.lookup, answer);
        batch.elist = nullptr;
    });
}

tbs_status_t ask_server(const Fetch &fetch, Binding binding, Batch &batch) {
    batch.elist = rgy_elist_alloc(fetch.max_entries);
    if (batch.elist == nullptr)
        return TBS_ST_NO_MEMORY;
    const auto status = call_proxy(fetch, rgy_rvzd_handle(binding), batch.elist, &batch.count);
    if (status == TBS_ST_OK)
        *fetch.count = batch.count;
    return status;
}

// A daemon that predates patterns is no trouble.
tbs_status_t status_of_trouble(const Fetch &fetch, tbs_status_t status) {
    if (fetch.question.by == Question::By::pattern && status == TBS_ST_UNSUPPORTED)
        return status;
    print_trouble_contacting(fetch.at().host, status);
    return TBS_ST_ERROR;
}

// Asks cache or server, and makes entries.
tbs_status_t take_batch(const Fetch &fetch, Binding &binding, Batch &batch) {
    auto status = take_from_cache(fetch, binding, batch) ? tbs_status_t{TBS_ST_OK} : ask_server(fetch, binding, batch);
    release_binding(binding);
    if (status != TBS_ST_OK) {
        status = status_of_trouble(fetch, status);
        give_up_list(fetch, batch);
        return status;
    }
    status = rgy_process_fetch_reply(fetch, batch);
    keep_in_cache(fetch, batch);
    if (status == TBS_ST_OK)
        settle_end(fetch, batch.count);
    return status;
}

// The end of a fetch that is done, else its cursor and host. `is_over` set: the status is the result.
tbs_status_t begin_fetch(const Fetch &fetch, bool &is_over) {
    is_over = true;
    if (fetch.cursor == nullptr || fetch.count == nullptr)
        return TBS_ST_INVALID_ARG;
    if (*fetch.cursor != nullptr && fetch.at().done != 0) {
        free_cursor(*fetch.cursor);
        return TBS_ST_OK;
    }
    auto status = open_cursor(*fetch.cursor);
    if (status == TBS_ST_OK)
        status = settle_host(fetch.at(), fetch.host);
    is_over = status != TBS_ST_OK;
    return status;
}

tbs_status_t fetch_entries(const Fetch &fetch, rgy_entry_t **entries) {
    if (entries == nullptr)
        return TBS_ST_INVALID_ARG;
    bool is_over;
    const auto status = begin_fetch(fetch, is_over);
    if (is_over)
        return status;
    Batch batch = {};
    batch.entries = entries;
    const auto take_back = [&] {
        give_up_list(fetch, batch);
        delete_entries(entries, batch.made);
    };
    const auto take = [&](Binding &binding) { return take_batch(fetch, binding, batch); };
    return with_binding({fetch.at().host, anonymous, fetch.db}, take, [&] { with_inhibit(take_back); }).status;
}

} // namespace

tbs_status_t rgy_findbystring_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                    const char *string, rgy_cursor_t **cursor, int64_t max_entries,
                                    rgy_entry_t **entries, int64_t *count) {
    if (string == nullptr)
        return TBS_ST_INVALID_ARG;
    const Question asked = {.by = Question::By::string, .item = item, .string = string};
    return fetch_entries({db, host, region, cursor, max_entries, count, asked}, entries);
}

tbs_status_t rgy_findbyuuid_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                  const tbs_uuid_t *uuid, rgy_cursor_t **cursor, int64_t max_entries,
                                  rgy_entry_t **entries, int64_t *count) {
    if (uuid == nullptr)
        return TBS_ST_INVALID_ARG;
    const Question asked = {.by = Question::By::uuid, .item = item, .uuid = uuid};
    return fetch_entries({db, host, region, cursor, max_entries, count, asked}, entries);
}

tbs_status_t rgy_findbyattr_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                  const char *attr_name, const char *attr_value, rgy_cursor_t **cursor,
                                  int64_t max_entries, rgy_entry_t **entries, int64_t *count) {
    const Question asked = {
        .by = Question::By::attribute, .item = item, .attr_name = attr_name, .attr_value = attr_value};
    return fetch_entries({db, host, region, cursor, max_entries, count, asked}, entries);
}

tbs_status_t rgy_get_entry(rgy_db_t db, const char *host, const char *region, rgy_cursor_t **cursor,
                           int64_t max_entries, rgy_entry_t **entries, int64_t *count) {
    return fetch_entries({db, host, region, cursor, max_entries, count, {}}, entries);
}

tbs_status_t rgy_get_pattern_entry(rgy_db_t db, const char *host, const char *region, const char *const *patterns,
                                   int32_t pattern_count, rgy_cursor_t **cursor, int64_t max_entries,
                                   rgy_entry_t **entries, int64_t *count) {
    if (pattern_count < 0 || (patterns == nullptr && pattern_count > 0))
        return TBS_ST_INVALID_ARG;
    const Question asked = {.by = Question::By::pattern, .patterns = patterns, .pattern_count = pattern_count};
    return fetch_entries({db, host, region, cursor, max_entries, count, asked}, entries);
}

tbs_status_t rgy_get_entry_unexpanded(rgy_db_t db, const char *host, const char *region, rgy_cursor_t **cursor,
                                      int64_t max_entries, rgy_elist_t elist, int64_t *count) {
    if (elist == nullptr)
        return TBS_ST_INVALID_ARG;
    const Fetch fetch = {db, host, region, cursor, max_entries, count, {}};
    bool is_over;
    const auto begun = begin_fetch(fetch, is_over);
    if (is_over)
        return begun;
    const auto [is_bound, status] = with_binding({fetch.at().host, anonymous, db}, [&](Binding binding) {
        return call_proxy(fetch, rgy_rvzd_handle(binding), elist, count);
    });
    if (!is_bound)
        return status;
    if (status != TBS_ST_OK)
        return status_of_trouble(fetch, status);
    settle_end(fetch, *count);
    return TBS_ST_OK;
}

tbs_status_t rgy_close_cursor(rgy_cursor_t **cursor) {
    if (cursor == nullptr || *cursor == nullptr)
        return TBS_ST_INVALID_ARG;
    free_cursor(*cursor);
    return TBS_ST_OK;
}
