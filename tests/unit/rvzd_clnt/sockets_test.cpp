#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tests/sim/without_standard_input.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto allocate_one = velia::rvzd_clnt::rvzd_alloc_one_socket;

class Sockets : public BrokerTest {
protected:
    ~Sockets() override {
        for (int fd : std::set<int>(world.descriptors))
            close(fd);
    }

    tbs_status_t alloc(int type = SOCK_DGRAM, uint64_t program = 1) {
        return rvzd_alloc_sockets(type, 1, program, &desc, &count);
    }

    // Takes a port for the test's own use; 0 asks the system for one.
    int take_port(int port, int family = AF_INET) {
        const int fd = socket(family, SOCK_DGRAM, 0);
        ks_sockaddr_storage_t address;
        sysutl_sockaddr_any_init(family, &address);
        sysutl_sockaddr_set_port(&address.base, htons(static_cast<uint16_t>(port)));
        if (bind(fd, &address.base, sysutl_sockaddr_size(&address.base)) != 0) {
            close(fd);
            return -1;
        }
        socklen_t length = sizeof address;
        getsockname(fd, &address.base, &length);
        uint16_t network_port = 0;
        sysutl_sockaddr_get_port(&address.base, &network_port);
        return ntohs(network_port);
    }

    static int port_of(const rvzd_socket_desc_t &desc) {
        uint16_t network_port = 0;
        sysutl_sockaddr_get_port(&desc.addr.base, &network_port);
        return ntohs(network_port);
    }

    rvzd_socket_desc_t desc = {};
    uint32_t count = 77;
};

TEST_F(Sockets, IPv6ComesFirstAndOneSocketIsEnough) {
    ASSERT_EQ(alloc(), TBS_ST_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(desc.addr.base.sa_family, AF_INET6);
    EXPECT_EQ(desc.protocol, RVZD_PROTOCOL_UDP);
    EXPECT_NE(port_of(desc), 0);
    EXPECT_EQ(world.live_descriptors(), 1u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Sockets, AStreamSocketIsTcp) {
    ASSERT_EQ(alloc(SOCK_STREAM), TBS_ST_OK);
    EXPECT_EQ(desc.protocol, RVZD_PROTOCOL_TCP);
    int type = 0;
    socklen_t length = sizeof type;
    getsockopt(desc.fd, SOL_SOCKET, SO_TYPE, &type, &length);
    EXPECT_EQ(type, SOCK_STREAM);
}

TEST_F(Sockets, WhereIPv6CannotBeHadIPv4Serves) {
    setenv("IVL_IP_VERSION", "4", 1);
    ASSERT_EQ(alloc(), TBS_ST_OK);
    EXPECT_EQ(desc.addr.base.sa_family, AF_INET);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 121)));
}

TEST_F(Sockets, IPv6OnlyOnAHostWithoutIPv6FailsBothWays) {
    setenv("IVL_IP_VERSION", "6", 1);
    world.faults.socket = 0;
    EXPECT_EQ(alloc(), TBS_ST_ERROR);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(desc.fd, -1);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 122),
                                                   message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 5, "")));
}

TEST_F(Sockets, ARestrictionToIPv6ForbidsTheFallBackToIPv4) {
    world.network.descriptors = {-1}; // of IPv6 alone: IPv4 could be had
    setenv("IVL_IP_VERSION", "6", 1);
    EXPECT_EQ(alloc(), TBS_ST_ERROR);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(world.live_descriptors(), 0u);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 122),
                                                   message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 5, "")));
    unsetenv("IVL_IP_VERSION");
    world.network.descriptors = {-1};
    EXPECT_EQ(alloc(), TBS_ST_OK);
    EXPECT_EQ(desc.addr.base.sa_family, AF_INET);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Sockets, OtherValuesOfTheRestrictionAreIgnored) {
    for (const char *value : {"", "5", "46", "ipv4", "0", "-4"}) {
        setenv("IVL_IP_VERSION", value, 1);
        EXPECT_EQ(alloc(), TBS_ST_OK) << value;
        EXPECT_EQ(desc.addr.base.sa_family, AF_INET6) << value;
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Sockets, ASocketThatCannotBeHadIsToldOnce) {
    world.faults.socket = 0;
    EXPECT_EQ(alloc(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 5, "")));
}

TEST_F(Sockets, ABindThatFailsIsReportedForIPv4OnlyAndClosesTheSocket) {
    world.faults.bind = 0;
    world.faults.error_number = EACCES;
    EXPECT_EQ(alloc(), TBS_ST_ERROR);
    EXPECT_EQ(world.live_descriptors(), 0u);
    EXPECT_EQ(desc.fd, -1);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "bind",
                                                                imsg_strerror(EACCES))),
                            message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 5, "")));
}

