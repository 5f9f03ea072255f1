// The connection of a record: which address carries it, its socket, its RPC client and its authenticator.
#include <tests/unit/rvzd_clnt/handle_fixture.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <tests/sim/noted.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int nobody = 65534;

class ClientMaking : public HandleTest {};

TEST_F(ClientMaking, AUdpClientSendsAgainAfterThreeSeconds) {
    rvzd_free_handle(handle_to("alpha"));
    ASSERT_EQ(world.udp_intervals.size(), 1u);
    EXPECT_EQ(world.udp_intervals[0].tv_sec, 3);
    EXPECT_EQ(world.udp_intervals[0].tv_usec, 0);
}

TEST_F(ClientMaking, TheAuthenticatorThatAClientComesWithIsGivenBack) {
    for (const uint32_t protocol : {RVZD_PROTOCOL_UDP, RVZD_PROTOCOL_TCP}) {
        rvzd_handle_t *handle = handle_to("alpha", protocol);
        EXPECT_EQ(sim::noted().first_authenticators, 0u);
        rvzd_free_handle(handle);
    }
    EXPECT_EQ(sim::noted().authenticators, 2u); // of the idle connections
}

TEST_F(ClientMaking, TheFirstAddressWithASocketCarriesTheTraffic) {
    setenv("IVL_IP_VERSION", "6", 1);
    rvzd_handle_t *handle = handle_to("dual");
    EXPECT_EQ(world.peer.last().address.base.sa_family, AF_INET6);
    EXPECT_EQ(handle->cached->server_addr.addr_count, 2u);
    rvzd_free_handle(handle);
}

TEST_F(ClientMaking, TheSocketIsBoundByTheRuleOfNoOtherProgram) {
    const int fixed_port = 20000 + getpid() % 12000;
    world.write_file("config/services/rvzd_rt_params.conf",
                     "FLSHP_MIN_PORT = 100\nFLSHP_MAX_PORT = 500\nIVLADM_SVR_PORT = " + std::to_string(fixed_port) +
                         "\nFLADM_SVR_PORT = " + std::to_string(fixed_port) + "\n");
    rvzd_handle_t *plain = handle_to("alpha");
    rvzd_handle_t *generic = nullptr; // the range of its program is exhausted: it is below the ports that may be used
    ASSERT_EQ(rvzd_get_generic_service_handle("beta", RVZD_PROTOCOL_UDP, RVZD_GENERIC_SERVICE_PROGRAM, &generic),
              TBS_ST_OK);
    for (rvzd_handle_t *handle : {plain, generic}) {
        sockaddr_in local = {};
        socklen_t length = sizeof local;
        ASSERT_EQ(getsockname(handle->cached->socket_fd, reinterpret_cast<sockaddr *>(&local), &length), 0);
        EXPECT_NE(ntohs(local.sin_port), fixed_port);
        rvzd_free_handle(handle);
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ClientMaking, ASocketThatCannotBeBoundIsToldEvenWhenQuiet) {
    world.faults.bind = 0;
    world.faults.error_number = EACCES;
    const auto bind_failed =
        sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "bind", imsg_strerror(EACCES)));
    EXPECT_EQ(fail_to_get(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(bind_failed, cannot_contact()));
    EXPECT_EQ(fail_to_get("alpha", RVZD_PROTOCOL_UDP, 1), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(bind_failed));
}

TEST_F(ClientMaking, IPv6OnlyOnAHostThatResolvesToIPv4OnlyIsAnError) {
    setenv("IVL_IP_VERSION", "6", 1);
    EXPECT_EQ(fail_to_get("alpha"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 122), cannot_contact()));
}

TEST_F(ClientMaking, AHostWithoutAddressesIsAnError) {
    world.add_host("empty", {});
    EXPECT_EQ(fail_to_get("empty"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(cannot_contact("empty")));
}

TEST_F(ClientMaking, NoSocketIsAnErrorToldOnce) {
    world.faults.socket = 0;
    EXPECT_EQ(fail_to_get(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(cannot_contact()));
}

TEST_F(ClientMaking, AUdpClientThatIsNotMadeIsToldEvenWhenQuiet) {
    world.faults.udp_client = 0;
    world.faults.error_number = ENOBUFS;
    const std::string reason = std::string("rpcudp_create: ") + clnt_sperrno(RPC_SYSTEMERROR);
    EXPECT_EQ(fail_to_get(), TBS_ST_ERROR);
    auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].severity, IMSG_ERROR);
    EXPECT_THAT(messages[0].text, testing::StartsWith(reason));
    EXPECT_EQ(messages[1], cannot_contact());
    EXPECT_EQ(fail_to_get("alpha", RVZD_PROTOCOL_UDP, 1), TBS_ST_ERROR);
    messages = world.take_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0].text, testing::StartsWith(reason));
}

TEST_F(ClientMaking, ATcpClientThatIsNotMadeIsToldEvenWhenQuiet) {
    world.faults.tcp_client = 0;
    EXPECT_EQ(fail_to_get("alpha", RVZD_PROTOCOL_TCP), TBS_ST_ERROR);
    auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_THAT(messages[0].text, testing::StartsWith("rpctcp_create: "));
    EXPECT_EQ(messages[1], cannot_contact());
    EXPECT_EQ(fail_to_get("alpha", RVZD_PROTOCOL_TCP, 1), TBS_ST_ERROR);
    EXPECT_EQ(world.take_messages().size(), 1u);
}

