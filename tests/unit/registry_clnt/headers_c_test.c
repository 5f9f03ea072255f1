/* The headers of the registry client are C11, and their examples compile. */
#include <veliaxdr/rgy_entry.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_manage.h>
#include <veliaxdr/rgy_messages.h>
#include <veliaxdr/rgy_objects.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

#include <stdio.h>
#include <string.h>

tbs_status_t rename_owner(rgy_entry_t *entry, const char *owner);
tbs_status_t first_entry(rvzd_handle_t *handle, rgy_svr_entry_t *out);
void print_registry_host(void);
tbs_status_t default_region_of(char region[RGY_REGION_SIZE]);
int64_t count_regions(void);
tbs_status_t add_region(const char *name);
tbs_status_t register_view(const tbs_uuid_t *view, const char *storage);
tbs_status_t take_over(void);

tbs_status_t rename_owner(rgy_entry_t *entry, const char *owner) {
    const char *old_owner = NULL;
    tbs_status_t status = rgy_getstring_from_entry_const(entry, RGY_ITEM_OWNER, &old_owner);
    if (status == TBS_ST_OK && strcmp(old_owner, owner) == 0)
        return TBS_ST_OK;
    return rgy_setstring_in_entry(entry, RGY_ITEM_OWNER, owner);
}

tbs_status_t first_entry(rvzd_handle_t *handle, rgy_svr_entry_t *out) {
    rgy_dtm_pair_t stamps = {0};
    uint64_t cursor = 0;
    int64_t count = 0;
    tbs_status_t status =
        rvzd_rgy_get_entry(handle, RGY_DB_REGIONS, RGY_PROTOCOL_VERSION, "", &stamps, &cursor, 1, out, &count);
    return status == TBS_ST_OK && count == 0 ? TBS_ST_NOT_FOUND : status;
}

void print_registry_host(void) {
    char master[64], backup[64];
    size_t length;
    if (registry_prop_get_hostnames_local(sizeof master, sizeof backup, &length, &length, master, backup) == TBS_ST_OK)
        printf("%s, then %s\n", master, backup);
}

tbs_status_t default_region_of(char region[RGY_REGION_SIZE]) {
    rgy_set_process_default_region("lab");
    return rgy_fetch_default_region(RGY_REGION_SIZE, region);
}

int64_t count_regions(void) {
    rgy_cursor_t *cursor = NULL;
    rgy_entry_t *entries[20];
    int64_t total = 0;
    do {
        int64_t count = 0;
        if (rgy_get_entry(RGY_DB_REGIONS, NULL, NULL, &cursor, 20, entries, &count) != TBS_ST_OK)
            break;
        if (cursor != NULL)
            total += count;
        while (cursor != NULL && count > 0)
            rgy_delete_entry(&entries[--count]);
    } while (cursor != NULL);
    rgy_close_cursor(&cursor);
    return total;
}

tbs_status_t add_region(const char *name) {
    tbs_status_t status;
    do {
        rgy_entry_t *entry = NULL;
        status = rgy_create_entry(RGY_DB_REGIONS, NULL, &entry);
        if (status == TBS_ST_OK)
            status = rgy_setstring_in_entry(entry, RGY_ITEM_NAME, name);
        if (status == TBS_ST_OK)
            status = rgy_add_entry(RGY_DB_REGIONS, entry);
        rgy_delete_entry(&entry);
    } while (status == TBS_ST_STALE_ID);
    return status;
}

tbs_status_t register_view(const tbs_uuid_t *view, const char *storage) {
    const char *attributes[] = {"snapshot", "ucm=no"};
    tbs_status_t status = rgy_add_view_object(NULL, "domain/me", view, "build7", storage, 2, attributes);
    return status == TBS_ST_ALREADY_EXISTS ? TBS_ST_OK : status;
}

tbs_status_t take_over(void) {
    tbs_status_t status = rgy_change_server_type(RGY_SVR_MASTER);
    if (status == TBS_ST_OK)
        rgy_hostname_cache_inval();
    return status;
}
