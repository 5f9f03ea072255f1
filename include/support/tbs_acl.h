/*
 * Access control lists: who may do what, as the scheduler's records carry them.
 *
 *     tbs_acl_h_t list = NULL;
 *     if (xdr_tbs_acl_h_t(xdrs, &list) && list != NULL)
 *         use(list->entries[0].identity);
 *     xdr_free((xdrproc_t)xdr_tbs_acl_h_t, &list);
 *
 * A list is reached through its handle and owned by it; xdr_tbs_acl_h_t makes one when it decodes and releases it in
 * free mode.
 */
#ifndef VELIA_SUPPORT_TBS_ACL_H
#define VELIA_SUPPORT_TBS_ACL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bits whose meaning is the server's. */
typedef uint32_t tbs_acl_permission_set_t;

/* Whom an entry is about. */
enum { TBS_ACL_EVERYONE = 0, TBS_ACL_USER = 1, TBS_ACL_GROUP = 2 };

typedef struct tbs_acl_entry {
    uint32_t kind;
    char *identity; /* heap, the empty text for everyone */
    tbs_acl_permission_set_t permissions;
} tbs_acl_entry_t;

typedef struct tbs_acl {
    uint32_t count;
    tbs_acl_entry_t *entries; /* heap */
} tbs_acl_t;

typedef tbs_acl_t *tbs_acl_h_t;

/* What the general rights to read and to change stand for. */
typedef struct tbs_acl_generic_map {
    tbs_acl_permission_set_t read;
    tbs_acl_permission_set_t change;
} tbs_acl_generic_map_t;

typedef uint32_t tbs_notify_delivery_mask_t;

#ifdef __cplusplus
}
#endif
#endif
