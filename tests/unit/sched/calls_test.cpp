// Each call: what it sends, what it gives, and whose that is.
#include <tests/unit/sched/every_call.h>
#include <tests/unit/sched/fixture.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class Calls : public SchedulerTest, protected wire_tests::EveryCall {
protected:
    using Case = wire_tests::Case;

    // Every procedure answers with a sample of its reply, whose outputs have something in them.
    void answer_all(tbs_status_t wanted) {
        velia::for_each_scheduler_procedure(
            [&]<class Request, class Reply>(const velia::Procedure<Request, Reply> &procedure) {
                Reply reply = {};
                wire_tests::fill(sampler, reply);
                reply.status = wanted;
                answer(procedure, reply);
            });
    }

    void run(const Case &each, bool wanted = true) {
        out = {};
        status = each.call(scheduler, wanted);
    }

    tbs_status_t status = 0;
};

TEST_F(Calls, AreAllHere) {
    std::set<uint32_t> called;
    for (const Case &each : cases())
        called.insert(each.procedure);
    std::set<uint32_t> procedures;
    velia::for_each_scheduler_procedure([&](const auto &procedure) { procedures.insert(procedure.number); });
    EXPECT_EQ(called, procedures);
}

TEST_F(Calls, ReturnTheServersStatusAndGiveTheirOutputsWhateverItIs) {
    for (const tbs_status_t wanted : {TBS_ST_OK, TBS_ST_NO_ACCESS}) {
        answer_all(wanted);
        for (const Case &each : cases()) {
            SCOPED_TRACE(each.name);
            world.peer.calls.clear();
            run(each);
            EXPECT_EQ(status, wanted);
            EXPECT_EQ(world.peer.count(each.procedure), 1u);
            each.release(scheduler);
            EXPECT_EQ(sim::Holdings::now(world), before);
        }
        EXPECT_THAT(world.take_messages(), ElementsAre());
    }
}

TEST_F(Calls, WhoseOutputsAreNotWantedReleaseThem) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        run(each, false);
        EXPECT_EQ(status, TBS_ST_OK);
        each.release(scheduler);
        EXPECT_EQ(sim::Holdings::now(world), before);
    }
}

TEST_F(Calls, GoOverTcpWithTheBrokersProgramAndTheSchedulersTimeOut) {
    answer_all(TBS_ST_OK);
    sched_change_timeout(nullptr, 3, 500000);
    scheduler->rvzd_handle->tv_sec = 99;
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        run(each);
        EXPECT_TRUE(world.peer.last().tcp);
        EXPECT_EQ(world.peer.last().program, uint32_t{RVZD_PROGRAM});
        EXPECT_EQ(world.peer.last().version, uint32_t{RVZD_VERSION});
        EXPECT_EQ(world.peer.last().time_out_us, 3500000);
        each.release(scheduler);
    }
}

TEST_F(Calls, BeginWithAZeroWordAndTheHandleAndLeaveTheBrokersSequenceAlone) {
    answer_all(TBS_ST_OK);
    const auto sequence = scheduler->rvzd_handle->cached->sequence;
    const auto head = sim::encode(xdr_sched_h_t, scheduler);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        run(each);
        each.release(scheduler);
        sim::Bytes begun = {0, 0, 0, 0};
        begun.insert(begun.end(), head.begin(), head.end());
        const auto &request = world.peer.last().request;
        ASSERT_GE(request.size(), begun.size());
        EXPECT_EQ(sim::Bytes(request.begin(), request.begin() + static_cast<ptrdiff_t>(begun.size())), begun);
    }
    EXPECT_EQ(scheduler->rvzd_handle->cached->sequence, sequence);
}

TEST_F(Calls, WhoseRpcFailsReturnThatAndTellItUnderTheStubsNameAndAreNotRepeated) {
    velia::for_each_scheduler_procedure([&](const auto &procedure) { fail(procedure); });
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        world.peer.calls.clear();
        run(each);
        EXPECT_EQ(status, TBS_ST_RPC_FAILED);
        EXPECT_EQ(world.peer.calls.size(), 1u);
        const auto told = world.take_messages();
        ASSERT_EQ(told.size(), 1u);
        EXPECT_EQ(told[0].severity, IMSG_ERROR);
        EXPECT_THAT(told[0].text, HasSubstr(std::string(each.name) + "_V2"));
        EXPECT_EQ(rvzd_call_lock.depth, 0u);
        EXPECT_EQ(sim::Holdings::now(world), before);
    }
}

