// The operations that fall over from the master to a backup when no host is given. They are one frame, and this table
// of what they differ in. Two of them always ask the master: their callers pass no host.
#pragma once

#include <rvzd/client/registry_clnt/with_binding.h>

namespace velia::registry_clnt {

// What becomes of a failure: the result as it is; told, and then TBS_ST_ERROR; or told unless it says that access is
// denied, which is an answer.
enum class Failure { passed_on, told, told_but_denials };

struct SiteOperation {
    uint32_t authenticated; // credentials of the binding
    Failure failed_bind;    // also of finding out the host
    Failure failed_call;
    bool keeps_slot; // the slot stays counted, and so is never given up for another host
};

// clang-format off
//                                                   credentials bind                 call                       keeps
inline constexpr SiteOperation create_entry       = {real,      Failure::passed_on, Failure::told,             false};
inline constexpr SiteOperation chk_access         = {real,      Failure::passed_on, Failure::told_but_denials, false};
inline constexpr SiteOperation create_timestamp   = {anonymous, Failure::told,      Failure::told,             false};
inline constexpr SiteOperation get_db_list        = {anonymous, Failure::told,      Failure::passed_on,        false};
inline constexpr SiteOperation get_current_backup = {anonymous, Failure::passed_on, Failure::told,             true};
inline constexpr SiteOperation set_current_backup = {real,      Failure::passed_on, Failure::told,             true};
// clang-format on

inline bool is_denial(tbs_status_t status) {
    return status == TBS_ST_NOT_FOUND || status == TBS_ST_NO_ACCESS;
}

inline tbs_status_t result_of(Failure failure, const char *host, tbs_status_t status) {
    if (failure == Failure::passed_on || (failure == Failure::told_but_denials && is_denial(status)))
        return status;
    print_trouble_contacting(host, status);
    return TBS_ST_ERROR;
}

// Binds to `host`, or without one to the site's registry, and runs `call` with the broker handle. When that succeeds
// `take` has the name of the host that answered, and gives the result. Credentials that are the caller's own flush what
// is cached of `db`. When a raise lands, `undo` takes back what was made.
template <class Call, class Take, class Undo>
tbs_status_t ask_site(const SiteOperation &operation, const char *host, rgy_db_t db, Call &&call, Take &&take,
                      Undo &&undo) {
    const auto ask = [&](Binding &binding) -> tbs_status_t {
        const tbs_status_t answer = call(rgy_rvzd_handle(binding));
        const char *bound_host = slot_of(binding).host;
        const tbs_status_t result =
            answer == TBS_ST_OK ? take(bound_host) : result_of(operation.failed_call, bound_host, answer);
        if (operation.keeps_slot)
            binding = {};
        return result;
    };
    const auto [is_bound, status] = with_binding({host, operation.authenticated, db, true}, ask, undo);
    return is_bound || status == TBS_ST_OK ? status : result_of(operation.failed_bind, name_of(host), status);
}

// The same for a call that leaves nothing behind.
template <class Call>
tbs_status_t ask_site(const SiteOperation &operation, const char *host, rgy_db_t db, Call &&call) {
    return ask_site(
        operation, host, db, call, [](const char * /*bound_host*/) { return tbs_status_t{TBS_ST_OK}; }, nothing);
}

} // namespace velia::registry_clnt
