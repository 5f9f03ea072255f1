// Random records of every kind on the broker's wire, and coding into and out of byte strings. The strings of a record
// belong to its sampler, so such a record is never freed; what is decoded is freed by its routine.
#pragma once

#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include <veliaxdr/rvzd_hosts.h>
#include <veliaxdr/rvzd_procedures.h>
#include <veliaxdr/rvzd_wire.h>

namespace wire_tests {

class Sampler {
public:
    explicit Sampler(uint64_t seed) : engine_(seed) {}

    uint64_t number(uint64_t below_or_equal) {
        return std::uniform_int_distribution<uint64_t>(0, below_or_equal)(engine_);
    }
    bool coin() { return number(1) == 1; }
    // One in four is an edge of its type.
    uint64_t word() { return edge_or(UINT32_MAX); }
    uint64_t hyper() { return edge_or(UINT64_MAX); }
    int32_t signed_word() { return static_cast<int32_t>(static_cast<uint32_t>(word())); }
    time_t time() { return static_cast<time_t>(hyper()); }
    char *text(size_t longest) {
        std::string made(number(longest), '\0');
        for (char &c : made)
            c = static_cast<char>(1 + number(254));
        texts_.push_back(std::move(made));
        return texts_.back().data();
    }
    template <class Element>
    Element *array(size_t count) {
        arrays_.emplace_back(count * sizeof(Element) / sizeof(uint64_t) + 1);
        return reinterpret_cast<Element *>(arrays_.back().data());
    }
    void bytes(void *target, size_t size) {
        for (size_t i = 0; i < size; ++i)
            static_cast<uint8_t *>(target)[i] = static_cast<uint8_t>(number(255));
    }

private:
    uint64_t edge_or(uint64_t most) {
        const uint64_t edges[] = {0, 1, most, most / 2, most / 2 + 1};
        return number(3) == 0 ? edges[number(4)] : number(most);
    }

