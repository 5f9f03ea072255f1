// What the relay does to messages is what it was asked for, and nothing else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <tuple>

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <tests/relay/relay.h>

using namespace velia::relay;
using testing::HasSubstr;

namespace {

constexpr int patience_ms = 10'000;

// A message that begins with these two words.
std::string message(uint32_t first, uint32_t second, const std::string &rest = "") {
    const uint32_t words[] = {htonl(first), htonl(second)};
    return std::string(reinterpret_cast<const char *>(words), sizeof words) + rest;
}

uint32_t word_of(const std::string &bytes, size_t index) {
    uint32_t word = 0;
    bytes.copy(reinterpret_cast<char *>(&word), sizeof word, index * sizeof word);
    return ntohl(word);
}

std::string record(const std::string &bytes) {
    const uint32_t mark = htonl(0x80000000U | static_cast<uint32_t>(bytes.size()));
    return std::string(reinterpret_cast<const char *>(&mark), sizeof mark) + bytes;
}

bool is_readable(int fd, int wait_ms = patience_ms) {
    pollfd wanted = {fd, POLLIN, 0};
    return poll(&wanted, 1, wait_ms) > 0;
}

struct Socket {
    explicit Socket(int its_fd) : fd(its_fd) {}
    ~Socket() { close(fd); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd;

    bool send(const std::string &bytes) const {
        return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // What comes next; nothing where nothing does, or the connection is broken.
    std::optional<std::string> receive(int wait_ms = patience_ms) const {
        std::string bytes(65536, '\0');
        const ssize_t count = is_readable(fd, wait_ms) ? recv(fd, bytes.data(), bytes.size(), 0) : -1;
        if (count < 0)
            return std::nullopt;
        bytes.resize(static_cast<size_t>(count));
        return bytes;
    }
    std::string receive_bytes(size_t count) const {
        std::string bytes;
        for (auto piece = receive(); piece && !piece->empty() && bytes.size() < count;
             piece = bytes.size() < count ? receive() : std::nullopt)
            bytes += *piece;
        return bytes;
    }
};

int connected(uint16_t port, int type) {
    const int fd = connect_socket(parse_address(std::to_string(port)), type);
    pollfd writable = {fd, POLLOUT, 0};
    poll(&writable, 1, patience_ms);
    return fd;
}

// A server, the relay before it, and a client of it.
struct Datagrams {
    explicit Datagrams(const Harms &harms)
        : server(bind_socket(parse_address("0"), SOCK_DGRAM)), relay(plan(harms)),
          client(connected(relay.port(), SOCK_DGRAM)) {}

    Plan plan(const Harms &harms) const {
        Plan plan;
        plan.server = bound_address(server.fd);
        plan.harms = harms;
        return plan;
    }
    // Sends a message to the server, which so learns where replies go.
    void introduce() const {
        ASSERT_TRUE(client.send(message(1, 0)));
        ASSERT_TRUE(is_readable(server.fd));
        char bytes[16];
        Address from;
        ASSERT_GT(recvfrom(server.fd, bytes, sizeof bytes, 0, from.base(), &from.length), 0);
        ASSERT_EQ(connect(server.fd, from.base(), from.length), 0);
    }

    Socket server;
    RelayThread relay;
    Socket client;
};

struct Streams {
    explicit Streams(const Harms &harms)
        : listener(bind_socket(parse_address("0"), SOCK_STREAM)), relay(plan(harms)),
          client(connected(relay.port(), SOCK_STREAM)), server(accepted()) {}

    Plan plan(const Harms &harms) const {
        Plan plan;
        plan.server = bound_address(listener.fd);
        plan.harms = harms;
        return plan;
    }
    int accepted() const { return is_readable(listener.fd) ? accept(listener.fd, nullptr, nullptr) : -1; }

    Socket listener;
    RelayThread relay;
    Socket client;
    Socket server;
};

auto as_tuple(const Fate &fate) {
    return std::tuple(fate.is_dropped, fate.is_doubled, fate.is_reordered, fate.is_corrupted, fate.is_cut,
                      fate.is_dribbled, fate.delay_ms, fate.copy_delay_ms, fate.spoiling);
}

constexpr Harms all_harms = {0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 100};

} // namespace

TEST(RelayDice, SameSeedClientAndDirectionHaveTheSameFates) {
    Dice one(7, 3, Direction::reply);
    Dice other(7, 3, Direction::reply);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(as_tuple(one.next(all_harms)), as_tuple(other.next(all_harms))) << i;
}

TEST(RelayDice, AnotherSeedClientOrDirectionHasOthers) {
    const auto first = as_tuple(Dice(7, 3, Direction::reply).next(all_harms));
    EXPECT_NE(as_tuple(Dice(8, 3, Direction::reply).next(all_harms)), first);
    EXPECT_NE(as_tuple(Dice(7, 4, Direction::reply).next(all_harms)), first);
    EXPECT_NE(as_tuple(Dice(7, 3, Direction::request).next(all_harms)), first);
}

TEST(RelayDice, AHarmFallsAsOftenAsItIsLikelyAndChangesNoOther) {
    Dice one(1, 1, Direction::request);
    Dice other(1, 1, Direction::request);
    Harms harms = {};
    harms.dropped = 0.2;
    Harms more = harms;
    more.doubled = 1;
    int dropped = 0;
    for (int i = 0; i < 10'000; ++i) {
        const bool is_dropped = one.next(harms).is_dropped;
        EXPECT_EQ(other.next(more).is_dropped, is_dropped);
        dropped += is_dropped;
    }
    EXPECT_NEAR(dropped, 2000, 200);
}

TEST(RelayOfDatagrams, PassesBothWaysWithoutHarm) {
    const Datagrams site({});
    site.introduce();
    ASSERT_TRUE(site.client.send(message(5, 0, "question")));
    EXPECT_EQ(site.server.receive(), message(5, 0, "question"));
    ASSERT_TRUE(site.server.send(message(5, 1, "answer")));
    EXPECT_EQ(site.client.receive(), message(5, 1, "answer"));
    EXPECT_EQ(site.relay.tally()[Event::message], 3u);
    EXPECT_EQ(site.relay.tally()[Event::dropped], 0u);
}

TEST(RelayOfDatagrams, DropsWhatItIsAskedTo) {
    Harms harms = {};
    harms.dropped = 0.5;
    const Datagrams site(harms);
    constexpr size_t sent = 100;
    for (size_t i = 0; i < sent; ++i)
        ASSERT_TRUE(site.client.send(message(static_cast<uint32_t>(i), 0)));
    size_t came = 0;
    const auto known = [&] { return came + site.relay.tally()[Event::dropped]; };
    for (int tries = 0; known() < sent && tries < patience_ms; ++tries)
        came += site.server.receive(1) ? 1 : 0;
    EXPECT_EQ(known(), sent);
    EXPECT_GT(came, 0u);
    EXPECT_LT(came, sent);
}

TEST(RelayOfDatagrams, DoublesWithTheSameBytes) {
    Harms harms = {};
    harms.doubled = 1;
    const Datagrams site(harms);
    ASSERT_TRUE(site.client.send(message(5, 0, "question")));
    EXPECT_EQ(site.server.receive(), message(5, 0, "question"));
    EXPECT_EQ(site.server.receive(), message(5, 0, "question"));
    EXPECT_EQ(site.relay.tally()[Event::doubled], 1u);
}

TEST(RelayOfDatagrams, ReordersAndLosesNothing) {
    Harms harms = {};
    harms.reordered = 0.3;
    const Datagrams site(harms);
    std::vector<uint32_t> numbers(50);
    for (uint32_t i = 0; i < numbers.size(); ++i)
        ASSERT_TRUE(site.client.send(message(i, 0)));
    for (auto &number : numbers) {
        const auto came = site.server.receive();
        ASSERT_TRUE(came);
        number = word_of(*came, 0);
    }
    EXPECT_FALSE(std::is_sorted(numbers.begin(), numbers.end()));
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end()), numbers.end());
}

