// Finding a server, in both protocol generations.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <arpa/inet.h>

#include <veliaxdr/rvzd_lookup.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServerLookup : public BrokerTest {
protected:
    ServerLookup() {
        for (int i = 0; i < 16; ++i)
            uuid.bytes[i] = static_cast<uint8_t>(i + 1);
        out.addr_count = 99;
    }

    void answer_ports(std::vector<rvzd_server_port_t> ports, tbs_status_t status = TBS_ST_OK, time_t gate = 0) {
        rvzd_find_server_reply_t record = {};
        record.header.status = status;
        record.gate = gate;
        record.path = path.data();
        record.ports.count = static_cast<uint32_t>(ports.size());
        for (size_t i = 0; i < ports.size() && i < 2; ++i)
            record.ports.ports[i] = ports[i];
        world.peer.answer(RVZD_PROC_FIND_SERVER, sim::reply(xdr_rvzd_find_server_reply_t, record));
    }

    void answer_v70(uint16_t port, tbs_status_t status = TBS_ST_OK) {
        rvzd_find_server_v70_reply_t record = {};
        record.header.status = status;
        record.path = path.data();
        record.address.sin_family = AF_INET;
        record.address.sin_port = htons(port);
        world.peer.answer(RVZD_PROC_FIND_SERVER_V70, sim::reply(xdr_rvzd_find_server_v70_reply_t, record));
    }

    tbs_status_t find(const char *host) {
        rvzd_handle_t *handle = handle_to(host);
        const auto status = rvzd_find_server(handle, &trait, &uuid, path.c_str(), &out);
        rvzd_free_handle(handle);
        expect_lock_is_free();
        return status;
    }

    static std::string text_of(const ks_sockaddr_storage_t &address) {
        char text[128];
        return sysutl_sockaddr_to_str(&address.base, sizeof text, text);
    }

    rvzd_rpc_trait_t trait = {390600, 2, RVZD_PROTOCOL_TCP};
    tbs_uuid_t uuid = {};
    std::string path = "/srv/db";
    rvzd_server_addr_t out = {};
};

TEST_F(ServerLookup, SendsTraitUuidAndPathWithTheHandlesTimeOut) {
    answer_ports({{AF_INET, 4000}});
    rvzd_handle_t *handle = handle_to("alpha");
    handle->tv_sec = 7;
    ASSERT_EQ(rvzd_find_server(handle, &trait, &uuid, path.c_str(), &out), TBS_ST_OK);
    const auto &call = world.peer.last();
    EXPECT_EQ(call.procedure, 71u);
    EXPECT_EQ(call.time_out_us, 7'000'000);
    auto request = call.decode(xdr_rvzd_find_server_req_t);
    EXPECT_EQ(request.trait.prog, 390600u);
    EXPECT_EQ(request.trait.vers, 2u);
    EXPECT_EQ(request.trait.proto, RVZD_PROTOCOL_TCP);
    EXPECT_TRUE(tbs_uuid_eq(&request.uuid, &uuid));
    EXPECT_STREQ(request.path, "/srv/db");
    EXPECT_EQ(request.header.sequence, 1u);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_find_server_req_t), &request);
    rvzd_free_handle(handle);
}

TEST_F(ServerLookup, TwoPortsForOneIPv4AddressGiveThatOneWhereverItsEntryStands) {
    for (const bool ipv4_first : {true, false}) {
        const rvzd_server_port_t v4 = {AF_INET, 4000};
        const rvzd_server_port_t v6 = {AF_INET6, 6000};
        answer_ports(ipv4_first ? std::vector{v4, v6} : std::vector{v6, v4});
        ASSERT_EQ(find("alpha"), TBS_ST_OK);
        ASSERT_EQ(out.addr_count, 1u);
        EXPECT_EQ(text_of(out.addrs[0]), "127.0.0.2:4000");
    }
}

TEST_F(ServerLookup, TwoAddressesAndTwoPortsGiveTwoInTheHostsOrder) {
    answer_ports({{AF_INET6, 6000}, {AF_INET, 4000}});
    ASSERT_EQ(find("dual"), TBS_ST_OK);
    ASSERT_EQ(out.addr_count, 2u);
    EXPECT_EQ(text_of(out.addrs[0]), "127.0.0.4:4000");
    EXPECT_EQ(text_of(out.addrs[1]), "[::1]:6000");
}

TEST_F(ServerLookup, OfTwoEntriesOfOneFamilyTheFirstCounts) {
    answer_ports({{AF_INET, 4000}, {AF_INET, 5000}});
    ASSERT_EQ(find("alpha"), TBS_ST_OK);
    EXPECT_EQ(text_of(out.addrs[0]), "127.0.0.2:4000");
}

