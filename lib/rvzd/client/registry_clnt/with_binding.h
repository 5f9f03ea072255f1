// The frame of every registry operation: lock, bind, work, release.
#pragma once

#include <rvzd/client/registry_clnt/bindings.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <veliaxdr/rgy_messages.h>

namespace velia::registry_clnt {

inline void tell_trouble_contacting(const char *host, tbs_status_t status) {
    imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, host, tbs_strerror(status));
}

// The name under which a bind that failed is told: the one given, else the master's as far as it is known.
inline const char *name_of(const char *host) {
    if (host == nullptr && rgy_load_svrloc(host) != TBS_ST_OK)
        return "";
    return host;
}

// Runs `body` with a binding that `bind` makes, under registry_cache_lock. A bind that fails is the result. When a
// raise lands, the binding is released and `undo` takes back what else was held.
template <class Bind, class Body, class Undo>
tbs_status_t with_bound(Bind &&bind, Body &&body, Undo &&undo) {
    Binding binding;
    return with_lock(registry_cache_lock, [&] {
        return with_cleanup(
            [&]() -> tbs_status_t {
                const tbs_status_t status = bind(binding);
                if (status != TBS_ST_OK)
                    return status;
                const tbs_status_t result = body(binding);
                release_binding(binding);
                return result;
            },
            [&] {
                with_inhibit([&] {
                    release_binding(binding);
                    undo();
                });
            });
    });
}

// With a binding to `host`.
template <class Body, class Undo>
tbs_status_t with_binding(const char *host, uint32_t authenticated, rgy_db_t db, Body &&body, Undo &&undo) {
    return with_bound([&](Binding &binding) { return rgy_bind_handle(host, binding, authenticated, db); }, body, undo);
}

} // namespace velia::registry_clnt
