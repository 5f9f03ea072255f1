// The cache behind handles: idle records, their limits, their age, and what a stale connection costs.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <atomic>
#include <thread>
#include <unistd.h>

#include <support/stg.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HandleCache : public BrokerTest {
protected:
    HandleCache() {
        for (int i = 1; i <= 8; ++i)
            world.add_host(host(i), {"127.0.1." + std::to_string(i)});
    }

    static std::string host(int number) { return "host" + std::to_string(number); }
    rvzd_cached_handle_t *rest(int number) { return rest_record(host(number).c_str()); }

    // Whether the record of this host is still cached: a new one would ask the resolver.
    bool is_cached(int number) {
        const size_t lookups = world.lookups.size();
        rvzd_handle_t *handle = handle_to(host(number).c_str());
        const bool cached = world.lookups.size() == lookups;
        rvzd_free_handle(handle);
        return cached;
    }

    // Breaks the connection: the next contact fails, later ones do not.
    void break_connection_once() { world.peer.answer_once(RVZD_PROC_CONTACT, sim::failure(RPC_CANTRECV)); }
};

// Runs `operation` while another thread holds the lock; it returns only if it does without.
template <class Operation>
void run_while_the_lock_is_held(Operation &&operation) {
    std::atomic<bool> is_held = false;
    std::atomic<bool> is_done = false;
    std::thread holder([&] {
        ivlthread_mutex_lock(&rvzd_call_lock);
        is_held = true;
        is_held.notify_one();
        is_done.wait(false);
        ivlthread_mutex_unlock(&rvzd_call_lock);
    });
    is_held.wait(false);
    operation();
    is_done = true;
    is_done.notify_one();
    holder.join();
}

TEST_F(HandleCache, FreeingNullReturnsAtOnceWithoutTheLock) {
    run_while_the_lock_is_held([] { rvzd_free_handle(nullptr); });
    expect_lock_is_free();
}

TEST_F(HandleCache, TheRpcClientIsToldWithoutTheLock) {
    rvzd_handle_t *handle = handle_to("host1");
    CLIENT *client = nullptr;
    run_while_the_lock_is_held([&] { client = rvzd_get_rpc_clnt(handle); });
    EXPECT_EQ(client, handle->cached->client);
    EXPECT_NE(client, nullptr);
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, AddressesAndVersionOfThePeerAreReadUnderTheLock) {
    rvzd_handle_t *handle = handle_to("host1");
    rvzd_server_addr_t addresses = {};
    const size_t locks = world.call_locks;
    rvzd_get_addr(handle, &addresses);
    EXPECT_EQ(world.call_locks, locks + 1);
    EXPECT_EQ(addresses.addr_count, 1u);
    EXPECT_EQ(rvzd_get_server_protocol_version(handle), 6u);
    EXPECT_EQ(world.call_locks, locks + 2);
    expect_lock_is_free();
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, AnIdleRecordIsReusedWithItsConnection) {
    rvzd_cached_handle_t *record = rest(1);
    EXPECT_EQ(record->reference_count, 0);
    EXPECT_EQ(world.live_clients(), 1u);
    rvzd_handle_t *handle = handle_to("host1");
    EXPECT_EQ(handle->cached, record);
    EXPECT_EQ(world.peer.calls.size(), 1u);
    EXPECT_EQ(world.live_clients(), 1u);
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, AThirdIdleConnectionCostsTheOldestItsConnectionButNotItsRecord) {
    rvzd_cached_handle_t *oldest = rest(1);
    rest(2);
    EXPECT_EQ(world.live_clients(), 2u);
    rest(3);
    EXPECT_EQ(world.live_clients(), 2u);
    EXPECT_EQ(world.live_descriptors(), 2u);
    EXPECT_EQ(oldest->client, nullptr);
    EXPECT_EQ(oldest->socket_fd, -1);
    EXPECT_TRUE(is_cached(1));
}

