/*
 * The environment, and the one service of the file system layer.
 *
 *     char zone[1024];
 *     if (getenv_safe("TZ", zone, sizeof zone, 0) != NULL)
 *         use(zone);
 */
#ifndef VELIA_SUPPORT_ENV_H
#define VELIA_SUPPORT_ENV_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Copies the value of environment variable `name` into `buffer` of `size` bytes and returns `buffer`; null if the
 * variable is not set, and also if its value with the terminator does not fit, so that a cut value is never used. An
 * empty value is a value. `reserved` is 0. Prints nothing. Safe from any thread while none changes the environment.
 */
char *getenv_safe(const char *name, char *buffer, size_t size, int reserved);

/*
 * The name of the directory below "lyfsconfig" that holds this host's file system settings: the value of
 * VELIA_LYFS_CONFIG, or the empty text when the host has none of its own. The text is never null, is not to be freed
 * and lives until the same thread asks again. A value with a "/" or of 256 bytes and more counts as none.
 */
const char *lyfs_get_host_config_dir(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
