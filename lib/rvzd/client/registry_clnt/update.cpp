// The change of one entry. Both bind with the caller's credentials, which flushes what the caches of the database hold.
#include <rvzd/client/registry_clnt/entry.h>
#include <rvzd/client/registry_clnt/with_binding.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_wire.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

bool is_sendable(const rgy_entry_t *entry) {
    return is_alive(entry) && entry->host != nullptr;
}

tbs_status_t status_of_add(const rgy_entry_t &entry, tbs_status_t status) {
    switch (status) {
    case TBS_ST_OK:
    case TBS_ST_STALE_ID:
        return status;
    case TBS_ST_NO_ACCESS:
        print_failed("rgy_add_entry", status);
        return status;
    default:
        print_trouble_contacting(entry.host, status);
        return TBS_ST_ERROR;
    }
}

tbs_status_t send_add(rgy_db_t db, const rgy_entry_t &entry, const char *text) {
    const auto [is_bound, status] = with_binding({entry.host, real, db}, [&](Binding binding) {
        return rvzd_rgy_add_entry(rgy_rvzd_handle(binding), db, RGY_PROTOCOL_VERSION, &entry.dtm, text);
    });
    return is_bound ? status_of_add(entry, status) : status;
}

} // namespace

tbs_status_t rgy_add_entry(rgy_db_t db, rgy_entry_t *entry) {
    if (!is_sendable(entry))
        return TBS_ST_INVALID_ARG;
    char *text = nullptr;
    return with_release(
        [&] {
            const auto status = rgy_gather_flex_entry(&entry->flex, &text);
            return status == TBS_ST_OK ? send_add(db, *entry, text) : status;
        },
        [&] {
            with_inhibit([&] {
                stg_free(text);
                text = nullptr;
            });
        });
}

tbs_status_t rgy_remove_entry(rgy_db_t db, rgy_entry_t *entry) {
    if (!is_sendable(entry))
        return TBS_ST_INVALID_ARG;
    const auto [is_bound, status] = with_binding({entry->host, real, db}, [&](Binding binding) {
        return rvzd_rgy_remove_entry(rgy_rvzd_handle(binding), db, RGY_PROTOCOL_VERSION, &entry->dtm, entry->entry_id);
    });
    if (status == TBS_ST_OK || !is_bound)
        return status;
    print_trouble_contacting(entry->host, status);
    return TBS_ST_ERROR;
}
