#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <array>
#include <clocale>
#include <fcntl.h>
#include <unistd.h>

#include <veliaxdr/rvzd_svr.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StartSwitch : public BrokerTest {
protected:
    ~StartSwitch() override {
        for (int fd : std::set<int>(world.descriptors))
            close(fd);
    }

    int open_socket(int family, int type) {
        const int fd = socket(family, type, 0);
        ks_sockaddr_storage_t address;
        sysutl_sockaddr_any_init(family, &address);
        EXPECT_EQ(bind(fd, &address.base, sysutl_sockaddr_size(&address.base)), 0);
        return fd;
    }

    tbs_status_t take(const std::string &last, int given_argc = 2) {
        argument = last;
        argc = given_argc;
        char program[] = "server";
        std::array<char *, 3> argv = {program, argument.data(), nullptr};
        return rvzd_server_get_sockets(&argc, argv.data(), descs, &count);
    }

    void expect_bad_switch(const std::string &text) {
        EXPECT_EQ(take(text), TBS_ST_ERROR) << text;
        EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 58, text.c_str())));
    }

    std::string argument;
    int argc = 0;
    rvzd_socket_desc_t descs[4] = {};
    uint32_t count = 77;
};

TEST_F(StartSwitch, GivesTheSocketsTheirAddressesAndTransports) {
    const int udp = open_socket(AF_INET, SOCK_DGRAM);
    const int tcp = open_socket(AF_INET6, SOCK_STREAM);
    ASSERT_EQ(take("-S9:" + std::to_string(udp) + ",udp:" + std::to_string(tcp) + ",tcp"), TBS_ST_OK);
    EXPECT_EQ(argc, 1);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(descs[0].fd, udp);
    EXPECT_EQ(descs[0].protocol, RVZD_PROTOCOL_UDP);
    EXPECT_EQ(descs[0].addr.base.sa_family, AF_INET);
    EXPECT_NE(descs[0].addr.ipv4.sin_port, 0);
    EXPECT_EQ(descs[1].fd, tcp);
    EXPECT_EQ(descs[1].protocol, RVZD_PROTOCOL_TCP);
    EXPECT_EQ(descs[1].addr.base.sa_family, AF_INET6);
}

TEST_F(StartSwitch, TheLifelineIsWatchedAndRaisesWithCodeFour) {
    ASSERT_EQ(take("-S9:"), TBS_ST_ERROR); // an empty rest behind the colon
    ASSERT_EQ(world.watches.size(), 1u);
    EXPECT_EQ(world.watches[0].descriptor, 9);
    auto readable = [&] { world.watches[0].function(world.watches[0].argument); };
    EXPECT_EQ(sim::run_and_catch(readable), 4);
}

