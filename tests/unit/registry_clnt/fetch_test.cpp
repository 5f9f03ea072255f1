// Fetches in batches.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <functional>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t batch_max = 3;

// What a fetch is called with, and what it gives.
struct Call {
    rgy_db_t db = 3;
    const char *host = "alpha";
    const char *region = "r1";
    rgy_cursor_t *cursor = nullptr;
    rgy_entry_t *entries[batch_max] = {};
    rgy_svr_entry_t raw[batch_max] = {};
    int64_t max_entries = batch_max;
    int64_t count = -7;
    uint32_t item = RGY_ITEM_TAG;
    tbs_uuid_t uuid = uuid_from(1);

    void give_back() {
        for (auto *&entry : entries)
            if (entry != nullptr)
                rgy_delete_entry(&entry);
        for (auto &entry : raw) {
            stg_free(entry.flex_text);
            entry = {};
        }
    }
    void end() {
        give_back();
        if (cursor != nullptr)
            rgy_close_cursor(&cursor);
    }
};

struct Operation {
    const char *name;
    uint32_t procedure;
    bool is_raw;
    std::function<tbs_status_t(Call &)> call;
};

void PrintTo(const Operation &operation, std::ostream *out) {
    *out << operation.name;
}

const char *patterns[] = {"a*"};

const Operation operations[] = {
    {"rgy_findbystring_entry", 14, false,
     [](Call &c) {
         return rgy_findbystring_entry(c.db, c.host, c.region, c.item, "/a", &c.cursor, c.max_entries, c.entries,
                                       &c.count);
     }},
    {"rgy_findbyuuid_entry", 15, false,
     [](Call &c) {
         return rgy_findbyuuid_entry(c.db, c.host, c.region, c.item, &c.uuid, &c.cursor, c.max_entries, c.entries,
                                     &c.count);
     }},
    {"rgy_findbyattr_entry", 34, false,
     [](Call &c) {
         return rgy_findbyattr_entry(c.db, c.host, c.region, c.item, "n", nullptr, &c.cursor, c.max_entries, c.entries,
                                     &c.count);
     }},
    {"rgy_get_entry", 16, false,
     [](Call &c) { return rgy_get_entry(c.db, c.host, c.region, &c.cursor, c.max_entries, c.entries, &c.count); }},
    {"rgy_get_pattern_entry", 76, false,
     [](Call &c) {
         return rgy_get_pattern_entry(c.db, c.host, c.region, patterns, 1, &c.cursor, c.max_entries, c.entries,
                                      &c.count);
     }},
    {"rgy_get_entry_unexpanded", 16, true,
     [](Call &c) {
         return rgy_get_entry_unexpanded(c.db, c.host, c.region, &c.cursor, c.max_entries, c.raw, &c.count);
     }},
};

class FetchTest : public RegistryTest {
protected:
    FetchTest() { world.write_file("host/config/rgy_hosts.conf", "alpha beta"); }
    ~FetchTest() override { call.end(); }

    sim::Message trouble(const char *host, tbs_status_t status) const {
        return message_of(IMSG_ERROR, _registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, host,
                          tbs_strerror(status));
    }

    Call call;
};

class Fetch : public FetchTest, public testing::WithParamInterface<Operation> {
protected:
    void answer(const sim::Answer &given) { world.peer.answer(GetParam().procedure, given); }
    tbs_status_t run() { return GetParam().call(call); }
    size_t calls() const { return world.peer.count(GetParam().procedure); }
    std::vector<std::string> delivered() const {
        std::vector<std::string> texts;
        for (int64_t i = 0; i < call.count; ++i) {
            char *text = nullptr;
            if (GetParam().is_raw)
                texts.emplace_back(call.raw[i].flex_text);
            else if (rgy_gather_flex_entry(&call.entries[i]->flex, &text) == TBS_ST_OK)
                texts.emplace_back(text);
            stg_free(text);
        }
        return texts;
    }
    bool is_nothing_delivered() const {
        for (int64_t i = 0; i < batch_max; ++i)
            if (call.entries[i] != nullptr || call.raw[i].flex_text != nullptr)
                return false;
        return true;
    }
};

