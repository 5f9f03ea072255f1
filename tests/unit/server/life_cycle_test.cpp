// Life and death of servers: time-outs, exits, restarts and their limits. Time is the test's.
#include <tests/unit/server/table_fixture.h>

#include <cerrno>

using namespace velia::server;

namespace {

using server_tests::row;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class LifeCycle : public server_tests::ServerTableTest {
protected:
    // Lets time pass to the moment that the table names, and does what is due.
    void pass_to_next_due() {
        const auto due = table.next_due();
        ASSERT_TRUE(due.has_value());
        now = std::max(now, *due);
        table.run_due(now);
    }
};

TEST_F(LifeCycle, AServerThatNeverRegistersIsKilledAfterItsStartTime) {
    configure({service()});
    const size_t asked = find();
    messages();
    pass_s(29);
    EXPECT_THAT(launcher.killed, IsEmpty());
    pass_s(1);
    EXPECT_THAT(launcher.killed, ElementsAre(100));
    EXPECT_EQ(status_of(asked), TBS_ST_ERROR);
    exits(100, 0, 9);
    EXPECT_FALSE(is_known(100));
    const auto told = messages();
    ASSERT_THAT(told, SizeIs(2));
    EXPECT_EQ(told[0], row(IMSG_WARNING, MSG_SERVER_SIGNALLED, "/bin/server", 100, 9));
    EXPECT_EQ(told[1].position, MSG_DIED_ON_STARTUP);
}

TEST_F(LifeCycle, AServerThatDiesOnStartupAnswersItsWaitersAndIsDownForAWhile) {
    configure({service()});
    const size_t asked = find();
    exits(100, 3);
    EXPECT_EQ(status_of(asked), TBS_ST_ERROR);
    EXPECT_EQ(status_of(find()), TBS_ST_ERROR);
    EXPECT_THAT(launcher.launched, SizeIs(1));
    now += 250;
    find();
    EXPECT_THAT(launcher.launched, SizeIs(2));
}

TEST_F(LifeCycle, TheTimeDownDoublesWithEachFailureUpToAMinute) {
    configure({service()});
    int64_t down_ms = 250;
    for (int failure = 1; failure <= 12; ++failure) {
        find();
        exits(launcher.next_pid - 1, 1);
        const size_t started = launcher.launched.size();
        now += down_ms - 1;
        find();
        EXPECT_THAT(launcher.launched, SizeIs(started)) << failure;
        now += 1;
        down_ms = std::min<int64_t>(down_ms * 2, 60000);
    }
}

TEST_F(LifeCycle, AReportOfWorkForgivesEarlierFailures) {
    configure({service()});
    find();
    exits(100, 1);
    now += 250;
    find();
    register_server(101);
    table.report_busy(101, now);
    exits(101, 0);
    find();
    EXPECT_THAT(launcher.launched, SizeIs(3));
}

TEST_F(LifeCycle, AServerThatNeverGoesBusyIsEnded) {
    configure({service()});
    find();
    register_server(100);
    messages();
    pass_s(59);
    EXPECT_THAT(launcher.cut, IsEmpty());
    pass_s(1);
    EXPECT_THAT(launcher.cut, ElementsAre(100));
    const auto told = messages();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].position, MSG_NEVER_BUSY);
}

TEST_F(LifeCycle, AServerThatWasLookedUpAndNotCalledIsIdleAgainWithoutAWord) {
    launcher.is_at_rest = true;
    configure({service()});
    find();
    register_server(100);
    register_server(100, 4001, tcp_trait);
    messages();
    pass_s(60);
    EXPECT_EQ(launcher.asked_about, std::tuple(100, 2, 60000));
    EXPECT_EQ(state(100), ProcessState::idle);
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_THAT(launcher.cut, IsEmpty());
    EXPECT_EQ(status_of(find()), TBS_ST_OK) << "it is not down";
    EXPECT_EQ(state(100), ProcessState::offered);
    launcher.is_at_rest = false;
    pass_s(60);
    EXPECT_THAT(launcher.cut, ElementsAre(100)) << "the second client's call found it stuck";
}

TEST_F(LifeCycle, AServerThatIsKnownToWorkOutlivesAClientThatNeverCame) {
    configure({service()});
    const int32_t pid = running_server();
    find();
    EXPECT_EQ(state(pid), ProcessState::offered);
    pass_s(60);
    EXPECT_EQ(state(pid), ProcessState::idle);
    const auto told = messages();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].position, MSG_CLIENT_NEVER_CAME);
    EXPECT_THAT(launcher.cut, IsEmpty());
}

