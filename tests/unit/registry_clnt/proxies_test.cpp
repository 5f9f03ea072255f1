// The proxies: what goes out, what comes back, and how a call fails.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <functional>

#include <support/stg.h>

namespace {

using testing::IsEmpty;

constexpr size_t batch_max = 4;

const rgy_dtm_pair_t sent_stamps = stamps_of(0x51, 0x52);

// What the calls of a test hand in and get back.
struct Call {
    rvzd_handle_t *handle = nullptr;
    rgy_dtm_pair_t pair = sent_stamps;
    uint64_t cursor = 17;
    int64_t max_entries = batch_max;
    rgy_svr_entry_t elist[batch_max] = {};
    int64_t count = -5;
    rgy_dtm_pair_t stamps = {};
    tbs_uuid_t aux1 = {};
    tbs_uuid_t aux2 = {};
    rgy_db_info_t dbs[batch_max] = {};
    char host_list[RGY_WIRE_HOST_LIST_MAX + 1] = "before";
    char *host_list_out = host_list;
    tbs_uuid_t uuid = uuid_from(0x80);
    uint32_t failed = 0;
    uint32_t passed = 0;

    void release() {
        for (auto &entry : elist)
            stg_free(entry.flex_text);
        for (auto &db : dbs)
            stg_free(db.name);
        *this = {.handle = handle};
        host_list_out = host_list;
    }
};

struct Proxy {
    const char *name;
    uint32_t procedure;
    bool is_fetch;
    std::function<tbs_status_t(Call &)> call;
    sim::Answer good;
};

void PrintTo(const Proxy &proxy, std::ostream *out) {
    *out << proxy.name;
}

const char *patterns[] = {"a*", "b?"};

const rvzd_registry_get_id_reply_t id_reply = {{}, 3, stamps_of(1, 2)};
const rvzd_registry_get_dtm_reply_t dtm_reply = {{}, 3, stamps_of(1, 2), uuid_from(3), uuid_from(4)};
rgy_db_info_t dbs[] = {{0, const_cast<char *>("view_object"), uuid_from(5), uuid_from(6), 7},
                       {1, const_cast<char *>("view_tag"), uuid_from(8), uuid_from(9), -1}};
const rvzd_registry_get_db_reply_t db_reply = {{}, 3, 2, dbs};
const rvzd_registry_get_backup_reply_t backup_reply = {{}, const_cast<char *>("beta gamma")};

const rgy_change_t changes[] = {{0, const_cast<char *>("-a=1;")}, {4711, nullptr}};
const rvzd_registry_change_reply_t change_reply = {{}, 3, {}, TBS_ST_OK, 0, 1};

const sim::Answer two_entries = batch({"-a=1;", "-b=2;"}, 9);
const sim::Answer done = refusal(TBS_ST_OK);

const Proxy proxies[] = {
    {"rvzd_rgy_get_id", 13, false, [](Call &c) { return rvzd_rgy_get_id(c.handle, 3, 3, &c.stamps); },
     sim::reply(xdr_rvzd_registry_get_id_reply_t, id_reply)},
    {"rvzd_rgy_findbystring_entry", 14, true,
     [](Call &c) {
         return rvzd_rgy_findbystring_entry(c.handle, 3, 3, "r1", "-tag", "/a", &c.pair, &c.cursor, c.max_entries,
                                            c.elist, &c.count);
     },
     two_entries},
    {"rvzd_rgy_findbyuuid_entry", 15, true,
     [](Call &c) {
         return rvzd_rgy_findbyuuid_entry(c.handle, 3, 3, "r1", "-view_uuid", &c.uuid, &c.pair, &c.cursor,
                                          c.max_entries, c.elist, &c.count);
     },
     two_entries},
    {"rvzd_rgy_get_entry", 16, true,
     [](Call &c) {
         return rvzd_rgy_get_entry(c.handle, 3, 3, "r1", &c.pair, &c.cursor, c.max_entries, c.elist, &c.count);
     },
     two_entries},
    {"rvzd_rgy_add_entry", 17, false, [](Call &c) { return rvzd_rgy_add_entry(c.handle, 3, 3, &c.pair, "-a=1;"); },
     done},
    {"rvzd_rgy_remove_entry", 18, false, [](Call &c) { return rvzd_rgy_remove_entry(c.handle, 3, 3, &c.pair, 4711); },
     done},
    {"rvzd_rgy_chk_access", 20, false, [](Call &c) { return rvzd_rgy_chk_access(c.handle, 3, 3, 1000, "secret"); },
     done},
    {"rvzd_rgy_get_dtm", 21, false,
     [](Call &c) { return rvzd_rgy_get_dtm(c.handle, 3, 3, &c.stamps, &c.aux1, &c.aux2); },
     sim::reply(xdr_rvzd_registry_get_dtm_reply_t, dtm_reply)},
    {"rvzd_rgy_get_db_list", 29, false,
     [](Call &c) { return rvzd_rgy_get_db_list(c.handle, 3, c.max_entries, c.dbs, &c.count); },
     sim::reply(xdr_rvzd_registry_get_db_reply_t, db_reply)},
    {"rvzd_rgy_clnt_conf_change", 30, false,
     [](Call &c) { return rvzd_rgy_clnt_conf_change(c.handle, 3, 10, "alpha"); }, done},
    {"rvzd_rgy_svr_conf_change", 31, false, [](Call &c) { return rvzd_rgy_svr_conf_change(c.handle, 3, 12, ""); },
     done},
    {"rvzd_rgy_get_backup", 32, false, [](Call &c) { return rvzd_rgy_get_backup(c.handle, 3, &c.host_list_out); },
     sim::reply(xdr_rvzd_registry_get_backup_reply_t, backup_reply)},
    {"rvzd_rgy_set_backup", 33, false, [](Call &c) { return rvzd_rgy_set_backup(c.handle, 3, "beta"); }, done},
    {"rvzd_rgy_findbyattr_entry", 34, true,
     [](Call &c) {
         return rvzd_rgy_findbyattr_entry(c.handle, 3, 3, "r1", "-attributes", "n", "v", &c.pair, &c.cursor,
                                          c.max_entries, c.elist, &c.count);
     },
     two_entries},
    {"rvzd_rgy_get_pattern_entry", 76, true,
     [](Call &c) {
         return rvzd_rgy_get_pattern_entry(c.handle, 3, 3, "r1", &c.pair, &c.cursor, patterns, 2, c.max_entries,
                                           c.elist, &c.count);
     },
     two_entries},
    {"rvzd_rgy_change_entries", 10050, false,
     [](Call &c) {
         return rvzd_rgy_change_entries(c.handle, 3, 3, &c.pair, RGY_CHANGE_IF_UNCHANGED, &c.uuid, 7, changes, 2,
                                        &c.failed, &c.passed);
     },
     sim::reply(xdr_rvzd_registry_change_reply_t, change_reply)},
};

class RegistryProxies : public RegistryTest {
protected:
    RegistryProxies() { call.handle = handle_to("alpha"); }
    ~RegistryProxies() override {
        call.release();
        rvzd_free_handle(call.handle);
        expect_lock_is_free();
    }

