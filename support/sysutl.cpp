// Descriptors, this host's name, and the small values that connections need.
#include <support/sysutl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr size_t host_name_size = 256;
constexpr int bits_per_word = 8 * static_cast<int>(sizeof(unsigned long));

bool set_flag(int descriptor, int get, int set, int flag, int on) {
    const int flags = fcntl(descriptor, get);
    return flags >= 0 && fcntl(descriptor, set, on ? flags | flag : flags & ~flag) == 0;
}

} // namespace

const char *sysutl_myhostname(void) {
    const char *given = getenv("VELIA_HOSTNAME");
    if (given != nullptr && *given != '\0')
        return given;
    static thread_local char name[host_name_size];
    if (gethostname(name, sizeof name) != 0)
        return "localhost";
    name[sizeof name - 1] = '\0';
    return name;
}

int sysutl_set_cloexec_file(int descriptor, int on) {
    return set_flag(descriptor, F_GETFD, F_SETFD, FD_CLOEXEC, on) ? 0 : -1;
}

tbs_status_t sysutl_set_socket_nonblocking(int descriptor, int on) {
    return set_flag(descriptor, F_GETFL, F_SETFL, O_NONBLOCK, on) ? TBS_ST_OK : TBS_ST_ERROR;
}

// Begins at the time in microseconds, so that it differs between processes, and grows with each connection. It travels
// as a 64-bit word.
uint64_t sysutl_sock_port_uniquifier(void) {
    static uint64_t last;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t now_us = static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    uint64_t previous = __atomic_load_n(&last, __ATOMIC_RELAXED);
    uint64_t next;
    do
        next = now_us > previous ? now_us : previous + 1;
    while (!__atomic_compare_exchange_n(&last, &previous, next, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
    return next;
}

int sysutl_fd_set_popcount(const void *descriptor_set, int bound) {
    const auto *words = static_cast<const unsigned long *>(descriptor_set);
    int count = 0;
    for (int first = 0; first < bound; first += bits_per_word) {
        unsigned long word = words[first / bits_per_word];
        if (bound - first < bits_per_word)
            word &= (1ul << (bound - first)) - 1;
        count += __builtin_popcountl(word);
    }
    return count;
}

int sysutl_fsync_fptr(FILE *stream) {
    return fflush(stream) == 0 && fsync(fileno(stream)) == 0 ? 0 : -1;
}