TEST_F(LifeCycle, AnIdleServerIsEndedAfterItsIdleTime) {
    configure({service()});
    const int32_t pid = running_server();
    pass_s(299);
    EXPECT_THAT(launcher.cut, IsEmpty());
    pass_s(1);
    EXPECT_THAT(launcher.cut, ElementsAre(pid));
}

TEST_F(LifeCycle, AnIdleTimeOfZeroIsForEver) {
    Service kept = service();
    kept.control.idle_s = 0;
    configure({kept});
    running_server();
    EXPECT_EQ(table.next_due(), std::nullopt);
    pass_s(1'000'000);
    EXPECT_THAT(launcher.cut, IsEmpty());
}

TEST_F(LifeCycle, AServerThatDoesNotGoIsKilledAgainAndAgain) {
    configure({service()});
    const int32_t pid = running_server();
    table.report_idle(pid, true, now);
    pass_s(9);
    EXPECT_THAT(launcher.killed, IsEmpty());
    launcher.kill_error = EPERM;
    pass_s(1);
    EXPECT_THAT(launcher.killed, ElementsAre(pid));
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_ERROR, MSG_CANNOT_KILL, pid, imsg_strerror(EPERM))));
    pass_s(10);
    EXPECT_THAT(launcher.killed, ElementsAre(pid, pid));
}

TEST_F(LifeCycle, ExitsAreToldByTheirKind) {
    configure({service()});
    int32_t pid = running_server();
    exits(pid);
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_PLAIN, MSG_SERVER_EXITED, "/bin/server", pid)));
    pid = running_server();
    exits(pid, 7);
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_WARNING, MSG_SERVER_EXIT_STATUS, "/bin/server", pid, 7)));
    pid = running_server();
    exits(pid, 0, 11);
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_WARNING, MSG_SERVER_SIGNALLED, "/bin/server", pid, 11)));
    exits(4711);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(LifeCycle, ASelfStartedServerThatIsGoneIsScrubbed) {
    launcher.existing = {50};
    register_server(50);
    messages();
    pass_s(5);
    EXPECT_TRUE(is_known(50));
    launcher.existing.clear();
    pass_s(5);
    EXPECT_FALSE(is_known(50));
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_PLAIN, MSG_SCRUBBED, 50)));
}

class Residents : public LifeCycle {
protected:
    // The only server of ours has ended; the next one is up as soon as it is due.
    void exit_and_restart(int64_t code = 1) {
        exits(launcher.next_pid - 1, code);
        pass_to_next_due();
    }
};

TEST_F(Residents, AreStartedWithTheDaemon) {
    Service three = service(ServerKind::resident);
    three.control.processes_max = 3;
    configure({three});
    EXPECT_THAT(launcher.launched, SizeIs(3));
}

TEST_F(Residents, AreToldOfAsStartedForTheDaemonItself) {
    configure({service(ServerKind::resident)});
    EXPECT_THAT(messages(), ElementsAre(row(IMSG_PLAIN, MSG_EXECUTING, "/bin/server", 100, "rvzd_server")));
}

TEST_F(Residents, AreStartedAgainUpToTheirLimitAndThenGivenUp) {
    Service few = service(ServerKind::resident);
    few.control.restarts_max = 3;
    configure({few});
    for (uint32_t restart = 1; restart <= 3; ++restart) {
        exit_and_restart();
        EXPECT_THAT(launcher.launched, SizeIs(1 + restart));
    }
    messages();
    exits(launcher.next_pid - 1, 1);
    EXPECT_THAT(messages(), Contains(row(IMSG_ERROR, MSG_RESTARTS_EXCEEDED, "/bin/server")));
    EXPECT_EQ(table.next_due(), std::nullopt);
    pass_s(1'000'000);
    EXPECT_THAT(launcher.launched, SizeIs(4));
    EXPECT_EQ(status_of(find()), TBS_ST_ERROR);
}

TEST_F(Residents, WithALimitOfZeroAreNeverStartedAgain) {
    Service once = service(ServerKind::resident);
    once.control.restarts_max = 0;
    configure({once});
    exits(100);
    pass_s(1000);
    EXPECT_THAT(launcher.launched, SizeIs(1));
}

