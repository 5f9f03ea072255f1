/*
 * Making a new entry, and questions to a registry about itself.
 *
 *     tbs_status_t add_region(const char *name) {
 *         tbs_status_t status;
 *         do {
 *             rgy_entry_t *entry = NULL;
 *             status = rgy_create_entry(RGY_DB_REGIONS, NULL, &entry);
 *             if (status == TBS_ST_OK)
 *                 status = rgy_setstring_in_entry(entry, RGY_ITEM_NAME, name);
 *             if (status == TBS_ST_OK)
 *                 status = rgy_add_entry(RGY_DB_REGIONS, entry);
 *             rgy_delete_entry(&entry);
 *         } while (status == TBS_ST_STALE_ID);
 *         return status;
 *     }
 *
 * What makes an entry of a database the entry that it is: the registry refuses a second one that is the same in these
 * items (TBS_ST_ALREADY_EXISTS). So a tag of another region is another entry. An entry without the first of them is
 * taken, too, and is the same as no other. What else an entry holds is its writer's affair; named are the items that
 * this library and its tools write or read. In site_config the refusal is TBS_ST_STALE_ID, so that writers of settings
 * look again, and of entries without a name, but with default_viewsize, there is one, too.
 *
 *   database      same in           holds besides
 *   view_object   view_uuid         hostname local_path global_path region owner attributes
 *   view_tag      tag region
 *   vault_object  vault_replica     vault_family hostname local_path global_path region owner attributes
 *   vault_tag     tag region        hostname attributes
 *   regions       name              title
 *   bbase_object  id
 *   bbase_tag     tag region
 *   site_config   name              value
 *   storage_path  name region
 *   dct_dbs       database
 *   ct_servers    name
 *   domains       domain
 *
 * `host` null is the configured master. Each operation may block for a host's time-out (25 seconds), and while it does,
 * holds up the registry calls of all threads. Any thread may call. "Printed" means message 29 of
 * _registry_rvzd_msg_table.
 */
#ifndef VELIAXDR_RGY_MANAGE_H
#define VELIAXDR_RGY_MANAGE_H

#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Makes an entry without items for `db`, with the stamps that the registry has now, in *out; the caller releases it
 * with rgy_delete_entry. The stamps go out of date with the next change of another client: fill the entry and add it
 * soon, and on TBS_ST_STALE_ID begin anew. Binds with the caller's credentials, which flushes what is cached of the
 * database.
 *
 *   TBS_ST_ERROR        the registry did not answer, or with a failure (printed); no host could be reached
 *   TBS_ST_NO_MEMORY    no storage
 *   TBS_ST_INVALID_ARG  a null `out`
 *   else                the status of finding or reaching the host
 */
tbs_status_t rgy_create_entry(rgy_db_t db, const char *host, rgy_entry_t **out);

/*
 * Whether the caller's effective user may, with this password, change `db`: TBS_ST_OK; TBS_ST_NO_ACCESS;
 * TBS_ST_NOT_FOUND when the registry has no password. TBS_ST_ERROR for another answer and without one (printed),
 * TBS_ST_INVALID_ARG for a null password, and as above. A password of more than RGY_WIRE_PASSWORD_MAX characters is not
 * sent: TBS_ST_ERROR (printed).
 */
tbs_status_t rgy_chk_access(rgy_db_t db, const char *host, const char *password);

/* Least size of the buffer of a registry password: 4,095 characters of any value but zero, and the terminator. */
enum { RGY_PASSWORD_SIZE = 4096 };

/*
 * The check before a privileged change of a tag: whether the caller may, with the password in `password`, a buffer of
 * RGY_PASSWORD_SIZE bytes. If it holds the empty text, the user is asked on the terminal, with no lock held and for as
 * long as it takes, and the buffer keeps the answer, so that the user is asked once; wipe it when done.
 *
 *   TBS_ST_OK           yes
 *   TBS_ST_NO_ACCESS    no
 *   TBS_ST_NOT_FOUND    the registry has no password, which is a no; also for a host that is not known
 *   TBS_ST_ERROR        the user gave no password (nothing is printed, and the buffer stays empty), or as above
 *   TBS_ST_INVALID_ARG  a null buffer
 *   else                as above
 *
 * Whatever is not a yes, but for what comes before the question, prints messages 41 and 42 of
 * _registry_rvzd_msg_table, and the third also message 43. The password is never printed.
 */
tbs_status_t rgy_chk_tag_priv(const char *host, char *password);

/*
 * Stores what the registry says of its databases in `dbs`, which has room for `db_max` elements, and their number in
 * *count. The caller releases the names with stg_free; one without storage is null. TBS_ST_ERROR (printed) when no host
 * could be reached; else what rvzd_rgy_get_db_list says.
 */
tbs_status_t rgy_get_db_list(const char *host, int64_t db_max, rgy_db_info_t *dbs, int64_t *count);

/*
 * Read and write the list of backup hosts that the master holds. *host_list is the caller's buffer of
 * RGY_WIRE_HOST_LIST_MAX + 1 bytes at least, and stays it. The first reads as anyone, the second writes with the
 * caller's credentials. Either keeps its connection to the master for the rest of the process. TBS_ST_ERROR when the
 * registry did not answer, or with a failure (printed), TBS_ST_INVALID_ARG for a null, and as above.
 */
tbs_status_t rgy_get_current_backup(char **host_list);
tbs_status_t rgy_set_current_backup(const char *host_list);

/*
 * A snapshot of a database's stamps, by which a client can tell that what it derived from the database is out of date.
 * Made by rgy_create_timestamp, moved forward by rgy_check_timestamp, released by rgy_destroy_timestamp.
 */
typedef struct rgy_timestamp {
    rgy_dtm_pair_t dtm;
    tbs_uuid_t aux_uuid1;
    tbs_uuid_t aux_uuid2;
    char *host; /* that answered */
} rgy_timestamp_t;

/*
 * Takes a snapshot of `db` in *out. TBS_ST_ERROR (printed) for every failure of reaching and asking the registry,
 * TBS_ST_NO_MEMORY without storage for the record, TBS_ST_INVALID_ARG for a null `out`. Without storage for the host's
 * name the call succeeds with a null in *out: test it.
 */
tbs_status_t rgy_create_timestamp(rgy_db_t db, const char *host, rgy_timestamp_t **out);

/*
 * Asks the snapshot's host whether `db` has changed since: *changed is then 1, else 0. A change moves the snapshot
 * forward and voids what this process has cached of the database. TBS_ST_INVALID_ARG for a null argument or a snapshot
 * without a host, and for a host other than the snapshot's (null is that one); TBS_ST_ERROR (printed), with the
 * snapshot as it was, for any failure.
 */
tbs_status_t rgy_check_timestamp(rgy_db_t db, const char *host, rgy_timestamp_t *stamp, int32_t *changed);

/* Releases the snapshot and clears the pointer. TBS_ST_INVALID_ARG for a null. */
tbs_status_t rgy_destroy_timestamp(rgy_timestamp_t **stamp);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