    Call call;
};

class RegistryProxy : public RegistryProxies, public testing::WithParamInterface<Proxy> {
protected:
    const Proxy &proxy() const { return GetParam(); }
    void answer(const sim::Answer &given) { world.peer.answer(proxy().procedure, given); }
    void answer_well() { answer(proxy().good); }

    // Nothing of the outs was written.
    void expect_untouched() {
        EXPECT_EQ(call.count, -5);
        EXPECT_EQ(call.cursor, 17u);
        EXPECT_TRUE(tbs_uuid_eq(&call.pair.dtm, &sent_stamps.dtm));
        EXPECT_STREQ(call.host_list, "before");
        for (const auto &entry : call.elist)
            EXPECT_EQ(entry.flex_text, nullptr);
        for (const auto &db : call.dbs)
            EXPECT_EQ(db.name, nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(All, RegistryProxy, testing::ValuesIn(proxies),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_P(RegistryProxy, SendsItsProcedureWithHeaderAndTimeOut) {
    answer_well();
    call.handle->tv_sec = 7;
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    const auto &sent = world.peer.last();
    EXPECT_EQ(sent.procedure, proxy().procedure);
    EXPECT_EQ(sent.program, static_cast<uint32_t>(RVZD_PROGRAM));
    EXPECT_EQ(sent.version, static_cast<uint32_t>(RVZD_VERSION));
    EXPECT_EQ(sent.time_out_us, 7'000'000);
    const auto header = sent.decode(xdr_rvzd_null_req_t).header;
    EXPECT_EQ(header.uniquifier, call.handle->cached->uniquifier);
    EXPECT_EQ(header.sequence, call.handle->cached->sequence - 1);
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_P(RegistryProxy, CountsTheRequestUp) {
    answer_well();
    const auto before = call.handle->cached->sequence;
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    call.release();
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    EXPECT_GE(call.handle->cached->sequence, before + 2);
}

TEST_P(RegistryProxy, AFailedCallIsToldUnderTheProxysName) {
    answer(sim::silence());
    EXPECT_EQ(proxy().call(call), TBS_ST_RPC_FAILED);
    EXPECT_EQ(head_of(world.take_errors()), std::string(proxy().name) + " call failed");
    expect_untouched();
}

// As the RPC library does when the peer sends an empty record: a success, and no reply.
void answer_with_nothing(CLIENT *client) {
    static auto operations = *client->cl_ops;
    operations.cl_call = [](CLIENT *, rpcproc_t, xdrproc_t, void *, xdrproc_t, void *, timeval) { return RPC_SUCCESS; };
    client->cl_ops = &operations;
}

TEST_P(RegistryProxy, ASuccessWithoutAReplyIsAFailedCall) {
    answer_with_nothing(call.handle->cached->client);
    EXPECT_EQ(proxy().call(call), TBS_ST_RPC_FAILED);
    const auto errors = world.take_errors();
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back().text, std::string(proxy().name) + " call failed: the answer was empty\n");
    expect_untouched();
}

TEST_P(RegistryProxy, TheRegistrysStatusIsTheResultAndNothingIsPrinted) {
    for (tbs_status_t status :
         std::vector<tbs_status_t>{TBS_ST_NOT_FOUND, TBS_ST_UNSUPPORTED, TBS_ST_STALE_ID, TBS_ST_NO_ACCESS, 4711}) {
        answer(refusal(status));
        EXPECT_EQ(proxy().call(call), status);
        expect_untouched();
    }
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_P(RegistryProxy, AReplyCutOffAtAnyByteFailsAndLeaksNothing) {
    answer_well();
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    call.release();
    const auto before = sim::Holdings::now(world);
    for (size_t length = 0; length < proxy().good.reply.size(); ++length) {
        sim::Answer cut = proxy().good;
        cut.reply.resize(length);
        answer(cut);
        EXPECT_EQ(proxy().call(call), TBS_ST_RPC_FAILED) << length;
        expect_untouched();
        EXPECT_EQ(sim::Holdings::now(world), before) << length;
    }
}

TEST_P(RegistryProxy, EachFailingAllocationIsAFailureAndLeaksNothing) {
    answer_well();
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    call.release();
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    sim::sweep_allocations(
        world, [&] { status = proxy().call(call); },
        [&](int number) {
            const bool is_name = status == TBS_ST_OK && call.count == 2;
            EXPECT_TRUE(status == TBS_ST_RPC_FAILED || status == TBS_ST_NO_MEMORY || is_name) << status;
            call.release();
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_P(RegistryProxy, ARaiseAnywhereLeaksNothingAndLeavesTheLockHeld) {
    answer_well();
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    call.release();
    const auto before = sim::Holdings::now(world);
    auto operation = [&] { proxy().call(call); };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        // The list of a fetch is its caller's, who frees it whatever happens.
        for (auto &entry : call.elist) {
            stg_free(entry.flex_text);
            entry = {};
        }
        for (auto &db : call.dbs)
            db = {};
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_GE(raises, 1);
}

TEST_P(RegistryProxy, OnlyAFetchEntersThisHostInTheClientList) {
    answer_well();
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    EXPECT_EQ(world.peer.count(RVZD_PROC_CLNT_LIST_REGISTER), proxy().is_fetch ? 1u : 0u);
}

class RegistryFetch : public RegistryProxy {};

std::vector<Proxy> fetches() {
    std::vector<Proxy> chosen;
    for (const auto &proxy : proxies)
        if (proxy.is_fetch)
            chosen.push_back(proxy);
    return chosen;
}

INSTANTIATE_TEST_SUITE_P(All, RegistryFetch, testing::ValuesIn(fetches()),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_P(RegistryFetch, SendsStampsCursorAndBatchSizeAndMovesThemOn) {
    answer_well();
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    if (proxy().procedure != RVZD_PROC_RGY_GET_PATTERN_ENTRY) {
        auto request = world.peer.last().decode(xdr_rvzd_registry_get_req_t);
        EXPECT_EQ(request.db, 3);
        EXPECT_EQ(request.version, 3);
        EXPECT_TRUE(tbs_uuid_eq(&request.dtm.dtm, &sent_stamps.dtm));
        EXPECT_TRUE(tbs_uuid_eq(&request.dtm.svr_dtm, &sent_stamps.svr_dtm));
        EXPECT_STREQ(request.region, "r1");
        EXPECT_EQ(request.cursor, 17u);
        EXPECT_EQ(request.max_entries, 4);
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_get_req_t), &request);
    }
    const auto stamps = stamps_of(1, 2);
    EXPECT_TRUE(tbs_uuid_eq(&call.pair.dtm, &stamps.dtm));
    EXPECT_TRUE(tbs_uuid_eq(&call.pair.svr_dtm, &stamps.svr_dtm));
    EXPECT_EQ(call.cursor, 9u);
    ASSERT_EQ(call.count, 2);
    EXPECT_EQ(call.elist[0].entry_id, 1u);
    EXPECT_STREQ(call.elist[0].flex_text, "-a=1;");
    EXPECT_EQ(call.elist[1].entry_id, 2u);
    EXPECT_STREQ(call.elist[1].flex_text, "-b=2;");
    EXPECT_EQ(call.elist[2].flex_text, nullptr);
}

TEST_P(RegistryFetch, AReplyWithMoreEntriesThanWereAskedForIsRefusedWhole) {
    answer(batch({"-a=1;", "-a=2;", "-a=3;", "-a=4;", "-a=5;"}));
    EXPECT_EQ(proxy().call(call), TBS_ST_INVALID_ARG);
    expect_untouched();
    call.max_entries = -1;
    EXPECT_EQ(proxy().call(call), TBS_ST_INVALID_ARG);
    answer(batch({"-a=1;", "-a=2;", "-a=3;", "-a=4;"}));
    call.max_entries = batch_max;
    EXPECT_EQ(proxy().call(call), TBS_ST_OK);
}

TEST_P(RegistryFetch, AReplyOfVersionOneBringsAtMostOneEntry) {
    answer(batch({"-a=1;"}, 0, stamps_of(1, 2), 1));
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    EXPECT_EQ(call.count, 1);
    EXPECT_STREQ(call.elist[0].flex_text, "-a=1;");
    call.release();
    answer(batch({}, 0, stamps_of(1, 2), 1));
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    EXPECT_EQ(call.count, 0);
}

TEST_P(RegistryFetch, WhatWasCopiedBeforeStorageRanOutStaysForTheCallerToFree) {
    answer_well();
    ASSERT_EQ(proxy().call(call), TBS_ST_OK);
    call.release();
    tbs_status_t status = TBS_ST_OK;
    bool seen = false;
    sim::sweep_allocations(
        world, [&] { status = proxy().call(call); },
        [&](int) {
            if (status == TBS_ST_NO_MEMORY && call.elist[0].flex_text != nullptr) {
                seen = true;
                EXPECT_EQ(call.count, 2);
                EXPECT_STREQ(call.elist[0].flex_text, "-a=1;");
                EXPECT_EQ(call.elist[1].flex_text, nullptr);
            }
            call.release();
        });
    EXPECT_TRUE(seen);
}

TEST_F(RegistryProxies, ABrokerThatDoesNotKnowPatternsOrManyChangesIsANormalAnswer) {
    for (const auto &proxy : proxies) {
        world.peer.answer(proxy.procedure, sim::failure(RPC_PROCUNAVAIL));
        const bool is_newer =
            proxy.procedure == RVZD_PROC_RGY_GET_PATTERN_ENTRY || proxy.procedure == RVZD_PROC_RGY_CHANGE_ENTRIES;
        EXPECT_EQ(proxy.call(call), is_newer ? TBS_ST_UNSUPPORTED : TBS_ST_RPC_FAILED) << proxy.name;
        EXPECT_EQ(world.take_errors().size(), is_newer ? 0u : 1u) << proxy.name;
    }
}

TEST_F(RegistryProxies, AnAddedTextOf4096CharactersFailsInEncoding) {
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, done);
    EXPECT_EQ(rvzd_rgy_add_entry(call.handle, 3, 3, &call.pair, std::string(4095, 'x').c_str()), TBS_ST_OK);
    EXPECT_EQ(rvzd_rgy_add_entry(call.handle, 3, 3, &call.pair, std::string(4096, 'x').c_str()), TBS_ST_RPC_FAILED);
    EXPECT_EQ(head_of(world.take_errors()), "rvzd_rgy_add_entry call failed");
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 1u);
}

TEST_F(RegistryProxies, ARegionOf32CharactersIsSentAndOneOf33IsNot) {
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, two_entries);
    EXPECT_EQ(rvzd_rgy_get_entry(call.handle, 3, 3, std::string(32, 'r').c_str(), &call.pair, &call.cursor, 4,
                                 call.elist, &call.count),
              TBS_ST_OK);
    call.release();
    EXPECT_EQ(rvzd_rgy_get_entry(call.handle, 3, 3, std::string(33, 'r').c_str(), &call.pair, &call.cursor, 4,
                                 call.elist, &call.count),
              TBS_ST_RPC_FAILED);
}

TEST_F(RegistryProxies, AnEmptyPatternListIsSent) {
    world.peer.answer(RVZD_PROC_RGY_GET_PATTERN_ENTRY, two_entries);
    ASSERT_EQ(rvzd_rgy_get_pattern_entry(call.handle, 3, 3, "", &call.pair, &call.cursor, nullptr, 0, 4, call.elist,
                                         &call.count),
              TBS_ST_OK);
    const auto request = world.peer.last().decode(xdr_rvzd_registry_get_pattern_req_t);
    EXPECT_EQ(request.patterns_length, 0);
    EXPECT_EQ(request.pattern_count, 0);
    EXPECT_EQ(request.max_entries, 4);
    stg_free(request.region);
}

TEST_F(RegistryProxies, PatternsGoOutWithBothCounts) {
    world.peer.answer(RVZD_PROC_RGY_GET_PATTERN_ENTRY, two_entries);
    ASSERT_EQ(proxies[14].call(call), TBS_ST_OK);
    auto request = world.peer.last().decode(xdr_rvzd_registry_get_pattern_req_t);
    ASSERT_EQ(request.patterns_length, 2);
    EXPECT_STREQ(request.patterns[0], "a*");
    EXPECT_STREQ(request.patterns[1], "b?");
    EXPECT_EQ(request.pattern_count, 2);
    EXPECT_EQ(request.cursor, 17u);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_get_pattern_req_t), &request);
}

TEST_F(RegistryProxies, TheSearchesSendWhatTheySearchFor) {
    world.peer.answer(RVZD_PROC_RGY_FINDBYSTRING_ENTRY, two_entries);
    ASSERT_EQ(proxies[1].call(call), TBS_ST_OK);
    auto by_string = world.peer.last().decode(xdr_rvzd_registry_findbystring_req_t);
    EXPECT_STREQ(by_string.item_key, "-tag");
    EXPECT_STREQ(by_string.lookup_string, "/a");
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_findbystring_req_t), &by_string);
    call.release();
    world.peer.answer(RVZD_PROC_RGY_FINDBYUUID_ENTRY, two_entries);
    ASSERT_EQ(proxies[2].call(call), TBS_ST_OK);
    auto by_uuid = world.peer.last().decode(xdr_rvzd_registry_findbyuuid_req_t);
    EXPECT_STREQ(by_uuid.item_key, "-view_uuid");
    EXPECT_TRUE(tbs_uuid_eq(&by_uuid.lookup_uuid, &call.uuid));
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_findbyuuid_req_t), &by_uuid);
    call.release();
    world.peer.answer(RVZD_PROC_RGY_FINDBYATTR_ENTRY, two_entries);
    ASSERT_EQ(proxies[13].call(call), TBS_ST_OK);
    auto by_attr = world.peer.last().decode(xdr_rvzd_registry_findbyattr_req_t);
    EXPECT_STREQ(by_attr.attr_name, "n");
    EXPECT_STREQ(by_attr.attr_value, "v");
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_findbyattr_req_t), &by_attr);
}