TEST_F(Residents, ThatRanLongStartWithACleanRecord) {
    Service once = service(ServerKind::resident);
    once.control.restarts_max = 1;
    configure({once});
    for (int i = 0; i < 5; ++i) {
        register_server(launcher.next_pid - 1);
        pass_s(600);
        exit_and_restart();
    }
    EXPECT_THAT(launcher.launched, SizeIs(6));
}

TEST_F(Residents, ThatCannotBeStartedUseUpTheirRestartsToo) {
    launcher.failure = {0, MSG_FORK_FAILED, "no more"};
    Service few = service(ServerKind::resident);
    few.control.restarts_max = 2;
    configure({few});
    for (int i = 0; i < 10 && table.next_due(); ++i)
        pass_to_next_due();
    EXPECT_EQ(table.next_due(), std::nullopt);
    const auto told = messages();
    EXPECT_THAT(told, Contains(row(IMSG_ERROR, MSG_RESTARTS_EXCEEDED, "/bin/server")));
    EXPECT_EQ(std::count(told.begin(), told.end(), row(IMSG_ERROR, MSG_FORK_FAILED, "no more")), 3);
}

class RestartSwitch : public LifeCycle {};

TEST_F(RestartSwitch, DisablesAndEnablesByPathAndByLastComponent) {
    configure({service()});
    for (const char *name : {"/bin/server", "server"}) {
        EXPECT_EQ(table.toggle_restart(name, false, now), TBS_ST_OK);
        EXPECT_THAT(messages(), ElementsAre(row(IMSG_PLAIN, MSG_RESTART_DISABLED, name)));
        EXPECT_EQ(status_of(find()), TBS_ST_ERROR);
        EXPECT_THAT(launcher.launched, IsEmpty());
        EXPECT_EQ(table.toggle_restart(name, true, now), TBS_ST_OK);
        EXPECT_THAT(messages(), ElementsAre(row(IMSG_PLAIN, MSG_RESTART_ENABLED, name)));
    }
    find();
    EXPECT_THAT(launcher.launched, SizeIs(1));
}

TEST_F(RestartSwitch, OfAnUnknownNameIsNotFound) {
    configure({service()});
    EXPECT_EQ(table.toggle_restart("other", false, now), TBS_ST_NOT_FOUND);
    EXPECT_EQ(table.toggle_restart("", false, now), TBS_ST_NOT_FOUND);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(RestartSwitch, ForgivesRestartsThatWereTooMany) {
    Service once = service(ServerKind::resident);
    once.control.restarts_max = 0;
    configure({once});
    exits(100, 1);
    EXPECT_EQ(table.toggle_restart("server", true, now), TBS_ST_OK);
    EXPECT_THAT(launcher.launched, SizeIs(2));
}

class Reconfiguration : public LifeCycle {};

TEST_F(Reconfiguration, KeepsTheServersOfServicesThatStay) {
    configure({service()});
    const int32_t pid = running_server();
    Service other = service();
    other.program = 390601;
    configure({other, service()});
    EXPECT_EQ(state(pid), ProcessState::idle);
    EXPECT_EQ(status_of(find()), TBS_ST_OK);
}

TEST_F(Reconfiguration, EndsTheServersOfServicesThatWentOrChanged) {
    configure({service()});
    const int32_t pid = running_server();
    Service changed = service();
    changed.control.idle_s = 1;
    configure({changed});
    EXPECT_EQ(state(pid), ProcessState::ending);
    const size_t asked = find();
    EXPECT_FALSE(is_answered(asked)) << "a server of the new configuration is started";
    EXPECT_THAT(launcher.launched, SizeIs(2));
}

class ShutDown : public LifeCycle {};

TEST_F(ShutDown, CutsAllLifelinesAndStartsNoMore) {
    configure({service(ServerKind::resident)});
    launcher.existing = {50};
    register_server(50, 4000, {390700, 1, RVZD_PROTOCOL_UDP});
    table.shut_down(now);
    EXPECT_THAT(launcher.cut, ElementsAre(100)) << "a server that started by itself is left alone";
    EXPECT_TRUE(table.has_children());
    exits(100);
    EXPECT_FALSE(table.has_children());
    pass_s(1000);
    EXPECT_THAT(launcher.launched, SizeIs(1));
}

TEST_F(ShutDown, KillsWhatRemains) {
    configure({service()});
    const int32_t pid = running_server();
    launcher.existing = {50};
    register_server(50, 4000, {390700, 1, RVZD_PROTOCOL_UDP});
    table.kill_remaining();
    EXPECT_THAT(launcher.killed, ElementsAre(pid));
}

} // namespace
