// What is seen of a server from outside.
#include <server/broker/activity.h>

#include <csignal>
#include <ctime>
#include <sstream>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace velia::server;

namespace {

constexpr const char *heading = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid\n";

// A socket of loopback at a port of its own.
struct Socket {
    explicit Socket(int type) : fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    ~Socket() { close(fd); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    void open() {
        socklen_t size = sizeof address;
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), size), 0);
        ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    }
    uint16_t port() const { return ntohs(address.sin_port); }
    const sockaddr *place() const { return reinterpret_cast<const sockaddr *>(&address); }

    int fd;
    sockaddr_in address = {};
};

TEST(Activity, OfATableIsInTheRowOfThePortAlone) {
    const std::string rows = std::string(heading) +
                             "   17: 0100007F:9DB3 00000000:0000 07 00000000:00000300 00:00000000 00000000  0\n"
                             "   18: 0100007F:9DB4 00000000:0000 07 00000100:00000000 00:00000000 00000000  0\n"
                             "   19: 00000000000000000000000001000000:0016 0:0 0A 00000000:00000001 00:0 0  0\n"
                             "   20: cut\n";
    const auto unread = [&](uint16_t port) {
        std::istringstream table(rows);
        return has_unread(table, port);
    };
    EXPECT_TRUE(unread(0x9db3));
    EXPECT_FALSE(unread(0x9db4)) << "what is to be sent is not unread";
    EXPECT_TRUE(unread(0x16));
    EXPECT_FALSE(unread(1));
}

TEST(Activity, OfADatagramSocketIsADatagramThatNobodyTook) {
    Socket server(SOCK_DGRAM);
    server.open();
    const std::vector<ServedPort> ports = {{RVZD_PROTOCOL_UDP, server.port()}};
    EXPECT_FALSE(has_unread(ports));
    ASSERT_EQ(sendto(server.fd, "call", 4, 0, server.place(), sizeof server.address), 4);
    EXPECT_TRUE(has_unread(ports));
    EXPECT_FALSE(has_unread({{RVZD_PROTOCOL_TCP, server.port()}}));
    char bytes[8];
    ASSERT_EQ(recv(server.fd, bytes, sizeof bytes, 0), 4);
    EXPECT_FALSE(has_unread(ports));
}

TEST(Activity, OfAListenerIsAConnectionThatNobodyTook) {
    Socket server(SOCK_STREAM);
    server.open();
    ASSERT_EQ(listen(server.fd, 4), 0);
    const std::vector<ServedPort> ports = {{RVZD_PROTOCOL_TCP, server.port()}};
    EXPECT_FALSE(has_unread(ports));
    const Socket client(SOCK_STREAM);
    ASSERT_EQ(connect(client.fd, server.place(), sizeof server.address), 0);
    EXPECT_TRUE(has_unread(ports));
    const int taken = accept(server.fd, nullptr, nullptr);
    EXPECT_FALSE(has_unread(ports));
    ASSERT_EQ(send(client.fd, "call", 4, 0), 4);
    EXPECT_TRUE(has_unread(ports)) << "taken, and not read";
    close(taken);
}

TEST(Activity, IsTheTimeThatAProcessHasHadOfTheProcessors) {
    const auto now_ms = [] { return clock() * 1000 / CLOCKS_PER_SEC; };
    const auto before_ms = now_ms();
    const int64_t known_ms = processor_ms(getpid());
    while (now_ms() < before_ms + 100) {
    }
    EXPECT_GE(processor_ms(getpid()), known_ms + 50);
    const pid_t asleep = fork();
    if (asleep == 0) {
        pause();
        _exit(0);
    }
    EXPECT_LT(processor_ms(asleep), 50);
    kill(asleep, SIGKILL);
    waitpid(asleep, nullptr, 0);
    EXPECT_EQ(processor_ms(asleep), 0);
}

} // namespace
