// Which server answers a find: shared, dedicated and self-started servers, and what is told when none does.
#include <tests/unit/server/table_fixture.h>

using namespace velia::server;

namespace {

using server_tests::row;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class FindServer : public server_tests::ServerTableTest {};

TEST_F(FindServer, OfAServiceThatNobodyOffersIsNotFoundAndTold) {
    const size_t asked = find("/repo", 1);
    EXPECT_EQ(status_of(asked), TBS_ST_NOT_FOUND);
    char text[TBS_UUID_STR_SIZE];
    const auto wanted = uuid(1);
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_WARNING, MSG_UNKNOWN_SERVER, 390600u, 1, 1,
                                            tbs_uuid_to_str(&wanted, text), "/repo", client_name)));
}

TEST_F(FindServer, StartsAServerAndIsAnsweredWhenItRegisters) {
    configure({service()});
    const size_t asked = find();
    EXPECT_FALSE(is_answered(asked));
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_PLAIN, MSG_EXECUTING, "/bin/server", 100, client_name)));
    EXPECT_EQ(register_server(100, 4321), TBS_ST_OK);
    EXPECT_EQ(status_of(asked), TBS_ST_OK);
    EXPECT_EQ(port_of(asked), 4321u);
    EXPECT_EQ(state(100), ProcessState::offered);
}

TEST_F(FindServer, WaitsForTheTransportThatItWants) {
    configure({service()});
    const size_t over_tcp = find("", 0, tcp_trait);
    register_server(100, 4000, udp_trait);
    EXPECT_FALSE(is_answered(over_tcp));
    register_server(100, 4001, tcp_trait);
    EXPECT_EQ(port_of(over_tcp), 4001u);
}

TEST_F(FindServer, OfASecondClientWaitsForTheServerThatIsStarting) {
    configure({service()});
    const size_t first = find();
    const size_t second = find();
    EXPECT_THAT(launcher.launched, SizeIs(1));
    register_server(100);
    EXPECT_EQ(status_of(first), TBS_ST_OK);
    EXPECT_EQ(status_of(second), TBS_ST_OK);
}

TEST_F(FindServer, TakesAnIdleServerBeforeItStartsAnother) {
    Service many = service();
    many.control.processes_max = 2;
    configure({many});
    running_server();
    EXPECT_EQ(status_of(find()), TBS_ST_OK);
    EXPECT_THAT(launcher.launched, SizeIs(1));
}

TEST_F(FindServer, StartsAnotherSharedServerWhileThereIsRoomAndTheFirstIsBusy) {
    Service many = service();
    many.control.processes_max = 2;
    configure({many});
    const int32_t first = running_server();
    table.report_busy(first, now);
    const size_t asked = find();
    EXPECT_FALSE(is_answered(asked));
    EXPECT_THAT(launcher.launched, SizeIs(2));
}

TEST_F(FindServer, TakesABusySharedServerWhenNoOtherMayBeStarted) {
    configure({service()});
    table.report_busy(running_server(), now);
    EXPECT_EQ(status_of(find()), TBS_ST_OK);
    EXPECT_THAT(launcher.launched, SizeIs(1));
}

TEST_F(FindServer, OfADedicatedServiceHasAProcessForEachPathAndUuid) {
    Service three = service(ServerKind::dedicated);
    three.control.processes_max = 3;
    configure({three});
    find("/a", 1);
    find("/b", 1);
    find("/a", 2);
    EXPECT_THAT(launcher.launched, SizeIs(3));
    find("/a", 1);
    EXPECT_THAT(launcher.launched, SizeIs(3));
}

TEST_F(FindServer, OfADedicatedServiceMeetsItsServerUnderAnAlternateUuid) {
    configure({service(ServerKind::dedicated)});
    find("/a", 1);
    register_server(100);
    EXPECT_EQ(table.add_alternate_uuid(100, uuid(9)), TBS_ST_OK);
    EXPECT_EQ(status_of(find("/a", 9)), TBS_ST_OK);
    EXPECT_THAT(launcher.launched, SizeIs(1));
}

TEST_F(FindServer, BeyondTheNumberOfServersIsRefusedAndTold) {
    Service one = service(ServerKind::dedicated);
    one.control.processes_max = 1;
    configure({one});
    find("/a", 1);
    messages();
    EXPECT_EQ(status_of(find("/b", 1)), TBS_ST_ERROR);
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_WARNING, MSG_TOO_FEW_SERVERS, "/bin/server")));
}

TEST_F(FindServer, IsRefusedForTheMomentWhenTooManyWait) {
    configure({service()});
    for (int i = 0; i < WAITERS_MAX; ++i)
        find_from(static_cast<uint32_t>(i / HOST_WAITERS_MAX));
    EXPECT_EQ(status_of(find_from(77)), TBS_ST_TRY_AGAIN);
    register_server(100);
    EXPECT_THAT(answers, SizeIs(WAITERS_MAX + 1));
}

