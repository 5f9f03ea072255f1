// The change of one entry.
#include <tests/unit/registry_clnt/registry_fixture.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Update : public RegistryTest {
protected:
    Update() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        for (const uint32_t procedure : {RVZD_PROC_RGY_ADD_ENTRY, RVZD_PROC_RGY_REMOVE_ENTRY})
            world.peer.answer(procedure, refusal(TBS_ST_OK));
        entry = static_cast<rgy_entry_t *>(stg_malloc(sizeof(rgy_entry_t)));
        *entry = {RGY_ENTRY_MAGIC, stg_strdup("alpha"), stamps_of(5, 6), 4711, {}};
        rgy_setstring_in_entry(entry, RGY_ITEM_TAG, "/a");
        rgy_setstring_in_entry(entry, RGY_ITEM_REGION, "r1");
    }
    ~Update() override { rgy_delete_entry(&entry); }

    sim::Message trouble(const char *host, tbs_status_t status) const {
        return message_of(IMSG_ERROR, _registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, host,
                          tbs_strerror(status));
    }

    // Both changes, which share most of their rules.
    struct Change {
        tbs_status_t (*run)(rgy_db_t, rgy_entry_t *);
        uint32_t procedure;
        const char *proxy;
    };
    static constexpr Change changes[] = {{rgy_add_entry, RVZD_PROC_RGY_ADD_ENTRY, "rvzd_rgy_add_entry"},
                                         {rgy_remove_entry, RVZD_PROC_RGY_REMOVE_ENTRY, "rvzd_rgy_remove_entry"}};

    rgy_entry_t *entry;
};

TEST_F(Update, AnAddSendsTextAndStampsWithTheCallersCredentials) {
    ASSERT_EQ(rgy_add_entry(3, entry), TBS_ST_OK);
    auto record = world.peer.last().decode(xdr_rvzd_registry_add_req_t);
    EXPECT_EQ(record.db, 3);
    EXPECT_EQ(record.version, 3);
    EXPECT_STREQ(record.flex_text, "-tag=/a;-region=r1;");
    EXPECT_TRUE(tbs_uuid_eq(&record.dtm.dtm, &entry->dtm.dtm));
    EXPECT_TRUE(tbs_uuid_eq(&record.dtm.svr_dtm, &entry->dtm.svr_dtm));
    stg_free(record.flex_text);
    EXPECT_EQ(rpc_binding[0].authenticated, 1u);
    EXPECT_EQ(rpc_binding[0].ref_count, 0);
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(Update, ARemovalNeedsOnlyHostStampsAndNumber) {
    rgy_destroy_flex_entry(&entry->flex);
    ASSERT_EQ(rgy_remove_entry(3, entry), TBS_ST_OK);
    const auto record = world.peer.last().decode(xdr_rvzd_registry_remove_req_t);
    EXPECT_EQ(record.db, 3);
    EXPECT_EQ(record.entry_id, 4711u);
    EXPECT_TRUE(tbs_uuid_eq(&record.dtm.svr_dtm, &entry->dtm.svr_dtm));
    EXPECT_EQ(rpc_binding[0].authenticated, 1u);
    EXPECT_EQ(entry->magic, RGY_ENTRY_MAGIC);
}

TEST_F(Update, EachFlushesWhatIsCachedOfItsDatabaseBeforeItIsSent) {
    Binding reader;
    ASSERT_EQ(rgy_bind_handle("alpha", reader, anonymous, 0), TBS_ST_OK);
    for (const auto &change : changes) {
        for (rgy_db_t db : {3u, 4u})
            ASSERT_NE(rgy_rpc_get_cache(reader, db), nullptr);
        bool is_flushed = false;
        world.peer.on(change.procedure, [&](const sim::Call &) {
            is_flushed = slot_of(reader).cache[3] == nullptr && slot_of(reader).cache[4] != nullptr;
            return refusal(TBS_ST_NO_ACCESS);
        });
        EXPECT_NE(change.run(3, entry), TBS_ST_OK);
        EXPECT_TRUE(is_flushed) << change.proxy;
    }
    release_binding(reader);
}

TEST_F(Update, WhatIsNoLiveEntryWithAHostIsRefused) {
    rgy_entry_t dead = *entry;
    dead.magic = 0;
    rgy_entry_t homeless = *entry;
    homeless.host = nullptr;
    for (const auto &change : changes)
        for (rgy_entry_t *wrong : {static_cast<rgy_entry_t *>(nullptr), &dead, &homeless})
            EXPECT_EQ(change.run(3, wrong), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.peer.calls, IsEmpty());
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Update, AnEntryThatDoesNotGatherIsNotSent) {
    entry->flex.items[0].value[0] = ';';
    EXPECT_EQ(rgy_add_entry(3, entry), TBS_ST_ERROR);
    EXPECT_THAT(world.peer.calls, IsEmpty());
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Update, AnAddRefusedAsStalePassesWithoutAMessage) {
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    EXPECT_EQ(rgy_add_entry(3, entry), TBS_ST_STALE_ID);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Update, AnAddRefusedForRightsIsToldUnderItsName) {
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_add_entry(3, entry), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("registry", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46,
                                                                "rgy_add_entry", tbs_strerror(TBS_ST_NO_ACCESS)))));
}

