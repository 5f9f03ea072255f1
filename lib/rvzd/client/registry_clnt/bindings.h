// Bindings: the broker handles through which this process reaches registry hosts, one for each host and kind of
// credentials, in a table that lasts as long as the process. Guarded by registry_cache_lock.
#pragma once

#include <rvzd/client/registry_clnt/local/site.h>
#include <rvzd/client/registry_clnt/read_cache.h>
#include <veliaxdr/rvzd_handle.h>

namespace velia::registry_clnt {

// Credentials of a binding: nobody's, or the caller's own. Updates show who makes them.
enum : uint32_t { anonymous = 0, real = 1 };

struct rgy_rpc_binding_t {
    int32_t ref_count;      // operations that hold the slot now
    uint32_t authenticated; // with which the handle was made
    rvzd_handle_t *handle;  // null: a free slot
    char host[host_size];
    rgy_rpc_cache_t *cache[RGY_DB_ALL];
};

// The table. Slots are addressed by their number, because growing moves it.
extern rgy_rpc_binding_t *rpc_binding;
extern int64_t rpc_binding_count;

// What an operation holds: the number of a slot, -1 for none.
struct Binding {
    int64_t index = -1;
};

// Binds to a host. With real credentials, which is how every update binds, the caches of `db` of that host are flushed
// before, so that a writer's later reads do not see what it replaces; anonymous ones take no notice of `db`.
tbs_status_t rgy_bind_handle(const char *host, Binding &binding, uint32_t authenticated, rgy_db_t db);

// Binds to `host`, or without one to the master and, if that does not answer, to the backups in turn.
tbs_status_t bind_with_fail_over(const char *host, Binding &binding, uint32_t authenticated, rgy_db_t db);

// Destroys the caches of `db` in all slots of the host; all twelve for RGY_DB_ALL, none for what is above it.
void flush_caches(const char *host, rgy_db_t db);

// Gives a binding back; the handle and its caches stay for the next one. One that is not bound is ignored.
void release_binding(Binding &binding);

// The slot of a binding, its broker handle, and its cache of `db`, null without one.
rgy_rpc_binding_t &slot_of(Binding binding);
rvzd_handle_t *rgy_rvzd_handle(Binding binding);
rgy_rpc_cache_t *rgy_rpc_get_cache(Binding binding, rgy_db_t db);

// Releases the whole table and prints the statistics; registered for the end of the process. Other threads may go on
// until that comes: nothing is waited for, and a table that another thread has in hand, or whose handles the end of its
// broker call would have to be waited for, stays as it is.
void rgy_deallocate_bindings(void *unused);

} // namespace velia::registry_clnt
