// What goes wrong around jobs: requests at their limits, programs that cannot be run or are replaced, full disks, and
// users other than the daemon's.
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tool_fixture.h"

using namespace velia::system_test;

namespace {

struct SchedulerFaults : SchedulerTool {
    void TearDown() override {
        site.write("go", "");
        SchedulerTool::TearDown();
    }
    void write_program(const std::string &name, const std::string &text, mode_t mode) const {
        site.write(name, text);
        chmod(site.path(name).c_str(), mode);
    }
    std::string waiting() const {
        return "while test -d " + site.path("host") + " && ! test -e " + site.path("go") + "; do sleep 0.05; done";
    }
    void expect_served() {
        time_t now = 0;
        uint32_t count = 0;
        sched_job_properties_t *jobs = nullptr;
        EXPECT_EQ(sched_get_time(handle, &now), TBS_ST_OK);
        EXPECT_EQ(sched_get_jobs(handle, &count, &jobs), TBS_ST_OK);
        sched_free_jobs(handle, count, &jobs);
    }
};

// A job with one field at a limit.
struct Limit {
    const char *name;
    void (*set)(NewJob &job);
};

constexpr int64_t furthest = std::numeric_limits<int64_t>::max();
constexpr int64_t earliest = std::numeric_limits<int64_t>::min();

sched_common_sched_t &common(NewJob &job) {
    return job.rw.schedule.u.daily.common;
}

const Limit limits[] = {
    {"no name", [](NewJob &job) { job.name.clear(); }},
    {"a long name", [](NewJob &job) { job.name = std::string(20000, 'n'); }},
    {"a name that nobody may see", [](NewJob &job) { job.name = "\x01\x1b[2J\n\xff"; }},
    {"more than a request holds", [](NewJob &job) { job.name = std::string(70000, 'n'); }},
    {"a long argument", [](NewJob &job) { job.arguments = {std::string(30000, 'a')}; }},
    {"many arguments", [](NewJob &job) { job.arguments.resize(10000); }},
    {"no task", [](NewJob &job) { job.rw.task = 0; }},
    {"the last task", [](NewJob &job) { job.rw.task = UINT32_MAX; }},
    {"the longest run", [](NewJob &job) { job.rw.run_control.max_run_time = UINT32_MAX; }},
    {"every day", [](NewJob &job) { job.rw.schedule.u.daily.frequency = 0; }},
    {"the most days", [](NewJob &job) { job.rw.schedule.u.daily.frequency = INT32_MAX; }},
    {"the fewest days", [](NewJob &job) { job.rw.schedule.u.daily.frequency = INT32_MIN; }},
    {"the first date", [](NewJob &job) { common(job).lifetime.start_date = earliest; }},
    {"the last date", [](NewJob &job) { common(job).lifetime.start_date = furthest; }},
    {"an end before all time",
     [](NewJob &job) {
         common(job).lifetime = {earliest, earliest};
     }},
    {"an end behind all time",
     [](NewJob &job) {
         common(job).lifetime = {earliest, furthest};
     }},
    {"the latest start",
     [](NewJob &job) {
         common(job).start_times = {86400, 86400, 0};
     }},
    {"a later start",
     [](NewJob &job) {
         common(job).start_times = {86401, 86401, 0};
     }},
    {"restarts each second",
     [](NewJob &job) {
         common(job).start_times = {0, 86400, 1};
     }},
    {"restarts never",
     [](NewJob &job) {
         common(job).start_times = {0, UINT32_MAX, UINT32_MAX};
     }},
    {"no such month",
     [](NewJob &job) {
         job.rw.schedule.kind = SCHED_KIND_MONTHLY;
         job.rw.schedule.u.monthly = {};
         job.rw.schedule.u.monthly.frequency = INT32_MAX;
         job.rw.schedule.u.monthly.day.number = UINT32_MAX;
     }},
    {"the last of its kind",
     [](NewJob &job) {
         job.rw.schedule.kind = SCHED_KIND_MONTHLY;
         job.rw.schedule.u.monthly = {};
         job.rw.schedule.u.monthly.frequency = 1;
         job.rw.schedule.u.monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
         job.rw.schedule.u.monthly.day.kind = {6, 11};
     }},
    {"all days and more",
     [](NewJob &job) {
         job.rw.schedule.kind = SCHED_KIND_WEEKLY;
         job.rw.schedule.u.weekly = {};
         job.rw.schedule.u.weekly.frequency = INT32_MAX;
         job.rw.schedule.u.weekly.days = UINT32_MAX;
     }},
    {"behind the last job", [](NewJob &job) { job.after(UINT32_MAX); }},
};

} // namespace

