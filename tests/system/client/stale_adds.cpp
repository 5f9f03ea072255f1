// The library's own call of an add goes by way of this one, which counts the refusals and passes everything on.
#include <tests/system/client/stale_adds.h>

#include <dlfcn.h>

#include <veliaxdr/rgy_wire.h>

namespace {

int count;

} // namespace

int stale_adds() {
    return count;
}

tbs_status_t rvzd_rgy_add_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const rgy_dtm_pair_t *pair,
                                const char *flex_text) {
    static const auto next = reinterpret_cast<decltype(&rvzd_rgy_add_entry)>(dlsym(RTLD_NEXT, "rvzd_rgy_add_entry"));
    const auto status = next(handle, db, version, pair, flex_text);
    count += status == TBS_ST_STALE_ID;
    return status;
}
