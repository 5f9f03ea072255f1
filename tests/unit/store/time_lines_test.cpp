// A primary that comes back after its standby was promoted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <unistd.h>

#include <server/registry/postgres_store.h>
#include <server/registry/time_lines.h>
#include <tests/postgres/server.h>

using namespace velia::server;
using testing::HasSubstr;
using velia::postgres_test::Server;

namespace {

struct TimeLines : testing::Test {
    TimeLines() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-lines-XXXXXX").string();
        directory = mkdtemp(name.data());
        file = directory / "seen";
        keep_time_lines_in(file);
    }
    ~TimeLines() override {
        keep_time_lines_in("");
        std::filesystem::remove_all(directory);
    }

    void write(const std::string &text) const { std::ofstream(file) << text; }
    std::string text() const {
        std::ifstream stream(file);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    // As of a daemon that is started later.
    void forget() const { keep_time_lines_in(file); }

    std::filesystem::path directory;
    std::filesystem::path file;
};

} // namespace

TEST_F(TimeLines, AnOlderOneIsRefusedAlsoByADaemonThatIsStartedLater) {
    require_newest_time_line("7", 2);
    EXPECT_THROW(require_newest_time_line("7", 1), StoreAway);
    forget();
    EXPECT_THROW(require_newest_time_line("7", 1), StoreAway);
    EXPECT_NO_THROW(require_newest_time_line("7", 2));
    EXPECT_NO_THROW(require_newest_time_line("7", 3));
    forget();
    EXPECT_THROW(require_newest_time_line("7", 2), StoreAway);
}

TEST_F(TimeLines, OtherServersHaveTheirOwn) {
    require_newest_time_line("7", 5);
    require_newest_time_line("8", 1);
    EXPECT_EQ(text(), "7 5\n8 1\n");
    forget();
    EXPECT_NO_THROW(require_newest_time_line("8", 1));
    EXPECT_THROW(require_newest_time_line("7", 1), StoreAway);
}

TEST_F(TimeLines, WhatAnotherProcessHasSeenMeanwhileStays) {
    write("9 4\n");
    require_newest_time_line("7", 2);
    EXPECT_EQ(text(), "7 2\n9 4\n");
}

TEST_F(TimeLines, WhatIsMalformedIsPassedOver) {
    write("\n7\n 1\n7 x\n7 2 3\n8 -1\n9 4\n7 99999999999\n");
    forget();
    EXPECT_NO_THROW(require_newest_time_line("7", 1));
    EXPECT_THROW(require_newest_time_line("9", 3), StoreAway);
}

TEST_F(TimeLines, AFileThatIsNoneIsToldAndDoesNotMatter) {
    std::filesystem::create_directory(file);
    testing::internal::CaptureStderr();
    forget();
    require_newest_time_line("7", 2);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("cannot be kept"));
    EXPECT_THROW(require_newest_time_line("7", 1), StoreAway);
}

TEST_F(TimeLines, AreBoundedInNumber) {
    for (int system = 0; system < 100; ++system)
        require_newest_time_line(std::to_string(system), 2);
    EXPECT_EQ(std::ranges::count(text(), '\n'), 64);
}

TEST_F(TimeLines, AFormerPrimaryThatComesBackTakesNothing) {
    Server primary;
    Server standby(Server::StandbyOf{primary});
    const std::string conninfo =
        "host=" + primary.directory().string() + "," + standby.directory().string() + " dbname=postgres user=tester";
    bool is_new = false;
    open_postgres_store(conninfo, is_new);
    primary.kill_all();
    standby.promote();
    open_postgres_store(conninfo, is_new);
    standby.stop();
    primary.start();
    forget();
    std::string words;
    try {
        // Another string, so that nobody remembers an attempt with it.
        open_postgres_store(conninfo + " connect_timeout=9", is_new);
    } catch (const StoreAway &error) {
        words = error.what();
    }
    EXPECT_EQ(words, "the server is a former primary: it is on time line 1, and 2 has been seen");
}

// Nobody has ended it, and connections to it stand.
TEST_F(TimeLines, AFormerPrimaryIsLeftAsSoonAsAnotherConnectionHasSeenItsSuccessor) {
    Server primary;
    Server standby(Server::StandbyOf{primary});
    bool is_new = false;
    const auto former = open_postgres_store(primary.conninfo(), is_new);
    const auto ask = [&] { former->count(RGY_DB_REGIONS); };
    const auto change = [&] { former->set_setting("any", "value"); };
    standby.promote();
    EXPECT_NO_THROW(ask());
    const auto successor = open_postgres_store(standby.conninfo(), is_new);
    for (const std::function<void()> &use : {std::function<void()>(ask), std::function<void()>(change)})
        try {
            use();
            ADD_FAILURE();
        } catch (const StoreAway &error) {
            EXPECT_STREQ(error.what(), "the server is a former primary: it is on time line 1, and 2 has been seen");
        }
    EXPECT_NO_THROW(successor->set_setting("any", "other"));
}

// What is under way there is not continued over another connection, which would know nothing of it.
TEST_F(TimeLines, ATransactionOnAFormerPrimaryIsNotContinuedElsewhere) {
    Server primary;
    Server standby(Server::StandbyOf{primary});
    bool is_new = false;
    const auto former = open_postgres_store(primary.conninfo(), is_new);
    former->set_setting("before", "1");
    standby.promote();
    former->at_one_moment([&] {
        open_postgres_store(standby.conninfo(), is_new)->set_setting("before", "2");
        EXPECT_EQ(former->setting("before"), "1");
    });
    EXPECT_THROW(former->setting("before"), StoreAway);
}