TEST_F(RegistryProxies, TheUpdatesSendStampsAndTheirMatter) {
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, done);
    world.peer.answer(RVZD_PROC_RGY_REMOVE_ENTRY, done);
    world.peer.answer(RVZD_PROC_RGY_CHK_ACCESS, done);
    ASSERT_EQ(proxies[4].call(call), TBS_ST_OK);
    auto add = world.peer.last().decode(xdr_rvzd_registry_add_req_t);
    EXPECT_TRUE(tbs_uuid_eq(&add.dtm.svr_dtm, &call.pair.svr_dtm));
    EXPECT_STREQ(add.flex_text, "-a=1;");
    stg_free(add.flex_text);
    ASSERT_EQ(proxies[5].call(call), TBS_ST_OK);
    const auto remove = world.peer.last().decode(xdr_rvzd_registry_remove_req_t);
    EXPECT_TRUE(tbs_uuid_eq(&remove.dtm.dtm, &call.pair.dtm));
    EXPECT_EQ(remove.entry_id, 4711u);
    ASSERT_EQ(proxies[6].call(call), TBS_ST_OK);
    auto access = world.peer.last().decode(xdr_rvzd_registry_chk_access_req_t);
    EXPECT_EQ(access.uid, 1000);
    EXPECT_STREQ(access.password, "secret");
    stg_free(access.password);
}

