// A record of the table with the address at which its server is reached.
#include <tests/unit/rvzd_clnt/table_fixture.h>

#include <memory>

#include <support/stg.h>

namespace {

constexpr rvzd_server_port_t v4 = {AF_INET, 4000};
constexpr rvzd_server_port_t other_v4 = {AF_INET, 4001};
constexpr rvzd_server_port_t v6 = {AF_INET6, 6000};

class ServerEntry : public TableTest {
protected:
    ServerEntry() : area(stg_create_area(4096)) {}
    ~ServerEntry() override { stg_delete_area(&area); }

    // The node of a list that holds this server.
    const rvzd_server_entry_elem_t *node_of(const Server &server) {
        node = {};
        const auto records = packed({server});
        memcpy(node.bytes, records.data(), std::min(sizeof node.bytes, records.size() * sizeof(uint64_t)));
        return &node;
    }
    rvzd_server_info_t *expand(const Server &server) { return rvzd_get_server_entry(handle, node_of(server), area); }
    // Where the server of these ports is reached; "" for nowhere.
    std::string address_of(std::vector<rvzd_server_port_t> ports, uint32_t count = 0) {
        Server server = {1};
        server.ports = {count != 0 ? count : static_cast<uint32_t>(ports.size()), {}};
        std::copy(ports.begin(), ports.end(), server.ports.ports);
        const auto *info = expand(server);
        char text[SYSUTL_ADDRESS_TEXT_SIZE];
        return info == nullptr ? "" : sysutl_sockaddr_to_str(&info->address.base, sizeof text, text);
    }

    stg_area_t area;
    rvzd_server_entry_elem_t node = {};
};

TEST_F(ServerEntry, CarriesAllOfTheRecord) {
    open("dual");
    const Server server = {5, "/srv/db", {390601, 2, RVZD_PROTOCOL_TCP}, {1, {v4}}, {{9, 8}}, 4, 123};
    const auto *info = expand(server);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->cookie, 5u);
    EXPECT_EQ(info->trait.prog, 390601u);
    EXPECT_EQ(info->trait.vers, 2u);
    EXPECT_EQ(info->trait.proto, RVZD_PROTOCOL_TCP);
    EXPECT_TRUE(tbs_uuid_eq(&info->uuid, &server.uuid));
    EXPECT_EQ(info->state, 4);
    EXPECT_EQ(info->pid, 123);
    EXPECT_EQ(info->name_length, 7);
    EXPECT_STREQ(info->name, "/srv/db");
}

TEST_F(ServerEntry, TheFirstAddressIsTriedWithBothPortsBeforeTheSecond) {
    open("dual"); // 127.0.0.4, then ::1
    EXPECT_EQ(address_of({v4, v6}), "127.0.0.4:4000");
    EXPECT_EQ(address_of({v6, v4}), "127.0.0.4:4000");
    EXPECT_EQ(address_of({v4, other_v4}), "127.0.0.4:4000");
    EXPECT_EQ(address_of({v6}), "[::1]:6000");
}

TEST_F(ServerEntry, TheSecondPortCountsOnlyInAListOfTwo) {
    open("alpha");
    EXPECT_EQ(address_of({v6, v4}, 2), "127.0.0.2:4000");
    EXPECT_EQ(address_of({v6, v4}, 1), "");
    EXPECT_EQ(address_of({v6, v4}, 3), "");
    EXPECT_EQ(address_of({v4, v6}, 3), "127.0.0.2:4000");
}

TEST_F(ServerEntry, TheSecondAddressCountsOnlyIfTheHandleHasTwo) {
    open("dual");
    handle->cached->server_addr.addr_count = 1;
    EXPECT_EQ(address_of({v6}), "");
    EXPECT_EQ(address_of({v4}), "127.0.0.4:4000");
}

TEST_F(ServerEntry, AnIPv6ServerIsOutOfReachOfAnIPv4Handle) {
    open("alpha");
    EXPECT_EQ(address_of({v6}), "");
}

TEST_F(ServerEntry, WithoutAddressesOrPortsThereIsNoEntry) {
    open("alpha");
    EXPECT_EQ(address_of({}), "");
    handle->cached->server_addr.addr_count = 0;
    EXPECT_EQ(address_of({v4}), "");
}

TEST_F(ServerEntry, APortThatNoAddressCanHoldIsNone) {
    open("alpha");
    EXPECT_EQ(address_of({{AF_INET, 65536 + 4000}}), "");
    EXPECT_EQ(address_of({{AF_INET, 65536}, v4}), "127.0.0.2:4000");
    EXPECT_EQ(address_of({{AF_INET, 65535}}), "127.0.0.2:65535");
}

TEST_F(ServerEntry, NamesOfEveryLengthAreKeptWhole) {
    open("alpha");
    for (size_t length = 0; length <= 1025; ++length) {
        Server server = {1, std::string(length, 'n')};
        auto *info = rvzd_get_server_entry(handle, node_of(server), STG_HEAP_AREA);
        ASSERT_NE(info, nullptr);
        ASSERT_EQ(info->name_length, length);
        ASSERT_EQ(info->name, server.name);
        stg_free(info);
    }
}

TEST_F(ServerEntry, ALengthBeyondTheRecordDoesNotLeadOutOfIt) {
    open("alpha");
    node_of({1, std::string(1025, 'n')});
    node.entry.name_length = UINT16_MAX;
    const auto *info = rvzd_get_server_entry(handle, &node, area);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(strlen(info->name), 1025u);
}

TEST_F(ServerEntry, OfThePlainHeapNothingIsLostWhenNoAddressFits) {
    open("alpha");
    Server server = {1};
    server.ports = {1, {v6}};
    const auto before = sim::Holdings::now(world);
    EXPECT_EQ(rvzd_get_server_entry(handle, node_of(server), STG_HEAP_AREA), nullptr);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(ServerEntry, WithoutStorageThereIsNoEntry) {
    open("alpha");
    world.fail_allocation(1);
    EXPECT_EQ(rvzd_get_server_entry(handle, node_of({1}), STG_HEAP_AREA), nullptr);
    EXPECT_TRUE(world.allocation_failed());
}

TEST_F(ServerEntry, TakesNoLockAndAsksNobody) {
    open("alpha");
    const size_t calls = world.peer.calls.size();
    const size_t locks = world.call_locks;
    address_of({v4});
    EXPECT_EQ(world.peer.calls.size(), calls);
    EXPECT_EQ(world.call_locks, locks);
    expect_lock_is_free();
}

} // namespace
