// The server list reply: a stream of records with a terminator, laid on the wire from a flat buffer of the caller's.
// Sizes are computed in 64 bits before they are compared. Decoding has a file of its own.
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>

#include <rvzd/xdr/fields.h>
#include <rvzd/xdr/server_list.h>
#include <support/stg.h>

using namespace velia;
using namespace velia::wire;

static_assert(offsetof(rvzd_server_entry_t, trait) == 8 && offsetof(rvzd_server_entry_t, ports) == 32);
static_assert(offsetof(rvzd_server_entry_t, uuid) == 52 && offsetof(rvzd_server_entry_t, state) == 68);
static_assert(offsetof(rvzd_server_entry_t, pid) == 72 && offsetof(rvzd_server_entry_t, name_length) == 76);
static_assert(offsetof(rvzd_server_entry_t, name_length) + sizeof(uint16_t) == RVZD_SERVER_ENTRY_NAME_OFFSET);
static_assert(offsetof(rvzd_list_servers_reply_t, cookie) == 16 && offsetof(rvzd_list_servers_reply_t, buffer) == 40);

namespace {

// The first entry of the list that is IPv4 gives the port; a list without one sends the zeroed record.
bool_t encode_ports_v70(XDR *xdrs, const rvzd_server_port_list_t *ports) {
    rvzd_sockaddr_in_t address = {};
    for (const rvzd_server_port_t &entry : ports->ports)
        if (entry.family == AF_INET) {
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(entry.port));
            break;
        }
    return xdr_sockaddr_in(xdrs, &address);
}

bool_t encode_ports(XDR *xdrs, rvzd_server_port_list_t *ports, AddressForm form) {
    return form == AddressForm::ports ? xdr_rvzd_server_port_list_t(xdrs, ports) : encode_ports_v70(xdrs, ports);
}

bool_t encode_state_and_pid(XDR *xdrs, rvzd_server_entry_t *entry) {
    enum_t state = entry->state;
    return xdr_enum(xdrs, &state) && xdr_pid_t(xdrs, &entry->pid);
}

bool_t encode_behind_name(XDR *xdrs, rvzd_server_entry_t *entry, AddressForm form) {
    return velia_xdr_u_long(xdrs, &entry->cookie) && xdr_rvzd_rpc_trait_t(xdrs, &entry->trait) &&
           encode_ports(xdrs, &entry->ports, form) && xdr_tbs_uuid_t(xdrs, &entry->uuid) &&
           encode_state_and_pid(xdrs, entry);
}

bool_t encode_entry(XDR *xdrs, rvzd_server_entry_t *entry, AddressForm form) {
    uint32_t name_length = entry->name_length;
    return xdr_u_int(xdrs, &name_length) &&
           (name_length == 0 || xdr_opaque(xdrs, rvzd_server_entry_name(entry), name_length)) &&
           encode_behind_name(xdrs, entry, form);
}

bool_t encode_list(XDR *xdrs, rvzd_list_servers_reply_t *record, AddressForm form) {
    const uint64_t limit = uint64_t{xdr_getpos(xdrs)} + RVZD_LIST_SERVERS_BYTES_MAX;
    const uint64_t available = record->buffer != nullptr ? record->size : 0;
    for (uint64_t used = 0; used < available;) {
        rvzd_server_entry_t *entry = entry_at(record, used);
        if (available - used < sizeof(rvzd_server_entry_t) ||
            available - used < rvzd_server_entry_size(entry->name_length))
            return FALSE;
        const uint64_t worst_size = (uint64_t{entry->name_length} + 63) & ~uint64_t{3};
        if (worst_size + xdr_getpos(xdrs) > limit) {
            record->at_end = FALSE;
            break;
        }
        if (!encode_entry(xdrs, entry, form))
            return FALSE;
        used += rvzd_server_entry_size(entry->name_length);
    }
    uint32_t end = end_of_records;
    return xdr_u_int(xdrs, &end) && xdr_tbs_boolean_t(xdrs, &record->at_end);
}

bool_t free_list(rvzd_list_servers_reply_t *record) {
    stg_free(record->buffer);
    record->buffer = nullptr;
    return TRUE;
}

bool_t xdr_rvzd_list_servers_reply_common_t(XDR *xdrs, rvzd_list_servers_reply_t *record, AddressForm form) {
    if (xdrs->x_op == XDR_FREE)
        return free_list(record);
    if (!xdr_rvzd_hdr_reply_t(xdrs, &record->header))
        return FALSE;
    if (!has_body(xdrs, record->header))
        return TRUE;
    return xdrs->x_op == XDR_DECODE ? decode_server_list(xdrs, record, form) : encode_list(xdrs, record, form);
}

} // namespace

bool_t xdr_rvzd_list_servers_req_t(XDR *xdrs, rvzd_list_servers_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && velia_xdr_u_long(xdrs, &record->cookie) &&
           xdr_size_t(xdrs, &record->size);
}

bool_t xdr_rvzd_list_servers_reply_t(XDR *xdrs, rvzd_list_servers_reply_t *record) {
    return xdr_rvzd_list_servers_reply_common_t(xdrs, record, AddressForm::ports);
}

bool_t xdr_rvzd_list_servers_v70_reply_t(XDR *xdrs, rvzd_list_servers_v70_reply_t *record) {
    return xdr_rvzd_list_servers_reply_common_t(xdrs, record, AddressForm::v70);
}
