// Registering objects: what is set, the look for a duplicate, the tries after stale stamps, and how failures are told.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <functional>
#include <thread>

#include <tests/unit/registry_clnt/entry_fixture.h>
#include <veliaxdr/rgy_objects.h>

extern "C" tbs_status_t register_view(const tbs_uuid_t *view, const char *storage);

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t tries_max = 10;

std::string text_of(const tbs_uuid_t &uuid) {
    char text[TBS_UUID_STR_SIZE];
    return tbs_uuid_to_str(&uuid, text);
}

class Objects : public RegistryTest {
protected:
    Objects() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        // Each pair is new, as when others change the database all the time.
        world.peer.on(RVZD_PROC_RGY_GET_ID, [this](const sim::Call &) {
            const rvzd_registry_get_id_reply_t id = {{}, 3, stamps_of(++pairs_given, 6)};
            return sim::reply(xdr_rvzd_registry_get_id_reply_t, id);
        });
        world.peer.answer(RVZD_PROC_RGY_FINDBYUUID_ENTRY, batch({}));
        world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_OK));
    }

    // Everything that an object can have.
    tbs_status_t add_full() {
        const char *attributes[] = {"a", "b", "c"};
        return rgy_addinfo_with_owner(5, nullptr, "r1", "me", RGY_ITEM_VAULT_SET, &key, "h1", "/local", "/global",
                                      &second, RGY_ITEM_DOMAIN_UUID, 3, attributes);
    }
    tbs_status_t add_view(int32_t count = 0, const char *const *attributes = nullptr) {
        return rgy_add_view_object(nullptr, "me", &key, "h1", "/local", count, attributes);
    }

    // The answer to the look for a duplicate is kept until the add; one that never came to it leaves it there.
    static void drop_cached_answers() { flush_caches("alpha", RGY_DB_ALL); }

    // The requests of one procedure, as records; their texts go with the test.
    std::vector<sim::Call> calls_of(uint32_t procedure) const {
        auto calls = world.peer.calls;
        std::erase_if(calls, [=](const sim::Call &call) { return call.procedure != procedure; });
        return calls;
    }
    std::string added_text(const sim::Call &call) const {
        auto request = call.decode(xdr_rvzd_registry_add_req_t);
        const std::string text = request.flex_text;
        stg_free(request.flex_text);
        return text;
    }
    std::string last_text() const { return added_text(calls_of(RVZD_PROC_RGY_ADD_ENTRY).back()); }
    static sim::Message failed(const char *step, tbs_status_t status) {
        return sim::told_by("registry",
                            message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, step, tbs_strerror(status)));
    }
    static sim::Message trouble(tbs_status_t status) {
        return message_of(IMSG_ERROR, _registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, "alpha",
                          tbs_strerror(status));
    }

    const tbs_uuid_t key = uuid_from(0x10);
    const tbs_uuid_t second = uuid_from(0x80);
    uint8_t pairs_given = 0;
};

