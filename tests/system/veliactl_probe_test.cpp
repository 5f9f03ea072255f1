// Probing hosts: a preloaded library leads the well-known port to one of the test's.
#include <tests/system/support/veliactl.h>

#include <chrono>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace velia::system_test;
using testing::HasSubstr;

namespace {

struct VeliactlProbe : VeliactlTest {
    Words environment() const {
        return {std::string("LD_PRELOAD=") + PROBED_PORT_PRELOAD, "PROBED_PORT=" + std::to_string(site.port()),
                "ASAN_OPTIONS=verify_asan_link_order=0"};
    }
    Objects probe(Words hosts, int status) const {
        hosts.insert(hosts.begin(), "probe");
        return objects(hosts, status, environment());
    }
};

// A listener whose queue is full, so that the system lets further connections wait.
class Silent {
public:
    Silent(const char *host, uint16_t port) : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_port = htons(port);
        inet_pton(AF_INET, host, &address_.sin_addr);
        EXPECT_EQ(bind(listener_, generic(), sizeof address_), 0);
        EXPECT_EQ(listen(listener_, 0), 0);
        for (int i = 0; i < 4; ++i)
            waiting_.push_back(connect_without_waiting());
    }
    ~Silent() {
        for (const int fd : waiting_)
            close(fd);
        close(listener_);
    }
    Silent(const Silent &) = delete;
    Silent &operator=(const Silent &) = delete;

private:
    const sockaddr *generic() const { return reinterpret_cast<const sockaddr *>(&address_); }
    int connect_without_waiting() const {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_TRUE(connect(fd, generic(), sizeof address_) == 0 || errno == EINPROGRESS);
        return fd;
    }

    sockaddr_in address_ = {};
    int listener_;
    std::vector<int> waiting_;
};

} // namespace

TEST_F(VeliactlProbe, TellsWhichHostsAreUpInTheirOrder) {
    serve("", {"--listen", "127.0.0.1"});
    const auto found = probe({"beta", "alpha", "127.0.0.1"}, UNREACHABLE);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0]["host"], "beta");
    EXPECT_EQ(found[0]["state"], "down");
    EXPECT_EQ(found[0]["address"], "127.0.0.2");
    EXPECT_EQ(found[1]["host"], "alpha");
    EXPECT_EQ(found[1]["state"], "up");
    EXPECT_EQ(found[1]["address"], "127.0.0.1");
    EXPECT_GT(found[1]["time_ms"].number(), 0.0);
    EXPECT_EQ(found[2]["state"], "up");
}

TEST_F(VeliactlProbe, OfHostsThatAreAllUpIsDone) {
    serve("", {"--listen", "127.0.0.1"});
    EXPECT_EQ(probe({"alpha"}, DONE)[0]["state"], "up");
}

TEST_F(VeliactlProbe, FindsAHostUpByAnyOfItsAddresses) {
    site.write("config/hosts.conf", "alpha 127.0.0.1\nmany 127.0.0.3 127.0.0.4 127.0.0.1\n");
    serve("", {"--listen", "127.0.0.1"});
    const auto found = probe({"many"}, DONE);
    EXPECT_EQ(found[0]["state"], "up");
    EXPECT_EQ(found[0]["address"], "127.0.0.1");
}

TEST_F(VeliactlProbe, OfAnUnknownNameIsUnknownAndTold) {
    const auto outcome = veliactl({"probe", "nobody.invalid", "--output", "json"}, environment());
    EXPECT_EQ(outcome.status, UNREACHABLE);
    EXPECT_THAT(outcome.errors, HasSubstr("nobody.invalid"));
    EXPECT_EQ(objects_of(outcome.output)[0],
              Json::parse(R"({"host": "nobody.invalid", "state": "unknown", "time_ms": null, "address": null})"));
}

TEST_F(VeliactlProbe, OfSilentHostsCostsTheTimeOfOne) {
    constexpr int host_count = 12;
    constexpr double silence_ms = 900;
    const Silent silent("127.0.0.9", site.port());
    const Words hosts(host_count, "127.0.0.9");
    const auto start = std::chrono::steady_clock::now();
    const auto found = probe(hosts, UNREACHABLE);
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(found.size(), hosts.size());
    for (const auto &host : found) {
        EXPECT_EQ(host["state"], "down");
        EXPECT_GE(host["time_ms"].number(), silence_ms);
    }
    EXPECT_LT(elapsed.count(), host_count * silence_ms / 2) << "one after the other takes twice that";
}

TEST_F(VeliactlProbe, FewDescriptorsMakeItSlowerAndNotWrong) {
    serve("", {"--listen", "127.0.0.1"});
    const Silent silent("127.0.0.9", site.port());
    Words words = {"/bin/sh", "-c", R"(ulimit -n 40 && exec "$@")", "sh", "/usr/bin/env"};
    const Words variables = environment();
    words.insert(words.end(), variables.begin(), variables.end());
    words.insert(words.end(), {VELIACTL, "probe", "--output", "json"});
    words.insert(words.end(), 30, "127.0.0.9");
    words.insert(words.end(), 30, "alpha");
    const auto outcome = run_apart(site, words);
    EXPECT_EQ(outcome.status, UNREACHABLE);
    EXPECT_EQ(outcome.errors, "");
    const auto found = objects_of(outcome.output);
    ASSERT_EQ(found.size(), 60u);
    for (const auto &host : found)
        EXPECT_EQ(host["state"], host["host"] == "alpha" ? "up" : "down");
}

TEST_F(VeliactlProbe, HelpTellsOfThePort) {
    EXPECT_THAT(veliactl({"probe", "--help"}).output, HasSubstr("TCP connection on port 371"));
    EXPECT_EQ(veliactl({"probe"}).status, WRONG_USE);
}
