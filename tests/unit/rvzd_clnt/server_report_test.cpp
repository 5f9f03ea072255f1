// What a server tells its broker, the local path of a global one, and the restart switch.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <arpa/inet.h>
#include <functional>
#include <netdb.h>
#include <unistd.h>

#include <veliaxdr/rvzd_svr.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const tbs_uuid_t some_uuid = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};

sim::Answer status_reply(tbs_status_t status) {
    return sim::reply(xdr_rvzd_null_reply_t, rvzd_null_reply_t{{0, status}});
}

struct Report {
    const char *name;
    uint32_t procedure;
    const char *failed_text;
    std::function<tbs_status_t(rvzd_handle_t *)> send;
};

const rvzd_rpc_trait_t some_trait = {390600, 1, RVZD_PROTOCOL_UDP};
const rvzd_sched_info_pair_t some_pair = {-3, 77};

const Report reports[] = {
    {"register_server", 2, "rvzd_register_server call failed",
     [](rvzd_handle_t *handle) {
         rvzd_socket_desc_t desc = {};
         desc.addr.ipv4.sin_family = AF_INET;
         desc.addr.ipv4.sin_port = htons(4000);
         return rvzd_register_server(handle, &some_trait, &some_uuid, "/srv/db", &desc, 1);
     }},
    {"server_idle", 4, "rvzd_server_idle call failed",
     [](rvzd_handle_t *handle) { return rvzd_server_idle(handle, 1); }},
    {"server_busy", 5, "rvzd_server_busy call failed",
     [](rvzd_handle_t *handle) { return rvzd_server_busy(handle, &some_uuid); }},
    {"server_alternate_uuid", 19, "rvzd_server_alternate_uuid call failed",
     [](rvzd_handle_t *handle) { return rvzd_server_alternate_uuid(handle, &some_uuid); }},
    {"sched_info", 11, "rvzd_sched_info call failed",
     [](rvzd_handle_t *handle) { return rvzd_sched_info(handle, &some_uuid, &some_pair); }},
};

class ServerReport : public BrokerTest, public testing::WithParamInterface<size_t> {
protected:
    const Report &report() const { return reports[GetParam()]; }
};

TEST_P(ServerReport, GivesTheStatusOfTheReply) {
    rvzd_handle_t *handle = handle_to("alpha");
    for (tbs_status_t status : {tbs_status_t{TBS_ST_OK}, tbs_status_t{TBS_ST_NOT_FOUND}}) {
        world.peer.answer(report().procedure, status_reply(status));
        EXPECT_EQ(report().send(handle), status);
        EXPECT_EQ(world.peer.last().procedure, report().procedure);
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
    rvzd_free_handle(handle);
}

TEST_P(ServerReport, AFailedCallIsToldUnderItsOwnName) {
    rvzd_handle_t *handle = handle_to("alpha");
    world.peer.answer(report().procedure, sim::silence());
    EXPECT_EQ(report().send(handle), TBS_ST_RPC_FAILED);
    const auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0].text, StartsWith(report().failed_text));
    rvzd_free_handle(handle);
}