TEST_F(FindServer, OfAHostOfWhichManyWaitIsRefusedForTheMomentAndThatOfAnotherIsNot) {
    configure({service()});
    for (int i = 0; i < HOST_WAITERS_MAX; ++i)
        find_from(1);
    EXPECT_EQ(status_of(find_from(1)), TBS_ST_TRY_AGAIN);
    const size_t other = find_from(2);
    EXPECT_FALSE(answers.contains(other));
    register_server(100);
    EXPECT_EQ(status_of(other), TBS_ST_OK);
}

TEST_F(FindServer, OfAServerThatCannotBeStartedIsAnErrorInTheLaunchersWords) {
    configure({service()});
    launcher.failure = {0, MSG_FORK_FAILED, "no more"};
    EXPECT_EQ(status_of(find()), TBS_ST_ERROR);
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_ERROR, MSG_FORK_FAILED, "no more")));
}

TEST_F(FindServer, MeetsAServerThatStartedByItself) {
    launcher.existing = {50};
    ASSERT_EQ(register_server(50, 4000, udp_trait, "/repo", 1), TBS_ST_OK);
    EXPECT_EQ(status_of(find("/repo", 1)), TBS_ST_OK);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FindServer, OfASelfStartedServerUnderAnotherUuidOrPathIsToldApart) {
    launcher.existing = {50};
    register_server(50, 4000, udp_trait, "/repo", 1);
    char text[TBS_UUID_STR_SIZE];
    const auto other = uuid(2);
    const auto same = uuid(1);
    EXPECT_EQ(status_of(find("/repo", 2)), TBS_ST_NOT_FOUND);
    EXPECT_THAT(messages(),
                Contains(row(IMSG_WARNING, MSG_WRONG_UUID, "390600.1", "/repo", tbs_uuid_to_str(&other, text))));
    EXPECT_EQ(status_of(find("/elsewhere", 1)), TBS_ST_NOT_FOUND);
    EXPECT_THAT(messages(), Contains(row(IMSG_WARNING, MSG_WRONG_PATH, client_name, "390600.1",
                                         tbs_uuid_to_str(&same, text), "/elsewhere")));
}

TEST_F(FindServer, ForgedLinesInAPathDoNotReachTheLog) {
    find("/a\nrvzd: Error: forged");
    const auto told = messages();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].text.find('\n'), told[0].text.size() - 1);
}

class ServerRegistration : public server_tests::ServerTableTest {};

TEST_F(ServerRegistration, OfAProcessThatDoesNotExistIsRefusedAndTold) {
    EXPECT_EQ(register_server(50), TBS_ST_ERROR);
    const auto told = messages();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].position, MSG_INVALID_REGISTER);
}

TEST_F(ServerRegistration, OfWhatIsNoServerIsRefused) {
    launcher.existing = {0, 1, 50};
    const auto is_refused = [&](const ServerTable::RegisterRequest &request) {
        return table.register_server(request, now) == TBS_ST_ERROR && table.processes().empty();
    };
    const ServerTable::RegisterRequest good = {udp_trait, uuid(1), "/a", ports(), 50, user};
    for (const int32_t pid : {-1, 0, 1}) {
        auto request = good;
        request.pid = pid;
        EXPECT_TRUE(is_refused(request)) << pid;
    }
    for (const rvzd_server_port_list_t &list : {rvzd_server_port_list_t{}, ports(0), ports(65536),
                                                rvzd_server_port_list_t{3, {{AF_INET, 1}, {AF_INET, 2}}}}) {
        auto request = good;
        request.ports = list;
        EXPECT_TRUE(is_refused(request));
    }
    for (const rvzd_rpc_trait_t &trait : {rvzd_rpc_trait_t{390600, 1, 3}, rvzd_rpc_trait_t{390600, 1, 0},
                                          rvzd_rpc_trait_t{RVZD_PROGRAM, 3, RVZD_PROTOCOL_UDP}}) {
        auto request = good;
        request.trait = trait;
        EXPECT_TRUE(is_refused(request));
    }
    auto request = good;
    request.path = std::string(SERVER_PATH_MAX + 1, 'a');
    EXPECT_TRUE(is_refused(request));
    EXPECT_EQ(table.register_server(good, now), TBS_ST_OK);
}

TEST_F(ServerRegistration, OfAServerOfOursIsForItsServiceOnly) {
    configure({service()});
    find();
    EXPECT_EQ(register_server(100, 4000, {390601, 1, RVZD_PROTOCOL_UDP}), TBS_ST_ERROR);
    EXPECT_EQ(register_server(100), TBS_ST_OK);
}

TEST_F(ServerRegistration, UnderAnotherPathReplacesTheFirstAndIsTold) {
    launcher.existing = {50};
    register_server(50, 4000, udp_trait, "/old");
    register_server(50, 4001, udp_trait, "/new");
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_WARNING, MSG_USED_TO_BE, 50, "/new", "/old")));
    ASSERT_THAT(table.processes().at(50).registrations, SizeIs(1));
    EXPECT_EQ(table.processes().at(50).registrations[0].ports.ports[0].port, 4001u);
}

