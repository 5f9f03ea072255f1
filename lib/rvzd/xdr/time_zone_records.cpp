// The time zone of a host on the wire, and the records of the question for it.
#include <cstring>

#include <rvzd/xdr/fields.h>
#include <support/xdr_prims.h>
#include <veliaxdr/rvzd_hosts.h>

namespace {

// The longest name on the wire has 64 characters, the field room for 63 of them.
bool_t xdr_name(XDR *xdrs, char (&name)[CLNT_TZ_NAME_SIZE]) {
    char *text = name;
    if (xdrs->x_op == XDR_ENCODE && memchr(name, '\0', sizeof name) == nullptr)
        return FALSE;
    return xdr_string(xdrs, &text, CLNT_TZ_NAME_SIZE - 1);
}

bool_t xdr_field(XDR *xdrs, int32_t *field) {
    return xdr_ks_uint32_t(xdrs, reinterpret_cast<uint32_t *>(field));
}

} // namespace

bool_t xdr_clnt_tz_date_t(XDR *xdrs, clnt_tz_date_t *date) {
    return xdr_field(xdrs, &date->year) && xdr_field(xdrs, &date->month) && xdr_field(xdrs, &date->mday) &&
           xdr_field(xdrs, &date->wday) && xdr_field(xdrs, &date->hour) && xdr_field(xdrs, &date->min) &&
           xdr_field(xdrs, &date->sec);
}

bool_t xdr_clnt_tz_info_t(XDR *xdrs, clnt_tz_info_t *info) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    return xdr_enum(xdrs, &info->version) && xdr_ks_uint32_t(xdrs, &info->flags) && xdr_time_t(xdrs, &info->offset) &&
           xdr_time_t(xdrs, &info->bias) && xdr_name(xdrs, info->st_name) && xdr_name(xdrs, info->dt_name) &&
           xdr_clnt_tz_date_t(xdrs, &info->st_trans) && xdr_clnt_tz_date_t(xdrs, &info->dt_trans);
}

bool_t xdr_rvzd_tz_info_req_t(XDR *xdrs, rvzd_tz_info_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_int(xdrs, &record->year);
}

bool_t xdr_rvzd_tz_info_reply_t(XDR *xdrs, rvzd_tz_info_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) &&
           (!velia::wire::has_body(xdrs, record->header) || xdr_clnt_tz_info_t(xdrs, &record->info));
}
