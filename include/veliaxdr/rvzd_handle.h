/*
 * Handles: a caller's right to talk to the broker on one host.
 *
 * Behind a handle stands a shared record of a process-wide cache, which keeps the expensive half: resolved addresses, a
 * socket, an RPC client, the peer's protocol version. Handles are cheap to open and close around every operation.
 *
 *     rvzd_handle_t *handle;
 *     if (rvzd_get_handle("build7", &handle) == TBS_ST_OK) {
 *         printf("protocol %u\n", rvzd_get_server_protocol_version(handle));
 *         rvzd_free_handle(handle);
 *     }
 *
 * Every operation may be called from any thread. Those that may reach the network hold rvzd_call_lock while they wait:
 * a process has at most one broker call in flight, and a silent host holds up the others for the time-out.
 *
 * A child after fork() shares nothing with its parent: it waits for no call of the parent's threads, and a handle that
 * it has from before gets a connection of its own with its next call, or fails at once where none can be had.
 */
#ifndef VELIAXDR_RVZD_HANDLE_H
#define VELIAXDR_RVZD_HANDLE_H

#include <stdint.h>

#include <rpc/rpc.h>

#include <support/ivlthread.h>
#include <support/sysutl.h>
#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct rvzd_cached_handle rvzd_cached_handle_t;

/* What a caller holds; never shared, made by the get operations and given back with rvzd_free_handle. */
typedef struct rvzd_handle {
    rvzd_cached_handle_t *cached; /* owned by the cache */
    int64_t tv_sec;               /* time-out of each call made through this handle; the caller may change it */
    int64_t tv_usec;              /* 0, and added to it; the caller may change it, too */
} rvzd_handle_t;

enum { RVZD_SERVER_ADDRS_MAX = 2 };

/* The addresses of a host or a server; ports in network order. */
typedef struct rvzd_server_addr {
    uint32_t addr_count;
    ks_sockaddr_storage_t addrs[RVZD_SERVER_ADDRS_MAX];
} rvzd_server_addr_t;

/* Guards the handle cache, the port rules and every call to a broker. Re-entrant. */
extern ivlthread_mutex_t rvzd_call_lock;

/*
 * Open a handle to the broker of `host` (null or empty: this host). *out is the handle, or null when the result is not
 * TBS_ST_OK. `protocol` is an index of rvzd_protocol_names (RVZD_PROTOCOL_UDP, RVZD_PROTOCOL_TCP), UDP where it is not
 * given. `prim` non-zero sends the caller's own credentials instead of nobody's. `quiet` non-zero prints no failure.
 * `program` of the generic service form selects the port rules; such a handle looks up RVZD_GENERIC_SERVICE_PROGRAM
 * only, unless it met a plain record in the cache.
 *
 * May block: name look-up, TCP connect, and one call of 25 seconds at most (twice if a cached connection was stale).
 * Nothing is sent when the host answered within the last 4 seconds.
 *
 *   TBS_ST_NOT_FOUND    the host, or the name of this host, is not known
 *   TBS_ST_TRY_AGAIN    its name could not be looked up for the moment
 *   TBS_ST_RPC_FAILED   the broker did not answer, or this host has no server side
 *   TBS_ST_UNSUPPORTED  the broker speaks neither protocol version 5 nor 6
 *   TBS_ST_NO_MEMORY    no storage
 *   TBS_ST_ERROR        no socket, client or authenticator; another status is the broker's own answer
 */
tbs_status_t rvzd_get_handle(const char *host, rvzd_handle_t **out);
tbs_status_t rvzd_get_handle_prim(const char *host, uint32_t prim, rvzd_handle_t **out);
tbs_status_t rvzd_get_handle_proto(const char *host, uint32_t protocol, rvzd_handle_t **out);
tbs_status_t rvzd_get_handle_prim_proto(const char *host, uint32_t protocol, uint32_t prim, int quiet,
                                        rvzd_handle_t **out);
tbs_status_t rvzd_get_generic_service_handle(const char *host, uint32_t protocol, uint32_t program,
                                             rvzd_handle_t **out);

/* Gives a handle back; null does nothing. The record behind it goes idle when this was its last handle. */
void rvzd_free_handle(rvzd_handle_t *handle);

/* Takes a record out of the cache; it is destroyed now, or with its last handle. The caller has it off the idle list.
 */
void rvzd_release_handle(rvzd_cached_handle_t *cached);

/* Drops the records that have been idle for more than 60 seconds. For processes that run no event loop. */
void rvzd_free_cached_handles(void);

/* The timer's callback of the cache; not for callers. */
void rvzd_cached_handle_close_check(void *unused);

/*
 * The handle's RPC client, without the lock: the caller holds rvzd_call_lock while it uses it. Not to be destroyed.
 * Null only in a child after fork(), when the connection could not be made anew.
 */
CLIENT *rvzd_get_rpc_clnt(rvzd_handle_t *handle);

/* Copies the addresses of the handle's host. */
void rvzd_get_addr(rvzd_handle_t *handle, rvzd_server_addr_t *out);

/* The peer's protocol version: 5 or 6. */
uint32_t rvzd_get_server_protocol_version(rvzd_handle_t *handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
