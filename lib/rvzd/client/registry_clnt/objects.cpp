// Registering objects: one loop of create, fill, look for a duplicate, add, over one table of what the items are.
#include <veliaxdr/rgy_objects.h>

#include <rvzd/client/registry_clnt/bindings.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <rvzd/client/registry_clnt/stale_passes.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_manage.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

// What is registered. Null texts and a null second uuid have no item.
struct Object {
    rgy_db_t db;
    uint32_t key_item;
    uint32_t second_item;
    const char *host;
    const char *region;
    const char *owner;
    const tbs_uuid_t *key_uuid;
    const char *hostname;
    const char *local_path;
    const char *global_path;
    const tbs_uuid_t *second_uuid;
    int32_t attribute_count;
    const char *const *attributes;
};

// The texts of an object in the order in which they are set.
struct TextItem {
    uint32_t item;
    const char *Object::*text;
};
constexpr TextItem text_items[] = {
    {RGY_ITEM_HOSTNAME, &Object::hostname},
    {RGY_ITEM_LOCAL_PATH, &Object::local_path},
    {RGY_ITEM_GLOBAL_PATH, &Object::global_path},
    {RGY_ITEM_REGION, &Object::region},
    {RGY_ITEM_OWNER, &Object::owner},
};

// The two uuids likewise.
struct UuidItem {
    uint32_t Object::*item;
    const tbs_uuid_t *Object::*uuid;
    bool is_optional;
};
constexpr UuidItem uuid_items[] = {
    {&Object::key_item, &Object::key_uuid, false},
    {&Object::second_item, &Object::second_uuid, true},
};

// How far a try came. `step` is the name under which a failure is told; null for what is no failure to tell.
struct Try {
    tbs_status_t status;
    const char *step;
    bool is_stale = false;
};
constexpr Try done = {TBS_ST_OK, nullptr};

Try set_texts(const Object &object, rgy_entry_t &entry) {
    for (const auto &[item, text] : text_items) {
        if (object.*text == nullptr)
            continue;
        const auto status = rgy_setstring_in_entry(&entry, item, object.*text);
        if (status != TBS_ST_OK)
            return {status, "rgy_setstring_in_entry"};
    }
    return done;
}

Try set_uuids(const Object &object, rgy_entry_t &entry) {
    for (const auto &[item, uuid, is_optional] : uuid_items) {
        if (is_optional && object.*uuid == nullptr)
            continue;
        const auto status = rgy_setuuid_in_entry(&entry, object.*item, object.*uuid);
        if (status != TBS_ST_OK)
            return {status, "rgy_setuuid_in_entry"};
    }
    return done;
}

// An attribute that does not fit is left out whole, with its comma; a shorter one behind it may still fit.
void join_attributes(const Object &object, char (&joined)[RGY_ITEM_TEXT_SIZE]) {
    size_t used = 0;
    const char *comma = "";
    for (int32_t i = 0; i < object.attribute_count; ++i) {
        if (strutl_concat(joined + used, sizeof joined - used, 2, comma, object.attributes[i]) != 0)
            continue;
        used += strlen(joined + used);
        comma = ",";
    }
    joined[used] = '\0';
}

// A failure goes by the name of the step before, though this is a text: that is how users know it.
Try set_attributes(const Object &object, rgy_entry_t &entry) {
    if (object.attribute_count <= 0 || object.attributes == nullptr)
        return done;
    char joined[RGY_ITEM_TEXT_SIZE];
    join_attributes(object, joined);
    const auto status = rgy_setstring_in_entry(&entry, RGY_ITEM_ATTRIBUTES, joined);
    return status == TBS_ST_OK ? done : Try{status, "rgy_setuuid_in_entry"};
}

Try fill(const Object &object, rgy_entry_t &entry) {
    Try result = set_texts(object, entry);
    if (result.status == TBS_ST_OK)
        result = set_uuids(object, entry);
    return result.status == TBS_ST_OK ? set_attributes(object, entry) : result;
}