TEST_P(ServerReport, WithoutAHandleOneToTheLocalBrokerIsTakenForTheCall) {
    world.peer.answer(report().procedure, status_reply(TBS_ST_OK));
    EXPECT_EQ(report().send(nullptr), TBS_ST_OK);
    EXPECT_EQ(world.peer.last().address.ipv4.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(world.timers.size(), 1u); // the record is idle again
    expect_lock_is_free();
}

TEST_P(ServerReport, WithoutALocalBrokerTheHandlesStatusIsTheResult) {
    world.resolver_errors["thishost"] = EAI_AGAIN;
    EXPECT_EQ(report().send(nullptr), TBS_ST_TRY_AGAIN);
    expect_lock_is_free();
}

TEST_P(ServerReport, ARaiseAnywhereFreesTheHandleTakenForTheCall) {
    world.peer.answer(report().procedure, status_reply(TBS_ST_OK));
    rvzd_free_handle(handle_to(nullptr));
    // A record that a raise met has left the cache, so only what exceeds the first state is a leak.
    const auto before = sim::Holdings::now(world);
    const int raises = sim::sweep_raises(
        world, [&] { report().send(nullptr); },
        [&](int number) {
            EXPECT_LE(world.live_blocks(), before.blocks) << number;
            EXPECT_LE(world.live_clients(), before.clients) << number;
            EXPECT_EQ(world.live_clients(), world.live_descriptors()) << number;
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        });
    EXPECT_GE(raises, 3);
}

TEST_P(ServerReport, EachFailingAllocationFailsWithoutALeak) {
    world.peer.answer(report().procedure, status_reply(TBS_ST_OK));
    rvzd_free_handle(handle_to(nullptr));
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    sim::sweep_allocations(
        world, [&] { status = report().send(nullptr); },
        [&](int) {
            EXPECT_EQ(status, TBS_ST_NO_MEMORY);
            EXPECT_EQ(sim::Holdings::now(world), before);
        });
    EXPECT_EQ(status, TBS_ST_OK);
}

INSTANTIATE_TEST_SUITE_P(EachReport, ServerReport, testing::Range<size_t>(0, 5),
                         [](const auto &each) { return std::string(reports[each.param].name); });

class ReportRecords : public BrokerTest {
protected:
    template <class Record>
    Record sent(uint32_t procedure, bool_t (*routine)(XDR *, Record *), const Report &report) {
        world.peer.answer(procedure, status_reply(TBS_ST_OK));
        EXPECT_EQ(report.send(nullptr), TBS_ST_OK);
        return world.peer.last().decode(routine);
    }
};

TEST_F(ReportRecords, RegistrationCarriesIdentityPortsInHostOrderAndPid) {
    auto request = sent(2, xdr_rvzd_register_server_req_t, reports[0]);
    EXPECT_EQ(request.trait.prog, 390600u);
    EXPECT_TRUE(tbs_uuid_eq(&request.uuid, &some_uuid));
    EXPECT_STREQ(request.path, "/srv/db");
    EXPECT_EQ(request.ports.count, 1u);
    EXPECT_EQ(request.ports.ports[0].family, AF_INET);
    EXPECT_EQ(request.ports.ports[0].port, 4000u);
    EXPECT_EQ(request.pid, getpid());
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_register_server_req_t), &request);
}

TEST_F(ReportRecords, IdleCarriesPidAndFlag) {
    const auto request = sent(4, xdr_rvzd_server_idle_req_t, reports[1]);
    EXPECT_EQ(request.pid, getpid());
    EXPECT_EQ(request.flag, 1);
}

TEST_F(ReportRecords, BusyAndAlternateUuidCarryPidAndUuid) {
    const auto busy = sent(5, xdr_rvzd_server_busy_req_t, reports[2]);
    const auto alternate = sent(19, xdr_rvzd_server_alternate_uuid_req_t, reports[3]);
    EXPECT_EQ(busy.pid, getpid());
    EXPECT_TRUE(tbs_uuid_eq(&busy.uuid, &some_uuid));
    EXPECT_EQ(alternate.pid, getpid());
    EXPECT_TRUE(tbs_uuid_eq(&alternate.uuid, &some_uuid));
}

TEST_F(ReportRecords, SchedInfoCarriesThePairThrough) {
    const auto request = sent(11, xdr_rvzd_sched_info_req_t, reports[4]);
    EXPECT_EQ(request.pair.kind, -3);
    EXPECT_EQ(request.pair.value, 77u);
}