TEST_F(RegistryProxies, ManyChangesAreSentAsASetAndTellWhichFailed) {
    rvzd_registry_change_reply_t refused = {{}, 3, {{{9}}, {}}, TBS_ST_ALREADY_EXISTS, 8, 0};
    world.peer.answer(RVZD_PROC_RGY_CHANGE_ENTRIES, sim::reply(xdr_rvzd_registry_change_reply_t, refused));
    const auto pair = call.pair;
    EXPECT_EQ(proxies[15].call(call), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(call.failed, 8u);
    EXPECT_EQ(call.pair.dtm.bytes[0], 9) << "the stamps are those of the registry";
    auto sent = world.peer.last().decode(xdr_rvzd_registry_change_req_t);
    EXPECT_TRUE(tbs_uuid_eq(&sent.dtm.dtm, &pair.dtm));
    EXPECT_EQ(sent.flags, uint32_t{RGY_CHANGE_IF_UNCHANGED});
    EXPECT_TRUE(tbs_uuid_eq(&sent.set, &call.uuid));
    EXPECT_EQ(sent.before, 7u);
    ASSERT_EQ(sent.count, 2);
    EXPECT_STREQ(sent.changes[0].flex_text, "-a=1;");
    EXPECT_EQ(sent.changes[1].entry_id, 4711u);
    EXPECT_STREQ(sent.changes[1].flex_text, "");
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_change_req_t), &sent);
}

