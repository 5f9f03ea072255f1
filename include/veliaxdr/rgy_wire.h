/*
 * The registry's part of the broker's protocol: fifteen procedures on RVZD_PROGRAM, the record of each request and
 * reply, and the proxies, which are one call each: no retry, no cache.
 *
 *     rgy_svr_entry_t entry = {0};
 *     rgy_dtm_pair_t stamps = {0};
 *     uint64_t cursor = 0;
 *     int64_t count = 0;
 *     if (rvzd_rgy_get_entry(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, "", &stamps, &cursor, 1, &entry, &count) ==
 *             TBS_ST_OK &&
 *         count == 1)
 *         use(entry);
 *
 * Records follow the rules of <veliaxdr/rvzd_wire.h>: one routine in all three directions, cleared before decoding,
 * decoded storage from the heap, null texts sent as "". Longer texts than the record allows fail, which a call reports
 * as TBS_ST_RPC_FAILED. What stands behind a reply's header is there with status TBS_ST_OK only.
 */
#ifndef VELIAXDR_RGY_WIRE_H
#define VELIAXDR_RGY_WIRE_H

#include <stdint.h>

#include <veliaxdr/rgy_entry.h>
#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The `version` of every request: the registry layer's own, independent of the RPC version. */
enum { RGY_PROTOCOL_VERSION = 3 };

/* Longest texts on the wire, without terminator. */
enum {
    RGY_WIRE_REGION_MAX = 32,
    RGY_WIRE_KEY_MAX = 31,
    RGY_WIRE_VALUE_MAX = 1023,
    RGY_WIRE_FLEX_MAX = 4095,
    RGY_WIRE_PASSWORD_MAX = 4095,
    RGY_WIRE_HOST_LIST_MAX = 512,
    RGY_WIRE_CLNT_CONF_MAX = 512,
    RGY_WIRE_SVR_CONF_MAX = 31,
};

/* What a registry says of one of its databases; the client only hands it on. */
typedef struct rgy_db_info {
    int64_t db;
    char *name;
    tbs_uuid_t uuid1;
    tbs_uuid_t uuid2;
    int64_t last;
} rgy_db_info_t;

/* ---- requests ---- */

typedef struct rvzd_registry_get_id_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
} rvzd_registry_get_id_req_t;

typedef rvzd_registry_get_id_req_t rvzd_registry_get_dtm_req_t;

/* A fetch begins where the last one's cursor stood, and shows the stamps that it brought. */
typedef struct rvzd_registry_get_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    char *region;
    uint64_t cursor;
    int64_t max_entries;
} rvzd_registry_get_req_t;

typedef struct rvzd_registry_findbystring_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    char *region;
    uint64_t cursor;
    int64_t max_entries;
    char *item_key;
    char *lookup_string;
} rvzd_registry_findbystring_req_t;

typedef struct rvzd_registry_findbyattr_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    char *region;
    uint64_t cursor;
    int64_t max_entries;
    char *item_key;
    char *attr_name;
    char *attr_value;
} rvzd_registry_findbyattr_req_t;

typedef struct rvzd_registry_findbyuuid_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    char *region;
    uint64_t cursor;
    int64_t max_entries;
    char *item_key;
    tbs_uuid_t lookup_uuid;
} rvzd_registry_findbyuuid_req_t;

typedef struct rvzd_registry_get_pattern_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    char *region;
    uint64_t cursor;
    int64_t patterns_length; /* elements of `patterns` */
    char **patterns;
    int32_t pattern_count; /* the same number, sent a second time by design */
    int64_t max_entries;
} rvzd_registry_get_pattern_req_t;

typedef struct rvzd_registry_add_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    char *flex_text;
} rvzd_registry_add_req_t;

typedef struct rvzd_registry_remove_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    uint64_t entry_id;
} rvzd_registry_remove_req_t;

