// Connections between clients and a server. A record passes when it is whole, so that each has one fate; what is no
// record passes as it comes.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <memory>

#include <tests/relay/address.h>
#include <tests/relay/harms.h>
#include <tests/relay/loop.h>

namespace velia::relay {

class StreamRelay {
public:
    StreamRelay(Loop &loop, const Address &listen, const Address &server, const Harms &harms, uint64_t seed,
                Tally &tally);
    ~StreamRelay();
    StreamRelay(const StreamRelay &) = delete;
    StreamRelay &operator=(const StreamRelay &) = delete;

    uint16_t port() const { return bound_address(fd_).port(); }

private:
    struct Piece {
        Clock::time_point due;
        std::string bytes;
        bool is_cut; // here the connection ends, for both
    };
    struct Way {
        Way(Dice its_dice, Direction its_direction) : dice(std::move(its_dice)), direction(its_direction) {}
        Dice dice;
        Direction direction;
        int from_fd = -1;
        int to_fd = -1;
        bool has_ended = false;
        bool is_full = false; // the receiver takes no more for now
        std::string collected;
        std::deque<Piece> pieces;
    };
    struct Connection {
        Connection(int client_fd, int server_fd, uint64_t seed, uint64_t number);
        std::array<Way, 2> ways;
        bool is_open = true;
    };
    using Owner = std::shared_ptr<Connection>;

    static bool takes_more(const Way &way);
    void take_connection();
    void watch(const Owner &connection);
    void take_turn(const Owner &connection, Way &read, Way &written, short ready);
    void take_bytes(const Owner &connection, Way &way);
    void take_record(Way &way, std::string record);
    void flush(const Owner &connection, Way &way);
    void end(const Owner &connection, bool by_reset);

    Loop &loop_;
    Address server_;
    Harms harms_;
    uint64_t seed_;
    Tally &tally_;
    int fd_;
    uint64_t connections_seen_ = 0;
    std::map<int, Owner> connections_; // by the descriptors towards their clients
};

} // namespace velia::relay
