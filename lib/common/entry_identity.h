/*
 * What makes an entry of the registry unlike the others of its database: objects are known by their uuid, tags by their
 * name within a region, the rest by their name. No two entries of a database may have the same.
 */
#ifndef VELIA_COMMON_ENTRY_IDENTITY_H
#define VELIA_COMMON_ENTRY_IDENTITY_H

#include <array>

#include <veliaxdr/rgy_entry.h>

namespace velia {

struct EntryIdentity {
    rgy_db_t db;
    std::array<uint32_t, 2> items; // RGY_ITEM_COUNT: none
};

inline constexpr std::array entry_identities = {
    EntryIdentity{RGY_DB_VIEW_OBJECT, {RGY_ITEM_VIEW_UUID, RGY_ITEM_COUNT}},
    EntryIdentity{RGY_DB_VIEW_TAG, {RGY_ITEM_TAG, RGY_ITEM_REGION}},
    EntryIdentity{RGY_DB_VAULT_OBJECT, {RGY_ITEM_VAULT_REPLICA, RGY_ITEM_COUNT}},
    EntryIdentity{RGY_DB_VAULT_TAG, {RGY_ITEM_TAG, RGY_ITEM_REGION}},
    EntryIdentity{RGY_DB_REGIONS, {RGY_ITEM_NAME, RGY_ITEM_COUNT}},
    EntryIdentity{RGY_DB_BBASE_OBJECT, {RGY_ITEM_ID, RGY_ITEM_COUNT}},
    EntryIdentity{RGY_DB_BBASE_TAG, {RGY_ITEM_TAG, RGY_ITEM_REGION}},
    EntryIdentity{RGY_DB_SITE_CONFIG, {RGY_ITEM_NAME, RGY_ITEM_COUNT}},
    EntryIdentity{RGY_DB_STORAGE_PATH, {RGY_ITEM_NAME, RGY_ITEM_REGION}},
    EntryIdentity{RGY_DB_DCT_DBS, {RGY_ITEM_DATABASE, RGY_ITEM_COUNT}},
    EntryIdentity{RGY_DB_CT_SERVERS, {RGY_ITEM_NAME, RGY_ITEM_COUNT}},
    EntryIdentity{RGY_DB_DOMAINS, {RGY_ITEM_DOMAIN, RGY_ITEM_COUNT}},
};
static_assert(entry_identities.size() == RGY_DB_ALL);

} // namespace velia

#endif
