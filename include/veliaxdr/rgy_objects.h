/*
 * Registering objects: views, vaults, and whatever else has a uuid.
 *
 *     tbs_status_t register_view(const tbs_uuid_t *view, const char *storage) {
 *         const char *attributes[] = {"snapshot", "ucm=no"};
 *         tbs_status_t status = rgy_add_view_object(NULL, "domain/me", view, "build7", storage, 2, attributes);
 *         return status == TBS_ST_ALREADY_EXISTS ? TBS_ST_OK : status;
 *     }
 *
 * Each call makes a new entry, fills it, sees that no entry has its uuid, and adds it. When another client changed the
 * registry meanwhile, the add is refused and all of that is done anew, ten times at most; then it is for the caller to
 * try again.
 *
 * `host` null is the configured master. Texts and uuids are read only, and null ones leave their item out, but for the
 * uuid of the object itself. A text is at most RGY_ITEM_TEXT_SIZE - 1 characters, without semicolon and line feed, and
 * all of them with their keys have to fit RGY_FLEX_TEXT_SIZE. The attributes are joined by commas, up to
 * RGY_ITEM_TEXT_SIZE - 1 characters: one that does not fit any more is left out, which is not reported; a null one is
 * the empty text. Without attributes (a count of 0 or less, or null) there is no such item.
 *
 * Each call may block for a host's time-out (25 seconds) in each of its three questions, and holds up the registry
 * calls of all threads from the first to the last, so that two threads do not add the same object. Any thread may call.
 *
 *   TBS_ST_ALREADY_EXISTS  an entry with this uuid stands already; nothing is printed
 *   TBS_ST_STALE_ID        other clients were faster ten times
 *   TBS_ST_NO_ACCESS       the registry refuses changes by this caller
 *   TBS_ST_INVALID_ARG     a text that cannot be set, or a null uuid of the object
 *   TBS_ST_NO_MEMORY       no storage
 *   TBS_ST_ERROR           the registry did not answer, or with a failure; the entry is too large
 *   else                   the status of finding or reaching the host
 *
 * All but the first are printed, as message 46 of _tbs_cmsg_tbs_msg_table with the name of the step that failed.
 */
#ifndef VELIAXDR_RGY_OBJECTS_H
#define VELIAXDR_RGY_OBJECTS_H

#include <stdint.h>

#include <veliaxdr/rgy_entry.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Registers an object of any database under the item `key_item`. A second uuid goes under `second_item`. The region
 * also restricts the search for an entry with the object's uuid.
 */
tbs_status_t rgy_addinfo(rgy_db_t db, const char *host, const char *region, uint32_t key_item,
                         const tbs_uuid_t *key_uuid, const char *hostname, const char *local_path,
                         const char *global_path, const tbs_uuid_t *second_uuid, uint32_t second_item,
                         int32_t attribute_count, const char *const *attributes);

/* The same with an owner. */
tbs_status_t rgy_addinfo_with_owner(rgy_db_t db, const char *host, const char *region, const char *owner,
                                    uint32_t key_item, const tbs_uuid_t *key_uuid, const char *hostname,
                                    const char *local_path, const char *global_path, const tbs_uuid_t *second_uuid,
                                    uint32_t second_item, int32_t attribute_count, const char *const *attributes);

/* Registers a view whose storage is at `local_path` of `hostname`. */
tbs_status_t rgy_add_view_object(const char *host, const char *owner, const tbs_uuid_t *view_uuid, const char *hostname,
                                 const char *local_path, int32_t attribute_count, const char *const *attributes);

/* Registers a vault: one replica of a family. */
tbs_status_t rgy_add_vault_object(const char *host, const tbs_uuid_t *replica_uuid, const char *hostname,
                                  const char *local_path, const tbs_uuid_t *family_uuid, int32_t attribute_count,
                                  const char *const *attributes);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
