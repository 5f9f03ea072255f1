// Jobs, tasks and rights at the scheduler of a real daemon.
#include <ctime>
#include <filesystem>

#include "scheduler_fixture.h"
#include <support/xdr_prims.h>

using namespace velia::system_test;

namespace {

struct SchedulerJobs : SchedulerFixture {
    tbs_boolean_t has_changed() {
        tbs_boolean_t changed = 0;
        EXPECT_EQ(sched_has_info_changed(handle, &changed), TBS_ST_OK);
        return changed;
    }
    uint32_t count_jobs() {
        uint32_t count = 0;
        sched_job_properties_t *jobs = nullptr;
        EXPECT_EQ(sched_get_jobs(handle, &count, &jobs), TBS_ST_OK);
        sched_free_jobs(handle, count, &jobs);
        return count;
    }
};

} // namespace

TEST_F(SchedulerJobs, ItsClockIsTheHosts) {
    time_t told = 0;
    ASSERT_EQ(sched_get_time(handle, &told), TBS_ST_OK);
    EXPECT_NEAR(static_cast<double>(told), static_cast<double>(time(nullptr)), 60);
}

TEST_F(SchedulerJobs, AreAsTheyWereMadeAlsoForTheNextDaemon) {
    NewJob job("kept", {"one", "two words"});
    job.rw.run_control.max_run_time = 9;
    const auto id = create(job);
    ASSERT_NE(id, 0U);
    for (int i = 0; i < 2; ++i) {
        sched_job_properties_t properties = {};
        with_job(id, [&](sched_job_h_t found) { return sched_job_get_properties(handle, found, &properties); });
        tbs_boolean_t equal = 0;
        sched_utl_equal_job_rw_properties(handle, &properties.rw, job.record(), &equal);
        EXPECT_NE(equal, 0);
        EXPECT_EQ(properties.ro.job_id, id);
        EXPECT_EQ(properties.ro.next_run_time, 4102444800 - 4102444800 % 86400);
        EXPECT_STREQ(properties.ro.created.where, "this host");
        EXPECT_NE(properties.ro.created.when, 0);
        EXPECT_EQ(properties.ro.last_completion.started, 0);
        sched_free_job_properties(handle, &properties);
        kill_daemon();
        restart();
    }
}

TEST_F(SchedulerJobs, AreFoundByNameAndByNumber) {
    const auto id = create(NewJob("found"));
    sched_job_h_t job = nullptr;
    ASSERT_EQ(sched_job_lookup_by_name(handle, "found", &job), TBS_ST_OK);
    EXPECT_EQ(job->job_id, id);
    sched_job_free_handle(handle, &job);
    EXPECT_TRUE(exists(id));
    EXPECT_EQ(sched_job_lookup_by_name(handle, "lost", &job), TBS_ST_NOT_FOUND);
    sched_job_free_handle(handle, &job);
    EXPECT_FALSE(exists(id + 1));
}

TEST_F(SchedulerJobs, OfOneNameThereIsOne) {
    ASSERT_NE(create(NewJob("one")), 0U);
    EXPECT_EQ(create(NewJob("one")), 0U);
    EXPECT_EQ(status, TBS_ST_INVALID_ARG);
    EXPECT_EQ(err_mask, static_cast<uint32_t>(SCHED_ERR_NAME_DUPLICATE));
    EXPECT_EQ(count_jobs(), 1U);
}

TEST_F(SchedulerJobs, AreCheckedAsTheLibraryDoes) {
    NewJob job("bad");
    job.rw.schedule.u.daily.frequency = 0;
    EXPECT_EQ(create(job), 0U);
    EXPECT_EQ(status, TBS_ST_INVALID_ARG);
    EXPECT_EQ(err_mask, static_cast<uint32_t>(SCHED_ERR_DAILY_OR_TIME_ORDER));
    EXPECT_EQ(create(NewJob("bad").after(99)), 0U);
    EXPECT_EQ(err_mask, static_cast<uint32_t>(SCHED_ERR_FOLLOWS));
    EXPECT_NE(create(NewJob("later", {}, 77)), 0U);
    EXPECT_EQ(err_mask, static_cast<uint32_t>(SCHED_ERR_TASK));
}