TEST_F(ClientMaking, NoLaterStepFallsBackToTheOtherAddress) {
    world.faults.udp_client = 0;
    EXPECT_EQ(fail_to_get("dual"), TBS_ST_ERROR);
    EXPECT_EQ(world.take_messages().size(), 2u);
}

TEST_F(ClientMaking, WithoutAnAuthenticatorItFailsSilentlyAndWithoutASecondAttempt) {
    world.faults.authenticator = 0;
    EXPECT_EQ(fail_to_get(), TBS_ST_ERROR);
    EXPECT_EQ(world.next_uniquifier, 1001u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ClientMaking, TheTraceOfThePortNeedsAVerbosityAboveThree) {
    world.traced = {"xdr/rvzd:4"};
    world.verbosity = 3;
    rvzd_free_handle(handle_to("alpha"));
    EXPECT_THAT(world.take_messages(), IsEmpty());
    world.verbosity = 4;
    rvzd_handle_t *handle = handle_to("beta");
    ks_sockaddr_storage_t local;
    socklen_t length = sizeof local;
    getsockname(handle->cached->socket_fd, &local.base, &length);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(text_message(IMSG_TRACE, "handle port allocated was " +
                                                         std::to_string(ntohs(local.ipv4.sin_port)) + "\n")));
    rvzd_free_handle(handle);
}

TEST_F(ClientMaking, WhenTracingAGetsocknameThatFailsEndsTheAttempt) {
    world.traced = {"xdr/rvzd:4"};
    world.verbosity = 4;
    world.faults.getsockname = 1;
    world.faults.error_number = ENOBUFS;
    EXPECT_EQ(fail_to_get(), TBS_ST_ERROR);
    EXPECT_THAT(
        world.take_messages(),
        ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 22, imsg_strerror(ENOBUFS)), cannot_contact()));
}

TEST_F(ClientMaking, AStrictRangeMakesTheTcpConnectionByHand) {
    world.write_file("config/services/rvzd_rt_params.conf",
                     "FLSHP_MIN_PORT = 20000\nFLSHP_MAX_PORT = 20100\nFLSHP_STRICT = 1\n");
    world.faults.connect = 0;
    world.faults.error_number = ECONNREFUSED;
    rvzd_handle_t *handle = nullptr;
    EXPECT_EQ(rvzd_get_generic_service_handle("alpha", RVZD_PROTOCOL_TCP, RVZD_GENERIC_SERVICE_PROGRAM, &handle),
              TBS_ST_ERROR);
    EXPECT_THAT(
        world.take_messages(),
        ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 72, imsg_strerror(ECONNREFUSED)), cannot_contact()));
    EXPECT_EQ(world.live_descriptors(), 0u);
    world.faults.connect = sim::Faults::never;
    ASSERT_EQ(rvzd_get_generic_service_handle("alpha", RVZD_PROTOCOL_TCP, RVZD_GENERIC_SERVICE_PROGRAM, &handle),
              TBS_ST_OK);
    EXPECT_TRUE(world.peer.last().tcp);
    EXPECT_EQ(world.live_descriptors(), 1u);
    rvzd_free_handle(handle);
}

TEST_F(ClientMaking, ATcpConnectionWithoutAStrictRangeOpensItsOwnSocket) {
    world.faults.connect = 0; // would fail a connection made by hand
    rvzd_handle_t *handle = handle_to("alpha", RVZD_PROTOCOL_TCP);
    EXPECT_EQ(world.live_descriptors(), 1u);
    rvzd_free_handle(handle);
}

TEST_F(ClientMaking, ARangeThatIsNotStrictIsNoneForTcp) {
    world.write_file("config/services/rvzd_rt_params.conf", "FLSHP_MIN_PORT = 20000\nFLSHP_MAX_PORT = 20100\n");
    world.faults.connect = 0; // as above
    rvzd_handle_t *handle = nullptr;
    ASSERT_EQ(rvzd_get_generic_service_handle("alpha", RVZD_PROTOCOL_TCP, RVZD_GENERIC_SERVICE_PROGRAM, &handle),
              TBS_ST_OK);
    EXPECT_EQ(world.live_descriptors(), 1u);
    rvzd_free_handle(handle);
}

TEST_F(ClientMaking, TheSocketIsClosedOnExec) {
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(fcntl(handle->cached->socket_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    rvzd_free_handle(handle);
}

TEST_F(ClientMaking, PrimDecidesWhoseCredentialsTravel) {
    const auto uid_of = [](rvzd_handle_t *handle) {
        XDR xdrs;
        auto &raw = rvzd_get_rpc_clnt(handle)->cl_auth->ah_cred;
        EXPECT_EQ(raw.oa_flavor, AUTH_SYS);
        authunix_parms parms = {};
        xdrmem_create(&xdrs, raw.oa_base, raw.oa_length, XDR_DECODE);
        EXPECT_TRUE(xdr_authunix_parms(&xdrs, &parms));
        const auto uid = parms.aup_uid;
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_authunix_parms), &parms);
        return static_cast<int>(uid);
    };
    rvzd_handle_t *plain = handle_to("alpha", RVZD_PROTOCOL_UDP, 0);
    rvzd_handle_t *prim = handle_to("alpha", RVZD_PROTOCOL_UDP, 1);
    EXPECT_EQ(uid_of(plain), nobody);
    EXPECT_EQ(uid_of(prim), static_cast<int>(geteuid()));
    rvzd_free_handle(plain);
    rvzd_free_handle(prim);
}

} // namespace