TEST_F(ReportRecords, MoreThanTwoSocketsAreAnErrorWithoutACall) {
    rvzd_socket_desc_t descs[3] = {};
    for (auto &desc : descs)
        desc.addr.base.sa_family = AF_INET; // the first two would do
    EXPECT_EQ(rvzd_register_server(nullptr, &some_trait, &some_uuid, "", descs, 3), TBS_ST_ERROR);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(ReportRecords, ASocketOfAnotherFamilyIsAnErrorWithoutACall) {
    const rvzd_socket_desc_t descs[1] = {};
    EXPECT_EQ(rvzd_register_server(nullptr, &some_trait, &some_uuid, "", descs, 1), TBS_ST_ERROR);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

class LocalPath : public BrokerTest {
protected:
    void answer(const std::string &path, tbs_status_t status = TBS_ST_OK) {
        local = path;
        rvzd_get_local_path_reply_t record = {{0, status}, local.data(), 0};
        world.peer.answer(RVZD_PROC_GET_LOCAL_PATH, sim::reply(xdr_rvzd_get_local_path_reply_t, record));
    }

    std::string local;
    char buffer[8] = "before";
};

TEST_F(LocalPath, FillsTheCallersBuffer) {
    answer("/a/b");
    EXPECT_EQ(rvzd_get_local_path("alpha", "//alpha/x", sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "/a/b");
    auto request = world.peer.last().decode(xdr_rvzd_get_local_path_req_t);
    EXPECT_STREQ(request.global_path, "//alpha/x");
    EXPECT_EQ(request.size, sizeof buffer);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_get_local_path_req_t), &request);
}

TEST_F(LocalPath, APathThatJustFitsIsTaken) {
    answer("1234567");
    EXPECT_EQ(rvzd_get_local_path("alpha", "//alpha/x", sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "1234567");
}

TEST_F(LocalPath, ALongerPathFailsTheCallAndLeavesTheBufferAsItWas) {
    for (size_t length : {8u, 9u, 5000u}) {
        answer(std::string(length, 'p'));
        EXPECT_EQ(rvzd_get_local_path("alpha", "//alpha/x", sizeof buffer, buffer), TBS_ST_RPC_FAILED);
        EXPECT_STREQ(buffer, "before");
        const auto messages = world.take_messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_THAT(messages[0].text, StartsWith("rvzd_get_local_path call failed"));
    }
}

TEST_F(LocalPath, ABufferOfNoBytesIsNeverWritten) {
    answer("");
    EXPECT_EQ(rvzd_get_local_path("alpha", "//alpha/x", 0, buffer), TBS_ST_RPC_FAILED);
    EXPECT_STREQ(buffer, "before");
}

TEST_F(LocalPath, WithoutAHostTheOneInThePathIsAsked) {
    answer("/a");
    EXPECT_EQ(rvzd_get_local_path(nullptr, "//beta/x", sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_EQ(world.peer.last().address.ipv4.sin_addr.s_addr, htonl(0x7f000003));
    EXPECT_EQ(rvzd_get_local_path("", "//beta/x", sizeof buffer, buffer), TBS_ST_OK);
}

TEST_F(LocalPath, APathWithoutAHostIsAnErrorWithoutACall) {
    EXPECT_EQ(rvzd_get_local_path(nullptr, "/x", sizeof buffer, buffer), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_get_local_path(nullptr, ("//" + std::string(64, 'h') + "/x").c_str(), sizeof buffer, buffer),
              TBS_ST_ERROR);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(LocalPath, TheBrokersStatusIsPassedOn) {
    answer("", TBS_ST_NOT_FOUND);
    EXPECT_EQ(rvzd_get_local_path("alpha", "//alpha/x", sizeof buffer, buffer), TBS_ST_NOT_FOUND);
    EXPECT_STREQ(buffer, "before");
}

TEST_F(LocalPath, AnUnavailableProcedureIsUnsupportedAndTold) {
    world.peer.answer(RVZD_PROC_GET_LOCAL_PATH, sim::failure(RPC_PROCUNAVAIL));
    EXPECT_EQ(rvzd_get_local_path("alpha", "//alpha/x", sizeof buffer, buffer), TBS_ST_UNSUPPORTED);
    EXPECT_THAT(world.take_messages()[0].text, StartsWith("rvzd_get_local_path call failed"));
}

TEST_F(LocalPath, AHostThatCannotBeReachedGivesTheHandlesStatus) {
    EXPECT_EQ(rvzd_get_local_path("nowhere", "//alpha/x", sizeof buffer, buffer), TBS_ST_NOT_FOUND);
}

TEST_F(LocalPath, AReplyCutOffAtAnyByteLeavesTheBufferAsItWas) {
    rvzd_get_local_path_reply_t record = {{}, buffer, 0};
    const auto whole = sim::encode(xdr_rvzd_get_local_path_reply_t, record);
    rvzd_free_handle(handle_to("alpha"));
    const auto before = sim::Holdings::now(world);
    for (size_t length = 0; length < whole.size(); ++length) {
        world.peer.answer(RVZD_PROC_GET_LOCAL_PATH,
                          {RPC_SUCCESS, 0, sim::Bytes(whole.begin(), whole.begin() + static_cast<long>(length))});
        EXPECT_EQ(rvzd_get_local_path("alpha", "//alpha/x", sizeof buffer, buffer), TBS_ST_RPC_FAILED) << length;
        EXPECT_STREQ(buffer, "before");
        EXPECT_EQ(sim::Holdings::now(world), before);
    }
}

TEST_F(LocalPath, ARaiseAnywhereLeavesTheCallersBufferTheCallers) {
    answer("/a");
    rvzd_free_handle(handle_to("alpha"));
    const auto before = sim::Holdings::now(world);
    sim::sweep_raises(
        world, [&] { rvzd_get_local_path("alpha", "//alpha/x", sizeof buffer, buffer); },
        [&](int number) {
            EXPECT_LE(world.live_blocks(), before.blocks) << number;
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        });
    EXPECT_STREQ(buffer, "/a");
}

class RestartSwitch : public BrokerTest {
protected:
    void answer(tbs_status_t header_status, int32_t toggle_status) {
        const rvzd_toggle_server_restart_reply_t record = {{0, header_status}, {toggle_status}};
        world.peer.answer(RVZD_PROC_TOGGLE_SERVER_RESTART, sim::reply(xdr_rvzd_toggle_server_restart_reply_t, record));
    }
};

TEST_F(RestartSwitch, GivesTheStatusOfTheToggling) {
    for (const int32_t status : {0, 1002}) {
        answer(TBS_ST_OK, status);
        EXPECT_EQ(rvzd_toggle_server_restart(1, "db_server"), status);
    }
    auto request = world.peer.last().decode(xdr_rvzd_toggle_server_restart_req_t);
    EXPECT_EQ(request.enable, 1);
    EXPECT_STREQ(request.name, "db_server");
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_toggle_server_restart_req_t), &request);
}

TEST_F(RestartSwitch, AStatusInTheHeaderItselfIsDroppedOnPurpose) {
    answer(TBS_ST_ERROR, 7);
    EXPECT_EQ(rvzd_toggle_server_restart(0, "db_server"), TBS_ST_OK);
}

TEST_F(RestartSwitch, NeedsPrivilege) {
    world.privileged = 0;
    EXPECT_EQ(rvzd_toggle_server_restart(1, "db_server"), TBS_ST_ERROR);
    EXPECT_THAT(world.peer.calls, IsEmpty());
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 116)));
}

