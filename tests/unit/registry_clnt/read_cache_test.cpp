// The read cache as lookups see it: what is answered without a call, and what is not.
#include <tests/sim/noted.h>
#include <tests/unit/registry_clnt/registry_fixture.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A lookup by either kind of key; both go through the same rules.
struct Kind {
    const char *word;
    uint32_t procedure;
    int counters;
    uint32_t item;
    const char *key_text;
};

void PrintTo(const Kind &kind, std::ostream *out) {
    *out << kind.word;
}

const Kind kinds[] = {
    {"string", RVZD_PROC_RGY_FINDBYSTRING_ENTRY, string_counters, RGY_ITEM_TAG, "key1"},
    {"uuid", RVZD_PROC_RGY_FINDBYUUID_ENTRY, uuid_counters, RGY_ITEM_VIEW_UUID, "01020304-0506-0708-090a-0b0c0d0e0f10"},
};

// What a lookup was given, with defaults that make two of them identical.
struct Asked {
    int key = 1;
    uint32_t item_offset = 0;
    const char *region = "r1";
    int64_t max_entries = 1;
    uint64_t cursor = 0;
    rgy_dtm_pair_t dtm = {};
    rgy_db_t db = 3;
    const char *host = "alpha";
};

class ReadCache : public RegistryTest, public testing::WithParamInterface<Kind> {
protected:
    ReadCache() {
        world.write_file("host/config/rgy_hosts.conf", "alpha");
        answer_one();
        rgy_cache_ent_lifetime = 5;
        rgy_cache_idle_lifetime = 60;
        rgy_cache_action(1);
        std::copy(std::begin(rgy_rpc_stats), std::end(rgy_rpc_stats), at_start);
    }
    ~ReadCache() override { rgy_cache_action(1); }

    const Kind &kind() const { return GetParam(); }
    void answer(const sim::Answer &given) { world.peer.answer(kind().procedure, given); }
    void answer_one(uint8_t server_stamp = 2) { answer(batch({"-hostname=alpha;"}, 0, stamps_of(1, server_stamp))); }
    size_t calls() const { return world.peer.count(kind().procedure); }
    uint64_t counted(int counter) const {
        return rgy_rpc_stats[kind().counters + counter] - at_start[kind().counters + counter];
    }

    tbs_status_t find(const Asked &asked, rgy_cursor_t *&cursor, rgy_entry_t **entries, int64_t &count) {
        const uint32_t item = kind().item + asked.item_offset;
        const tbs_uuid_t uuid = uuid_from(static_cast<uint8_t>(asked.key));
        const std::string string = "key" + std::to_string(asked.key);
        return kind().counters == string_counters
                   ? rgy_findbystring_entry(asked.db, asked.host, asked.region, item, string.c_str(), &cursor,
                                            asked.max_entries, entries, &count)
                   : rgy_findbyuuid_entry(asked.db, asked.host, asked.region, item, &uuid, &cursor, asked.max_entries,
                                          entries, &count);
    }

    // Looks up and gives back what came; the number of entries, -1 on failure.
    int64_t look_up(const Asked &asked = {}) {
        rgy_cursor_t *cursor = nullptr;
        const rgy_dtm_pair_t none = {};
        if (asked.cursor != 0 || memcmp(&asked.dtm, &none, sizeof none) != 0) {
            cursor = static_cast<rgy_cursor_t *>(stg_malloc(sizeof(rgy_cursor_t)));
            *cursor = {asked.cursor, asked.dtm, RGY_CURSOR_MAGIC, 0, nullptr};
        }
        rgy_entry_t *entries[4] = {};
        int64_t count = 0;
        const auto status = find(asked, cursor, entries, count);
        for (auto *&entry : entries)
            if (entry != nullptr)
                rgy_delete_entry(&entry);
        if (cursor != nullptr)
            rgy_close_cursor(&cursor);
        return status == TBS_ST_OK ? count : -1;
    }

    uint64_t at_start[counter_count];
};

INSTANTIATE_TEST_SUITE_P(By, ReadCache, testing::ValuesIn(kinds),
                         [](const auto &one) { return std::string(one.param.word); });

TEST_P(ReadCache, TwoIdenticalLookupsWithinFiveSecondsAreOneCall) {
    EXPECT_EQ(look_up(), 1);
    world.advance_s(5);
    EXPECT_EQ(look_up(), 1);
    EXPECT_EQ(calls(), 1u);
    EXPECT_EQ(counted(hits), 1u);
    EXPECT_EQ(counted(misses), 1u);
    EXPECT_EQ(counted(fills), 1u);
}

