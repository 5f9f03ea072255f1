// Attempts at connections to a host that takes them and says nothing.
#include <gtest/gtest.h>

#include <list>
#include <poll.h>
#include <string>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>
#include <server/registry/postgres_attempt.h>
#include <server/registry/store.h>

using namespace velia::server;

namespace {

constexpr int attempts_max = 16;

class SilentHost {
public:
    SilentHost() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto *generic = reinterpret_cast<sockaddr *>(&address);
        EXPECT_EQ(bind(fd_.get(), generic, length), 0);
        EXPECT_EQ(listen(fd_.get(), 2 * attempts_max), 0);
        EXPECT_EQ(getsockname(fd_.get(), generic, &length), 0);
        port_ = ntohs(address.sin_port);
    }
    std::string conninfo() const {
        return "host=127.0.0.1 port=" + std::to_string(port_) + " dbname=any user=any sslmode=disable";
    }
    void go_away() { fd_.reset(); }

private:
    UniqueFd fd_;
    int port_ = 0;
};

// Longer than any attempt lasts.
bool come_to_their_end() {
    for (const int64_t until_ms = monotonic_ms() + 60'000; monotonic_ms() < until_ms; poll(nullptr, 0, 10))
        if (!PostgresAttempt::are_under_way())
            return true;
    return false;
}

} // namespace

TEST(PostgresAttempts, AreBoundedInNumberAndCountedToTheirEnd) {
    ASSERT_TRUE(come_to_their_end()) << "of other tests";
    for (int round = 0; round < 2; ++round) {
        SilentHost host;
        {
            std::list<PostgresAttempt> attempts;
            for (int i = 0; i < attempts_max; ++i)
                ASSERT_NO_THROW(attempts.emplace_back(host.conninfo())) << i;
            EXPECT_THROW(PostgresAttempt(host.conninfo()), StoreAway);
            EXPECT_THROW(PostgresAttempt(host.conninfo()), StoreAway) << "one that was refused is not counted";
        }
        EXPECT_TRUE(PostgresAttempt::are_under_way()) << "nobody waits for them, and they go on";
        host.go_away();
        EXPECT_TRUE(come_to_their_end());
    }
}
