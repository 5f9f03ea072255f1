// What a call costs over the bare exchange of the same bytes with a peer that does nothing but answer, over UDP and
// TCP.
#include <bench/support/check.h>
#include <bench/support/placement.h>
#include <bench/support/ratio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <support/ks.h>

namespace {

using bench::check;

constexpr size_t call_head_bytes = 40; // with the null authenticator
constexpr size_t reply_head_bytes = 24;
constexpr size_t request_bytes = 120; // about what a find_server call has on the wire
constexpr size_t reply_bytes = 84;
constexpr size_t mark_bytes = 4;
constexpr uint32_t program = 390600;

// Turns the call that stands in `bytes` into the reply to it, whatever it was.
void answer(char *bytes) {
    const uint32_t is_reply = htonl(REPLY);
    memset(bytes + sizeof(uint32_t), 0, reply_bytes - sizeof(uint32_t));
    memcpy(bytes + sizeof(uint32_t), &is_reply, sizeof is_reply);
}

bool receive_all(int fd, char *bytes, size_t wanted) {
    for (size_t received = 0; received < wanted;) {
        const ssize_t count = recv(fd, bytes + received, wanted - received, 0);
        if (count <= 0)
            return false;
        received += static_cast<size_t>(count);
    }
    return true;
}

[[noreturn]] void serve_datagrams(int server) {
    char bytes[request_bytes];
    for (;;) {
        sockaddr_in from;
        socklen_t length = sizeof from;
        if (recvfrom(server, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &length) <= 0)
            continue;
        answer(bytes);
        sendto(server, bytes, reply_bytes, 0, reinterpret_cast<sockaddr *>(&from), length);
    }
}

void without_delay(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

[[noreturn]] void serve_connections(int server) {
    listen(server, 4);
    for (;;) {
        const int fd = accept(server, nullptr, nullptr);
        without_delay(fd);
        char bytes[mark_bytes + request_bytes];
        while (receive_all(fd, bytes, sizeof bytes)) {
            const uint32_t mark = htonl(0x80000000u | reply_bytes);
            memcpy(bytes, &mark, sizeof mark);
            answer(bytes + mark_bytes);
            if (send(fd, bytes, mark_bytes + reply_bytes, MSG_NOSIGNAL) < 0)
                break;
        }
        close(fd);
    }
}

// A process that answers.
struct Peer {
    sockaddr_in address = {};
    pid_t child;

    explicit Peer(int type) {
        const int server = socket(AF_INET, type, 0);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        check(bind(server, base(), length) == 0, "bind");
        check(type == SOCK_DGRAM || listen(server, 4) == 0, "listen");
        check(getsockname(server, reinterpret_cast<sockaddr *>(&address), &length) == 0, "getsockname");
        child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            bench::pin(bench::End::server);
            type == SOCK_DGRAM ? serve_datagrams(server) : serve_connections(server);
        }
        close(server);
    }
    ~Peer() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    const sockaddr *base() const { return reinterpret_cast<const sockaddr *>(&address); }
};

void raw(benchmark::State &state, int type) {
    const Peer peer(type);
    const int fd = socket(AF_INET, type, 0);
    check(connect(fd, peer.base(), sizeof peer.address) == 0, "connect");
    if (type == SOCK_STREAM)
        without_delay(fd);
    const size_t mark = type == SOCK_STREAM ? mark_bytes : 0;
    char bytes[mark_bytes + request_bytes] = {};
    for (auto _ : state) {
        check(send(fd, bytes, mark + request_bytes, 0) > 0, "send");
        check(recv(fd, bytes, sizeof bytes, 0) > 0, "recv");
    }
    close(fd);
}

struct Argument {
    char bytes[request_bytes - call_head_bytes];
};
struct Result {
    char bytes[reply_bytes - reply_head_bytes];
};

bool_t xdr_argument(XDR *stream, Argument *argument) {
    return xdr_opaque(stream, argument->bytes, sizeof argument->bytes);
}
bool_t xdr_result(XDR *stream, Result *result) {
    return xdr_opaque(stream, result->bytes, sizeof result->bytes);
}

void call(benchmark::State &state, int type) {
    const Peer peer(type);
    int fd = -1;
    CLIENT *client = type == SOCK_DGRAM ? ks_clntudp_create_sockaddr(peer.base(), program, 1, 3, 0, &fd)
                                        : ks_clnttcp_create_sockaddr(peer.base(), program, 1, &fd, 0, 0);
    check(client != nullptr, "client");
    Argument argument = {};
    Result result;
    for (auto _ : state)
        check(clnt_call(client, 1, reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_argument)),
                        reinterpret_cast<char *>(&argument),
                        reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_result)),
                        reinterpret_cast<char *>(&result), (timeval{25, 0})) == RPC_SUCCESS,
              "call");
    clnt_destroy(client);
    close(fd);
}

void RawUdp(benchmark::State &state) {
    raw(state, SOCK_DGRAM);
}
void CallUdp(benchmark::State &state) {
    call(state, SOCK_DGRAM);
}
void RawTcp(benchmark::State &state) {
    raw(state, SOCK_STREAM);
}
void CallTcp(benchmark::State &state) {
    call(state, SOCK_STREAM);
}

BENCHMARK(RawUdp)->UseRealTime();
BENCHMARK(CallUdp)->UseRealTime();
BENCHMARK(RawTcp)->UseRealTime();
BENCHMARK(CallTcp)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, {{"CallUdp", "RawUdp", 1.12}, {"CallTcp", "RawTcp", 1.12}});
}
