// The twin of each record: the type that rpcgen made of its description, and how the fields of the one go to the other.
// The strings of a twin are those of the record it was made from.
#pragma once

#include <vector>

#include <broker.h>
#include <broker_routines.h>

#include <tests/unit/xdr/samples.h>

namespace wire_tests {

inline u_int narrow(uint64_t value) {
    return static_cast<u_int>(value);
}

inline void assign(broker_hdr_req &to, const rvzd_hdr_req_t &from) {
    to.uniquifier = static_cast<quad_t>(from.uniquifier);
    to.sequence = narrow(from.sequence);
}
inline void assign(broker_hdr_reply &to, const rvzd_hdr_reply_t &from) {
    to.word = narrow(from.word);
    to.status = from.status;
}
inline void assign(broker_uuid &to, const tbs_uuid_t &from) {
    memcpy(to, from.bytes, sizeof from.bytes);
}
inline void assign(broker_rpc_trait &to, const rvzd_rpc_trait_t &from) {
    to.prog = narrow(from.prog);
    to.vers = narrow(from.vers);
    to.proto = from.proto;
}
inline void assign(broker_server_port &to, const rvzd_server_port_t &from) {
    to.family = from.family == AF_INET ? BROKER_FAMILY_IPV4 : BROKER_FAMILY_IPV6;
    to.port = from.port;
}
inline void assign(broker_server_port_list &to, const rvzd_server_port_list_t &from) {
    to.count = from.count;
    if (from.count == 1)
        assign(to.broker_server_port_list_u.one, from.ports[0]);
    for (size_t i = 0; i < 2 && from.count > 1; ++i)
        assign(to.broker_server_port_list_u.two[i], from.ports[i]);
}
inline void assign(broker_sockaddr_in &to, const rvzd_sockaddr_in_t &from) {
    memset(to.bytes, 0, sizeof to.bytes);
    to.bytes[1] = static_cast<char>(from.sin_family);
    memcpy(to.bytes + 2, &from.sin_port, 2);
    memcpy(to.bytes + 4, &from.sin_addr, 4);
}
inline void assign(broker_sockaddr &to, const ks_sockaddr_storage_t &from) {
    if (from.base.sa_family == AF_INET) {
        to.family = BROKER_FAMILY_IPV4;
        to.broker_sockaddr_u.ipv4.port = ntohs(from.ipv4.sin_port);
        memcpy(to.broker_sockaddr_u.ipv4.address, &from.ipv4.sin_addr, 4);
    } else if (from.base.sa_family == AF_INET6) {
        to.family = BROKER_FAMILY_IPV6;
        to.broker_sockaddr_u.ipv6.port = ntohs(from.ipv6.sin6_port);
        memcpy(to.broker_sockaddr_u.ipv6.address, &from.ipv6.sin6_addr, 16);
        to.broker_sockaddr_u.ipv6.flow = ntohl(from.ipv6.sin6_flowinfo);
        to.broker_sockaddr_u.ipv6.scope = from.ipv6.sin6_scope_id;
    }
}
inline void assign(broker_hostinfo &to, const clnt_hostinfo_t &from) {
    to.hostname = from.hostname;
    to.product = from.product;
    to.product_version = from.version;
    to.osname = from.osname;
    to.osversion = from.osversion;
    to.machine = from.machine;
    to.registry_host = from.registry_host;
    to.region = from.region;
    to.reserved = from.reserved;
    to.options = from.options;
}
inline void assign(broker_clnt_entry &to, const clnt_entry_t &from) {
    assign(to.address, from.address);
    assign(to.hostinfo, from.hostinfo);
    to.reserved_time = from.reserved_time;
    to.registry_time = from.registry_time;
}
inline void assign(broker_clnt_entry_v70 &to, const clnt_entry_t &from) {
    const in6_addr &address = from.address.ipv6.sin6_addr;
    if (from.address.base.sa_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&address))
        memcpy(to.address.bytes + 4, address.s6_addr + 12, 4);
    assign(to.hostinfo, from.hostinfo);
    to.reserved_time = from.reserved_time;
    to.registry_time = from.registry_time;
}

