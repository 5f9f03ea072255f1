// The library's own question goes by way of this one.
#include <tests/system/client/rival.h>

#include <cstdio>
#include <utility>

#include <dlfcn.h>

#include <veliaxdr/rgy_wire.h>

namespace {

std::string rival_text;
int calls_left;

using Ask = decltype(&rvzd_rgy_get_id);

tbs_status_t add_rival(Ask ask, rvzd_handle_t *handle, rgy_db_t db, int64_t version, const std::string &text) {
    rgy_dtm_pair_t stamps = {};
    const auto status = ask(handle, db, version, &stamps);
    return status == TBS_ST_OK ? rvzd_rgy_add_entry(handle, db, version, &stamps, text.c_str()) : status;
}

} // namespace

void let_rival_add(const std::string &flex_text, int calls) {
    rival_text = flex_text;
    calls_left = calls;
}

tbs_status_t rvzd_rgy_get_id(rvzd_handle_t *handle, rgy_db_t db, int64_t version, rgy_dtm_pair_t *stamps) {
    static const auto next = reinterpret_cast<Ask>(dlsym(RTLD_NEXT, "rvzd_rgy_get_id"));
    if (!rival_text.empty() && calls_left-- == 0) {
        const auto status = add_rival(next, handle, db, version, std::exchange(rival_text, ""));
        printf("rival %d\n", status);
    }
    return next(handle, db, version, stamps);
}
