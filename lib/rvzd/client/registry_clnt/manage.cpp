// New entries and questions to the registry itself. All bind to the site's registry; they differ in how they report
// what fails, and that is told where each is.
#include <veliaxdr/rgy_manage.h>

#include <unistd.h>

#include <rvzd/client/registry_clnt/entry.h>
#include <rvzd/client/registry_clnt/with_binding.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

constexpr int32_t first_capacity = 1;

// A failed call is told under the host that was bound, and is an error like any other.
tbs_status_t told(Binding binding, tbs_status_t status) {
    if (status == TBS_ST_OK)
        return TBS_ST_OK;
    tell_trouble_contacting(slot_of(binding).host, status);
    return TBS_ST_ERROR;
}

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

tbs_status_t status_of_access(Binding binding, tbs_status_t status) {
    return status == TBS_ST_NOT_FOUND || status == TBS_ST_NO_ACCESS ? status : told(binding, status);
}

// The slot stays counted, and so is never given up for another host: that is how these two have always been.
void keep_bound(Binding &binding) {
    binding.index = -1;
}

} // namespace

tbs_status_t rgy_create_entry(rgy_db_t db, const char *host, rgy_entry_t **out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = nullptr;
    return with_site_binding(
        host, real, db,
        [&](Binding binding) {
            rgy_dtm_pair_t stamps = {};
            const auto status = rvzd_rgy_get_id(rgy_rvzd_handle(binding), db, RGY_PROTOCOL_VERSION, &stamps);
            return status == TBS_ST_OK ? make_entry(slot_of(binding).host, stamps, *out) : told(binding, status);
        },
        [&] {
            if (*out != nullptr)
                rgy_delete_entry(out);
        });
}

tbs_status_t rgy_chk_access(rgy_db_t db, const char *host, const char *password) {
    return with_site_binding(
        host, real, db,
        [&](Binding binding) {
            const auto status = rvzd_rgy_chk_access(rgy_rvzd_handle(binding), db, RGY_PROTOCOL_VERSION,
                                                    static_cast<int64_t>(geteuid()), password);
            return status_of_access(binding, status);
        },
        [] {});
}

tbs_status_t rgy_get_db_list(const char *host, int64_t db_max, rgy_db_info_t *dbs, int64_t *count) {
    if (dbs == nullptr || count == nullptr)
        return TBS_ST_INVALID_ARG;
    bool is_bound = false;
    const auto status = with_site_binding(
        host, anonymous, RGY_DB_ALL,
        [&](Binding binding) {
            is_bound = true;
            return rvzd_rgy_get_db_list(rgy_rvzd_handle(binding), RGY_PROTOCOL_VERSION, db_max, dbs, count);
        },
        [] {});
    if (is_bound)
        return status;
    tell_trouble_contacting(name_of(host), status);
    return TBS_ST_ERROR;
}

tbs_status_t rgy_get_current_backup(char **host_list) {
    if (host_list == nullptr || *host_list == nullptr)
        return TBS_ST_INVALID_ARG;
    return with_site_binding(
        nullptr, anonymous, RGY_DB_ALL,
        [&](Binding &binding) {
            const auto status =
                told(binding, rvzd_rgy_get_backup(rgy_rvzd_handle(binding), RGY_PROTOCOL_VERSION, host_list));
            keep_bound(binding);
            return status;
        },
        [] {});
}

tbs_status_t rgy_set_current_backup(const char *host_list) {
    return with_site_binding(
        nullptr, real, RGY_DB_ALL,
        [&](Binding &binding) {
            const auto status =
                told(binding, rvzd_rgy_set_backup(rgy_rvzd_handle(binding), RGY_PROTOCOL_VERSION, host_list));
            keep_bound(binding);
            return status;
        },
        [] {});
}
