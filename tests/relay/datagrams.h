// Datagrams between clients and a server. Each client has a socket of its own towards the server, so that the server
// can tell them apart.
#pragma once

#include <list>
#include <map>
#include <memory>

#include <tests/relay/address.h>
#include <tests/relay/harms.h>
#include <tests/relay/loop.h>

namespace velia::relay {

class DatagramRelay {
public:
    DatagramRelay(Loop &loop, const Address &listen, const Address &server, const Harms &harms, uint64_t seed,
                  Tally &tally);
    ~DatagramRelay();
    DatagramRelay(const DatagramRelay &) = delete;
    DatagramRelay &operator=(const DatagramRelay &) = delete;

    uint16_t port() const { return bound_address(fd_).port(); }

private:
    struct Way {
        Way(Dice its_dice, Direction its_direction) : dice(std::move(its_dice)), direction(its_direction) {}
        Dice dice;
        Direction direction;
        std::list<std::string> held; // until a successor has passed
    };
    struct Client {
        Client(const Address &its_address, int its_fd, uint64_t seed, uint64_t number);
        ~Client();
        Address address;
        int fd; // towards the server
        Way requests;
        Way replies;
        uint64_t last_used = 0;
    };
    using Owner = std::shared_ptr<Client>;

    void take_requests();
    void take_replies(const Owner &client);
    Owner client_at(const Address &address);
    void forget_one_idle();

    void pass(const Owner &client, Way &way, std::string bytes);
    void send_at(const Owner &client, Way &way, std::string bytes, unsigned delay_ms);
    void send_now(Client &client, Way &way, const std::string &bytes);
    void hold(const Owner &client, Way &way, std::string bytes);

    Loop &loop_;
    Address server_;
    Harms harms_;
    uint64_t seed_;
    Tally &tally_;
    int fd_;
    uint64_t clients_seen_ = 0;
    uint64_t uses_ = 0;
    std::map<std::string, Owner> clients_;
};

} // namespace velia::relay
