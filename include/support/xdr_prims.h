/*
 * XDR routines beyond those of the RPC library.
 *
 * Every routine works in all three operations of a stream and returns FALSE when the stream ends, when a value does not
 * fit its form, or without memory. Decoding overwrites the cell, which need not be initialised unless told otherwise,
 * with storage from the heap; what a failed decoding has allocated it has also released, and its pointer is null. Free
 * mode releases what decoding made and clears the pointer; it is safe on zeroed cells. Memory grows with what really
 * arrives: a count alone costs nothing. Nothing is printed. A stream belongs to one thread at a time.
 *
 *     char *name = NULL;
 *     if (xdr_string_pointer(xdrs, &name, 1023))
 *         use(name);
 *     xdr_free((xdrproc_t)xdr_ks_canon_pname_p_t, &name);
 */
#ifndef VELIA_SUPPORT_XDR_PRIMS_H
#define VELIA_SUPPORT_XDR_PRIMS_H

#include <stdint.h>
#include <sys/types.h>

#include <support/credutl.h>
#include <support/strutl.h>
#include <support/sysutl.h>
#include <support/tbs.h>
#include <support/tbs_acl.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* One 32-bit word. Encoding a value that it does not hold fails; decoding extends by the sign or by zeros. */
bool_t velia_xdr_long(XDR *xdrs, int64_t *cell);
bool_t velia_xdr_u_long(XDR *xdrs, uint64_t *cell);

/* 64-bit integers: a signed hyper of seconds, and an unsigned one. */
bool_t xdr_time_t(XDR *xdrs, time_t *cell);
bool_t xdr_size_t(XDR *xdrs, uint64_t *cell);

/* One 32-bit word each. */
bool_t xdr_pid_t(XDR *xdrs, int32_t *cell);
bool_t xdr_tbs_status_t(XDR *xdrs, tbs_status_t *cell);
bool_t xdr_ks_uint32_t(XDR *xdrs, uint32_t *cell);
bool_t xdr_tbs_acl_permission_set_t(XDR *xdrs, tbs_acl_permission_set_t *cell);
bool_t xdr_tbs_notify_delivery_mask_t(XDR *xdrs, tbs_notify_delivery_mask_t *cell);

/* A boolean word: any value but 0 is 1, in memory and on the wire. */
bool_t xdr_tbs_boolean_t(XDR *xdrs, tbs_boolean_t *cell);

/* The 16 bytes. */
bool_t xdr_tbs_uuid_t(XDR *xdrs, tbs_uuid_t *uuid);

/*
 * Counted strings of at most `maximum` bytes (path names: XDR_PATH_MAX). A null pointer is sent as the empty string;
 * decoding always makes a heap string, whatever the pointer held. A string with a zero byte inside does not decode.
 */
enum { XDR_PATH_MAX = 65535 };
bool_t xdr_string_pointer(XDR *xdrs, char **text, uint32_t maximum);
bool_t xdr_ez_string8(XDR *xdrs, char **text, uint32_t maximum);
bool_t xdr_ks_canon_pname_p_t(XDR *xdrs, char **path);

/*
 * 16 bytes: the family as a 16-bit number, 2 for IPv4 or 0 for none, the port and the address in network order, and
 * eight zero bytes. Another family does not pass.
 */
bool_t xdr_sockaddr_in(XDR *xdrs, struct sockaddr_in *address);

/*
 * A family code (0 none, 1 IPv4, 2 IPv6); for the two families the port in host order as a word and the 4 or 16 bytes
 * of the address; for IPv6 also the flow information (as 32-bit word in host order) and the scope. Other families and
 * ports beyond 65535 do not pass.
 */
bool_t xdr_ks_sockaddr_storage_t(XDR *xdrs, ks_sockaddr_storage_t *address);

/* Routine of one element, and the argument it is given. On decoding the element is zeroed storage. */
typedef bool_t (*xdr_ez_element_t)(XDR *xdrs, void *element, void *argument);

/*
 * `*count` elements of `element_size` bytes, and no count on the wire: the caller's record has carried it. More than
 * `maximum` do not pass. Decoding makes the array if `*array` is null (for a count of 0 it stays null), and else uses
 * it as storage for `*count` elements, which it zeroes first. The count is never changed.
 */
bool_t xdr_ez_array(XDR *xdrs, void **array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                    xdr_ez_element_t element, void *argument);

/* The same for a heap cell that points to the array; decoding makes the cell if `*array` is null, freeing releases it.
 */
bool_t xdr_ez_p2array(XDR *xdrs, void ***array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                      xdr_ez_element_t element, void *argument);

/*
 * A presence word, then the object if it is there. A null pointer is sent as absent; decoding an absent one yields an
 * object all the same, zeroed, so that callers need not ask. Decoding uses the object that is there, zeroed first, or
 * makes one if `*pointer` is null.
 */
bool_t xdr_ez_pointer(XDR *xdrs, void **pointer, uint32_t element_size, xdr_ez_element_t element, void *argument);

/* The kind and the id. */
bool_t xdr_credutl_sid_t(XDR *xdrs, credutl_sid_t *sid);

/* User, group, and a counted list of at most CREDUTL_GROUPS_MAX groups. */
bool_t xdr_credutl_credentials_t(XDR *xdrs, credutl_credentials_t *credentials);

/* The flavour and the credentials. */
bool_t xdr_credutl_auth_ironvale_t(XDR *xdrs, credutl_auth_ironvale_t *auth);

/* The name as a counted string and the value. */
bool_t xdr_strutl_flag_item_t(XDR *xdrs, strutl_flag_item_t *item);

/* A counted list of entries: kind, identity, permissions. A null handle is sent as an empty list. */
bool_t xdr_tbs_acl_h_t(XDR *xdrs, tbs_acl_h_t *acl);

/* The two words. */
bool_t xdr_tbs_acl_generic_map_t(XDR *xdrs, tbs_acl_generic_map_t *map);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
