/*
 * Registry entries: rows of the tag registry as ordered lists of named values, and the one-line text that carries them.
 *
 *     tbs_status_t rename_owner(rgy_entry_t *entry, const char *owner) {
 *         const char *old_owner = NULL;
 *         tbs_status_t status = rgy_getstring_from_entry_const(entry, RGY_ITEM_OWNER, &old_owner);
 *         if (status == TBS_ST_OK && strcmp(old_owner, owner) == 0)
 *             return TBS_ST_OK;
 *         return rgy_setstring_in_entry(entry, RGY_ITEM_OWNER, owner);
 *     }
 *
 * Flex text: every item is key, "=", value, ";", back to back: "-hostname=alpha;-region=r1;". The last semicolon is
 * compulsory, and ";-" separates items. A value on its way to the server holds neither a semicolon nor a line feed.
 *
 * Nothing here touches the network, takes a lock or prints. An entry or a flex entry belongs to one thread at a time.
 * No raise lands while an entry is being changed.
 */
#ifndef VELIAXDR_RGY_ENTRY_H
#define VELIAXDR_RGY_ENTRY_H

#include <stddef.h>
#include <stdint.h>

#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The databases of the registry. */
typedef uint32_t rgy_db_t;
enum {
    RGY_DB_VIEW_OBJECT = 0,
    RGY_DB_VIEW_TAG = 1,
    RGY_DB_VAULT_OBJECT = 2,
    RGY_DB_VAULT_TAG = 3,
    RGY_DB_REGIONS = 4,
    RGY_DB_BBASE_OBJECT = 5,
    RGY_DB_BBASE_TAG = 6,
    RGY_DB_SITE_CONFIG = 7,
    RGY_DB_STORAGE_PATH = 8,
    RGY_DB_DCT_DBS = 9,
    RGY_DB_CT_SERVERS = 10,
    RGY_DB_DOMAINS = 11,
    RGY_DB_ALL = 12, /* all of them, where a cache is flushed */
};

/* Item indices: each selects the key that an item's name is. */
enum {
    RGY_ITEM_ACL = 0,
    RGY_ITEM_DTM = 1,
    RGY_ITEM_GLOBAL_PATH = 2,
    RGY_ITEM_HOSTNAME = 3,
    RGY_ITEM_ID = 4,
    RGY_ITEM_LOCAL_PATH = 5,
    RGY_ITEM_MOUNT_ACCESS = 6,
    RGY_ITEM_MOUNT_OPTIONS = 7,
    RGY_ITEM_NAME = 8,
    RGY_ITEM_REGION = 9,
    RGY_ITEM_TAG = 10,
    RGY_ITEM_TITLE = 11,
    RGY_ITEM_VALUE = 12,
    RGY_ITEM_VERSION = 13,
    RGY_ITEM_VIEW_UUID = 14,
    RGY_ITEM_VAULT_FAMILY = 15,
    RGY_ITEM_VAULT_REPLICA = 16,
    RGY_ITEM_VAULT_SET = 17,
    RGY_ITEM_ATTRIBUTES = 18,
    RGY_ITEM_VIEW_EXID = 19,
    RGY_ITEM_DEFAULT_VIEWSIZE = 20,
    RGY_ITEM_TYPE = 21,
    RGY_ITEM_PROJECT = 22,
    RGY_ITEM_OWNER = 23,
    RGY_ITEM_CONNECT_INFO1 = 24,
    RGY_ITEM_CONNECT_INFO2 = 25,
    RGY_ITEM_CONNECT_OPTIONS = 26,
    RGY_ITEM_DATABASE = 27,
    RGY_ITEM_DBSET = 28,
    RGY_ITEM_DOMAIN = 29,
    RGY_ITEM_DOMAIN_TYPE = 30,
    RGY_ITEM_DOMAIN_UUID = 31,
    RGY_ITEM_FAMILY = 32,
    RGY_ITEM_NDCS_URL = 33,
    RGY_ITEM_OS = 34,
    RGY_ITEM_REPLICA = 35,
    RGY_ITEM_RNP_URL = 36,
    RGY_ITEM_SERVER_UNIX = 37,
    RGY_ITEM_SERVER_WIN = 38,
    RGY_ITEM_WEBDAV_URL = 39,
    RGY_ITEM_COUNT = 40,
};

/* Sizes, terminators included: a whole flex text, a text that is set in an entry, a region's name. */
enum { RGY_FLEX_TEXT_SIZE = 4096, RGY_ITEM_TEXT_SIZE = 1024, RGY_REGION_SIZE = 33 };

/* One item; both texts are heap storage of the flex entry that holds it. */
typedef struct rgy_item {
    char *name; /* the key with its hyphen */
    char *value;
} rgy_item_t;

/* A flex text taken apart. Made by rgy_expand_flex_entry, released by rgy_destroy_flex_entry. */
typedef struct rgy_flex_entry {
    int32_t count;    /* items in use */
    int32_t capacity; /* items that there is room for */
    rgy_item_t *items;
} rgy_flex_entry_t;

/* The stamps of a database: every reply carries a pair, and the next request sends it back. Opaque to clients. */
typedef struct rgy_dtm_pair {
    tbs_uuid_t dtm;
    tbs_uuid_t svr_dtm;
} rgy_dtm_pair_t;

#define RGY_ENTRY_MAGIC UINT64_C(0xdeadbeef)

