/*
 * RPC clients over UDP and TCP, their limits, their reports, and the places of this host's data.
 *
 *     int fd = -1;
 *     CLIENT *client = ks_clnttcp_create_sockaddr(address, 390512, 3, &fd, 0, 0);
 *     if (client == NULL)
 *         ks_clnt_pcreateerror("no connection");
 *
 * All operations may be called from any thread; a client belongs to one thread at a time. Addresses are of either
 * family and carry their port. A client comes with the RPC library's null authenticator and is used as every CLIENT is:
 * clnt_call, clnt_control, clnt_freeres, clnt_destroy, clnt_perror.
 *
 * A call returns at most 50 ms after its time-out, whatever the peer sends, and with RPC_TIMEDOUT then. Its transaction
 * number comes from the system's random numbers, and only a well-formed reply with that number from the peer itself is
 * taken; all else is passed over and neither costs time nor makes the request go out again. No call raises SIGPIPE or
 * holds a signal off.
 *
 * UDP: a lost datagram is repeated by what the round trips of this peer have been (RFC 6298): never before 200 ms, by a
 * second while nothing is known of the peer, twice as long each time, up to a second or a slower peer's own measure.
 * The interval that the creator gave is the longest in any case. A port that refuses ends the call at once, with
 * RPC_CANTRECV and ECONNREFUSED.
 *
 * TCP: a request finds out whether the peer has closed the connection since the last call, and connects anew then,
 * once. A connection that breaks later fails that call alone, with RPC_CANTSEND or RPC_CANTRECV; the next call connects
 * again, on the same descriptor and, where the caller had bound the socket to a port, from the same port. A record of
 * more than KS_RECORD_MAX bytes is refused (RPC_CANTRECV, EMSGSIZE), and what is kept of one is never more than twice
 * what has arrived, plus 64 KiB.
 *
 * A time-out of zero sends the request and waits for nothing: RPC_TIMEDOUT.
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

/* No reply of the programs is larger. */
#define KS_RECORD_MAX (64u * 1024 * 1024)

/*
 * An ONC RPC client over UDP on the socket in `*socket_fd`, or on a new one, close on exec, that is stored there if it
 * is negative. The socket is connected to the address, so that the system gives the client nothing from elsewhere; it
 * becomes blocking, with a receive time-out of the client's. It stays the caller's to close, until CLSET_FD_CLOSE gives
 * it to the client. The retransmission time must be positive. Null on failure, with `*socket_fd` as it was: a family
 * that is neither IPv4 nor IPv6, a descriptor that is closed or no datagram socket. Never waits.
 */
CLIENT *ks_clntudp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version,
                                   int32_t retransmission_s, int32_t retransmission_us, int *socket_fd);

/*
 * The same over TCP. A socket that is not connected is connected, which takes up to 25 seconds, or to the calling
 * thread's limit. The sizes are a wish for the first buffers, 0 for none; more than KS_RECORD_MAX is an error. A socket
 * that was opened here is closed again on failure, and `*socket_fd` is as it was.
 */
CLIENT *ks_clnttcp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                   uint32_t send_size, uint32_t receive_size);

/*
 * A client by host name: each of its addresses is asked for the program's port (by the port mapper on port 111, or on
 * what services.conf says of "sunrpc"), then called, until one answers. `protocol_name` is "udp" or "tcp". The client
 * owns its socket. Null on failure. Waits up to 5 seconds for a port mapper and 25 for a connection, per address, or to
 * the calling thread's limit.
 */
CLIENT *ks_clnt_create(const char *host, uint32_t program, uint32_t version, const char *protocol_name);

/*
 * Connects a socket of either family, within 25 seconds or the calling thread's limit. 0, or the errno value:
 * ETIMEDOUT, EINTR where the thread was interrupted. The socket's mode is as before, and nothing of a failed attempt
 * goes on.
 */
int ks_connect(int socket_fd, const struct sockaddr *address);

/*
 * A limit for all that the calling thread does in this layer from now on, in milliseconds: calls, connections, the
 * making of clients, name look-ups. What would last longer ends with RPC_TIMEDOUT, ETIMEDOUT or EAI_AGAIN, and what is
 * begun after it ends so at once. A negative number takes the limit back; a further call sets another.
 */
void ks_set_deadline(int64_t milliseconds);

/* The same, but each answer that a call of the thread gets begins the time anew: a limit for silence, not for work. */
void ks_set_patience(int64_t milliseconds);

/* What is left until the limit, rounded up; 0 when it has passed, -1 where there is none. */
int64_t ks_deadline_left(void);

/*
 * Lets others interrupt the calling thread. ks_interrupt, from any thread or a signal handler, ends its waiting call,
 * connection or look-up with RPC_INTR, EINTR or EAI_INTR, and so all that come after it, until ks_interrupt_clear. A
 * thread has one of these: a second ks_interrupt_open gives the same. It lives until its own thread closes it, and must
 * not be used after that. Null without memory or a descriptor, errno telling why.
 */
typedef struct ks_interrupter ks_interrupt_t;
ks_interrupt_t *ks_interrupt_open(void);
void ks_interrupt(ks_interrupt_t *interrupt);
void ks_interrupt_clear(ks_interrupt_t *interrupt);
void ks_interrupt_close(ks_interrupt_t *interrupt);

/* Non-zero if the calling thread has been interrupted. */
int ks_is_interrupted(void);

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
