/*
 * RPC client creation and its reports, and the places of this host's data.
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

typedef struct ks_rpc_createerr {
    enum clnt_stat stat;
    int32_t error_number;
} ks_rpc_createerr_t;

CLIENT *ks_clntudp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version,
                                   int32_t retransmission_s, int32_t retransmission_us, int *socket_fd);
CLIENT *ks_clnttcp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                   uint32_t send_size, uint32_t receive_size);
CLIENT *ks_clnt_create(const char *host, uint32_t program, uint32_t version, const char *protocol_name);
void ks_clnt_perror(CLIENT *client, const char *text);
void ks_clnt_pcreateerror(const char *text);
const char *ks_clnt_spcreateerror(const char *text);
ks_rpc_createerr_t *ks_rpc_get_createerr(void);
tbs_status_t ks_hostdata_dir(char *buffer, size_t length, const char *file_name);
int ks_web_gui(void);
void ks_system_init(int argument_count, char **arguments, char *name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