TEST_F(HandleCache, ARecordFoundWithoutAConnectionGetsANewOneThatStartsAgain) {
    rvzd_handle_t *handle = handle_to("host1");
    world.advance_s(5);
    rvzd_free_handle(handle_to("host1"));
    EXPECT_EQ(handle->cached->sequence, 2u);
    rvzd_free_handle(handle);
    rest(2);
    rest(3);
    const size_t contacts = world.peer.count(RVZD_PROC_CONTACT);
    const uint64_t uniquifier = world.next_uniquifier;
    handle = handle_to("host1");
    EXPECT_EQ(world.peer.count(RVZD_PROC_CONTACT), contacts + 1);
    EXPECT_EQ(handle->cached->uniquifier, uniquifier);
    EXPECT_EQ(handle->cached->sequence, 1u);
    const auto header = world.peer.last().decode(xdr_rvzd_contact_req_t).header;
    EXPECT_EQ(header.sequence, 0u);
    EXPECT_EQ(header.uniquifier, uniquifier);
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, ASixthIdleRecordEvictsTheOldestWhole) {
    const size_t empty = world.live_blocks();
    rest(1);
    const size_t one = world.live_blocks() - empty;
    for (int i = 2; i <= 6; ++i)
        rest(i);
    EXPECT_EQ(world.live_blocks() - empty, 5 * one);
    EXPECT_TRUE(is_cached(2));
    EXPECT_FALSE(is_cached(1));
}

TEST_F(HandleCache, LiveRecordsDoNotCountAsIdle) {
    std::vector<rvzd_handle_t *> handles;
    for (int i = 1; i <= 8; ++i)
        handles.push_back(handle_to(host(i).c_str()));
    EXPECT_EQ(world.live_clients(), 8u);
    for (rvzd_handle_t *handle : handles)
        rvzd_free_handle(handle);
    EXPECT_EQ(world.live_clients(), 2u);
}

TEST_F(HandleCache, ReuseMakesARecordTheYoungest) {
    for (int i = 1; i <= 5; ++i)
        rest(i);
    rest(1);
    rest(6);
    EXPECT_TRUE(is_cached(1));
    EXPECT_FALSE(is_cached(2));
}

TEST_F(HandleCache, LosingItsConnectionARecordLosesItsHostInformation) {
    rvzd_cached_handle_t *record = rest(1);
    record->hostinfo = static_cast<clnt_hostinfo_t *>(stg_malloc(sizeof(clnt_hostinfo_t)));
    *record->hostinfo = {};
    record->hostinfo->hostname = stg_strdup("host1");
    rest(2);
    rest(3);
    EXPECT_EQ(record->hostinfo, nullptr);
}

TEST_F(HandleCache, EveryRecordWalkedForAConnectionLosesItsHostInformation) {
    rvzd_cached_handle_t *without_connection = rest(1);
    rest(2);
    rest(3);
    ASSERT_EQ(without_connection->client, nullptr);
    without_connection->hostinfo = static_cast<clnt_hostinfo_t *>(stg_malloc(sizeof(clnt_hostinfo_t)));
    *without_connection->hostinfo = {};
    rest(4);
    EXPECT_EQ(without_connection->hostinfo, nullptr);
}

// Takes the connection of a live record away, which nothing in the library does.
void disconnect(rvzd_handle_t *handle) {
    rvzd_cached_handle_t *record = handle->cached;
    auth_destroy(record->client->cl_auth);
    clnt_destroy(record->client);
    close(record->socket_fd);
    record->client = nullptr;
    record->socket_fd = -1;
}

TEST_F(HandleCache, ARecordThatComesBackWithoutAConnectionCountsAsOneAllTheSame) {
    rvzd_handle_t *handle = handle_to("host1");
    disconnect(handle);
    rvzd_free_handle(handle);
    rest(2);
    EXPECT_EQ(world.live_clients(), 1u);
    rvzd_cached_handle_t *third = rest(3);
    EXPECT_EQ(world.live_clients(), 1u);
    EXPECT_NE(third->client, nullptr);
}

TEST_F(HandleCache, ARecordThatComesBackWithoutAConnectionIsNotCountedAmongTheIdle) {
    rvzd_handle_t *handle = handle_to("host1");
    disconnect(handle);
    rvzd_free_handle(handle);
    for (int i = 2; i <= 6; ++i)
        rest(i);
    EXPECT_TRUE(is_cached(1));
    for (int i = 2; i <= 6; ++i)
        EXPECT_TRUE(is_cached(i)) << i;
}

TEST_F(HandleCache, AnUncountedRecordIsTakenAgainWithoutHarm) {
    rvzd_handle_t *handle = handle_to("host1");
    disconnect(handle);
    rvzd_free_handle(handle);
    handle = handle_to("host1");
    rest(2);
    rvzd_free_handle(handle);
    EXPECT_TRUE(is_cached(1));
    EXPECT_TRUE(is_cached(2));
}

