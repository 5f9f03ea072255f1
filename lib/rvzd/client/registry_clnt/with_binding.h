// The frame of every registry operation: lock, bind, work, release.
#pragma once

#include <rvzd/client/registry_clnt/bindings.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <rvzd/client/rvzd_clnt/bound.h>
#include <veliaxdr/rgy_messages.h>

namespace velia::registry_clnt {

using rvzd_clnt::Bound;

inline void print_trouble_contacting(const char *host, tbs_status_t status) {
    imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, host, tbs_strerror(status));
}

// The name under which a bind that failed is told: the one given, else the master's as far as it is known.
inline const char *name_of(const char *host) {
    if (host == nullptr && rgy_load_svrloc(host) != TBS_ST_OK)
        return "";
    return host;
}

// What is to be bound. Without a host it is the site's registry: the master or, where it does not answer, its backups.
struct BindRequest {
    const char *host;
    uint32_t authenticated;
    rgy_db_t db; // whose caches are flushed where the credentials are the caller's own
    bool falls_over = false;
};

// Runs `body` with a binding, under registry_cache_lock. When a raise lands, `undo` takes back what the body has made.
template <class Body, class Undo = void()>
Bound with_binding(const BindRequest &wanted, Body &&body, Undo &&undo = nothing) {
    Binding binding;
    return with_lock(
        cache_lock,
        [&]() -> Bound {
            const auto bind = wanted.falls_over ? bind_with_fail_over : rgy_bind_handle;
            const tbs_status_t status = bind(wanted.host, binding, wanted.authenticated, wanted.db);
            return status == TBS_ST_OK ? Bound{true, body(binding)} : Bound{false, status};
        },
        [&] { release_binding(binding); }, undo);
}

} // namespace velia::registry_clnt
