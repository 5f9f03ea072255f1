// When a request goes out again, seen by a peer that says nothing, or nothing any more.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <support/ks.h>

#include "../rpc_server.h"

namespace {

using std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

struct Sending {
    double at_s; // since the first
    std::string bytes;
};

// Takes datagrams until none has come for two seconds; the first ones are answered.
class Peer {
public:
    explicit Peer(int answers) : answers_left_(answers) {
        sysutl_sockaddr_any_init(AF_INET, &address_);
        auto *ipv4 = reinterpret_cast<sockaddr_in *>(&address_);
        ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof *ipv4;
        EXPECT_EQ(bind(socket_, &address_.base, length), 0);
        EXPECT_EQ(getsockname(socket_, &address_.base, &length), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~Peer() { close(socket_); }

    const sockaddr *address() const { return &address_.base; }

    // Of the request that was not answered.
    std::vector<Sending> sendings() {
        thread_.join();
        return sendings_;
    }

private:
    void serve() {
        pollfd readable = {socket_, POLLIN, 0};
        while (poll(&readable, 1, 2000) > 0) {
            char bytes[1000];
            ks_sockaddr_storage_t from;
            socklen_t length = sizeof from;
            const ssize_t size = recvfrom(socket_, bytes, sizeof bytes, 0, &from.base, &length);
            if (size <= 0)
                continue;
            if (answers_left_-- > 0)
                answer(bytes, from, length);
            else
                note({bytes, static_cast<size_t>(size)});
        }
    }
    void answer(const char *call, const ks_sockaddr_storage_t &to, socklen_t length) const {
        uint32_t reply[7] = {0, htonl(REPLY), 0, 0, 0, 0, htonl(4711)};
        memcpy(reply, call, sizeof *reply);
        sendto(socket_, reply, sizeof reply, 0, &to.base, length);
    }
    void note(const std::string &bytes) {
        const auto now = steady_clock::now();
        if (sendings_.empty())
            first_ = now;
        sendings_.push_back({Seconds(now - first_).count(), bytes});
    }

    int socket_ = socket(AF_INET, SOCK_DGRAM, 0);
    ks_sockaddr_storage_t address_ = {};
    int answers_left_;
    steady_clock::time_point first_;
    std::vector<Sending> sendings_;
    std::thread thread_;
};

std::vector<Sending> sendings_of_a_lost_call(Peer &peer, int answered_before, timeval time_out) {
    int socket_fd = -1;
    CLIENT *client = ks_clntudp_create_sockaddr(peer.address(), 390600, 1, 3, 0, &socket_fd);
    uint32_t reply = 0;
    for (int i = 0; i < answered_before; ++i)
        EXPECT_EQ(call_echo(client, 1, &reply), RPC_SUCCESS);
    EXPECT_EQ(call_echo(client, 1, &reply, time_out), RPC_TIMEDOUT);
    clnt_destroy(client);
    close(socket_fd);
    return peer.sendings();
}

// Never earlier, never more often; later and less often if the machine is busy.
void expect_not_before(const std::vector<Sending> &sendings, const std::vector<double> &instants_s) {
    ASSERT_GE(sendings.size(), 2u);
    ASSERT_LE(sendings.size(), instants_s.size());
    for (size_t i = 0; i < sendings.size(); ++i) {
        EXPECT_GE(sendings[i].at_s, instants_s[i] - 0.02) << i;
        EXPECT_EQ(sendings[i].bytes, sendings[0].bytes) << "the same datagram, number and all";
    }
}

} // namespace

TEST(LostRequest, GoesOutAgainEachSecondToAPeerThatNeverAnswered) {
    Peer peer(0);
    expect_not_before(sendings_of_a_lost_call(peer, 0, {2, 500'000}), {0, 1, 2});
}

TEST(LostRequest, GoesOutAgainSoonerToAPeerThatAnswersFastAndThenTwiceAsLateEachTime) {
    Peer peer(3);
    expect_not_before(sendings_of_a_lost_call(peer, 3, {2, 0}), {0, 0.2, 0.6, 1.4});
}

TEST(LostRequest, IsRepeatedByWhatAnotherClientOfTheProcessHasMeasured) {
    Peer peer(3);
    int socket_fd = -1;
    CLIENT *other = ks_clntudp_create_sockaddr(peer.address(), 390600, 1, 3, 0, &socket_fd);
    uint32_t reply = 0;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(call_echo(other, 1, &reply), RPC_SUCCESS);
    clnt_destroy(other);
    close(socket_fd);
    expect_not_before(sendings_of_a_lost_call(peer, 0, {1, 0}), {0, 0.2, 0.6});
}
