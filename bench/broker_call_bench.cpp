// What a call through a handle costs over a bare call of the RPC library with the same bytes, and over a bare exchange
// of datagrams of the same size.
#include <bench/support/placement.h>
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <support/credmap.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_lookup.h>

namespace {

constexpr size_t request_bytes = 120; // about what a find_server call has on the wire
constexpr size_t reply_bytes = 84;

rvzd_rpc_trait_t trait = {bench::Site::sample_program, 1, RVZD_PROTOCOL_UDP};
const tbs_uuid_t uuid = {};

void check(bool ok, const char *what) {
    if (ok)
        return;
    fprintf(stderr, "%s failed\n", what);
    exit(1);
}

void through_handle(benchmark::State &state, uint32_t protocol) {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_proto(bench::Site::host, protocol, &handle) == TBS_ST_OK, "handle");
    rvzd_server_addr_t address;
    for (auto _ : state)
        check(rvzd_find_server(handle, &trait, &uuid, "", &address) == TBS_ST_OK, "find_server");
    rvzd_free_handle(handle);
}

// The same client, made by the RPC library alone.
void bare(benchmark::State &state, uint32_t protocol) {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_proto(bench::Site::host, protocol, &handle) == TBS_ST_OK, "handle");
    rvzd_server_addr_t broker;
    rvzd_get_addr(handle, &broker);
    rvzd_free_handle(handle);
    int fd = -1;
    CLIENT *client = protocol == RVZD_PROTOCOL_UDP
                         ? ks_clntudp_create_sockaddr(&broker.addrs[0].base, RVZD_PROGRAM, RVZD_VERSION, 3, 0, &fd)
                         : ks_clnttcp_create_sockaddr(&broker.addrs[0].base, RVZD_PROGRAM, RVZD_VERSION, &fd, 0, 0);
    check(client != nullptr, "client");
    client->cl_auth = credmap_authunix_create_nobody();
    uint64_t sequence = 0;
    for (auto _ : state) {
        rvzd_find_server_req_t request = {{1, sequence++}, trait, uuid, const_cast<char *>("")};
        rvzd_find_server_reply_t reply = {};
        check(clnt_call(client, RVZD_PROC_FIND_SERVER, reinterpret_cast<xdrproc_t>(xdr_rvzd_find_server_req_t),
                        &request, reinterpret_cast<xdrproc_t>(xdr_rvzd_find_server_reply_t), &reply,
                        (timeval{25, 0})) == RPC_SUCCESS,
              "call");
        clnt_freeres(client, reinterpret_cast<xdrproc_t>(xdr_rvzd_find_server_reply_t), &reply);
    }
    auth_destroy(client->cl_auth);
    clnt_destroy(client);
    close(fd);
}

struct Echo {
    int fd;
    sockaddr_in address;
    pid_t child;

    Echo() : fd(socket(AF_INET, SOCK_DGRAM, 0)), address{} {
        const int server = socket(AF_INET, SOCK_DGRAM, 0);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        check(bind(server, reinterpret_cast<sockaddr *>(&address), length) == 0, "bind");
        check(getsockname(server, reinterpret_cast<sockaddr *>(&address), &length) == 0, "getsockname");
        child = fork();
        if (child == 0)
            serve(server);
        close(server);
    }
    ~Echo() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        close(fd);
    }

    [[noreturn]] static void serve(int server) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        bench::pin(bench::End::server);
        char bytes[request_bytes];
        for (;;) {
            sockaddr_in from;
            socklen_t length = sizeof from;
            if (recvfrom(server, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &length) > 0)
                sendto(server, bytes, reply_bytes, 0, reinterpret_cast<sockaddr *>(&from), length);
        }
    }
};

void RawUdpPingPong(benchmark::State &state) {
    const Echo echo;
    char bytes[request_bytes] = {};
    for (auto _ : state) {
        check(sendto(echo.fd, bytes, sizeof bytes, 0, reinterpret_cast<const sockaddr *>(&echo.address),
                     sizeof echo.address) > 0,
              "sendto");
        check(recv(echo.fd, bytes, sizeof bytes, 0) > 0, "recv");
    }
}

void HandleCallUdp(benchmark::State &state) {
    through_handle(state, RVZD_PROTOCOL_UDP);
}
void HandleCallTcp(benchmark::State &state) {
    through_handle(state, RVZD_PROTOCOL_TCP);
}
void BareCallUdp(benchmark::State &state) {
    bare(state, RVZD_PROTOCOL_UDP);
}
void BareCallTcp(benchmark::State &state) {
    bare(state, RVZD_PROTOCOL_TCP);
}

BENCHMARK(RawUdpPingPong)->UseRealTime();
BENCHMARK(BareCallUdp)->UseRealTime();
BENCHMARK(HandleCallUdp)->UseRealTime();
BENCHMARK(BareCallTcp)->UseRealTime();
BENCHMARK(HandleCallTcp)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    return bench::run(argc, argv,
                      {{"HandleCallUdp", "BareCallUdp", 1.05},
                       {"HandleCallTcp", "BareCallTcp", 1.05},
                       {"HandleCallUdp", "RawUdpPingPong", 0}});
}
