/*
 * Per-thread storage of the library: where strings live that are handed to a caller as pointers and that neither the
 * caller frees nor another thread overwrites. They live as long as the thread.
 *
 *     rvzd_tls_t *mine = rvzd_tls_get();
 *     strutl_cpy_buf(mine->registry_host, host, sizeof mine->registry_host);
 */
#ifndef VELIAXDR_TLS_IMPL_H
#define VELIAXDR_TLS_IMPL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct rvzd_tls {
    uint64_t unused;
    char default_region[33];
    char registry_host[64];
} rvzd_tls_t;

/* The calling thread's block, made and zeroed at its first call. Never null; no storage ends the process. */
rvzd_tls_t *rvzd_tls_get(void);

/* 1 once any thread of the process has called rvzd_tls_get, else 0. */
int32_t rvzd_initialized(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
