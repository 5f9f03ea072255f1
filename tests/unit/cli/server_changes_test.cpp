// What has changed between two looks at the servers of a host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cli/server.h>

using namespace velia::cli;
using testing::IsEmpty;

namespace {

Cells server(int prog, const char *state, int pid) {
    return {prog, 1, "udp", "127.0.0.1:4000", state, pid, "uuid", "/path"};
}

using Told = std::vector<std::pair<std::string, Cells>>;

Told told(const Servers &before, const Servers &now) {
    Told result;
    for (const auto &[what, cells] : changes_of(before, now))
        result.emplace_back(what, cells);
    return result;
}

} // namespace

TEST(ServerChanges, AreNoneWhereNothingHappened) {
    const Servers servers = {server(1, "idle", 10), server(2, "busy", 11)};
    EXPECT_THAT(told(servers, servers), IsEmpty());
    EXPECT_THAT(told({}, {}), IsEmpty());
}

TEST(ServerChanges, OrderIsNone) {
    EXPECT_THAT(told({server(1, "idle", 10), server(2, "idle", 11)}, {server(2, "idle", 11), server(1, "idle", 10)}),
                IsEmpty());
}

TEST(ServerChanges, AnotherStateIsAChangeOfTheSameServer) {
    EXPECT_EQ(told({server(1, "idle", 10)}, {server(1, "busy", 10)}), (Told{{"changed", server(1, "busy", 10)}}));
}

TEST(ServerChanges, AnotherProcessIsAnotherServerAndTheEndIsToldFirst) {
    EXPECT_EQ(told({server(1, "idle", 10)}, {server(1, "idle", 12)}),
              (Told{{"ended", server(1, "idle", 10)}, {"started", server(1, "idle", 12)}}));
}

TEST(ServerChanges, AllColumnsHaveACell) {
    EXPECT_EQ(server(1, "idle", 1).size(), server_output.columns.size());
    EXPECT_STREQ(server_output.columns[4].name, "state");
}