TEST_F(RegistryProxies, ChangesThatFitIntoNoRequestAreNotSent) {
    const std::string text = "-title=" + std::string(4000, 't') + ";";
    std::vector<rgy_change_t> many(15, {0, const_cast<char *>(text.c_str())});
    const auto send = [&] {
        return rvzd_rgy_change_entries(call.handle, 3, 3, &call.pair, 0, nullptr, 0, many.data(),
                                       static_cast<int64_t>(many.size()), &call.failed, &call.passed);
    };
    const size_t calls = world.peer.calls.size();
    EXPECT_EQ(send(), TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.peer.calls.size(), calls);
    many.pop_back();
    world.peer.answer(RVZD_PROC_RGY_CHANGE_ENTRIES, sim::reply(xdr_rvzd_registry_change_reply_t, change_reply));
    EXPECT_EQ(send(), TBS_ST_OK);
    EXPECT_EQ(call.passed, 1u);
}

TEST_F(RegistryProxies, TheConfigurationCallsSendOperationAndText) {
    for (uint32_t procedure : {29u, 30u, 31u, 33u})
        world.peer.answer(procedure, done);
    ASSERT_EQ(rvzd_rgy_clnt_conf_change(call.handle, 3, 10, "alpha"), TBS_ST_OK);
    auto conf = world.peer.last().decode(xdr_rvzd_registry_clnt_conf_req_t);
    EXPECT_EQ(conf.op, 10);
    EXPECT_STREQ(conf.text, "alpha");
    stg_free(conf.text);
    ASSERT_EQ(rvzd_rgy_svr_conf_change(call.handle, 3, 12, nullptr), TBS_ST_OK);
    conf = world.peer.last().decode(xdr_rvzd_registry_svr_conf_req_t);
    EXPECT_EQ(conf.op, 12);
    EXPECT_STREQ(conf.text, "");
    stg_free(conf.text);
    ASSERT_EQ(rvzd_rgy_set_backup(call.handle, 3, "beta"), TBS_ST_OK);
    auto backup = world.peer.last().decode(xdr_rvzd_registry_set_backup_req_t);
    EXPECT_STREQ(backup.host_list, "beta");
    stg_free(backup.host_list);
}