typedef struct rvzd_registry_chk_access_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    int64_t uid;
    char *password;
} rvzd_registry_chk_access_req_t;

typedef struct rvzd_registry_get_db_req {
    rvzd_hdr_req_t header;
    int64_t version;
    int64_t db_max;
} rvzd_registry_get_db_req_t;

typedef struct rvzd_registry_clnt_conf_req {
    rvzd_hdr_req_t header;
    int64_t version;
    int64_t op;
    char *text;
} rvzd_registry_clnt_conf_req_t;

typedef rvzd_registry_clnt_conf_req_t rvzd_registry_svr_conf_req_t;

typedef struct rvzd_registry_get_backup_req {
    rvzd_hdr_req_t header;
    int64_t version;
} rvzd_registry_get_backup_req_t;

typedef struct rvzd_registry_set_backup_req {
    rvzd_hdr_req_t header;
    int64_t version;
    char *host_list;
} rvzd_registry_set_backup_req_t;

/*
 * One of several changes of a database. Without a number it adds the entry of this text; with one and no text it
 * removes that entry; with both it gives that entry another text, under its number.
 */
typedef struct rgy_change {
    uint64_t entry_id;
    char *flex_text; /* null is "" */
} rgy_change_t;

enum {
    RGY_CHANGE_IF_UNCHANGED = 1,  /* not unless the stamps are still those of the request */
    RGY_CHANGE_PASS_STANDING = 2, /* an entry that stands in the same words is not added, and that is good */
    RGY_CHANGE_MORE_TO_COME = 4   /* of the set: nothing is made before the request without this */
};

typedef struct rvzd_registry_change_req {
    rvzd_hdr_req_t header;
    int64_t db;
    int64_t version;
    rgy_dtm_pair_t dtm;
    uint32_t flags;
    tbs_uuid_t set;  /* all zero for a request that is a set of its own */
    uint32_t before; /* changes of the set that were sent before these */
    int64_t count;
    rgy_change_t *changes;
} rvzd_registry_change_req_t;

/* ---- replies ---- */

typedef struct rvzd_registry_get_id_reply {
    rvzd_hdr_reply_t header;
    int64_t version;
    rgy_dtm_pair_t dtm;
} rvzd_registry_get_id_reply_t;

typedef struct rvzd_registry_get_dtm_reply {
    rvzd_hdr_reply_t header;
    int64_t version;
    rgy_dtm_pair_t dtm;
    tbs_uuid_t aux_uuid1;
    tbs_uuid_t aux_uuid2;
} rvzd_registry_get_dtm_reply_t;

/*
 * The reply of every fetch. Its own `version` tells its form: 1 is at most one entry behind a presence word and then a
 * count, which must not tell of more than is there; any other version is a counted array.
 */
typedef struct rvzd_registry_get_reply {
    rvzd_hdr_reply_t header;
    int64_t version;
    rgy_dtm_pair_t dtm;
    uint64_t cursor;
    int64_t count;
    rgy_svr_entry_t *entries; /* null without entries */
} rvzd_registry_get_reply_t;

typedef struct rvzd_registry_get_db_reply {
    rvzd_hdr_reply_t header;
    int64_t version;
    int64_t count;
    rgy_db_info_t *dbs; /* null without databases */
} rvzd_registry_get_db_reply_t;

typedef struct rvzd_registry_get_backup_reply {
    rvzd_hdr_reply_t header;
    char *host_list;
} rvzd_registry_get_backup_reply_t;

/* `outcome` is that of the changes; `failed` names the one that it is of, counted from 0 in the whole set. */
typedef struct rvzd_registry_change_reply {
    rvzd_hdr_reply_t header;
    int64_t version;
    rgy_dtm_pair_t dtm; /* after the changes */
    int32_t outcome;
    uint32_t failed;
    uint32_t passed; /* entries that stood there and were passed over */
} rvzd_registry_change_reply_t;

