// The table of bindings. A slot is free (no handle), in use (references) or idle; the lowest idle slot is given up when
// none is free, and the table grows only when all are in use at the same moment.
#include <rvzd/client/registry_clnt/bindings.h>

#include <algorithm>
#include <cstddef>

#include <common/require.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::registry_clnt;

rgy_rpc_binding_t *velia::registry_clnt::rpc_binding;
int64_t velia::registry_clnt::rpc_binding_count;

static_assert(offsetof(rgy_rpc_binding_t, host) == 16 && offsetof(rgy_rpc_binding_t, cache) == 80);

namespace {

constexpr int64_t first_count = 8;
constexpr int64_t no_slot = -1;
constexpr char separators[] = " \n\t:;";

bool is_registered_for_exit;

// Bindings that another thread had in hand are left to the parent.
void begin_without_bindings() {
    rpc_binding = nullptr;
    rpc_binding_count = 0;
}

} // namespace

ForkWatch velia::registry_clnt::cache_lock_watch = {registry_cache_lock, begin_without_bindings};

namespace {

// The first slot that `wanted` accepts.
template <class Wanted>
int64_t find_slot(Wanted &&wanted) {
    for (int64_t i = 0; i < rpc_binding_count; ++i)
        if (wanted(rpc_binding[i]))
            return i;
    return no_slot;
}

bool is_at(const rgy_rpc_binding_t &slot, const char *host) {
    return slot.handle != nullptr && strcmp(slot.host, host) == 0;
}

void destroy_caches(rgy_rpc_binding_t &slot) {
    for (auto &cache : slot.cache)
        rgy_destroy_cache(cache);
}

// A free slot has nobody and nothing.
void require_sound(const rgy_rpc_binding_t &slot) {
    require(slot.ref_count >= 0);
    if (slot.handle != nullptr)
        return;
    require(slot.ref_count == 0);
    for (const auto &cache : slot.cache)
        require(cache == nullptr);
}

// A reader may use a writer's handle, but not the reverse.
int64_t find_bound(const char *host, uint32_t authenticated) {
    return find_slot([&](const rgy_rpc_binding_t &slot) {
        return is_at(slot, host) && (authenticated == anonymous || slot.authenticated == authenticated);
    });
}

void empty_slot(rgy_rpc_binding_t &slot) {
    with_inhibit([&] {
        rvzd_free_handle(slot.handle);
        destroy_caches(slot);
        slot = {};
    });
}

// The first new slot; none, with the table as it was, without storage.
int64_t rgy_allocate_more_bindings() {
    if (!is_registered_for_exit) {
        is_registered_for_exit = true;
        pfm_on_exit(rgy_deallocate_bindings, nullptr);
    }
    return with_inhibit([] {
        const int64_t count = rpc_binding_count == 0 ? first_count : rpc_binding_count * 2;
        auto *table =
            static_cast<rgy_rpc_binding_t *>(stg_malloc(static_cast<size_t>(count) * sizeof(rgy_rpc_binding_t)));
        if (table == nullptr)
            return no_slot;
        std::copy_n(rpc_binding, rpc_binding_count, table);
        std::fill(table + rpc_binding_count, table + count, rgy_rpc_binding_t{});
        stg_free(rpc_binding);
        rpc_binding = table;
        const int64_t first_new = rpc_binding_count;
        rpc_binding_count = count;
        return first_new;
    });
}

// A slot without a handle: a free one, the lowest idle one emptied, or a new one.
int64_t take_empty_slot() {
    const int64_t empty = find_slot([](const rgy_rpc_binding_t &slot) { return slot.handle == nullptr; });
    if (empty != no_slot) {
        require_sound(rpc_binding[empty]);
        return empty;
    }
    const int64_t idle = find_slot([](const rgy_rpc_binding_t &slot) { return slot.ref_count == 0; });
    if (idle == no_slot)
        return rgy_allocate_more_bindings();
    empty_slot(rpc_binding[idle]);
    return idle;
}

// A slot whose handle cannot be had is left cleared.
tbs_status_t fill_slot(rgy_rpc_binding_t &slot, const char *host, uint32_t authenticated) {
    if (strutl_cpy_buf(slot.host, host, host_size) != 0) {
        slot = {};
        return TBS_ST_INVALID_ARG;
    }
    return with_cleanup(
        [&] {
            const auto status = rvzd_get_handle_prim(slot.host, authenticated, &slot.handle);
            if (status == TBS_ST_OK)
                slot.authenticated = authenticated;
            else
                slot = {};
            return status;
        },
        [&] { empty_slot(slot); });
}

tbs_status_t open_slot(const char *host, uint32_t authenticated, int64_t &index) {
    index = take_empty_slot();
    return index != no_slot ? fill_slot(rpc_binding[index], host, authenticated) : tbs_status_t{TBS_ST_NO_MEMORY};
}

bool is_unreachable(tbs_status_t status) {
    return status == TBS_ST_NO_SERVER || status == TBS_ST_RPC_FAILED;
}

void release_table() {
    for (int64_t i = 0; i < rpc_binding_count; ++i)
        empty_slot(rpc_binding[i]);
    stg_free(rpc_binding);
    rpc_binding = nullptr;
    rpc_binding_count = 0;
}

tbs_status_t bind_to_backup(Binding &binding, uint32_t authenticated, rgy_db_t db) {
    char *list = nullptr;
    return with_release(
        [&]() -> tbs_status_t {
            const auto status = rgy_get_cached_backup_list(&list);
            if (status != TBS_ST_OK)
                return status;
            for (char *host = strutl_tokenize(list, separators); host != nullptr;
                 host = strutl_tokenize(nullptr, separators)) {
                const auto result = rgy_bind_handle(host, binding, authenticated, db);
                if (!is_unreachable(result))
                    return result;
            }
            return TBS_ST_ERROR;
        },
        [&] {
            with_inhibit([&] {
                stg_free(list);
                list = nullptr;
            });
        });
}

} // namespace

