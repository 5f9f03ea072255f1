// New entries, and questions to the registry itself.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <functional>

#include <unistd.h>

#include <veliaxdr/rgy_manage.h>

extern "C" tbs_status_t add_region(const char *name);

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t dbs_max = 2;

struct Call {
    const char *host = nullptr;
    rgy_entry_t *entry = nullptr;
    rgy_db_info_t dbs[dbs_max] = {};
    int64_t count = -1;
    char list[RGY_WIRE_HOST_LIST_MAX + 1] = "";
    char *list_out = nullptr;
    rgy_timestamp_t *stamp = nullptr;

    void give_back() {
        if (entry != nullptr)
            rgy_delete_entry(&entry);
        if (stamp != nullptr)
            rgy_destroy_timestamp(&stamp);
        for (auto &db : dbs) {
            stg_free(db.name);
            db.name = nullptr;
        }
    }
};

// The six, and how each reports what fails.
struct Operation {
    const char *name;
    uint32_t procedure;
    bool takes_host;
    uint32_t authenticated;
    bool tells_failed_bind; // and makes an error of it
    bool tells_failed_call; // likewise
    bool keeps_slot;
    std::function<tbs_status_t(Call &)> call;
};

void PrintTo(const Operation &operation, std::ostream *out) {
    *out << operation.name;
}

const Operation operations[] = {
    {"rgy_create_entry", 13, true, 1, false, true, false,
     [](Call &c) { return rgy_create_entry(3, c.host, &c.entry); }},
    {"rgy_chk_access", 20, true, 1, false, true, false, [](Call &c) { return rgy_chk_access(3, c.host, "secret"); }},
    {"rgy_create_timestamp", 21, true, 0, true, true, false,
     [](Call &c) { return rgy_create_timestamp(3, c.host, &c.stamp); }},
    {"rgy_get_db_list", 29, true, 0, true, false, false,
     [](Call &c) { return rgy_get_db_list(c.host, dbs_max, c.dbs, &c.count); }},
    {"rgy_get_current_backup", 32, false, 0, false, true, true,
     [](Call &c) {
         c.list_out = c.list;
         return rgy_get_current_backup(&c.list_out);
     }},
    {"rgy_set_current_backup", 33, false, 1, false, true, true,
     [](Call &) { return rgy_set_current_backup("beta gamma"); }},
};

class Manage : public RegistryTest, public testing::WithParamInterface<Operation> {
protected:
    Manage() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        static char name[] = "view_tag";
        static char hosts[] = "beta";
        rgy_db_info_t db = {1, name, uuid_from(1), uuid_from(2), 3};
        const rvzd_registry_get_id_reply_t id = {{}, 3, stamps_of(5, 6)};
        const rvzd_registry_get_db_reply_t dbs = {{}, 3, 1, &db};
        const rvzd_registry_get_backup_reply_t backup = {{}, hosts};
        world.peer.answer(13, sim::reply(xdr_rvzd_registry_get_id_reply_t, id));
        world.peer.answer(20, refusal(TBS_ST_OK));
        world.peer.answer(21, sim::reply(xdr_rvzd_registry_get_dtm_reply_t,
                                         rvzd_registry_get_dtm_reply_t{{}, 3, stamps_of(5, 6), {}, {}}));
        world.peer.answer(29, sim::reply(xdr_rvzd_registry_get_db_reply_t, dbs));
        world.peer.answer(32, sim::reply(xdr_rvzd_registry_get_backup_reply_t, backup));
        world.peer.answer(33, refusal(TBS_ST_OK));
    }
    ~Manage() override { call.give_back(); }

    tbs_status_t run() { return GetParam().call(call); }
    static sim::Message trouble(const char *host, tbs_status_t status) {
        return message_of(IMSG_ERROR, _registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, host,
                          tbs_strerror(status));
    }
    // Of the registry's own table; the others tell of the contact.
    std::vector<sim::Message> take_troubles() {
        auto messages = world.take_errors();
        std::erase_if(messages, [](const sim::Message &one) { return one.table != &_registry_rvzd_msg_table; });
        return messages;
    }

    Call call;
};

