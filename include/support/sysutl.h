/*
 * Hosts, socket addresses and descriptors.
 *
 *     struct addrinfo *addresses;
 *     if (sysutl_host_addr("pluto", NULL, SOCK_STREAM, &addresses) == 0) {
 *         ks_sockaddr_storage_t address;
 *         sysutl_copy_sockaddr(&address, addresses->ai_addr);
 *         sysutl_sockaddr_set_port(&address.base, htons(371));
 *         freeaddrinfo(addresses);
 *     }
 *
 * All operations may be called from any thread. Nothing is printed.
 */
#ifndef VELIA_SUPPORT_SYSUTL_H
#define VELIA_SUPPORT_SYSUTL_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>

#include <netdb.h>
#include <rpc/rpc.h>

#include <support/tbs.h>

struct addrinfo;

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A socket address of either family, 28 bytes; the port inside is in network order. */
typedef union ks_sockaddr_storage {
    struct sockaddr base;
    struct sockaddr_in ipv4;
    struct sockaddr_in6 ipv6;
} ks_sockaddr_storage_t;

/* Least size of a buffer for the text of any address, with its port and the terminator. */
enum { SYSUTL_ADDRESS_TEXT_SIZE = 80 };

/*
 * Looks up a host, a service, or both, and stores a list in `*result` that the caller releases with freeaddrinfo.
 * Returns 0, else the resolver's EAI_ code, with null in `*result`. `socket_type` is SOCK_STREAM, SOCK_DGRAM or 0 when
 * it does not matter; there is one entry an address. With a null `host` the addresses are this machine's loopback ones;
 * with a null `service` the ports are 0.
 *
 * The site's own files come before the system's resolver. config/hosts.conf has lines "name address [address...]",
 * config/services.conf lines "name port[/protocol]"; "#" starts a comment, names are compared without case, a host's
 * addresses are given in the order of the file and its lines add up. Malformed lines and addresses, and lines of more
 * than 1023 bytes, are passed over. A file that is not a regular one, or has more than 16 MiB, counts as missing, which
 * is printed as an error: once, and again when it could be read in between. With VELIA_HOSTNAME set, the machine's own
 * name stands for the host that it names.
 * The system's resolver may wait for the network; the files never do.
 */
int sysutl_host_addr(const char *host, const char *service, int socket_type, struct addrinfo **result);

/* Writes the numeric text of an address without its port to `buffer` of `size` bytes. 0, else an EAI_ code. */
int sysutl_host_numeric(const struct sockaddr *address, size_t size, char *buffer, int reserved1, int reserved2);

/* This host's name: VELIA_HOSTNAME, else the system's. Not to be freed; lives until the same thread asks again. */
const char *sysutl_myhostname(void);

/* Copies an address of either family; the rest of `*destination`, and all of it for another family, becomes zero. */
void sysutl_copy_sockaddr(ks_sockaddr_storage_t *destination, const struct sockaddr *source);

/* The length that the address's family has; 0 for another family than AF_INET and AF_INET6. */
socklen_t sysutl_sockaddr_size(const struct sockaddr *address);

/* Ports are in network order. Return 0; -1 for another family, with 0 in `*port` and the address untouched. */
int sysutl_sockaddr_get_port(const struct sockaddr *address, uint16_t *port);
int sysutl_sockaddr_set_port(struct sockaddr *address, uint16_t port);

/* Makes `*address` the wildcard address of `family` with port 0. 0; -1, with all zero, for another family. */
int sysutl_sockaddr_any_init(int family, ks_sockaddr_storage_t *address);

/*
 * Writes "127.0.0.1:371" or "[::1]:371" to `buffer` of `size` bytes and returns `buffer`. A text that does not fit is
 * cut; another family reads "?".
 */
char *sysutl_sockaddr_to_str(const struct sockaddr *address, size_t size, char *buffer);

/*
 * Test for an IPv4 address in IPv6 form (non-zero if it is one), take it out, and put one in, the port kept. The last
 * two return 0, or -1 with `*result` all zero when the address is not of the form they need.
 */
int sysutl_is_addr_v4mapped(const ks_sockaddr_storage_t *address);
int sysutl_get_v4mapped_addr(const ks_sockaddr_storage_t *address, struct sockaddr_in *result);
int sysutl_set_ipv4_as_ipv6mapped(const struct sockaddr_in *address, ks_sockaddr_storage_t *result);

/* Set (`on` non-zero) or clear close-on-exec; 0, or -1 with errno set. */
int sysutl_set_cloexec_file(int descriptor, int on);

/* Set or clear non-blocking mode; TBS_ST_OK, or the status of the failure. */
tbs_status_t sysutl_set_socket_nonblocking(int descriptor, int on);

/* A value that no two calls in this process give, and that hardly any other process gives. */
uint64_t sysutl_sock_port_uniquifier(void);

/*
 * An ONC RPC client over TCP on a socket that is opened and connected here, close on exec, and that the client owns:
 * clnt_destroy closes it. The descriptor is stored in `*socket_fd`. For the rest see ks_clnttcp_create_sockaddr in
 * support/ks.h. Null on failure, with -1 in `*socket_fd` and ks_rpc_get_createerr telling why.
 */
CLIENT *sysutl_clnttcp_create_ext(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                  uint32_t send_size, uint32_t receive_size);

/* How many descriptors below `bound` are set. The set is an fd_set, or a larger one of the same form. */
int sysutl_fd_set_popcount(const void *descriptor_set, int bound);

/* Writes what the stream holds back and flushes the file to disk. 0; -1 with errno set on failure. */
int sysutl_fsync_fptr(FILE *stream);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
