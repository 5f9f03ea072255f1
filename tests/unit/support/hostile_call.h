// A client's call to a hostile peer, and how long it took.
#pragma once

#include <chrono>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include <support/ks.h>

#include "rpc_server.h"

namespace velia::hostile {

// Most calls here are given so long; that they are back by far sooner than the second one is what is asserted.
constexpr timeval limit = {0, 400'000};
constexpr int64_t soon_ms = 2000;
constexpr timeval patience = {20, 0};

struct Outcome {
    clnt_stat stat;
    uint32_t number; // that the reply holds
    int64_t ms;
};

class Caller {
public:
    static constexpr uint32_t program = 390600;

    Caller(const sockaddr *address, int type)
        : client_(type == SOCK_DGRAM ? ks_clntudp_create_sockaddr(address, program, 1, 3, 0, &socket_fd_)
                                     : ks_clnttcp_create_sockaddr(address, program, 1, &socket_fd_, 0, 0)) {}
    ~Caller() {
        if (client_ != nullptr)
            clnt_destroy(client_);
        close(socket_fd_);
    }
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;

    bool is_made() const { return client_ != nullptr; }
    int socket_fd() const { return socket_fd_; }

    // The time that the longest call takes is told as a property of the test.
    Outcome call(uint32_t number, timeval time_out = patience) {
        uint32_t reply = 0;
        return timed(reply, [&] { return call_echo(client_, number, &reply, time_out); });
    }

    // More than any buffer on the way holds.
    Outcome send_large(timeval time_out) {
        std::string bytes(16 * 1024 * 1024, 'x');
        struct Text {
            char *bytes;
            u_int count;
        } text = {bytes.data(), static_cast<u_int>(bytes.size())};
        const auto xdr_text =
            +[](XDR *stream, Text *sent) { return xdr_bytes(stream, &sent->bytes, &sent->count, UINT32_MAX); };
        uint32_t reply = 0;
        return timed(reply, [&] {
            return clnt_call(client_, 1, reinterpret_cast<xdrproc_t>(reinterpret_cast<void *>(xdr_text)),
                             reinterpret_cast<char *>(&text), reinterpret_cast<xdrproc_t>(xdr_u_int),
                             reinterpret_cast<char *>(&reply), time_out);
        });
    }

private:
    template <class Call>
    Outcome timed(const uint32_t &reply, Call &&call) {
        using namespace std::chrono;
        const auto begin = steady_clock::now();
        const auto stat = call();
        const auto ms = duration_cast<milliseconds>(steady_clock::now() - begin).count();
        longest_ms_ = std::max<int64_t>(longest_ms_, ms);
        testing::Test::RecordProperty("longest_call_ms", std::to_string(longest_ms_));
        return {stat, reply, ms};
    }

    int socket_fd_ = -1;
    CLIENT *client_;
    int64_t longest_ms_ = 0;
};

} // namespace velia::hostile
