// The file of a run: what its keeper tells, whole or not at all, and whether there is a keeper.
#include <server/scheduler/keeper.h>
#include <server/scheduler/run_file.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace velia::server;
using testing::ElementsAre;

namespace {

const std::string whole = keeper_note(11) + process_note(12) + end_note(1000, 3, "two\nlines");

struct RunFiles : testing::Test {
    RunFiles() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-runs-XXXXXX").string();
        directory = mkdtemp(name.data());
    }
    ~RunFiles() override { std::filesystem::remove_all(directory); }
    std::filesystem::path directory;
};

} // namespace

TEST(RunNotes, AreReadBack) {
    const RunNotes notes = read_notes(whole);
    EXPECT_EQ(notes.keeper, 11);
    EXPECT_EQ(notes.process, 12);
    EXPECT_EQ(notes.ended, 1000);
    EXPECT_EQ(notes.exit_status, 3U);
    EXPECT_EQ(notes.messages, "two\nlines");
}

TEST(RunNotes, OfAnEndThatIsCutShortTellNone) {
    for (size_t length = 0; length < whole.size(); ++length)
        EXPECT_FALSE(read_notes(whole.substr(0, length)).ended) << length;
    const RunNotes notes = read_notes(whole.substr(0, keeper_note(11).size() + 3));
    EXPECT_EQ(notes.keeper, 11);
    EXPECT_EQ(notes.process, 0);
}

TEST(RunNotes, OfAProgramThatDidNotStartHaveAnEndOnly) {
    const RunNotes notes = read_notes(keeper_note(11) + end_note(1000, 127, "none\n"));
    EXPECT_EQ(notes.process, 0);
    EXPECT_EQ(notes.exit_status, 127U);
}

TEST(RunNotes, OfNonsenseAreEmpty) {
    for (const char *text : {"", "keeper", "keeper x\n", "ended 1\n", "ended 1 2 -3\n", "ended 1 2 3 x", "\0\0\0"})
        EXPECT_FALSE(read_notes(text).ended) << text;
}

TEST_F(RunFiles, AreKeptWhileTheyAreLocked) {
    const std::string path = directory / "1.2.run";
    {
        const UniqueFd fd = make_run_file(path);
        ASSERT_TRUE(fd);
        EXPECT_TRUE(is_kept(path));
        EXPECT_FALSE(make_run_file(path)); // another keeper has it
        ASSERT_GT(write(fd.get(), whole.data(), whole.size()), 0);
    }
    EXPECT_FALSE(is_kept(path));
    EXPECT_EQ(read_run_file(path)->messages, "two\nlines");
}

TEST_F(RunFiles, ThatAreNotThereAreNotKept) {
    EXPECT_FALSE(is_kept(directory / "none"));
    EXPECT_FALSE(read_run_file(directory / "none"));
    EXPECT_FALSE(make_run_file(directory / "no" / "folder"));
}

TEST_F(RunFiles, LeadNowhereElse) {
    std::ofstream(directory / "target") << "precious";
    std::filesystem::create_symlink(directory / "target", directory / "link");
    EXPECT_FALSE(make_run_file(directory / "link"));
    EXPECT_EQ(std::filesystem::file_size(directory / "target"), 8U);
}

TEST(RunPaths, HaveTheJobAndTheStart) {
    RunRow run;
    run.job = 7;
    run.started = 99;
    EXPECT_EQ(run_paths("/runs", run).notes, "/runs/7.99.run");
    EXPECT_EQ(run_paths("/runs", run).output, "/runs/7.99.out");
}

TEST(Keeper, IsToldWhatToRunAndAsWhom) {
    RunOrder order;
    order.path = "/bin/echo";
    order.arguments = {"-n", "x"};
    order.seconds_max = 5;
    order.output_bytes_max = 6;
    EXPECT_THAT(keeper_arguments(order), ElementsAre("--keep-run", "-", "5", "6", "/bin/echo", "-n", "x"));
    order.user = 1000;
    EXPECT_EQ(keeper_arguments(order)[1], "1000");
}