TEST_F(ServerLookup, AServerOnAnotherFamilyIsNotThere) {
    answer_ports({{AF_INET6, 6000}});
    EXPECT_EQ(find("alpha"), TBS_ST_UNSUPPORTED);
    EXPECT_EQ(out.addr_count, 0u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerLookup, NoPortsMeanUnsupported) {
    answer_ports({});
    EXPECT_EQ(find("dual"), TBS_ST_UNSUPPORTED);
    EXPECT_EQ(out.addr_count, 0u);
}

TEST_F(ServerLookup, WithoutAddressesOfTheHostThereIsNoServer) {
    answer_ports({{AF_INET, 4000}});
    answer_v70(4000);
    rvzd_handle_t *handle = handle_to("alpha");
    handle->cached->server_addr.addr_count = 0;
    EXPECT_EQ(rvzd_find_server(handle, &trait, &uuid, "", &out), TBS_ST_UNSUPPORTED);
    EXPECT_EQ(out.addr_count, 0u);
    handle->cached->protocol_version = 5;
    EXPECT_EQ(rvzd_find_server(handle, &trait, &uuid, "", &out), TBS_ST_ERROR);
    rvzd_free_handle(handle);
}

TEST_F(ServerLookup, AGateWordHidesThePorts) {
    answer_ports({{AF_INET, 4000}}, TBS_ST_OK, 17);
    EXPECT_EQ(find("alpha"), TBS_ST_UNSUPPORTED);
}

TEST_F(ServerLookup, ACountAboveTwoIsReadAsTwo) {
    answer_ports({{AF_INET6, 6000}, {AF_INET, 4000}, {AF_INET, 1}});
    ASSERT_EQ(find("alpha"), TBS_ST_OK);
    EXPECT_EQ(text_of(out.addrs[0]), "127.0.0.2:4000");
}

TEST_F(ServerLookup, APortThatNoAddressCanHoldIsNone) {
    answer_ports({{AF_INET, 65536 + 4000}});
    EXPECT_EQ(find("alpha"), TBS_ST_UNSUPPORTED);
}

TEST_F(ServerLookup, TheBrokersOwnStatusIsPassedOn) {
    answer_ports({}, TBS_ST_NOT_FOUND);
    EXPECT_EQ(find("alpha"), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerLookup, AFailedCallIsToldUnderTheOperationsName) {
    world.peer.answer(RVZD_PROC_FIND_SERVER, sim::silence());
    EXPECT_EQ(find("alpha"), TBS_ST_RPC_FAILED);
    const auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0].text, testing::StartsWith("rvzd_find_server call failed"));
}

TEST_F(ServerLookup, AReplyCutOffAtAnyByteFailsAndLeaksNothing) {
    answer_ports({{AF_INET, 4000}});
    rvzd_find_server_reply_t record = {};
    record.path = path.data();
    record.ports = {1, {{AF_INET, 4000}, {}}};
    const auto whole = sim::encode(xdr_rvzd_find_server_reply_t, record);
    rvzd_handle_t *handle = handle_to("alpha");
    const auto before = sim::Holdings::now(world);
    for (size_t length = 0; length < whole.size(); ++length) {
        world.peer.answer(RVZD_PROC_FIND_SERVER,
                          {RPC_SUCCESS, 0, sim::Bytes(whole.begin(), whole.begin() + static_cast<long>(length))});
        EXPECT_EQ(rvzd_find_server(handle, &trait, &uuid, "", &out), TBS_ST_RPC_FAILED) << length;
        EXPECT_EQ(sim::Holdings::now(world), before) << length;
    }
    rvzd_free_handle(handle);
}

TEST_F(ServerLookup, TheOlderVersionGivesThePortToTheFirstIPv4Address) {
    world.peer.speak(5);
    world.add_host("six_first", {"::1", "127.0.0.6"});
    answer_v70(4000);
    ASSERT_EQ(find("six_first"), TBS_ST_OK);
    EXPECT_EQ(world.peer.last().procedure, 3u);
    ASSERT_EQ(out.addr_count, 1u);
    EXPECT_EQ(text_of(out.addrs[0]), "127.0.0.6:4000");
}

TEST_F(ServerLookup, TheOlderVersionNeedsAnIPv4Address) {
    world.peer.speak(5);
    answer_v70(4000);
    EXPECT_EQ(find("v6only"), TBS_ST_ERROR);
    EXPECT_EQ(out.addr_count, 1u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerLookup, TheOlderVersionSetsTheCountToOneWhateverComesOfTheCall) {
    world.peer.speak(5);
    world.peer.answer(RVZD_PROC_FIND_SERVER_V70, sim::failure(RPC_CANTDECODEARGS));
    EXPECT_EQ(find("alpha"), TBS_ST_RPC_FAILED);
    EXPECT_EQ(out.addr_count, 1u);
    const auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0].text, testing::StartsWith("rvzd_find_server_v70 call failed"));
}

