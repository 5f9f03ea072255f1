// Whether another host is of another family of platforms, and the settled questions of the reduced edition.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <support/stg.h>
#include <veliaxdr/rvzd_hosts.h>
#include <veliaxdr/rvzd_servers.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class HostFamily : public BrokerTest {
protected:
    void answer(const char *os_name, tbs_status_t status = TBS_ST_OK) {
        rvzd_hostinfo_reply_t record = {{0, status}, {}};
        record.hostinfo.osname = const_cast<char *>(os_name);
        world.peer.answer(RVZD_PROC_HOSTINFO, sim::reply(xdr_rvzd_hostinfo_reply_t, record));
    }
    // The flag for this pair, or -1 when it was not written. The host is asked afresh.
    int compare(const char *local, const char *remote) {
        world.os_name = local;
        answer(remote);
        world.advance_s(61);
        rvzd_free_cached_handles();
        tbs_boolean_t flag = -1;
        EXPECT_EQ(rvzd_is_hetero_server("alpha", &flag), TBS_ST_OK);
        expect_lock_is_free();
        return flag;
    }
    tbs_status_t fail_to_compare(const char *host = "alpha") {
        tbs_boolean_t flag = -7;
        const auto status = rvzd_is_hetero_server(host, &flag);
        EXPECT_EQ(flag, -7);
        expect_lock_is_free();
        return status;
    }
    static sim::Message message(int position, const char *host = nullptr, const char *text = nullptr) {
        return message_of(IMSG_ERROR, _clnt_list_rvzd_msg_table, position, host, text);
    }
};

TEST_F(HostFamily, IsAnotherWhenExactlyOneIsWindows) {
    EXPECT_EQ(compare("Linux", "Windows"), 1);
    EXPECT_EQ(compare("Windows", "Linux"), 1);
    EXPECT_EQ(compare("Windows", "Windows"), 0);
    EXPECT_EQ(compare("Linux", "Linux"), 0);
    EXPECT_EQ(compare("Linux", "SunOS"), 0);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HostFamily, IsToldByTheFirstSevenBytes) {
    EXPECT_EQ(compare("Linux", "Windows Server 2019"), 1);
    EXPECT_EQ(compare("Windows NT", "Windows 11"), 0);
    EXPECT_EQ(compare("Linux", "Window"), 0);
    EXPECT_EQ(compare("Linux", "windows"), 0);
    EXPECT_EQ(compare("Linux", "MS Windows"), 0);
}

TEST_F(HostFamily, TheContactMayTakeFortySeconds) {
    compare("Linux", "Linux");
    const auto &contact = world.peer.calls.at(0);
    EXPECT_EQ(contact.procedure, 1u);
    EXPECT_EQ(contact.time_out_us, 40'000'000);
}

TEST_F(HostFamily, AnUnknownPlatformOfThisHostIsToldWithoutAskingTheOther) {
    answer("Linux");
    world.os_name = nullptr;
    EXPECT_EQ(fail_to_compare(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(25)));
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(HostFamily, AHostThatDoesNotAnswerIsToldWithItsStatus) {
    world.peer.answer(RVZD_PROC_HOSTINFO, sim::silence());
    EXPECT_EQ(fail_to_compare(), TBS_ST_RPC_FAILED);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(23, "alpha", tbs_strerror(TBS_ST_RPC_FAILED))));
    answer("Windows", TBS_ST_NO_ACCESS);
    const auto before = world.live_blocks();
    EXPECT_EQ(fail_to_compare(), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(23, "alpha", tbs_strerror(TBS_ST_NO_ACCESS))));
    EXPECT_LE(world.live_blocks(), before + 12); // what the cached record remembers, and no more
    EXPECT_EQ(fail_to_compare("nowhere"), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(), ElementsAre(message(23, "nowhere", tbs_strerror(TBS_ST_NOT_FOUND))));
}

TEST_F(HostFamily, AHostThatTellsNoOperatingSystemIsAnError) {
    for (const char *os_name : {static_cast<const char *>(nullptr), ""}) {
        answer(os_name);
        world.advance_s(61);
        rvzd_free_cached_handles();
        EXPECT_EQ(fail_to_compare(), TBS_ST_ERROR);
        EXPECT_THAT(world.take_messages(), ElementsAre(message(24, "alpha")));
    }
}

TEST_F(HostFamily, ThisHostIsOfItsOwnFamily) {
    world.os_name = "Windows";
    tbs_boolean_t flag = -1;
    EXPECT_EQ(rvzd_is_hetero_server("localhost", &flag), TBS_ST_OK);
    EXPECT_EQ(flag, 0);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(HostFamily, WithoutStorageNothingIsLeft) {
    ASSERT_EQ(compare("Linux", "Windows"), 1); // the cached record knows the host from now on
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    tbs_boolean_t flag = 0;
    const int failures = sim::sweep_allocations(
        world, [&] { status = rvzd_is_hetero_server("alpha", &flag); },
        [&](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
    EXPECT_GE(failures, 10);
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_EQ(flag, 1);
}

TEST_F(HostFamily, ARaiseAnywhereReleasesTheHostInformation) {
    ASSERT_EQ(compare("Linux", "Windows"), 1);
    const auto before = sim::Holdings::now(world);
    tbs_boolean_t flag = 0;
    const int raises = sim::sweep_raises(
        world, [&] { EXPECT_EQ(rvzd_is_hetero_server("alpha", &flag), TBS_ST_OK); },
        [&](int number) {
            sim::release_lock(rvzd_call_lock);
            EXPECT_LE(world.live_blocks(), before.blocks) << number;
        });
    EXPECT_GE(raises, 3);
}

TEST_F(HostFamily, ThisIsNotTheReducedEdition) {
    tbs_boolean_t is_slim = 7;
    EXPECT_EQ(rvzd_slim_server_is_slim(&is_slim), TBS_ST_OK);
    EXPECT_EQ(is_slim, 0);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HostFamily, AskingForTheServerOfTheReducedEditionIsAnErrorOfTheProgram) {
    EXPECT_EQ(rvzd_slim_server_hostname(), TBS_ST_ERROR);
    bool is_told = false;
    for (const auto &message : world.take_messages())
        is_told = is_told || (message.table == &_tbs_cmsg_tbs_msg_table && message.index == 0 &&
                              message.text.find("rvzd_slim_server_hostname") != std::string::npos);
    EXPECT_TRUE(is_told);
}

} // namespace
