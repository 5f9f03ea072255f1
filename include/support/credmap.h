/*
 * RPC authenticators of the caller, and identities as a remote host sees them.
 */
#ifndef VELIA_SUPPORT_CREDMAP_H
#define VELIA_SUPPORT_CREDMAP_H

#include <rpc/rpc.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

AUTH *credmap_auth_create_default(const char *host);
AUTH *credmap_authunix_create_nobody(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
