// Handles, the hooks around calls, ids as texts and the transport without a handle.
#include <tests/unit/sched/fixture.h>

using testing::ElementsAre;
using testing::StartsWith;

namespace {

class SchedulerHandle : public SchedulerTest {
protected:
    tbs_status_t fail_to_open(const char *host = "alpha") {
        sched_h_t handle = scheduler;
        const auto status = sched_get_handle(host, &handle);
        EXPECT_EQ(handle, scheduler) << "the caller's word is written on success only";
        return status;
    }
};

TEST_F(SchedulerHandle, KnowsItsHostAndItsClient) {
    EXPECT_STREQ(sched_get_hostname(scheduler), "alpha");
    EXPECT_EQ(sched_get_rpc_clnt(scheduler), rvzd_get_rpc_clnt(scheduler->rvzd_handle));
    EXPECT_EQ(scheduler->handle_word, 0u);
    EXPECT_EQ(scheduler->client.count, 1);
    EXPECT_EQ(scheduler->client.auth, &scheduler->auth);
    EXPECT_EQ(scheduler->auth.flavour, 1u);
}

TEST_F(SchedulerHandle, WithoutAHostIsToThisHost) {
    world.add_host("thishost", {"127.0.0.1"});
    sched_h_t handle = open(nullptr);
    EXPECT_EQ(sched_get_hostname(handle), nullptr);
    EXPECT_EQ(world.lookups.back(), "thishost");
    sched_free_handle(&handle);
    forget_connections();
    EXPECT_EQ(world.live_clients(), before.clients);
    ++before.blocks; // the name of this host is kept
}

TEST_F(SchedulerHandle, AsksWithInterfaceVersionOneOverTcp) {
    sched_h_t handle = open("alpha");
    auto request = last_request(row::sched_contact);
    EXPECT_EQ(request.version, 1u);
    release(row::sched_contact, request);
    EXPECT_TRUE(world.peer.last().tcp);
    sched_free_handle(&handle);
}

TEST_F(SchedulerHandle, ToASchedulerOfAnotherVersionIsUnsupportedAndNothingIsSaid) {
    for (const uint32_t version : {0u, 2u}) {
        answer_contact(version);
        EXPECT_EQ(fail_to_open(), TBS_ST_UNSUPPORTED) << version;
        EXPECT_THAT(world.take_messages(), ElementsAre());
    }
}

TEST_F(SchedulerHandle, WhoseContactIsRefusedIsToldWithTheStatusText) {
    answer_contact(1, TBS_ST_NO_ACCESS);
    EXPECT_EQ(fail_to_open(), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "sched_contact",
                                                              tbs_strerror(TBS_ST_NO_ACCESS))));
}

TEST_F(SchedulerHandle, WhoseContactFailsIsToldTwice) {
    fail(row::sched_contact);
    EXPECT_EQ(fail_to_open(), TBS_ST_RPC_FAILED);
    const auto told = world.take_messages();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_THAT(told[0].text, StartsWith("sched_contact_V2"));
    EXPECT_EQ(told[1],
              message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "sched_contact", tbs_strerror(TBS_ST_RPC_FAILED)));
}

TEST_F(SchedulerHandle, ToAHostThatIsNotKnownGivesTheBrokersStatus) {
    EXPECT_EQ(fail_to_open("nowhere"), TBS_ST_NOT_FOUND);
    world.take_messages();
}

