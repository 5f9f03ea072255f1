// A clock on the wall that is set while the daemon runs, a day forward and back: the starts that it jumps over were
// missed, and none is made a second time.
#include <set>

#include "scheduler_fixture.h"

using namespace velia::system_test;

namespace {

constexpr time_t minute = 60;
constexpr time_t hour = 60 * minute;
constexpr time_t day = 24 * hour;

struct SetClock : SchedulerFixture {
    void SetUp() override {
        site.configure(tasks);
        Child::Options options;
        options.environment = {std::string("LD_PRELOAD=") + SET_CLOCK_PRELOAD, "CLOCK_AHEAD=" + site.path("ahead"),
                               "TZ=UTC", "ASAN_OPTIONS=verify_asan_link_order=0"};
        daemon = std::make_unique<Daemon>(site, std::vector<std::string>{}, options);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
        ASSERT_EQ(sched_get_handle("alpha", &handle), TBS_ST_OK) << daemon->output();
    }

    // Until the daemon has looked at its jobs under the new clock: a job that is made after that runs behind the look.
    void set_ahead(time_t seconds) {
        site.write("ahead", std::to_string(seconds) + "\n");
        ASSERT_TRUE(eventually(
            [&] {
                time_t now = 0;
                sched_get_time(handle, &now);
                return now >= time(nullptr) + seconds - 1 && now <= time(nullptr) + seconds + 1;
            },
            30));
    }

    // Each day at the time of day of that moment.
    sched_job_id_t create_daily(const std::string &name, time_t moment) {
        NewJob job(name, {"-c", "echo ran"});
        job.rw.schedule.u.daily.common.lifetime = {0, 0};
        job.rw.schedule.u.daily.common.start_times = {static_cast<uint32_t>(moment % day), day, 0};
        return create(job);
    }

    std::set<time_t> starts_made(sched_job_id_t id) {
        std::set<time_t> dues;
        uint32_t count = 0;
        sched_run_t *runs = nullptr;
        EXPECT_EQ(sched_run_get_history(handle, id, &count, &runs), TBS_ST_OK);
        for (uint32_t i = 0; i < count; ++i)
            EXPECT_TRUE(dues.insert(runs[i].due).second) << "made twice";
        sched_run_free_history(handle, count, &runs);
        return dues;
    }
    time_t next_run(sched_job_id_t id) {
        return with_job(id, [&](sched_job_h_t job) {
            sched_job_properties_t properties = {};
            sched_job_get_properties(handle, job, &properties);
            const time_t next = properties.ro.next_run_time;
            sched_free_job_properties(handle, &properties);
            return next;
        });
    }
    bool has_made(sched_job_id_t id, const std::set<time_t> &starts) {
        return eventually([&] { return starts_made(id) == starts; }, 30);
    }
};

} // namespace

TEST_F(SetClock, ADayForwardMissesWhatItJumpsOverAndADayBackMakesNothingTwice) {
    const time_t now = time(nullptr);
    const time_t young = now - 30 * minute;
    const time_t old = now - 6 * hour;
    const auto often = create_daily("young", young);
    const auto seldom = create_daily("old", old);
    EXPECT_EQ(next_run(often), young + day);
    EXPECT_EQ(next_run(seldom), old + day);

    set_ahead(day);
    EXPECT_TRUE(has_made(often, {young + day})) << daemon->output();
    EXPECT_TRUE(daemon->says("\"old\"", 30)) << daemon->output();
    EXPECT_EQ(next_run(often), young + 2 * day);
    EXPECT_EQ(next_run(seldom), old + 2 * day);

    set_ahead(0);
    EXPECT_EQ(ran(create(NewJob("behind the look", {"-c", "true"}).now())).status, 0U);
    EXPECT_EQ(next_run(often), young + 2 * day);
    set_ahead(day);
    EXPECT_EQ(ran(create(NewJob("behind the next", {"-c", "true"}).now())).status, 0U);
    EXPECT_TRUE(has_made(often, {young + day}));

    set_ahead(2 * day);
    EXPECT_TRUE(has_made(often, {young + day, young + 2 * day})) << daemon->output();
    EXPECT_TRUE(has_made(seldom, {}));
}

TEST_F(SetClock, ARunThatGoesOnIsNotTouched) {
    NewJob job("long", {"-c", "while ! test -e " + site.path("go") + "; do sleep 0.05; done; exit 4"});
    job.rw.run_control.max_run_time = 3600;
    const auto id = create(job.now());
    ASSERT_TRUE(eventually([&] { return running_since(id) != 0; }, 30));
    const time_t started = running_since(id);
    set_ahead(day);
    EXPECT_EQ(ran(create(NewJob("a day later", {"-c", "true"}).now())).status, 0U);
    set_ahead(-day);
    EXPECT_EQ(ran(create(NewJob("a day before", {"-c", "true"}).now())).status, 0U);
    EXPECT_EQ(running_since(id), started);
    site.write("go", "");
    EXPECT_EQ(ran(id).status, 4U);
    EXPECT_EQ(starts_made(id), std::set<time_t>{started});
}