// It is made, refused, or too long; and whoever comes next is served, also by the next daemon.
TEST_F(SchedulerFaults, ARequestWithAFieldAtItsLimitIsAnswered) {
    for (const Limit &limit : limits) {
        SCOPED_TRACE(limit.name);
        NewJob job("limit");
        limit.set(job);
        const auto id = create(job);
        EXPECT_TRUE(status == TBS_ST_OK || status == TBS_ST_INVALID_ARG || status == TBS_ST_RPC_FAILED) << status;
        expect_served();
        if (id == 0)
            continue;
        tool("job next alpha " + std::to_string(id) + " 3");
        EXPECT_EQ(tool("job show alpha " + std::to_string(id)).status, 0);
        EXPECT_EQ(tool("job history alpha " + std::to_string(id) + " --changes --output json").status, 0);
        kill_daemon();
        restart();
        EXPECT_TRUE(exists(id));
        EXPECT_EQ(remove(id, 1), TBS_ST_OK);
    }
    expect_served();
}

TEST_F(SchedulerFaults, AProgramThatMayNotBeExecutedIsAFailedRun) {
    write_program("plain", "#!/bin/sh\necho never\n", 0644);
    kill_daemon();
    restart("task 1 plain " + site.path("plain") + "\ntask 2 folder /tmp\n");
    const Ran plain = ran(create(NewJob("plain").now()));
    EXPECT_EQ(plain.status, 126U);
    EXPECT_NE(plain.messages.find("Permission denied"), std::string::npos) << plain.messages;
    EXPECT_EQ(ran(create(NewJob("folder", {}, 2).now())).status, 126U);
}

TEST_F(SchedulerFaults, OfAProgramThatIsReplacedWhileItsJobWaitsTheOneThatIsThereRuns) {
    write_program("program", "#!/bin/sh\necho old\n", 0755);
    kill_daemon();
    restart("task 1 script /bin/sh\ntask 2 program " + site.path("program") + "\noption jobs 1\n");
    const auto first = create(NewJob("first", {"-c", waiting()}).now());
    ASSERT_TRUE(eventually([&] { return running_since(first) != 0; }, 30));
    const auto second = create(NewJob("second", {}, 2).now());
    write_program("new", "#!/bin/sh\necho new\n", 0755);
    std::filesystem::rename(site.path("new"), site.path("program"));
    EXPECT_EQ(last_run(second).ended, 0);
    site.write("go", "");
    EXPECT_EQ(ran(second).messages, "new\n");
}

TEST_F(SchedulerFaults, OneThatPrintsWithoutEndIsHeldToItsLimitAndSlowsNobody) {
    const auto id = [&] {
        NewJob job("prints", {"-c", "yes"});
        job.rw.run_control.max_run_time = 1;
        return create(job.now());
    }();
    while (last_run(id).ended == 0)
        expect_served();
    EXPECT_EQ(last_run(id).status, 128U + SIGTERM);
}