Try try_once(const Object &object, rgy_entry_t *&entry) {
    const auto created = rgy_create_entry(object.db, object.host, &entry);
    if (created != TBS_ST_OK)
        return {created, "rgy_create_entry"};
    const auto filled = fill(object, *entry);
    if (filled.status != TBS_ST_OK)
        return filled;
    // Anything but a found entry lets the add go on: if the registry is out of reach, the add tells so.
    const auto found = rgy_getinfo_by_uuid(object.db, object.host, object.region, object.key_item, object.key_uuid, 0,
                                           nullptr, 0, nullptr, 0, nullptr, 0, nullptr);
    if (found == TBS_ST_OK)
        return {TBS_ST_ALREADY_EXISTS, nullptr};
    const auto added = rgy_add_entry(object.db, entry);
    return added == TBS_ST_OK ? done : Try{added, "rgy_add_entry"};
}

// A stale entry is of no use to the next try, which begins with stamps of its own.
void drop_stale(rgy_entry_t *&entry) {
    const auto status = rgy_delete_entry(&entry);
    if (status != TBS_ST_OK)
        print_failed("rgy_delete_entry", status);
}

// Without an entry it was no add that said so.
Try try_and_drop_stale(const Object &object, rgy_entry_t *&entry) {
    Try result = try_once(object, entry);
    result.is_stale = result.status == TBS_ST_STALE_ID && entry != nullptr;
    if (result.is_stale)
        drop_stale(entry);
    return result;
}

// Keeps the lock from the first create to the last add, so that no other thread of this process comes between the look
// for a duplicate and the add. Between processes the stamps see to that. The entry in hand goes on every way out, also
// where a duplicate was found: no caller ever sees it.
tbs_status_t add_object(const Object &object) {
    rgy_entry_t *entry = nullptr;
    const auto give_back = [&] {
        if (entry != nullptr)
            rgy_delete_entry(&entry);
    };
    return with_release(
        [&] {
            const auto result = with_lock(
                cache_lock, [&] { return until_not_stale([&] { return try_and_drop_stale(object, entry); }); },
                nothing);
            if (result.step != nullptr)
                print_failed(result.step, result.status);
            return result.status;
        },
        give_back);
}

} // namespace

tbs_status_t rgy_addinfo(rgy_db_t db, const char *host, const char *region, uint32_t key_item,
                         const tbs_uuid_t *key_uuid, const char *hostname, const char *local_path,
                         const char *global_path, const tbs_uuid_t *second_uuid, uint32_t second_item,
                         int32_t attribute_count, const char *const *attributes) {
    return rgy_addinfo_with_owner(db, host, region, nullptr, key_item, key_uuid, hostname, local_path, global_path,
                                  second_uuid, second_item, attribute_count, attributes);
}

tbs_status_t rgy_addinfo_with_owner(rgy_db_t db, const char *host, const char *region, const char *owner,
                                    uint32_t key_item, const tbs_uuid_t *key_uuid, const char *hostname,
                                    const char *local_path, const char *global_path, const tbs_uuid_t *second_uuid,
                                    uint32_t second_item, int32_t attribute_count, const char *const *attributes) {
    return add_object({db, key_item, second_item, host, region, owner, key_uuid, hostname, local_path, global_path,
                       second_uuid, attribute_count, attributes});
}

tbs_status_t rgy_add_view_object(const char *host, const char *owner, const tbs_uuid_t *view_uuid, const char *hostname,
                                 const char *local_path, int32_t attribute_count, const char *const *attributes) {
    return add_object({RGY_DB_VIEW_OBJECT, RGY_ITEM_VIEW_UUID, RGY_ITEM_COUNT, host, nullptr, owner, view_uuid,
                       hostname, local_path, nullptr, nullptr, attribute_count, attributes});
}

tbs_status_t rgy_add_vault_object(const char *host, const tbs_uuid_t *replica_uuid, const char *hostname,
                                  const char *local_path, const tbs_uuid_t *family_uuid, int32_t attribute_count,
                                  const char *const *attributes) {
    return add_object({RGY_DB_VAULT_OBJECT, RGY_ITEM_VAULT_REPLICA, RGY_ITEM_VAULT_FAMILY, host, nullptr, nullptr,
                       replica_uuid, hostname, local_path, nullptr, family_uuid, attribute_count, attributes});
}