TEST_F(SchedulerHandle, WithoutStorageIsUndone) {
    sched_h_t handle = nullptr;
    tbs_status_t status = TBS_ST_OK;
    const auto operation = [&] {
        handle = nullptr;
        status = sched_get_handle("alpha", &handle);
    };
    sim::sweep_allocations(world, operation, [&](int number) {
        EXPECT_NE(status, TBS_ST_OK);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_EQ(status, TBS_ST_OK);
    sched_free_handle(&handle);
    world.take_messages();
}

TEST_F(SchedulerHandle, WithoutStorageForItsRecordOrNameIsTracedAndNoMemory) {
    world.verbosity = 1;
    world.traced = {"scheduler:1"};
    for (const int allocation : {1, 2}) {
        world.fail_allocation(allocation);
        EXPECT_EQ(fail_to_open(), TBS_ST_NO_MEMORY);
        world.fail_allocation(0);
        EXPECT_THAT(world.take_messages(), ElementsAre(text_message(IMSG_TRACE, "scheduler: no memory\n")));
    }
}

TEST_F(SchedulerHandle, IsUndoneByARaise) {
    begin_without_connections();
    sched_h_t handle = nullptr;
    sim::sweep_raises(
        world, [&] { sched_get_handle("alpha", &handle); },
        [&](int number) {
            sim::release_lock(rvzd_call_lock);
            EXPECT_EQ(handle, nullptr) << number;
            forget_connections();
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    sched_free_handle(&handle);
    forget_connections();
}

TEST_F(SchedulerHandle, IsFreedOnce) {
    sched_h_t handle = open("alpha");
    sched_free_handle(&handle);
    EXPECT_EQ(handle, nullptr);
    sched_free_handle(&handle);
}

TEST_F(SchedulerHandle, NullHasNeitherHostNorClient) {
    EXPECT_EQ(sched_get_hostname(nullptr), nullptr);
    EXPECT_EQ(sched_get_rpc_clnt(nullptr), nullptr);
    sched_job_id_t id = 7;
    EXPECT_EQ(sched_job_get_id(nullptr, nullptr, &id), TBS_ST_OK);
    EXPECT_EQ(id, 0u);
}

// ---- hooks ----

class SchedulerHooks : public SchedulerTest {
protected:
    SchedulerHooks() {
        time_t server_time = 42;
        answer(row::sched_get_time, sched_time_reply_t{TBS_ST_OK, &server_time});
    }
    time_t now = 0;
};

TEST_F(SchedulerHooks, OneBeforeThatIsNotZeroEndsTheCallWithItsStatus) {
    world.scheduler_hooks.before = [](uint32_t procedure, tbs_status_t *status) -> uint32_t {
        EXPECT_EQ(procedure, 58u);
        *status = TBS_ST_NOT_SET;
        return 7;
    };
    EXPECT_EQ(sched_get_time(scheduler, &now), TBS_ST_NOT_SET);
    EXPECT_TRUE(world.peer.calls.empty());
    EXPECT_EQ(now, 0);
}

TEST_F(SchedulerHooks, OneAfterThatIsNotZeroEndsTheCallWithItsStatusAndReleasesTheReply) {
    world.scheduler_hooks.after = [](uint32_t procedure, tbs_status_t *status) -> uint32_t {
        EXPECT_EQ(procedure, 58u);
        ivlthread_mutex_unlock(&rvzd_call_lock);
        *status = TBS_ST_NOT_SET;
        return 1;
    };
    EXPECT_EQ(sched_get_time(scheduler, &now), TBS_ST_NOT_SET);
    EXPECT_EQ(now, 0);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(SchedulerHooks, OneThatWritesNoStatusLeavesAFailure) {
    world.scheduler_hooks.before = [](uint32_t, tbs_status_t *) -> uint32_t { return 1; };
    EXPECT_EQ(sched_get_time(scheduler, &now), TBS_ST_RPC_FAILED);
}

TEST_F(SchedulerHooks, OneForAnErrorMayHaveTheCallSentAgain) {
    world.peer.answer_once(58, sim::failure(RPC_CANTRECV, ECONNRESET));
    world.peer.answer_once(58, sim::Answer{RPC_SUCCESS, 0, {0, 0, 0, 0, 0, 0}});
    std::vector<uint32_t> statuses;
    world.scheduler_hooks.error = [&](uint32_t procedure, uint32_t rpc_status, tbs_status_t *, uint32_t four) {
        EXPECT_EQ(procedure, 58u);
        EXPECT_EQ(four, 4u);
        statuses.push_back(rpc_status);
        return 0u;
    };
    EXPECT_EQ(sched_get_time(scheduler, &now), TBS_ST_OK);
    EXPECT_EQ(now, 42);
    EXPECT_THAT(statuses, ElementsAre(uint32_t{RPC_CANTRECV}, uint32_t{RPC_CANTDECODERES}));
    EXPECT_EQ(world.peer.calls.size(), 3u);
    world.take_messages();
}

TEST_F(SchedulerHooks, OneForAnErrorThatEndsTheCallGivesItsStatus) {
    fail(row::sched_get_time);
    world.scheduler_hooks.error = [](uint32_t, uint32_t, tbs_status_t *status, uint32_t) {
        ivlthread_mutex_unlock(&rvzd_call_lock);
        *status = TBS_ST_TRY_AGAIN;
        return 0xFFFFFFFFu;
    };
    EXPECT_EQ(sched_get_time(scheduler, &now), TBS_ST_TRY_AGAIN);
    world.take_messages();
}

TEST(OwnHooks, TakeAndGiveBackTheLock) {
    sim::World world;
    tbs_status_t status = 5;
    EXPECT_EQ(sched_c_clnt_exit_before(36, nullptr, nullptr, &status), 0u);
    EXPECT_EQ(rvzd_call_lock.depth, 1u);
    EXPECT_EQ(sched_c_clnt_exit_after(36, nullptr, nullptr, &status), 0u);
    EXPECT_EQ(rvzd_call_lock.depth, 0u);
    sched_c_clnt_exit_before(36, nullptr, nullptr, &status);
    EXPECT_EQ(sched_c_clnt_exit_error(nullptr, 36, 5, &status, 4), 0xFFFFFFFFu);
    EXPECT_EQ(rvzd_call_lock.depth, 0u);
    EXPECT_EQ(status, 5) << "they leave it alone";
}

// ---- ids ----

class Ids : public testing::Test {
protected:
    sim::World world;
    char buffer[SCHED_ID_STR_SIZE];
    uint32_t id = 7;
};

TEST_F(Ids, OfJobsAreWrittenUnsignedAndOfTasksSigned) {
    EXPECT_STREQ(sched_job_id_to_str(nullptr, 0xFFFFFFFF, buffer), "4294967295");
    EXPECT_STREQ(sched_task_id_to_str(nullptr, 0xFFFFFFFF, buffer), "-1");
    EXPECT_EQ(sched_task_id_to_str(nullptr, 12, buffer), buffer);
    EXPECT_STREQ(buffer, "12");
}

TEST_F(Ids, AreReadFromTheBeginOfAText) {
    EXPECT_EQ(sched_job_id_from_str(nullptr, "12ab", &id), TBS_ST_OK);
    EXPECT_EQ(id, 12u);
    EXPECT_EQ(sched_task_id_from_str(nullptr, "-5 x", &id), TBS_ST_OK);
    EXPECT_EQ(id, 0xFFFFFFFBu);
    EXPECT_NE(sched_job_is_id_str(nullptr, "12ab"), 0);
    EXPECT_NE(sched_task_is_id_str(nullptr, "7"), 0);
    EXPECT_THAT(world.take_messages(), ElementsAre());
}

TEST_F(Ids, ThatAreNoneAreToldEachInItsWords) {
    EXPECT_EQ(sched_job_id_from_str(nullptr, "ab12", &id), TBS_ST_ERROR);
    EXPECT_EQ(sched_task_id_from_str(nullptr, "", &id), TBS_ST_ERROR);
    EXPECT_EQ(sched_job_id_from_str(nullptr, nullptr, &id), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _sched_rvzd_msg_table, 12, "ab12"),
                                                   message_of(IMSG_ERROR, _sched_rvzd_msg_table, 13, ""),
                                                   message_of(IMSG_ERROR, _sched_rvzd_msg_table, 12, "")));
    EXPECT_EQ(id, 7u);
    EXPECT_EQ(sched_job_is_id_str(nullptr, "ab12"), 0);
    EXPECT_EQ(sched_task_is_id_str(nullptr, ""), 0);
    EXPECT_EQ(sched_task_is_id_str(nullptr, nullptr), 0);
}

// ---- the transport without a handle ----

class DirectTransport : public testing::Test {
protected:
    ~DirectTransport() override {
        sched_close_transport(nullptr);
        sched_timeout = {25, 0};
    }
    sim::World world;
};

TEST_F(DirectTransport, TriesTcpThenUdpWithItsOwnNumbers) {
    world.transports = {"udp"};
    CLIENT *client = sched_open_transport("alpha", 0, 0);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(sched_clnt, client);
    EXPECT_THAT(world.transports_asked_for, ElementsAre("tcp alpha 1.2", "udp alpha 1.2"));
    sched_close_transport(client);
    EXPECT_EQ(sched_clnt, nullptr);
    EXPECT_EQ(world.live_clients(), 0u);
}

TEST_F(DirectTransport, TakesOtherNumbersAndStopsAtTcp) {
    world.transports = {"tcp", "udp"};
    EXPECT_NE(sched_open_transport("alpha", 5, 6), nullptr);
    EXPECT_THAT(world.transports_asked_for, ElementsAre("tcp alpha 5.6"));
}

TEST_F(DirectTransport, ThatCannotBeHadIsToldAndNoteNothing) {
    EXPECT_EQ(sched_open_transport("alpha", 0, 0), nullptr);
    EXPECT_EQ(sched_clnt, nullptr);
    const auto told = world.take_messages();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_THAT(told[0].text, StartsWith("SCHED"));
}

TEST_F(DirectTransport, WithoutAServerIsToldOnStandardError) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(sched_open_transport(nullptr, 0, 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sched_open_transport(): servername (nil)!\n");
    EXPECT_TRUE(world.transports_asked_for.empty());
}

TEST_F(DirectTransport, ServiceTellsItsErrorInAWordAndAText) {
    char text[SCHED_ERROR_TEXT_SIZE] = "";
    int32_t error = 5;
    EXPECT_EQ(sched_open_service("alpha", 1, 2, 3, 4, text, &error), nullptr);
    EXPECT_EQ(error, -1);
    EXPECT_THAT(text, StartsWith("SCHED"));
    EXPECT_EQ(sched_open_service("alpha", 1, 2, 3, 4, nullptr, nullptr), nullptr);
    world.transports = {"tcp"};
    CLIENT *client = sched_open_service("alpha", 1, 2, 3, 4, text, &error);
    EXPECT_NE(client, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(world.transports_asked_for.back(), "tcp alpha 1.2");
    world.take_messages();
}

TEST_F(DirectTransport, IsClosedOnceAndAnotherClientLeavesItAlone) {
    world.transports = {"tcp"};
    CLIENT *other = sched_open_transport("alpha", 0, 0);
    CLIENT *own = sched_open_transport("alpha", 0, 0);
    sched_close_transport(other);
    EXPECT_EQ(sched_clnt, own);
    EXPECT_EQ(world.live_clients(), 1u);
    sched_close_transport(nullptr);
    EXPECT_EQ(sched_clnt, nullptr);
    EXPECT_EQ(world.live_clients(), 0u);
    sched_close_transport(nullptr);
}

TEST_F(DirectTransport, TimesGoToTheClientThatIsThere) {
    EXPECT_EQ(sched_change_timeout(nullptr, 3, 4), 1) << "without a client";
    EXPECT_EQ(sched_timeout.tv_sec, 3);
    EXPECT_EQ(sched_timeout.tv_usec, 4);
    EXPECT_EQ(sched_change_retry_timeout(nullptr, 5, 6), 1);
    EXPECT_EQ(sched_timeout.tv_sec, 3);
    world.transports = {"tcp"};
    sched_open_transport("alpha", 0, 0);
    EXPECT_EQ(sched_change_timeout(nullptr, 7, 8), 1);
    EXPECT_EQ(sched_change_retry_timeout(nullptr, 9, 10), 1);
    EXPECT_THAT(world.controls, ElementsAre("1 7.8", "4 9.10"));
}

TEST_F(DirectTransport, ItsOtherOperationsAnswerWithConstants) {
    EXPECT_EQ(sched_rpc_init(), 1);
    EXPECT_EQ(sched_namebroker(), 0);
    EXPECT_EQ(sched_client_rpc_number(), 1u);
    EXPECT_EQ(sched_secure_transport(), 0);
    sched_secure_install();
    sched_secure_uninstall();
    sched_unsecure_transport();
    EXPECT_EQ(sched_timeout.tv_sec, 25);
    EXPECT_EQ(sched_timeout.tv_usec, 0);
}

TEST_F(DirectTransport, FailuresAreToldThroughItOrAsTheSystemDoes) {
    testing::internal::CaptureStderr();
    errno = ENOENT;
    EXPECT_EQ(sched_clnt_perror(nullptr, "text", 9), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "text: No such file or directory\n");
    world.transports = {"tcp"};
    sched_open_transport("alpha", 0, 0);
    EXPECT_EQ(sched_clnt_perror(nullptr, "text", 9), 1);
    const auto told = world.take_messages();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_THAT(told[0].text, StartsWith("text"));
}

} // namespace
