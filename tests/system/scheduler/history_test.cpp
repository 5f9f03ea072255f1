// What a run puts out, while it does and afterwards; what became of runs, and who changed what.
#include <algorithm>
#include <array>
#include <filesystem>

#include "tool_fixture.h"
#include <tests/system/support/child.h>
#include <veliaxdr/sched_runs.h>

using namespace velia::system_test;

namespace {

struct RunHistory : SchedulerTool {
    void TearDown() override {
        site.write("go", "");
        SchedulerTool::TearDown();
    }

    // A script that goes on once the file "go" is there.
    std::string script_that_waits(const std::string &behind) const {
        return "echo begun; while test -d " + site.path("host") + " && ! test -e " + site.path("go") +
               "; do sleep 0.05; done; " + behind;
    }
    // All of it, in pieces of `size`.
    std::string output_in_pieces(sched_job_id_t id, uint32_t size) {
        std::string all;
        sched_run_output_t piece = {};
        do {
            sched_run_free_output(handle, &piece);
            status = sched_run_get_output(handle, id, 0, all.size(), size, &piece);
            all.append(piece.bytes != nullptr ? piece.bytes : "", piece.size);
            EXPECT_LE(piece.size, size);
        } while (piece.size != 0);
        sched_run_free_output(handle, &piece);
        return all;
    }
    std::vector<std::string> changes_of(sched_job_id_t id, uint64_t before = 0, uint32_t count_max = 100) {
        uint32_t count = 0;
        sched_change_t *changes = nullptr;
        status = sched_get_changes(handle, id, before, count_max, &count, &changes);
        std::vector<std::string> told;
        for (uint32_t i = 0; i < count; ++i)
            told.push_back(std::string(changes[i].what) + " " + changes[i].job_name + " " + changes[i].fields);
        sched_free_changes(handle, count, &changes);
        return told;
    }
};

std::string lines(size_t count) {
    std::string text;
    for (size_t i = 1; i <= count; ++i)
        text += std::to_string(i) + "\n";
    return text;
}

} // namespace