TEST_F(Update, AnyOtherFailureIsTroubleContactingAndAnError) {
    for (const auto &change : changes) {
        const bool is_add = change.procedure == RVZD_PROC_RGY_ADD_ENTRY;
        for (tbs_status_t status : std::vector<tbs_status_t>{TBS_ST_NOT_FOUND, TBS_ST_UNSUPPORTED, 4711,
                                                             is_add ? TBS_ST_NO_MEMORY : TBS_ST_STALE_ID}) {
            world.peer.answer(change.procedure, refusal(status));
            EXPECT_EQ(change.run(3, entry), TBS_ST_ERROR);
            EXPECT_THAT(world.take_messages(), ElementsAre(trouble("alpha", status)));
        }
        world.peer.answer(change.procedure, sim::silence());
        EXPECT_EQ(change.run(3, entry), TBS_ST_ERROR);
        const auto messages = world.take_messages();
        ASSERT_EQ(messages.size(), 2u);
        EXPECT_THAT(messages[0].text, testing::StartsWith(std::string(change.proxy) + " call failed"));
        EXPECT_EQ(messages[1], trouble("alpha", TBS_ST_RPC_FAILED));
    }
}

TEST_F(Update, AFailureIsToldWhenTheLockIsGivenBack) {
    std::vector<uint32_t> depths;
    world.on_message = [&](const sim::Message &) { depths.push_back(registry_cache_lock.depth); };
    for (const auto &change : changes) {
        world.peer.answer(change.procedure, refusal(4711));
        EXPECT_EQ(change.run(3, entry), TBS_ST_ERROR);
    }
    EXPECT_THAT(depths, ElementsAre(0u, 0u));
}

TEST_F(Update, AFailedBindIsItsStatus) {
    stg_free(entry->host);
    entry->host = stg_strdup("nowhere");
    for (const auto &change : changes) {
        EXPECT_EQ(change.run(3, entry), TBS_ST_NOT_FOUND);
        for (const auto &message : world.take_messages())
            EXPECT_EQ(message.table, &_rvzd_rvzd_msg_table);
    }
}

TEST_F(Update, EachFailingAllocationIsAFailureAndLeaksNothing) {
    for (const auto &change : changes) {
        ASSERT_EQ(change.run(3, entry), TBS_ST_OK);
        const auto before = sim::Holdings::now(world);
        tbs_status_t status = TBS_ST_OK;
        sim::sweep_allocations(
            world, [&] { status = change.run(3, entry); },
            [&](int number) {
                EXPECT_NE(status, TBS_ST_OK);
                EXPECT_EQ(sim::Holdings::now(world), before) << number;
            });
        EXPECT_EQ(status, TBS_ST_OK);
    }
}

TEST_F(Update, ARaiseLeaksNothingAndGivesTheBindingBack) {
    for (const auto &change : changes) {
        ASSERT_EQ(change.run(3, entry), TBS_ST_OK);
        const auto before = sim::Holdings::now(world);
        auto operation = [&] { change.run(3, entry); };
        const int raises = sim::sweep_raises(world, operation, [&](int number) {
            sim::release_lock(rvzd_call_lock);
            EXPECT_EQ(registry_cache_lock.depth, 0u);
            EXPECT_EQ(rpc_binding[0].ref_count, 0);
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
        EXPECT_GE(raises, 1);
    }
}

} // namespace
