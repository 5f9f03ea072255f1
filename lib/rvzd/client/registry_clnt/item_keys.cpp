// The names of databases and items.
#include <rvzd/client/registry_clnt/item_keys.h>

#include <cstddef>

#include <veliaxdr/rgy_entry.h>

namespace {

constexpr const char *db_names[] = {
    "view_object", "view_tag",    "vault_object", "vault_tag", "regions",    "bbase_object",
    "bbase_tag",   "site_config", "storage_path", "dct_dbs",   "ct_servers", "domains",
};
static_assert(sizeof db_names / sizeof *db_names == RGY_DB_ALL);

constexpr const char *rgy_keystrings[] = {
    "-acl",
    "-dtm",
    "-global_path",
    "-hostname",
    "-id",
    "-local_path",
    "-mount_access",
    "-mount_options",
    "-name",
    "-region",
    "-tag",
    "-title",
    "-value",
    "-version",
    "-view_uuid",
    "-vault_family",
    "-vault_replica",
    "-vault_set",
    "-attributes",
    "-view_exid",
    "-default_viewsize",
    "-type",
    "-project",
    "-owner",
    "-connect_info1",
    "-connect_info2",
    "-connect_options",
    "-database",
    "-dbset",
    "-domain",
    "-domain_type",
    "-domain_uuid",
    "-family",
    "-ndcs_url",
    "-os",
    "-replica",
    "-rnp_url",
    "-server_unix",
    "-server_win",
    "-webdav_url",
};
static_assert(sizeof rgy_keystrings / sizeof *rgy_keystrings == RGY_ITEM_COUNT);

template <size_t count>
const char *text_at(const char *const (&texts)[count], uint32_t index) {
    return index < count ? texts[index] : "";
}

} // namespace

const char *velia::registry_clnt::item_key(uint32_t item) {
    return text_at(rgy_keystrings, item);
}

const char *registry_db_name(rgy_db_t db) {
    return text_at(db_names, db);
}

const char *registry_item_name(uint32_t item) {
    return velia::registry_clnt::item_key(item);
}
