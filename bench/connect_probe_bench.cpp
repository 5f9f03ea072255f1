// How long the probe takes for a host that is silent, one that refuses and one that accepts, the latter two beside the
// bare connection that any probe needs. The hosts are sockets of this process on loopback.
#include <bench/support/ratio.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veliaxdr/rvzd_probe.h>

namespace {

constexpr char probed_service[] = "371";
constexpr double silent_limit_ns = 920e6; // 0.9 seconds and not 20 milliseconds more
constexpr double refused_limit_ns = 1e6;

std::map<std::string, sockaddr_in> hosts; // the port of each stands for the probe's own, which is a privileged one

void check(bool ok, const char *what) {
    if (ok)
        return;
    perror(what);
    exit(1);
}

// A socket bound to a free port, which is the host of this name.
int bind_host(const char *name) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in &address = hosts[name];
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    check(bind(fd, reinterpret_cast<sockaddr *>(&address), length) == 0, "bind");
    check(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0, "getsockname");
    return fd;
}

bool stands(int fd) {
    constexpr int long_enough_ms = 200; // on loopback
    pollfd poll_fd = {fd, POLLOUT, 0};
    return poll(&poll_fd, 1, long_enough_ms) == 1;
}

// Nobody accepts; once the queue is full a further connection gets no answer.
void make_silent_host() {
    constexpr int attempts_max = 16;
    check(listen(bind_host("silent"), 0) == 0, "listen");
    const sockaddr_in &address = hosts["silent"];
    for (int i = 0; i < attempts_max; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        if (!stands(fd))
            return;
    }
    check(false, "a silent host");
}

int make_listening_host() {
    const int fd = bind_host("listening");
    check(listen(fd, 128) == 0 && fcntl(fd, F_SETFL, O_NONBLOCK) == 0, "listen");
    return fd;
}

int listener;

// The connections that stand are taken from the queue, or it would be full soon.
void drain() {
    for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;)
        close(fd);
}

void probe(benchmark::State &state, const char *host, int expected) {
    for (auto _ : state) {
        check(rvzd_nonblock_connect_ping(host) == expected, host);
        drain();
    }
}

void bare(benchmark::State &state, const char *host, bool expected) {
    const sockaddr_in &address = hosts[host];
    for (auto _ : state) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        check((connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) == expected, host);
        close(fd);
        drain();
    }
}

void ProbeSilent(benchmark::State &state) {
    probe(state, "silent", 0);
}
void ProbeRefusing(benchmark::State &state) {
    probe(state, "refusing", 0);
}
void ProbeListening(benchmark::State &state) {
    probe(state, "listening", 1);
}
void ConnectRefusing(benchmark::State &state) {
    bare(state, "refusing", false);
}
void ConnectListening(benchmark::State &state) {
    bare(state, "listening", true);
}

BENCHMARK(ProbeSilent)->UseRealTime();
BENCHMARK(ProbeRefusing)->UseRealTime();
BENCHMARK(ConnectRefusing)->UseRealTime();
BENCHMARK(ProbeListening)->UseRealTime();
BENCHMARK(ConnectListening)->UseRealTime();

} // namespace

// The library finds this one before the system's.
extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char *host, const char *service, const addrinfo *hints,
                                                          addrinfo **result) {
    static const auto system_getaddrinfo = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (service == nullptr || strcmp(service, probed_service) != 0)
        return system_getaddrinfo(host, service, hints, result);
    addrinfo numeric = *hints;
    numeric.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    const std::string port = std::to_string(ntohs(hosts.at(host).sin_port));
    return system_getaddrinfo("127.0.0.1", port.c_str(), &numeric, result);
}

int main(int argc, char **argv) {
    make_silent_host();
    bind_host("refusing"); // which holds the port and does not listen
    listener = make_listening_host();
    return bench::run(argc, argv, {{"ProbeRefusing", "ConnectRefusing", 0}, {"ProbeListening", "ConnectListening", 0}},
                      {{"ProbeSilent", silent_limit_ns}, {"ProbeRefusing", refused_limit_ns}});
}