TEST_P(ReadCache, AHitDeliversWhatTheCallDelivered) {
    answer(batch({"-hostname=alpha;"}, 77, stamps_of(5, 6)));
    for (int round = 0; round < 2; ++round) {
        rgy_cursor_t *cursor = nullptr;
        rgy_entry_t *entries[1] = {};
        int64_t count = 0;
        ASSERT_EQ(find({}, cursor, entries, count), TBS_ST_OK);
        EXPECT_EQ(count, 1);
        EXPECT_EQ(cursor->cursor, 77u);
        const auto stamps = stamps_of(5, 6);
        EXPECT_TRUE(tbs_uuid_eq(&cursor->dtm.dtm, &stamps.dtm));
        EXPECT_TRUE(tbs_uuid_eq(&entries[0]->dtm.svr_dtm, &stamps.svr_dtm));
        EXPECT_EQ(entries[0]->entry_id, 1u);
        EXPECT_STREQ(entries[0]->host, "alpha");
        const char *value = nullptr;
        ASSERT_EQ(rgy_getstring_from_entry_const(entries[0], RGY_ITEM_HOSTNAME, &value), TBS_ST_OK);
        EXPECT_STREQ(value, "alpha");
        rgy_delete_entry(&entries[0]);
        rgy_close_cursor(&cursor);
    }
    EXPECT_EQ(calls(), 1u);
}

TEST_P(ReadCache, AThirdLookupAfterSixSecondsIsANewCall) {
    look_up();
    world.advance_s(6);
    EXPECT_EQ(look_up(), 1);
    EXPECT_EQ(calls(), 2u);
    EXPECT_EQ(counted(timo), 1u);
    EXPECT_EQ(counted(repl), 1u);
    EXPECT_EQ(counted(misses), 2u);
    EXPECT_EQ(counted(fills), 1u);
}

TEST_P(ReadCache, StaleEntryIsSavedByYoungerFillWithSameServerStamp) {
    look_up({.key = 1});
    world.advance_s(4);
    look_up({.key = 2});
    world.advance_s(4);
    EXPECT_EQ(look_up({.key = 1}), 1);
    EXPECT_EQ(calls(), 2u);
    EXPECT_EQ(counted(dtmsave), 1u);
    EXPECT_EQ(counted(hits), 1u);
    EXPECT_EQ(counted(timo), 0u);
}

TEST_P(ReadCache, ASavedEntryIsAsYoungAsTheFillThatSavedIt) {
    look_up({.key = 1});
    world.advance_s(4);
    look_up({.key = 2});
    world.advance_s(3);
    look_up({.key = 1});
    EXPECT_EQ(counted(dtmsave), 1u);
    look_up({.key = 1});
    EXPECT_EQ(counted(dtmsave), 1u);
    EXPECT_EQ(counted(hits), 2u);
    world.advance_s(3);
    look_up({.key = 1});
    EXPECT_EQ(counted(timo), 1u);
}

TEST_P(ReadCache, AYoungerFillWithAnotherServerStampVoidsTheOthers) {
    look_up({.key = 1});
    answer_one(9);
    look_up({.key = 2});
    EXPECT_EQ(look_up({.key = 1}), 1);
    EXPECT_EQ(calls(), 3u);
    EXPECT_EQ(counted(svrdtm_differs), 1u);
    EXPECT_EQ(counted(repl), 1u);
}

TEST_P(ReadCache, AnEntryForAnotherItemUnderTheSameKeyIsReplaced) {
    look_up();
    look_up({.item_offset = 1});
    EXPECT_EQ(calls(), 2u);
    EXPECT_EQ(counted(itemcoll), 1u);
    look_up({.item_offset = 1});
    EXPECT_EQ(calls(), 2u);
    EXPECT_EQ(counted(hits), 1u);
}

TEST_P(ReadCache, AnEntryForOtherStampsIsReplaced) {
    look_up();
    look_up({.dtm = stamps_of(7, 0)});
    look_up({.dtm = stamps_of(7, 8)});
    EXPECT_EQ(calls(), 3u);
    EXPECT_EQ(counted(dtm_differs), 2u);
    look_up({.dtm = stamps_of(7, 8)});
    EXPECT_EQ(calls(), 3u);
}

