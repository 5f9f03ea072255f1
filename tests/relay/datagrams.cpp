#include <tests/relay/datagrams.h>

#include <algorithm>

#include <poll.h>
#include <unistd.h>

namespace velia::relay {

namespace {

constexpr size_t datagram_bytes_max = 65536;
constexpr size_t clients_max = 256;

// One that waits for its successor and gets none comes behind the request that a client sends again.
constexpr std::chrono::milliseconds held_max{300};

} // namespace

DatagramRelay::Client::Client(const Address &its_address, int its_fd, uint64_t seed, uint64_t number)
    : address(its_address), fd(its_fd), requests(Dice(seed, number, Direction::request), Direction::request),
      replies(Dice(seed, number, Direction::reply), Direction::reply) {}

DatagramRelay::Client::~Client() {
    close(fd);
}

DatagramRelay::DatagramRelay(Loop &loop, const Address &listen, const Address &server, const Harms &harms,
                             uint64_t seed, Tally &tally)
    : loop_(loop), server_(server), harms_(harms), seed_(seed), tally_(tally), fd_(bind_socket(listen, SOCK_DGRAM)) {
    loop_.watch(fd_, POLLIN, [this](short) { take_requests(); });
}

DatagramRelay::~DatagramRelay() {
    for (const auto &[key, client] : clients_)
        loop_.forget(client->fd);
    loop_.forget(fd_);
    close(fd_);
}

void DatagramRelay::take_requests() {
    std::string bytes(datagram_bytes_max, '\0');
    Address from;
    const ssize_t count = recvfrom(fd_, bytes.data(), bytes.size(), 0, from.base(), &from.length);
    if (count < 0)
        return;
    bytes.resize(static_cast<size_t>(count));
    const auto client = client_at(from);
    client->last_used = ++uses_;
    pass(client, client->requests, std::move(bytes));
}

// The server's refusal is an error here, and nothing to the client: to it, its datagram is lost.
void DatagramRelay::take_replies(const Owner &client) {
    std::string bytes(datagram_bytes_max, '\0');
    const ssize_t count = recv(client->fd, bytes.data(), bytes.size(), 0);
    if (count < 0)
        return;
    bytes.resize(static_cast<size_t>(count));
    pass(client, client->replies, std::move(bytes));
}

DatagramRelay::Owner DatagramRelay::client_at(const Address &address) {
    const auto known = clients_.find(address.key());
    if (known != clients_.end())
        return known->second;
    if (clients_.size() == clients_max)
        forget_one_idle();
    auto client = std::make_shared<Client>(address, connect_socket(server_, SOCK_DGRAM), seed_, clients_seen_++);
    clients_[address.key()] = client;
    loop_.watch(client->fd, POLLIN, [this, client](short) { take_replies(client); });
    return client;
}

void DatagramRelay::forget_one_idle() {
    const auto idle = std::min_element(clients_.begin(), clients_.end(), [](const auto &one, const auto &other) {
        return one.second->last_used < other.second->last_used;
    });
    loop_.forget(idle->second->fd);
    clients_.erase(idle);
}

void DatagramRelay::pass(const Owner &client, Way &way, std::string bytes) {
    const Fate fate = way.dice.next(harms_);
    tally_.count(Event::message);
    if (fate.is_dropped)
        return tally_.count(Event::dropped);
    if (fate.is_corrupted && spoil(bytes, 0, way.direction, fate))
        tally_.count(Event::corrupted);
    if (fate.delay_ms > 0)
        tally_.count(Event::delayed);
    if (fate.is_doubled) {
        tally_.count(Event::doubled);
        send_at(client, way, bytes, fate.delay_ms + fate.copy_delay_ms);
    }
    if (fate.is_reordered)
        hold(client, way, std::move(bytes));
    else
        send_at(client, way, std::move(bytes), fate.delay_ms);
}

void DatagramRelay::send_at(const Owner &client, Way &way, std::string bytes, unsigned delay_ms) {
    if (delay_ms == 0)
        return send_now(*client, way, bytes);
    loop_.at(Clock::now() + std::chrono::milliseconds(delay_ms),
             [this, client, &way, bytes = std::move(bytes)] { send_now(*client, way, bytes); });
}

void DatagramRelay::send_now(Client &client, Way &way, const std::string &bytes) {
    const bool is_request = way.direction == Direction::request;
    const auto *receiver = is_request ? nullptr : client.address.base();
    const auto send_one = [&](const std::string &message) {
        sendto(is_request ? client.fd : fd_, message.data(), message.size(), 0, receiver,
               is_request ? 0 : client.address.length);
    };
    send_one(bytes);
    for (const auto &held : way.held)
        send_one(held);
    way.held.clear();
}

void DatagramRelay::hold(const Owner &client, Way &way, std::string bytes) {
    tally_.count(Event::reordered);
    way.held.push_back(std::move(bytes));
    loop_.at(Clock::now() + held_max, [this, client, &way] {
        if (way.held.empty())
            return;
        const std::string oldest = std::move(way.held.front());
        way.held.pop_front();
        send_now(*client, way, oldest);
    });
}

} // namespace velia::relay
