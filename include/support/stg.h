/*
 * The allocator. All memory handed between modules comes from here; a failed allocation returns null.
 *
 * There is one heap: stg_malloc, stg_free, the storage that XDR routines decode into, and plain free() are
 * interchangeable. Posted raises do not land inside these operations. All but the area operations may be used from any
 * thread at once; an area belongs to one thread at a time.
 *
 *     stg_area_t area = stg_create_area(1024);
 *     char *copy = area != NULL ? stg_area_strdup(area, text) : NULL;
 *     stg_delete_area(&area);
 */
#ifndef VELIA_SUPPORT_STG_H
#define VELIA_SUPPORT_STG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct stg_area *stg_area_t;

/* The area value that means the plain heap: what is taken from it is released one by one with stg_free. */
#define STG_HEAP_AREA ((stg_area_t)1)

/* A block of `size` bytes, not zeroed, aligned for any type. A size of 0 gives a block, too. */
void *stg_malloc(size_t size);

/* Changes the size of a block (null: a new one). On null the old block is untouched. Never frees, not for size 0. */
void *stg_realloc(void *pointer, size_t size);

/* Releases a block; null is ignored. */
void stg_free(void *pointer);

/* A heap copy of `text`, released with stg_free; null for null. */
char *stg_strdup(const char *text);

/* A new area whose first block has room for `first_block_size` bytes; null on failure. */
stg_area_t stg_create_area(size_t first_block_size);

/* Releases the area in `*area` and all that was taken from it, and clears `*area`. Null, or a null in it, is ignored.
 */
void stg_delete_area(stg_area_t *area);

/* `size` bytes of the area, not zeroed, aligned for any type, which live as long as the area; null on failure. */
void *stg_alloc(stg_area_t area, size_t size);

/* A copy of `text` in the area; null for null, and on failure. */
char *stg_area_strdup(stg_area_t area, const char *text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