TEST_F(RestartSwitch, FailuresOfTheCallAreSilentAndHaveTheirStatus) {
    const std::pair<clnt_stat, tbs_status_t> cases[] = {
        {RPC_TIMEDOUT, TBS_ST_RPC_FAILED}, {RPC_PROCUNAVAIL, TBS_ST_UNSUPPORTED}, {RPC_CANTRECV, TBS_ST_ERROR}};
    for (const auto &[outcome, status] : cases) {
        world.peer.answer(RVZD_PROC_TOGGLE_SERVER_RESTART, sim::failure(outcome));
        EXPECT_EQ(rvzd_toggle_server_restart(1, "db_server"), status);
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(RestartSwitch, ANameBeyondItsBoundIsNeverSent) {
    answer(TBS_ST_OK, 0);
    EXPECT_EQ(rvzd_toggle_server_restart(1, std::string(64, 'n').c_str()), TBS_ST_OK);
    EXPECT_EQ(rvzd_toggle_server_restart(1, std::string(65, 'n').c_str()), TBS_ST_ERROR);
}

TEST_F(RestartSwitch, WithoutALocalBrokerTheHandlesStatusIsTheResult) {
    world.resolver_errors["thishost"] = EAI_NONAME;
    EXPECT_EQ(rvzd_toggle_server_restart(1, "db_server"), TBS_ST_NOT_FOUND);
}

} // namespace
