// This host's name, descriptors, and the uniquifier of connections.
#include <support/sysutl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <strings.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <support/env.h>
#include <support/ivlthread.h>

#include "this_host.h"

namespace {

constexpr size_t host_name_size = 256;

uint64_t next_uniquifier;
ivlthread_once_t uniquifier_once;

// A random start keeps two processes apart that were started in the same instant, as two of a restarted site are.
int seed_uniquifier() {
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof seed)) {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        seed = static_cast<uint64_t>(now.tv_nsec) << 32 ^ static_cast<uint64_t>(now.tv_sec) << 16 ^
               static_cast<uint64_t>(getpid());
    }
    __atomic_store_n(&next_uniquifier, seed, __ATOMIC_RELAXED);
    return 0;
}

bool machine_name(char (&name)[host_name_size]) {
    if (gethostname(name, sizeof name - 1) != 0)
        return false;
    name[sizeof name - 1] = '\0';
    return true;
}

int change_flag(int descriptor, int get, int set, int flag, int on) {
    const int flags = fcntl(descriptor, get);
    if (flags < 0)
        return -1;
    const int wanted = on != 0 ? flags | flag : flags & ~flag;
    return wanted == flags ? 0 : fcntl(descriptor, set, wanted);
}

} // namespace

const char *velia::support::as_this_host(const char *host) {
    const char *given = getenv("VELIA_HOSTNAME");
    char machine[host_name_size];
    if (given == nullptr || *given == '\0' || !machine_name(machine))
        return host;
    return strcasecmp(host, machine) == 0 ? given : host;
}

const char *sysutl_myhostname(void) {
    static thread_local char name[host_name_size];
    if (getenv_safe("VELIA_HOSTNAME", name, sizeof name, 0) != nullptr && name[0] != '\0')
        return name;
    return machine_name(name) ? name : "localhost";
}

int sysutl_set_cloexec_file(int descriptor, int on) {
    return change_flag(descriptor, F_GETFD, F_SETFD, FD_CLOEXEC, on);
}

tbs_status_t sysutl_set_socket_nonblocking(int descriptor, int on) {
    return change_flag(descriptor, F_GETFL, F_SETFL, O_NONBLOCK, on) == 0 ? TBS_ST_OK : tbs_errno2status(errno);
}

uint64_t sysutl_sock_port_uniquifier(void) {
    ivlthread_once(&uniquifier_once, seed_uniquifier);
    return __atomic_fetch_add(&next_uniquifier, 1, __ATOMIC_RELAXED);
}

int sysutl_fd_set_popcount(const void *descriptor_set, int bound) {
    const auto *words = static_cast<const unsigned long *>(descriptor_set);
    constexpr int word_bits = static_cast<int>(sizeof(unsigned long) * CHAR_BIT);
    int count = 0;
    for (int first = 0; first < bound; first += word_bits) {
        const int bits_wanted = bound - first;
        unsigned long word = words[first / word_bits];
        if (bits_wanted < word_bits)
            word &= (1UL << bits_wanted) - 1;
        count += __builtin_popcountl(word);
    }
    return count;
}

int sysutl_fsync_fptr(FILE *stream) {
    return fflush(stream) == 0 && fsync(fileno(stream)) == 0 ? 0 : -1;
}