TEST_F(Calls, WhoseRpcFailsWriteNoOutput) {
    fail(row::sched_get_jobs);
    fail(row::sched_job_get_properties);
    fail(row::sched_job_delete);
    uint32_t count = 77;
    sched_job_properties_t *jobs = &out.properties;
    EXPECT_EQ(sched_get_jobs(scheduler, &count, &jobs), TBS_ST_RPC_FAILED);
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(jobs, &out.properties);
    out.properties.rw.task = 5;
    EXPECT_EQ(sched_job_get_properties(scheduler, &held_job, &out.properties), TBS_ST_RPC_FAILED);
    EXPECT_EQ(out.properties.rw.task, 5u);
    sched_job_h_t slot = &held_job;
    EXPECT_EQ(sched_job_delete(scheduler, &slot, 1), TBS_ST_RPC_FAILED);
    EXPECT_EQ(slot, &held_job);
    world.take_messages();
}

TEST_F(Calls, WhoseReplyIsCutAtAnyByteFailAndLeakNothing) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        run(each);
        each.release(scheduler);
        sim::Answer whole = world.peer.take(world.peer.last());
        for (size_t size = 0; size < whole.reply.size(); size += 4) {
            sim::Answer cut = whole;
            cut.reply.resize(size);
            world.peer.answer_once(each.procedure, cut);
            run(each);
            EXPECT_EQ(status, TBS_ST_RPC_FAILED) << size;
            ASSERT_EQ(sim::Holdings::now(world), before) << size;
        }
    }
    world.take_messages();
}

TEST_F(Calls, ThroughANullHandleFailAndSaySo) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        testing::internal::CaptureStderr();
        EXPECT_EQ(each.call(nullptr, true), TBS_ST_RPC_FAILED);
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::StartsWith(std::string(each.name) + ":Client Handle=(nil)!"));
        EXPECT_EQ(world.peer.calls.size(), 0u);
    }
}

TEST_F(Calls, UndoThemselvesWhenAnyAllocationFails) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        const auto operation = [&] {
            run(each);
            if (status == TBS_ST_OK)
                each.release(scheduler);
        };
        sim::sweep_allocations(world, operation, [&](int) {
            EXPECT_TRUE(status == TBS_ST_RPC_FAILED || status == TBS_ST_OK) << status;
            EXPECT_EQ(sim::Holdings::now(world), before);
            EXPECT_EQ(rvzd_call_lock.depth, 0u);
        });
        EXPECT_EQ(status, TBS_ST_OK);
        world.take_messages();
    }
}

TEST_F(Calls, HoldNothingButTheLockWhenARaiseLandsAnywhere) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        const auto operation = [&] { run(each); };
        sim::sweep_raises(world, operation, [&](int number) {
            sim::release_lock(rvzd_call_lock);
            each.release(scheduler); // what the caller's outputs hold is the caller's
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
        each.release(scheduler);
        EXPECT_EQ(rvzd_call_lock.depth, 0u);
    }
}

TEST_F(Calls, WhatTheyGaveIsReleasedWholeWhenARaiseLandsInThat) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        run(each);
        const auto operation = [&] { each.release(scheduler); };
        for (int number = 1; number < 12; ++number) {
            world.raise_at_call(number, sim::raise_code);
            sim::run_and_catch(operation);
            world.raise_at_call(0, 0);
            sim::release_lock(rvzd_call_lock);
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            run(each);
        }
        each.release(scheduler);
    }
}

TEST_F(Calls, HoldTheLockWhileTheyWaitAndNotWhileTheReplyIsReleased) {
    unsigned depth_in_call = 0;
    const auto reply = sim::reply(row::sched_get_time.xdr_reply, sched_time_reply_t{});
    world.peer.on(row::sched_get_time.number, [&](const sim::Call &) {
        depth_in_call = rvzd_call_lock.depth;
        return reply;
    });
    const size_t freed = world.replies_freed;
    const size_t locks = world.call_locks;
    EXPECT_EQ(sched_get_time(scheduler, nullptr), TBS_ST_OK);
    EXPECT_EQ(depth_in_call, 1u);
    EXPECT_EQ(world.call_locks, locks + 1) << "taken for the call alone";
    EXPECT_EQ(world.replies_freed, freed + 1);
}

TEST_F(Calls, OfContactGivesBothWordsAndAbsentOnesAsZero) {
    uint32_t one = 3;
    uint32_t two = 4;
    answer(row::sched_contact, sched_contact_reply_t{TBS_ST_OK, &one, &two});
    EXPECT_EQ(sched_contact(scheduler, 6, &out.word, &out.count), TBS_ST_OK);
    EXPECT_EQ(out.word, 3u);
    EXPECT_EQ(out.count, 4u);
    auto request = last_request(row::sched_contact);
    EXPECT_EQ(request.version, 6u);
    release(row::sched_contact, request);
    answer(row::sched_contact, sched_contact_reply_t{TBS_ST_OK, nullptr, nullptr});
    EXPECT_EQ(sched_contact(scheduler, 6, &out.word, &out.count), TBS_ST_OK);
    EXPECT_EQ(out.word, 0u);
    EXPECT_EQ(out.count, 0u);
}

