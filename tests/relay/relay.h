// A relay between clients and a server that does to their messages what a bad network does. The server sees one address
// for all clients.
#pragma once

#include <memory>
#include <thread>

#include <tests/relay/datagrams.h>
#include <tests/relay/streams.h>

namespace velia::relay {

struct Plan {
    Address listen = parse_address("127.0.0.1:0"); // port 0: a free one
    Address server;
    bool takes_datagrams = true;
    bool takes_connections = true;
    Harms harms;
    uint64_t seed = 1;
};

class Relay {
public:
    // Listens from here on; throws std::runtime_error if it cannot.
    explicit Relay(const Plan &plan);

    void run() { loop_.run(); }
    void stop() const { loop_.stop(); }
    uint16_t port() const { return port_; }
    const Tally &tally() const { return tally_; }

private:
    void listen(const Plan &plan);

    Loop loop_;
    Tally tally_;
    std::unique_ptr<DatagramRelay> datagrams_;
    std::unique_ptr<StreamRelay> streams_;
    uint16_t port_;
};

// One that runs in a thread as long as the object lives.
class RelayThread {
public:
    explicit RelayThread(const Plan &plan) : relay_(plan), thread_([this] { relay_.run(); }) {}
    ~RelayThread() {
        relay_.stop();
        thread_.join();
    }
    RelayThread(const RelayThread &) = delete;
    RelayThread &operator=(const RelayThread &) = delete;

    uint16_t port() const { return relay_.port(); }
    const Tally &tally() const { return relay_.tally(); }

private:
    Relay relay_;
    std::thread thread_;
};

} // namespace velia::relay
