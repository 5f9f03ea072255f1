// Snapshots of a database's stamps. A change that a check finds also voids what the caches hold of the database, which
// their age alone would have kept for some seconds.
#include <rvzd/client/registry_clnt/site_operation.h>
#include <veliaxdr/rgy_manage.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

bool differs(const rgy_timestamp_t &left, const rgy_timestamp_t &right) {
    return memcmp(&left.dtm, &right.dtm, sizeof left.dtm) != 0 || !tbs_uuid_eq(&left.aux_uuid1, &right.aux_uuid1) ||
           !tbs_uuid_eq(&left.aux_uuid2, &right.aux_uuid2);
}

tbs_status_t ask_stamps(rvzd_handle_t *handle, rgy_db_t db, rgy_timestamp_t &stamps) {
    return rvzd_rgy_get_dtm(handle, db, RGY_PROTOCOL_VERSION, &stamps.dtm, &stamps.aux_uuid1, &stamps.aux_uuid2);
}

// No storage for the host's name leaves no record and is no failure: callers test what they get.
tbs_status_t keep_stamps(const rgy_timestamp_t &stamps, const char *host, rgy_timestamp_t *&out) {
    return with_inhibit([&]() -> tbs_status_t {
        out = new_record<rgy_timestamp_t>();
        if (out == nullptr)
            return TBS_ST_NO_MEMORY;
        *out = stamps;
        out->host = stg_strdup(host);
        if (out->host == nullptr) {
            stg_free(out);
            out = nullptr;
        }
        return TBS_ST_OK;
    });
}

void destroy(rgy_timestamp_t *&stamp) {
    with_inhibit([&] {
        stg_free(stamp->host);
        stg_free(stamp);
        stamp = nullptr;
    });
}

void flush_for_change(Binding binding, rgy_db_t db) {
    const char *host = slot_of(binding).host;
    if (db >= RGY_DB_ALL)
        return;
    with_inhibit([&] {
        flush_caches(host, db);
        ++rgy_rpc_stats[tsflush];
    });
}

} // namespace

tbs_status_t rgy_create_timestamp(rgy_db_t db, const char *host, rgy_timestamp_t **out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = nullptr;
    rgy_timestamp_t stamps = {};
    return ask_site(
        create_timestamp, host, RGY_DB_ALL, [&](rvzd_handle_t *handle) { return ask_stamps(handle, db, stamps); },
        [&](const char *bound_host) { return keep_stamps(stamps, bound_host, *out); },
        [&] {
            if (*out != nullptr)
                destroy(*out);
        });
}

tbs_status_t rgy_check_timestamp(rgy_db_t db, const char *host, rgy_timestamp_t *stamp, int32_t *changed) {
    if (stamp == nullptr || changed == nullptr || stamp->host == nullptr ||
        (host != nullptr && strcmp(host, stamp->host) != 0))
        return TBS_ST_INVALID_ARG;
    rgy_timestamp_t stamps = {};
    bool is_changed = false;
    const auto ask = [&](Binding binding) {
        const auto answer = ask_stamps(rgy_rvzd_handle(binding), db, stamps);
        is_changed = answer == TBS_ST_OK && differs(stamps, *stamp);
        if (is_changed)
            flush_for_change(binding, db);
        return answer;
    };
    const auto status = with_binding({stamp->host, anonymous, db}, ask).status;
    if (status != TBS_ST_OK) {
        print_trouble_contacting(stamp->host, status);
        return TBS_ST_ERROR;
    }
    stamps.host = stamp->host;
    *stamp = stamps;
    *changed = is_changed ? 1 : 0;
    return TBS_ST_OK;
}

tbs_status_t rgy_destroy_timestamp(rgy_timestamp_t **stamp) {
    if (stamp == nullptr || *stamp == nullptr)
        return TBS_ST_INVALID_ARG;
    destroy(*stamp);
    return TBS_ST_OK;
}