TEST_F(Calls, OfCreationMoveTheHandleAndCopyTheMask) {
    sched_job_handle made = {33};
    sched_job_h_t handle = &made;
    uint32_t mask = SCHED_ERR_NAME_DUPLICATE;
    answer(row::sched_job_create, sched_job_create_reply_t{TBS_ST_INVALID_ARG, &handle, &mask});
    EXPECT_EQ(sched_job_create(scheduler, &sent, &out.job, &out.word), TBS_ST_INVALID_ARG);
    ASSERT_NE(out.job, nullptr);
    EXPECT_EQ(out.job->job_id, 33u);
    EXPECT_EQ(out.word, uint32_t{SCHED_ERR_NAME_DUPLICATE});
    sched_job_id_t id = 0;
    EXPECT_EQ(sched_job_get_id(scheduler, out.job, &id), TBS_ST_OK);
    EXPECT_EQ(id, 33u);
    sched_job_free_handle(scheduler, &out.job);
    EXPECT_EQ(out.job, nullptr);
}

TEST_F(Calls, OfDeletionPutTheReplysHandleIntoTheSlotAndReleaseNoneOfTheCallers) {
    sched_job_handle gone = {18};
    sched_job_h_t handle = &gone;
    answer(row::sched_job_delete, sched_job_reply_t{TBS_ST_OK, &handle});
    sched_job_h_t slot = &held_job;
    EXPECT_EQ(sched_job_delete(scheduler, &slot, 1), TBS_ST_OK);
    EXPECT_EQ(held_job.job_id, 17u);
    ASSERT_NE(slot, &held_job);
    EXPECT_EQ(slot->job_id, 18u);
    auto request = last_request(row::sched_job_delete);
    EXPECT_EQ((*request.job)->job_id, 17u);
    EXPECT_EQ(request.flag, 1);
    release(row::sched_job_delete, request);
    sched_job_free_handle(scheduler, &slot);
    answer(row::sched_job_delete, sched_job_reply_t{TBS_ST_NOT_FOUND, nullptr});
    slot = &held_job;
    EXPECT_EQ(sched_job_delete(scheduler, &slot, 0), TBS_ST_NOT_FOUND);
    EXPECT_EQ(slot, nullptr) << "what the reply has, and it has none";
}