INSTANTIATE_TEST_SUITE_P(All, Fetch, testing::ValuesIn(operations),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_F(FetchTest, NoPatternsAreAskedForAsTheyAreAndFewerAreRefused) {
    world.peer.answer(RVZD_PROC_RGY_GET_PATTERN_ENTRY, batch({}));
    const auto get = [this](const char *const *texts, int32_t count) {
        return rgy_get_pattern_entry(call.db, call.host, call.region, texts, count, &call.cursor, call.max_entries,
                                     call.entries, &call.count);
    };
    EXPECT_EQ(get(nullptr, 0), TBS_ST_OK);
    EXPECT_EQ(get(patterns, 0), TBS_ST_OK);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_GET_PATTERN_ENTRY), 2u);
    EXPECT_EQ(get(nullptr, 1), TBS_ST_INVALID_ARG);
    EXPECT_EQ(get(patterns, -1), TBS_ST_INVALID_ARG);
}

TEST_P(Fetch, TroubleIsToldWithTheBindingGivenBack) {
    answer(refusal(TBS_ST_NO_ACCESS));
    std::vector<int> counts;
    world.on_message = [&](const sim::Message &message) {
        if (message.table == &_registry_rvzd_msg_table)
            counts.push_back(static_cast<int>(rpc_binding[0].ref_count));
    };
    EXPECT_EQ(run(), TBS_ST_ERROR);
    world.on_message = nullptr;
    EXPECT_THAT(counts, ElementsAre(0));
}

TEST_P(Fetch, OnAnEmptyDatabaseIsOneCallWithACountOfZeroAndTheCursorGone) {
    answer(batch({}));
    call.max_entries = 1;
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(call.count, 0);
    EXPECT_EQ(call.cursor, nullptr);
    EXPECT_EQ(calls(), 1u);
}

TEST_P(Fetch, OfOneEntryEndsWithASecondCallThatChangesNothingAndNullsTheCursor) {
    answer(batch({"-a=1;"}));
    call.max_entries = 1;
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_THAT(delivered(), ElementsAre("-a=1;"));
    ASSERT_NE(call.cursor, nullptr);
    EXPECT_EQ(call.cursor->done, 1u);
    EXPECT_EQ(call.cursor->magic, RGY_CURSOR_MAGIC);
    const rgy_entry_t *entry = call.entries[0];
    call.count = 42;
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(call.cursor, nullptr);
    EXPECT_EQ(call.count, 42);
    EXPECT_EQ(call.entries[0], entry);
    EXPECT_EQ(calls(), 1u);
}

TEST_P(Fetch, RunsFromBatchToBatchWithTheCursorAndStampsOfTheLast) {
    answer(batch({"-a=1;", "-a=2;", "-a=3;"}, 30, stamps_of(5, 6)));
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_THAT(delivered(), ElementsAre("-a=1;", "-a=2;", "-a=3;"));
    EXPECT_EQ(call.cursor->done, 0u);
    call.give_back();
    answer(batch({"-a=4;", "-a=5;", "-a=6;"}));
    ASSERT_EQ(run(), TBS_ST_OK);
    const auto request = world.peer.last();
    if (GetParam().procedure != RVZD_PROC_RGY_GET_PATTERN_ENTRY) {
        auto record = request.decode(xdr_rvzd_registry_get_req_t);
        const auto stamps = stamps_of(5, 6);
        EXPECT_EQ(record.cursor, 30u);
        EXPECT_TRUE(tbs_uuid_eq(&record.dtm.dtm, &stamps.dtm));
        EXPECT_TRUE(tbs_uuid_eq(&record.dtm.svr_dtm, &stamps.svr_dtm));
        EXPECT_EQ(record.version, 3);
        stg_free(record.region);
    }
    // A batch that ends exactly on the last entry comes with `done`.
    EXPECT_EQ(call.cursor->cursor, 0u);
    EXPECT_EQ(call.cursor->done, 1u);
    EXPECT_THAT(delivered(), ElementsAre("-a=4;", "-a=5;", "-a=6;"));
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(call.cursor, nullptr);
}

TEST_P(Fetch, AnEmptyBatchWithMoreToComeIsNotTheEnd) {
    answer(batch({}, 30));
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(call.count, 0);
    ASSERT_NE(call.cursor, nullptr);
    EXPECT_EQ(call.cursor->cursor, 30u);
}

TEST_P(Fetch, WithoutAHostGoesToTheMasterAndStaysThere) {
    answer(batch({"-a=1;"}, 30));
    call.host = nullptr;
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_STREQ(call.cursor->host, "alpha");
    call.give_back();
    world.write_file("host/config/rgy_hosts.conf", "beta");
    rgy_hostname_cache_inval();
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_STREQ(call.cursor->host, "alpha");
}

