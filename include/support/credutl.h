/*
 * Credentials of users and groups.
 */
#ifndef VELIA_SUPPORT_CREDUTL_H
#define VELIA_SUPPORT_CREDUTL_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

int credutl_is_privileged(void);
int credutl_set_server_group_lifetime(int seconds);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
