// How long commands wait: for a broker that says nothing, for a name that nobody resolves, until an interrupt.
#include <tests/system/support/veliactl.h>

#include <chrono>
#include <csignal>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace velia::system_test;
using std::chrono::steady_clock;

namespace {

// Has the port of a site's brokers for itself, takes what comes and says nothing.
class SilentBroker {
public:
    explicit SilentBroker(const Site &site) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        address.sin_port = htons(site.port());
        for (const int fd : {datagrams_, connections_})
            EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(connections_, 16), 0);
    }
    ~SilentBroker() {
        close(datagrams_);
        close(connections_);
    }
    SilentBroker(const SilentBroker &) = delete;
    SilentBroker &operator=(const SilentBroker &) = delete;

    // Whether somebody has asked since the last look.
    bool was_asked() const {
        char bytes[1];
        const bool by_datagram = recv(datagrams_, bytes, sizeof bytes, MSG_DONTWAIT) >= 0;
        const int connection = accept4(connections_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (connection < 0)
            return by_datagram;
        // Open until the end, so that the client waits.
        kept_.push_back(connection);
        return true;
    }
    void forget() const {
        while (was_asked())
            ;
    }

private:
    int datagrams_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int connections_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    mutable std::vector<int> kept_;
};

// Every command that asks a broker.
const std::vector<Words> asking = {
    {"contact", "alpha"},
    {"contact", "alpha", "--transport", "tcp"},
    {"server", "find", "alpha", "--prog", "390600"},
    {"server", "connect", "alpha", "--prog", "390600"},
    {"server", "list", "alpha"},
    {"server", "list", "alpha", "--watch"},
    {"registry", "find", "vault_tag", "--string", "tag=/v"},
    {"registry", "list", "vault_tag"},
    {"registry", "add", "vault_tag", "tag=/v", "title=a", "hostname=h"},
    {"registry", "remove", "vault_tag", "--string", "tag=/v"},
    {"registry", "backup", "beta"},
    {"registry", "stats", "vault_tag", "--string", "tag=/v"},
    {"view", "add", "0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f", "--hostname", "h", "--path", "/p"},
    {"view", "list"},
    {"vault", "list"},
    {"host", "info", "beta"},
    {"host", "tz", "beta"},
    {"clients", "list", "alpha"},
    {"clients", "lookup", "alpha", "beta"},
};

class VeliactlWaits : public VeliactlTest {
protected:
    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
    }
};

double seconds_since(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

} // namespace

// The library's own time-out is 25 seconds, and many a command makes several calls.
TEST_F(VeliactlWaits, EndWithTheTimeOutInEveryCommand) {
    const SilentBroker broker(site);
    constexpr double time_out_s = 0.3;
    double longest_over_s = 0;
    for (const Words &command : asking) {
        Words words = command;
        words.insert(words.end(), {"--timeout", "0.3"});
        const auto start = steady_clock::now();
        const auto outcome = veliactl(words);
        const double elapsed_s = seconds_since(start);
        longest_over_s = std::max(longest_over_s, elapsed_s - time_out_s);
        EXPECT_THAT(outcome.status, testing::AnyOf(UNREACHABLE, FAILED)) << testing::PrintToString(words);
        EXPECT_LT(elapsed_s, 10) << testing::PrintToString(words) << outcome.errors;
        EXPECT_TRUE(broker.was_asked()) << testing::PrintToString(words) << outcome.errors;
        broker.forget();
    }
    RecordProperty("longest_over_s", std::to_string(longest_over_s));
}

TEST_F(VeliactlWaits, EndWithAnInterruptInEveryCommand) {
    const SilentBroker broker(site);
    double longest_s = 0;
    for (const Words &command : asking) {
        Words words = command;
        words.insert(words.begin(), VELIACTL);
        Child::Options options;
        options.output_file = site.path("out");
        options.error_file = site.path("err");
        Child child(words, options);
        ASSERT_TRUE(eventually([&] { return broker.was_asked(); })) << testing::PrintToString(words);
        const auto start = steady_clock::now();
        child.signal(SIGINT);
        EXPECT_EQ(child.wait(), INTERRUPTED) << testing::PrintToString(words) << site.read("err");
        longest_s = std::max(longest_s, seconds_since(start));
        broker.forget();
    }
    RecordProperty("longest_s", std::to_string(longest_s));
}

TEST_F(VeliactlWaits, LeaveAnIgnoredInterruptIgnored) {
    const SilentBroker broker(site);
    Child::Options options;
    options.output_file = site.path("out");
    options.error_file = site.path("err");
    Child child({"/bin/sh", "-c", "trap '' INT; exec " VELIACTL " contact alpha --timeout 0.5"}, options);
    ASSERT_TRUE(eventually([&] { return broker.was_asked(); }));
    child.signal(SIGINT);
    EXPECT_EQ(child.wait(), UNREACHABLE) << site.read("err");
}
