// A daemon that is killed at random moments while jobs are due every second. More kills: ./dev kills-jobs NUMBER.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include <unistd.h>

#include "scheduler_fixture.h"

using namespace velia::system_test;

namespace {

constexpr int jobs = 3;

int wanted(int usual) {
    const char *text = getenv("VELIA_TEST_KILLS");
    return text != nullptr ? atoi(text) : usual;
}

struct Ended {
    int64_t due;
    uint32_t status;
};

struct JobKills : SchedulerFixture {
    void SetUp() override {
        SchedulerFixture::SetUp();
        for (int i = 0; i < jobs; ++i)
            ids.push_back(create(NewJob("job " + std::to_string(i), {"-c", script(i)}).every_second()));
    }
    std::string script(int i) const { return "echo >>" + site.path("runs" + std::to_string(i)) + "; exit 7"; }

    // Ends that the daemon tells a client.
    void ask() {
        for (const auto id : ids) {
            const Ran last = last_run(id);
            if (last.ended != 0)
                told[{id, last.started}] = last.status;
        }
    }
    // Between the last kill and this look no more runs ended than are kept.
    void look() {
        for (const auto id : ids) {
            uint32_t count = 0;
            sched_run_t *found = nullptr;
            ASSERT_EQ(sched_run_get_history(handle, id, &count, &found), TBS_ST_OK) << "a job is lost";
            for (uint32_t i = 0; i < count; ++i)
                if (found[i].ended != 0)
                    runs[{id, found[i].started}] = {found[i].due, found[i].exit_status};
            sched_run_free_history(handle, count, &found);
        }
        for (const auto &[run, exit_status] : told) {
            ASSERT_TRUE(runs.contains(run)) << "an end that was told is lost";
            EXPECT_EQ(runs.at(run).status, exit_status);
        }
    }
    size_t lines(int i) const {
        const std::string text = site.read("runs" + std::to_string(i));
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    void let_end() {
        for (int i = 0; i < jobs; ++i) {
            NewJob idle("job " + std::to_string(i), {"-c", "true"});
            with_job(ids[static_cast<size_t>(i)], [&](sched_job_h_t job) {
                EXPECT_EQ(sched_job_set_properties(handle, job, idle.record(), &err_mask), TBS_ST_OK);
                return 0;
            });
            ASSERT_TRUE(eventually([&] { return running_since(ids[static_cast<size_t>(i)]) == 0; }, 30));
        }
    }

    using Key = std::pair<sched_job_id_t, time_t>;
    std::vector<sched_job_id_t> ids;
    std::map<Key, Ended> runs;
    std::map<Key, uint32_t> told;
};

} // namespace

TEST_F(JobKills, AtRandomMomentsLoseNoJobAndNoEndThatWasToldAndRunNoneTwiceForOneTime) {
    constexpr int moment_max_us = 250000;
    const int kills = wanted(20);
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < kills && !HasFatalFailure(); ++i) {
        usleep(static_cast<useconds_t>(random() % moment_max_us)); // any moment is as good
        ask();
        kill_daemon();
        restart();
        look();
    }
    let_end();
    look();
    std::map<sched_job_id_t, std::set<int64_t>> dues;
    std::map<sched_job_id_t, size_t> made;
    for (const auto &[key, run] : runs) {
        EXPECT_TRUE(dues[key.first].insert(run.due).second) << "job " << key.first << " ran twice for " << run.due;
        ++made[key.first];
    }
    for (int i = 0; i < jobs; ++i)
        EXPECT_EQ(lines(i), made[ids[static_cast<size_t>(i)]]);
    EXPECT_FALSE(runs.empty());
    RecordProperty("seen", std::to_string(kills) + " kills, " + std::to_string(runs.size()) + " runs, " +
                               std::to_string(told.size()) + " ends told");
}