TEST_F(HandleCache, AStaleConnectionCostsOneSilentRetry) {
    rest(1);
    world.advance_s(5);
    break_connection_once();
    const uint64_t uniquifier = world.next_uniquifier;
    rvzd_handle_t *handle = nullptr;
    EXPECT_EQ(rvzd_get_handle_prim_proto("host1", RVZD_PROTOCOL_UDP, 0, 1, &handle), TBS_ST_OK);
    EXPECT_EQ(handle->cached->uniquifier, uniquifier);
    EXPECT_EQ(world.live_clients(), 1u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, AFreshAttemptThatSucceedsTellsNothingOfTheStaleOne) {
    rest(1);
    world.advance_s(5);
    world.peer.answer_once(RVZD_PROC_CONTACT, sim::silence()); // which is not told by itself
    const size_t calls = world.peer.calls.size();
    rvzd_free_handle(handle_to("host1"));
    EXPECT_EQ(world.peer.calls.size(), calls + 2);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HandleCache, WhenTheFreshAttemptFailsTooTheBrokersTextIsPrintedOnce) {
    rest(1);
    world.advance_s(5);
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    rvzd_handle_t *handle = nullptr;
    const size_t before = world.peer.calls.size();
    EXPECT_EQ(rvzd_get_handle("host1", &handle), TBS_ST_RPC_FAILED);
    EXPECT_EQ(world.peer.calls.size(), before + 2);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 33, "host1")));
    EXPECT_EQ(world.live_clients(), 0u);
}

TEST_F(HandleCache, AFreshRecordIsNotTriedTwice) {
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    rvzd_handle_t *handle = nullptr;
    EXPECT_EQ(rvzd_get_handle("host1", &handle), TBS_ST_RPC_FAILED);
    EXPECT_EQ(world.peer.calls.size(), 1u);
}

TEST_F(HandleCache, ADiscardedRecordLivesOnForItsOtherHandlesAndDiesWithTheLast) {
    rvzd_handle_t *first = handle_to("host1");
    world.advance_s(5);
    break_connection_once();
    rvzd_handle_t *second = handle_to("host1");
    EXPECT_NE(first->cached, second->cached);
    EXPECT_EQ(first->cached->hash_bucket, -1);
    EXPECT_EQ(world.live_clients(), 2u);
    const size_t timers = world.timers.size();
    rvzd_free_handle(first);
    EXPECT_EQ(world.live_clients(), 1u);
    EXPECT_EQ(world.timers.size(), timers);
    rvzd_free_handle(second);
}

TEST_F(HandleCache, ContactsOtherFailuresDiscardTheCachedRecordWithoutARetry) {
    rest(1);
    world.advance_s(5);
    world.peer.speak(6, 1234);
    rvzd_handle_t *handle = nullptr;
    const size_t before = world.peer.calls.size();
    EXPECT_EQ(rvzd_get_handle("host1", &handle), 1234);
    EXPECT_EQ(world.peer.calls.size(), before + 1);
    EXPECT_EQ(world.live_clients(), 0u);
    world.peer.speak(6);
    EXPECT_FALSE(is_cached(1));
}

TEST_F(HandleCache, WithoutAnAuthenticatorACachedRecordIsNotTriedAgain) {
    rest(1);
    rest(2);
    rest(3);
    const uint64_t uniquifier = world.next_uniquifier;
    world.faults.authenticator = 0;
    rvzd_handle_t *handle = nullptr;
    EXPECT_EQ(rvzd_get_handle("host1", &handle), TBS_ST_ERROR);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(world.next_uniquifier, uniquifier + 1);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    world.faults.authenticator = sim::Faults::never;
    EXPECT_FALSE(is_cached(1));
}

TEST_F(HandleCache, FreeingMoreHandlesThanThereAreIsAPanic) {
    rvzd_handle_t *handle = handle_to("host1");
    const auto free_too_often = [&] {
        imsg_set_sink(nullptr, nullptr);
        handle->cached->reference_count = 0;
        rvzd_free_handle(handle);
    };
    EXPECT_DEATH(free_too_often(), "panic at rvzd_clnt");
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, CountsWithoutAnIdleListAreFailedAssertions) {
    rvzd_cached_handle_t *record = rest(1);
    world.advance_s(100);
    const auto with_an_empty_list = [&](auto operation) {
        imsg_set_sink(nullptr, nullptr);
        llist_d_remove(&record->lru_elem);
        operation();
    };
    EXPECT_DEATH(with_an_empty_list(rvzd_free_cached_handles), "!llist_d_empty\\(&rvzd_handle_lru\\)");
    EXPECT_DEATH(with_an_empty_list([] { rvzd_cached_handle_close_check(nullptr); }),
                 "!llist_d_empty\\(&rvzd_handle_lru\\)");
}

