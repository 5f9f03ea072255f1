// Clients of peers that do not answer, for tests of what ends a wait.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <support/ks.h>

#include "../rpc_server.h"

constexpr uint32_t silent_program = 390600;
constexpr timeval long_time = {60, 0};

// A server that takes calls of either transport and answers none, and a client of it.
class Silence : public testing::TestWithParam<int> {
protected:
    Silence() : server_(AF_INET, GetParam(), [](const rpc_msg &, XDR *, XDR *) { return false; }) {
        client_ = GetParam() == SOCK_DGRAM
                      ? ks_clntudp_create_sockaddr(server_.address(), silent_program, 1, 3, 0, &socket_fd_)
                      : ks_clnttcp_create_sockaddr(server_.address(), silent_program, 1, &socket_fd_, 0, 0);
    }
    ~Silence() override {
        ks_set_deadline(-1);
        clnt_destroy(client_);
        close(socket_fd_);
    }

    clnt_stat call() {
        uint32_t reply = 0;
        return call_echo(client_, 1, &reply, long_time);
    }

    int error_number() const {
        rpc_err error = {};
        clnt_geterr(client_, &error);
        return error.re_errno;
    }

    RpcServer server_;
    int socket_fd_ = -1;
    CLIENT *client_ = nullptr;
};

inline std::string transport_name(const testing::TestParamInfo<int> &info) {
    return info.param == SOCK_DGRAM ? "udp" : "tcp";
}

// A listener whose queue is full: to connect to it takes for ever.
class FullListener {
public:
    FullListener() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
        sysutl_sockaddr_any_init(AF_INET, &address_);
        auto *ipv4 = reinterpret_cast<sockaddr_in *>(&address_);
        ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof *ipv4;
        EXPECT_EQ(bind(listener_, &address_.base, length), 0);
        EXPECT_EQ(listen(listener_, 0), 0);
        EXPECT_EQ(getsockname(listener_, &address_.base, &length), 0);
        for (int &filler : fillers_) {
            filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            connect(filler, &address_.base, length);
        }
    }
    ~FullListener() {
        for (const int filler : fillers_)
            close(filler);
        close(listener_);
    }
    FullListener(const FullListener &) = delete;
    FullListener &operator=(const FullListener &) = delete;

    const sockaddr *address() const { return &address_.base; }

private:
    int listener_;
    ks_sockaddr_storage_t address_ = {};
    int fillers_[4];
};
