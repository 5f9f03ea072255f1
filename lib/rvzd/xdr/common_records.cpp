// Headers, and the records that several procedures share.
#include <cstddef>
#include <sys/socket.h>

#include <rvzd/xdr/fields.h>

using namespace velia;

static_assert(sizeof(rvzd_rpc_trait_t) == 24 && offsetof(rvzd_rpc_trait_t, proto) == 16);
static_assert(sizeof(rvzd_server_port_t) == 8 && sizeof(rvzd_server_port_list_t) == 20);
static_assert(sizeof(rvzd_hdr_req_t) == 16 && sizeof(rvzd_hdr_reply_t) == 16);

namespace {

// The wire never carries the system's family numbers.
enum : enum_t { code_ipv4 = 1, code_ipv6 = 2 };

bool code_of_family(int32_t family, enum_t &code) {
    code = family == AF_INET ? code_ipv4 : code_ipv6;
    return family == AF_INET || family == AF_INET6;
}

bool family_of_code(enum_t code, int32_t &family) {
    family = code == code_ipv4 ? AF_INET : AF_INET6;
    return code == code_ipv4 || code == code_ipv6;
}

} // namespace

bool_t xdr_rvzd_protocol_in_t(XDR *xdrs, rvzd_protocol_in_t *record) {
    return xdr_enum(xdrs, record);
}

bool_t xdr_rvzd_rpc_trait_t(XDR *xdrs, rvzd_rpc_trait_t *record) {
    return velia_xdr_u_long(xdrs, &record->prog) && velia_xdr_u_long(xdrs, &record->vers) &&
           xdr_rvzd_protocol_in_t(xdrs, &record->proto);
}

bool_t xdr_rvzd_server_port_t(XDR *xdrs, rvzd_server_port_t *record) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    enum_t code = 0;
    if (xdrs->x_op == XDR_ENCODE && !code_of_family(record->family, code))
        return FALSE;
    if (!xdr_enum(xdrs, &code) || !xdr_u_int(xdrs, &record->port))
        return FALSE;
    return family_of_code(code, record->family);
}

bool_t xdr_rvzd_server_port_list_t(XDR *xdrs, rvzd_server_port_list_t *record) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    if (!xdr_u_int(xdrs, &record->count))
        return FALSE;
    // A count above two still transfers two entries, and nothing skips the rest.
    const uint32_t present = record->count < RVZD_SERVER_PORTS_MAX ? record->count : uint32_t{RVZD_SERVER_PORTS_MAX};
    for (uint32_t i = 0; i < present; ++i)
        if (!xdr_rvzd_server_port_t(xdrs, &record->ports[i]))
            return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        for (uint32_t i = present; i < RVZD_SERVER_PORTS_MAX; ++i)
            record->ports[i] = {0, 0};
    return TRUE;
}

bool_t xdr_rvzd_sockaddr_in_t(XDR *xdrs, rvzd_sockaddr_in_t *record) {
    return xdr_sockaddr_in(xdrs, record);
}

bool_t xdr_rvzd_hdr_req_t(XDR *xdrs, rvzd_hdr_req_t *record) {
    auto uniquifier = static_cast<time_t>(record->uniquifier);
    if (!xdr_time_t(xdrs, &uniquifier))
        return FALSE;
    record->uniquifier = static_cast<uint64_t>(uniquifier);
    // The word on the wire has 32 bits, and a long-lived connection may count beyond them.
    uint64_t sequence = record->sequence & UINT32_MAX;
    if (!velia_xdr_u_long(xdrs, &sequence))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        record->sequence = sequence;
    return TRUE;
}

bool_t xdr_rvzd_hdr_reply_t(XDR *xdrs, rvzd_hdr_reply_t *record) {
    return velia_xdr_u_long(xdrs, &record->word) && xdr_tbs_status_t(xdrs, &record->status);
}

bool_t xdr_rvzd_null_req_t(XDR *xdrs, rvzd_null_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header);
}

bool_t xdr_rvzd_null_reply_t(XDR *xdrs, rvzd_null_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header);
}

bool_t xdr_rvzd_contact_req_t(XDR *xdrs, rvzd_contact_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && velia_xdr_u_long(xdrs, &record->protocol_version);
}

bool_t xdr_rvzd_contact_reply_t(XDR *xdrs, rvzd_contact_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) && velia_xdr_u_long(xdrs, &record->protocol_version);
}
