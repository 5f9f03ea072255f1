/*
 * Who may do what with a scheduler's jobs and tasks.
 *
 *     tbs_acl_h_t list = NULL;
 *     if (sched_get_acl(scheduler, &list) == TBS_ST_OK)
 *         printf("%u entries\n", list->count);
 *     xdr_free((xdrproc_t)xdr_tbs_acl_h_t, &list);
 *
 * Statuses, outputs and threads are as <veliaxdr/sched_handle.h> tells.
 */
#ifndef VELIAXDR_SCHED_ACCESS_H
#define VELIAXDR_SCHED_ACCESS_H

#include <veliaxdr/sched_handle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The list, released with xdr_free and xdr_tbs_acl_h_t. It may be null where the status is not TBS_ST_OK. */
tbs_status_t sched_get_acl(sched_h_t handle, tbs_acl_h_t *acl);

/* Puts `acl`, which stays the caller's, in its place. */
tbs_status_t sched_set_acl(sched_h_t handle, tbs_acl_h_t acl);

/* TBS_ST_OK if the caller has these permissions. */
tbs_status_t sched_check_acc(sched_h_t handle, tbs_acl_permission_set_t permissions);

/*
 * What the bits of permissions are called, and what the general rights stand for. Released by sched_free_app_perms,
 * which clears the slot and both words of *map (if given); a null array is harmless.
 */
tbs_status_t sched_get_app_perms(sched_h_t handle, strutl_flag_item_t **items, uint32_t *count,
                                 tbs_acl_generic_map_t *map);
void sched_free_app_perms(sched_h_t handle, strutl_flag_item_t **items, uint32_t count, tbs_acl_generic_map_t *map);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
