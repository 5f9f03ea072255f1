#include <tests/relay/streams.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

namespace velia::relay {

namespace {

constexpr size_t read_bytes_max = 65536;
constexpr size_t record_bytes_max = 1 << 20; // of one that is waited for
constexpr size_t mark_bytes = 4;
constexpr uint32_t last_fragment = 0x80000000;
constexpr size_t pieces_waiting_max = 256;
constexpr size_t dribbled_pieces_max = 64;
constexpr std::chrono::milliseconds dribble_interval{2};

// How many bytes of the beginning are one whole record with its marks; 0 while it is not whole.
size_t whole_record_bytes(const std::string &bytes) {
    for (size_t at = 0; bytes.size() - at >= mark_bytes;) {
        uint32_t mark;
        memcpy(&mark, bytes.data() + at, sizeof mark);
        mark = ntohl(mark);
        at += mark_bytes + (mark & ~last_fragment);
        if (at > bytes.size())
            return 0;
        if ((mark & last_fragment) != 0)
            return at;
    }
    return 0;
}

void set_up(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void close_with_reset(int fd) {
    const linger at_once = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(fd);
}

} // namespace

StreamRelay::Connection::Connection(int client_fd, int server_fd, uint64_t seed, uint64_t number)
    : ways{Way(Dice(seed, number, Direction::request), Direction::request),
           Way(Dice(seed, number, Direction::reply), Direction::reply)} {
    ways[0].from_fd = ways[1].to_fd = client_fd;
    ways[0].to_fd = ways[1].from_fd = server_fd;
}

StreamRelay::StreamRelay(Loop &loop, const Address &listen, const Address &server, const Harms &harms, uint64_t seed,
                         Tally &tally)
    : loop_(loop), server_(server), harms_(harms), seed_(seed), tally_(tally), fd_(bind_socket(listen, SOCK_STREAM)) {
    loop_.watch(fd_, POLLIN, [this](short) { take_connection(); });
}

StreamRelay::~StreamRelay() {
    while (!connections_.empty())
        end(connections_.begin()->second, true);
    loop_.forget(fd_);
    close(fd_);
}

void StreamRelay::take_connection() {
    const int client_fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client_fd < 0)
        return;
    int server_fd = -1;
    try {
        server_fd = connect_socket(server_, SOCK_STREAM);
    } catch (const std::runtime_error &) {
        return close_with_reset(client_fd);
    }
    set_up(client_fd);
    set_up(server_fd);
    tally_.count(Event::connection);
    const auto connection = std::make_shared<Connection>(client_fd, server_fd, seed_, connections_seen_++);
    connections_[client_fd] = connection;
    watch(connection);
}

// What waits to be sent is bounded.
bool StreamRelay::takes_more(const Way &way) {
    return !way.has_ended && way.pieces.size() < pieces_waiting_max;
}

// Each descriptor is read for one way and written for the other. One that is neither is left alone: poll() would tell
// of its end again and again.
void StreamRelay::watch(const Owner &connection) {
    for (size_t i = 0; i < connection->ways.size() && connection->is_open; ++i) {
        Way &read = connection->ways[i];
        Way &written = connection->ways[1 - i];
        const int events = (takes_more(read) ? POLLIN : 0) | (written.is_full ? POLLOUT : 0);
        if (events == 0)
            loop_.forget(read.from_fd);
        else
            loop_.watch(read.from_fd, static_cast<short>(events), [this, connection, &read, &written](short ready) {
                take_turn(connection, read, written, ready);
            });
    }
}

void StreamRelay::take_turn(const Owner &connection, Way &read, Way &written, short ready) {
    if (written.is_full)
        flush(connection, written);
    if ((ready & ~POLLOUT) != 0 && connection->is_open && takes_more(read))
        take_bytes(connection, read);
    watch(connection);
}

void StreamRelay::take_bytes(const Owner &connection, Way &way) {
    std::string bytes(read_bytes_max, '\0');
    const ssize_t count = recv(way.from_fd, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count < 0)
        return end(connection, true);
    way.has_ended = count == 0;
    way.collected.append(bytes, 0, static_cast<size_t>(count));
    for (size_t whole; (whole = whole_record_bytes(way.collected)) > 0;) {
        take_record(way, way.collected.substr(0, whole));
        way.collected.erase(0, whole);
    }
    if (way.has_ended || way.collected.size() > record_bytes_max)
        way.pieces.push_back({Clock::now(), std::exchange(way.collected, {}), false});
    flush(connection, way);
}

void StreamRelay::take_record(Way &way, std::string record) {
    const Fate fate = way.dice.next(harms_);
    tally_.count(Event::message);
    if (fate.delay_ms > 0)
        tally_.count(Event::delayed);
    if (fate.is_corrupted && spoil(record, mark_bytes, way.direction, fate))
        tally_.count(Event::corrupted);
    if (fate.is_dribbled)
        tally_.count(Event::dribbled);
    if (fate.is_cut)
        record.resize(record.size() * fate.quarters_passed / 4);
    auto due = Clock::now() + std::chrono::milliseconds(fate.delay_ms);
    if (!way.pieces.empty())
        due = std::max(due, way.pieces.back().due);
    const size_t piece_bytes = fate.is_dribbled ? record.size() / dribbled_pieces_max + 1 : record.size();
    for (size_t at = 0; at < record.size(); at += piece_bytes) {
        way.pieces.push_back({due, record.substr(at, piece_bytes), false});
        due += fate.is_dribbled ? dribble_interval : Clock::duration::zero();
    }
    if (fate.is_cut)
        way.pieces.push_back({due, {}, true});
}

void StreamRelay::flush(const Owner &connection, Way &way) {
    way.is_full = false;
    while (connection->is_open && !way.pieces.empty() && way.pieces.front().due <= Clock::now()) {
        Piece &piece = way.pieces.front();
        if (piece.is_cut) {
            tally_.count(Event::cut);
            return end(connection, true);
        }
        const ssize_t count = send(way.to_fd, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN)
            return end(connection, true);
        way.is_full = count < static_cast<ssize_t>(piece.bytes.size());
        piece.bytes.erase(0, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (way.is_full)
            return;
        way.pieces.pop_front();
    }
    if (!connection->is_open)
        return;
    if (!way.pieces.empty())
        loop_.at(way.pieces.front().due, [this, connection, &way] {
            flush(connection, way);
            watch(connection);
        });
    else if (way.has_ended)
        end(connection, false);
}

void StreamRelay::end(const Owner &connection, bool by_reset) {
    if (!connection->is_open)
        return;
    connection->is_open = false;
    const int client_fd = connection->ways[0].from_fd;
    for (const auto &way : connection->ways) {
        loop_.forget(way.from_fd);
        by_reset ? close_with_reset(way.from_fd) : static_cast<void>(close(way.from_fd));
    }
    connections_.erase(client_fd); // last, since the caller's owner may be the table's
}

} // namespace velia::relay
