// The two halves of the server list reply: server_list.cpp lays it on the wire, server_list_decode.cpp takes it off.
#pragma once

#include <rpc/rpc.h>

#include <veliaxdr/rvzd_wire.h>

namespace velia::wire {

// Closes the stream of records, in place of a name's length.
constexpr uint32_t end_of_records = UINT32_MAX;

// How a record tells where its server listens: the socket address of protocol 5, or the port list of protocol 6.
enum class AddressForm { v70, ports };

// Where a record stands behind `used` bytes of the buffer.
inline rvzd_server_entry_t *entry_at(const rvzd_list_servers_reply_t *record, uint64_t used) {
    return reinterpret_cast<rvzd_server_entry_t *>(record->buffer + used);
}

// What follows the header of a good reply, into the record's buffer, which is made if there is none.
bool_t decode_server_list(XDR *xdrs, rvzd_list_servers_reply_t *record, AddressForm form);

} // namespace velia::wire