TEST_F(HandleCache, RunningOffTheListForAConnectionIsAFailedAssertion) {
    rest(1);
    rvzd_cached_handle_t *second = rest(2);
    const auto run_off = [&] {
        imsg_set_sink(nullptr, nullptr);
        // A connection that is counted and does not stand in the list.
        llist_d_remove(&second->lru_elem);
        rvzd_handle_t *third = handle_to("host3");
        disconnect(third);
        second = rest_record("host4");
        llist_d_remove(&second->lru_elem);
        rest_record("host5");
        llist_d_remove(&second->lru_elem);
        rvzd_free_handle(third);
    };
    EXPECT_DEATH(run_off(), "!llist_d_end\\(&rvzd_handle_lru, lru_elem\\)");
}

TEST_F(HandleCache, ReleasingALiveRecordOrphansIt) {
    rvzd_handle_t *handle = handle_to("host1");
    rvzd_release_handle(handle->cached);
    EXPECT_EQ(handle->cached->hash_bucket, -1);
    EXPECT_FALSE(is_cached(1));
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, TheTimerIsArmedFor61SecondsWhenTheFirstRecordGoesIdle) {
    rest(1);
    ASSERT_EQ(world.timers.size(), 1u);
    EXPECT_EQ(world.timers[0].due_us - world.now_us, 61'000'000);
    rest(2);
    EXPECT_EQ(world.timers.size(), 1u);
}

TEST_F(HandleCache, TheTimerDropsWhatHasBeenIdleForMoreThanAMinute) {
    rest(1);
    world.run_timers_for_s(60);
    EXPECT_EQ(world.live_clients(), 1u);
    world.run_timers_for_s(1);
    EXPECT_EQ(world.live_clients(), 0u);
    EXPECT_THAT(world.timers, IsEmpty());
}

TEST_F(HandleCache, TheTimerIsArmedAgainForTheOldestThatStays) {
    rest(1);
    world.run_timers_for_s(10);
    rest(2);
    world.run_timers_for_s(51);
    EXPECT_EQ(world.live_clients(), 1u);
    ASSERT_EQ(world.timers.size(), 1u);
    // Armed in whole seconds, some microseconds of answered calls ago.
    EXPECT_NEAR(static_cast<double>(world.timers[0].due_us - world.now_us), 10e6, 1000);
    world.run_timers_for_s(10);
    EXPECT_EQ(world.live_clients(), 0u);
}

TEST_F(HandleCache, ARecordThatIsDiscardedLeavesTheOthersOfItsBucketThere) {
    const auto bucket_of_host = [](int number) { return velia::rvzd_clnt::bucket_of(host(number).c_str(), 1); };
    int twin = 2;
    while (bucket_of_host(twin) != bucket_of_host(1))
        ++twin;
    world.add_host(host(twin), {"127.0.2.1"});
    rest(1);
    rest(twin); // and so the first of the bucket
    world.advance_s(5);
    break_connection_once();
    EXPECT_FALSE(is_cached(twin));
    EXPECT_TRUE(is_cached(1));
}

TEST_F(HandleCache, TheTimerLeavesLiveRecordsAlone) {
    rvzd_handle_t *handle = handle_to("host1");
    rest(2);
    world.run_timers_for_s(200);
    EXPECT_EQ(world.live_clients(), 1u);
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, ATimerWithoutAnArmedOneIsAFailedAssertion) {
    const auto check = [] {
        imsg_set_sink(nullptr, nullptr);
        rvzd_cached_handle_close_check(nullptr);
    };
    EXPECT_DEATH(check(), "rvzd_handle_cache_close_h != NULL");
}

TEST_F(HandleCache, ATimerThatCannotBeArmedIsLoggedAndTriedAgain) {
    world.faults.rt_sched = 0;
    rest(1);
    EXPECT_THAT(world.take_errors(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "rt_sched",
                                                                tbs_strerror(TBS_ST_ERROR)))));
    world.faults.rt_sched = sim::Faults::never;
    rest(2);
    EXPECT_EQ(world.timers.size(), 1u);
}

