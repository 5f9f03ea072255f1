// A file of jobs as a whole: what is kept, what is passed over, and who owns what.
#include <tests/unit/sched_parse/fixture.h>

namespace {

using JobFile = DefinitionTest;

constexpr uint64_t words_in_front = 3;

const uint64_t *measures_of(char **infos) {
    return reinterpret_cast<const uint64_t *>(infos) - words_in_front;
}

std::string follower(const std::string &name, const std::string &follows) {
    return "Job.Begin\nJob.Name: " + name + "\nJob.Schedule.Sequential.FollowsJob: " + follows +
           "\nJob.Task: 7\nJob.End\n";
}

TEST_F(JobFile, KeepsItsJobsInTheirOrder) {
    expect_read(DefinitionTest::job("Job.Id: 3\n", "one") + "\n# next\n" + follower("two", "one") +
                    DefinitionTest::job("", "three"),
                3);
    EXPECT_STREQ(jobs[0].rw.name, "one");
    EXPECT_STREQ(jobs[1].rw.name, "two");
    EXPECT_STREQ(jobs[2].rw.name, "three");
    EXPECT_EQ(jobs[1].ro.job_id, 0u) << "nothing of one definition is left for the next";
    EXPECT_EQ(followed[0], nullptr);
    EXPECT_STREQ(followed[1], "one");
    EXPECT_EQ(followed[2], nullptr);
}

TEST_F(JobFile, TextsBesideTheJobsHaveTheirMeasuresInFront) {
    const auto read_many = [&](size_t count) {
        std::string text;
        for (size_t i = 0; i < count; ++i)
            text += follower("job " + std::to_string(i), "before " + std::to_string(i));
        expect_read(text, static_cast<uint32_t>(count));
        for (size_t i = 0; i < count; ++i)
            EXPECT_EQ(followed[i], "before " + std::to_string(i));
        EXPECT_EQ(measures_of(followed)[1], sizeof(char *));
        EXPECT_EQ(measures_of(followed)[2], 1u) << "of the heap";
        return measures_of(followed)[0];
    };
    EXPECT_EQ(read_many(1), 64u);
    EXPECT_EQ(read_many(63), 64u);
    EXPECT_EQ(read_many(64), 128u) << "the count reaches the capacity";
    EXPECT_EQ(read_many(127), 128u);
    EXPECT_EQ(read_many(128), 256u);
}

TEST_F(JobFile, TextsBesideTheJobsAreReleasedOnce) {
    char **none = nullptr;
    sched_utl_free_extra_job_infos(scheduler, 3, &none);
    expect_read(follower("two", "one"));
    sched_utl_free_extra_job_infos(scheduler, 1, &followed);
    EXPECT_EQ(followed, nullptr);
    sched_utl_free_extra_job_infos(scheduler, 1, &followed);
}

TEST_F(JobFile, TextsOfAnotherStorageClassAreNotReleasedAsABlock) {
    uint64_t block[words_in_front + 1] = {1, sizeof(char *), 0, 0};
    auto **infos = reinterpret_cast<char **>(block + words_in_front);
    infos[0] = stg_strdup("text");
    sched_utl_free_extra_job_infos(scheduler, 1, &infos);
    EXPECT_EQ(infos, nullptr);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(JobFile, BadDefinitionLosesTheGoodOnesAheadOfIt) {
    expect_refused(DefinitionTest::job("", "one") + follower("two", "one") + "Job.Begin\nwrong\n",
                   syntax_error(12, "Expected tag \"wrong\"."));
}

TEST_F(JobFile, JobThatFailsTheChecksLosesTheFile) {
    expect_refused(DefinitionTest::job("", "one") + job_with_schedule("Job.Schedule.Daily.Frequency: 0\n"),
                   "Invalid daily frequency specification \"0\".\n", TBS_ST_INVALID_ARG);
}

TEST_F(JobFile, ChecksAskNoServer) {
    expect_read(follower("two", "99"));
    EXPECT_TRUE(world.peer.calls.empty());
}

// ---- duplicates ----

std::string duplicate_name(const std::string &name, int line) {
    return "Duplicate job name \"" + name + "\" detected in job definition ending on line " + std::to_string(line) +
           ".\nIgnoring job definition.\n";
}
std::string duplicate_id(int id, int line) {
    return "Duplicate job id " + std::to_string(id) + " detected in job definition ending on line " +
           std::to_string(line) + ".\nIgnoring job definition.\n";
}

TEST_F(JobFile, SecondJobOfANameIsPassedOver) {
    EXPECT_EQ(read_jobs(job("Job.Id: 1\n") + job("Job.Id: 2\n")), TBS_ST_OK);
    EXPECT_EQ(told(), duplicate_name("nightly", 12));
    ASSERT_EQ(job_count, 1u);
    EXPECT_EQ(jobs[0].ro.job_id, 1u);
}

TEST_F(JobFile, NamesAreComparedWithTheirCase) {
    expect_read(job("", "nightly") + job("", "Nightly"), 2);
}

TEST_F(JobFile, SecondJobOfAnIdIsPassedOver) {
    EXPECT_EQ(read_jobs(job("Job.Id: 8\n", "one") + job("Job.Id: 8\n", "two")), TBS_ST_OK);
    EXPECT_EQ(told(), duplicate_id(8, 12));
    ASSERT_EQ(job_count, 1u);
    EXPECT_STREQ(jobs[0].rw.name, "one");
}

TEST_F(JobFile, JobsWithoutAnIdAreNoDuplicatesByThat) {
    expect_read(job("", "one") + job("", "two") + job("Job.Id: 0\n", "three"), 3);
}

TEST_F(JobFile, FirstJobThatHasTheIdOrTheNameDecidesWhichIsTold) {
    const std::string two = job("Job.Id: 1\n", "one") + job("Job.Id: 2\n", "two");
    read_jobs(two + job("Job.Id: 1\n", "one"));
    EXPECT_EQ(told(), duplicate_id(1, 18)) << "the id goes before the name";
    read_jobs(two + job("Job.Id: 2\n", "one"));
    EXPECT_EQ(told(), duplicate_name("one", 18)) << "the first job goes before the second";
    read_jobs(two + job("Job.Id: 1\n", "two"));
    EXPECT_EQ(told(), duplicate_id(1, 18));
}

// A definition that was passed over is what the next one begins with.
TEST_F(JobFile, DefinitionBehindADuplicateBeginsOnTopOfIt) {
    EXPECT_EQ(read_jobs(job() + job("Job.Id: 5\nJob.Args: one\n") + "Job.Begin\nJob.Name: other\nJob.End\n"),
              TBS_ST_OK);
    EXPECT_EQ(told(), duplicate_name("nightly", 12));
    ASSERT_EQ(job_count, 2u);
    EXPECT_STREQ(jobs[1].rw.name, "other");
    EXPECT_EQ(jobs[1].ro.job_id, 5u);
    EXPECT_EQ(jobs[1].rw.task, 7u);
    EXPECT_EQ(jobs[1].rw.arg_count, 1u);
    EXPECT_EQ(jobs[1].rw.schedule.kind, SCHED_KIND_DAILY);
}

TEST_F(JobFile, WholeDefinitionBehindADuplicateConflictsWithIt) {
    expect_refused(job() + job() + job("", "other"),
                   duplicate_name("nightly", 10) + syntax_error(13, "Schedule already specified."));
    expect_refused(job() + job() + "Job.Begin\nJob.Name: other\nJob.Task: 8\n",
                   duplicate_name("nightly", 10) + syntax_error(13, "Conflict: Task was already specified."));
}

TEST_F(JobFile, FollowedNameOfADuplicateStaysForTheNextDefinition) {
    EXPECT_EQ(read_jobs(job() + follower("nightly", "first") + "Job.Begin\nJob.Name: other\nJob.End\n"), TBS_ST_OK);
    told();
    ASSERT_EQ(job_count, 2u);
    EXPECT_STREQ(followed[1], "first");
}

TEST_F(JobFile, ManyJobsAreComparedWithAllBeforeThem) {
    std::string text;
    for (int i = 0; i < 300; ++i)
        text += job("Job.Id: " + std::to_string(1000 + i) + "\n", "job " + std::to_string(i));
    expect_read(text, 300);
    for (const int again : {0, 1, 150, 299}) {
        read_jobs(text + job("", "job " + std::to_string(again)));
        EXPECT_EQ(told(), duplicate_name("job " + std::to_string(again), 1805));
        EXPECT_EQ(job_count, 300u);
        read_jobs(text + job("Job.Id: " + std::to_string(1000 + again) + "\n", "new"));
        EXPECT_EQ(told(), duplicate_id(1000 + again, 1806));
    }
}

// ---- tasks by name ----

std::string job_of_task(const std::string &name, const std::string &task) {
    return "Job.Begin\nJob.Name: " + name + "\nJob.Schedule.Daily.Frequency: 1\nJob.Task: " + task + "\nJob.End\n";
}

TEST_F(JobFile, TaskThatCannotBeLookedUpLosesTheFile) {
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_NO_ACCESS, nullptr});
    expect_refused(job("", "one") + job_of_task("two", "build"),
                   std::string("Unable to lookup task \"build\": ") + tbs_strerror(TBS_ST_NO_ACCESS) + ".\n",
                   TBS_ST_NO_ACCESS);
}

