// From a host name to a ready client of one of its servers.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <arpa/inet.h>
#include <cerrno>
#include <netdb.h>
#include <unistd.h>

#include <tests/sim/noted.h>
#include <veliaxdr/rvzd_lookup.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class ServerConnect : public BrokerTest {
protected:
    ServerConnect() { answer_ports({{AF_INET, 4000}, {AF_INET6, 6000}}); }
    ~ServerConnect() override {
        if (connection.client != nullptr)
            clnt_destroy(connection.client);
    }

    void answer_ports(std::vector<rvzd_server_port_t> ports, tbs_status_t status = TBS_ST_OK) {
        rvzd_find_server_reply_t record = {};
        record.header.status = status;
        record.ports.count = static_cast<uint32_t>(ports.size());
        for (size_t i = 0; i < ports.size(); ++i)
            record.ports.ports[i] = ports[i];
        world.peer.answer(RVZD_PROC_FIND_SERVER, sim::reply(xdr_rvzd_find_server_reply_t, record));
    }

    tbs_status_t connect_to(const char *host, bool tcp = false, const char *path = "/srv/db") {
        connection.transport = tcp;
        connection.wait_s = 3;
        const auto status = rvzd_connect_to_server(host, &trait, &connection, &uuid, path, "test server");
        expect_lock_is_free();
        return status;
    }

    // The connection failed and left nothing but the idle handle to the broker.
    void expect_nothing_left() {
        EXPECT_EQ(connection.client, nullptr);
        EXPECT_EQ(connection.socket_fd, -1);
        EXPECT_LE(world.live_clients(), 1u);
        EXPECT_EQ(world.live_descriptors(), world.live_clients());
    }

    // A port that nobody holds, below those that the system gives out by itself.
    static int free_port() {
        for (int port = 20000 + getpid() % 10000; port < 32000; ++port) {
            sockaddr_in any = {};
            any.sin_family = AF_INET;
            any.sin_port = htons(static_cast<uint16_t>(port));
            const int fd = socket(AF_INET, SOCK_DGRAM, 0);
            const bool is_free = bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any) == 0;
            close(fd);
            if (is_free)
                return port;
        }
        return 0;
    }

    sim::Message no_connection(const char *host = "alpha") {
        return message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 117, "test server", host);
    }

    rvzd_rpc_trait_t trait = {390600, 2, RVZD_PROTOCOL_UDP};
    tbs_uuid_t uuid = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};
    rvzd_connection_t connection = {};
};

TEST_F(ServerConnect, GivesAClientThatOwnsItsSocket) {
    for (const bool tcp : {false, true}) {
        ASSERT_EQ(connect_to("alpha", tcp), TBS_ST_OK);
        ASSERT_NE(connection.client, nullptr);
        EXPECT_GE(connection.socket_fd, 0);
        EXPECT_EQ(connection.server_addr.addr_count, 1u);
        EXPECT_EQ(world.live_descriptors(), 2u); // the broker's and the server's
        clnt_destroy(connection.client);
        connection.client = nullptr;
        EXPECT_EQ(world.live_descriptors(), 1u) << (tcp ? "TCP" : "UDP");
        EXPECT_THAT(world.take_messages(), IsEmpty());
    }
}

TEST_F(ServerConnect, TheClientCallsTheServersProgram) {
    for (const bool tcp : {false, true}) {
        ASSERT_EQ(connect_to("alpha", tcp), TBS_ST_OK);
        world.peer.answer(0, {});
        const auto void_routine = reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_void));
        EXPECT_EQ(clnt_call(connection.client, 0, void_routine, nullptr, void_routine, nullptr, (timeval{1, 0})),
                  RPC_SUCCESS);
        const auto &call = world.peer.last();
        EXPECT_EQ(call.program, 390600u);
        EXPECT_EQ(call.version, 2u);
        EXPECT_EQ(call.tcp, tcp);
        EXPECT_EQ(call.address.ipv4.sin_port, htons(4000));
        clnt_destroy(connection.client);
        connection.client = nullptr;
    }
}