/* One entry. Made by a fetch or for an object to be added, and released by rgy_delete_entry and nothing else. */
typedef struct rgy_entry {
    uint64_t magic;     /* RGY_ENTRY_MAGIC while the record is alive */
    char *host;         /* the registry host that it came from, or is bound for */
    rgy_dtm_pair_t dtm; /* of the reply that delivered it */
    uint64_t entry_id;  /* the server's number; 0 before it is added */
    rgy_flex_entry_t flex;
} rgy_entry_t;

/* One entry as the wire carries it. */
typedef struct rgy_svr_entry {
    uint64_t entry_id;
    char *flex_text;
} rgy_svr_entry_t;

/* An array of such entries. */
typedef rgy_svr_entry_t *rgy_elist_t;

/* The name of a database, and the key of an item with its hyphen: constant texts; "" for an index above the last. */
const char *registry_db_name(rgy_db_t db);
const char *registry_item_name(uint32_t item);

/* A zeroed list of `count` elements; null without storage, and for a negative count. */
rgy_elist_t rgy_elist_alloc(int64_t count);

/* Releases the texts that are there, from the last to the first, and the list. A null list is ignored. */
void rgy_elist_free(rgy_elist_t list, int64_t count);

/* The last item of this exact name, so that of a name that stands twice the later counts; null if there is none. */
rgy_item_t *rgy_find_item(const rgy_flex_entry_t *flex, const char *name);

/* TBS_ST_INVALID_ARG for a text with a semicolon or a line feed; null is valid. */
tbs_status_t rgy_validate_string(const char *text);

/*
 * Takes `text` apart into *out, which need not be initialised and is empty on failure. "" has no items. Names are what
 * stands before each "=", whatever that is. A semicolon inside a value is kept if no hyphen follows it.
 *
 *   TBS_ST_INVALID_ARG  malformed, or storage ran out on the way
 *   TBS_ST_NO_MEMORY    no storage to begin with
 */
tbs_status_t rgy_expand_flex_entry(const char *text, rgy_flex_entry_t *out);

/*
 * Puts the items together as a flex text in *out, which the caller releases with stg_free; null on failure.
 * TBS_ST_ERROR for every failure: a value that rgy_validate_string refuses, a text that does not fit
 * RGY_FLEX_TEXT_SIZE, no storage.
 */
tbs_status_t rgy_gather_flex_entry(const rgy_flex_entry_t *flex, char **out);

/* Releases the items, from the last to the first, and leaves the record empty. */
void rgy_destroy_flex_entry(rgy_flex_entry_t *flex);

/*
 * Readers of an entry. TBS_ST_INVALID_ARG for a null or dead entry or a null out argument, TBS_ST_NOT_FOUND without
 * such an item; an index of RGY_ITEM_COUNT or more looks for the item with the empty name.
 *
 * The const form lends the entry's own text, until the item is set or the entry deleted. The other fills all `size`
 * bytes of `buffer`, with zeros behind the text; TBS_ST_INVALID_ARG if the text with its terminator does not fit, and
 * the buffer then holds a cut text without terminator, not to be used. The uuid forms are two names of one operation
 * and pass on what tbs_str_to_uuid says.
 */
tbs_status_t rgy_getstring_from_entry_const(const rgy_entry_t *entry, uint32_t item, const char **out);
tbs_status_t rgy_getstring_from_entry(const rgy_entry_t *entry, uint32_t item, size_t size, char *buffer);
tbs_status_t rgy_getuuid_from_entry_fast(const rgy_entry_t *entry, uint32_t item, tbs_uuid_t *out);
tbs_status_t rgy_getuuid_from_entry(const rgy_entry_t *entry, uint32_t item, tbs_uuid_t *out);

/*
 * Set an item to a copy of `text`, in place of the value of the last item of that key or as a new item at the end; an
 * index of RGY_ITEM_COUNT or more is the empty key. The storage of a replaced value is not released: an entry lives for
 * one operation, and lent texts stay good.
 *
 *   TBS_ST_INVALID_ARG  null or dead entry, null text, RGY_ITEM_TEXT_SIZE characters or more, or not a valid string
 *   TBS_ST_NO_MEMORY    no storage; the entry is as it was
 */
tbs_status_t rgy_setstring_in_entry(rgy_entry_t *entry, uint32_t item, const char *text);
tbs_status_t rgy_setuuid_in_entry(rgy_entry_t *entry, uint32_t item, const tbs_uuid_t *uuid);

/*
 * Copies name and value of the item at `position`, counted from 0, for callers that do not know the keys. Sizes are
 * those of the buffers.
 *
 *   TBS_ST_INVALID_ARG  null or dead entry, a null buffer, or one of the two does not fit: nothing is copied
 *   TBS_ST_NOT_FOUND    there are not so many items
 */
tbs_status_t rgy_get_item_from_entry(const rgy_entry_t *entry, uint32_t position, size_t name_size, char *name_buffer,
                                     size_t value_size, char *value_buffer);

/* Releases the entry in *entry and clears the pointer. TBS_ST_INVALID_ARG for a null, or what is no live entry. */
tbs_status_t rgy_delete_entry(rgy_entry_t **entry);

/*
 * Looks `name` up in an attribute text: words "name" or "name=value" between commas. The text is cut up in place, and
 * *out points at the value inside it; null for a word without a value and on failure. A semicolon ends what is read of
 * a word. Blanks are skipped before a name and behind the equal sign; before the equal sign they belong to the name.
 *
 *   TBS_ST_NOT_FOUND    no such name
 *   TBS_ST_INVALID_ARG  a null argument, or a name or value of 1,024 characters or more on the way
 */
tbs_status_t rgy_find_attrval(char *text, const char *name, char **out);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