tbs_status_t velia::registry_clnt::rgy_bind_handle(const char *host, Binding &binding, uint32_t authenticated,
                                                   rgy_db_t db) {
    binding.index = no_slot;
    if (host == nullptr || *host == '\0')
        return TBS_ST_INVALID_ARG;
    if (authenticated != anonymous)
        flush_caches(host, db);
    int64_t index = find_bound(host, authenticated);
    if (index == no_slot) {
        const auto status = open_slot(host, authenticated, index);
        if (status != TBS_ST_OK)
            return status;
    }
    require(rpc_binding[index].handle != nullptr);
    with_inhibit([&] {
        ++rpc_binding[index].ref_count;
        binding.index = index;
    });
    return TBS_ST_OK;
}

tbs_status_t velia::registry_clnt::bind_with_fail_over(const char *host, Binding &binding, uint32_t authenticated,
                                                       rgy_db_t db) {
    binding.index = no_slot;
    if (host != nullptr)
        return rgy_bind_handle(host, binding, authenticated, db);
    const char *master = nullptr;
    auto status = rgy_load_svrloc(master);
    if (status != TBS_ST_OK)
        return status;
    status = rgy_bind_handle(master, binding, authenticated, db);
    return is_unreachable(status) ? bind_to_backup(binding, authenticated, db) : status;
}

void velia::registry_clnt::flush_caches(const char *host, rgy_db_t db) {
    with_inhibit([&] {
        for (int64_t i = 0; i < rpc_binding_count; ++i) {
            if (!is_at(rpc_binding[i], host))
                continue;
            if (db == RGY_DB_ALL)
                destroy_caches(rpc_binding[i]);
            else if (db < RGY_DB_ALL)
                rgy_destroy_cache(rpc_binding[i].cache[db]);
        }
    });
}

void velia::registry_clnt::release_binding(Binding &binding) {
    if (binding.index < 0)
        return;
    rgy_rpc_binding_t &slot = slot_of(binding);
    require_sound(slot);
    if (slot.handle != nullptr && slot.ref_count > 0)
        --slot.ref_count;
    binding.index = no_slot;
}

rgy_rpc_binding_t &velia::registry_clnt::slot_of(Binding binding) {
    if (rpc_binding == nullptr || binding.index < 0 || binding.index >= rpc_binding_count)
        pfm_assert_fail("rpc_binding != NULL && h.index >= 0 && h.index < rpc_binding_count", source_file, __LINE__);
    return rpc_binding[binding.index];
}

rvzd_handle_t *velia::registry_clnt::rgy_rvzd_handle(Binding binding) {
    return slot_of(binding).handle;
}

rgy_rpc_cache_t *velia::registry_clnt::rgy_rpc_get_cache(Binding binding, rgy_db_t db) {
    return db < RGY_DB_ALL ? usable_cache(slot_of(binding).cache[db]) : nullptr;
}

// Outside the order of locks, since neither is waited for: the thread that ends may hold any of them.
void velia::registry_clnt::rgy_deallocate_bindings(void * /*unused*/) {
    with_inhibit([] {
        if (ivlthread_mutex_trylock(&registry_cache_lock) == 0)
            return;
        if (ivlthread_mutex_trylock(&rvzd_call_lock) != 0) {
            release_table();
            ivlthread_mutex_unlock(&rvzd_call_lock);
        }
        ivlthread_mutex_unlock(&registry_cache_lock);
    });
    print_statistics();
}