TEST_F(StartSwitch, ALifelineAloneGivesNoSockets) {
    EXPECT_EQ(take("-S9"), TBS_ST_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(argc, 1);
}

TEST_F(StartSwitch, FewerThanTwoArgumentsAreNotFoundAndTouchNothing) {
    EXPECT_EQ(take("-S9:", 1), TBS_ST_NOT_FOUND);
    EXPECT_EQ(argc, 1);
    EXPECT_EQ(count, 77u);
}

TEST_F(StartSwitch, ALastArgumentThatIsNotTheSwitchIsLeftAlone) {
    for (const char *text :
         {"", "-s9:", "-S", "-Sx:", "-S:3,udp", "S9:", "--S9:", "-S+ 9:", "-S- 9:", "-S+-9:", "-S99999999999:"}) {
        EXPECT_EQ(take(text), TBS_ST_NOT_FOUND) << text;
        EXPECT_EQ(argc, 2) << text;
        EXPECT_EQ(count, 0u) << text;
    }
    EXPECT_THAT(world.watches, IsEmpty());
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(StartSwitch, NumbersHaveTheBlanksAndSignsThatAScanAccepts) {
    const std::string fd = std::to_string(open_socket(AF_INET, SOCK_DGRAM));
    for (const std::string &text : {"-S+11:" + fd + ",udp", "-S \t\n11:\r " + fd + ",udp", "-S11:+" + fd + ",udp",
                                    "-S11 anything:" + fd + ",udp"}) {
        world.watches.clear();
        EXPECT_EQ(take(text), TBS_ST_OK) << text;
        EXPECT_EQ(count, 1u) << text;
        EXPECT_EQ(descs[0].fd, std::stoi(fd)) << text;
        ASSERT_THAT(world.watches, testing::SizeIs(1));
        EXPECT_EQ(world.watches[0].descriptor, 11) << text;
    }
}

TEST_F(StartSwitch, ANegativeDescriptorIsNoSocket) {
    EXPECT_EQ(take("-S9:-1,udp"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 22, imsg_strerror(EBADF))));
}

TEST_F(StartSwitch, OnlyTheLastArgumentIsLookedAt) {
    argc = 3;
    char program[] = "server";
    char first[] = "-S9:";
    char last[] = "last";
    std::array<char *, 4> argv = {program, first, last, nullptr};
    EXPECT_EQ(rvzd_server_get_sockets(&argc, argv.data(), descs, &count), TBS_ST_NOT_FOUND);
    EXPECT_EQ(argc, 3);
}

TEST_F(StartSwitch, EachMalformationIsABadSwitchWithItsText) {
    const std::string fd = std::to_string(open_socket(AF_INET, SOCK_DGRAM));
    for (const std::string &rest :
         std::vector<std::string>{":", ":" + fd, ":" + fd + ",", ":" + fd + ",sctp", ":" + fd + ",UDP", ":,udp",
                                  ":x,udp", ":" + fd + " udp", ":+,udp", ": -,udp", ":" + fd + ", udp",
                                  ":99999999999,udp", ":" + fd + "," + std::string(5000, 'u'), ":" + fd + ",udp:"})
        expect_bad_switch("-S9" + rest);
}

TEST_F(StartSwitch, ADescriptorThatIsNoSocketFailsWithTheSystemsWords) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(take("-S9:" + std::to_string(ends[0]) + ",udp"), TBS_ST_ERROR);
    EXPECT_EQ(count, 0u);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 22, imsg_strerror(ENOTSOCK))));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(StartSwitch, SocketsInFrontOfABadOneAreCounted) {
    const std::string fd = std::to_string(open_socket(AF_INET, SOCK_DGRAM));
    EXPECT_EQ(take("-S9:" + fd + ",udp:" + fd + ",nonsense"), TBS_ST_ERROR);
    EXPECT_EQ(count, 1u);
}

TEST_F(StartSwitch, ALifelineThatCannotBeWatchedIsAFailedAssertion) {
    world.faults.rt_handle_fd = 0;
    EXPECT_DEATH(run_to_death([this] { take("-S9"); }),
                 "rt_handle_fd\\(RT_READ, rvzd_handle_lifeline, lifeline_fd, NULL\\) at rvzd_clnt, line 2027");
}

class ServerStart : public BrokerTest {};

TEST_F(ServerStart, TheProcessNameIsArgumentZeroAndPid) {
    char program[] = "/opt/velia/bin/server";
    char *argv[] = {program, nullptr};
    char name[RVZD_SERVER_PROCESS_NAME_SIZE];
    rvzd_common_server_init(1, argv, name);
    EXPECT_EQ(name, "/opt/velia/bin/server(" + std::to_string(getpid()) + ")");
    EXPECT_EQ(world.app_name, name);
}

TEST_F(ServerStart, IsAnnouncedToTheSupportLayerWithAllThatItIsGiven) {
    char program[] = "server";
    char *argv[] = {program, nullptr};
    char name[RVZD_SERVER_PROCESS_NAME_SIZE];
    rvzd_common_server_init(1, argv, name);
    ASSERT_EQ(world.system_starts.size(), 1u);
    EXPECT_EQ(world.system_starts[0].argument_count, 1);
    EXPECT_EQ(world.system_starts[0].arguments, argv);
    EXPECT_EQ(world.system_starts[0].name, name);
}

TEST_F(ServerStart, TakesTheLocaleOfTheEnvironment) {
    char *argv[] = {nullptr};
    setenv("LC_ALL", "C.UTF-8", 1);
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    rvzd_common_server_init(0, argv, nullptr);
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.UTF-8");
    unsetenv("LC_ALL");
    setlocale(LC_ALL, "C");
}

TEST_F(ServerStart, TheNameBufferMayBeNull) {
    char program[] = "server";
    char *argv[] = {program, nullptr};
    rvzd_common_server_init(1, argv, nullptr);
    EXPECT_EQ(world.app_name, "server(" + std::to_string(getpid()) + ")");
}

TEST_F(ServerStart, WithoutAnArgumentZeroTheNameIsUnknown) {
    char *argv[] = {nullptr};
    char name[RVZD_SERVER_PROCESS_NAME_SIZE];
    rvzd_common_server_init(0, argv, name);
    EXPECT_STREQ(name, "unknown name");
    EXPECT_EQ(world.app_name, "unknown name");
    char uncounted[] = "server";
    char *more[] = {uncounted, nullptr};
    rvzd_common_server_init(0, more, name);
    EXPECT_STREQ(name, "unknown name");
}