TEST_F(SchedulerJobs, FollowNoCircle) {
    const auto first = create(NewJob("first"));
    const auto second = create(NewJob("second").after(first));
    NewJob round("first");
    round.after(second);
    const auto done = with_job(
        first, [&](sched_job_h_t job) { return sched_job_set_properties(handle, job, round.record(), &err_mask); });
    EXPECT_EQ(done, TBS_ST_INVALID_ARG);
    EXPECT_EQ(err_mask, static_cast<uint32_t>(SCHED_ERR_FOLLOWS));
}

TEST_F(SchedulerJobs, AreChangedAndDeleted) {
    const auto id = create(NewJob("before"));
    NewJob after("after", {"-c", "true"});
    EXPECT_EQ(
        with_job(id,
                 [&](sched_job_h_t job) { return sched_job_set_properties(handle, job, after.record(), &err_mask); }),
        TBS_ST_OK);
    sched_job_h_t job = nullptr;
    EXPECT_EQ(sched_job_lookup_by_name(handle, "before", &job), TBS_ST_NOT_FOUND);
    sched_job_free_handle(handle, &job);
    EXPECT_EQ(remove(id), TBS_ST_OK);
    EXPECT_EQ(remove(id), TBS_ST_NOT_FOUND);
    EXPECT_GT(create(NewJob("before")), id);
}