TEST_F(Objects, AllItemsAreSetInTheirOrder) {
    ASSERT_EQ(add_full(), TBS_ST_OK);
    EXPECT_EQ(last_text(), "-hostname=h1;-local_path=/local;-global_path=/global;-region=r1;-owner=me;-vault_set=" +
                               text_of(key) + ";-domain_uuid=" + text_of(second) + ";-attributes=a,b,c;");
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(Objects, NullTextsAndNoSecondUuidHaveNoItem) {
    ASSERT_EQ(rgy_addinfo(5, nullptr, nullptr, RGY_ITEM_VAULT_SET, &key, nullptr, nullptr, nullptr, nullptr,
                          RGY_ITEM_DOMAIN_UUID, 0, nullptr),
              TBS_ST_OK);
    EXPECT_EQ(last_text(), "-vault_set=" + text_of(key) + ";");
}

TEST_F(Objects, WithoutAnOwnerIsTheSameWithoutThatItem) {
    ASSERT_EQ(rgy_addinfo(5, nullptr, "r1", RGY_ITEM_VAULT_SET, &key, "h1", "/local", "/global", &second,
                          RGY_ITEM_DOMAIN_UUID, 0, nullptr),
              TBS_ST_OK);
    EXPECT_EQ(last_text(), "-hostname=h1;-local_path=/local;-global_path=/global;-region=r1;-vault_set=" +
                               text_of(key) + ";-domain_uuid=" + text_of(second) + ";");
}

TEST_F(Objects, AViewHasItsUuidAndItsOwner) {
    const char *attributes[] = {"snapshot"};
    ASSERT_EQ(add_view(1, attributes), TBS_ST_OK);
    EXPECT_EQ(last_text(),
              "-hostname=h1;-local_path=/local;-owner=me;-view_uuid=" + text_of(key) + ";-attributes=snapshot;");
    for (const auto &call : calls_of(RVZD_PROC_RGY_ADD_ENTRY)) {
        auto request = call.decode(xdr_rvzd_registry_add_req_t);
        EXPECT_EQ(request.db, RGY_DB_VIEW_OBJECT);
        stg_free(request.flex_text);
    }
}

TEST_F(Objects, AVaultHasItsReplicaAndItsFamily) {
    ASSERT_EQ(rgy_add_vault_object(nullptr, &key, "h1", "/local", &second, 0, nullptr), TBS_ST_OK);
    EXPECT_EQ(last_text(), "-hostname=h1;-local_path=/local;-vault_replica=" + text_of(key) +
                               ";-vault_family=" + text_of(second) + ";");
    auto request = calls_of(RVZD_PROC_RGY_ADD_ENTRY).back().decode(xdr_rvzd_registry_add_req_t);
    EXPECT_EQ(request.db, RGY_DB_VAULT_OBJECT);
    stg_free(request.flex_text);
}

TEST_F(Objects, TheDuplicateIsLookedForByTheKeyInTheRegion) {
    ASSERT_EQ(add_full(), TBS_ST_OK);
    auto request = calls_of(RVZD_PROC_RGY_FINDBYUUID_ENTRY).back().decode(xdr_rvzd_registry_findbyuuid_req_t);
    EXPECT_EQ(request.db, 5);
    EXPECT_STREQ(request.region, "r1");
    EXPECT_STREQ(request.item_key, "-vault_set");
    EXPECT_TRUE(tbs_uuid_eq(&request.lookup_uuid, &key));
    stg_free(request.region);
    stg_free(request.item_key);
}

TEST_F(Objects, AGivenHostIsAskedThroughout) {
    ASSERT_EQ(rgy_add_view_object("beta", nullptr, &key, "h1", "/local", 0, nullptr), TBS_ST_OK);
    for (const auto &call : world.peer.calls)
        EXPECT_EQ(call.address.ipv4.sin_addr.s_addr, htonl(0x7f000003)) << call.procedure;
}

TEST_F(Objects, AUuidThatStandsIsNotAddedAndNothingIsSaid) {
    world.peer.answer(RVZD_PROC_RGY_FINDBYUUID_ENTRY, batch({"-hostname=h2;"}));
    const auto before = world.live_blocks();
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(add_view(), TBS_ST_ALREADY_EXISTS);
        EXPECT_EQ(add_full(), TBS_ST_ALREADY_EXISTS);
    }
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 0u);
    EXPECT_THAT(world.take_errors(), IsEmpty());
    EXPECT_EQ(registry_cache_lock.depth, 0u);
    rgy_deallocate_bindings(nullptr);
    EXPECT_LE(world.live_blocks(), before + 3); // the broker's own record of the host stays
}

TEST_F(Objects, ALookForADuplicateThatFailsLetsTheAddGoOn) {
    world.peer.answer(RVZD_PROC_RGY_FINDBYUUID_ENTRY, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(add_view(), TBS_ST_OK);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 1u);
}

TEST_F(Objects, TheAnswerToTheLookIsNeverAnOldOne) {
    ASSERT_EQ(add_view(), TBS_ST_OK);
    world.peer.answer(RVZD_PROC_RGY_FINDBYUUID_ENTRY, batch({"-hostname=h1;"}));
    EXPECT_EQ(add_view(), TBS_ST_ALREADY_EXISTS);
}