TEST_F(Sockets, AGetsocknameThatFailsIsReportedForIPv4OnlyAndClosesTheSocket) {
    world.faults.getsockname = 0;
    world.faults.error_number = ENOBUFS;
    EXPECT_EQ(alloc(), TBS_ST_ERROR);
    EXPECT_EQ(world.live_descriptors(), 0u);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 22, imsg_strerror(ENOBUFS)),
                            message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 5, "")));
}

TEST_F(Sockets, TheDescriptorOfAClosedStandardInputIsOneLikeAnyOther) {
    const sim::WithoutStandardInput without;
    ASSERT_EQ(alloc(), TBS_ST_OK);
    EXPECT_EQ(desc.fd, STDIN_FILENO);
    EXPECT_EQ(desc.addr.base.sa_family, AF_INET6);
    EXPECT_EQ(world.live_descriptors(), 1u);
}

TEST_F(Sockets, TracesTellOfTheFallBackAndOfTheSocket) {
    world.verbosity = 3;
    world.traced = {"xdr/rvzd:1", "xdr/rvzd:3"};
    setenv("IVL_IP_VERSION", "4", 1);
    ASSERT_EQ(alloc(), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_WARNING, _rvzd_rvzd_msg_table, 121),
                                                   message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 119),
                                                   message_of(IMSG_PLAIN, _rvzd_rvzd_msg_table, 120),
                                                   message_of(IMSG_PLAIN, _rvzd_rvzd_msg_table, 133, "AF_INET",
                                                              std::to_string(desc.fd).c_str(), port_of(desc), "UDP")));
}

TEST_F(Sockets, TracingAtALevelAboveTheVerbosityIsSilent) {
    world.verbosity = 0;
    world.traced = {"xdr/rvzd:1", "xdr/rvzd:3"};
    EXPECT_EQ(alloc(), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Sockets, SocketInfoHasAWordForWhatItDoesNotKnow) {
    rvzd_socket_desc_t unknown = {};
    unknown.fd = -1;
    unknown.protocol = RVZD_PROTOCOL_UNKNOWN;
    rvzd_print_socket_info(&unknown);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message_of(IMSG_PLAIN, _rvzd_rvzd_msg_table, 133, "UNKNOWN", "-1", 0, "UNKNOWN")));
}

TEST_F(Sockets, SocketInfoOfTcpOverIPv6) {
    ASSERT_EQ(alloc(SOCK_STREAM), TBS_ST_OK);
    rvzd_print_socket_info(&desc);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_PLAIN, _rvzd_rvzd_msg_table, 133, "AF_INET6",
                                                              std::to_string(desc.fd).c_str(), port_of(desc), "TCP")));
}

TEST_F(Sockets, AnotherFamilyIsAFailedAssertion) {
    EXPECT_DEATH(run_to_death([&] { allocate_one(AF_UNIX, SOCK_DGRAM, 1, 1, 1, desc); }),
                 "family == AF_INET \\|\\| family == AF_INET6 at rvzd_clnt, line 5847");
}

TEST_F(Sockets, AnotherSocketTypeIsAFailedAssertion) {
    EXPECT_DEATH(run_to_death([&] { allocate_one(AF_INET, SOCK_RAW, 1, 1, 1, desc); }),
                 "protocol == SOCK_STREAM \\|\\| protocol == SOCK_DGRAM at rvzd_clnt, line 5848");
}

class BindPort : public Sockets {
protected:
    // A range of `length` ports, eight at most, that nobody holds at this moment. Below the ports that the system gives
    // out by itself, and in a slot of this process's own, so that tests at the same time do not meet.
    int free_range(int length) {
        constexpr int first = 20000;
        constexpr int slot = 8;
        constexpr int slots = 1500;
        for (int i = 0; i < slots; ++i) {
            const int low = first + (getpid() + i * 97) % slots * slot;
            bool all_free = true;
            for (int port = low; port < low + length && all_free; ++port)
                all_free = take_port(port) == port;
            for (int fd : std::set<int>(world.descriptors))
                close(fd);
            if (all_free)
                return low;
        }
        return 0;
    }

    void range_file(int low, int high) {
        world.write_file("config/services/rvzd_rt_params.conf", "FLSHP_MIN_PORT = " + std::to_string(low) +
                                                                    "\nFLSHP_MAX_PORT = " + std::to_string(high) +
                                                                    "\n");
    }

