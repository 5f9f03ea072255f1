// The wrapped operations of the network. See wraps.cpp for where a raise may arrive.
#include <tests/sim/network.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <support/pfm.h>
#include <support/stg.h>
#include <support/sysutl.h>
#include <tests/sim/noted.h>
#include <tests/sim/world.h>

using sim::Network;
using sim::World;

namespace {

constexpr char probed_service[] = "371";
constexpr int set_words = 16384 / 64; // of the library's sets

// The next of a script, if there is one.
template <class Value>
bool take(std::deque<Value> &script, Value &value) {
    if (script.empty())
        return false;
    value = std::move(script.front());
    script.pop_front();
    return true;
}

} // namespace

extern "C" {

int __real_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **result);
int __wrap_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **result) {
    if (service == nullptr || strcmp(service, probed_service) != 0)
        return __real_getaddrinfo(host, service, hints, result);
    World &world = World::current();
    world.support_call();
    Network &network = world.network;
    network.hints.push_back(*hints);
    const auto found = network.hosts.find(host);
    if (found == network.hosts.end()) {
        errno = network.resolver_errno;
        return EAI_NONAME;
    }
    *result = nullptr;
    addrinfo numeric = {};
    numeric.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    numeric.ai_socktype = SOCK_STREAM;
    for (addrinfo **tail = result; const auto &endpoint : found->second) {
        __real_getaddrinfo(endpoint.address.c_str(), std::to_string(endpoint.port).c_str(), &numeric, tail);
        tail = &(*tail)->ai_next;
    }
    ++network.resolver_lists;
    return 0;
}

void __real_freeaddrinfo(addrinfo *list);
void __wrap_freeaddrinfo(addrinfo *list) {
    if (list != nullptr && World::exists() && World::current().network.resolver_lists > 0)
        --World::current().network.resolver_lists;
    sim::noted().resolver_lists.erase(list);
    __real_freeaddrinfo(list);
}

int __real_socket(int family, int type, int protocol);
int __wrap_socket(int family, int type, int protocol) {
    World &world = World::current();
    if (sim::Faults::due(world.faults.socket)) {
        errno = world.faults.error_number;
        return -1;
    }
    int fd;
    if (!take(world.network.descriptors, fd))
        fd = __real_socket(family, type, protocol);
    if (fd >= 0) {
        world.descriptors.insert(fd);
        world.network.opened.push_back(fd);
    }
    return fd;
}

// Unless the network is real, connections of the simulated world stand at once; what they carry goes through the
// scripted peer.
int __real_connect(int fd, const sockaddr *address, socklen_t length);
int __wrap_connect(int fd, const sockaddr *address, socklen_t length) {
    World &world = World::current();
    if (world.network.connects)
        return __real_connect(fd, address, length);
    if (sim::Faults::due(world.faults.connect)) {
        errno = world.faults.error_number;
        return -1;
    }
    int error_number = 0;
    take(world.network.connect_errors, error_number);
    errno = error_number;
    return error_number == 0 ? 0 : -1;
}

int __wrap_ks_connect(int fd, const sockaddr *address) {
    return __wrap_connect(fd, address, sysutl_sockaddr_size(address)) == 0 ? 0 : errno;
}

int __real_close(int fd);
int __wrap_close(int fd) {
    World &world = World::current();
    world.network.closed.push_back(fd);
    world.descriptors.erase(fd);
    if (sim::noted().raise_at_close != 0)
        pfm_post_raise(sim::noted().raise_at_close);
    return __real_close(fd);
}

int __real_select(int bound, fd_set *readable, fd_set *writable, fd_set *failed, timeval *time_out);
int __wrap_select(int bound, fd_set *readable, fd_set *writable, fd_set *failed, timeval *time_out) {
    World &world = World::current();
    world.support_call();
    world.network.time_outs.push_back(*time_out);
    Network::Wait wait;
    return take(world.network.script, wait) ? wait(writable, time_out)
                                            : __real_select(bound, readable, writable, failed, time_out);
}

int __real_getsockopt(int fd, int level, int option, void *value, socklen_t *length);
int __wrap_getsockopt(int fd, int level, int option, void *value, socklen_t *length) {
    Network::SocketError error = {};
    if (!take(World::current().network.socket_errors, error))
        return __real_getsockopt(fd, level, option, value, length);
    errno = error.error_number;
    if (error.error_number != 0)
        return -1;
    memcpy(value, &error.value, sizeof error.value);
    return 0;
}

tbs_status_t __real_sysutl_set_socket_nonblocking(int fd, int on);
tbs_status_t __wrap_sysutl_set_socket_nonblocking(int fd, int on) {
    World &world = World::current();
    world.support_call();
    tbs_status_t status = TBS_ST_OK;
    if (take(world.network.nonblocking_results, status) && status != TBS_ST_OK)
        return status;
    // A number that a script made up is no descriptor.
    return fcntl(fd, F_GETFD) < 0 ? tbs_status_t{TBS_ST_OK} : __real_sysutl_set_socket_nonblocking(fd, on);
}

int __real_sysutl_host_numeric(const sockaddr *address, size_t size, char *buffer, int reserved1, int reserved2);
int __wrap_sysutl_host_numeric(const sockaddr *address, size_t size, char *buffer, int reserved1, int reserved2) {
    World::current().support_call();
    EXPECT_EQ(reserved1, 0);
    EXPECT_EQ(reserved2, 0);
    int result = 0;
    if (take(World::current().network.numeric_results, result) && result != 0)
        return result;
    return __real_sysutl_host_numeric(address, size, buffer, reserved1, reserved2);
}

} // extern "C"

namespace sim {

namespace {

unsigned long *words_of(fd_set *set) {
    return reinterpret_cast<unsigned long *>(set);
}

} // namespace

Network::Wait fails_with(int error_number, int64_t left_us) {
    return [=](fd_set *, timeval *time_out) {
        *time_out = {0, left_us};
        errno = error_number;
        return -1;
    };
}

Network::Wait times_out() {
    return [](fd_set *writable, timeval *time_out) {
        memset(words_of(writable), 0, set_words * sizeof(unsigned long));
        *time_out = {};
        return 0;
    };
}

Network::Wait finds_ready(std::vector<size_t> places) {
    return [=](fd_set *writable, timeval *time_out) {
        unsigned long *words = words_of(writable);
        unsigned long ready[set_words] = {};
        for (const size_t place : places) {
            const auto fd = static_cast<size_t>(World::current().network.opened.at(place));
            ready[fd / 64] |= words[fd / 64] & (1UL << (fd % 64)); // one that is not waited for is not found
        }
        memcpy(words, ready, sizeof ready);
        *time_out = {0, time_out->tv_usec / 2};
        return static_cast<int>(places.size());
    };
}

} // namespace sim
