// What waits, from many senders: taken in turn, first from the hosts and among a host's from its channels, so that who
// has much waiting waits for itself. Each has a share of the room; one whose share is full is told so.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>

namespace velia::server {

// Whose something is. A channel is one of the host's sockets, as far as they are told apart.
struct Sender {
    using Host = std::array<uint64_t, 2>;
    Host host = {};
    uint64_t channel = 0;

    auto operator<=>(const Sender &) const = default;
};

struct Shares {
    size_t of_channel;
    size_t of_host;
    size_t of_all;
};

template <class Item>
class FairQueue {
public:
    explicit FairQueue(const Shares &shares) : shares_(shares) {}

    // False: the room, or the sender's share of it, is full.
    bool push(const Sender &sender, Item item) {
        if (!has_room(sender))
            return false;
        Waiting &waiting = hosts_[sender.host];
        try {
            waiting.channels[sender.channel].push_back(std::move(item));
        } catch (...) {
            drop_empty(sender);
            throw;
        }
        ++waiting.count;
        ++count_;
        return true;
    }

    std::optional<Item> pop() {
        if (count_ == 0)
            return std::nullopt;
        const auto host = after(hosts_, last_host_);
        Waiting &waiting = host->second;
        const auto channel = after(waiting.channels, waiting.last_channel);
        std::optional<Item> item(std::move(channel->second.front()));
        last_host_ = host->first;
        waiting.last_channel = channel->first;
        channel->second.pop_front();
        if (channel->second.empty())
            waiting.channels.erase(channel);
        if (--waiting.count == 0)
            hosts_.erase(host);
        --count_;
        return item;
    }

    size_t size() const { return count_; }

private:
    struct Waiting {
        std::map<uint64_t, std::deque<Item>> channels;
        uint64_t last_channel = 0; // whose turn it was
        size_t count = 0;
    };

    // What was made for an item that there was no memory for: pop() looks at none that is empty.
    void drop_empty(const Sender &sender) {
        const auto host = hosts_.find(sender.host);
        const auto channel = host->second.channels.find(sender.channel);
        if (channel != host->second.channels.end() && channel->second.empty())
            host->second.channels.erase(channel);
        if (host->second.count == 0)
            hosts_.erase(host);
    }

    // Whose turn it is: the next one in order, and behind the last the first.
    template <class Map>
    static auto after(Map &map, const typename Map::key_type &last) {
        const auto next = map.upper_bound(last);
        return next != map.end() ? next : map.begin();
    }

    bool has_room(const Sender &sender) const {
        if (count_ >= shares_.of_all)
            return false;
        const auto host = hosts_.find(sender.host);
        if (host == hosts_.end())
            return true;
        const auto channel = host->second.channels.find(sender.channel);
        return host->second.count < shares_.of_host &&
               (channel == host->second.channels.end() || channel->second.size() < shares_.of_channel);
    }

    Shares shares_;
    std::map<Sender::Host, Waiting> hosts_;
    Sender::Host last_host_ = {};
    size_t count_ = 0;
};

} // namespace velia::server
