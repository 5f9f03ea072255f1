// How much goes over UDP to one network that has asked for little: the sender of a datagram may be made up, and what
// answers it then falls upon somebody else. As servers of names limit their responses, a reply much larger than its
// request takes from its network's share, which fills up again with time. What the share does not hold is not sent; who
// really asked asks again, or over TCP.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>

#include <server/config/access.h>

namespace velia::server {

enum {
    REPLY_RATE_FACTOR = 3,               // replies up to so many times their request always go
    REPLY_RATE_NETWORKS_MAX = 4096,      // that are remembered; of others nothing has been sent lately
    REPLY_RATE_SHARE_BYTES = 256 * 1024, // of a network that has not asked for long
    REPLY_RATE_BYTES_PER_MS = 64,        // by which a share grows
    REPLY_RATE_BITS_IPV4 = 24,           // of an address that make its network
    REPLY_RATE_BITS_IPV6 = 56,
};

// Of an address the bits that make its network, the others zero.
AddressBytes network_of(const ks_sockaddr_storage_t &address, uint32_t bits_ipv4, uint32_t bits_ipv6);

class ReplyRate {
public:
    // Whether the reply may go now; if so, it has taken its share.
    bool permits(const ks_sockaddr_storage_t &peer, size_t request_bytes, size_t reply_bytes, int64_t now_ms);

private:
    struct Share {
        AddressBytes network;
        int64_t left_bytes;
        int64_t since_ms;
    };
    using Shares = std::list<Share>; // of those asked for last in front

    Share &share_of(const AddressBytes &network, int64_t now_ms);

    Shares shares_;
    std::map<AddressBytes, Shares::iterator> by_network_;
};

} // namespace velia::server