TEST_F(ServerConnect, TheHandleToTheBrokerGoesBackToTheCache) {
    ASSERT_EQ(connect_to("alpha"), TBS_ST_OK);
    const size_t lookups = world.lookups.size();
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(world.lookups.size(), lookups);
    EXPECT_EQ(handle->cached->reference_count, 1);
    rvzd_free_handle(handle);
}

TEST_F(ServerConnect, OfTheCallersHalfOfTheHandleNothingIsLeft) {
    rvzd_free_handle(handle_to("alpha"));
    const size_t blocks = world.live_blocks();
    ASSERT_EQ(connect_to("alpha"), TBS_ST_OK);
    EXPECT_EQ(world.live_blocks(), blocks);
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(handle->cached->reference_count, 1);
    rvzd_free_handle(handle);
}

TEST_F(ServerConnect, ANullPathIsSentAndToldAsTheEmptyString) {
    answer_ports({}, TBS_ST_NOT_FOUND);
    EXPECT_EQ(connect_to("alpha", false, nullptr), TBS_ST_NOT_FOUND);
    auto request = world.peer.last().decode(xdr_rvzd_find_server_req_t);
    EXPECT_STREQ(request.path, "");
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_find_server_req_t), &request);
    char uuid_text[TBS_UUID_STR_SIZE];
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 115, "test server",
                                                              tbs_uuid_to_str(&uuid, uuid_text), "", "alpha")));
    expect_nothing_left();
}

TEST_F(ServerConnect, ABrokerThatCannotBeReachedIsNotFoundWhateverTheReason) {
    EXPECT_EQ(connect_to("nowhere"), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 27, "nowhere", gai_strerror(EAI_NONAME)),
                            message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 28, "nowhere")));
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    EXPECT_EQ(connect_to("alpha"), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 33, "alpha"),
                                                   message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 28, "alpha")));
    expect_nothing_left();
}

TEST_F(ServerConnect, AServerThatTheBrokerDoesNotKnowIsToldWithAllThatNamesIt) {
    answer_ports({}, 1234);
    EXPECT_EQ(connect_to("alpha"), 1234);
    char uuid_text[TBS_UUID_STR_SIZE];
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 115, "test server",
                                                              tbs_uuid_to_str(&uuid, uuid_text), "/srv/db", "alpha")));
}

TEST_F(ServerConnect, NoCommonFamilyIsToldAsNotFoundByTheBroker) {
    answer_ports({{AF_INET6, 6000}});
    EXPECT_EQ(connect_to("alpha"), TBS_ST_UNSUPPORTED);
    EXPECT_EQ(world.take_messages().size(), 1u);
}

TEST_F(ServerConnect, ARefusedConnectionIsAnError) {
    for (const int error_number : {ECONNREFUSED, ECONNRESET}) {
        world.faults.tcp_client = 0;
        world.faults.error_number = error_number;
        EXPECT_EQ(connect_to("alpha", true), TBS_ST_ERROR);
        EXPECT_THAT(world.take_messages(), ElementsAre(no_connection()));
        expect_nothing_left();
    }
}

TEST_F(ServerConnect, OtherCreationErrorsBecomeTheErrnosStatus) {
    world.faults.tcp_client = 0;
    world.faults.error_number = ENOMEM;
    EXPECT_EQ(connect_to("alpha", true), tbs_errno2status(ENOMEM));
    EXPECT_NE(tbs_errno2status(ENOMEM), TBS_ST_OK);
}

TEST_F(ServerConnect, ACreationErrorWithoutAnErrnoIsNoSuccess) {
    world.faults.tcp_client = 0;
    world.faults.error_number = 0;
    EXPECT_EQ(connect_to("alpha", true), TBS_ST_ERROR);
}

