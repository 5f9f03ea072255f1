#include <tests/system/support/registry_calls.h>

namespace velia::system_test {

namespace {

constexpr int tries_max = 200;

} // namespace

OwnedHandle own_handle(const char *host, uint32_t prim) {
    rvzd_handle_t *handle = nullptr;
    rvzd_get_handle_prim(host, prim, &handle);
    return OwnedHandle(handle);
}

// Adds with the stamps of the moment, again and again while somebody else is quicker.
tbs_status_t add(rgy_db_t db, const std::string &text, const char *host, int *stale_answers) {
    for (int tries = 0; tries < tries_max; ++tries) {
        const auto handle = own_handle(host);
        if (handle == nullptr)
            return TBS_ST_NO_SERVER;
        rgy_dtm_pair_t stamps = {};
        auto status = rvzd_rgy_get_id(handle.get(), db, RGY_PROTOCOL_VERSION, &stamps);
        if (status == TBS_ST_OK)
            status = rvzd_rgy_add_entry(handle.get(), db, RGY_PROTOCOL_VERSION, &stamps, text.c_str());
        if (status != TBS_ST_STALE_ID)
            return status;
        if (stale_answers != nullptr)
            ++*stale_answers;
    }
    return TBS_ST_STALE_ID;
}

std::string text_of(const rgy_entry_t *entry, uint32_t item) {
    const char *text = nullptr;
    return rgy_getstring_from_entry_const(entry, item, &text) == TBS_ST_OK ? text : "";
}

// The names of all entries of a database, in the order in which they come; nothing when the scan fails.
std::optional<std::vector<std::string>> names_of(rgy_db_t db, int64_t batch, const char *host) {
    std::vector<std::string> names;
    std::vector<rgy_entry_t *> entries(static_cast<size_t>(batch));
    rgy_cursor_t *cursor = nullptr;
    do {
        int64_t count = 0;
        if (rgy_get_entry(db, host, nullptr, &cursor, batch, entries.data(), &count) != TBS_ST_OK) {
            rgy_close_cursor(&cursor);
            return std::nullopt;
        }
        for (size_t i = 0; cursor != nullptr && i < static_cast<size_t>(count); ++i) {
            names.push_back(text_of(entries[i], RGY_ITEM_NAME));
            rgy_delete_entry(&entries[i]);
        }
    } while (cursor != nullptr);
    return names;
}

std::string name_entry(const std::string &name) {
    return "-name=" + name + ";";
}

} // namespace velia::system_test