TEST_F(RegistryProxies, TheStampsComeBack) {
    world.peer.answer(13, proxies[0].good);
    ASSERT_EQ(proxies[0].call(call), TBS_ST_OK);
    const auto wanted = stamps_of(1, 2);
    EXPECT_TRUE(tbs_uuid_eq(&call.stamps.dtm, &wanted.dtm));
    EXPECT_TRUE(tbs_uuid_eq(&call.stamps.svr_dtm, &wanted.svr_dtm));
    world.peer.answer(21, proxies[7].good);
    call.stamps = {};
    ASSERT_EQ(proxies[7].call(call), TBS_ST_OK);
    EXPECT_TRUE(tbs_uuid_eq(&call.stamps.svr_dtm, &wanted.svr_dtm));
    const tbs_uuid_t aux[] = {uuid_from(3), uuid_from(4)};
    EXPECT_TRUE(tbs_uuid_eq(&call.aux1, &aux[0]));
    EXPECT_TRUE(tbs_uuid_eq(&call.aux2, &aux[1]));
}

TEST_F(RegistryProxies, TheDatabasesComeBackWithNamesOfTheirOwn) {
    world.peer.answer(29, proxies[8].good);
    ASSERT_EQ(proxies[8].call(call), TBS_ST_OK);
    ASSERT_EQ(call.count, 2);
    EXPECT_EQ(call.dbs[0].db, 0);
    EXPECT_STREQ(call.dbs[0].name, "view_object");
    EXPECT_EQ(call.dbs[1].last, -1);
    EXPECT_TRUE(tbs_uuid_eq(&call.dbs[1].uuid2, &dbs[1].uuid2));
    EXPECT_NE(call.dbs[0].name, dbs[0].name);
}

