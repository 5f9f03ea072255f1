/*
 * Reading the registry: searches and scans in batches, the change of one entry, and look-ups of one value by a key.
 *
 *     int64_t count_regions(void) {
 *         rgy_cursor_t *cursor = NULL;
 *         rgy_entry_t *entries[20];
 *         int64_t total = 0;
 *         do {
 *             int64_t count = 0;
 *             if (rgy_get_entry(RGY_DB_REGIONS, NULL, NULL, &cursor, 20, entries, &count) != TBS_ST_OK)
 *                 break;
 *             if (cursor != NULL)
 *                 total += count;
 *             while (cursor != NULL && count > 0)
 *                 rgy_delete_entry(&entries[--count]);
 *         } while (cursor != NULL);
 *         rgy_close_cursor(&cursor);
 *         return total;
 *     }
 *
 * A fetch runs through a cursor: the caller sets its pointer to null and calls with the same pointer until it is null
 * again. It is the pointer that tells the end and not the count: the call that ends a fetch leaves the array and the
 * count as they were. A caller that stops early, or whose call failed, closes the cursor. A fetch stays on the host of
 * its first call.
 *
 * Every operation may block for a host's time-out (25 seconds), and while it does, holds up the registry calls of all
 * threads. Any thread may call; a cursor and a result array belong to one thread at a time.
 */
#ifndef VELIAXDR_RGY_FETCH_H
#define VELIAXDR_RGY_FETCH_H

#include <stddef.h>
#include <stdint.h>

#include <veliaxdr/rgy_entry.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define RGY_CURSOR_MAGIC UINT64_C(0xfeedfeed)

/* One running fetch. Made by its first call; ended by the call that nulls the pointer, or by rgy_close_cursor. */
typedef struct rgy_cursor {
    uint64_t cursor;    /* the server's position; 0 at the start, and when the last entries have come */
    rgy_dtm_pair_t dtm; /* of the last reply; all zero at the start */
    uint64_t magic;     /* RGY_CURSOR_MAGIC */
    uint32_t done;      /* 1 once the last batch has been delivered */
    char *host;         /* the registry host, fixed by the first call */
} rgy_cursor_t;

/*
 * Fetches of one batch. `host` null is the configured master; `region` null is none; `item` names the key that is
 * searched (the empty key for RGY_ITEM_COUNT and above). At most `max_entries` entries are stored in `entries`, which
 * has room for so many; the caller deletes each with rgy_delete_entry. On failure no entry is handed out.
 *
 * The two searches by string and uuid keep answers of at most one entry for some seconds and may give them again.
 *
 *   TBS_ST_ERROR        the host does not answer, or answered with a failure; printed as message 29 of
 *                       _registry_rvzd_msg_table
 *   TBS_ST_INVALID_ARG  a null argument that may not be, a host other than the cursor's, or a malformed entry
 *   TBS_ST_NO_MEMORY    no storage
 *   TBS_ST_UNSUPPORTED  the host's daemon does not know patterns (rgy_get_pattern_entry only); not printed
 *   else                the status of finding or reaching the host
 */
tbs_status_t rgy_findbystring_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                    const char *string, rgy_cursor_t **cursor, int64_t max_entries,
                                    rgy_entry_t **entries, int64_t *count);
tbs_status_t rgy_findbyuuid_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                  const tbs_uuid_t *uuid, rgy_cursor_t **cursor, int64_t max_entries,
                                  rgy_entry_t **entries, int64_t *count);
tbs_status_t rgy_findbyattr_entry(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                  const char *attr_name, const char *attr_value, rgy_cursor_t **cursor,
                                  int64_t max_entries, rgy_entry_t **entries, int64_t *count);
tbs_status_t rgy_get_entry(rgy_db_t db, const char *host, const char *region, rgy_cursor_t **cursor,
                           int64_t max_entries, rgy_entry_t **entries, int64_t *count);
