// Golden vectors: the bytes of each record, written by hand. They hold the wire still where two sides that change
// together would go on agreeing.
#include <gtest/gtest.h>

#include <support/stg.h>
#include <tests/unit/xdr/samples.h>

using namespace wire_tests;

namespace {

// Digits in pairs; blanks are for the eye.
Bytes hex(std::string_view digits) {
    Bytes bytes;
    int high = -1;
    for (const char c : digits) {
        if (c == ' ')
            continue;
        const int value = c <= '9' ? c - '0' : c - 'a' + 10;
        if (high >= 0)
            bytes.push_back(static_cast<char>(high * 16 + value));
        high = high >= 0 ? -1 : value;
    }
    return bytes;
}

std::string in_hex(const Bytes &bytes) {
    std::string digits;
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        digits += "0123456789abcdef"[byte / 16];
        digits += "0123456789abcdef"[byte % 16];
    }
    return digits;
}

// The record goes out as these bytes, and what comes of these bytes goes out as them again.
template <class Record>
void expect_bytes(bool_t (*routine)(XDR *, Record *), const Record &record, std::string_view digits) {
    Bytes bytes;
    ASSERT_TRUE(encode(routine, record, bytes));
    EXPECT_EQ(in_hex(bytes), in_hex(hex(digits)));
    Record received = cleared<Record>();
    size_t consumed = 0;
    ASSERT_TRUE(decode(routine, hex(digits), received, &consumed));
    EXPECT_EQ(consumed, hex(digits).size());
    Bytes again;
    ASSERT_TRUE(encode(routine, received, again));
    EXPECT_EQ(in_hex(again), in_hex(hex(digits)));
    if constexpr (requires { received.entries; }) {
        for (uint32_t i = 0; i < received.count; ++i)
            release(xdr_clnt_entry_t, received.entries[i]);
        stg_free(received.entries);
    }
    release(routine, received);
}

const rvzd_hdr_req_t header = {0x0102030405060708, 0x0a0b0c0d};
const rvzd_hdr_reply_t good = {0x11223344, TBS_ST_OK};
const rvzd_hdr_reply_t bad = {0x11223344, 0x3ea};
const rvzd_rpc_trait_t trait = {390600, 2, RVZD_PROTOCOL_TCP};
const rvzd_server_port_list_t two_ports = {2, {{AF_INET, 40000}, {AF_INET6, 40001}}};
const tbs_uuid_t uuid = {
    {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf}};

char srv[] = "/srv";
char name[] = "alpha";

// The same pieces in bytes.
#define HEADER "0102030405060708 0a0b0c0d "
#define GOOD "11223344 00000000 "
#define BAD "11223344 000003ea "
#define TRAIT "0005f5c8 00000002 00000002 "
#define TWO_PORTS "00000002 00000001 00009c40 00000002 00009c41 "
#define UUID "a0a1a2a3a4a5a6a7a8a9aaabacadaeaf "
#define SRV "00000004 2f737276 "
#define ALPHA "00000005 616c706861 000000 "
#define EMPTY "00000000 "

TEST(Golden, Contact) {
    expect_bytes(xdr_rvzd_contact_req_t, {header, 6}, HEADER "00000006");
    expect_bytes(xdr_rvzd_contact_reply_t, {good, 6}, GOOD "00000006");
    expect_bytes(xdr_rvzd_contact_reply_t, {bad, 5}, BAD "00000005");
}

TEST(Golden, RegisterServer) {
    expect_bytes(xdr_rvzd_register_server_req_t, {header, trait, uuid, srv, two_ports, 4660},
                 HEADER TRAIT UUID SRV TWO_PORTS "00001234");
    expect_bytes(xdr_rvzd_null_reply_t, {good}, GOOD);
}

TEST(Golden, ServerIdleBusyAndAlternateUuid) {
    expect_bytes(xdr_rvzd_server_idle_req_t, {header, 4660, 1}, HEADER "00001234 00000001");
    expect_bytes(xdr_rvzd_server_busy_req_t, {header, 4660, uuid}, HEADER "00001234" UUID);
    expect_bytes(xdr_rvzd_server_alternate_uuid_req_t, {header, -1, uuid}, HEADER "ffffffff" UUID);
}

