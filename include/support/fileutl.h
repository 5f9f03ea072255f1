/*
 * Files, and the host parts of names.
 *
 *     char host[FILEUTL_HOST_SIZE];
 *     if (fileutl_path_host("/net/pluto/vaults/src", host, sizeof host) == 0 && !fileutl_is_localhost(host))
 *         ask(host);
 *
 * All operations may be called from any thread.
 */
#ifndef VELIA_SUPPORT_FILEUTL_H
#define VELIA_SUPPORT_FILEUTL_H

#include <stddef.h>
#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The usual size of a buffer for a host name. */
enum { FILEUTL_HOST_SIZE = 64 };

/* Flag of the file operations: a failure prints nothing. */
enum { FILEUTL_QUIET = 16 };

/* What fileutl_cp copies at most. */
enum { FILEUTL_COPY_MAX = 64 * 1024 * 1024 };

/*
 * Non-zero if `host` (without case) is this host: its name, "localhost", or the text of an address that is this
 * host's. With VELIA_HOSTNAME set these are the name it gives, the machine's own name, and the addresses that
 * config/hosts.conf has for it, so that several hosts can live on one machine; without it, the system's name with or
 * without its domain, and the loopback addresses. Never asks the network; null and the empty text are not this host.
 */
int fileutl_is_localhost(const char *host);

/* Non-zero if both names are equal without case, or are both this host. */
int fileutl_hosts_equal(const char *left, const char *right);

/*
 * Writes the host part of a global path to `buffer` of `size` bytes: HOST of "/net/HOST/...", of "//HOST/..." and of
 * "HOST:/...". 0; non-zero with the empty text for a path without a host, or with one that does not fit.
 */
int fileutl_path_host(const char *path, char *buffer, size_t size);

/* Non-zero if both path names are the same text: names are bytes here, and case counts. */
int fileutl_pname_equal(const char *left, const char *right);

/* Non-zero if the path exists, a symbolic link followed. `reserved` is 0. */
int fileutl_exists(const char *path, int reserved);

/* stat (`follow` non-zero) or lstat: 0, or -1 with errno set. */
int fileutl_stat(const char *path, int follow, struct stat *result);

/*
 * Rename or move a file over another, and put the new name on disk; copy a regular file with its permissions, by way of
 * a new file in the same directory that takes the place of `to` at the end; remove a file. `flags` is FILEUTL_QUIET or
 * 0. Return 0, or the errno value, which errno holds, too: EFBIG for a copy of more than FILEUTL_COPY_MAX bytes, EINVAL
 * for one of what is no regular file, which is never waited for. Without FILEUTL_QUIET a failed copy or removal is
 * printed as an error.
 */
int fileutl_rename(const char *from, const char *to);
int fileutl_cp(const char *from, const char *to, int flags);
int fileutl_rm(const char *path, int flags);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
