// The server list reply: a stream of records with a terminator, laid in and taken from a flat buffer of the caller's.
//
// Sizes are computed in 64 bits before they are compared, so no length on the wire can wrap one around. The part of a
// record behind its name has a fixed size; it is coded in one piece where the stream hands out its memory.
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>

#include <rvzd/xdr/fields.h>
#include <support/stg.h>

using namespace velia;
using namespace velia::wire;

static_assert(offsetof(rvzd_server_entry_t, trait) == 8 && offsetof(rvzd_server_entry_t, ports) == 32);
static_assert(offsetof(rvzd_server_entry_t, uuid) == 52 && offsetof(rvzd_server_entry_t, state) == 68);
static_assert(offsetof(rvzd_server_entry_t, pid) == 72 && offsetof(rvzd_server_entry_t, name_length) == 76);
static_assert(offsetof(rvzd_server_entry_t, name_length) + sizeof(uint16_t) == RVZD_SERVER_ENTRY_NAME_OFFSET);
static_assert(offsetof(rvzd_list_servers_reply_t, cookie) == 16 && offsetof(rvzd_list_servers_reply_t, buffer) == 40);

namespace {

constexpr uint32_t end_of_records = UINT32_MAX;
constexpr uint64_t end_mark_least_room = 80; // a zero name length is stored only where this much is left

enum class AddressForm { v70, ports };

// Where a record would stand behind `used` bytes.
rvzd_server_entry_t *entry_at(const rvzd_list_servers_reply_t *record, uint64_t used) {
    return reinterpret_cast<rvzd_server_entry_t *>(record->buffer + used);
}

bool_t decode_ports_v70(XDR *xdrs, rvzd_server_port_list_t *ports) {
    rvzd_sockaddr_in_t address;
    if (!xdr_sockaddr_in(xdrs, &address))
        return FALSE;
    *ports = {1, {{AF_INET, ntohs(address.sin_port)}, {0, 0}}};
    return TRUE;
}

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

bool_t code_ports(XDR *xdrs, rvzd_server_port_list_t *ports, AddressForm form) {
    if (form == AddressForm::ports)
        return xdr_rvzd_server_port_list_t(xdrs, ports);
    return xdrs->x_op == XDR_ENCODE ? encode_ports_v70(xdrs, ports) : decode_ports_v70(xdrs, ports);
}

bool_t code_state_and_pid(XDR *xdrs, rvzd_server_entry_t *entry) {
    enum_t state = entry->state;
    if (!xdr_enum(xdrs, &state))
        return FALSE;
    entry->state = state;
    return xdr_pid_t(xdrs, &entry->pid);
}

bool_t code_behind_name(XDR *xdrs, rvzd_server_entry_t *entry, AddressForm form) {
    return velia_xdr_u_long(xdrs, &entry->cookie) && xdr_rvzd_rpc_trait_t(xdrs, &entry->trait) &&
           code_ports(xdrs, &entry->ports, form) && xdr_tbs_uuid_t(xdrs, &entry->uuid) &&
           code_state_and_pid(xdrs, entry);
}

bool_t decode_entry(XDR *xdrs, rvzd_server_entry_t *entry, uint32_t name_length, AddressForm form) {
    char *name = rvzd_server_entry_name(entry);
    if (name_length > 0 && !xdr_opaque(xdrs, name, name_length))
        return FALSE;
    if (!code_behind_name(xdrs, entry, form))
        return FALSE;
    name[name_length] = '\0';
    entry->name_length = static_cast<uint16_t>(name_length);
    return TRUE;
}

void mark_end(const rvzd_list_servers_reply_t *record, uint64_t used, uint64_t capacity) {
    if (capacity - used >= end_mark_least_room)
        entry_at(record, used)->name_length = 0;
}

bool_t decode_list(XDR *xdrs, rvzd_list_servers_reply_t *record, AddressForm form) {
    const uint64_t capacity = record->size;
    if (record->buffer == nullptr) {
        record->buffer = static_cast<char *>(stg_malloc(capacity));
        if (record->buffer == nullptr)
            return FALSE;
    }
    uint64_t used = 0;
    for (;;) {
        uint32_t name_length = 0;
        if (!xdr_u_int(xdrs, &name_length))
            return FALSE;
        if (name_length == end_of_records)
            break;
        const uint64_t entry_size = rvzd_server_entry_size(name_length);
        // A name whose length its 16 bits cannot hold fits no buffer.
        if (entry_size > capacity - used || name_length > UINT16_MAX) {
            record->at_end = FALSE;
            record->size = used;
            return TRUE;
        }
        rvzd_server_entry_t *entry = entry_at(record, used);
        if (!decode_entry(xdrs, entry, name_length, form))
            return FALSE;
        record->cookie = entry->cookie;
        used += entry_size;
    }
    mark_end(record, used, capacity);
    record->size = used;
    return xdr_tbs_boolean_t(xdrs, &record->at_end);
}

bool_t encode_entry(XDR *xdrs, rvzd_server_entry_t *entry, AddressForm form) {
    uint32_t name_length = entry->name_length;
    return xdr_u_int(xdrs, &name_length) &&
           (name_length == 0 || xdr_opaque(xdrs, rvzd_server_entry_name(entry), name_length)) &&
           code_behind_name(xdrs, entry, form);
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
    return xdrs->x_op == XDR_DECODE ? decode_list(xdrs, record, form) : encode_list(xdrs, record, form);
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