TEST_F(Calls, OfATasksNameCutItToTheCallersBuffer) {
    char name[] = "nightly build";
    answer(row::sched_task_id_to_name, sched_task_name_reply_t{TBS_ST_OK, 0, name});
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(sched_task_id_to_name(scheduler, 7, 8, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "nightly");
    EXPECT_EQ(buffer[8], '#');
    auto request = last_request(row::sched_task_id_to_name);
    EXPECT_EQ(request.task, 7u);
    EXPECT_EQ(request.size, 8u);
    release(row::sched_task_id_to_name, request);
    EXPECT_EQ(sched_task_id_to_name(scheduler, 7, sizeof name, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "nightly build");
    buffer[0] = '#';
    EXPECT_EQ(sched_task_id_to_name(scheduler, 7, 0, buffer), TBS_ST_OK);
    EXPECT_EQ(buffer[0], '#');
}

TEST_F(Calls, OfPermissionsMoveTheNamesAndCopyCountAndMap) {
    uint32_t two = 2;
    strutl_flag_item_t names[] = {{"read", 1}, {"change", 2}};
    strutl_flag_item_t *items = names;
    tbs_acl_generic_map_t map = {1, 3};
    answer(row::sched_get_app_perms, sched_app_perms_reply_t{TBS_ST_OK, &two, &items, &map});
    EXPECT_EQ(sched_get_app_perms(scheduler, &out.items, &out.count, &out.map), TBS_ST_OK);
    ASSERT_EQ(out.count, 2u);
    EXPECT_STREQ(out.items[1].name, "change");
    EXPECT_EQ(out.map.change, 3u);
    sched_free_app_perms(scheduler, &out.items, out.count, &out.map);
    EXPECT_EQ(out.items, nullptr);
    EXPECT_EQ(out.map.read, 0u);
    EXPECT_EQ(out.map.change, 0u);
}

TEST_F(Calls, SendWhatTheyWereGiven) {
    answer_all(TBS_ST_OK);
    sched_job_set_properties(scheduler, &held_job, &sent, nullptr);
    auto set = last_request(row::sched_job_set_properties);
    EXPECT_EQ(set.job->job_id, 17u);
    EXPECT_EQ(sim::encode(xdr_sched_job_rw_properties_t, *set.properties),
              sim::encode(xdr_sched_job_rw_properties_t, sent));
    release(row::sched_job_set_properties, set);
    sched_job_create_utc(scheduler, &sent_utc, nullptr, nullptr);
    auto create = last_request(row::sched_job_create_utc);
    EXPECT_EQ(sim::encode(xdr_sched_job_utc_rw_props_t, *create.job),
              sim::encode(xdr_sched_job_utc_rw_props_t, sent_utc));
    release(row::sched_job_create_utc, create);
    sched_rjob_terminate(scheduler, &held_run);
    auto terminate = last_request(row::sched_rjob_terminate);
    EXPECT_EQ(terminate.job->job_id, 17u);
    EXPECT_EQ(terminate.job->started, 1700000000);
    release(row::sched_rjob_terminate, terminate);
    sched_job_lookup_by_name(scheduler, "nightly", nullptr);
    auto by_name = last_request(row::sched_job_lookup_by_name);
    EXPECT_STREQ(by_name.name, "nightly");
    release(row::sched_job_lookup_by_name, by_name);
    sched_job_lookup_by_id(scheduler, 21, nullptr);
    auto by_id = last_request(row::sched_job_lookup_by_id);
    EXPECT_EQ(by_id.job_id, 21u);
    release(row::sched_job_lookup_by_id, by_id);
    sched_task_exists(scheduler, 22, nullptr);
    auto task = last_request(row::sched_task_exists);
    EXPECT_EQ(task.task, 22u);
    release(row::sched_task_exists, task);
    sched_check_acc(scheduler, 23);
    auto access = last_request(row::sched_check_acc);
    EXPECT_EQ(access.permissions, 23u);
    release(row::sched_check_acc, access);
}

TEST_F(Calls, StubWithoutAClientFailsWithoutTrafficUnderTheCallsName) {
    sched_request_t request = {};
    sched_time_reply_t reply = {};
    testing::internal::CaptureStderr();
    EXPECT_EQ(sched_get_time_V2(&request, nullptr, &reply, &sched_timeout), 16u);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::StartsWith("sched_get_time:Client Handle=(nil)!: "));
    EXPECT_TRUE(world.peer.calls.empty());
}

TEST_F(Calls, StubWithoutAClientTellsItThroughTheOpenTransport) {
    sched_clnt = sched_get_rpc_clnt(scheduler);
    sched_job_request_t request = {};
    sched_utc_reply_t reply = {};
    EXPECT_EQ(sched_job_get_properties_utc_V2(&request, nullptr, &reply, &sched_timeout), 16u);
    const auto told = world.take_messages();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_THAT(told[0].text, testing::StartsWith("sched_job_get_properties_utc:Client Handle=(nil)!: "));
    sched_clnt = nullptr;
}

TEST_F(Calls, ReleaseOperationsOfNothingDoNothing) {
    const size_t freed = world.replies_freed;
    sched_free_jobs(scheduler, 3, &out.jobs);
    sched_free_tasks(scheduler, 3, &out.tasks);
    sched_free_app_perms(scheduler, &out.items, 3, &out.map);
    EXPECT_EQ(world.replies_freed, freed);
    EXPECT_EQ(sched_free_job_properties(scheduler, &out.properties), TBS_ST_OK);
    EXPECT_EQ(sched_free_job_properties(scheduler, nullptr), TBS_ST_OK);
    EXPECT_EQ(sched_free_job_completion_info(scheduler, &out.info), TBS_ST_OK);
    sched_job_free_handle(scheduler, &out.job);
    sched_rjob_free_handle(scheduler, &out.run);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(Calls, ReleaseOperationsTakeTheLockAndAskTheClient) {
    answer_all(TBS_ST_OK);
    sched_job_get_properties(scheduler, &held_job, &out.properties);
    const size_t freed = world.replies_freed;
    const size_t locks = world.call_locks;
    sched_free_job_properties(scheduler, &out.properties);
    EXPECT_EQ(world.replies_freed, freed + 1);
    EXPECT_EQ(world.call_locks, locks + 1);
    EXPECT_EQ(out.properties.rw.name, nullptr);
    EXPECT_EQ(out.properties.ro.job_id, 0u);
}

TEST_F(Calls, WhatTheyGaveIsReleasedWithoutStorageAndWithoutAClient) {
    answer_all(TBS_ST_OK);
    for (const Case &each : cases()) {
        SCOPED_TRACE(each.name);
        run(each);
        world.fail_allocation(1, sim::World::Failing::all_further);
        each.release(scheduler);
        world.fail_allocation(0);
        EXPECT_EQ(sim::Holdings::now(world), before);
        run(each);
        each.release(nullptr);
        EXPECT_EQ(sim::Holdings::now(world), before);
    }
}

} // namespace
