// What a call through a handle costs, over the daemon's socket for callers of its host and over loopback, against the
// same call made by the RPC library's own client and transport, with the same daemon.
#include <bench/support/check.h>
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <support/credmap.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_lookup.h>

namespace {

using bench::check;

rvzd_rpc_trait_t trait = {bench::Site::sample_program, 1, RVZD_PROTOCOL_UDP};
const tbs_uuid_t uuid = {};

void find_through(rvzd_handle_t *handle, benchmark::State &state) {
    rvzd_server_addr_t address;
    for (auto _ : state)
        check(rvzd_find_server(handle, &trait, &uuid, "", &address) == TBS_ST_OK, "find_server");
    rvzd_free_handle(handle);
}

void through_handle(benchmark::State &state, uint32_t protocol) {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_proto(bench::Site::host, protocol, &handle) == TBS_ST_OK, "handle");
    find_through(handle, state);
}

// As from another root directory, which has no socket of the daemon's. The address keeps the handle apart.
void over_loopback(benchmark::State &state, uint32_t protocol) {
    const std::string root = getenv("VELIA_ROOT");
    const std::string far = root + "/far";
    std::filesystem::create_directories(far);
    if (!std::filesystem::exists(far + "/config"))
        std::filesystem::create_directory_symlink(root + "/config", far + "/config");
    rvzd_handle_t *handle = nullptr;
    setenv("VELIA_ROOT", far.c_str(), 1);
    check(rvzd_get_handle_proto("127.0.0.1", protocol, &handle) == TBS_ST_OK, "handle");
    setenv("VELIA_ROOT", root.c_str(), 1);
    find_through(handle, state);
}

// A client of the RPC library, over its own transport.
void bare(benchmark::State &state, uint32_t protocol) {
    rvzd_handle_t *handle = nullptr;
    check(rvzd_get_handle_proto(bench::Site::host, protocol, &handle) == TBS_ST_OK, "handle");
    rvzd_server_addr_t broker;
    rvzd_get_addr(handle, &broker);
    rvzd_free_handle(handle);
    ks_sockaddr_storage_t address = broker.addrs[0];
    const auto length = static_cast<unsigned>(sysutl_sockaddr_size(&address.base));
    netbuf server = {length, length, &address};
    const bool is_udp = protocol == RVZD_PROTOCOL_UDP;
    const int fd = socket(address.base.sa_family, is_udp ? SOCK_DGRAM : SOCK_STREAM, 0);
    CLIENT *client = is_udp ? clnt_dg_create(fd, &server, RVZD_PROGRAM, RVZD_VERSION, 0, 0)
                            : clnt_vc_create(fd, &server, RVZD_PROGRAM, RVZD_VERSION, 0, 0);
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

void HandleCallUdp(benchmark::State &state) {
    through_handle(state, RVZD_PROTOCOL_UDP);
}
void HandleCallTcp(benchmark::State &state) {
    through_handle(state, RVZD_PROTOCOL_TCP);
}
void LoopbackCallUdp(benchmark::State &state) {
    over_loopback(state, RVZD_PROTOCOL_UDP);
}
void LoopbackCallTcp(benchmark::State &state) {
    over_loopback(state, RVZD_PROTOCOL_TCP);
}
void BareCallUdp(benchmark::State &state) {
    bare(state, RVZD_PROTOCOL_UDP);
}
void BareCallTcp(benchmark::State &state) {
    bare(state, RVZD_PROTOCOL_TCP);
}

BENCHMARK(BareCallUdp)->UseRealTime();
BENCHMARK(LoopbackCallUdp)->UseRealTime();
BENCHMARK(HandleCallUdp)->UseRealTime();
BENCHMARK(BareCallTcp)->UseRealTime();
BENCHMARK(LoopbackCallTcp)->UseRealTime();
BENCHMARK(HandleCallTcp)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    return bench::run(argc, argv, {{"HandleCallUdp", "BareCallUdp", 0.90}, {"HandleCallTcp", "BareCallTcp", 0.90}});
}