typedef rvzd_null_reply_t rvzd_registry_add_reply_t;
typedef rvzd_null_reply_t rvzd_registry_remove_reply_t;
typedef rvzd_null_reply_t rvzd_registry_chk_access_reply_t;
typedef rvzd_null_reply_t rvzd_registry_clnt_conf_reply_t;
typedef rvzd_null_reply_t rvzd_registry_svr_conf_reply_t;
typedef rvzd_null_reply_t rvzd_registry_set_backup_reply_t;

bool_t xdr_rgy_svr_entry_t(XDR *xdrs, rgy_svr_entry_t *record);
bool_t xdr_rgy_db_info_t(XDR *xdrs, rgy_db_info_t *record);
bool_t xdr_rgy_dtm_pair_t(XDR *xdrs, rgy_dtm_pair_t *record);

bool_t xdr_rvzd_registry_get_id_req_t(XDR *xdrs, rvzd_registry_get_id_req_t *record);
bool_t xdr_rvzd_registry_get_dtm_req_t(XDR *xdrs, rvzd_registry_get_dtm_req_t *record);
bool_t xdr_rvzd_registry_get_req_t(XDR *xdrs, rvzd_registry_get_req_t *record);
bool_t xdr_rvzd_registry_findbystring_req_t(XDR *xdrs, rvzd_registry_findbystring_req_t *record);
bool_t xdr_rvzd_registry_findbyattr_req_t(XDR *xdrs, rvzd_registry_findbyattr_req_t *record);
bool_t xdr_rvzd_registry_findbyuuid_req_t(XDR *xdrs, rvzd_registry_findbyuuid_req_t *record);
bool_t xdr_rvzd_registry_get_pattern_req_t(XDR *xdrs, rvzd_registry_get_pattern_req_t *record);
bool_t xdr_rvzd_registry_add_req_t(XDR *xdrs, rvzd_registry_add_req_t *record);
bool_t xdr_rvzd_registry_remove_req_t(XDR *xdrs, rvzd_registry_remove_req_t *record);
bool_t xdr_rvzd_registry_chk_access_req_t(XDR *xdrs, rvzd_registry_chk_access_req_t *record);
bool_t xdr_rvzd_registry_get_db_req_t(XDR *xdrs, rvzd_registry_get_db_req_t *record);
bool_t xdr_rvzd_registry_clnt_conf_req_t(XDR *xdrs, rvzd_registry_clnt_conf_req_t *record);
bool_t xdr_rvzd_registry_svr_conf_req_t(XDR *xdrs, rvzd_registry_svr_conf_req_t *record);
bool_t xdr_rvzd_registry_get_backup_req_t(XDR *xdrs, rvzd_registry_get_backup_req_t *record);
bool_t xdr_rvzd_registry_set_backup_req_t(XDR *xdrs, rvzd_registry_set_backup_req_t *record);

bool_t xdr_rgy_change_t(XDR *xdrs, rgy_change_t *record);
bool_t xdr_rvzd_registry_change_req_t(XDR *xdrs, rvzd_registry_change_req_t *record);
bool_t xdr_rvzd_registry_change_reply_t(XDR *xdrs, rvzd_registry_change_reply_t *record);

