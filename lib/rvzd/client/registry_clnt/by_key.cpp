// One value, or one removal, by a key. The forms by string and by uuid are one operation over a search; where they
// differ in what they print or return, that is the search's data or the caller's.
#include <veliaxdr/rgy_fetch.h>

#include <rvzd/client/registry_clnt/registry_clnt.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

// A search for one key.
struct Search {
    rgy_db_t db;
    const char *host;
    const char *region;
    uint32_t item;
    const char *string; // null: by uuid
    const tbs_uuid_t *uuid;

    const char *name() const { return string != nullptr ? "rgy_findbystring_entry" : "rgy_findbyuuid_entry"; }

    tbs_status_t operator()(rgy_cursor_t *&cursor, int64_t max_entries, rgy_entry_t **entries, int64_t &count) const {
        return string != nullptr
                   ? rgy_findbystring_entry(db, host, region, item, string, &cursor, max_entries, entries, &count)
                   : rgy_findbyuuid_entry(db, host, region, item, uuid, &cursor, max_entries, entries, &count);
    }
};

// The cursor and the entries of a search, which are given back on every way out.
template <int64_t Slots>
struct Results {
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entries[Slots] = {};

    // At the first entry that cannot be deleted the deleting stops.
    void give_back() {
        with_inhibit([&] {
            for (auto *&entry : entries)
                if (entry != nullptr && !print_if_failed("rgy_delete_entry", rgy_delete_entry(&entry)))
                    break;
            if (cursor != nullptr)
                print_if_failed("rgy_close_cursor", rgy_close_cursor(&cursor));
        });
    }

    static bool print_if_failed(const char *operation, tbs_status_t status) {
        if (status != TBS_ST_OK)
            print_failed(operation, status);
        return status == TBS_ST_OK;
    }
};

struct Output {
    uint32_t item;
    size_t size;
    char *buffer;

    bool is_wanted() const { return size != 0 && buffer != nullptr; }
};

template <size_t Count>
tbs_status_t copy_outputs(const rgy_entry_t *entry, const Output (&outputs)[Count]) {
    for (const Output &output : outputs) {
        if (!output.is_wanted())
            continue;
        const auto status = rgy_getstring_from_entry(entry, output.item, output.size, output.buffer);
        if (status == TBS_ST_OK)
            continue;
        print_failed("rgy_getstring_from_entry", status);
        return status;
    }
    return TBS_ST_OK;
}

// Finds one entry and hands it to `use`. `status_of_failure` makes the result of a failed search. Both forms tell a
// failure under the name of the search by uuid, which is kept.
template <class StatusOfFailure, class Use>
tbs_status_t use_one_entry(const Search &search, StatusOfFailure &&status_of_failure, Use &&use) {
    Results<1> results;
    return with_release(
        [&]() -> tbs_status_t {
            int64_t count = 0;
            const auto status = search(results.cursor, 1, results.entries, count);
            if (status != TBS_ST_OK) {
                print_failed("rgy_findbyuuid_entry", status);
                return status_of_failure(status);
            }
            if (results.cursor == nullptr || results.entries[0] == nullptr)
                return TBS_ST_NOT_FOUND;
            return use(results.entries[0]);
        },
        [&] { results.give_back(); });
}

constexpr int64_t ambiguous_count = 2;

// Searches, one entry at a time, until two are found or the fetch has ended: so single answers can come from the cache.
tbs_status_t find_up_to_two(const Search &search, Results<ambiguous_count> &results, int64_t &found) {
    while (found < ambiguous_count) {
        int64_t count = 0;
        const auto status = search(results.cursor, 1, &results.entries[found], count);
        if (status != TBS_ST_OK) {
            print_failed(search.name(), status);
            return TBS_ST_ERROR;
        }
        if (results.cursor == nullptr)
            break;
        found += count;
    }
    return found > 0 ? TBS_ST_OK : TBS_ST_NOT_FOUND;
}

// Both at once, which the cache never answers.
tbs_status_t find_two_at_once(const Search &search, Results<ambiguous_count> &results, int64_t &found) {
    int64_t count = 0;
    const auto status = search(results.cursor, ambiguous_count, results.entries, count);
    if (status != TBS_ST_OK) {
        print_failed(search.name(), status);
        return TBS_ST_ERROR;
    }
    found = count;
    return results.cursor != nullptr && found > 0 ? TBS_ST_OK : TBS_ST_NOT_FOUND;
}

using FindTwo = tbs_status_t (*)(const Search &, Results<ambiguous_count> &, int64_t &);

// Reads one value of the first entry that the search finds.
template <class Read>
tbs_status_t read_value(const Search &search, FindTwo find, int32_t *ambiguous, Read &&read) {
    int64_t found = 0;
    Results<ambiguous_count> results;
    const auto status = with_release(
        [&] {
            const auto search_status = find(search, results, found);
            return search_status == TBS_ST_OK ? read(results.entries[0]) : search_status;
        },
        [&] { results.give_back(); });
    if (ambiguous != nullptr)
        *ambiguous = found >= ambiguous_count ? 1 : 0;
    return status;
}

constexpr int64_t removal_batch = 20;