TEST_F(ServerLookup, TheOlderVersionPassesTheBrokersStatusOn) {
    world.peer.speak(5);
    answer_v70(0, TBS_ST_NOT_FOUND);
    EXPECT_EQ(find("alpha"), TBS_ST_NOT_FOUND);
    EXPECT_EQ(out.addr_count, 1u);
}

TEST_F(ServerLookup, ExactlyVersionFiveTakesTheOldNumber) {
    answer_ports({{AF_INET, 4000}});
    rvzd_handle_t *handle = handle_to("alpha");
    for (uint32_t version : {0u, 4u, 6u, 7u}) {
        handle->cached->protocol_version = version;
        EXPECT_EQ(rvzd_find_server(handle, &trait, &uuid, "", &out), TBS_ST_OK);
        EXPECT_EQ(world.peer.last().procedure, 71u) << version;
    }
    handle->cached->protocol_version = 6;
    rvzd_free_handle(handle);
}

TEST_F(ServerLookup, AGenericHandleLooksUpTheGenericServicesOnly) {
    answer_ports({{AF_INET, 4000}});
    for (uint64_t version : {5u, 6u}) {
        world.peer.speak(version);
        answer_v70(4000);
        rvzd_handle_t *handle = nullptr;
        world.add_host("generic" + std::to_string(version), {"127.0.0.2"});
        ASSERT_EQ(rvzd_get_generic_service_handle(("generic" + std::to_string(version)).c_str(), RVZD_PROTOCOL_UDP,
                                                  RVZD_GENERIC_SERVICE_PROGRAM, &handle),
                  TBS_ST_OK);
        const size_t calls = world.peer.calls.size();
        EXPECT_EQ(rvzd_find_server(handle, &trait, &uuid, "", &out), TBS_ST_ERROR);
        EXPECT_EQ(world.peer.calls.size(), calls);
        const auto messages = world.take_errors();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].index, 102);
        EXPECT_THAT(messages[0].text, testing::HasSubstr("(program number: 390600)"));
        rvzd_rpc_trait_t generic = {RVZD_GENERIC_SERVICE_PROGRAM, 1, RVZD_PROTOCOL_UDP};
        EXPECT_EQ(rvzd_find_server(handle, &generic, &uuid, "", &out), TBS_ST_OK);
        rvzd_free_handle(handle);
    }
}

TEST_F(ServerLookup, GenericServicesAreOneProgram) {
    EXPECT_TRUE(rvzd_utl_is_generic_service_prog(390520));
    EXPECT_FALSE(rvzd_utl_is_generic_service_prog(390512));
    EXPECT_FALSE(rvzd_utl_is_generic_service_prog((1ul << 32) + 390520));
}

TEST_F(ServerLookup, AProgramNumberThatDoesNotFitTheWireFailsTheCall) {
    trait.prog = 1ul << 32;
    EXPECT_EQ(find("alpha"), TBS_ST_RPC_FAILED);
}

TEST_F(ServerLookup, TheReplyIsFreedThroughItsClient) {
    answer_ports({{AF_INET, 4000}});
    rvzd_handle_t *handle = handle_to("alpha");
    const auto before = sim::Holdings::now(world);
    const size_t freed = world.replies_freed;
    EXPECT_EQ(rvzd_find_server(handle, &trait, &uuid, "", &out), TBS_ST_OK);
    EXPECT_EQ(world.replies_freed, freed + 1);
    answer_ports({}, TBS_ST_NOT_FOUND);
    EXPECT_EQ(rvzd_find_server(handle, &trait, &uuid, "", &out), TBS_ST_NOT_FOUND);
    EXPECT_EQ(world.replies_freed, freed + 2);
    EXPECT_EQ(sim::Holdings::now(world), before);
    rvzd_free_handle(handle);
}

TEST_F(ServerLookup, EachFailingAllocationFailsTheCallAndLeaksNothing) {
    answer_ports({{AF_INET, 4000}});
    rvzd_handle_t *handle = handle_to("alpha");
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    const int failures = sim::sweep_allocations(
        world, [&] { status = rvzd_find_server(handle, &trait, &uuid, "", &out); },
        [&](int) {
            EXPECT_EQ(status, TBS_ST_RPC_FAILED);
            EXPECT_EQ(sim::Holdings::now(world), before);
        });
    EXPECT_GE(failures, 1);
    EXPECT_EQ(status, TBS_ST_OK);
    rvzd_free_handle(handle);
}

TEST_F(ServerLookup, ARaiseAnywhereLeaksNothingAndLeavesTheLockHeld) {
    answer_ports({{AF_INET, 4000}});
    rvzd_handle_t *handle = handle_to("alpha");
    const auto before = sim::Holdings::now(world);
    const int raises = sim::sweep_raises(
        world, [&] { rvzd_find_server(handle, &trait, &uuid, "", &out); },
        [&](int number) {
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        });
    EXPECT_GE(raises, 2);
    rvzd_free_handle(handle);
}

} // namespace
