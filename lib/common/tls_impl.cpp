// The one block of per-thread storage. The key comes into being at the first call of any thread, the block at the
// first call of each; the support layer frees the block at the thread's end.
#include <veliaxdr/tls_impl.h>

#include <cstddef>
#include <cstring>

#include <common/fork.h>
#include <support/ivlthread.h>
#include <support/pfm.h>

static_assert(sizeof(rvzd_tls_t) == 112);
static_assert(offsetof(rvzd_tls_t, default_region) == 8);
static_assert(offsetof(rvzd_tls_t, registry_host) == 41);

namespace {

constexpr char source_file[] = "tls_impl";

ivlthread_once_t rvzd_tls_once;
ivlthread_key_t rvzd_tls_key;
int32_t rvzd_tls_stg_initialized;

void rvzd_tls_thread_destructor(void *block) {
    if (block != nullptr)
        ivlthread_free_tls(block);
}

int rvzd_tls_init_tls_key() {
    if (rvzd_tls_key != 0)
        return 1;
    return ivlthread_key_create(&rvzd_tls_key, rvzd_tls_thread_destructor) == 0;
}

rvzd_tls_t *make_block() {
    void *block = ivlthread_alloc_tls(sizeof(rvzd_tls_t));
    if (block == nullptr)
        pfm_panic(source_file, __LINE__);
    memset(block, 0, sizeof(rvzd_tls_t));
    if (ivlthread_set_tls(rvzd_tls_key, block) != 0)
        pfm_panic(source_file, __LINE__);
    __atomic_store_n(&rvzd_tls_stg_initialized, 1, __ATOMIC_RELAXED);
    return static_cast<rvzd_tls_t *>(block);
}

} // namespace

void velia::forget_unfinished_key() {
    if (rvzd_tls_once.done == 0)
        rvzd_tls_once = {};
}

rvzd_tls_t *rvzd_tls_get(void) {
    ivlthread_once(&rvzd_tls_once, rvzd_tls_init_tls_key);
    void *block = ivlthread_get_tls(rvzd_tls_key);
    return block != nullptr ? static_cast<rvzd_tls_t *>(block) : make_block();
}

int32_t rvzd_initialized(void) {
    return __atomic_load_n(&rvzd_tls_stg_initialized, __ATOMIC_RELAXED);
}
