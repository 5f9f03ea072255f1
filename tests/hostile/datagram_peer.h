// A peer over UDP that does about each datagram what its script says, in a thread.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include <tests/hostile/messages.h>
#include <tests/relay/address.h>

namespace velia::hostile {

class DatagramPeer {
public:
    // What a script has at hand.
    class Call {
    public:
        Call(const DatagramPeer &peer, const relay::Address &caller, Bytes bytes, size_t position)
            : request(std::move(bytes)), number(position), peer_(peer), caller_(caller) {}

        const Bytes request;
        const size_t number; // of datagrams that came before this one

        void send(const Bytes &reply) const;

        // From somebody else: another port of the peer's host and, over IPv4, its port on another host.
        void send_from_stranger(const Bytes &reply, size_t which) const;

    private:
        const DatagramPeer &peer_;
        const relay::Address &caller_;
    };
    using Script = std::function<void(const Call &call)>;

    // On the loopback address of the family.
    DatagramPeer(int family, Script script);
    ~DatagramPeer();
    DatagramPeer(const DatagramPeer &) = delete;
    DatagramPeer &operator=(const DatagramPeer &) = delete;

    const sockaddr *address() const { return address_.base(); }
    size_t calls() const { return calls_; }

private:
    void open_strangers(int family);
    void serve();

    Script script_;
    int fd_;
    relay::Address address_;
    std::vector<int> strangers_;
    int stop_fd_;
    std::atomic<size_t> calls_ = 0;
    std::thread thread_;
};

} // namespace velia::hostile
