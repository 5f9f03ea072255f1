/*
 * Hash tables with string or fixed-length keys. A table owns its records: entering a key makes a zeroed record of the
 * size given at creation, whose address stays until the record is freed.
 *
 *     hash_table_t table = hash_str_create(16, sizeof(entry_t), HASH_KEEP_POINTER);
 *     void *key;
 *     void *record;
 *     if (hash_str_enter(table, stg_strdup("alpha"), &key, &record) == 0)
 *         ((entry_t *)record)->count = 1;
 *
 * Out arguments for keys and records may be null where they are not wanted; when nothing is found they become null.
 * The caller holds whatever lock guards the table. Nothing is printed.
 */
#ifndef VELIA_SUPPORT_HASH_H
#define VELIA_SUPPORT_HASH_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct hash_table *hash_table_t;

/*
 * What a table keeps of a key: the caller's pointer, which must stay valid as long as the record and remains the
 * caller's to free; or a copy of its own.
 */
enum { HASH_KEEP_POINTER = 0, HASH_KEEP_COPY = 1 };

/* Where a walk stands; starts at 0. */
typedef uint64_t hash_iter_t;

/*
 * A new table. `size` is how many records are expected, which only saves growing; `record_size` those of a record in
 * bytes; `flag` as above; `key_length` at least 1. Null without memory or for bad arguments.
 */
hash_table_t hash_str_create(size_t size, size_t record_size, int flag);
hash_table_t hash_flen_create(size_t size, size_t record_size, int flag, size_t key_length);

/*
 * Asks for walks in the order of entering in which records may be freed on the way. Every table walks so; the call
 * says that its owner counts on it.
 */
void hash_set_order(hash_table_t table);

/*
 * Makes a record for `key`. 0 for a new key. 1 if the key was there already: the outs are then the stored ones, and the
 * given key was not kept. -1, with nulls, without memory.
 */
int hash_str_enter(hash_table_t table, const char *key, void **out_key, void **out_record);
int hash_flen_enter(hash_table_t table, const void *key, void **out_key, void **out_record);

/* Non-zero if the key is there. */
int hash_str_lookup(hash_table_t table, const char *key, void **out_key, void **out_record);
int hash_flen_lookup(hash_table_t table, const void *key, void **out_key, void **out_record);

/*
 * Removes and frees the record of `key`; non-zero if it was there. `*out_key` is then the pointer that the table kept,
 * for the caller to free, or null if it kept a copy, which is freed with the record. `*out_record` becomes null: what a
 * record owns is to be released before.
 */
int hash_str_free(hash_table_t table, const char *key, void **out_key, void **out_record);
int hash_flen_free(hash_table_t table, const void *key, void **out_key, void **out_record);

/*
 * The next record of a walk, in the order of entering; non-zero while records are left. Records may be freed and
 * entered during a walk; those entered on the way are met, too.
 */
int hash_str_next(hash_table_t table, hash_iter_t *state, void **out_key, void **out_record);
int hash_flen_next(hash_table_t table, hash_iter_t *state, void **out_key, void **out_record);

/* Frees the table in `*table` with its records and copied keys, and clears it. Null, or a null in it, is ignored. */
void hash_delete_ht(hash_table_t *table);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