TEST(Golden, SchedInfo) {
    expect_bytes(xdr_rvzd_sched_info_req_t, {header, 4660, uuid, {-2, 0xfffffffe}},
                 HEADER "00001234" UUID "fffffffe fffffffe");
}

TEST(Golden, FindServer) {
    expect_bytes(xdr_rvzd_find_server_req_t, {header, trait, uuid, srv}, HEADER TRAIT UUID SRV);
    expect_bytes(xdr_rvzd_find_server_req_t, {header, trait, uuid, nullptr}, HEADER TRAIT UUID EMPTY);
    expect_bytes(xdr_rvzd_find_server_reply_t, {good, 0, uuid, srv, two_ports},
                 GOOD "0000000000000000" UUID SRV TWO_PORTS);
    expect_bytes(xdr_rvzd_find_server_reply_t, {good, 1, uuid, srv, two_ports}, GOOD "0000000000000001");
    expect_bytes(xdr_rvzd_find_server_reply_t, {bad, 0, uuid, srv, two_ports}, BAD);
}

TEST(Golden, FindServerOfTheOlderForm) {
    rvzd_find_server_v70_reply_t reply = {good, 0, uuid, srv, {}};
    reply.address.sin_family = AF_INET;
    reply.address.sin_port = htons(40000);
    reply.address.sin_addr.s_addr = htonl(0x7f000001);
    expect_bytes(xdr_rvzd_find_server_v70_reply_t, reply,
                 GOOD "0000000000000000" UUID SRV "0002 9c40 7f000001 0000000000000000");
}

TEST(Golden, GetLocalPath) {
    expect_bytes(xdr_rvzd_get_local_path_req_t, {header, srv, 1024}, HEADER SRV "0000000000000400");
    expect_bytes(xdr_rvzd_get_local_path_reply_t, {good, srv, 0}, GOOD SRV);
    expect_bytes(xdr_rvzd_get_local_path_reply_t, {bad, srv, 0}, BAD);
}

clnt_hostinfo_t host() {
    return {name, srv, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, name};
}
#define HOST ALPHA SRV EMPTY EMPTY EMPTY EMPTY EMPTY EMPTY EMPTY ALPHA

clnt_entry_t mapped_client() {
    clnt_entry_t entry = cleared<clnt_entry_t>();
    entry.address.ipv6.sin6_family = AF_INET6;
    memcpy(&entry.address.ipv6.sin6_addr, hex("00000000000000000000ffff0a010203").data(), 16);
    entry.hostinfo = host();
    entry.reserved_time = 1;
    entry.registry_time = -1;
    return entry;
}
#define TIMES "0000000000000001 ffffffffffffffff"
#define MAPPED "00000002 00000000 00000000000000000000ffff0a010203 00000000 00000000 "
#define MAPPED_V70 "0000 0000 0a010203 0000000000000000 "

TEST(Golden, ClientListGet) {
    clnt_entry_t entry = mapped_client();
    expect_bytes(xdr_rvzd_clnt_list_get_req_t, {header, -1, 7, 3}, HEADER "ffffffff 00000007 00000003");
    expect_bytes(xdr_rvzd_clnt_list_get_reply_t, {good, 3, 1, 1, &entry},
                 GOOD "00000003 00000001 00000001" MAPPED HOST TIMES);
    expect_bytes(xdr_rvzd_clnt_list_get_v70_reply_t, {good, 3, 0, 1, &entry},
                 GOOD "00000003 00000000 00000001" MAPPED_V70 HOST TIMES);
    expect_bytes(xdr_rvzd_clnt_list_get_reply_t, {good, 3, 1, 0, nullptr}, GOOD "00000003 00000001 00000000");
}