TEST(RelayOfDatagrams, TheLastThatIsHeldBackComesByItself) {
    Harms harms = {};
    harms.reordered = 1;
    const Datagrams site(harms);
    ASSERT_TRUE(site.client.send(message(5, 0)));
    EXPECT_EQ(site.server.receive(), message(5, 0));
}

TEST(RelayOfDatagrams, CorruptsOfARequestItsDirectionAlone) {
    Harms harms = {};
    harms.corrupted = 1;
    const Datagrams site(harms);
    for (uint32_t i = 0; i < 20; ++i) {
        ASSERT_TRUE(site.client.send(message(i, 0, "rest")));
        const auto came = site.server.receive();
        ASSERT_TRUE(came && came->size() == 12);
        EXPECT_EQ(word_of(*came, 0), i);
        EXPECT_NE(word_of(*came, 1), 0u);
        EXPECT_EQ(came->substr(8), "rest");
    }
}

TEST(RelayOfDatagrams, CorruptsOfAReplyItsNumberOrItsDirection) {
    Harms harms = {};
    harms.corrupted = 1;
    const Datagrams site(harms);
    site.introduce();
    int numbers = 0;
    int directions = 0;
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(site.server.send(message(5, 1, "rest")));
        const auto came = site.client.receive();
        ASSERT_TRUE(came && came->size() == 12);
        EXPECT_EQ(came->substr(8), "rest");
        numbers += word_of(*came, 0) != 5;
        directions += word_of(*came, 1) != 1;
    }
    EXPECT_EQ(numbers + directions, 40) << "one word of each";
    EXPECT_GT(numbers, 0);
    EXPECT_GT(directions, 0);
}