TEST_F(ServerConnect, TheUdpSocketOfAFailedAttemptIsClosedAtOnce) {
    world.faults.udp_client = 1; // the broker's own client is made
    EXPECT_EQ(connect_to("alpha"), tbs_errno2status(EIO));
    EXPECT_THAT(world.take_messages(), ElementsAre(no_connection()));
    expect_nothing_left();
}

TEST_F(ServerConnect, AUdpSocketThatCannotBeHadGivesItsOwnStatus) {
    world.faults.socket = 1;
    EXPECT_EQ(connect_to("alpha"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(no_connection()));
    expect_nothing_left();
}

TEST_F(ServerConnect, TheStatusOfTheFirstAddressTellsWhyNoneWorked) {
    world.faults.tcp_client = 0;
    world.faults.error_number = ENOMEM;
    EXPECT_EQ(connect_to("dual", true), tbs_errno2status(ENOMEM));
    EXPECT_THAT(world.take_messages(), ElementsAre(no_connection("dual")));
}

TEST_F(ServerConnect, OfTwoDifferentFailuresTheFirstIsTheResult) {
    rvzd_free_handle(handle_to("dual"));
    world.unreachable = {"127.0.0.4", "::1"};
    world.faults.error_number = ENOMEM;
    world.faults.socket = 1; // none for the second address
    EXPECT_EQ(connect_to("dual"), tbs_errno2status(ENOMEM));
    world.faults.socket = sim::Faults::never;
    setenv("IVL_IP_VERSION", "6", 1); // none for the first one
    EXPECT_EQ(connect_to("dual"), TBS_ST_ERROR);
    EXPECT_NE(tbs_errno2status(ENOMEM), TBS_ST_ERROR);
    expect_nothing_left();
}

TEST_F(ServerConnect, TheSocketOfTheFirstAddressIsClosedBeforeOneOfTheSecondIsOpened) {
    rvzd_free_handle(handle_to("dual"));
    world.unreachable = {"127.0.0.4"};
    world.faults.error_number = ECONNREFUSED;
    world.network.opened.clear();
    ASSERT_EQ(connect_to("dual"), TBS_ST_OK);
    ASSERT_EQ(world.network.opened.size(), 2u);
    EXPECT_EQ(world.network.opened[0], world.network.opened[1]); // the lowest number that is free
}

TEST_F(ServerConnect, AUdpSocketIsBoundByTheRuleOfTheServersProgram) {
    trait.prog = RVZD_FLADM_PROGRAM;
    const auto bound_port = [this] {
        sockaddr_in local = {};
        socklen_t length = sizeof local;
        getsockname(connection.socket_fd, reinterpret_cast<sockaddr *>(&local), &length);
        return ntohs(local.sin_port);
    };
    const int port = free_port();
    world.write_file("config/services/rvzd_rt_params.conf", "FLADM_SVR_PORT = " + std::to_string(port) + "\n");
    ASSERT_EQ(connect_to("alpha"), TBS_ST_OK);
    EXPECT_EQ(bound_port(), port);
}

TEST_F(ServerConnect, AUdpSocketThatCannotBeBoundIsTold) {
    rvzd_free_handle(handle_to("alpha"));
    world.faults.bind = 0;
    world.faults.error_number = EACCES;
    EXPECT_EQ(connect_to("alpha"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "bind",
                                                                imsg_strerror(EACCES))),
                            no_connection()));
    expect_nothing_left();
}

TEST_F(ServerConnect, ASuccessAtTheSecondAddressWarnsOfTheFirst) {
    // The address that fails is the first: the resolver gives IPv4, and only IPv6 has a socket.
    rvzd_free_handle(handle_to("dual"));
    setenv("IVL_IP_VERSION", "6", 1);
    ASSERT_EQ(connect_to("dual"), TBS_ST_OK);
    EXPECT_EQ(connection.server_addr.addr_count, 2u);
    // A socket that the restriction refuses has no text of its own, so only the restriction is told.
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 122)));
}

