// New entries and questions to the registry itself. How each reports what fails is in the table of site operations.
#include <veliaxdr/rgy_manage.h>

#include <unistd.h>

#include <rvzd/client/registry_clnt/entry.h>
#include <rvzd/client/registry_clnt/site_operation.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

constexpr int32_t first_capacity = 1;

// No storage for the vector of items is not reported: it grows with the first item, or fails then.
tbs_status_t make_entry(const char *host, const rgy_dtm_pair_t &stamps, rgy_entry_t *&out) {
    return with_inhibit([&]() -> tbs_status_t {
        out = new_record<rgy_entry_t>();
        if (out == nullptr)
            return TBS_ST_NO_MEMORY;
        out->magic = RGY_ENTRY_MAGIC;
        out->dtm = stamps;
        out->host = stg_strdup(host);
        if (out->host == nullptr) {
            rgy_delete_entry(&out);
            return TBS_ST_NO_MEMORY;
        }
        out->flex.items = static_cast<rgy_item_t *>(stg_malloc(first_capacity * sizeof(rgy_item_t)));
        out->flex.capacity = out->flex.items != nullptr ? first_capacity : 0;
        return TBS_ST_OK;
    });
}

} // namespace

tbs_status_t rgy_create_entry(rgy_db_t db, const char *host, rgy_entry_t **out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = nullptr;
    rgy_dtm_pair_t stamps = {};
    return ask_site(
        create_entry, host, db,
        [&](rvzd_handle_t *handle) { return rvzd_rgy_get_id(handle, db, RGY_PROTOCOL_VERSION, &stamps); },
        [&](const char *bound_host) { return make_entry(bound_host, stamps, *out); },
        [&] {
            if (*out != nullptr)
                rgy_delete_entry(out);
        });
}

tbs_status_t rgy_chk_access(rgy_db_t db, const char *host, const char *password) {
    if (password == nullptr)
        return TBS_ST_INVALID_ARG;
    return ask_site(chk_access, host, db, [&](rvzd_handle_t *handle) {
        return rvzd_rgy_chk_access(handle, db, RGY_PROTOCOL_VERSION, static_cast<int64_t>(geteuid()), password);
    });
}

tbs_status_t rgy_get_db_list(const char *host, int64_t db_max, rgy_db_info_t *dbs, int64_t *count) {
    if (dbs == nullptr || count == nullptr)
        return TBS_ST_INVALID_ARG;
    return ask_site(get_db_list, host, RGY_DB_ALL, [&](rvzd_handle_t *handle) {
        return rvzd_rgy_get_db_list(handle, RGY_PROTOCOL_VERSION, db_max, dbs, count);
    });
}

tbs_status_t rgy_get_current_backup(char **host_list) {
    if (host_list == nullptr || *host_list == nullptr)
        return TBS_ST_INVALID_ARG;
    return ask_site(get_current_backup, nullptr, RGY_DB_ALL, [&](rvzd_handle_t *handle) {
        return rvzd_rgy_get_backup(handle, RGY_PROTOCOL_VERSION, host_list);
    });
}

tbs_status_t rgy_set_current_backup(const char *host_list) {
    if (host_list == nullptr)
        return TBS_ST_INVALID_ARG;
    return ask_site(set_current_backup, nullptr, RGY_DB_ALL, [&](rvzd_handle_t *handle) {
        return rvzd_rgy_set_backup(handle, RGY_PROTOCOL_VERSION, host_list);
    });
}