TEST(RelayOfDatagrams, GivesEachClientTheRepliesToIt) {
    const Datagrams site({});
    const Socket other(connected(site.relay.port(), SOCK_DGRAM));
    for (const Socket *client : {&site.client, &other}) {
        ASSERT_TRUE(client->send(message(client == &other ? 2 : 1, 0)));
        ASSERT_TRUE(is_readable(site.server.fd));
        char bytes[8];
        Address from;
        ASSERT_EQ(recvfrom(site.server.fd, bytes, sizeof bytes, 0, from.base(), &from.length), 8);
        ASSERT_EQ(sendto(site.server.fd, bytes, sizeof bytes, 0, from.base(), from.length), 8);
    }
    EXPECT_EQ(site.client.receive(), message(1, 0));
    EXPECT_EQ(other.receive(), message(2, 0));
}

TEST(Relay, APortThatIsTakenForEitherIsAnErrorThatNamesIt) {
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const Socket other(bind_socket(parse_address("0"), type));
        Plan plan;
        plan.listen = plan.server = bound_address(other.fd);
        try {
            const Relay relay(plan);
            FAIL() << "nothing was thrown";
        } catch (const std::runtime_error &error) {
            EXPECT_THAT(error.what(), HasSubstr(std::to_string(plan.listen.port())));
        }
    }
}

TEST(RelayOfConnections, PassesBothWaysWithoutHarm) {
    const Streams site({});
    ASSERT_TRUE(site.client.send(record(message(5, 0))));
    EXPECT_EQ(site.server.receive_bytes(12), record(message(5, 0)));
    ASSERT_TRUE(site.server.send(record(message(5, 1))));
    EXPECT_EQ(site.client.receive_bytes(12), record(message(5, 1)));
    EXPECT_EQ(site.relay.tally()[Event::message], 2u);
}

TEST(RelayOfConnections, AReceiverThatTakesNothingForAWhileGetsEveryByte) {
    const Streams site({});
    std::string sent;
    for (uint32_t i = 0; i < 160; ++i)
        sent += record(message(i, 0, std::string(100'000, static_cast<char>(i))));
    size_t sent_bytes = 0;
    const auto send_some = [&] {
        const ssize_t count = send(site.client.fd, sent.data() + sent_bytes, sent.size() - sent_bytes, MSG_NOSIGNAL);
        sent_bytes += static_cast<size_t>(std::max<ssize_t>(count, 0));
        return count > 0;
    };
    while (send_some())
        continue;
    std::string came;
    for (auto piece = site.server.receive(); piece && !piece->empty(); piece = site.server.receive()) {
        came += *piece;
        if (sent_bytes < sent.size())
            send_some();
        if (came.size() >= sent.size())
            break;
    }
    EXPECT_TRUE(came == sent) << came.size() << " of " << sent.size();
}

TEST(RelayOfConnections, DribblesTheSameBytes) {
    Harms harms = {};
    harms.dribbled = 1;
    const Streams site(harms);
    const std::string question = record(message(5, 0, std::string(500, 'q')));
    ASSERT_TRUE(site.client.send(question + question));
    const auto first = site.server.receive();
    ASSERT_TRUE(first);
    EXPECT_LT(first->size(), question.size());
    EXPECT_EQ(*first + site.server.receive_bytes(2 * question.size() - first->size()), question + question);
    EXPECT_EQ(site.relay.tally()[Event::dribbled], 2u);
}

TEST(RelayOfConnections, CutsForBothWithAReset) {
    Harms harms = {};
    harms.cut = 1;
    const Streams site(harms);
    ASSERT_TRUE(site.client.send(record(message(5, 0, "question"))));
    for (const Socket *end : {&site.client, &site.server}) {
        ASSERT_TRUE(is_readable(end->fd));
        while (end->receive(0).value_or("") != "")
            continue;
        char byte;
        EXPECT_LE(recv(end->fd, &byte, 1, MSG_DONTWAIT), 0);
    }
    EXPECT_EQ(site.relay.tally()[Event::cut], 1u);
}

TEST(RelayOfConnections, CorruptsBehindTheMarkAlone) {
    Harms harms = {};
    harms.corrupted = 1;
    const Streams site(harms);
    ASSERT_TRUE(site.client.send(record(message(5, 0, "rest"))));
    const auto came = site.server.receive_bytes(16);
    ASSERT_EQ(came.size(), 16u);
    EXPECT_EQ(word_of(came, 0), 0x80000000U | 12);
    EXPECT_EQ(word_of(came, 1), 5u);
    EXPECT_NE(word_of(came, 2), 0u);
    EXPECT_EQ(came.substr(12), "rest");
}

TEST(RelayOfConnections, TheEndOfOneSideIsTheEndOfTheOtherBehindWhatItSent) {
    const Streams site({});
    ASSERT_TRUE(site.server.send(record(message(5, 1)) + "half a rec"));
    shutdown(site.server.fd, SHUT_RDWR);
    EXPECT_EQ(site.client.receive_bytes(22), record(message(5, 1)) + "half a rec");
    EXPECT_EQ(site.client.receive(), "");
}