TEST_F(ServerConnect, ASuccessAtTheSecondAddressWarnsWithTheErrorOfTheFirst) {
    rvzd_free_handle(handle_to("dual"));
    world.unreachable = {"127.0.0.4"};
    world.faults.error_number = ECONNREFUSED;
    for (const bool tcp : {false, true}) {
        ASSERT_EQ(connect_to("dual", tcp), TBS_ST_OK);
        const auto messages = world.take_messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].severity, IMSG_WARNING);
        EXPECT_EQ(messages[0].index, -1);
        EXPECT_THAT(messages[0].text, StartsWith(tcp ? "ks_clnttcp_create: " : "ks_clntudp_create: "));
        EXPECT_THAT(messages[0].text, testing::EndsWith("\n"));
        EXPECT_THAT(messages[0].text, testing::Not(testing::EndsWith("\n\n")));
        world.peer.answer(0, {});
        const auto void_routine = reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_void));
        clnt_call(connection.client, 0, void_routine, nullptr, void_routine, nullptr, (timeval{1, 0}));
        EXPECT_EQ(world.peer.last().address.base.sa_family, AF_INET6);
        EXPECT_EQ(world.peer.last().address.ipv6.sin6_port, htons(6000));
        clnt_destroy(connection.client);
        connection.client = nullptr;
    }
}

TEST_F(ServerConnect, AUdpClientSendsAgainAfterTheCallersInterval) {
    ASSERT_EQ(connect_to("alpha"), TBS_ST_OK);
    EXPECT_EQ(world.udp_intervals.back().tv_sec, 3);
    clnt_destroy(connection.client);
    connection.wait_s = 11;
    ASSERT_EQ(rvzd_connect_to_server("alpha", &trait, &connection, &uuid, "", "test server"), TBS_ST_OK);
    EXPECT_EQ(world.udp_intervals.back().tv_sec, 11);
    EXPECT_EQ(world.udp_intervals.back().tv_usec, 0);
}

TEST_F(ServerConnect, DoesNotTraceBelowItsVerbosityOrUnasked) {
    world.verbosity = 1;
    world.traced = {"xdr/rvzd:2"};
    ASSERT_EQ(connect_to("alpha", true), TBS_ST_OK);
    clnt_destroy(connection.client);
    world.verbosity = 9;
    world.traced.clear();
    ASSERT_EQ(connect_to("alpha", true), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerConnect, TracesATcpConnectionWithItsTwoEnds) {
    world.verbosity = 2;
    world.traced = {"xdr/rvzd:2"};
    ASSERT_EQ(connect_to("alpha", true), TBS_ST_OK);
    const auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].severity, IMSG_TRACE);
    EXPECT_THAT(messages[0].text, StartsWith("rvzd_tcp clnt "));
    EXPECT_THAT(messages[0].text, testing::EndsWith("remote 127.0.0.2:4000\n"));
}