TEST_F(JobFile, TaskThatIsNotKnownEndsTheFileEarlyWithSuccess) {
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_NOT_FOUND, nullptr});
    EXPECT_EQ(read_jobs(job("", "one") + job_of_task("two", "build") + "what stands here is not read\n"), TBS_ST_OK);
    EXPECT_EQ(told(), std::string("Unable to lookup task \"build\": ") + tbs_strerror(TBS_ST_NOT_FOUND) + ".\n");
    ASSERT_EQ(job_count, 1u);
    EXPECT_STREQ(jobs[0].rw.name, "one");
}

TEST_F(JobFile, EachTaskIsLookedUpForItsJob) {
    uint32_t id = 23;
    answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_OK, &id});
    expect_read(job_of_task("one", "build") + job_of_task("two", "build") + job_of_task("three", "7"), 3);
    EXPECT_EQ(count(row::sched_task_name_to_id), 2u);
    EXPECT_EQ(jobs[2].rw.task, 7u);
}

// ---- storage and raises ----

const std::string with_everything =
    follower("second", "by night") +
    "Job.Begin\nJob.Name: \"by night\"\nJob.Id: 4\nJob.Description.Begin:\none\ntwo\nJob.Description.End:\n"
    "Job.Schedule.Weekly.Frequency: 2\nJob.Schedule.Weekly.Days: Mon\nJob.Schedule.StartDate: 2026-01-02\n"
    "Job.Task: build\nJob.Args: -all \"two words\"\n"
    "Job.NotifyInfo.OnEvents: JobBegin\nJob.NotifyInfo.Using: email\nJob.NotifyInfo.Recipients: anna,ben\n"
    "Job.NotifyInfo.OnEvents: JobEndFail\nJob.NotifyInfo.Using: email\nJob.NotifyInfo.Recipients: carl\nJob.End\n" +
    follower("second", "nobody");