bool_t xdr_rvzd_registry_get_id_reply_t(XDR *xdrs, rvzd_registry_get_id_reply_t *record);
bool_t xdr_rvzd_registry_get_dtm_reply_t(XDR *xdrs, rvzd_registry_get_dtm_reply_t *record);
bool_t xdr_rvzd_registry_get_reply_t(XDR *xdrs, rvzd_registry_get_reply_t *record);
bool_t xdr_rvzd_registry_get_db_reply_t(XDR *xdrs, rvzd_registry_get_db_reply_t *record);
bool_t xdr_rvzd_registry_get_backup_reply_t(XDR *xdrs, rvzd_registry_get_backup_reply_t *record);
bool_t xdr_rvzd_registry_add_reply_t(XDR *xdrs, rvzd_registry_add_reply_t *record);
bool_t xdr_rvzd_registry_remove_reply_t(XDR *xdrs, rvzd_registry_remove_reply_t *record);
bool_t xdr_rvzd_registry_chk_access_reply_t(XDR *xdrs, rvzd_registry_chk_access_reply_t *record);
bool_t xdr_rvzd_registry_clnt_conf_reply_t(XDR *xdrs, rvzd_registry_clnt_conf_reply_t *record);
bool_t xdr_rvzd_registry_svr_conf_reply_t(XDR *xdrs, rvzd_registry_svr_conf_reply_t *record);
bool_t xdr_rvzd_registry_set_backup_reply_t(XDR *xdrs, rvzd_registry_set_backup_reply_t *record);

/* ---- proxies ---- */

/*
 * Every proxy sends one request over `handle` (not null) and waits for its time-out at most, with rvzd_call_lock held.
 * `version` is RGY_PROTOCOL_VERSION. Texts may be null, which is "". Outs are written on TBS_ST_OK only, but where told
 * otherwise.
 *
 *   TBS_ST_RPC_FAILED   the call failed; printed as "<proxy> call failed"
 *   TBS_ST_INVALID_ARG  the reply has more elements than were asked for; nothing is handed out
 *   TBS_ST_NO_MEMORY    no storage for a copy
 *   else                the registry's own answer: TBS_ST_NOT_FOUND, TBS_ST_STALE_ID, TBS_ST_NO_ACCESS, ...
 */

/* The stamps of a database. */
tbs_status_t rvzd_rgy_get_id(rvzd_handle_t *handle, rgy_db_t db, int64_t version, rgy_dtm_pair_t *out);
tbs_status_t rvzd_rgy_get_dtm(rvzd_handle_t *handle, rgy_db_t db, int64_t version, rgy_dtm_pair_t *out,
                              tbs_uuid_t *aux_uuid1, tbs_uuid_t *aux_uuid2);

/*
 * Fetches of one batch. `pair` and `cursor` go out as they are, all zero at the start, and are those of the reply
 * afterwards; a cursor of 0 says that this was the last batch. `elist` has `max_entries` zeroed elements; the caller
 * frees their texts, also after TBS_ST_NO_MEMORY, when `count` elements were delivered but only the first ones copied.
 * `region` restricts the search as the registry sees fit. This host is entered in the broker's client list on the way.
 *
 * A registry that does not know patterns answers rvzd_rgy_get_pattern_entry with TBS_ST_UNSUPPORTED; nothing is
 * printed.
 */
tbs_status_t rvzd_rgy_get_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                rgy_dtm_pair_t *pair, uint64_t *cursor, int64_t max_entries, rgy_elist_t elist,
                                int64_t *count);
tbs_status_t rvzd_rgy_get_pattern_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                        rgy_dtm_pair_t *pair, uint64_t *cursor, const char *const *patterns,
                                        int32_t pattern_count, int64_t max_entries, rgy_elist_t elist, int64_t *count);
tbs_status_t rvzd_rgy_findbystring_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                         const char *item_key, const char *lookup_string, rgy_dtm_pair_t *pair,
                                         uint64_t *cursor, int64_t max_entries, rgy_elist_t elist, int64_t *count);
tbs_status_t rvzd_rgy_findbyuuid_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                       const char *item_key, const tbs_uuid_t *lookup_uuid, rgy_dtm_pair_t *pair,
                                       uint64_t *cursor, int64_t max_entries, rgy_elist_t elist, int64_t *count);
tbs_status_t rvzd_rgy_findbyattr_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                       const char *item_key, const char *attr_name, const char *attr_value,
                                       rgy_dtm_pair_t *pair, uint64_t *cursor, int64_t max_entries, rgy_elist_t elist,
                                       int64_t *count);

