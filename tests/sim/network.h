// The operations of the system that reach the network by themselves, under the test's control: what the resolver says,
// how a connection begins, what a wait brings. What a test says nothing about goes to the real system.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <netdb.h>
#include <sys/select.h>
#include <sys/time.h>

#include <support/tbs.h>

namespace sim {

struct Endpoint {
    std::string address;
    uint16_t port;
};

struct Network {
    // Hosts that getaddrinfo is asked for with the probe's port; others fail with EAI_NONAME, with this errno.
    std::map<std::string, std::vector<Endpoint>> hosts;
    int resolver_errno = 0;
    std::vector<addrinfo> hints;
    int resolver_lists = 0; // that are out

    // Connections are made in truth; else each ends with the errno value at its place, and those behind stand.
    bool connects = false;
    std::deque<int> connect_errors;

    // Numbers that the next sockets bear, in place of real ones; the sockets opened and the descriptors closed, in
    // order.
    std::deque<int> descriptors;
    std::vector<int> opened;
    std::vector<int> closed;

    // What the next waits bring; behind them the real ones. The time-out that each wait was given.
    using Wait = std::function<int(fd_set *writable, timeval *time_out)>;
    std::deque<Wait> script;
    std::vector<timeval> time_outs;

    // What the next questions for a socket's error bring: the question's own errno, or else the socket's error.
    struct SocketError {
        int error_number;
        int value;
    };
    std::deque<SocketError> socket_errors;

    // Of the next changes of a socket's blocking; of the next numeric texts.
    std::deque<tbs_status_t> nonblocking_results;
    std::deque<int> numeric_results;
};

// Waits of a script. The places are those of the sockets in `opened`.
Network::Wait fails_with(int error_number, int64_t left_us);
Network::Wait times_out();
Network::Wait finds_ready(std::vector<size_t> places);

} // namespace sim