// Requests, and replies without a tail of their own.
inline void assign(broker_null_req &to, const rvzd_null_req_t &from) {
    assign(to.header, from.header);
}
inline void assign(broker_null_reply &to, const rvzd_null_reply_t &from) {
    assign(to.header, from.header);
}
inline void assign(broker_contact_req &to, const rvzd_contact_req_t &from) {
    assign(to.header, from.header);
    to.protocol_version = narrow(from.protocol_version);
}
inline void assign(broker_contact_reply &to, const rvzd_contact_reply_t &from) {
    assign(to.header, from.header);
    to.protocol_version = narrow(from.protocol_version);
}
inline void assign(broker_register_server_req &to, const rvzd_register_server_req_t &from) {
    assign(to.header, from.header);
    assign(to.trait, from.trait);
    assign(to.uuid, from.uuid);
    to.path = from.path;
    assign(to.ports, from.ports);
    to.pid = from.pid;
}
inline void assign(broker_server_idle_req &to, const rvzd_server_idle_req_t &from) {
    assign(to.header, from.header);
    to.pid = from.pid;
    to.flag = from.flag;
}
inline void assign(broker_server_busy_req &to, const rvzd_server_busy_req_t &from) {
    assign(to.header, from.header);
    to.pid = from.pid;
    assign(to.uuid, from.uuid);
}
inline void assign(broker_sched_info_req &to, const rvzd_sched_info_req_t &from) {
    assign(to.header, from.header);
    to.pid = from.pid;
    assign(to.uuid, from.uuid);
    to.kind = from.pair.kind;
    to.value = narrow(from.pair.value);
}
inline void assign(broker_find_server_req &to, const rvzd_find_server_req_t &from) {
    assign(to.header, from.header);
    assign(to.trait, from.trait);
    assign(to.uuid, from.uuid);
    to.path = from.path;
}
inline void assign(broker_get_local_path_req &to, const rvzd_get_local_path_req_t &from) {
    assign(to.header, from.header);
    to.global_path = from.global_path;
    to.size = from.size;
}
inline void assign(broker_clnt_list_get_req &to, const rvzd_clnt_list_get_req_t &from) {
    assign(to.header, from.header);
    to.first = from.first;
    to.second = from.second;
    to.position = from.position;
}
inline void assign(broker_clnt_list_lookup_req &to, const rvzd_clnt_list_lookup_req_t &from) {
    assign(to.header, from.header);
    to.hostname = from.hostname;
}
inline void assign(broker_clnt_list_register_req &to, const rvzd_clnt_list_register_req_t &from) {
    assign(to.header, from.header);
    assign(to.hostinfo, from.hostinfo);
}
inline void assign(broker_toggle_server_restart_req &to, const rvzd_toggle_server_restart_req_t &from) {
    assign(to.header, from.header);
    to.enable = from.enable;
    to.name = from.name;
}
inline void assign(broker_remote_build_hi_req &to, const rvzd_remote_build_hi_req_t &from) {
    assign(to.header, from.header);
    to.hostname = from.hostname;
    to.uid = narrow(from.uid);
    to.gid = narrow(from.gid);
}
inline void assign(broker_remote_build_hi_reply &to, const rvzd_remote_build_hi_reply_t &from) {
    assign(to.header, from.header);
    to.word1 = from.word1;
    to.word2 = from.word2;
    to.time = from.time;
    to.word3 = from.word3;
    to.text1 = from.text1;
    to.text2 = from.text2;
    to.text3 = from.text3;
}
inline void assign(broker_list_servers_req &to, const rvzd_list_servers_req_t &from) {
    assign(to.header, from.header);
    to.cookie = narrow(from.cookie);
    to.size = from.size;
}
inline void assign(broker_slim_is_slim_reply &to, const rvzd_slim_is_slim_reply_t &from) {
    assign(to.header, from.header);
    to.is_slim = from.is_slim;
}

// Replies whose tail hangs on the status.
template <class Twin, class Reply>
void assign_status(Twin &to, const Reply &from) {
    to.word = narrow(from.header.word);
    to.result.status = from.header.status;
}
inline void assign(broker_found_server &to, const rvzd_find_server_reply_t &from) {
    assign(to.uuid, from.uuid);
    to.path = from.path;
    assign(to.ports, from.ports);
}
inline void assign(broker_found_server_v70 &to, const rvzd_find_server_v70_reply_t &from) {
    assign(to.uuid, from.uuid);
    to.path = from.path;
    assign(to.address, from.address);
}
inline void assign(broker_find_server_reply &to, const rvzd_find_server_reply_t &from) {
    assign_status(to, from);
    broker_found_gate &gate = to.result.broker_find_server_result_u.gate;
    const auto low = static_cast<int>(from.gate & UINT32_MAX);
    gate.high = static_cast<int>(from.gate >> 32);
    if (gate.high != 0) {
        gate.broker_found_gate_u.low = low;
        return;
    }
    gate.broker_found_gate_u.rest.low = low;
    assign(gate.broker_found_gate_u.rest.broker_found_gate_low_u.server, from);
}
inline void assign(broker_find_server_v70_reply &to, const rvzd_find_server_v70_reply_t &from) {
    assign_status(to, from);
    broker_found_gate_v70 &gate = to.result.broker_find_server_v70_result_u.gate;
    const auto low = static_cast<int>(from.gate & UINT32_MAX);
    gate.high = static_cast<int>(from.gate >> 32);
    if (gate.high != 0) {
        gate.broker_found_gate_v70_u.low = low;
        return;
    }
    gate.broker_found_gate_v70_u.rest.low = low;
    assign(gate.broker_found_gate_v70_u.rest.broker_found_gate_low_v70_u.server, from);
}
inline void assign(broker_get_local_path_reply &to, const rvzd_get_local_path_reply_t &from) {
    assign_status(to, from);
    to.result.broker_get_local_path_result_u.path = from.path;
}
inline void assign(broker_clnt_list_lookup_reply &to, const rvzd_clnt_list_lookup_reply_t &from) {
    assign_status(to, from);
    assign(to.result.broker_clnt_list_lookup_result_u.entry, from.entry);
}
inline void assign(broker_clnt_list_lookup_v70_reply &to, const rvzd_clnt_list_lookup_reply_t &from) {
    assign_status(to, from);
    assign(to.result.broker_clnt_list_lookup_v70_result_u.entry, from.entry);
}
inline void assign(broker_hostinfo_reply &to, const rvzd_hostinfo_reply_t &from) {
    assign_status(to, from);
    assign(to.result.broker_hostinfo_result_u.hostinfo, from.hostinfo);
}
inline void assign(broker_toggle_server_restart_reply &to, const rvzd_toggle_server_restart_reply_t &from) {
    assign_status(to, from);
    to.result.broker_toggle_server_restart_result_u.toggle_status = from.toggle.status;
}

