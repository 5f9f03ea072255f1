#include <server/rpc/reply_rate.h>

#include <algorithm>

#include <common/require.h>

namespace velia::server {

namespace {

constexpr uint32_t bits_of_byte = 8;
constexpr uint32_t bits_of_wrapping = 96;

bool is_ipv4(const ks_sockaddr_storage_t &address) {
    return address.base.sa_family == AF_INET ||
           (address.base.sa_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&address.ipv6.sin6_addr));
}

} // namespace

AddressBytes network_of(const ks_sockaddr_storage_t &address, uint32_t bits_ipv4, uint32_t bits_ipv6) {
    AddressBytes network = address_bytes(address);
    const uint32_t bits = is_ipv4(address) ? bits_of_wrapping + bits_ipv4 : bits_ipv6;
    require(bits % bits_of_byte == 0);
    std::fill(network.begin() + bits / bits_of_byte, network.end(), uint8_t{0});
    return network;
}

ReplyRate::Share &ReplyRate::share_of(const AddressBytes &network, int64_t now_ms) {
    const auto known = by_network_.find(network);
    if (known != by_network_.end()) {
        shares_.splice(shares_.begin(), shares_, known->second);
        return shares_.front();
    }
    if (shares_.size() == REPLY_RATE_NETWORKS_MAX) {
        by_network_.erase(shares_.back().network);
        shares_.pop_back();
    }
    shares_.push_front({network, REPLY_RATE_SHARE_BYTES, now_ms});
    by_network_[network] = shares_.begin();
    return shares_.front();
}

bool ReplyRate::permits(const ks_sockaddr_storage_t &peer, size_t request_bytes, size_t reply_bytes, int64_t now_ms) {
    if (reply_bytes <= request_bytes * REPLY_RATE_FACTOR)
        return true;
    Share &share = share_of(network_of(peer, REPLY_RATE_BITS_IPV4, REPLY_RATE_BITS_IPV6), now_ms);
    const int64_t grown = share.left_bytes + (now_ms - share.since_ms) * REPLY_RATE_BYTES_PER_MS;
    share.left_bytes = std::min<int64_t>(grown, REPLY_RATE_SHARE_BYTES);
    share.since_ms = now_ms;
    if (share.left_bytes < static_cast<int64_t>(reply_bytes))
        return false;
    share.left_bytes -= static_cast<int64_t>(reply_bytes);
    return true;
}

} // namespace velia::server