TEST_F(SchedulerJobs, ThatRunAreDeletedOnlyWithTheFlag) {
    const auto id = create(NewJob("runs", {"-c", "sleep 100"}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    EXPECT_EQ(remove(id), TBS_ST_TRY_AGAIN);
    EXPECT_EQ(remove(id, 1), TBS_ST_OK);
    EXPECT_FALSE(exists(id));
}

// More than one datagram's, one request's or one usual reply's worth.
TEST_F(SchedulerJobs, AListOfManyComesAsAWhole) {
    constexpr uint32_t many = 300;
    const std::string argument(500, 'x');
    for (uint32_t i = 0; i < many; ++i)
        ASSERT_NE(create(NewJob("job " + std::to_string(i), {argument})), 0U);
    EXPECT_EQ(count_jobs(), many);
}

// Far more than a connection may have unsent.
TEST_F(SchedulerJobs, AListOfTenThousandComesAsAWhole) {
    constexpr uint32_t many = 10000;
    create(NewJob("one", {std::string(500, 'x')}));
    kill_daemon();
    multiply_jobs(many - 1);
    restart();
    uint32_t count = 0;
    sched_job_properties_t *jobs = nullptr;
    ASSERT_EQ(sched_get_jobs(handle, &count, &jobs), TBS_ST_OK);
    EXPECT_EQ(count, many);
    for (uint32_t i = 0; i < count; ++i)
        ASSERT_EQ(jobs[i].ro.job_id, i + 1);
    EXPECT_STREQ(jobs[count - 1].rw.name, "one");
    EXPECT_EQ(std::string(jobs[count - 1].rw.args[0]), std::string(500, 'x'));
    sched_free_jobs(handle, count, &jobs);
}

TEST_F(SchedulerJobs, TellACallerOnceThatTheyHaveChanged) {
    EXPECT_EQ(has_changed(), 1);
    EXPECT_EQ(has_changed(), 0);
    const auto id = create(NewJob("new"));
    EXPECT_EQ(has_changed(), 1);
    tbs_boolean_t changed = 0;
    sched_job_handle job = {id};
    EXPECT_EQ(sched_job_has_info_changed(handle, &job, &changed), TBS_ST_OK);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(sched_job_has_info_changed(handle, &job, &changed), TBS_ST_OK);
    EXPECT_EQ(changed, 0);
}

TEST_F(SchedulerJobs, CarryTheThreeWordsOfUtc) {
    NewJob job("utc");
    sched_job_utc_rw_props_t props = {{1790000000, -5, 6}, *job.record()};
    sched_job_h_t made = nullptr;
    ASSERT_EQ(sched_job_create_utc(handle, &props, &made, &err_mask), TBS_ST_OK);
    sched_job_utc_props_t read_back = {};
    EXPECT_EQ(sched_job_get_properties_utc(handle, made, &read_back), TBS_ST_OK);
    EXPECT_EQ(read_back.utc.utc_time, 1790000000);
    EXPECT_EQ(read_back.utc.utc_int, -5);
    EXPECT_EQ(read_back.utc.utc_uint, 6U);
    sched_free_job_properties(handle, &read_back.props);
    sched_job_free_handle(handle, &made);
}

TEST_F(SchedulerJobs, TasksAreThoseOfTheConfiguration) {
    uint32_t count = 0;
    sched_task_properties_t *found = nullptr;
    ASSERT_EQ(sched_get_tasks(handle, &count, &found), TBS_ST_OK);
    ASSERT_EQ(count, 2U);
    EXPECT_STREQ(found[0].name, "script");
    EXPECT_STREQ(found[1].pathname, "/no/such/program");
    EXPECT_EQ(found[0].run_as.user, CREDUTL_NO_ID);
    sched_free_tasks(handle, count, &found);
    sched_task_id_t id = 0;
    EXPECT_EQ(sched_task_name_to_id(handle, "missing", &id), TBS_ST_OK);
    EXPECT_EQ(id, 2U);
    EXPECT_EQ(sched_task_name_to_id(handle, "none", &id), TBS_ST_NOT_FOUND);
    char name[7];
    EXPECT_EQ(sched_task_id_to_name(handle, 1, sizeof name, name), TBS_ST_OK);
    EXPECT_STREQ(name, "script");
    char small[6] = "";
    EXPECT_EQ(sched_task_id_to_name(handle, 1, sizeof small, small), TBS_ST_NAME_TOO_LONG);
    tbs_boolean_t exists = 1;
    EXPECT_EQ(sched_task_exists(handle, 9, &exists), TBS_ST_OK);
    EXPECT_EQ(exists, 0);
}

TEST_F(SchedulerJobs, TheAccessListIsKept) {
    tbs_acl_h_t list = nullptr;
    ASSERT_EQ(sched_get_acl(handle, &list), TBS_ST_OK);
    ASSERT_EQ(list->count, 1U);
    EXPECT_EQ(list->entries[0].permissions, 1U);
    list->entries[0].permissions = 7;
    EXPECT_EQ(sched_set_acl(handle, list), TBS_ST_OK);
    list->entries[0].kind = 3;
    EXPECT_EQ(sched_set_acl(handle, list), TBS_ST_INVALID_ARG);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_tbs_acl_h_t), &list);
    kill_daemon();
    restart();
    list = nullptr;
    ASSERT_EQ(sched_get_acl(handle, &list), TBS_ST_OK);
    EXPECT_EQ(list->entries[0].permissions, 7U);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_tbs_acl_h_t), &list);
}

TEST_F(SchedulerJobs, PermissionsHaveNames) {
    uint32_t count = 0;
    strutl_flag_item_t *items = nullptr;
    tbs_acl_generic_map_t map = {};
    ASSERT_EQ(sched_get_app_perms(handle, &items, &count, &map), TBS_ST_OK);
    ASSERT_EQ(count, 3U);
    EXPECT_STREQ(items[2].name, "run");
    EXPECT_EQ(map.change, 7U);
    sched_free_app_perms(handle, &items, count, &map);
    EXPECT_EQ(sched_check_acc(handle, 7), TBS_ST_OK);
}

TEST_F(SchedulerJobs, ADatabaseOfSomethingElseIsLeftAloneAndNoJobServed) {
    kill_daemon();
    sched_free_handle(&handle);
    std::filesystem::remove(site.path("host/priv/scheduler.db"));
    site.write("host/priv/scheduler.db", "not a database at all, but long enough to be looked at");
    daemon = std::make_unique<Daemon>(site);
    ASSERT_TRUE(daemon->is_ready());
    EXPECT_EQ(sched_get_handle("alpha", &handle), TBS_ST_NO_SERVER);
    EXPECT_TRUE(daemon->says("Job Scheduler Service not functional"));
    EXPECT_TRUE(read("host/priv/scheduler.db").starts_with("not a database"));
}