    tbs_status_t bind_generic(int use_range = 1, int report = 1) {
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sysutl_sockaddr_any_init(AF_INET, &address);
        const auto status =
            rvzd_bindport(fd, &address.base, sizeof address.ipv4, RVZD_GENERIC_SERVICE_PROGRAM, use_range, report);
        socklen_t length = sizeof address;
        getsockname(fd, &address.base, &length);
        return status;
    }
    int bound_port() const { return ntohs(address.ipv4.sin_port); }

    ks_sockaddr_storage_t address = {};
};

TEST_F(BindPort, TakesTheFirstFreePortOfTheRangeUpwards) {
    const int low = free_range(3);
    range_file(low, low + 2);
    ASSERT_EQ(take_port(low), low);
    EXPECT_EQ(bind_generic(), TBS_ST_OK);
    EXPECT_EQ(bound_port(), low + 1);
    expect_lock_is_free();
}

TEST_F(BindPort, AnExhaustedRangeIsNoPortAndTold) {
    const int low = free_range(2);
    range_file(low, low + 1);
    ASSERT_EQ(take_port(low), low);
    ASSERT_EQ(take_port(low + 1), low + 1);
    EXPECT_EQ(bind_generic(), TBS_ST_NO_PORT);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 76, low, low + 1)));
    expect_lock_is_free();
}

TEST_F(BindPort, FailuresAreToldWithoutTheLock) {
    std::vector<uint32_t> depths;
    world.on_message = [&](const sim::Message &) { depths.push_back(rvzd_call_lock.depth); };
    range_file(100, 500);
    EXPECT_EQ(bind_generic(), TBS_ST_NO_PORT);
    world.faults.bind = 0;
    EXPECT_EQ(bind_generic(0), TBS_ST_ERROR);
    EXPECT_THAT(depths, ElementsAre(0u, 0u));
}

TEST_F(BindPort, AnInvertedRangeIsExhaustedWithoutATry) {
    // Clamping the low end lifts it above the high one.
    range_file(100, 500);
    EXPECT_EQ(bind_generic(), TBS_ST_NO_PORT);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 76, 1026, 500)));
}

TEST_F(BindPort, WithoutTheRangeAnyFreePortWillDo) {
    range_file(100, 500);
    EXPECT_EQ(bind_generic(0), TBS_ST_OK);
    EXPECT_NE(bound_port(), 0);
}

TEST_F(BindPort, ARangeOfEqualEndsLetsBindTakeAnyPort) {
    const int low = free_range(1);
    range_file(low, low);
    ASSERT_EQ(take_port(low), low);
    EXPECT_EQ(bind_generic(), TBS_ST_OK);
    EXPECT_NE(bound_port(), low);
}

TEST_F(BindPort, ARangeThatEndsAtTheLastPortWrapsToOneOfTheSystemsChoice) {
    range_file(65534, 65535);
    take_port(65534);
    take_port(65535);
    EXPECT_EQ(bind_generic(), TBS_ST_OK);
    EXPECT_LT(bound_port(), 65534);
}

TEST_F(BindPort, AWrappedWalkEndsWhenNoPortCanBeHad) {
    range_file(65534, 65535);
    world.faults.bind = 0;
    EXPECT_EQ(bind_generic(), TBS_ST_NO_PORT);
}

TEST_F(BindPort, AFailureOutsideARangeIsSilentUnlessReported) {
    world.faults.bind = 0;
    EXPECT_EQ(bind_generic(1, 0), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(BindPort, AllocationOfASocketTurnsAnExhaustedRangeIntoAnError) {
    range_file(100, 500);
    EXPECT_EQ(rvzd_alloc_sockets(SOCK_DGRAM, 1, RVZD_GENERIC_SERVICE_PROGRAM, &desc, &count), TBS_ST_ERROR);
    EXPECT_EQ(world.live_descriptors(), 0u);
}

TEST_F(Sockets, ARaiseDuringAllocationClosesOrHandsOverTheSocket) {
    const int raises = sim::sweep_raises(
        world, [&] { alloc(); },
        [&](int) {
            // What is open is what the descriptor names: the caller can close it.
            const size_t open = desc.fd >= 0 ? 1 : 0;
            EXPECT_EQ(world.live_descriptors(), open);
            if (desc.fd >= 0)
                close(desc.fd);
            desc.fd = -1;
            sim::release_lock(rvzd_call_lock);
        });
    EXPECT_GE(raises, 1);
}

} // namespace