    std::mt19937_64 engine_;
    std::deque<std::string> texts_;
    std::deque<std::vector<uint64_t>> arrays_;
};

using Bytes = std::string;

// Encodes with `routine`; false when the routine refuses or there is no room.
template <class Record>
bool encode(bool_t (*routine)(XDR *, Record *), const Record &record, Bytes &bytes, size_t room = 1 << 16) {
    std::vector<uint32_t> storage(room / sizeof(uint32_t));
    XDR stream;
    xdrmem_create(&stream, reinterpret_cast<char *>(storage.data()), static_cast<u_int>(room), XDR_ENCODE);
    const bool done = routine(&stream, const_cast<Record *>(&record));
    bytes.assign(reinterpret_cast<const char *>(storage.data()), xdr_getpos(&stream));
    return done;
}

// Decodes into `record`, which is as the caller made it; `consumed` may be null. The bytes stand at their own end of a
// heap block, so that a sanitizer sees any read behind them.
template <class Record>
bool decode(bool_t (*routine)(XDR *, Record *), const Bytes &bytes, Record &record, size_t *consumed = nullptr,
            size_t misalignment = 0) {
    std::vector<char> storage(bytes.size() + misalignment);
    bytes.copy(storage.data() + misalignment, bytes.size());
    XDR stream;
    xdrmem_create(&stream, storage.data() + misalignment, static_cast<u_int>(bytes.size()), XDR_DECODE);
    const bool done = routine(&stream, &record);
    if (consumed != nullptr)
        *consumed = xdr_getpos(&stream);
    return done;
}

template <class Record>
bool release(bool_t (*routine)(XDR *, Record *), Record &record) {
    XDR stream = {};
    stream.x_op = XDR_FREE;
    return routine(&stream, &record);
}

// Fillers: one overload a record, common ones first.
inline void fill(Sampler &s, rvzd_hdr_req_t &r) {
    r = {s.hyper(), s.word()};
}
inline void fill(Sampler &s, rvzd_hdr_reply_t &r) {
    r = {s.word(), s.coin() ? TBS_ST_OK : s.signed_word()};
}
inline void fill(Sampler &s, tbs_uuid_t &r) {
    s.bytes(r.bytes, sizeof r.bytes);
}
inline void fill(Sampler &s, rvzd_rpc_trait_t &r) {
    r = {s.word(), s.word(), s.signed_word()};
}
inline void fill(Sampler &s, rvzd_server_port_t &r) {
    r = {s.coin() ? AF_INET : AF_INET6, static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, rvzd_server_port_list_t &r) {
    r.count = static_cast<uint32_t>(s.number(4) == 0 ? s.word() : s.number(2));
    for (uint32_t i = 0; i < RVZD_SERVER_PORTS_MAX; ++i)
        if (i < r.count)
            fill(s, r.ports[i]);
}
inline void fill(Sampler &s, rvzd_sockaddr_in_t &r) {
    r = {};
    r.sin_family = s.coin() ? AF_INET : AF_UNSPEC;
    r.sin_port = static_cast<in_port_t>(s.number(UINT16_MAX));
    r.sin_addr.s_addr = static_cast<in_addr_t>(s.word());
}
inline void fill(Sampler &s, ks_sockaddr_storage_t &r) {
    memset(&r, 0, sizeof r);
    switch (s.number(2)) {
    case 1:
        r.ipv4.sin_family = AF_INET;
        r.ipv4.sin_port = static_cast<in_port_t>(s.number(UINT16_MAX));
        r.ipv4.sin_addr.s_addr = static_cast<in_addr_t>(s.word());
        break;
    case 2:
        r.ipv6.sin6_family = AF_INET6;
        r.ipv6.sin6_port = static_cast<in_port_t>(s.number(UINT16_MAX));
        s.bytes(&r.ipv6.sin6_addr, sizeof r.ipv6.sin6_addr);
        r.ipv6.sin6_flowinfo = static_cast<uint32_t>(s.word());
        r.ipv6.sin6_scope_id = static_cast<uint32_t>(s.word());
        break;
    default:
        break;
    }
}
inline void fill(Sampler &s, clnt_hostinfo_t &r) {
    r = {s.text(255), s.text(30), s.text(30), s.text(30), s.text(30),
         s.text(30),  s.text(30), s.text(30), s.text(3),  s.text(1500)};
}
inline void fill(Sampler &s, clnt_entry_t &r) {
    fill(s, r.address);
    fill(s, r.hostinfo);
    r.reserved_time = s.time();
    r.registry_time = s.time();
}
inline void fill(Sampler &s, clnt_toggle_server_restart_t &r) {
    r.status = s.signed_word();
}
inline void fill(Sampler &s, rvzd_null_req_t &r) {
    fill(s, r.header);
}
inline void fill(Sampler &s, rvzd_null_reply_t &r) {
    fill(s, r.header);
}
inline void fill(Sampler &s, rvzd_contact_req_t &r) {
    fill(s, r.header);
    r.protocol_version = s.word();
}
inline void fill(Sampler &s, rvzd_contact_reply_t &r) {
    fill(s, r.header);
    r.protocol_version = s.word();
}
inline void fill(Sampler &s, rvzd_register_server_req_t &r) {
    fill(s, r.header);
    fill(s, r.trait);
    fill(s, r.uuid);
    r.path = s.text(200);
    fill(s, r.ports);
    r.pid = s.signed_word();
}
inline void fill(Sampler &s, rvzd_server_idle_req_t &r) {
    fill(s, r.header);
    r.pid = s.signed_word();
    r.flag = s.coin();
}
inline void fill(Sampler &s, rvzd_server_busy_req_t &r) {
    fill(s, r.header);
    r.pid = s.signed_word();
    fill(s, r.uuid);
}
inline void fill(Sampler &s, rvzd_sched_info_req_t &r) {
    fill(s, r.header);
    r.pid = s.signed_word();
    fill(s, r.uuid);
    r.pair = {s.signed_word(), s.word()};
}
inline void fill(Sampler &s, rvzd_find_server_req_t &r) {
    fill(s, r.header);
    fill(s, r.trait);
    fill(s, r.uuid);
    r.path = s.text(200);
}
inline void fill(Sampler &s, rvzd_find_server_reply_t &r) {
    fill(s, r.header);
    r.gate = s.coin() ? 0 : s.time();
    fill(s, r.uuid);
    r.path = s.text(200);
    fill(s, r.ports);
}
inline void fill(Sampler &s, rvzd_find_server_v70_reply_t &r) {
    fill(s, r.header);
    r.gate = s.coin() ? 0 : s.time();
    fill(s, r.uuid);
    r.path = s.text(200);
    fill(s, r.address);
}
inline void fill(Sampler &s, rvzd_get_local_path_req_t &r) {
    fill(s, r.header);
    r.global_path = s.text(200);
    r.size = s.hyper();
}
inline void fill(Sampler &s, rvzd_get_local_path_reply_t &r) {
    fill(s, r.header);
    r.path = s.text(200);
}
inline void fill(Sampler &s, rvzd_clnt_list_get_req_t &r) {
    fill(s, r.header);
    r.first = s.signed_word();
    r.second = static_cast<uint32_t>(s.word());
    r.position = s.signed_word();
}
inline void fill(Sampler &s, rvzd_clnt_list_get_reply_t &r) {
    fill(s, r.header);
    r.position = s.signed_word();
    r.at_end = s.coin();
    r.count = static_cast<uint32_t>(s.number(4));
    r.entries = r.count > 0 ? s.array<clnt_entry_t>(r.count) : nullptr;
    for (uint32_t i = 0; i < r.count; ++i)
        fill(s, r.entries[i]);
}
inline void fill(Sampler &s, rvzd_clnt_list_lookup_req_t &r) {
    fill(s, r.header);
    r.hostname = s.text(RVZD_HOST_NAME_MAX);
}
inline void fill(Sampler &s, rvzd_clnt_list_lookup_reply_t &r) {
    fill(s, r.header);
    fill(s, r.entry);
}
inline void fill(Sampler &s, rvzd_clnt_list_register_req_t &r) {
    fill(s, r.header);
    fill(s, r.hostinfo);
}
inline void fill(Sampler &s, rvzd_hostinfo_reply_t &r) {
    fill(s, r.header);
    fill(s, r.hostinfo);
}
inline void fill(Sampler &s, rvzd_toggle_server_restart_req_t &r) {
    fill(s, r.header);
    r.enable = s.coin();
    r.name = s.text(RVZD_SERVER_NAME_MAX);
}
inline void fill(Sampler &s, rvzd_toggle_server_restart_reply_t &r) {
    fill(s, r.header);
    fill(s, r.toggle);
}
inline void fill(Sampler &s, rvzd_remote_build_hi_req_t &r) {
    fill(s, r.header);
    r.hostname = s.text(RVZD_HOST_NAME_MAX);
    r.uid = s.word();
    r.gid = s.word();
}
inline void fill(Sampler &s, rvzd_remote_build_hi_reply_t &r) {
    fill(s, r.header);
    r.word1 = s.signed_word();
    r.word2 = s.signed_word();
    r.time = s.time();
    r.word3 = s.signed_word();
    r.text1 = s.text(40);
    r.text2 = s.text(40);
    r.text3 = s.text(1500);
}
inline void fill(Sampler &s, rvzd_list_servers_req_t &r) {
    fill(s, r.header);
    r.cookie = s.word();
    r.size = s.hyper();
}
inline void fill(Sampler &s, clnt_tz_date_t &r) {
    for (int32_t clnt_tz_date_t::*field :
         {&clnt_tz_date_t::year, &clnt_tz_date_t::month, &clnt_tz_date_t::mday, &clnt_tz_date_t::wday,
          &clnt_tz_date_t::hour, &clnt_tz_date_t::min, &clnt_tz_date_t::sec})
        r.*field = s.signed_word();
}
inline void fill(Sampler &s, clnt_tz_info_t &r) {
    r = {};
    r.version = s.signed_word();
    r.flags = static_cast<uint32_t>(s.word());
    r.offset = s.time();
    r.bias = s.time();
    strcpy(r.st_name, s.text(sizeof r.st_name - 1));
    strcpy(r.dt_name, s.text(sizeof r.dt_name - 1));
    fill(s, r.st_trans);
    fill(s, r.dt_trans);
}
inline void fill(Sampler &s, rvzd_tz_info_req_t &r) {
    fill(s, r.header);
    r.year = s.signed_word();
}
inline void fill(Sampler &s, rvzd_tz_info_reply_t &r) {
    fill(s, r.header);
    fill(s, r.info);
}
inline void fill(Sampler &s, rvzd_slim_is_slim_reply_t &r) {
    fill(s, r.header);
    r.is_slim = s.coin();
}

// Appends one server record to a flat buffer of 8-aligned words.
inline rvzd_server_entry_t *append_server(Sampler &s, std::vector<uint64_t> &buffer, const std::string &name) {
    const size_t size = rvzd_server_entry_size(name.size());
    buffer.resize(buffer.size() + size / sizeof(uint64_t));
    auto *entry =
        reinterpret_cast<rvzd_server_entry_t *>(reinterpret_cast<char *>(buffer.data() + buffer.size()) - size);
    entry->cookie = s.word();
    fill(s, entry->trait);
    entry->ports = {};
    entry->ports.count = static_cast<uint32_t>(s.number(2));
    for (uint32_t i = 0; i < entry->ports.count; ++i)
        fill(s, entry->ports.ports[i]);
    fill(s, entry->uuid);
    entry->state = s.signed_word();
    entry->pid = s.signed_word();
    entry->name_length = static_cast<uint16_t>(name.size());
    memcpy(rvzd_server_entry_name(entry), name.c_str(), name.size() + 1);
    return entry;
}

constexpr uint64_t list_capacity = 16384; // holds whatever one reply carries

inline void fill(Sampler &s, rvzd_list_servers_reply_t &r) {
    fill(s, r.header);
    std::vector<uint64_t> servers;
    for (uint64_t left = s.number(6); left > 0; --left)
        append_server(s, servers, s.text(70));
    r.at_end = s.coin();
    r.size = servers.size() * sizeof(uint64_t);
    r.buffer = r.size > 0 ? reinterpret_cast<char *>(s.array<uint64_t>(servers.size())) : nullptr;
    if (r.size > 0)
        memcpy(r.buffer, servers.data(), r.size);
}

// A record as it must be before it is decoded into.
template <class Record>
Record cleared() {
    Record record;
    memset(&record, 0, sizeof record);
    return record;
}
template <>
inline rvzd_list_servers_reply_t cleared() {
    rvzd_list_servers_reply_t record;
    memset(&record, 0, sizeof record);
    record.size = list_capacity;
    return record;
}

// Every record that travels by itself or inside another, as visit(name, routine).
template <class Visit>
void for_each_kind(Visit &&visit) {
#define VISIT(RECORD) visit(#RECORD, xdr_##RECORD)
    VISIT(rvzd_rpc_trait_t);
    VISIT(rvzd_server_port_t);
    VISIT(rvzd_server_port_list_t);
    VISIT(rvzd_sockaddr_in_t);
    VISIT(clnt_hostinfo_t);
    VISIT(clnt_entry_t);
    VISIT(clnt_entry_v70_t);
    VISIT(clnt_toggle_server_restart_t);
    VISIT(clnt_tz_info_t);
    VISIT(rvzd_hdr_req_t);
    VISIT(rvzd_hdr_reply_t);
    VISIT(rvzd_null_req_t);
    VISIT(rvzd_null_reply_t);
    VISIT(rvzd_slim_is_slim_reply_t);
#undef VISIT
#define VISIT_PROCEDURE(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                            \
    visit(#NAME " request", xdr_##REQUEST);                                                                            \
    visit(#NAME " reply", xdr_##REPLY);
    RVZD_BROKER_PROCEDURES(VISIT_PROCEDURE)
#undef VISIT_PROCEDURE
}

} // namespace wire_tests
