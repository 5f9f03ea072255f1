/*
 * The allocator. All memory handed between modules comes from here; a failed allocation returns null.
 */
#ifndef VELIA_SUPPORT_STG_H
#define VELIA_SUPPORT_STG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct stg_area *stg_area_t;

/* The area value that means the plain heap. */
#define STG_HEAP_AREA ((stg_area_t)1)

void *stg_malloc(size_t size);
void *stg_realloc(void *pointer, size_t size);
void stg_free(void *pointer);
char *stg_strdup(const char *text);
stg_area_t stg_create_area(size_t first_block_size);
void stg_delete_area(stg_area_t *area);
void *stg_alloc(stg_area_t area, size_t size);
char *stg_area_strdup(stg_area_t area, const char *text);

#ifdef __cplusplus
}
#endif
#endif
