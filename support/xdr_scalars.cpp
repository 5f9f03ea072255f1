// Scalars and addresses on the wire.
#include <support/xdr_prims.h>

#include <climits>
#include <cstring>

#include <arpa/inet.h>

namespace {

enum FamilyCode : uint32_t { family_none = 0, family_ipv4 = 1, family_ipv6 = 2 };

constexpr uint32_t port_max = 65535;

bool_t xdr_word(XDR *xdrs, uint32_t *word) {
    return xdr_u_int(xdrs, word);
}

bool_t xdr_bytes_of_size(XDR *xdrs, void *bytes, size_t size) {
    return xdr_opaque(xdrs, static_cast<char *>(bytes), static_cast<u_int>(size));
}

// A 16-bit port in network order in memory, one word in host order on the wire.
bool_t xdr_port(XDR *xdrs, in_port_t &port) {
    uint32_t word = ntohs(port);
    if (!xdr_word(xdrs, &word) || word > port_max)
        return FALSE;
    port = htons(static_cast<uint16_t>(word));
    return TRUE;
}

bool_t xdr_ipv4(XDR *xdrs, sockaddr_in &address) {
    return xdr_port(xdrs, address.sin_port) && xdr_bytes_of_size(xdrs, &address.sin_addr, sizeof address.sin_addr);
}

bool_t xdr_ipv6(XDR *xdrs, sockaddr_in6 &address) {
    uint32_t flow = ntohl(address.sin6_flowinfo);
    if (!xdr_port(xdrs, address.sin6_port) || !xdr_bytes_of_size(xdrs, &address.sin6_addr, sizeof address.sin6_addr) ||
        !xdr_word(xdrs, &flow) || !xdr_word(xdrs, &address.sin6_scope_id))
        return FALSE;
    address.sin6_flowinfo = htonl(flow);
    return TRUE;
}

bool code_of_family(sa_family_t family, uint32_t &code) {
    switch (family) {
    case AF_UNSPEC:
        code = family_none;
        return true;
    case AF_INET:
        code = family_ipv4;
        return true;
    case AF_INET6:
        code = family_ipv6;
        return true;
    default:
        return false;
    }
}

} // namespace

bool_t velia_xdr_long(XDR *xdrs, int64_t *cell) {
    int32_t word = 0;
    if (xdrs->x_op == XDR_ENCODE) {
        if (*cell < INT32_MIN || *cell > INT32_MAX)
            return FALSE;
        word = static_cast<int32_t>(*cell);
    }
    if (!xdr_int(xdrs, &word))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        *cell = word;
    return TRUE;
}

bool_t velia_xdr_u_long(XDR *xdrs, uint64_t *cell) {
    uint32_t word = 0;
    if (xdrs->x_op == XDR_ENCODE) {
        if (*cell > UINT32_MAX)
            return FALSE;
        word = static_cast<uint32_t>(*cell);
    }
    if (!xdr_word(xdrs, &word))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        *cell = word;
    return TRUE;
}

bool_t xdr_time_t(XDR *xdrs, time_t *cell) {
    int64_t seconds = xdrs->x_op == XDR_ENCODE ? static_cast<int64_t>(*cell) : 0;
    if (!xdr_int64_t(xdrs, &seconds))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        *cell = static_cast<time_t>(seconds);
    return TRUE;
}

bool_t xdr_size_t(XDR *xdrs, uint64_t *cell) {
    return xdr_uint64_t(xdrs, cell);
}

bool_t xdr_pid_t(XDR *xdrs, int32_t *cell) {
    return xdr_int(xdrs, cell);
}

bool_t xdr_tbs_status_t(XDR *xdrs, tbs_status_t *cell) {
    return xdr_int(xdrs, cell);
}

bool_t xdr_ks_uint32_t(XDR *xdrs, uint32_t *cell) {
    return xdr_word(xdrs, cell);
}

bool_t xdr_tbs_acl_permission_set_t(XDR *xdrs, tbs_acl_permission_set_t *cell) {
    return xdr_word(xdrs, cell);
}

bool_t xdr_tbs_notify_delivery_mask_t(XDR *xdrs, tbs_notify_delivery_mask_t *cell) {
    return xdr_word(xdrs, cell);
}

bool_t xdr_tbs_boolean_t(XDR *xdrs, tbs_boolean_t *cell) {
    return xdr_bool(xdrs, cell);
}

bool_t xdr_tbs_uuid_t(XDR *xdrs, tbs_uuid_t *uuid) {
    return xdr_bytes_of_size(xdrs, uuid->bytes, sizeof uuid->bytes);
}

bool_t xdr_sockaddr_in(XDR *xdrs, struct sockaddr_in *address) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    struct {
        uint16_t family;
        in_port_t port;
        in_addr address;
        uint8_t zero[8];
    } wire = {};
    static_assert(sizeof wire == 16);
    if (xdrs->x_op == XDR_ENCODE)
        wire = {htons(address->sin_family), address->sin_port, address->sin_addr, {}};
    const auto family = [&] { return ntohs(wire.family); };
    const auto passes = [&] { return family() == AF_UNSPEC || family() == AF_INET; };
    if (!passes() || !xdr_bytes_of_size(xdrs, &wire, sizeof wire) || !passes())
        return FALSE;
    if (xdrs->x_op == XDR_DECODE) {
        *address = {};
        address->sin_family = family();
        address->sin_port = wire.port;
        address->sin_addr = wire.address;
    }
    return TRUE;
}

bool_t xdr_ks_sockaddr_storage_t(XDR *xdrs, ks_sockaddr_storage_t *address) {
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    ks_sockaddr_storage_t copy;
    memset(&copy, 0, sizeof copy);
    if (xdrs->x_op == XDR_ENCODE)
        sysutl_copy_sockaddr(&copy, &address->base);
    uint32_t code = family_none;
    if (xdrs->x_op == XDR_ENCODE && !code_of_family(address->base.sa_family, code))
        return FALSE;
    if (!xdr_word(xdrs, &code) || code > family_ipv6)
        return FALSE;
    if ((code == family_ipv4 && !xdr_ipv4(xdrs, copy.ipv4)) || (code == family_ipv6 && !xdr_ipv6(xdrs, copy.ipv6)))
        return FALSE;
    constexpr sa_family_t families[] = {AF_UNSPEC, AF_INET, AF_INET6};
    copy.base.sa_family = families[code];
    if (xdrs->x_op == XDR_DECODE)
        *address = copy;
    return TRUE;
}
