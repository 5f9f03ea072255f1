/*
 * The environment, and the one service of the file system layer.
 */
#ifndef VELIA_SUPPORT_ENV_H
#define VELIA_SUPPORT_ENV_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

char *getenv_safe(const char *name, char *buffer, size_t size, int reserved);
const char *lyfs_get_host_config_dir(void);

#ifdef __cplusplus
}
#endif
#endif