TEST_F(RunHistory, TheWholeOutputComesInPieces) {
    const auto id = create(NewJob("counts", {"-c", "seq 1 20000"}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    EXPECT_EQ(ran(id).status, 0U);
    const std::string all = lines(20000);
    EXPECT_EQ(output_in_pieces(id, 1000000), all);
    EXPECT_EQ(output_in_pieces(id, 999), all);
    EXPECT_EQ(tool("job logs alpha counts").text, all);
}

TEST_F(RunHistory, ARunThatIsNotThereHasNoOutput) {
    const auto id = create(NewJob("never"));
    EXPECT_EQ(output_in_pieces(id, 9), "");
    EXPECT_EQ(status, TBS_ST_NOT_FOUND);
    output_in_pieces(id + 1, 9);
    EXPECT_EQ(status, TBS_ST_NOT_FOUND);
    sched_run_output_t piece = {};
    EXPECT_EQ(sched_run_get_output(handle, id, 99, 0, 9, &piece), TBS_ST_NOT_FOUND);
    uint32_t count = 0;
    sched_run_t *runs = nullptr;
    EXPECT_EQ(sched_run_get_history(handle, id + 1, &count, &runs), TBS_ST_NOT_FOUND);
    EXPECT_EQ(tool("job logs alpha never").status, 1);
    EXPECT_EQ(tool("job logs alpha never --run yesterday").status, 2);
}

TEST_F(RunHistory, BeyondTheEndThereIsNothing) {
    const auto id = create(NewJob("short", {"-c", "echo one"}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    ran(id);
    sched_run_output_t piece = {};
    EXPECT_EQ(sched_run_get_output(handle, id, 0, UINT64_MAX, 9, &piece), TBS_ST_OK);
    EXPECT_EQ(piece.size, 0U);
    EXPECT_EQ(piece.total, 4U);
    EXPECT_NE(piece.ended, 0);
    sched_run_free_output(handle, &piece);
}

// As while it is being begun: it has put out nothing yet, and is to be asked again.
TEST_F(RunHistory, ARunThatIsOnHasOutputAlsoWhereItsFileIsNotThere) {
    const auto id = create(NewJob("waits", {"-c", script_that_waits("true")}));
    time_t started = 0;
    ASSERT_EQ(run(id, &started), TBS_ST_OK);
    const std::string file = site.path("host/priv/runs/" + std::to_string(id) + "." + std::to_string(started) + ".out");
    ASSERT_TRUE(eventually([&] { return output_in_pieces(id, 9) == "begun\n"; })) << file;
    ASSERT_TRUE(std::filesystem::remove(file));
    sched_run_output_t piece = {};
    EXPECT_EQ(sched_run_get_output(handle, id, started, 0, 9, &piece), TBS_ST_OK);
    EXPECT_EQ(piece.size, 0U);
    EXPECT_EQ(piece.started, started);
    EXPECT_EQ(piece.ended, 0);
    sched_run_free_output(handle, &piece);
    site.write("go", "");
    EXPECT_EQ(ran(id).status, 0U);
    EXPECT_EQ(sched_run_get_output(handle, id, started, 0, 9, &piece), TBS_ST_NOT_FOUND);
}

TEST_F(RunHistory, LogsFollowARunToItsEnd) {
    const auto id = create(NewJob("waits", {"-c", script_that_waits("printf 'two\\nthree'")}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    Child::Options options;
    options.output_file = site.path("follow.out");
    Child follow({VELIACTL, "job", "logs", "alpha", "waits", "--follow"}, options);
    Child::Options in_json;
    in_json.output_file = site.path("json.out");
    Child follow_in_json({VELIACTL, "-o", "jsonl", "job", "logs", "alpha", "waits", "--follow"}, in_json);
    ASSERT_TRUE(eventually([&] { return site.read("follow.out") == "begun\n"; }, 30));
    ASSERT_TRUE(eventually([&] { return site.read("json.out") == "{\"line\":\"begun\"}\n"; }, 30));
    EXPECT_EQ(tool("job logs alpha waits").text, "begun\n");
    site.write("go", "");
    EXPECT_EQ(follow.wait(), 0);
    EXPECT_EQ(follow_in_json.wait(), 0);
    EXPECT_EQ(site.read("follow.out"), "begun\ntwo\nthree");
    EXPECT_EQ(site.read("json.out"), "{\"line\":\"begun\"}\n{\"line\":\"two\"}\n{\"line\":\"three\"}\n");
}

TEST_F(RunHistory, ARunThatIsWaitedForShowsItsOutputAsItComes) {
    create(NewJob("waits", {"-c", script_that_waits("echo done; exit 5")}));
    Child::Options options;
    options.output_file = site.path("wait.out");
    options.error_file = site.path("wait.err");
    Child wait({VELIACTL, "-o", "jsonl", "job", "run", "alpha", "waits", "--wait"}, options);
    ASSERT_TRUE(eventually([&] { return site.read("wait.err") == "begun\n"; }, 30));
    EXPECT_EQ(site.read("wait.out"), "");
    site.write("go", "");
    EXPECT_EQ(wait.wait(), 5);
    EXPECT_EQ(site.read("wait.err"), "begun\ndone\n");
    EXPECT_NE(site.read("wait.out").find("\"action\":\"ran\""), std::string::npos);
}

TEST_F(RunHistory, OfOneThatCouldNotBeginTheSchedulersWordIsShown) {
    create(NewJob("lost", {}, 2));
    const Told told = tool("job run alpha lost --wait");
    EXPECT_EQ(told.status, 127);
    EXPECT_NE(told.text.find("/no/such/program: No such file or directory"), std::string::npos) << told.text;
    EXPECT_NE(tool("job logs alpha lost").text.find("/no/such/program"), std::string::npos);
    EXPECT_NE(tool("job logs alpha lost --follow").text.find("/no/such/program"), std::string::npos);
    create(NewJob("of nothing", {}, 77));
    const Told of_nothing = tool("job run alpha 'of nothing' --wait");
    EXPECT_EQ(of_nothing.status, 127);
    EXPECT_NE(of_nothing.text.find("There is no such task"), std::string::npos) << of_nothing.text;
}

TEST_F(RunHistory, ATaskIsRunNowByAJobThatGoesWithIt) {
    const Told told = tool("job run-now alpha script --output jsonl --name mine -- -c 'echo said; exit 4'");
    EXPECT_EQ(told.status, 0);
    EXPECT_NE(told.text.find("{\"action\":\"ran\",\"task\":\"script\",\"name\":\"mine\"}"), std::string::npos)
        << told.text;
    EXPECT_NE(told.text.find("said"), std::string::npos) << told.text;
    EXPECT_EQ(json("job list alpha"), "");
    EXPECT_NE(json("job run-now alpha script --dry-run").find("would run"), std::string::npos);
    EXPECT_EQ(tool("job run-now alpha none").status, 1);
    kill_daemon();
    EXPECT_EQ(tool("job run-now alpha script").status, 3);
}

TEST_F(RunHistory, ARunIsChosenByItsStartInEachFormOfResults) {
    const auto id = create(NewJob("twice", {"-c", "cat " + site.path("word")}));
    site.write("word", "one");
    time_t started = 0;
    ASSERT_EQ(run(id, &started), TBS_ST_OK);
    ran(id);
    site.write("word", "two");
    ASSERT_EQ(run(id), TBS_ST_OK);
    ASSERT_TRUE(eventually([&] { return last_run(id).started > started; }, 30));
    EXPECT_EQ(tool("job logs alpha twice").text, "two");
    EXPECT_EQ(tool("job logs alpha twice --run @" + std::to_string(started)).text, "one");
    std::array<char, 64> text;
    tm parts = {};
    localtime_r(&started, &parts);
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S%z", &parts);
    EXPECT_EQ(tool("job logs alpha twice --run " + std::string(text.data())).text, "one");
    strftime(text.data(), text.size(), "'%Y-%m-%d %H:%M:%S'", &parts);
    EXPECT_EQ(tool("job logs alpha twice --run " + std::string(text.data())).text, "one");
}

TEST_F(RunHistory, TellsOfRunsWithTheirDurationsAndEnds) {
    const auto id = create(NewJob("ends", {"-c", "echo first; echo last; exit 4"}).now());
    ran(id);
    ASSERT_EQ(run(id), TBS_ST_OK);
    ASSERT_TRUE(eventually(
        [&] {
            const std::string text = json("job history alpha ends");
            return std::count(text.begin(), text.end(), '\n') == 2 && text.find("\"runs\"") == std::string::npos;
        },
        30));
    const std::string told = json("job history alpha ends");
    const std::string first = told.substr(0, told.find('\n'));
    const std::string second = told.substr(first.size() + 1);
    EXPECT_EQ(first.find("\"due\":null"), std::string::npos) << first;
    EXPECT_NE(second.find("\"due\":null"), std::string::npos) << second;
    for (const char *part : {"\"what\":\"ran\"", "\"id\":1", "\"name\":\"ends\"", "\"duration_s\":", "\"status\":4",
                             "\"messages\":\"first\\nlast\\n\""})
        EXPECT_NE(first.find(part), std::string::npos) << part << " in " << first;
    EXPECT_EQ(first.find("\"who\""), std::string::npos);
    const std::string shown = tool("job history alpha ends").text;
    EXPECT_NE(shown.find(" last\n"), std::string::npos) << shown;
    EXPECT_EQ(shown.find("first"), std::string::npos) << shown;
    EXPECT_EQ(tool("job history alpha").status, 2);
    EXPECT_EQ(tool("job history alpha none").status, 1);
    EXPECT_EQ(tool("job history alpha ends --limit 3").status, 2);
}

TEST_F(RunHistory, ARunThatGoesOnHasNoEnd) {
    const auto id = create(NewJob("waits", {"-c", script_that_waits("true")}));
    ASSERT_EQ(run(id), TBS_ST_OK);
    const std::string told = json("job history alpha waits");
    EXPECT_NE(told.find("\"what\":\"runs\""), std::string::npos) << told;
    EXPECT_NE(told.find("\"ended\":null,\"duration_s\":null,\"status\":null,\"messages\":null"), std::string::npos);
}

TEST_F(RunHistory, WhoChangedWhatIsToldYoungestFirstAndOutlivesTheDaemon) {
    NewJob job("first");
    const auto id = create(job);
    const auto other = create(NewJob("second"));
    job.name = "renamed";
    job.arguments = {"-c", "true"};
    with_job(id, [&](sched_job_h_t given) {
        EXPECT_EQ(sched_job_set_properties(handle, given, job.record(), &err_mask), TBS_ST_OK);
        return true;
    });
    EXPECT_EQ(tool("acl set alpha everyone=read").status, 0);
    EXPECT_EQ(tool("job delete alpha second").status, 0);
    kill_daemon();
    restart();
    const std::vector<std::string> all = {"deleted second ", "access  ", "changed renamed name,description,arguments",
                                          "created second ", "created first "};
    EXPECT_EQ(changes_of(0), all);
    EXPECT_EQ(changes_of(0, 5, 2), std::vector<std::string>(all.begin() + 1, all.begin() + 3));
    EXPECT_EQ(changes_of(0, UINT64_MAX, 1), std::vector<std::string>(all.begin(), all.begin() + 1));
    EXPECT_EQ(changes_of(0, 0, 0), std::vector<std::string>());
    EXPECT_EQ(changes_of(id).size(), 2U);
    EXPECT_EQ(changes_of(other).size(), 2U);
    const std::string told = json("job history alpha --changes");
    EXPECT_LT(told.find("\"created\""), told.find("\"deleted\"")) << told;
    EXPECT_NE(told.find("\"what\":\"access\",\"id\":null,\"name\":null"), std::string::npos) << told;
    EXPECT_NE(told.find("\"where\":\"this host\",\"fields\":\"name,description,arguments\""), std::string::npos)
        << told;
    const std::string of_one = json("job history alpha renamed --changes --limit 1");
    EXPECT_NE(of_one.find("\"changed\""), std::string::npos) << of_one;
    EXPECT_EQ(of_one.find("\"created\""), std::string::npos) << of_one;
}

TEST_F(RunHistory, MoreChangesThanAPieceHoldsComeWhole) {
    for (uint32_t i = 0; i <= SCHED_CHANGES_MAX; ++i)
        create(NewJob("job" + std::to_string(i)));
    const std::string told = json("job history alpha --changes");
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), SCHED_CHANGES_MAX + 1);
    const std::string of_ten = json("job history alpha --changes --limit 10");
    EXPECT_EQ(std::count(of_ten.begin(), of_ten.end(), '\n'), 10);
    EXPECT_NE(of_ten.find("\"job" + std::to_string(SCHED_CHANGES_MAX) + "\""), std::string::npos);
}

TEST_F(RunHistory, TheNextRunsAreThoseOfTheSchedulersZone) {
    kill_daemon();
    sched_free_handle(&handle);
    setenv("TZ", "America/New_York", 1);
    start(tasks);
    unsetenv("TZ");
    NewJob job("next");
    job.rw.schedule.u.daily.common.lifetime = {4108752000 - 2 * 86400, 4108752000 + 1000 * 86400}; // around 2100-03-14
    job.rw.schedule.u.daily.common.start_times = {9000, 9000, 0};
    create(job);
    const std::string told = json("job next alpha next 600");
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 600);
    EXPECT_NE(told.find("\"wall\":\"2100-03-14T03:00:00-04:00\",\"note\":\"moved\""), std::string::npos)
        << told.substr(0, 1000);
    EXPECT_TRUE(json("job next alpha next 600 --zone America/New_York") == told);
    EXPECT_FALSE(json("job next alpha next 600 --zone UTC") == told);
    create(NewJob("behind").after(1));
    EXPECT_EQ(json("job next alpha behind"), "");
}
