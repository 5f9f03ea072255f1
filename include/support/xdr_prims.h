/*
 * XDR routines beyond those of the RPC library.
 */
#ifndef VELIA_SUPPORT_XDR_PRIMS_H
#define VELIA_SUPPORT_XDR_PRIMS_H

#include <stdint.h>
#include <sys/types.h>

#include <support/sysutl.h>
#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

bool_t velia_xdr_long(XDR *xdrs, int64_t *cell);
bool_t velia_xdr_u_long(XDR *xdrs, uint64_t *cell);
bool_t xdr_time_t(XDR *xdrs, time_t *cell);
bool_t xdr_pid_t(XDR *xdrs, int32_t *cell);
bool_t xdr_size_t(XDR *xdrs, uint64_t *cell);
bool_t xdr_tbs_status_t(XDR *xdrs, tbs_status_t *cell);
bool_t xdr_tbs_boolean_t(XDR *xdrs, tbs_boolean_t *cell);
bool_t xdr_tbs_uuid_t(XDR *xdrs, tbs_uuid_t *uuid);
bool_t xdr_ks_uint32_t(XDR *xdrs, uint32_t *cell);
bool_t xdr_ks_canon_pname_p_t(XDR *xdrs, char **path);
bool_t xdr_string_pointer(XDR *xdrs, char **text, uint32_t maximum);
bool_t xdr_sockaddr_in(XDR *xdrs, struct sockaddr_in *address);
bool_t xdr_ks_sockaddr_storage_t(XDR *xdrs, ks_sockaddr_storage_t *address);

/* Routine of one element, and the argument it is given. */
typedef bool_t (*xdr_ez_element_t)(XDR *xdrs, void *element, void *argument);

bool_t xdr_ez_array(XDR *xdrs, void **array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                    xdr_ez_element_t element, void *argument);
bool_t xdr_ez_p2array(XDR *xdrs, void ***array, uint32_t *count, uint32_t maximum, uint32_t element_size,
                      xdr_ez_element_t element, void *argument);
bool_t xdr_ez_pointer(XDR *xdrs, void **pointer, uint32_t element_size, xdr_ez_element_t element, void *argument);
bool_t xdr_ez_string8(XDR *xdrs, char **text, uint32_t maximum);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