TEST_F(ServerConnect, DoesNotTraceUdp) {
    world.verbosity = 9;
    world.traced = {"xdr/rvzd:2"};
    ASSERT_EQ(connect_to("alpha"), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerConnect, LeavesTheCallersWordsInFrontAlone) {
    connection.caller_data[0] = &connection;
    connection.caller_data[1] = &trait;
    ASSERT_EQ(connect_to("alpha"), TBS_ST_OK);
    EXPECT_EQ(connection.caller_data[0], &connection);
    EXPECT_EQ(connection.caller_data[1], &trait);
}

TEST_F(ServerConnect, EachFailingAllocationFailsWithoutALeak) {
    for (const bool tcp : {false, true}) {
        rvzd_free_handle(handle_to("alpha"));
        const auto before = sim::Holdings::now(world);
        tbs_status_t status = TBS_ST_OK;
        sim::sweep_allocations(
            world, [&] { status = connect_to("alpha", tcp); },
            [&](int number) {
                EXPECT_NE(status, TBS_ST_OK) << number;
                EXPECT_EQ(connection.client, nullptr);
                EXPECT_EQ(sim::Holdings::now(world), before) << number;
            });
        EXPECT_EQ(status, TBS_ST_OK);
        clnt_destroy(connection.client);
        connection.client = nullptr;
    }
}

TEST_F(ServerConnect, AnErrorTextWithoutStorageIsLeftOut) {
    rvzd_free_handle(handle_to("alpha"));
    world.faults.tcp_client = 0;
    world.faults.error_number = ECONNREFUSED;
    const auto before = sim::Holdings::now(world);
    sim::sweep_allocations(
        world, [&] { connect_to("alpha", true); },
        [&](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(ServerConnect, ARaiseWaitsUntilTheConnectionIsTheCallers) {
    for (const bool tcp : {false, true}) {
        rvzd_free_handle(handle_to("alpha"));
        const auto before = sim::Holdings::now(world);
        const int raises = sim::sweep_raises(
            world,
            [&] {
                connection.transport = tcp;
                rvzd_connect_to_server("alpha", &trait, &connection, &uuid, nullptr, "test server");
            },
            [&](int number) {
                ASSERT_NE(connection.client, nullptr) << number;
                EXPECT_NE(connection.socket_fd, -1) << number;
                clnt_destroy(connection.client);
                connection.client = nullptr;
                EXPECT_EQ(sim::Holdings::now(world), before) << number;
                EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
            });
        EXPECT_GE(raises, 5);
        ASSERT_NE(connection.client, nullptr);
        clnt_destroy(connection.client);
        connection.client = nullptr;
    }
}

// An operation that raises by itself does not wait for the end of the connecting.
TEST_F(ServerConnect, ARaiseOutOfTheConnectingTakesBackWhatItHasMade) {
    world.add_host("dual", {"127.0.0.4", "::1"});
    rvzd_free_handle(handle_to("dual"));
    const auto before = sim::Holdings::now(world);
    world.on_message = [](const sim::Message &) { pfm_raise(sim::raise_code); };
    auto connecting = [&] { rvzd_connect_to_server("dual", &trait, &connection, &uuid, nullptr, "test server"); };
    answer_ports({}, TBS_ST_NOT_FOUND); // told with the broker's handle in hand
    EXPECT_EQ(sim::run_and_catch(connecting), sim::raise_code);
    EXPECT_EQ(sim::Holdings::now(world), before);
    EXPECT_EQ(sim::release_lock(rvzd_call_lock), 1);
    answer_ports({{AF_INET, 4000}, {AF_INET6, 6000}});
    world.unreachable = {"127.0.0.4"}; // told with the connection in hand
    EXPECT_EQ(sim::run_and_catch(connecting), sim::raise_code);
    EXPECT_EQ(world.live_clients(), before.clients);
    EXPECT_EQ(world.live_descriptors(), before.descriptors);
    EXPECT_EQ(connection.client, nullptr);
    EXPECT_EQ(connection.socket_fd, -1);
    EXPECT_EQ(sim::release_lock(rvzd_call_lock), 1);
    world.on_message = nullptr;
    rvzd_handle_t *handle = handle_to("dual");
    EXPECT_EQ(handle->cached->reference_count, 1);
    rvzd_free_handle(handle);
}

TEST_F(ServerConnect, ARaiseOutOfTheMakingOfAUdpClientClosesItsSocket) {
    rvzd_free_handle(handle_to("alpha"));
    const auto before = sim::Holdings::now(world);
    sim::noted().raise_of_udp_client = sim::raise_code;
    auto connecting = [&] { rvzd_connect_to_server("alpha", &trait, &connection, &uuid, nullptr, "test server"); };
    EXPECT_EQ(sim::run_and_catch(connecting), sim::raise_code);
    EXPECT_EQ(sim::Holdings::now(world), before);
    EXPECT_EQ(connection.socket_fd, -1);
    EXPECT_EQ(sim::release_lock(rvzd_call_lock), 1);
}

} // namespace