INSTANTIATE_TEST_SUITE_P(All, Manage, testing::ValuesIn(operations),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_P(Manage, AsksTheMasterWithItsCredentials) {
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(world.peer.last().procedure, GetParam().procedure);
    EXPECT_STREQ(rpc_binding[0].host, "alpha");
    EXPECT_EQ(rpc_binding[0].authenticated, GetParam().authenticated);
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_P(Manage, OnlyTheTwoOfTheBackupListKeepTheirSlotCounted) {
    ASSERT_EQ(run(), TBS_ST_OK);
    call.give_back();
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_EQ(rpc_binding[0].ref_count, GetParam().keeps_slot ? 2 : 0);
}

TEST_P(Manage, WhetherASlotStaysCountedDoesNotHangOnTheAnswer) {
    int32_t expected = 0;
    for (const auto &answer : {refusal(4711), sim::silence()}) {
        world.peer.answer(GetParam().procedure, answer);
        ASSERT_NE(run(), TBS_ST_OK);
        expected += GetParam().keeps_slot ? 1 : 0;
        EXPECT_EQ(rpc_binding[0].ref_count, expected);
    }
}

TEST_P(Manage, AsksAHostThatIsGiven) {
    call.host = "beta";
    ASSERT_EQ(run(), TBS_ST_OK);
    EXPECT_STREQ(rpc_binding[0].host, GetParam().takes_host ? "beta" : "alpha");
}

TEST_P(Manage, AFailedCallIsReportedInItsOwnWay) {
    for (const tbs_status_t status : std::vector<tbs_status_t>{TBS_ST_UNSUPPORTED, 4711}) {
        world.peer.answer(GetParam().procedure, refusal(status));
        EXPECT_EQ(run(), GetParam().tells_failed_call ? TBS_ST_ERROR : status);
        const auto troubles = take_troubles();
        if (GetParam().tells_failed_call) {
            EXPECT_THAT(troubles, ElementsAre(trouble("alpha", status)));
        } else {
            EXPECT_THAT(troubles, IsEmpty());
        }
    }
    EXPECT_EQ(call.entry, nullptr);
    EXPECT_EQ(call.stamp, nullptr);
}

TEST_P(Manage, AFailureLeavesTheBindingUsable) {
    world.peer.answer_once(GetParam().procedure, refusal(4711));
    world.peer.answer_once(GetParam().procedure, sim::silence());
    EXPECT_NE(run(), TBS_ST_OK);
    EXPECT_NE(run(), TBS_ST_OK);
    EXPECT_EQ(run(), TBS_ST_OK);
    EXPECT_STREQ(rpc_binding[0].host, "alpha");
    EXPECT_EQ(rpc_binding[1].handle, nullptr);
}

TEST_P(Manage, AFailedBindToAGivenHostIsToldUnderItsName) {
    if (!GetParam().takes_host)
        return; // asks the master, whatever is given
    call.host = "nowhere";
    EXPECT_EQ(run(), GetParam().tells_failed_bind ? TBS_ST_ERROR : TBS_ST_NOT_FOUND);
    const auto troubles = take_troubles();
    if (GetParam().tells_failed_bind) {
        EXPECT_THAT(troubles, ElementsAre(trouble("nowhere", TBS_ST_NOT_FOUND)));
    } else {
        EXPECT_THAT(troubles, IsEmpty());
    }
}

TEST_P(Manage, AnUnreadableConfigurationIsReportedInItsOwnWay) {
    std::filesystem::remove(world.root() + "/host/config/rgy_hosts.conf");
    EXPECT_EQ(run(), TBS_ST_ERROR);
    EXPECT_EQ(take_troubles().size(), GetParam().tells_failed_bind ? 1u : 0u);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_P(Manage, WithTheMasterUnreachableItIsAnError) {
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    EXPECT_EQ(run(), TBS_ST_ERROR);
    const auto troubles = take_troubles();
    if (GetParam().tells_failed_bind) {
        EXPECT_THAT(troubles, ElementsAre(trouble("alpha", TBS_ST_ERROR)));
    } else {
        EXPECT_THAT(troubles, IsEmpty());
    }
    EXPECT_EQ(world.peer.count(GetParam().procedure), 0u);
}

TEST_P(Manage, AFailedBindIsReportedInItsOwnWay) {
    world.write_file("host/config/rgy_hosts.conf", "nowhere");
    EXPECT_EQ(run(), GetParam().tells_failed_bind ? TBS_ST_ERROR : TBS_ST_NOT_FOUND);
    EXPECT_EQ(take_troubles().size(), GetParam().tells_failed_bind ? 1u : 0u);
}

TEST_P(Manage, EachFailingAllocationLeaksNothing) {
    ASSERT_EQ(run(), TBS_ST_OK);
    call.give_back();
    const auto before = sim::Holdings::now(world);
    sim::sweep_allocations(
        world, [&] { run(); },
        [&](int number) {
            call.give_back();
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
}

TEST_P(Manage, ARaiseLeaksNothing) {
    ASSERT_EQ(run(), TBS_ST_OK);
    call.give_back();
    const auto before = sim::Holdings::now(world);
    auto operation = [&] { run(); };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(registry_cache_lock.depth, 0u);
        EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
        EXPECT_EQ(call.entry, nullptr) << number;
        EXPECT_EQ(call.stamp, nullptr) << number;
        for (auto &db : call.dbs)
            db.name = nullptr;
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_GE(raises, 1);
}

class NewEntry : public Manage {};

TEST_F(NewEntry, HasHostStampsAndNoItems) {
    ASSERT_EQ(rgy_create_entry(3, nullptr, &call.entry), TBS_ST_OK);
    const auto stamps = stamps_of(5, 6);
    EXPECT_EQ(call.entry->magic, RGY_ENTRY_MAGIC);
    EXPECT_STREQ(call.entry->host, "alpha");
    EXPECT_TRUE(tbs_uuid_eq(&call.entry->dtm.dtm, &stamps.dtm));
    EXPECT_TRUE(tbs_uuid_eq(&call.entry->dtm.svr_dtm, &stamps.svr_dtm));
    EXPECT_EQ(call.entry->entry_id, 0u);
    EXPECT_EQ(call.entry->flex.count, 0);
    EXPECT_EQ(rgy_setstring_in_entry(call.entry, RGY_ITEM_TAG, "/a"), TBS_ST_OK);
    EXPECT_EQ(rgy_create_entry(3, nullptr, nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(NewEntry, IsMadeThoughThereIsNoStorageForItsVector) {
    ASSERT_EQ(rgy_create_entry(3, nullptr, &call.entry), TBS_ST_OK);
    call.give_back();
    bool seen = false;
    sim::sweep_allocations(
        world, [&] { rgy_create_entry(3, nullptr, &call.entry); },
        [&](int) {
            if (call.entry != nullptr) {
                seen = true;
                EXPECT_EQ(call.entry->flex.items, nullptr);
                world.fail_allocation(0);
                EXPECT_EQ(rgy_setstring_in_entry(call.entry, RGY_ITEM_TAG, "/a"), TBS_ST_OK);
            }
            call.give_back();
        });
    EXPECT_TRUE(seen);
}

TEST_F(NewEntry, FlushesWhatIsCachedOfItsDatabase) {
    Binding binding;
    ASSERT_EQ(rgy_bind_handle("alpha", binding, anonymous, 3), TBS_ST_OK);
    ASSERT_NE(rgy_rpc_get_cache(binding, 3), nullptr);
    ASSERT_NE(rgy_rpc_get_cache(binding, 4), nullptr);
    ASSERT_EQ(rgy_create_entry(3, nullptr, &call.entry), TBS_ST_OK);
    EXPECT_EQ(slot_of(binding).cache[3], nullptr);
    EXPECT_NE(slot_of(binding).cache[4], nullptr);
}

TEST_F(NewEntry, IsMadeAnewWhenItsStampsWereStale) {
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_OK));
    world.peer.answer_once(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    EXPECT_EQ(add_region("lab"), TBS_ST_OK);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_GET_ID), 2u);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 2u);
}

class Flushing : public Manage {
protected:
    // Which databases lost what was cached of them at the master by the operation.
    template <class Asked>
    std::vector<rgy_db_t> flushed_by(Asked &&asked) {
        Binding binding;
        EXPECT_EQ(rgy_bind_handle("alpha", binding, anonymous, 0), TBS_ST_OK);
        for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
            EXPECT_NE(rgy_rpc_get_cache(binding, db), nullptr);
        EXPECT_EQ(asked(), TBS_ST_OK);
        std::vector<rgy_db_t> flushed;
        for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
            if (slot_of(binding).cache[db] == nullptr)
                flushed.push_back(db);
        release_binding(binding);
        return flushed;
    }
};

TEST_F(Flushing, BelongsToTheDatabaseThatAccessIsAskedTo) {
    EXPECT_THAT(flushed_by([] { return rgy_chk_access(3, nullptr, "secret"); }), ElementsAre(3u));
    EXPECT_THAT(flushed_by([] { return rgy_chk_access(5, "alpha", "secret"); }), ElementsAre(5u));
}

TEST_F(Flushing, OfAllDatabasesComesWithANewListOfBackups) {
    EXPECT_THAT(flushed_by([] { return rgy_set_current_backup("beta"); }),
                ElementsAre(0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u));
}

TEST_F(Flushing, DoesNotComeWithQuestionsOfNobodys) {
    EXPECT_THAT(flushed_by([this] { return rgy_create_timestamp(3, nullptr, &call.stamp); }), IsEmpty());
    EXPECT_THAT(flushed_by([this] { return rgy_get_db_list(nullptr, dbs_max, call.dbs, &call.count); }), IsEmpty());
    EXPECT_THAT(flushed_by([this] {
                    call.list_out = call.list;
                    return rgy_get_current_backup(&call.list_out);
                }),
                IsEmpty());
}

using Access = Manage;

TEST_F(Access, SendsTheEffectiveUserAndThePassword) {
    ASSERT_EQ(rgy_chk_access(3, nullptr, "secret"), TBS_ST_OK);
    auto request = world.peer.last().decode(xdr_rvzd_registry_chk_access_req_t);
    EXPECT_EQ(request.db, 3);
    EXPECT_EQ(request.uid, static_cast<int64_t>(geteuid()));
    EXPECT_STREQ(request.password, "secret");
    stg_free(request.password);
}

TEST_F(Access, ThatIsDeniedOrHasNoPasswordIsAnAnswerAndNoTrouble) {
    for (const tbs_status_t status : std::vector<tbs_status_t>{TBS_ST_NO_ACCESS, TBS_ST_NOT_FOUND}) {
        world.peer.answer(20, refusal(status));
        EXPECT_EQ(rgy_chk_access(3, nullptr, "secret"), status);
    }
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(Access, ANullPasswordAndANullListAreRefused) {
    EXPECT_EQ(rgy_chk_access(3, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_set_current_backup(nullptr), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(Access, ListsOfDatabasesAndBackupsComeBack) {
    ASSERT_EQ(rgy_get_db_list(nullptr, dbs_max, call.dbs, &call.count), TBS_ST_OK);
    ASSERT_EQ(call.count, 1);
    EXPECT_STREQ(call.dbs[0].name, "view_tag");
    char *list = call.list;
    ASSERT_EQ(rgy_get_current_backup(&list), TBS_ST_OK);
    EXPECT_STREQ(call.list, "beta");
    ASSERT_EQ(rgy_set_current_backup("beta gamma"), TBS_ST_OK);
    auto request = world.peer.last().decode(xdr_rvzd_registry_set_backup_req_t);
    EXPECT_STREQ(request.host_list, "beta gamma");
    stg_free(request.host_list);
}

} // namespace
