/* The headers of the registry client are C11, and their examples compile. */
#include <veliaxdr/rgy_entry.h>
#include <veliaxdr/rgy_messages.h>

#include <string.h>

tbs_status_t rename_owner(rgy_entry_t *entry, const char *owner);

tbs_status_t rename_owner(rgy_entry_t *entry, const char *owner) {
    const char *old_owner = NULL;
    tbs_status_t status = rgy_getstring_from_entry_const(entry, RGY_ITEM_OWNER, &old_owner);
    if (status == TBS_ST_OK && strcmp(old_owner, owner) == 0)
        return TBS_ST_OK;
    return rgy_setstring_in_entry(entry, RGY_ITEM_OWNER, owner);
}
