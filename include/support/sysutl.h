/*
 * Hosts, socket addresses and descriptors.
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

int sysutl_host_addr(const char *host, const char *service, int socket_type, struct addrinfo **result);
int sysutl_host_numeric(const struct sockaddr *address, size_t size, char *buffer, int reserved1, int reserved2);
const char *sysutl_myhostname(void);
void sysutl_copy_sockaddr(ks_sockaddr_storage_t *destination, const struct sockaddr *source);
socklen_t sysutl_sockaddr_size(const struct sockaddr *address);
/* Ports are in network order. */
int sysutl_sockaddr_get_port(const struct sockaddr *address, uint16_t *port);
int sysutl_sockaddr_set_port(struct sockaddr *address, uint16_t port);
int sysutl_sockaddr_any_init(int family, ks_sockaddr_storage_t *address);
char *sysutl_sockaddr_to_str(const struct sockaddr *address, size_t size, char *buffer);
int sysutl_is_addr_v4mapped(const ks_sockaddr_storage_t *address);
int sysutl_get_v4mapped_addr(const ks_sockaddr_storage_t *address, struct sockaddr_in *result);
int sysutl_set_ipv4_as_ipv6mapped(const struct sockaddr_in *address, ks_sockaddr_storage_t *result);
int sysutl_set_cloexec_file(int descriptor, int on);
tbs_status_t sysutl_set_socket_nonblocking(int descriptor, int on);
uint64_t sysutl_sock_port_uniquifier(void);
CLIENT *sysutl_clnttcp_create_ext(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                  uint32_t send_size, uint32_t receive_size);
int sysutl_fd_set_popcount(const void *descriptor_set, int bound);
int sysutl_fsync_fptr(FILE *stream);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