TEST_F(RegistryProxies, MoreDatabasesThanTheCallersArrayHoldsAreRefused) {
    world.peer.answer(29, proxies[8].good);
    call.max_entries = 1;
    EXPECT_EQ(proxies[8].call(call), TBS_ST_INVALID_ARG);
    EXPECT_EQ(call.dbs[0].name, nullptr);
    EXPECT_EQ(call.count, -5);
    call.max_entries = 2;
    EXPECT_EQ(proxies[8].call(call), TBS_ST_OK);
}

TEST_F(RegistryProxies, ADatabaseNameWithoutStorageIsNullAndNoFailure) {
    world.peer.answer(29, proxies[8].good);
    bool seen = false;
    tbs_status_t status = TBS_ST_OK;
    sim::sweep_allocations(
        world, [&] { status = proxies[8].call(call); },
        [&](int) {
            if (status == TBS_ST_OK) {
                seen = true;
                EXPECT_EQ(call.count, 2);
                const size_t missing = (call.dbs[0].name == nullptr) + (call.dbs[1].name == nullptr);
                EXPECT_EQ(missing, world.allocations_failed());
            }
            call.release();
        });
    EXPECT_TRUE(seen);
}

TEST_F(RegistryProxies, TheBackupListIsCopiedToTheCallersBuffer) {
    world.peer.answer(32, proxies[11].good);
    ASSERT_EQ(proxies[11].call(call), TBS_ST_OK);
    EXPECT_EQ(call.host_list_out, call.host_list);
    EXPECT_STREQ(call.host_list, "beta gamma");
    std::string longest(RGY_WIRE_HOST_LIST_MAX, 'h');
    const rvzd_registry_get_backup_reply_t reply = {{}, longest.data()};
    world.peer.answer(32, sim::reply(xdr_rvzd_registry_get_backup_reply_t, reply));
    ASSERT_EQ(proxies[11].call(call), TBS_ST_OK);
    EXPECT_EQ(call.host_list, longest);
}

} // namespace