TEST_P(ReadCache, AnotherCursorBatchSizeOrRegionIsACallWithoutACountOfItsOwn) {
    const Asked variants[] = {{.max_entries = 2}, {.cursor = 5}, {.region = "r2"}, {.region = nullptr}};
    size_t expected = 0;
    for (const Asked &variant : variants) {
        look_up();
        look_up(variant);
        look_up(variant);
        expected += 2;
        EXPECT_EQ(calls(), expected);
    }
    for (const int counter : {timo, dtm_differs, itemcoll, svrdtm_differs, dtmsave})
        EXPECT_EQ(counted(counter), 0u) << counter;
    EXPECT_EQ(counted(repl), 7u);
    EXPECT_EQ(counted(misses), 8u);
    EXPECT_EQ(counted(fills), 1u);
}

TEST_P(ReadCache, OfSeveralDifferencesTheFirstAloneIsCounted) {
    // In the order in which they are tested; a lookup differs from the entry in this one and in all that follow.
    enum Difference { server_stamp, age, item, stamps, rest, difference_count };
    constexpr int counters[] = {svrdtm_differs, timo, itemcoll, dtm_differs}; // the rest has none
    for (int first = server_stamp; first < difference_count; ++first) {
        const int key = 10 + first;
        answer_one();
        look_up({.key = key});
        if (first <= age)
            world.advance_s(6);
        if (first == server_stamp) {
            answer_one(9);
            look_up({.key = 1}); // a younger fill
        }
        std::copy(std::begin(rgy_rpc_stats), std::end(rgy_rpc_stats), at_start);
        look_up({.key = key,
                 .item_offset = first <= item ? 1u : 0u,
                 .region = "r2",
                 .max_entries = 2,
                 .cursor = 5,
                 .dtm = first <= stamps ? stamps_of(7, 8) : rgy_dtm_pair_t{}});
        for (int place = server_stamp; place < rest; ++place)
            EXPECT_EQ(counted(counters[place]), place == first ? 1u : 0u) << first << " at " << place;
        EXPECT_EQ(counted(dtmsave), 0u) << first;
        EXPECT_EQ(counted(repl), 1u) << first;
    }
}