TEST_F(Objects, AStaleEntryIsMadeAnewWithNewStamps) {
    world.peer.answer_once(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    world.peer.answer_once(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    EXPECT_EQ(add_view(), TBS_ST_OK);
    EXPECT_THAT(world.take_errors(), IsEmpty());
    const auto adds = calls_of(RVZD_PROC_RGY_ADD_ENTRY);
    ASSERT_EQ(adds.size(), 3u);
    uint8_t number = 0;
    for (const auto &call : adds) {
        auto request = call.decode(xdr_rvzd_registry_add_req_t);
        const auto expected = stamps_of(++number, 6);
        EXPECT_TRUE(tbs_uuid_eq(&request.dtm.dtm, &expected.dtm)) << int{number};
        EXPECT_EQ(std::string(request.flex_text), last_text());
        stg_free(request.flex_text);
    }
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_FINDBYUUID_ENTRY), 3u);
}

TEST_F(Objects, TheTenthTryMayStillSucceed) {
    for (size_t i = 0; i < tries_max - 1; ++i)
        world.peer.answer_once(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    EXPECT_EQ(add_view(), TBS_ST_OK);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), tries_max);
}

TEST_F(Objects, AfterTheTenthStaleEntryItGivesUp) {
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    EXPECT_EQ(add_view(), TBS_ST_STALE_ID);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), tries_max);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_GET_ID), tries_max);
    EXPECT_THAT(world.take_errors(), ElementsAre(failed("rgy_add_entry", TBS_ST_STALE_ID)));
}

TEST_F(Objects, ADuplicateThatCameWithTheStalenessEndsTheTries) {
    world.peer.on(RVZD_PROC_RGY_ADD_ENTRY, [this](const sim::Call &) {
        world.peer.answer(RVZD_PROC_RGY_FINDBYUUID_ENTRY, batch({"-hostname=h2;"}));
        return refusal(TBS_ST_STALE_ID);
    });
    EXPECT_EQ(add_view(), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 1u);
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(Objects, AFailedCreationIsToldUnderItsName) {
    world.peer.answer(RVZD_PROC_RGY_GET_ID, refusal(4711));
    EXPECT_EQ(add_view(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(trouble(4711), failed("rgy_create_entry", TBS_ST_ERROR)));
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_FINDBYUUID_ENTRY), 0u);
}

// A status that happens to be that of a stale entry is no stale entry when there is none.
TEST_F(Objects, ACreationIsNeverTriedAgain) {
    world.peer.speak(RVZD_PROTOCOL_CURRENT, TBS_ST_STALE_ID);
    EXPECT_EQ(add_view(), TBS_ST_STALE_ID);
    EXPECT_EQ(world.peer.count(RVZD_PROC_CONTACT), 1u);
    EXPECT_THAT(world.take_errors(), testing::Contains(failed("rgy_create_entry", TBS_ST_STALE_ID)));
}

TEST_F(Objects, ARefusedAddIsToldUnderItsName) {
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(add_view(), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_errors(),
                ElementsAre(failed("rgy_add_entry", TBS_ST_NO_ACCESS), failed("rgy_add_entry", TBS_ST_NO_ACCESS)));
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(4711));
    EXPECT_EQ(add_view(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(trouble(4711), failed("rgy_add_entry", TBS_ST_ERROR)));
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 2u);
}

TEST_F(Objects, ATextThatCannotBeSetIsToldAsSuch) {
    const std::string longest(RGY_ITEM_TEXT_SIZE - 1, 'x');
    const std::string too_long(RGY_ITEM_TEXT_SIZE, 'x');
    EXPECT_EQ(rgy_add_view_object(nullptr, nullptr, &key, longest.c_str(), nullptr, 0, nullptr), TBS_ST_OK);
    EXPECT_EQ(last_text(), "-hostname=" + longest + ";-view_uuid=" + text_of(key) + ";");
    for (const char *hostname : {too_long.c_str(), "a;b", "a\nb"}) {
        EXPECT_EQ(rgy_add_view_object(nullptr, nullptr, &key, hostname, nullptr, 0, nullptr), TBS_ST_INVALID_ARG);
        EXPECT_THAT(world.take_errors(), ElementsAre(failed("rgy_setstring_in_entry", TBS_ST_INVALID_ARG)));
    }
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 1u);
}