// Of a start that could not be written down a failure is told; what ends meanwhile is written when there is room.
TEST_F(SchedulerFaults, AFullDiskLosesNoJobAndNoEnd) {
    daemon.reset();
    sched_free_handle(&handle);
    site.configure(tasks);
    Child::Options options;
    options.environment = {std::string("LD_PRELOAD=") + FULL_DISK_PRELOAD, "DISK_IS_FULL=" + site.path("full"),
                           "ASAN_OPTIONS=verify_asan_link_order=0"};
    daemon = std::make_unique<Daemon>(site, std::vector<std::string>{}, options);
    ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK) << daemon->output();
    const auto runs = create(NewJob("runs", {"-c", waiting() + "; echo ended; exit 3"}));
    ASSERT_EQ(run(runs), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return running_since(runs) != 0; }, 30));
    const auto notes = "host/priv/runs/" + std::to_string(runs) + "." + std::to_string(running_since(runs)) + ".run";
    ASSERT_TRUE(eventually([&] { return read(notes).find('\n') != std::string::npos; }, 30));
    const pid_t keeper = atoi(read(notes).c_str() + strlen("keeper "));
    ASSERT_GT(keeper, 0);
    const auto idle = create(NewJob("idle", {"-c", "echo well"}));
    site.write("full", "");
    EXPECT_EQ(create(NewJob("refused")), 0U);
    EXPECT_NE(status, TBS_ST_OK);
    EXPECT_NE(run(idle), TBS_ST_OK);
    site.write("go", "");
    EXPECT_TRUE(eventually([&] { return kill(keeper, 0) != 0; }, 30)) << "the daemon knows of the end by then";
    EXPECT_EQ(create(NewJob("refused behind it")), 0U) << "and has tried to write it";
    expect_served();
    EXPECT_EQ(last_run(runs).ended, 0);
    std::filesystem::remove(site.path("full"));
    const Ran ended = ran(runs);
    EXPECT_EQ(ended.status, 3U);
    EXPECT_EQ(ended.messages, "ended\n");
    const time_t before = last_run(idle).started;
    ASSERT_EQ(run(idle), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return last_run(idle).started > before; }, 30));
    EXPECT_EQ(last_run(idle).messages, "well\n");
    EXPECT_NE(create(NewJob("taken")), 0U);
}

// Only root's daemon runs a job as who made it.
struct OthersJob : SchedulerFaults {
    void SetUp() override {
        if (getuid() != 0)
            GTEST_SKIP() << "needs root";
        SchedulerFaults::SetUp();
    }
};

TEST_F(OthersJob, RunsAsHimAndIsHis) {
    const passwd *other = getpwnam("daemon");
    ASSERT_NE(other, nullptr);
    const uid_t user = other->pw_uid;
    const std::string ids = std::to_string(user) + "\n" + std::to_string(other->pw_gid) + "\nno\n";
    EXPECT_EQ(tool("acl set alpha everyone=read,change,run").status, 0);
    std::filesystem::permissions(site.root(), std::filesystem::perms::others_exec | std::filesystem::perms::others_read,
                                 std::filesystem::perm_options::add);
    const auto as_user = [&](std::vector<std::string> words) {
        words.insert(words.begin(), VELIACTL);
        Child::Options options;
        options.user = user;
        options.output_file = site.path("said");
        options.error_file = site.path("output");
        return Child(words, options).wait();
    };
    EXPECT_EQ(as_user({"job", "create", "alpha", "his", "--task", "script", "--days", "1", "--first", "00:00", "--",
                       "-c", "id -u; id -g; test -w /etc/passwd || echo no"}),
              0)
        << site.read("said");
    EXPECT_EQ(as_user({"job", "run", "alpha", "his", "--wait"}), 0) << site.read("said");
    EXPECT_EQ(site.read("output"), ids);
    const auto roots = create(NewJob("roots", {"-c", "id -u"}));
    EXPECT_EQ(as_user({"job", "run", "alpha", "roots"}), 1);
    EXPECT_EQ(as_user({"job", "delete", "alpha", "roots"}), 1);
    ASSERT_EQ(run(roots), TBS_ST_OK);
    EXPECT_EQ(ran(roots).messages, "0\n");
}
