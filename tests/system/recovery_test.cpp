// Clients and servers through the end of a daemon and its return.
#include <gtest/gtest.h>

#include <csignal>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>

using namespace velia::system_test;

namespace {

constexpr uint32_t program = 390600;

size_t lines_with(const std::string &text, const std::string &word) {
    size_t count = 0;
    for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++count;
    return count;
}

} // namespace

TEST(Recovery, ClientThatCallsOnAndOnRecoversWhenTheDaemonIsBack) {
    Site site;
    site.configure(sample_line(program, "shared", "-"));
    auto daemon = std::make_unique<Daemon>(site);
    ASSERT_TRUE(daemon->is_ready());
    Child::Options options;
    options.output_file = site.path("client.out");
    Child client({SYSTEM_CLIENT, "loop", "alpha", std::to_string(program), "60"}, options);
    const auto good = [&] { return lines_with(site.read("client.out"), "good "); };
    ASSERT_TRUE(eventually([&] { return good() >= 5; })) << site.read("client.out");
    for (int round = 0; round < 2; ++round) {
        daemon->signal(SIGKILL);
        daemon->wait();
        const auto bad = lines_with(site.read("client.out"), "bad\n");
        ASSERT_TRUE(eventually([&] { return lines_with(site.read("client.out"), "bad\n") > bad; }, 40));
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
        const auto before = good();
        EXPECT_TRUE(eventually([&] { return good() >= before + 5; }, 40)) << site.read("client.out");
    }
}

TEST(Recovery, HandleOfTheDaemonBeforeStillWorks) {
    Site site;
    site.configure(sample_line(program, "shared", "-"));
    auto daemon = std::make_unique<Daemon>(site);
    {
        Handle handle("alpha", RVZD_PROTOCOL_TCP);
        ASSERT_EQ(find(handle, program).status, TBS_ST_OK);
    }
    daemon->signal(SIGKILL);
    daemon->wait();
    daemon = std::make_unique<Daemon>(site);
    ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    // Within four seconds the cached connection is not asked whether it still stands; then one retry finds that out.
    EXPECT_TRUE(eventually([&] {
        Handle handle("alpha", RVZD_PROTOCOL_TCP);
        return handle.status() == TBS_ST_OK && find(handle, program).status == TBS_ST_OK;
    }));
}
