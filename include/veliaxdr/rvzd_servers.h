/*
 * The servers that run on a host, as its broker knows them; and what kind of host it is.
 *
 *     llist_d_head_t servers;
 *     status = rvzd_list_matching_servers(handle, -1, -1, RVZD_PROTOCOL_TCP, -1, NULL, -1, NULL, &servers);
 *     if (status == TBS_ST_OK) {
 *         for (llist_d_head_t *at = servers.next; at != &servers; at = at->next) {
 *             rvzd_server_entry_elem_t *node = (rvzd_server_entry_elem_t *)((llist_d_elem_t *)at)->owner;
 *             printf("%d %s\n", (int)node->entry.pid, rvzd_server_entry_name(&node->entry));
 *         }
 *         rvzd_destroy_server_entry_list(&servers);
 *     }
 *
 * What asks a broker holds rvzd_call_lock until it has the answer, rvzd_list_matching_servers for its whole walk. Any
 * thread may call; a list belongs to one thread at a time.
 */
#ifndef VELIAXDR_RVZD_SERVERS_H
#define VELIAXDR_RVZD_SERVERS_H

#include <stdint.h>

#include <support/llist.h>
#include <support/stg.h>
#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    RVZD_SERVER_ENTRY_BYTES = 1104, /* of a node's record, and of one step of rvzd_list_matching_servers */
    RVZD_SERVER_PATH_SIZE = 1026,   /* of the longest name that such a record holds, its NUL included */
    RVZD_SERVER_ANY = -1,           /* filter that every record passes */
};

/* One node of a list of servers: its owner word points to the node itself. The name follows the record's fields. */
typedef struct rvzd_server_entry_elem {
    llist_d_elem_t element;
    union {
        rvzd_server_entry_t entry;
        char bytes[RVZD_SERVER_ENTRY_BYTES];
    };
} rvzd_server_entry_elem_t;

/* A server with the address at which it is reached. */
typedef struct rvzd_server_info {
    uint64_t cookie;
    rvzd_rpc_trait_t trait;
    ks_sockaddr_storage_t address; /* of the handle's host, with the server's port in network order */
    tbs_uuid_t uuid;
    int32_t state; /* the broker's business */
    int32_t pid;
    uint16_t name_length;
    char name[RVZD_SERVER_PATH_SIZE]; /* the path under which it is registered */
} rvzd_server_info_t;

/*
 * Reads the records behind `cookie` (0: from the beginning) into `buffer` of `buffer_size` bytes, which begins at a
 * multiple of 8 and stays the caller's. The broker is asked for RVZD_LIST_SERVERS_BYTES_MAX bytes at most. The records
 * are rvzd_server_entry_t, one behind the other, each rvzd_server_entry_size() bytes long. A record that does not fit
 * comes first in the next piece.
 *
 * *next_cookie (where to go on), *used (bytes of records in the buffer) and *at_end are written only when the broker
 * answers with TBS_ST_OK. A call that failed, which is printed, and a failing answer, which is not, are TBS_ST_OK, too:
 * who must tell them presets the three to `cookie`, 0 and 0, which no good answer leaves so. Waits for the handle's
 * time-out at most.
 *
 *   TBS_ST_ERROR        the broker has more, but made no step: the next record is too long for the buffer, or the
 *                       broker is at fault. A loop must end here.
 *   TBS_ST_INVALID_ARG  no buffer
 */
tbs_status_t rvzd_list_servers(rvzd_handle_t *handle, uint64_t cookie, uint64_t buffer_size, char *buffer,
                               uint64_t *next_cookie, uint64_t *used, tbs_boolean_t *at_end);

/*
 * Reads the whole table and makes a list of the servers that pass every filter, in the broker's order. RVZD_SERVER_ANY
 * passes all, as do a null `uuid` and a null `name`. `port` is either port of a server, in host order. `name` is the
 * whole path. Numbers are compared with their sign, so a program of 2147483648 or more cannot be asked for.
 *
 * *servers, whatever is in it, becomes a list of rvzd_server_entry_elem_t, to be given back with
 * rvzd_destroy_server_entry_list; after a failure, or a raise, it is empty. Waits for the handle's time-out at most in
 * each step of the walk.
 *
 *   TBS_ST_ERROR      no list head; a call failed, which is printed; the broker answers with a failure or makes no
 *                     step, as before a name of RVZD_SERVER_PATH_SIZE bytes and more; or it has more than 131,072
 *                     servers to tell of, as no host has
 *   TBS_ST_NO_MEMORY  no storage for a node
 */
tbs_status_t rvzd_list_matching_servers(rvzd_handle_t *handle, int32_t prog, int32_t vers, int32_t proto, int32_t port,
                                        const tbs_uuid_t *uuid, int32_t pid, const char *name, llist_d_head_t *servers);

/* Releases the nodes of a list, which is empty then. An empty list, a zeroed head and null are left alone. */
void rvzd_destroy_server_entry_list(llist_d_head_t *servers);

/*
 * A node's record with the address of its server, which is the first address of the handle's host that has a port of
 * its family in the record. The result lives in `area`; STG_HEAP_AREA gives a block for stg_free. Null if no address
 * fits, or without storage. Takes no lock: no other thread may free the handle meanwhile. Asks nobody, prints nothing.
 */
rvzd_server_info_t *rvzd_get_server_entry(rvzd_handle_t *handle, const rvzd_server_entry_elem_t *node, stg_area_t area);

/*
 * *is_hetero (out) becomes 1 if exactly one of this host and `host` runs Windows, else 0. Waits up to 40 seconds for
 * the contact and 4 for the answer. *is_hetero is written on TBS_ST_OK only; every failure is printed.
 *
 *   TBS_ST_ERROR  the platform of this host, or the operating system of the other, is not known
 *   else          why the host's description could not be had, see rvzd_hostinfo_timeout
 */
tbs_status_t rvzd_is_hetero_server(const char *host, tbs_boolean_t *is_hetero);

/*
 * The reduced edition, which this is not: *is_slim (out) becomes 0 with TBS_ST_OK; asking for its server is an error of
 * the program, logged, TBS_ST_ERROR.
 */
tbs_status_t rvzd_slim_server_is_slim(tbs_boolean_t *is_slim);
tbs_status_t rvzd_slim_server_hostname(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