TEST_P(Fetch, AnotherHostOnASecondCallIsRefusedAndTheCursorUnchanged) {
    answer(batch({"-a=1;"}, 30));
    ASSERT_EQ(run(), TBS_ST_OK);
    call.give_back();
    const rgy_cursor_t before = *call.cursor;
    const rgy_cursor_t *cursor = call.cursor;
    call.host = "beta";
    EXPECT_EQ(run(), TBS_ST_INVALID_ARG);
    EXPECT_EQ(call.cursor, cursor);
    EXPECT_EQ(call.cursor->cursor, before.cursor);
    EXPECT_EQ(call.cursor->host, before.host);
    EXPECT_EQ(call.cursor->done, 0u);
    EXPECT_EQ(calls(), 1u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_P(Fetch, ANullRegionIsSentAsTheEmptyString) {
    answer(batch({}));
    call.region = nullptr;
    ASSERT_EQ(run(), TBS_ST_OK);
    auto record = world.peer.last().decode(xdr_rvzd_registry_get_req_t);
    EXPECT_STREQ(record.region, "");
    stg_free(record.region);
}

TEST_P(Fetch, AFailedCallIsToldWithItsTextAndIsAnError) {
    answer(refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(run(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(trouble("alpha", TBS_ST_NO_ACCESS)));
    EXPECT_TRUE(is_nothing_delivered());
    EXPECT_NE(call.cursor, nullptr);
    answer(sim::silence());
    EXPECT_EQ(run(), TBS_ST_ERROR);
    const auto messages = world.take_errors();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1], trouble("alpha", TBS_ST_RPC_FAILED));
}

TEST_P(Fetch, AFailedBindIsItsStatusAndNotTold) {
    call.host = "nowhere";
    EXPECT_EQ(run(), TBS_ST_NOT_FOUND);
    for (const auto &message : world.take_errors())
        EXPECT_EQ(message.table, &_rvzd_rvzd_msg_table);
    EXPECT_EQ(calls(), 0u);
    EXPECT_NE(call.cursor, nullptr);
}

TEST_P(Fetch, WithoutConfigurationThereIsNoHostAndNothingIsTold) {
    std::filesystem::remove(world.root() + "/host/config/rgy_hosts.conf");
    call.host = nullptr;
    EXPECT_EQ(run(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_P(Fetch, EntriesAreNotMadeWithoutConfigurationThoughTheHostIsGiven) {
    std::filesystem::remove(world.root() + "/host/config/rgy_hosts.conf");
    answer(batch({"-a=1;"}));
    EXPECT_EQ(run(), GetParam().is_raw ? TBS_ST_OK : TBS_ST_ERROR);
    EXPECT_EQ(calls(), 1u);
    EXPECT_EQ(call.entries[0], nullptr);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_P(Fetch, AMalformedEntryTakesTheWholeBatchWithIt) {
    answer(batch({"-a=1;", "-b", "-c=1;"}));
    EXPECT_EQ(run(), GetParam().is_raw ? TBS_ST_OK : TBS_ST_INVALID_ARG);
    EXPECT_EQ(is_nothing_delivered(), !GetParam().is_raw);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_P(Fetch, MoreEntriesThanWereAskedForAreRefusedAndNothingHandedOut) {
    answer(batch({"-a=1;", "-a=2;"}));
    call.max_entries = 1;
    EXPECT_EQ(run(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(trouble("alpha", TBS_ST_INVALID_ARG)));
    EXPECT_TRUE(is_nothing_delivered());
    EXPECT_EQ(call.count, -7);
}

TEST_P(Fetch, ReadsAReplyOfVersionOne) {
    answer(batch({"-a=1;"}, 0, stamps_of(1, 2), 1));
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_THAT(delivered(), ElementsAre("-a=1;"));
}

TEST_P(Fetch, EntriesCarryHostStampsAndNumber) {
    answer(batch({"-a=1;", "-a=2;"}, 0, stamps_of(5, 6)));
    ASSERT_EQ(run(), TBS_ST_OK);
    if (GetParam().is_raw) {
        EXPECT_EQ(call.raw[1].entry_id, 2u);
        return;
    }
    const auto stamps = stamps_of(5, 6);
    EXPECT_EQ(call.entries[1]->magic, RGY_ENTRY_MAGIC);
    EXPECT_EQ(call.entries[1]->entry_id, 2u);
    EXPECT_STREQ(call.entries[1]->host, "alpha");
    EXPECT_TRUE(tbs_uuid_eq(&call.entries[1]->dtm.dtm, &stamps.dtm));
    EXPECT_TRUE(tbs_uuid_eq(&call.entries[1]->dtm.svr_dtm, &stamps.svr_dtm));
}

TEST_P(Fetch, EntriesOutliveTheirCursor) {
    answer(batch({"-a=1;"}));
    ASSERT_EQ(run(), TBS_ST_OK);
    ASSERT_EQ(rgy_close_cursor(&call.cursor), TBS_ST_OK);
    EXPECT_THAT(delivered(), ElementsAre("-a=1;"));
}

TEST_P(Fetch, UsesAnAnonymousBindingAndGivesItBack) {
    answer(batch({"-a=1;"}));
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(rpc_binding[0].authenticated, 0u);
    EXPECT_EQ(rpc_binding[0].ref_count, 0);
    EXPECT_NE(rpc_binding[0].handle, nullptr);
}

TEST_P(Fetch, EachFailingAllocationIsAFailureAndLeaksNothing) {
    answer(batch({"-a=1;-b=2;", "-c=3;"}));
    rgy_cache_action(0);
    ASSERT_EQ(run(), TBS_ST_OK);
    call.end();
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    const int failures = sim::sweep_allocations(
        world, [&] { status = run(); },
        [&](int number) {
            EXPECT_NE(status, TBS_ST_OK) << number;
            EXPECT_TRUE(GetParam().is_raw || is_nothing_delivered()) << number;
            call.end();
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_GE(failures, 5);
    EXPECT_EQ(status, TBS_ST_OK);
    rgy_cache_action(1);
}

TEST_P(Fetch, ARaiseAnywhereLeaksNothingAndGivesTheBindingBack) {
    answer(batch({"-a=1;-b=2;", "-c=3;"}));
    rgy_cache_action(0);
    ASSERT_EQ(run(), TBS_ST_OK);
    call.end();
    const auto before = sim::Holdings::now(world);
    auto operation = [&] { run(); };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(registry_cache_lock.depth, 0u);
        EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
        EXPECT_TRUE(GetParam().is_raw || is_nothing_delivered()) << number;
        EXPECT_EQ(rpc_binding[0].ref_count, 0) << number;
        call.end();
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_GE(raises, 5);
    rgy_cache_action(1);
}

TEST_P(Fetch, NullArgumentsAreRefusedBeforeAnythingHappens) {
    const auto refused = [](tbs_status_t status) { return status == TBS_ST_INVALID_ARG; };
    rgy_cursor_t **no_cursor = nullptr;
    EXPECT_TRUE(refused(rgy_get_entry(3, "alpha", "", no_cursor, 1, call.entries, &call.count)));
    EXPECT_TRUE(refused(rgy_get_entry(3, "alpha", "", &call.cursor, 1, nullptr, &call.count)));
    EXPECT_TRUE(refused(rgy_get_entry(3, "alpha", "", &call.cursor, 1, call.entries, nullptr)));
    EXPECT_TRUE(refused(rgy_get_entry_unexpanded(3, "alpha", "", &call.cursor, 1, nullptr, &call.count)));
    EXPECT_TRUE(
        refused(rgy_findbystring_entry(3, "alpha", "", 3, nullptr, &call.cursor, 1, call.entries, &call.count)));
    EXPECT_TRUE(refused(rgy_findbyuuid_entry(3, "alpha", "", 3, nullptr, &call.cursor, 1, call.entries, &call.count)));
    EXPECT_TRUE(refused(rgy_get_pattern_entry(3, "alpha", "", nullptr, 1, &call.cursor, 1, call.entries, &call.count)));
    EXPECT_TRUE(
        refused(rgy_get_pattern_entry(3, "alpha", "", patterns, -1, &call.cursor, 1, call.entries, &call.count)));
    EXPECT_TRUE(refused(rgy_close_cursor(&call.cursor)));
    EXPECT_TRUE(refused(rgy_close_cursor(nullptr)));
    EXPECT_EQ(call.cursor, nullptr);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(FetchTest, AFailedCallLeavesTheSlotItsHandleAndItsCaches) {
    world.peer.answer(RVZD_PROC_RGY_FINDBYSTRING_ENTRY, batch({"-a=1;"}));
    ASSERT_EQ(operations[0].call(call), TBS_ST_OK);
    call.end();
    rvzd_handle_t *handle = rpc_binding[0].handle;
    rgy_rpc_cache_t *cache = rpc_binding[0].cache[3];
    ASSERT_NE(cache, nullptr);
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, sim::silence());
    EXPECT_EQ(operations[3].call(call), TBS_ST_ERROR);
    call.end();
    EXPECT_EQ(rpc_binding[0].handle, handle);
    EXPECT_EQ(rpc_binding[0].cache[3], cache);
    EXPECT_EQ(rpc_binding[0].ref_count, 0);
}

TEST_F(FetchTest, AFailureIsToldUnderTheLockButForTheRawScan) {
    for (const auto &operation : operations) {
        std::vector<uint32_t> depths;
        world.on_message = [&](const sim::Message &) { depths.push_back(registry_cache_lock.depth); };
        world.peer.answer(operation.procedure, refusal(TBS_ST_NO_ACCESS));
        EXPECT_EQ(operation.call(call), TBS_ST_ERROR) << operation.name;
        EXPECT_THAT(depths, ElementsAre(operation.is_raw ? 0u : 1u)) << operation.name;
        call.end();
    }
}

TEST_F(FetchTest, OnlyTheScanByPatternsKnowsADaemonWithoutThem) {
    for (const auto &operation : operations) {
        world.peer.answer(operation.procedure, refusal(TBS_ST_UNSUPPORTED));
        const bool is_pattern = operation.procedure == RVZD_PROC_RGY_GET_PATTERN_ENTRY;
        EXPECT_EQ(operation.call(call), is_pattern ? TBS_ST_UNSUPPORTED : TBS_ST_ERROR) << operation.name;
        EXPECT_EQ(world.take_errors().size(), is_pattern ? 0u : 1u) << operation.name;
        call.end();
    }
    world.peer.answer(RVZD_PROC_RGY_GET_PATTERN_ENTRY, sim::failure(RPC_PROCUNAVAIL));
    EXPECT_EQ(operations[4].call(call), TBS_ST_UNSUPPORTED);
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(FetchTest, TheSearchesSendTheItemsKeyOrTheEmptyOne) {
    world.peer.answer(RVZD_PROC_RGY_FINDBYSTRING_ENTRY, batch({}));
    for (const auto &[item, key] : {std::pair{uint32_t{RGY_ITEM_REGION}, "-region"}, {40u, ""}, {UINT32_MAX, ""}}) {
        call.item = item;
        call.max_entries = 2 + item % 2;
        ASSERT_EQ(operations[0].call(call), TBS_ST_OK);
        auto record = world.peer.last().decode(xdr_rvzd_registry_findbystring_req_t);
        EXPECT_STREQ(record.item_key, key);
        EXPECT_STREQ(record.lookup_string, "/a");
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_findbystring_req_t), &record);
    }
}

TEST_F(FetchTest, ANullAttributeIsSentAsTheEmptyString) {
    world.peer.answer(RVZD_PROC_RGY_FINDBYATTR_ENTRY, batch({}));
    ASSERT_EQ(operations[2].call(call), TBS_ST_OK);
    auto record = world.peer.last().decode(xdr_rvzd_registry_findbyattr_req_t);
    EXPECT_STREQ(record.attr_name, "n");
    EXPECT_STREQ(record.attr_value, "");
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_findbyattr_req_t), &record);
}

TEST_F(FetchTest, OnlyTheSearchesByStringAndUuidAreCached) {
    for (const auto &operation : operations) {
        world.peer.answer(operation.procedure, batch({"-a=1;"}));
        const size_t before = world.peer.count(operation.procedure);
        for (int round = 0; round < 2; ++round) {
            ASSERT_EQ(operation.call(call), TBS_ST_OK);
            call.end();
        }
        const bool is_cached = operation.procedure == 14 || operation.procedure == 15;
        EXPECT_EQ(world.peer.count(operation.procedure) - before, is_cached ? 1u : 2u) << operation.name;
    }
}

TEST_F(FetchTest, ACursorFinishedByThePointerWorksFromTheStartAgain) {
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, batch({"-a=1;"}));
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(operations[3].call(call), TBS_ST_OK);
        call.give_back();
        ASSERT_EQ(operations[3].call(call), TBS_ST_OK);
        ASSERT_EQ(call.cursor, nullptr);
    }
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_GET_ENTRY), 2u);
}

} // namespace
