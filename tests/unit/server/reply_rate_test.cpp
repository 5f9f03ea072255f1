// What goes to one network over UDP that has asked for little.
#include <server/rpc/reply_rate.h>

#include <arpa/inet.h>

#include <gtest/gtest.h>

using namespace velia::server;

namespace {

constexpr size_t request_bytes = 60;
constexpr size_t large_bytes = 8000;
constexpr size_t in_a_share = REPLY_RATE_SHARE_BYTES / large_bytes;

ks_sockaddr_storage_t at(const char *text) {
    ks_sockaddr_storage_t address = {};
    if (inet_pton(AF_INET, text, &address.ipv4.sin_addr) == 1) {
        address.ipv4.sin_family = AF_INET;
    } else {
        address.ipv6.sin6_family = AF_INET6;
        inet_pton(AF_INET6, text, &address.ipv6.sin6_addr);
    }
    return address;
}

class Rate : public testing::Test {
protected:
    bool permits(const char *peer, size_t reply_bytes = large_bytes) {
        return rate.permits(at(peer), request_bytes, reply_bytes, now_ms);
    }
    size_t sent_to(const char *peer) {
        size_t count = 0;
        while (permits(peer))
            ++count;
        return count;
    }

    ReplyRate rate;
    int64_t now_ms = 1'000'000;
};

} // namespace

TEST_F(Rate, OfANetworkIsItsShareAndThenWhatItGrowsBy) {
    EXPECT_EQ(sent_to("10.1.2.3"), in_a_share);
    EXPECT_FALSE(permits("10.1.2.200")) << "of the same network";
    now_ms += 2 * large_bytes / REPLY_RATE_BYTES_PER_MS;
    EXPECT_EQ(sent_to("10.1.2.200"), 2u);
    now_ms += int64_t{3600} * 1000;
    EXPECT_EQ(sent_to("10.1.2.3"), in_a_share) << "a share does not grow beyond itself";
}

TEST_F(Rate, LeavesTheSharesOfOtherNetworks) {
    sent_to("10.1.2.3");
    EXPECT_TRUE(permits("10.1.3.3"));
    sent_to("2001:db8:0:1100::1");
    EXPECT_FALSE(permits("2001:db8:0:11ff::9"));
    EXPECT_TRUE(permits("2001:db8:0:1200::1"));
    EXPECT_FALSE(permits("::ffff:10.1.2.9")) << "the same in its wrapping";
}

TEST_F(Rate, IsNoneOfRepliesThatAreSmallForTheirRequest) {
    sent_to("10.1.2.3");
    EXPECT_TRUE(permits("10.1.2.3", REPLY_RATE_FACTOR * request_bytes));
    EXPECT_FALSE(permits("10.1.2.3", REPLY_RATE_FACTOR * request_bytes + large_bytes));
}

TEST_F(Rate, RemembersTheNetworksThatAskedLastAndNoMore) {
    sent_to("10.1.2.3");
    const auto visit = [&](int count) {
        for (int i = 0; i < count; ++i) {
            const std::string peer = "11." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".1";
            permits(peer.c_str());
        }
    };
    visit(REPLY_RATE_NETWORKS_MAX - 1);
    EXPECT_FALSE(permits("10.1.2.3"));
    permits("12.1.2.3");
    EXPECT_FALSE(permits("10.1.2.3")) << "it has asked since, as the one that is forgotten has not";
    visit(REPLY_RATE_NETWORKS_MAX);
    EXPECT_TRUE(permits("10.1.2.3")) << "forgotten, since so many others have asked";
}
