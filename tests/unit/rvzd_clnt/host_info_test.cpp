// What hosts tell of themselves, their options, and the check whether a host is there.
#include <malloc.h>
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <rvzd/client/rvzd_clnt/host_info.h>
#include <support/stg.h>
#include <tests/sim/noted.h>
#include <veliaxdr/rvzd_hosts.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;

class HostInfo : public BrokerTest {
protected:
    ~HostInfo() override { rvzd_hostinfo_free(info); }

    void answer(const char *name, tbs_status_t status = TBS_ST_OK) {
        char *text = const_cast<char *>(name);
        rvzd_hostinfo_reply_t record = {{0, status}, {}};
        for (char *clnt_hostinfo_t::*field : {&clnt_hostinfo_t::hostname, &clnt_hostinfo_t::osname})
            record.hostinfo.*field = text;
        world.peer.answer(RVZD_PROC_HOSTINFO, sim::reply(xdr_rvzd_hostinfo_reply_t, record));
    }
    tbs_status_t ask(const char *host) {
        rvzd_hostinfo_free(info);
        info = {};
        return rvzd_hostinfo(host, &info);
    }

    clnt_hostinfo_t info = {};
};

TEST_F(HostInfo, OfThisHostMakesNoCall) {
    ASSERT_EQ(ask("thishost"), TBS_ST_OK);
    EXPECT_THAT(world.peer.calls, IsEmpty());
    EXPECT_THAT(info.hostname, StrEq(sysutl_myhostname()));
    EXPECT_THAT(info.product, StrEq(tbs_product_name()));
    EXPECT_THAT(info.version, StrEq(tbs_product_version()));
    const char *os_name;
    const char *os_version;
    const char *machine;
    ASSERT_TRUE(tbs_platform_info(&os_name, &os_version, &machine));
    EXPECT_THAT(info.osname, StrEq(os_name));
    EXPECT_THAT(info.osversion, StrEq(os_version));
    EXPECT_THAT(info.machine, StrEq(machine));
    EXPECT_EQ(info.reserved, nullptr);
    EXPECT_EQ(info.options, nullptr);
    expect_lock_is_free();
}

TEST_F(HostInfo, OfThisHostNamesItsRegistryAndRegion) {
    world.write_file("host/config/rgy_hosts.conf", "master1\nbackup1\n");
    world.write_file("host/config/rgy_region.conf", "east\nwest\n");
    ASSERT_EQ(ask("thishost"), TBS_ST_OK);
    EXPECT_STREQ(info.registry_host, "master1");
    EXPECT_STREQ(info.region, "east");
}

TEST_F(HostInfo, WithoutARegistryHostThereIsNoRegionEither) {
    world.write_file("host/config/rgy_region.conf", "east\nwest\n");
    ASSERT_EQ(ask("thishost"), TBS_ST_OK);
    EXPECT_EQ(info.registry_host, nullptr);
    EXPECT_EQ(info.region, nullptr);
}

TEST_F(HostInfo, OfAHostWithoutServersSaysSo) {
    for (const int mask : {0, ~1}) {
        world.component_mask = mask;
        ASSERT_EQ(ask("thishost"), TBS_ST_OK);
        EXPECT_STREQ(info.options, "-no_servers") << mask;
    }
}

TEST_F(HostInfo, OfAnotherHostIsAskedWithFourSeconds) {
    answer("alpha");
    ASSERT_EQ(ask("alpha"), TBS_ST_OK);
    EXPECT_STREQ(info.hostname, "alpha");
    EXPECT_STREQ(info.product, "");
    ASSERT_THAT(world.peer.calls, SizeIs(2));
    EXPECT_EQ(world.peer.calls[0].time_out_us, 4'000'000); // the contact has the time-out of the handle
    EXPECT_EQ(world.peer.calls[1].time_out_us, 4'000'000);
    rvzd_hostinfo_free(info);
    EXPECT_EQ(rvzd_hostinfo_timeout("beta", 9, &info), TBS_ST_OK);
    EXPECT_EQ(world.peer.calls[2].time_out_us, 9'000'000);
    EXPECT_EQ(world.peer.calls[3].time_out_us, 4'000'000);
}

TEST_F(HostInfo, ASecondQuestionOnTheSameRecordMakesNoCall) {
    answer("alpha");
    ASSERT_EQ(ask("alpha"), TBS_ST_OK);
    const size_t calls = world.peer.count(RVZD_PROC_HOSTINFO);
    ASSERT_EQ(ask("alpha"), TBS_ST_OK);
    EXPECT_STREQ(info.hostname, "alpha");
    EXPECT_EQ(world.peer.count(RVZD_PROC_HOSTINFO), calls);
}