/* Changes of one entry; the registry refuses a pair that is out of date with TBS_ST_STALE_ID. */
tbs_status_t rvzd_rgy_add_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const rgy_dtm_pair_t *pair,
                                const char *flex_text);
tbs_status_t rvzd_rgy_remove_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const rgy_dtm_pair_t *pair,
                                   uint64_t entry_id);

/*
 * Changes of many entries of a database, all or none of them: what the registry answers with stands on its disk.
 * `changes` are `count`, and all of them have to fit into a request of RGY_CHANGE_BYTES_MAX bytes, for which each
 * counts RGY_CHANGE_WORDS_BYTES and its text. `flags` are of RGY_CHANGE_...; `pair` is looked at with
 * RGY_CHANGE_IF_UNCHANGED, and is that of the database afterwards. The handle should be one over TCP: over UDP a
 * datagram has to hold them.
 *
 * More than one request holds can be a set, of RGY_CHANGES_MAX changes at most: each request has the set's uuid, which
 * is random, and the number of changes that went before; all but the last say RGY_CHANGE_MORE_TO_COME, and the last one
 * makes them all. What the registry has of a set is forgotten with its end, or for newer ones: TBS_ST_TRY_AGAIN then,
 * and the set has to be sent anew. `set` is null for changes that are none.
 *
 *   TBS_ST_OK              all are made; `passed` of them were passed over
 *   TBS_ST_STALE_ID        the stamps are others by now; `failed` is 0
 *   TBS_ST_ALREADY_EXISTS  an entry of the identity of change `failed`
 *   TBS_ST_NOT_FOUND       no entry of the number of change `failed`
 *   TBS_ST_INVALID_ARG     the text of change `failed` is no entry, or the change says nothing; or they are too many
 *   TBS_ST_NO_ACCESS       this caller may change nothing; `failed` is 0
 *   TBS_ST_NO_MEMORY       the set has more than RGY_CHANGES_MAX changes, or 64 MiB; `failed` is 0
 *   TBS_ST_UNSUPPORTED     the registry does not know such changes; nothing is printed
 *   else                   as for every proxy
 */
enum { RGY_CHANGE_BYTES_MAX = 60000, RGY_CHANGE_WORDS_BYTES = 12, RGY_CHANGES_MAX = 200000 };
tbs_status_t rvzd_rgy_change_entries(rvzd_handle_t *handle, rgy_db_t db, int64_t version, rgy_dtm_pair_t *pair,
                                     uint32_t flags, const tbs_uuid_t *set, uint32_t before,
                                     const rgy_change_t *changes, int64_t count, uint32_t *failed, uint32_t *passed);

/* Whether this user with this password may change a database. */
tbs_status_t rvzd_rgy_chk_access(rvzd_handle_t *handle, rgy_db_t db, int64_t version, int64_t uid,
                                 const char *password);

/* The databases: `dbs` has room for `db_max` elements, whose names the caller frees; a name without storage is null. */
tbs_status_t rvzd_rgy_get_db_list(rvzd_handle_t *handle, int64_t version, int64_t db_max, rgy_db_info_t *dbs,
                                  int64_t *count);

/* Ask the broker's host to change its configuration as a client, as a server. */
tbs_status_t rvzd_rgy_clnt_conf_change(rvzd_handle_t *handle, int64_t version, int64_t op, const char *text);
tbs_status_t rvzd_rgy_svr_conf_change(rvzd_handle_t *handle, int64_t version, int64_t op, const char *text);

/* The backup hosts. *host_list is the caller's buffer of RGY_WIRE_HOST_LIST_MAX + 1 bytes at least, and stays it. */
tbs_status_t rvzd_rgy_get_backup(rvzd_handle_t *handle, int64_t version, char **host_list);
tbs_status_t rvzd_rgy_set_backup(rvzd_handle_t *handle, int64_t version, const char *host_list);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