TEST_F(Objects, EachTextIsTestedByItself) {
    const auto add = [&](const char *region, const char *owner, const char *local, const char *global) {
        return rgy_addinfo_with_owner(5, nullptr, region, owner, RGY_ITEM_VAULT_SET, &key, "h1", local, global, nullptr,
                                      0, 0, nullptr);
    };
    EXPECT_EQ(add(";", "o", "l", "g"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(add("r", ";", "l", "g"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(add("r", "o", ";", "g"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(add("r", "o", "l", ";"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.take_errors(), std::vector<sim::Message>(4, failed("rgy_setstring_in_entry", TBS_ST_INVALID_ARG)));
}

TEST_F(Objects, AnObjectWithoutItsUuidIsRefused) {
    EXPECT_EQ(rgy_add_view_object(nullptr, "me", nullptr, "h1", "/local", 0, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_errors(), ElementsAre(failed("rgy_setuuid_in_entry", TBS_ST_INVALID_ARG)));
}

TEST_F(Objects, AnEntryThatIsTooLargeIsRefused) {
    const std::string text(RGY_ITEM_TEXT_SIZE - 1, 'x');
    EXPECT_EQ(rgy_addinfo_with_owner(5, nullptr, nullptr, text.c_str(), RGY_ITEM_VAULT_SET, &key, text.c_str(),
                                     text.c_str(), text.c_str(), nullptr, 0, 0, nullptr),
              TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(failed("rgy_add_entry", TBS_ST_ERROR)));
    EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY), 0u);
}

class Attributes : public Objects {
protected:
    std::string joined(const std::vector<std::string> &texts) {
        std::vector<const char *> attributes;
        for (const auto &text : texts)
            attributes.push_back(text.c_str());
        EXPECT_EQ(add_view(static_cast<int32_t>(attributes.size()), attributes.data()), TBS_ST_OK);
        const auto text = last_text();
        const auto at = text.find("-attributes=");
        return at == std::string::npos ? "none" : text.substr(at);
    }
};

TEST_F(Attributes, AreJoinedByCommas) {
    EXPECT_EQ(joined({"a", "b", "c"}), "-attributes=a,b,c;");
    EXPECT_EQ(joined({"a"}), "-attributes=a;");
    EXPECT_EQ(joined({"", "b"}), "-attributes=,b;");
    EXPECT_EQ(joined({""}), "-attributes=;");
}

TEST_F(Attributes, ThatAreNoneHaveNoItem) {
    EXPECT_EQ(joined({}), "none");
    const char *attributes[] = {"a"};
    for (const int32_t count : {0, -1}) {
        EXPECT_EQ(add_view(count, attributes), TBS_ST_OK);
        EXPECT_EQ(last_text().find("-attributes"), std::string::npos);
    }
    EXPECT_EQ(add_view(1, nullptr), TBS_ST_OK);
    EXPECT_EQ(last_text().find("-attributes"), std::string::npos);
}

TEST_F(Attributes, ThatIsNullIsTheEmptyText) {
    const char *attributes[] = {"a", nullptr, "c"};
    ASSERT_EQ(add_view(3, attributes), TBS_ST_OK);
    EXPECT_NE(last_text().find("-attributes=a,,c;"), std::string::npos) << last_text();
}

TEST_F(Attributes, OfEveryLengthAroundTheLimitAreWholeOrNotThere) {
    for (size_t length = RGY_ITEM_TEXT_SIZE - 4; length <= RGY_ITEM_TEXT_SIZE + 2; ++length) {
        const std::string text(length, 'x');
        const bool fits = length < RGY_ITEM_TEXT_SIZE;
        EXPECT_EQ(joined({text}), "-attributes=" + (fits ? text : "") + ";") << length;
        const std::string head(length - 2, 'x'); // with ",y" behind it
        EXPECT_EQ(joined({head, "y"}), "-attributes=" +
                                           (head.size() + 2 < RGY_ITEM_TEXT_SIZE ? head + ",y"
                                            : head.size() < RGY_ITEM_TEXT_SIZE   ? head
                                                                                 : "y") +
                                           ";")
            << length;
    }
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(Attributes, AShorterOneBehindOneThatDoesNotFitIsKept) {
    const std::string head(RGY_ITEM_TEXT_SIZE - 10, 'x');
    EXPECT_EQ(joined({head, "too long for it", "abc"}), "-attributes=" + head + ",abc;");
}

TEST_F(Attributes, ThatCannotBeSetAreToldUnderTheNameOfTheStepBefore) {
    const char *attributes[] = {"a;b"};
    EXPECT_EQ(add_view(1, attributes), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_errors(), ElementsAre(failed("rgy_setuuid_in_entry", TBS_ST_INVALID_ARG)));
}

TEST_F(Objects, TheLockIsHeldFromTheFirstQuestionToTheLastAndFreeAfterwards) {
    std::vector<uint32_t> depths;
    for (const uint32_t procedure : {RVZD_PROC_RGY_GET_ID, RVZD_PROC_RGY_FINDBYUUID_ENTRY, RVZD_PROC_RGY_ADD_ENTRY})
        world.peer.on(procedure, [&depths, procedure](const sim::Call &) {
            depths.push_back(registry_cache_lock.depth);
            if (procedure == RVZD_PROC_RGY_GET_ID)
                return sim::reply(xdr_rvzd_registry_get_id_reply_t,
                                  rvzd_registry_get_id_reply_t{{}, 3, stamps_of(1, 2)});
            return procedure == RVZD_PROC_RGY_ADD_ENTRY ? refusal(TBS_ST_OK) : batch({});
        });
    ASSERT_EQ(add_view(), TBS_ST_OK);
    EXPECT_THAT(depths, ElementsAre(2u, 2u, 2u));
    EXPECT_EQ(registry_cache_lock.depth, 0u);
}

// What is printed is printed with the lock free, so that a slow terminal holds up nobody.
TEST_F(Objects, AFailureIsToldWithTheLockFree) {
    static uint32_t depth_at_message;
    depth_at_message = 77;
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    imsg_set_sink([](void *, int, const char *, const imsg_table_t *, int,
                     const char *) { depth_at_message = registry_cache_lock.depth; },
                  nullptr);
    EXPECT_EQ(add_view(), TBS_ST_STALE_ID);
    imsg_set_sink(nullptr, nullptr);
    EXPECT_EQ(depth_at_message, 0u);
}

TEST_F(Objects, EachFailingAllocationLeaksNothingAndIsNoSuccessWithLess) {
    ASSERT_EQ(add_full(), TBS_ST_OK);
    const auto text = last_text();
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    const int failed_allocations = sim::sweep_allocations(
        world, [&] { status = add_full(); },
        [&](int number) {
            drop_cached_answers();
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_EQ(registry_cache_lock.depth, 0u) << number;
            if (status == TBS_ST_OK) {
                EXPECT_EQ(last_text(), text) << number;
            }
        });
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_GE(failed_allocations, 20);
}

TEST_F(Objects, ARaiseLeaksNothing) {
    ASSERT_EQ(add_full(), TBS_ST_OK);
    world.peer.answer_once(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_STALE_ID));
    const auto before = sim::Holdings::now(world);
    auto operation = [&] { add_full(); };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(registry_cache_lock.depth, 0u);
        EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
        drop_cached_answers();
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_GE(raises, 5);
}

TEST_F(Objects, TheExampleTakesAnObjectThatStandsAsRegistered) {
    EXPECT_EQ(register_view(&key, "/views/me"), TBS_ST_OK);
    EXPECT_NE(last_text().find("-attributes=snapshot,ucm=no;"), std::string::npos) << last_text();
    world.peer.answer(RVZD_PROC_RGY_FINDBYUUID_ENTRY, batch({"-hostname=h1;"}));
    EXPECT_EQ(register_view(&key, "/views/me"), TBS_ST_OK);
}

} // namespace