constexpr char *clnt_hostinfo_t::*ten_texts[] = {
    &clnt_hostinfo_t::hostname,  &clnt_hostinfo_t::product, &clnt_hostinfo_t::version,       &clnt_hostinfo_t::osname,
    &clnt_hostinfo_t::osversion, &clnt_hostinfo_t::machine, &clnt_hostinfo_t::registry_host, &clnt_hostinfo_t::region,
    &clnt_hostinfo_t::reserved,  &clnt_hostinfo_t::options};

TEST_F(HostInfo, AllTenTextsAreCopiedAndReleased) {
    rvzd_hostinfo_reply_t sent = {};
    std::vector<std::string> words;
    for (size_t i = 0; i < std::size(ten_texts); ++i)
        words.push_back("text" + std::to_string(i));
    for (size_t i = 0; i < std::size(ten_texts); ++i)
        sent.hostinfo.*ten_texts[i] = words[i].data();
    world.peer.answer(RVZD_PROC_HOSTINFO, sim::reply(xdr_rvzd_hostinfo_reply_t, sent));
    for (int asked = 0; asked < 2; ++asked) { // of the broker, and of the record
        ASSERT_EQ(ask("alpha"), TBS_ST_OK);
        for (size_t i = 0; i < std::size(ten_texts); ++i)
            EXPECT_STREQ(info.*ten_texts[i], words[i].c_str()) << asked;
    }
    const size_t blocks = world.live_blocks();
    rvzd_hostinfo_free(info);
    info = {};
    EXPECT_EQ(world.live_blocks(), blocks - std::size(ten_texts));
}

