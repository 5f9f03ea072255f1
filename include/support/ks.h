/*
 * RPC client creation and its reports, and the places of this host's data.
 *
 *     int fd = -1;
 *     CLIENT *client = ks_clnttcp_create_sockaddr(address, 390512, 3, &fd, 0, 0);
 *     if (client == NULL)
 *         ks_clnt_pcreateerror("no connection");
 *
 * All operations may be called from any thread; a client belongs to one thread at a time. Addresses are of either
 * family and carry their port. A client comes with the RPC library's null authenticator. A call on a TCP connection
 * that the peer has broken fails with RPC_CANTSEND or RPC_CANTRECV: no SIGPIPE comes of it, whatever the process does
 * about that signal, which is left as it is.
 */
#ifndef VELIA_SUPPORT_KS_H
#define VELIA_SUPPORT_KS_H

#include <stddef.h>
#include <stdint.h>

#include <support/sysutl.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Why the calling thread's last client was not made: the RPC library's status and the system's errno, 0 for none. */
typedef struct ks_rpc_createerr {
    enum clnt_stat stat;
    int32_t error_number;
} ks_rpc_createerr_t;

/*
 * An ONC RPC client over UDP on the socket in `*socket_fd`, or on a new one, close on exec, that is stored there if it
 * is negative. A request is sent again after the retransmission time. The socket stays the caller's to close, until
 * CLSET_FD_CLOSE gives it to the client. It becomes non-blocking. A port that refuses fails the call at once where the
 * kernel hears of it: with RPC_CANTRECV and ECONNREFUSED over IPv4; over IPv6 the RPC library takes each refusal for a
 * lost reply and soon ends with RPC_TIMEDOUT. Null on failure, with `*socket_fd` as it was. Never waits.
 */
CLIENT *ks_clntudp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version,
                                   int32_t retransmission_s, int32_t retransmission_us, int *socket_fd);

/*
 * The same over TCP. A socket that is not connected is connected, which takes up to 25 seconds. Sizes of 0 are the RPC
 * library's defaults. A socket that was opened here is closed again on failure, and `*socket_fd` is as it was.
 */
CLIENT *ks_clnttcp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                   uint32_t send_size, uint32_t receive_size);

/*
 * A client by host name: each of its addresses is asked for the program's port (by the port mapper on port 111, or on
 * what services.conf says of "sunrpc"), then called, until one answers. `protocol_name` is "udp" or "tcp". The client
 * owns its socket. Null on failure. Waits up to 5 seconds for a port mapper and 25 for a connection, per address.
 */
CLIENT *ks_clnt_create(const char *host, uint32_t program, uint32_t version, const char *protocol_name);

/* Prints "text: error" at severity 6: the client's last RPC error; this thread's last creation error. */
void ks_clnt_perror(CLIENT *client, const char *text);
void ks_clnt_pcreateerror(const char *text);

/* "text: error" as a string without a newline; not to be freed, lives until the same thread asks again. */
const char *ks_clnt_spcreateerror(const char *text);

/* The calling thread's record; never null, lives as long as the thread. RPC_SUCCESS before the first failure. */
ks_rpc_createerr_t *ks_rpc_get_createerr(void);

/*
 * Writes the path of `file_name` in this host's data directory (null: of the directory) to `buffer` of `length` bytes.
 * TBS_ST_NAME_TOO_LONG, with the empty text, if it does not fit.
 */
tbs_status_t ks_hostdata_dir(char *buffer, size_t length, const char *file_name);

/* Non-zero if the process is the web interface, which says so by a VELIA_WEB_GUI that is neither empty nor "0". */
int ks_web_gui(void);

/*
 * Start-up of a server process, to be called first in main: descriptors 0 to 2 are opened on /dev/null if they are
 * closed, a broken connection is an error and not a signal, and messages carry the program's file name from
 * `arguments[0]`. `name` (may be null) is a buffer that the caller fills later; it is not touched.
 */
void ks_system_init(int argument_count, char **arguments, char *name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
