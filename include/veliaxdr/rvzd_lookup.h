/*
 * Finding a server through the broker of its host, and connecting to it.
 *
 *     rvzd_connection_t connection = {.wait_s = 3, .transport = 0};
 *     rvzd_rpc_trait_t trait = {.prog = 390600, .vers = 1, .proto = RVZD_PROTOCOL_UDP};
 *     if (rvzd_connect_to_server("build7", &trait, &connection, &uuid, NULL, "sample server") == TBS_ST_OK) {
 *         clnt_call(connection.client, 0, (xdrproc_t)xdr_void, NULL, (xdrproc_t)xdr_void, NULL, time_out);
 *         clnt_destroy(connection.client);
 *     }
 */
#ifndef VELIAXDR_RVZD_LOOKUP_H
#define VELIAXDR_RVZD_LOOKUP_H

#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The caller's record of one connection to a server. */
typedef struct rvzd_connection {
    void *caller_data[2];           /* the caller's own; never touched */
    rvzd_server_addr_t server_addr; /* out: addresses and ports of the server */
    int32_t socket_fd;              /* out: the client's socket, -1 when there is none */
    CLIENT *client;                 /* out: ready client; clnt_destroy closes its socket too */
    int32_t wait_s;                 /* in: retransmission interval of a UDP client, in seconds */
    int32_t transport;              /* in: 0 for UDP, else TCP */
} rvzd_connection_t;

/*
 * Asks the handle's broker where the server of this trait, uuid and path listens (path not null, "" for none). The
 * addresses in *out are those under which the caller already reaches that host, with the server's ports.
 *
 *   TBS_ST_UNSUPPORTED  no address of the host has a family on which the server listens
 *   TBS_ST_RPC_FAILED   the call failed; printed
 *   TBS_ST_ERROR        the handle is for the generic services only (logged), or no IPv4 address with a v5 peer
 *   else                the broker's own answer
 */
tbs_status_t rvzd_find_server(rvzd_handle_t *handle, rvzd_rpc_trait_t *trait, const tbs_uuid_t *uuid, const char *path,
                              rvzd_server_addr_t *out);

/*
 * Looks the server up through the broker of `host` and opens a client to the first address that works. `path` may be
 * null; `server_name` is for messages. What fails is printed. The client belongs to the caller. A raise that comes
 * meanwhile lands when all is done: whoever catches it finds the client in *connection, or null there if none was made.
 *
 *   TBS_ST_NOT_FOUND  the broker of the host cannot be reached, for whatever reason
 *   else              the status of the look-up, or of the first address tried
 */
tbs_status_t rvzd_connect_to_server(const char *host, rvzd_rpc_trait_t *trait, rvzd_connection_t *connection,
                                    const tbs_uuid_t *uuid, const char *path, const char *server_name);

/* Non-zero for the program of the generic services. */
int rvzd_utl_is_generic_service_prog(uint64_t program);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