class JobFileSweep : public JobFile {
protected:
    JobFileSweep() {
        answer(row::sched_task_name_to_id, sched_task_id_reply_t{TBS_ST_OK, &task_id});
        write(with_everything);
    }
    uint32_t task_id = 23;
    tbs_status_t status = -1;
};

TEST_F(JobFileSweep, IsUndoneWhenAnyAllocationFails) {
    const auto read = [&] { status = read_jobs(); };
    sim::sweep_allocations(world, read, [&](int number) {
        EXPECT_TRUE(status == TBS_ST_NO_MEMORY || status == TBS_ST_RPC_FAILED || status == TBS_ST_ERROR ||
                    status == TBS_ST_OK)
            << number << ": " << status;
        if (status == TBS_ST_OK) // a message's own storage
            return;
        EXPECT_EQ(jobs, nullptr);
        EXPECT_EQ(followed, nullptr);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_EQ(job_count, 2u);
    told();
}

TEST_F(JobFileSweep, HoldsNothingWhenARaiseLandsAnywhere) {
    const auto read = [&] { status = read_jobs(); };
    sim::sweep_raises(world, read, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        sched_free_jobs(scheduler, job_count, &jobs);
        sched_utl_free_extra_job_infos(scheduler, job_count, &followed);
        job_count = 0;
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
        told();
    });
    EXPECT_EQ(status, TBS_ST_OK);
    told();
}

} // namespace