inline void assign(broker_tz_date &to, const clnt_tz_date_t &from) {
    to = {from.year, from.month, from.mday, from.wday, from.hour, from.min, from.sec};
}
inline void assign(broker_tz &to, const clnt_tz_info_t &from) {
    to.record_version = from.version;
    to.flags = from.flags;
    to.offset = from.offset;
    to.bias = from.bias;
    to.st_name = const_cast<char *>(from.st_name);
    to.dt_name = const_cast<char *>(from.dt_name);
    assign(to.st_trans, from.st_trans);
    assign(to.dt_trans, from.dt_trans);
}
inline void assign(broker_tz_info_req &to, const rvzd_tz_info_req_t &from) {
    assign(to.header, from.header);
    to.year = from.year;
}
inline void assign(broker_tz_info_reply &to, const rvzd_tz_info_reply_t &from) {
    assign_status(to, from);
    assign(to.result.broker_tz_info_result_u.tz, from.info);
}

template <class List>
void assign_list(List &to, const rvzd_clnt_list_get_reply_t &from, Sampler &room) {
    to.position = from.position;
    to.at_end = from.at_end;
    to.entries.entries_len = from.count;
    to.entries.entries_val = room.array<std::remove_pointer_t<decltype(to.entries.entries_val)>>(from.count);
    for (uint32_t i = 0; i < from.count; ++i)
        assign(to.entries.entries_val[i], from.entries[i]);
}
inline void assign(broker_clnt_list_get_reply &to, const rvzd_clnt_list_get_reply_t &from, Sampler &room) {
    assign_status(to, from);
    assign_list(to.result.broker_clnt_list_get_result_u.list, from, room);
}
inline void assign(broker_clnt_list_get_v70_reply &to, const rvzd_clnt_list_get_reply_t &from, Sampler &room) {
    assign_status(to, from);
    assign_list(to.result.broker_clnt_list_get_v70_result_u.list, from, room);
}

// The server list, which the language cannot name as one record.
inline void assign_address(broker_server_record &to, const rvzd_server_port_list_t &from) {
    assign(to.ports, from);
}
inline void assign_address(broker_server_record_v70 &to, const rvzd_server_port_list_t &from) {
    rvzd_sockaddr_in_t address = {};
    for (const auto &entry : {from.ports[1], from.ports[0]})
        if (entry.family == AF_INET) {
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(entry.port));
        }
    assign(to.address, address);
}

template <class Record>
struct ServerListTwin {
    broker_hdr_reply header;
    std::vector<Record> records;
    broker_server_list_end end;
};

template <class Record>
void assign(ServerListTwin<Record> &to, const rvzd_list_servers_reply_t &from) {
    assign(to.header, from.header);
    for (uint64_t used = 0; used < from.size;) {
        auto *entry = reinterpret_cast<rvzd_server_entry_t *>(from.buffer + used);
        Record &record = to.records.emplace_back();
        record.name = {entry->name_length, rvzd_server_entry_name(entry)};
        record.cookie = narrow(entry->cookie);
        assign(record.trait, entry->trait);
        assign_address(record, entry->ports);
        assign(record.uuid, entry->uuid);
        record.state = entry->state;
        record.pid = entry->pid;
        used += rvzd_server_entry_size(entry->name_length);
    }
    to.end = {UINT32_MAX, from.at_end};
}

template <class Record, bool_t (*code_record)(XDR *, Record *)>
bool_t code_server_list(XDR *xdrs, ServerListTwin<Record> *list) {
    if (!xdr_broker_hdr_reply(xdrs, &list->header))
        return FALSE;
    if (xdrs->x_op != XDR_FREE && list->header.status != BROKER_STATUS_OK)
        return TRUE;
    if (xdrs->x_op == XDR_DECODE)
        for (u_int place = xdr_getpos(xdrs), word = 0;; place = xdr_getpos(xdrs)) {
            if (!xdr_u_int(xdrs, &word) || !xdr_setpos(xdrs, place))
                return FALSE;
            if (word == UINT32_MAX)
                break;
            if (!code_record(xdrs, &list->records.emplace_back()))
                return FALSE;
        }
    else
        for (Record &record : list->records)
            if (!code_record(xdrs, &record))
                return FALSE;
    return xdr_broker_server_list_end(xdrs, &list->end);
}

} // namespace wire_tests
