// A small RPC server on a loopback port, in a thread of the test.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <support/sysutl.h>

class RpcServer {
public:
    // Reads the arguments of a call and writes its results; false leaves the call without an answer.
    using Answer = std::function<bool(const rpc_msg &call, XDR *arguments, XDR *results)>;

    // Listens on the loopback address of `family` (IPv4: on `ipv4_address`) for datagrams or connections.
    RpcServer(int family, int type, Answer answer = echo, const char *ipv4_address = "127.0.0.1");
    // Listens in the site's directory for callers of the host who want the broker at `address`, or, with the wildcard
    // address, at any.
    RpcServer(const std::string &root, const ks_sockaddr_storage_t &address, Answer answer = echo);
    ~RpcServer();
    RpcServer(const RpcServer &) = delete;
    RpcServer &operator=(const RpcServer &) = delete;

    const sockaddr *address() const { return &address_.base; }
    uint16_t port() const;
    size_t calls() const { return calls_; }
    size_t connections() const { return connections_; }

    // Ends all connections as a dying process does, and returns when they have ended.
    void close_connections();

    // Answers with the number that was sent.
    static bool echo(const rpc_msg &call, XDR *arguments, XDR *results);

private:
    void begin();
    void serve();
    void obey();
    void take_datagram();
    void take_connection();
    bool take_record(int connection);
    std::string reply_to(const std::string &request);

    ks_sockaddr_storage_t address_ = {};
    int type_;
    Answer answer_;
    int socket_ = -1;
    int orders_[2] = {-1, -1};
    std::vector<int> open_;
    std::atomic<size_t> calls_{0};
    std::atomic<size_t> connections_{0};
    std::mutex lock_;
    std::condition_variable obeyed_;
    bool close_is_wanted_ = false;
    bool end_is_wanted_ = false;
    std::thread thread_;
};

// Calls procedure 1 with a number; the number that came back is in `*reply`.
clnt_stat call_echo(CLIENT *client, uint32_t number, uint32_t *reply, timeval timeout = {20, 0});