TEST_F(HostInfo, OfThisHostReleasesWhatTheDescriptionLentNobody) {
    world.write_file("host/config/rgy_hosts.conf", "master1\nbackup1\n");
    ASSERT_EQ(ask("thishost"), TBS_ST_OK);
    rvzd_hostinfo_free(info);
    info = {};
    const auto before = sim::Holdings::now(world);
    ASSERT_EQ(ask("thishost"), TBS_ST_OK);
    rvzd_hostinfo_free(info);
    info = {};
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(HostInfo, OfTheDescriptionTheSeventhAndTheNinthTextAreReleased) {
    clnt_hostinfo_t local = {};
    char lent[] = "lent";
    for (const auto text : ten_texts)
        local.*text = lent;
    local.registry_host = stg_strdup("master1");
    local.reserved = stg_strdup("reserved");
    velia::rvzd_clnt::release_local_hostinfo(local);
    EXPECT_EQ(world.live_blocks(), 0u);
    for (const auto text : ten_texts)
        EXPECT_EQ(local.*text, nullptr);
}

TEST_F(HostInfo, AFailureInTheReplyLeavesEmptyInformationForTheNextQuestion) {
    answer("alpha", TBS_ST_NO_ACCESS);
    EXPECT_EQ(ask("alpha"), TBS_ST_NO_ACCESS);
    EXPECT_EQ(info.hostname, nullptr);
    EXPECT_EQ(ask("alpha"), TBS_ST_OK);
    EXPECT_EQ(info.hostname, nullptr);
    EXPECT_EQ(world.peer.count(RVZD_PROC_HOSTINFO), 1u);
}

TEST_F(HostInfo, FailuresOfTheCallAreSilentAndHaveTheirStatus) {
    const struct {
        clnt_stat outcome;
        tbs_status_t status;
    } rows[] = {{RPC_TIMEDOUT, TBS_ST_RPC_FAILED}, {RPC_PROCUNAVAIL, TBS_ST_UNSUPPORTED}, {RPC_CANTRECV, TBS_ST_ERROR}};
    for (const auto &row : rows) {
        world.peer.answer(RVZD_PROC_HOSTINFO, sim::failure(row.outcome));
        EXPECT_EQ(ask("alpha"), row.status);
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
    expect_lock_is_free();
}

TEST_F(HostInfo, AnUnreachableHostIsSilentAndGivesTheHandlesStatus) {
    EXPECT_EQ(ask("nowhere"), TBS_ST_NOT_FOUND);
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    EXPECT_EQ(ask("beta"), TBS_ST_RPC_FAILED);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HostInfo, EachFailingAllocationLeavesNothingBehind) {
    answer("alpha");
    ASSERT_EQ(ask("alpha"), TBS_ST_OK);
    rvzd_hostinfo_free(info);
    info = {};
    const auto before = sim::Holdings::now(world);
    sim::sweep_allocations(
        world, [&] { rvzd_hostinfo("alpha", &info); },
        [&](int number) {
            rvzd_hostinfo_free(info);
            info = {};
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_STREQ(info.hostname, "alpha");
}

TEST_F(HostInfo, ARaiseAnywhereGivesTheHandleBack) {
    answer("alpha");
    ASSERT_EQ(ask("alpha"), TBS_ST_OK);
    rvzd_hostinfo_free(info);
    info = {};
    const auto before = sim::Holdings::now(world);
    const int raises = sim::sweep_raises(
        world, [&] { rvzd_hostinfo("alpha", &info); },
        [&](int number) {
            rvzd_hostinfo_free(info);
            info = {};
            EXPECT_LE(world.live_blocks(), before.blocks) << number;
            EXPECT_LE(world.live_clients(), before.clients) << number;
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        });
    EXPECT_GE(raises, 3);
}

class TimeZoneOfAHost : public BrokerTest {
protected:
    void answer(tbs_status_t status) {
        rvzd_tz_info_reply_t sent = {{0, status}, {}};
        sent.info.version = CLNT_TZ_VERSION;
        sent.info.offset = -60;
        world.peer.answer(RVZD_PROC_TZ_INFO, sim::reply(xdr_rvzd_tz_info_reply_t, sent));
    }

    clnt_tz_info_t record = {};
    clnt_tz_info_t *info = &record;
};

TEST_F(TimeZoneOfAHost, IsCopiedToTheCallersRecord) {
    answer(TBS_ST_OK);
    ASSERT_EQ(rvzd_tzinfo(2026, "alpha", &info), TBS_ST_OK);
    EXPECT_EQ(record.offset, -60);
    EXPECT_EQ(world.peer.last().decode(xdr_rvzd_tz_info_req_t).year, 2026);
    EXPECT_EQ(world.peer.last().time_out_us, 4'000'000);
    expect_lock_is_free();
}

TEST_F(TimeZoneOfAHost, IntoNoRecordIsNoFailure) {
    answer(TBS_ST_OK);
    info = nullptr;
    EXPECT_EQ(rvzd_tzinfo(2026, "alpha", &info), TBS_ST_OK);
}

TEST_F(TimeZoneOfAHost, FailuresAreSilentAndLeaveTheRecordAlone) {
    record.version = 77;
    record.offset = -120;
    answer(TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_tzinfo(1, "alpha", &info), TBS_ST_INVALID_ARG);
    const struct {
        clnt_stat outcome;
        tbs_status_t status;
    } rows[] = {{RPC_TIMEDOUT, TBS_ST_RPC_FAILED}, {RPC_PROCUNAVAIL, TBS_ST_UNSUPPORTED}, {RPC_CANTRECV, TBS_ST_ERROR}};
    for (const auto &row : rows) {
        world.peer.answer(RVZD_PROC_TZ_INFO, sim::failure(row.outcome));
        EXPECT_EQ(rvzd_tzinfo(2026, "alpha", &info), row.status);
    }
    EXPECT_EQ(rvzd_tzinfo(2026, "nowhere", &info), TBS_ST_NOT_FOUND);
    EXPECT_EQ(record.version, 77);
    EXPECT_EQ(record.offset, -120);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

class HostOptions : public BrokerTest {
protected:
    tbs_status_t parse(const char *text) {
        rvzd_hostinfo_free_opts(&options);
        clnt_hostinfo_t info = {};
        info.options = const_cast<char *>(text);
        return rvzd_hostinfo_parse_opts(&info, &options);
    }
    ~HostOptions() override { rvzd_hostinfo_free_opts(&options); }

    rvzd_hostinfo_opts_t options = {};
};

TEST_F(HostOptions, AFlagThatNobodyHandlesIsToldByItsName) {
    sim::noted().flag_rows = {1};
    EXPECT_EQ(parse("-no_servers"), TBS_ST_ERROR);
    EXPECT_EQ(options.no_servers, 0);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 100)),
                            message_of(IMSG_CONTINUATION, _rvzd_rvzd_msg_table, 93, "-no_servers")));
}

TEST_F(HostOptions, AreNoneWithoutAText) {
    for (const char *text : {static_cast<const char *>(nullptr), ""}) {
        options.no_servers = 7;
        EXPECT_EQ(parse(text), TBS_ST_OK);
        EXPECT_EQ(options.no_servers, 0);
        EXPECT_EQ(options.rest, nullptr);
    }
}

TEST_F(HostOptions, LeaveNothingOfTheirReadingBehind) {
    constexpr int readings = 2000;
    constexpr size_t bytes_in_all = 64 * 1024; // an area each would be many times that
    parse("-no_servers one two");
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < readings; ++i)
        ASSERT_EQ(parse("-no_servers one two"), TBS_ST_OK);
    EXPECT_LT(mallinfo2().uordblks, before + bytes_in_all);
}