TEST_F(ServerRegistration, OfOneProcessHasABound) {
    launcher.existing = {50};
    for (uint64_t version = 0; version < REGISTRATIONS_MAX; ++version)
        EXPECT_EQ(register_server(50, 4000, {390600, version, RVZD_PROTOCOL_UDP}), TBS_ST_OK);
    EXPECT_EQ(register_server(50, 4000, {390600, REGISTRATIONS_MAX, RVZD_PROTOCOL_UDP}), TBS_ST_ERROR);
    EXPECT_EQ(register_server(50, 4001, {390600, 0, RVZD_PROTOCOL_UDP}), TBS_ST_OK);
}

class ServerReports : public server_tests::ServerTableTest {};

TEST_F(ServerReports, OfUnknownProcessesAreToldAndNotFound) {
    EXPECT_EQ(table.report_idle(77, false, now), TBS_ST_NOT_FOUND);
    EXPECT_EQ(table.report_busy(77, now), TBS_ST_NOT_FOUND);
    EXPECT_EQ(table.add_alternate_uuid(77, uuid(1)), TBS_ST_NOT_FOUND);
    EXPECT_EQ(table.keep_sched_info(77, {}), TBS_ST_NOT_FOUND);
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_WARNING, MSG_IDLE_FROM_UNKNOWN, 77),
                                        row(IMSG_WARNING, MSG_BUSY_FROM_UNKNOWN, 77)));
}

TEST_F(ServerReports, IdleWithNothingToKeepEndsTheServer) {
    configure({service()});
    const int32_t pid = running_server();
    EXPECT_EQ(table.report_idle(pid, true, now), TBS_ST_OK);
    EXPECT_EQ(state(pid), ProcessState::ending);
    EXPECT_THAT(launcher.cut, ElementsAre(pid));
}

TEST_F(ServerReports, IdleWithNothingToKeepLeavesAResidentServerAlone) {
    configure({service(ServerKind::resident)});
    register_server(100);
    table.report_idle(100, true, now);
    EXPECT_EQ(state(100), ProcessState::idle);
}

TEST_F(ServerReports, AlternateUuidsHaveABoundAndTheSameOneCountsOnce) {
    configure({service()});
    const int32_t pid = running_server();
    for (uint8_t i = 1; i <= ALTERNATE_UUIDS_MAX; ++i) {
        EXPECT_EQ(table.add_alternate_uuid(pid, uuid(i)), TBS_ST_OK);
        EXPECT_EQ(table.add_alternate_uuid(pid, uuid(i)), TBS_ST_OK);
    }
    EXPECT_EQ(table.add_alternate_uuid(pid, uuid(99)), TBS_ST_ERROR);
    const auto told = messages();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].position, MSG_UUID_TABLE_FULL);
}

TEST_F(ServerReports, SchedInfoKeepsTheLatestOfEachKindUpToABound) {
    configure({service()});
    const int32_t pid = running_server();
    table.keep_sched_info(pid, {uuid(1), {1, 10}});
    table.keep_sched_info(pid, {uuid(1), {1, 11}});
    const auto &kept = table.processes().at(pid).sched_infos;
    ASSERT_THAT(kept, SizeIs(1));
    EXPECT_EQ(kept[0].pair.value, 11u);
    for (int32_t kind = 2; kind < 100; ++kind)
        table.keep_sched_info(pid, {uuid(1), {kind, 0}});
    EXPECT_THAT(kept, SizeIs(SCHED_INFOS_MAX));
    EXPECT_EQ(kept.back().pair.kind, 99);
}

} // namespace

TEST_F(FindServer, ConfiguredProgramIsServedByItsOwnUsersProcessesAlone) {
    auto of_another = service();
    of_another.user = geteuid() + 7;
    configure({of_another});
    launcher.existing = {50, 51};
    user = geteuid() + 8;
    EXPECT_EQ(register_server(50), TBS_ST_ERROR);
    user = geteuid();
    EXPECT_EQ(register_server(50), TBS_ST_ERROR) << "nor by the daemon's";
    user = geteuid() + 7;
    EXPECT_EQ(register_server(51, 4321), TBS_ST_OK);
    EXPECT_EQ(port_of(find()), 4321u);
}

TEST_F(FindServer, WhoRegistersLaterTakesNoClientsFromOthers) {
    launcher.existing = {50, 60, 40};
    user = geteuid() + 1;
    register_server(60, 6000);
    user = geteuid() + 2;
    register_server(50, 5000);
    EXPECT_EQ(port_of(find()), 6000u);
    user = geteuid();
    register_server(40, 4000);
    EXPECT_EQ(port_of(find()), 4000u) << "the administrator's goes first";
}

TEST_F(FindServer, ProcessOfAnotherUserHasNothingOfItsNumbersFormerOwner) {
    launcher.existing = {50};
    user = geteuid() + 1;
    register_server(50, 5000, tcp_trait);
    user = geteuid() + 2;
    register_server(50, 5001, udp_trait);
    EXPECT_EQ(table.processes().at(50).registrations.size(), 1u);
    EXPECT_EQ(status_of(find("", 0, tcp_trait)), TBS_ST_NOT_FOUND);
}
