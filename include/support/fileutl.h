/*
 * Files, and the host parts of names.
 */
#ifndef VELIA_SUPPORT_FILEUTL_H
#define VELIA_SUPPORT_FILEUTL_H

#include <stddef.h>
#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

int fileutl_is_localhost(const char *host);
int fileutl_hosts_equal(const char *left, const char *right);
int fileutl_path_host(const char *path, char *buffer, size_t size);
int fileutl_exists(const char *path, int reserved);
int fileutl_stat(const char *path, int follow, struct stat *result);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