TEST_F(HostOptions, TheFlagAndTwoWordsAreTakenApart) {
    ASSERT_EQ(parse("-no_servers  one   two"), TBS_ST_OK);
    EXPECT_EQ(options.no_servers, 1);
    EXPECT_STREQ(options.rest, "one two");
}

TEST_F(HostOptions, WordsAroundTheFlagAndUnknownFlagsAreKept) {
    ASSERT_EQ(parse("one -strange -no_servers two"), TBS_ST_OK);
    EXPECT_EQ(options.no_servers, 1);
    EXPECT_STREQ(options.rest, "one -strange two");
}

TEST_F(HostOptions, TheFlagAloneLeavesNoRest) {
    ASSERT_EQ(parse("-no_servers"), TBS_ST_OK);
    EXPECT_EQ(options.no_servers, 1);
    EXPECT_EQ(options.rest, nullptr);
}

TEST_F(HostOptions, ATextThatCannotBeSplitIsAnError) {
    EXPECT_EQ(parse("-no_servers \"open"), TBS_ST_ERROR);
}

TEST_F(HostOptions, FreeingNoneIsNothing) {
    rvzd_hostinfo_free_opts(nullptr);
    ASSERT_EQ(parse("word"), TBS_ST_OK);
    rvzd_hostinfo_free_opts(&options);
    EXPECT_EQ(options.rest, nullptr);
}

TEST_F(HostOptions, EachFailingAllocationIsToldByItsStatus) {
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    const int failures = sim::sweep_allocations(
        world, [&] { status = parse("-no_servers one two"); },
        [&](int number) {
            EXPECT_TRUE(status == TBS_ST_NO_MEMORY || status == TBS_ST_ERROR) << number;
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_GE(failures, 1); // of the rest; the area has storage of its own
    EXPECT_EQ(status, TBS_ST_OK);
}

class ExistCheck : public HostInfo {};

TEST_F(ExistCheck, ARunOfLikeNamesSucceedsOnce) {
    answer("x");
    EXPECT_EQ(rvzd_exist_check("alpha"), TBS_ST_OK);
    const size_t calls = world.peer.calls.size();
    EXPECT_EQ(rvzd_exist_check("alpha"), TBS_ST_ERROR);
    EXPECT_EQ(world.peer.calls.size(), calls);
    EXPECT_EQ(rvzd_exist_check("beta"), TBS_ST_OK);
    EXPECT_EQ(rvzd_exist_check("alpha"), TBS_ST_OK);
}

TEST_F(ExistCheck, OfTheInformationNothingIsLeft) {
    answer("x");
    for (const char *host : {"alpha", "beta"})
        EXPECT_EQ(rvzd_exist_check(host), TBS_ST_OK);
    const size_t blocks = world.live_blocks(); // with the information that the cached records keep
    for (const char *host : {"alpha", "beta"})
        EXPECT_EQ(rvzd_exist_check(host), TBS_ST_OK);
    EXPECT_EQ(world.live_blocks(), blocks);
}

TEST_F(ExistCheck, AHostThatFailedIsNotAskedAgainEither) {
    EXPECT_EQ(rvzd_exist_check("nowhere"), TBS_ST_ERROR);
    const size_t lookups = world.lookups.size();
    EXPECT_EQ(rvzd_exist_check("nowhere"), TBS_ST_ERROR);
    EXPECT_EQ(world.lookups.size(), lookups);
}

TEST_F(ExistCheck, TheEmptyNameAtTheStartIsAnError) {
    EXPECT_EQ(rvzd_exist_check(""), TBS_ST_ERROR);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(ExistCheck, ANameThatCannotBeRememberedIsAnErrorAndForgotten) {
    answer("x");
    EXPECT_EQ(rvzd_exist_check("alpha"), TBS_ST_OK);
    EXPECT_EQ(rvzd_exist_check(std::string(256, 'h').c_str()), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_exist_check("alpha"), TBS_ST_ERROR); // it is still the last one
    EXPECT_EQ(rvzd_exist_check(std::string(255, 'h').c_str()), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_exist_check("alpha"), TBS_ST_OK);
}

} // namespace
