/*
 * What makes an entry of the registry unlike the others of its database, as rows of a table: objects are known by their
 * uuid, tags by their name within a region, the rest by their name. No two entries of a database may have the same; an
 * entry without the first of the items is known by nothing.
 *
 *     #define ROW(DB, FIRST, SECOND) {FIRST, SECOND},
 *     static const uint32_t identities[RGY_DB_ALL][2] = {RGY_ENTRY_IDENTITIES(ROW)};
 *     #undef ROW
 *     printf("a tag is known by %s\n", registry_item_name(identities[RGY_DB_VAULT_TAG][0]));
 *
 * RGY_ITEM_COUNT stands for no item. The rows are in the order of the databases. Nothing here is code, and nothing has
 * state.
 */
#ifndef VELIAXDR_RGY_IDENTITY_H
#define VELIAXDR_RGY_IDENTITY_H

#include <veliaxdr/rgy_entry.h>

#define RGY_ENTRY_IDENTITIES(ROW)                                                                                      \
    ROW(RGY_DB_VIEW_OBJECT, RGY_ITEM_VIEW_UUID, RGY_ITEM_COUNT)                                                        \
    ROW(RGY_DB_VIEW_TAG, RGY_ITEM_TAG, RGY_ITEM_REGION)                                                                \
    ROW(RGY_DB_VAULT_OBJECT, RGY_ITEM_VAULT_REPLICA, RGY_ITEM_COUNT)                                                   \
    ROW(RGY_DB_VAULT_TAG, RGY_ITEM_TAG, RGY_ITEM_REGION)                                                               \
    ROW(RGY_DB_REGIONS, RGY_ITEM_NAME, RGY_ITEM_COUNT)                                                                 \
    ROW(RGY_DB_BBASE_OBJECT, RGY_ITEM_ID, RGY_ITEM_COUNT)                                                              \
    ROW(RGY_DB_BBASE_TAG, RGY_ITEM_TAG, RGY_ITEM_REGION)                                                               \
    ROW(RGY_DB_SITE_CONFIG, RGY_ITEM_NAME, RGY_ITEM_COUNT)                                                             \
    ROW(RGY_DB_STORAGE_PATH, RGY_ITEM_NAME, RGY_ITEM_REGION)                                                           \
    ROW(RGY_DB_DCT_DBS, RGY_ITEM_DATABASE, RGY_ITEM_COUNT)                                                             \
    ROW(RGY_DB_CT_SERVERS, RGY_ITEM_NAME, RGY_ITEM_COUNT)                                                              \
    ROW(RGY_DB_DOMAINS, RGY_ITEM_DOMAIN, RGY_ITEM_COUNT)

#endif