TEST_P(ReadCache, AnEntryThatIsReplacedLeavesNothingBehind) {
    look_up();
    const auto before = sim::Holdings::now(world);
    look_up({.region = "r2"});
    look_up({.region = "r1"});
    EXPECT_EQ(calls(), 3u);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_P(ReadCache, NoRegionIsARegionOfItsOwn) {
    look_up({.region = nullptr});
    look_up({.region = nullptr});
    EXPECT_EQ(calls(), 1u);
    look_up({.region = ""});
    EXPECT_EQ(calls(), 2u);
}

TEST_P(ReadCache, DatabasesAndHostsHaveTheirOwnCaches) {
    look_up();
    look_up({.db = 4});
    look_up({.host = "beta"});
    EXPECT_EQ(calls(), 3u);
    EXPECT_EQ(counted(fills), 3u);
}

TEST_P(ReadCache, ANegativeAnswerIsKept) {
    answer(batch({}));
    EXPECT_EQ(look_up(), 0);
    EXPECT_EQ(look_up(), 0);
    EXPECT_EQ(calls(), 1u);
    EXPECT_EQ(counted(hits), 1u);
}

TEST_P(ReadCache, AReplyOfTwoEntriesIsNeverKept) {
    answer(batch({"-a=1;", "-b=2;"}));
    EXPECT_EQ(look_up({.max_entries = 4}), 2);
    EXPECT_EQ(look_up({.max_entries = 4}), 2);
    EXPECT_EQ(calls(), 2u);
    EXPECT_EQ(counted(fills), 2u);
}

TEST_P(ReadCache, AFailedLookupIsNotKept) {
    answer(refusal(TBS_ST_NOT_FOUND));
    EXPECT_EQ(look_up(), -1);
    EXPECT_EQ(look_up(), -1);
    EXPECT_EQ(calls(), 2u);
}

TEST_P(ReadCache, AMalformedEntryIsAnsweredFromTheCacheToo) {
    answer(batch({"-a"}));
    EXPECT_EQ(look_up(), -1);
    EXPECT_EQ(look_up(), -1);
    EXPECT_EQ(calls(), 1u);
}

TEST_P(ReadCache, ACacheIdleForMoreThanSixtySecondsIsThrownAwayWhole) {
    look_up();
    world.advance_s(60);
    look_up();
    EXPECT_EQ(rgy_rpc_stats[idleflush] - at_start[idleflush], 0u);
    EXPECT_EQ(counted(timo), 1u);
    world.advance_s(61);
    look_up();
    EXPECT_EQ(rgy_rpc_stats[idleflush] - at_start[idleflush], 1u);
    EXPECT_EQ(counted(timo), 1u);
    EXPECT_EQ(counted(fills), 2u);
}

TEST_P(ReadCache, BothItsTablesAreWalkedInOrderSinceItsEndFreesWhatTheyHold) {
    look_up();
    EXPECT_EQ(sim::noted().ordered_tables.size(), 2u);
}

TEST_P(ReadCache, ACacheThatNeverWasFilledIsNotIdle) {
    answer(refusal(TBS_ST_NOT_FOUND));
    EXPECT_EQ(look_up(), -1);
    world.advance_s(61);
    EXPECT_EQ(look_up(), -1);
    EXPECT_EQ(rgy_rpc_stats[idleflush] - at_start[idleflush], 0u);
}

TEST_P(ReadCache, AClockThatJumpsBackwardExpiresEverythingAtOnce) {
    look_up();
    world.advance_s(-10);
    look_up();
    EXPECT_EQ(calls(), 2u);
    EXPECT_EQ(rgy_rpc_stats[idleflush] - at_start[idleflush], 1u);
    look_up();
    EXPECT_EQ(calls(), 2u);
}

TEST_P(ReadCache, AfterSwitchingOffAndOnNoOldEntryIsUsed) {
    look_up();
    world.now_us += 1;
    EXPECT_EQ(rgy_cache_action(0), 1);
    EXPECT_EQ(rgy_cache_action(1), 0);
    world.now_us += 1;
    look_up();
    EXPECT_EQ(calls(), 2u);
    look_up();
    EXPECT_EQ(calls(), 2u);
}

TEST_P(ReadCache, SwitchedOffEveryLookupIsACallAndNothingIsCounted) {
    look_up();
    rgy_cache_action(0);
    const uint64_t missed = counted(misses);
    look_up();
    look_up();
    EXPECT_EQ(calls(), 3u);
    EXPECT_EQ(counted(misses), missed);
    EXPECT_EQ(rgy_cache_action(0), 0);
    EXPECT_EQ(rgy_cache_action(5), 0);
    EXPECT_EQ(rgy_cache_action(1), 5);
}

TEST_P(ReadCache, AnAnswerThatComesAfterTheSwitchWentOffIsNotKept) {
    world.peer.on(kind().procedure, [](const sim::Call &) {
        rgy_cache_action(0);
        return batch({"-a=1;"});
    });
    EXPECT_EQ(look_up(), 1);
    rgy_cache_action(1);
    EXPECT_EQ(look_up(), 1);
    EXPECT_EQ(calls(), 2u);
}

TEST_P(ReadCache, TheLifetimesAreTheProgramsToChange) {
    rgy_cache_ent_lifetime = 100;
    rgy_cache_idle_lifetime = 50;
    look_up();
    world.advance_s(50);
    look_up();
    EXPECT_EQ(calls(), 1u);
    world.advance_s(1);
    look_up();
    EXPECT_EQ(calls(), 2u);
    EXPECT_EQ(rgy_rpc_stats[idleflush] - at_start[idleflush], 1u);
}

TEST_P(ReadCache, AnUpdateOfTheDatabaseIsSeenByTheNextLookup) {
    world.peer.answer(RVZD_PROC_RGY_REMOVE_ENTRY, refusal(TBS_ST_OK));
    look_up({.db = 3});
    look_up({.db = 4});
    rgy_entry_t entry = {};
    entry.magic = RGY_ENTRY_MAGIC;
    entry.host = const_cast<char *>("alpha");
    ASSERT_EQ(rgy_remove_entry(3, &entry), TBS_ST_OK);
    look_up({.db = 3});
    look_up({.db = 4});
    EXPECT_EQ(calls(), 3u);
}

TEST_P(ReadCache, TheTracesTellMissHitAndStaleEntry) {
    world.verbosity = 5;
    world.traced = {"registry:5"};
    const auto trace = [&](int position, auto... arguments) {
        return message_of(IMSG_TRACE, _registry_rvzd_msg_table, position, kind().word, registry_item_name(kind().item),
                          kind().key_text, arguments...);
    };
    look_up();
    EXPECT_THAT(world.take_messages(), ElementsAre(trace(83, "r1", 0ul, 1l)));
    look_up();
    EXPECT_THAT(world.take_messages(), ElementsAre(trace(82, "r1", 0ul, 1l)));
    look_up({.region = nullptr, .max_entries = 2, .cursor = 9});
    EXPECT_THAT(world.take_messages(), ElementsAre(trace(81, "<NR>", 9ul, 2l, 0ul, 1l, "r1")));
    look_up();
    EXPECT_THAT(world.take_messages(), ElementsAre(trace(81, "r1", 0ul, 1l, 9ul, 2l, "<NR>")));
}

TEST_P(ReadCache, NothingIsTracedBelowLevelFiveOrUnlessTheRegistryIs) {
    world.verbosity = 4;
    world.traced = {"registry:5"};
    look_up();
    look_up();
    world.verbosity = 5;
    world.traced = {"registry:3"};
    look_up();
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_P(ReadCache, WithoutStorageToKeepItAnAnswerIsDeliveredAllTheSame) {
    look_up({.key = 7});
    bool is_delivered_uncached = false;
    int key = 10;
    int64_t found = 0;
    size_t before = 0;
    sim::sweep_allocations(
        world,
        [&] {
            world.take_messages();
            before = calls();
            found = look_up({.key = ++key});
        },
        [&](int) {
            if (found != 1)
                return;
            EXPECT_EQ(calls(), before + 1);
            found = look_up({.key = key});
            is_delivered_uncached = is_delivered_uncached || calls() == before + 2;
        });
    EXPECT_EQ(found, 1);
    EXPECT_TRUE(is_delivered_uncached);
}

TEST_P(ReadCache, ARaiseInAMissOrAHitLeaksNothingButWhatTheCacheKeeps) {
    look_up();
    for (const bool is_hit : {false, true}) {
        rgy_cursor_t *cursor = nullptr;
        rgy_entry_t *entries[1] = {};
        int64_t count = 0;
        if (!is_hit)
            rgy_destroy_cache(rpc_binding[0].cache[3]);
        const auto before = sim::Holdings::now(world);
        auto operation = [&] { find({}, cursor, entries, count); };
        const int raises = sim::sweep_raises(world, operation, [&](int number) {
            sim::release_lock(rvzd_call_lock);
            EXPECT_EQ(registry_cache_lock.depth, 0u);
            EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
            EXPECT_EQ(entries[0], nullptr) << number;
            EXPECT_EQ(rpc_binding[0].ref_count, 0) << number;
            if (cursor != nullptr)
                rgy_close_cursor(&cursor);
            if (!is_hit)
                rgy_destroy_cache(rpc_binding[0].cache[3]);
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
        EXPECT_GE(raises, 2) << is_hit;
        if (entries[0] != nullptr)
            rgy_delete_entry(&entries[0]);
        if (cursor != nullptr)
            rgy_close_cursor(&cursor);
    }
    look_up();
}

class CacheStatistics : public RegistryTest {
protected:
    CacheStatistics() {
        for (uint64_t i = 0; i < counter_count; ++i)
            rgy_rpc_stats[i] = i + 100;
    }
};

TEST_F(CacheStatistics, ArePrintedOnlyAtTheEndAndInTheMessagesOrder) {
    world.verbosity = 3;
    world.traced = {"registry:3"};
    rgy_deallocate_bindings(nullptr);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::Message{
                    IMSG_TRACE, &_registry_rvzd_msg_table, 80,
                    "rgy cache stats:\n\tstrings: 100 hits, 101 misses (103 timo, 104 dtm 107 svrdtm 108 dtmsave 105 "
                    "itemcoll 102 fills 106 repl)\n\tuuids: 109 hits, 110 misses (112 timo, 113 dtm 116 svrdtm 117 "
                    "dtmsave 114 itemcoll 111 fills 115 repl)\n\tgeneral: 118 idleflush 119 tsflush\n"}));
}

TEST_F(CacheStatistics, AreNotPrintedBelowVerbosityThreeOrUnlessTheRegistryIsTraced) {
    world.verbosity = 2;
    world.traced = {"registry:3"};
    rgy_deallocate_bindings(nullptr);
    world.verbosity = 3;
    world.traced = {"registry:5"};
    rgy_deallocate_bindings(nullptr);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

} // namespace
