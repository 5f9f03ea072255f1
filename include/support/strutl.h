/*
 * Bounded copies, joins and searches of strings.
 */
#ifndef VELIA_SUPPORT_STRUTL_H
#define VELIA_SUPPORT_STRUTL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

int strutl_concat(char *destination, size_t size, int count, ...);
char *strutl_concat_heap(int count, ...);
/* Non-zero means truncated; the destination is always terminated. */
int strutl_cpy_buf(char *destination, const char *source, size_t size);
int strutl_snprintf(char *destination, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));
int strutl_stricoll(const char *left, const char *right);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