tbs_status_t rgy_get_pattern_entry(rgy_db_t db, const char *host, const char *region, const char *const *patterns,
                                   int32_t pattern_count, rgy_cursor_t **cursor, int64_t max_entries,
                                   rgy_entry_t **entries, int64_t *count);

/*
 * As rgy_get_entry, with the entries as the wire carries them in `elist`, the caller's, of `max_entries` zeroed
 * elements. The caller frees their texts, after a failure too.
 */
tbs_status_t rgy_get_entry_unexpanded(rgy_db_t db, const char *host, const char *region, rgy_cursor_t **cursor,
                                      int64_t max_entries, rgy_elist_t elist, int64_t *count);

/* Ends a fetch early and clears the pointer. TBS_ST_INVALID_ARG for a null. */
tbs_status_t rgy_close_cursor(rgy_cursor_t **cursor);

/*
 * Adds the entry to its host's database, with the caller's credentials.
 *
 *   TBS_ST_STALE_ID     the stamps in the entry are out of date: make the entry anew and try again; not printed
 *   TBS_ST_NO_ACCESS    the caller may not; printed
 *   TBS_ST_INVALID_ARG  no live entry, or one without a host
 *   TBS_ST_ERROR        what rgy_gather_flex_entry refuses, not printed; any other failure of the call, printed
 *   else                the status of reaching the host
 */
tbs_status_t rgy_add_entry(rgy_db_t db, rgy_entry_t *entry);

/* Removes the entry of this number from its host's database; the record stays. Statuses as above, failures printed. */
tbs_status_t rgy_remove_entry(rgy_db_t db, rgy_entry_t *entry);

/*
 * Find one entry and copy of it the host name, local path, global path and mount options. Only what has a buffer and a
 * size is copied, the mount options what has a buffer; all null asks only whether there is an entry. Each must be there
 * and fit.
 *
 *   TBS_ST_NOT_FOUND  no entry
 *   TBS_ST_ERROR      the search by string failed; the search by uuid gives its own status
 *   else              of rgy_getstring_from_entry
 *
 * Failures are printed, but for those of the mount options.
 */
tbs_status_t rgy_getinfo_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item, const char *string,
                                   size_t hostname_size, char *hostname, size_t local_path_size, char *local_path,
                                   size_t global_path_size, char *global_path);
tbs_status_t rgy_getinfo_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                 const tbs_uuid_t *uuid, size_t hostname_size, char *hostname, size_t local_path_size,
                                 char *local_path, size_t global_path_size, char *global_path,
                                 size_t mount_options_size, char *mount_options);

/*
 * Read the item `wanted` of the first entry that the key finds. *ambiguous (may be null) is 1 if a second one was
 * found, else 0.
 *
 *   TBS_ST_NOT_FOUND  no entry, or it has no such item
 *   TBS_ST_ERROR      the search failed; printed
 *   else              of rgy_getstring_from_entry or rgy_getuuid_from_entry
 */
tbs_status_t rgy_getstring_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                     const char *string, uint32_t wanted, size_t size, char *buffer,
                                     int32_t *ambiguous);
tbs_status_t rgy_getstring_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                   const tbs_uuid_t *uuid, uint32_t wanted, size_t size, char *buffer,
                                   int32_t *ambiguous);
tbs_status_t rgy_getuuid_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item, const char *string,
                                   uint32_t wanted, tbs_uuid_t *out, int32_t *ambiguous);
tbs_status_t rgy_getuuid_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                 const tbs_uuid_t *uuid, uint32_t wanted, tbs_uuid_t *out, int32_t *ambiguous);

/*
 * Remove every entry that the key finds. TBS_ST_NOT_FOUND if there is none; else the status of the search or removal
 * that ended it, failures printed. What was removed before a failure stays removed.
 */
tbs_status_t rgy_remove_by_string(rgy_db_t db, const char *host, const char *region, uint32_t item, const char *string);
tbs_status_t rgy_remove_by_uuid(rgy_db_t db, const char *host, const char *region, uint32_t item,
                                const tbs_uuid_t *uuid);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