TEST_F(ServerStart, AnOverlongArgumentZeroIsCutToTheBuffer) {
    std::string program(5000, 'p');
    char *argv[] = {program.data(), nullptr};
    char name[RVZD_SERVER_PROCESS_NAME_SIZE + 1];
    name[RVZD_SERVER_PROCESS_NAME_SIZE] = 'x';
    rvzd_common_server_init(1, argv, name);
    EXPECT_EQ(name[RVZD_SERVER_PROCESS_NAME_SIZE], 'x');
    EXPECT_EQ(strlen(name), size_t{RVZD_SERVER_PROCESS_NAME_SIZE} - 1);
}

TEST_F(ServerStart, TheLogFileReceivesMessages) {
    imsg_set_sink(nullptr, nullptr);
    world.write_file("log/keep", "");
    rvzd_setup_server_log_file("server.log");
    imsg_print(IMSG_ERROR, "written to the log\n", IMSG_FORMAT);
    FILE *log = fopen((world.root() + "/log/server.log").c_str(), "r");
    ASSERT_NE(log, nullptr);
    char line[256] = "";
    EXPECT_NE(fgets(line, sizeof line, log), nullptr);
    fclose(log);
    EXPECT_THAT(line, testing::HasSubstr("written to the log"));
}

TEST_F(ServerStart, ALogFileThatCannotBeOpenedIsToldWithItsPath) {
    const std::string path = world.root() + "/log/server.log"; // whose folder is not there
    rvzd_setup_server_log_file("server.log");
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 18, path.c_str(),
                                                                imsg_strerror(ENOENT)))));
}

TEST_F(ServerStart, ALogFileWhoseNameIsTooLongIsToldWithIt) {
    const std::string name(5000, 'n');
    rvzd_setup_server_log_file(name.c_str());
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 18, name.c_str(),
                                                                tbs_strerror(TBS_ST_NAME_TOO_LONG)))));
}

class PortLists : public BrokerTest {
protected:
    static rvzd_socket_desc_t desc(int family, uint16_t network_port) {
        rvzd_socket_desc_t made = {};
        made.addr.base.sa_family = static_cast<sa_family_t>(family);
        made.addr.ipv4.sin_port = network_port;
        return made;
    }
};

TEST_F(PortLists, APortStaysInNetworkOrder) {
    const auto v4 = desc(AF_INET, htons(4000));
    rvzd_server_port_t port = {};
    EXPECT_EQ(rvzd_server_port_from_desc(&v4, &port), TBS_ST_OK);
    EXPECT_EQ(port.family, AF_INET);
    EXPECT_EQ(port.port, htons(4000));
}

TEST_F(PortLists, AnotherFamilyIsAnError) {
    const auto unix_socket = desc(AF_UNIX, 0);
    rvzd_server_port_t port = {};
    EXPECT_EQ(rvzd_server_port_from_desc(&unix_socket, &port), TBS_ST_ERROR);
}

TEST_F(PortLists, TwoSocketsMakeAListOfTwo) {
    const rvzd_socket_desc_t descs[] = {desc(AF_INET6, htons(1)), desc(AF_INET, htons(2))};
    rvzd_server_port_list_t list = {};
    EXPECT_EQ(rvzd_port_list_from_socket_vec(descs, 2, &list), TBS_ST_OK);
    EXPECT_EQ(list.count, 2u);
    EXPECT_EQ(list.ports[0].family, AF_INET6);
    EXPECT_EQ(list.ports[1].port, htons(2));
}

TEST_F(PortLists, FewerThanOneSocketMakesAnEmptyList) {
    for (int32_t count : {0, -1}) {
        rvzd_server_port_list_t list = {9, {{1, 1}, {1, 1}}};
        EXPECT_EQ(rvzd_port_list_from_socket_vec(nullptr, count, &list), TBS_ST_OK);
        EXPECT_EQ(list.count, 0u);
    }
}

TEST_F(PortLists, MoreThanTwoSocketsAreAnError) {
    rvzd_socket_desc_t descs[3] = {desc(AF_INET, 1), desc(AF_INET, 2), desc(AF_INET, 3)};
    rvzd_server_port_list_t list;
    EXPECT_EQ(rvzd_port_list_from_socket_vec(descs, 3, &list), TBS_ST_ERROR);
}

} // namespace