TEST_F(HandleCache, ATimerThatCannotBeArmedAgainIsLogged) {
    rest(1);
    world.run_timers_for_s(30);
    rest(2);
    world.faults.rt_sched = 0;
    world.run_timers_for_s(31);
    EXPECT_THAT(world.take_errors(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "rt_sched",
                                                                tbs_strerror(TBS_ST_ERROR)))));
}

TEST_F(HandleCache, ProcessesWithoutALoopDropAgedRecordsThemselvesAndTheTimerStaysArmed) {
    rest(1);
    rvzd_free_cached_handles();
    EXPECT_EQ(world.live_clients(), 1u);
    world.advance_s(60);
    rvzd_free_cached_handles();
    EXPECT_EQ(world.live_clients(), 1u);
    world.advance_s(1);
    rvzd_free_cached_handles();
    EXPECT_EQ(world.live_clients(), 0u);
    EXPECT_EQ(world.timers.size(), 1u);
    expect_lock_is_free();
}

TEST_F(HandleCache, ProcessesWithoutALoopGetNoTimerByDroppingAgedRecords) {
    world.faults.rt_sched = 0;
    rest(1);
    world.advance_s(30);
    rest(2);
    world.faults.rt_sched = sim::Faults::never;
    for (const size_t idle : {2u, 1u, 0u}) {
        rvzd_free_cached_handles();
        EXPECT_EQ(world.live_clients(), idle);
        EXPECT_THAT(world.timers, IsEmpty());
        world.advance_s(31);
    }
}

TEST_F(HandleCache, NothingIdleMeansNothingToDrop) {
    rvzd_free_cached_handles();
    expect_lock_is_free();
}

TEST_F(HandleCache, EveryRequestCarriesTheNextSequenceNumberOfItsConnection) {
    rvzd_handle_t *first = handle_to("host1");
    for (uint64_t expected = 1; expected < 5; ++expected) {
        world.advance_s(5);
        rvzd_free_handle(handle_to("host1"));
        EXPECT_EQ(world.peer.last().decode(xdr_rvzd_contact_req_t).header.sequence, expected);
    }
    rvzd_free_handle(first);
}

TEST_F(HandleCache, ASequenceNumberBeyondTheWordOnTheWireWrapsThere) {
    rvzd_handle_t *handle = handle_to("host1");
    handle->cached->sequence = uint64_t{UINT32_MAX} + 8;
    world.advance_s(5);
    rvzd_free_handle(handle_to("host1"));
    EXPECT_EQ(world.peer.last().decode(xdr_rvzd_contact_req_t).header.sequence, 7u);
    rvzd_free_handle(handle);
}

TEST_F(HandleCache, ARaiseDuringTheRetryOfAStaleRecordUndoesAll) {
    rvzd_free_handle(handle_to(nullptr));
    rvzd_handle_t *handle = nullptr;
    // Each round starts with an idle record whose connection is broken.
    const auto prepare = [&] {
        rest(1);
        world.advance_s(5);
        break_connection_once();
    };
    const size_t descriptors = world.live_descriptors();
    for (int number = 1; number < sim::sweep_limit; ++number) {
        prepare();
        auto operation = [&] { rvzd_get_handle_prim_proto("host1", RVZD_PROTOCOL_UDP, 0, 1, &handle); };
        world.raise_at_call(number, sim::raise_code);
        const int code = sim::run_and_catch(operation);
        const bool sent = world.raise_was_sent();
        world.raise_at_call(0, 0);
        sim::release_lock(rvzd_call_lock);
        if (!sent) {
            EXPECT_GE(number, 8);
            EXPECT_EQ(code, 0);
            rvzd_free_handle(handle);
            return;
        }
        EXPECT_EQ(code, sim::raise_code);
        EXPECT_EQ(handle, nullptr) << number;
        EXPECT_EQ(world.live_descriptors(), descriptors) << number;
        world.peer = sim::Peer();
    }
    FAIL() << "no end of support calls";
}

TEST_F(HandleCache, ConcurrentCallersShareOneRecord) {
    // The simulated peer is one object: the lock of the broker client is what keeps it whole.
    constexpr int rounds = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                rvzd_handle_t *handle = nullptr;
                EXPECT_EQ(rvzd_get_handle("host1", &handle), TBS_ST_OK);
                rvzd_free_handle(handle);
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(world.peer.calls.size(), 1u);
    EXPECT_EQ(world.live_clients(), 1u);
}

} // namespace
