/*
 * RPC authenticators of the caller, and identities as a remote host sees them.
 *
 *     client->cl_auth = credmap_auth_create_default(host);
 *     auth_destroy(client->cl_auth);
 *
 * All operations may be called from any thread, ask nobody, and print nothing.
 */
#ifndef VELIA_SUPPORT_CREDMAP_H
#define VELIA_SUPPORT_CREDMAP_H

#include <rpc/rpc.h>

#include <support/credutl.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * A Unix authenticator for calls to `host` (may be null; all hosts are served alike) with the process's effective ids
 * and the first 16 of its groups, and one with the ids of nobody, 65534, and no groups. The caller releases it with
 * auth_destroy. Null on failure.
 */
AUTH *credmap_auth_create_default(const char *host);
AUTH *credmap_authunix_create_nobody(void);

/*
 * Stores `*credentials` as `host` knows them in `*result`, which may be the same record. Ids are the same on all hosts
 * of a site. 0; non-zero for a null argument.
 */
int credmap_local_to_remote_sid(const credutl_sid_credentials_t *credentials, const char *host,
                                credutl_sid_credentials_t *result);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