TEST(Golden, ClientListLookupAndRegister) {
    expect_bytes(xdr_rvzd_clnt_list_lookup_req_t, {header, name}, HEADER ALPHA);
    expect_bytes(xdr_rvzd_clnt_list_lookup_reply_t, {good, mapped_client()}, GOOD MAPPED HOST TIMES);
    expect_bytes(xdr_rvzd_clnt_list_lookup_v70_reply_t, {good, mapped_client()}, GOOD MAPPED_V70 HOST TIMES);
    expect_bytes(xdr_rvzd_clnt_list_lookup_reply_t, {bad, mapped_client()}, BAD);
    expect_bytes(xdr_rvzd_clnt_list_register_req_t, {header, host()}, HEADER HOST);
    expect_bytes(xdr_rvzd_clnt_list_register_reply_t, {bad}, BAD);
}

TEST(Golden, AddressesOfClients) {
    clnt_entry_t entry = mapped_client();
    memset(&entry.address, 0, sizeof entry.address);
    expect_bytes(xdr_clnt_entry_t, entry, "00000000" HOST TIMES);
    entry.address.ipv4.sin_family = AF_INET;
    entry.address.ipv4.sin_port = htons(371);
    entry.address.ipv4.sin_addr.s_addr = htonl(0x7f000001);
    expect_bytes(xdr_clnt_entry_t, entry, "00000001 00000173 7f000001" HOST TIMES);
}

TEST(Golden, Hostinfo) {
    expect_bytes(xdr_rvzd_hostinfo_req_t, {header}, HEADER);
    expect_bytes(xdr_rvzd_hostinfo_reply_t, {good, host()}, GOOD HOST);
    expect_bytes(xdr_rvzd_hostinfo_reply_t, {bad, host()}, BAD);
}

TEST(Golden, ToggleServerRestart) {
    expect_bytes(xdr_rvzd_toggle_server_restart_req_t, {header, 1, name}, HEADER "00000001" ALPHA);
    expect_bytes(xdr_rvzd_toggle_server_restart_reply_t, {good, {-5}}, GOOD "fffffffb");
    expect_bytes(xdr_rvzd_toggle_server_restart_reply_t, {bad, {-5}}, BAD);
}

TEST(Golden, RemoteBuildHi) {
    expect_bytes(xdr_rvzd_remote_build_hi_req_t, {header, name, 1000, 0xfffffffe}, HEADER ALPHA "000003e8 fffffffe");
    expect_bytes(xdr_rvzd_remote_build_hi_reply_t, {bad, 1, -2, 0x100000003, 4, name, nullptr, srv},
                 BAD "00000001 fffffffe 0000000100000003 00000004" ALPHA EMPTY SRV);
}

TEST(Golden, SlimIsSlim) {
    expect_bytes(xdr_rvzd_slim_is_slim_reply_t, {bad, 1}, BAD "00000001");
}

class GoldenList : public testing::Test {
protected:
    std::vector<uint64_t> servers;
    rvzd_list_servers_reply_t reply = {};

    GoldenList() {
        Sampler sampler(1);
        auto *entry = append_server(sampler, servers, name);
        entry->cookie = 17;
        entry->trait = trait;
        entry->ports = two_ports;
        entry->uuid = uuid;
        entry->state = 3;
        entry->pid = 4660;
        reply = {good, 0, servers.size() * 8, 1, reinterpret_cast<char *>(servers.data())};
    }
};

TEST_F(GoldenList, ListServers) {
    expect_bytes(xdr_rvzd_list_servers_req_t, {header, 17, 8192}, HEADER "00000011 0000000000002000");
    expect_bytes(xdr_rvzd_list_servers_reply_t, reply,
                 GOOD ALPHA "00000011" TRAIT TWO_PORTS UUID "00000003 00001234 ffffffff 00000001");
    reply.header = bad;
    expect_bytes(xdr_rvzd_list_servers_reply_t, reply, BAD);
}

TEST_F(GoldenList, ListServersOfTheOlderForm) {
    expect_bytes(xdr_rvzd_list_servers_v70_reply_t, reply,
                 GOOD ALPHA "00000011" TRAIT "0002 9c40 00000000 0000000000000000" UUID
                            "00000003 00001234 ffffffff 00000001");
}

} // namespace