tbs_status_t remove_batch(rgy_db_t db, rgy_entry_t **entries, int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
        auto status = rgy_remove_entry(db, entries[i]);
        if (status != TBS_ST_OK) {
            print_failed("rgy_remove_entry", status);
            return status;
        }
        status = rgy_delete_entry(&entries[i]);
        if (status != TBS_ST_OK) {
            print_failed("rgy_delete_entry", status);
            return status;
        }
    }
    return TBS_ST_OK;
}

tbs_status_t remove_batches(const Search &search, Results<removal_batch> &results) {
    bool is_any_removed = false;
    for (;;) {
        int64_t count = 0;
        auto status = search(results.cursor, removal_batch, results.entries, count);
        if (status != TBS_ST_OK) {
            print_failed(search.name(), status);
            return status;
        }
        if (results.cursor == nullptr)
            return is_any_removed ? TBS_ST_OK : TBS_ST_NOT_FOUND;
        status = remove_batch(search.db, results.entries, count);
        if (status != TBS_ST_OK)
            return status;
        is_any_removed = is_any_removed || count > 0;
    }
}

tbs_status_t remove_found(const Search &search) {
    Results<removal_batch> results;
    return with_release([&] { return remove_batches(search, results); }, [&] { results.give_back(); });
}

} // namespace

tbs_status_t rgy_getinfo_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item, const char *string,
                                   size_t hostname_size, char *hostname, size_t local_path_size, char *local_path,
                                   size_t global_path_size, char *global_path) {
    if (string == nullptr)
        return TBS_ST_INVALID_ARG;
    const Output outputs[] = {{RGY_ITEM_HOSTNAME, hostname_size, hostname},
                              {RGY_ITEM_LOCAL_PATH, local_path_size, local_path},
                              {RGY_ITEM_GLOBAL_PATH, global_path_size, global_path}};
    return use_one_entry(
        {db, host, region, item, string, nullptr}, [](tbs_status_t) { return tbs_status_t{TBS_ST_ERROR}; },
        [&](const rgy_entry_t *entry) { return copy_outputs(entry, outputs); });
}

tbs_status_t rgy_getinfo_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                 const tbs_uuid_t *uuid, size_t hostname_size, char *hostname, size_t local_path_size,
                                 char *local_path, size_t global_path_size, char *global_path,
                                 size_t mount_options_size, char *mount_options) {
    if (uuid == nullptr)
        return TBS_ST_INVALID_ARG;
    const Output outputs[] = {{RGY_ITEM_HOSTNAME, hostname_size, hostname},
                              {RGY_ITEM_LOCAL_PATH, local_path_size, local_path},
                              {RGY_ITEM_GLOBAL_PATH, global_path_size, global_path}};
    return use_one_entry(
        {db, host, region, item, nullptr, uuid}, [](tbs_status_t status) { return status; },
        [&](const rgy_entry_t *entry) {
            const auto status = copy_outputs(entry, outputs);
            if (status != TBS_ST_OK || mount_options == nullptr)
                return status;
            return rgy_getstring_from_entry(entry, RGY_ITEM_MOUNT_OPTIONS, mount_options_size, mount_options);
        });
}

tbs_status_t rgy_getstring_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                     const char *string, uint32_t wanted, size_t size, char *buffer,
                                     int32_t *ambiguous) {
    if (string == nullptr)
        return TBS_ST_INVALID_ARG;
    return read_value({db, host, region, item, string, nullptr}, find_up_to_two, ambiguous,
                      [&](const rgy_entry_t *entry) { return rgy_getstring_from_entry(entry, wanted, size, buffer); });
}

tbs_status_t rgy_getstring_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                   const tbs_uuid_t *uuid, uint32_t wanted, size_t size, char *buffer,
                                   int32_t *ambiguous) {
    if (uuid == nullptr)
        return TBS_ST_INVALID_ARG;
    return read_value({db, host, region, item, nullptr, uuid}, find_two_at_once, ambiguous,
                      [&](const rgy_entry_t *entry) { return rgy_getstring_from_entry(entry, wanted, size, buffer); });
}

tbs_status_t rgy_getuuid_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item, const char *string,
                                   uint32_t wanted, tbs_uuid_t *out, int32_t *ambiguous) {
    if (string == nullptr)
        return TBS_ST_INVALID_ARG;
    return read_value({db, host, region, item, string, nullptr}, find_up_to_two, ambiguous,
                      [&](const rgy_entry_t *entry) { return rgy_getuuid_from_entry(entry, wanted, out); });
}

tbs_status_t rgy_getuuid_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                 const tbs_uuid_t *uuid, uint32_t wanted, tbs_uuid_t *out, int32_t *ambiguous) {
    if (uuid == nullptr)
        return TBS_ST_INVALID_ARG;
    return read_value({db, host, region, item, nullptr, uuid}, find_up_to_two, ambiguous,
                      [&](const rgy_entry_t *entry) { return rgy_getuuid_from_entry(entry, wanted, out); });
}

tbs_status_t rgy_remove_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                  const char *string) {
    if (string == nullptr)
        return TBS_ST_INVALID_ARG;
    return remove_found({db, host, region, item, string, nullptr});
}

tbs_status_t rgy_remove_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                const tbs_uuid_t *uuid) {
    if (uuid == nullptr)
        return TBS_ST_INVALID_ARG;
    return remove_found({db, host, region, item, nullptr, uuid});
}
