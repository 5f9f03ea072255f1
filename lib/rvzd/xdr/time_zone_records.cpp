// The records of the question for a host's time zone.
#include <rvzd/xdr/fields.h>
#include <veliaxdr/rvzd_hosts.h>

bool_t xdr_rvzd_tz_info_req_t(XDR *xdrs, rvzd_tz_info_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_int(xdrs, &record->year);
}

bool_t xdr_rvzd_tz_info_reply_t(XDR *xdrs, rvzd_tz_info_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) &&
           (!velia::wire::has_body(xdrs, record->header) || xdr_clnt_tz_info_t(xdrs, &record->info));
}
