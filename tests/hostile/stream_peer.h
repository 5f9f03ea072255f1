// A peer over TCP that does to each connection what its script says, one connection after the other, in a thread.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>

#include <tests/hostile/messages.h>
#include <tests/relay/address.h>

namespace velia::hostile {

class StreamPeer {
public:
    // What a script has at hand. A connection that the script leaves open is closed when the script ends.
    class Connection {
    public:
        Connection(const StreamPeer &peer, int fd, size_t position) : number(position), peer_(peer), fd_(fd) {}
        ~Connection() { close(); }
        Connection(const Connection &) = delete;
        Connection &operator=(const Connection &) = delete;

        const size_t number; // of connections that came before this one

        // The next request; nothing when the client has gone, or the peer is to end.
        std::optional<Bytes> request();

        // False when the client has gone, or the peer is to end: the end of a script that sends on and on.
        bool send(const Bytes &bytes);
        bool pause(std::chrono::milliseconds time);

        // As one byte after the other, with a pause behind each.
        bool drip(const Bytes &bytes, std::chrono::milliseconds pause_time);

        void wait_for_its_end();
        void close();
        void reset();

    private:
        enum class Seen { ready, gone };
        Seen wait(short events);
        bool receive(Bytes &bytes);

        const StreamPeer &peer_;
        int fd_;
    };
    using Script = std::function<void(Connection &connection)>;

    // On the loopback address of the family.
    StreamPeer(int family, Script script);
    ~StreamPeer();
    StreamPeer(const StreamPeer &) = delete;
    StreamPeer &operator=(const StreamPeer &) = delete;

    const sockaddr *address() const { return address_.base(); }
    size_t connections() const { return connections_; }

private:
    void serve();

    Script script_;
    int fd_;
    relay::Address address_;
    int stop_fd_;
    std::atomic<size_t> connections_ = 0;
    std::thread thread_;
};

// A port that takes no further connection: whoever connects waits.
class FullPort {
public:
    explicit FullPort(const relay::Address &address);
    ~FullPort();
    FullPort(const FullPort &) = delete;
    FullPort &operator=(const FullPort &) = delete;

    const sockaddr *address() const { return address_.base(); }

private:
    int fd_;
    relay::Address address_;
    std::vector<int> waiting_;
};

} // namespace velia::hostile
