/* Loaded before the C library: the clock on the wall is ahead by as many seconds as the file that CLOCK_AHEAD names
   says, which may be negative. When it says something else, timers that go by that clock ring, as they do when it is
   set. */
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

enum { timers_max = 16, look_us = 2000 };

static volatile long ahead;
static volatile int timers[timers_max];
static volatile int timer_count;

static long read_ahead(void) {
    char text[32] = "";
    const char *name = getenv("CLOCK_AHEAD");
    const int fd = name != NULL ? open(name, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0)
        return 0;
    const ssize_t count = read(fd, text, sizeof text - 1);
    close(fd);
    return count > 0 ? atol(text) : ahead; /* empty: it is being written */
}

static long set_timer(int fd, int flags, const struct itimerspec *value, struct itimerspec *former) {
    return syscall(SYS_timerfd_settime, fd, flags, value, former);
}

static void *watch(void *nothing) {
    const struct itimerspec at_once = {{0, 0}, {0, 1}};
    for (;; usleep(look_us)) {
        const long now = read_ahead();
        if (now == ahead)
            continue;
        ahead = now;
        for (int i = 0; i < timer_count; ++i)
            set_timer(timers[i], 0, &at_once, NULL);
    }
    return nothing;
}

__attribute__((constructor)) static void begin(void) {
    sigset_t all;
    sigset_t former;
    pthread_t thread;
    ahead = read_ahead();
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    pthread_create(&thread, NULL, watch, NULL);
    pthread_sigmask(SIG_SETMASK, &former, NULL);
}

int clock_gettime(clockid_t clock, struct timespec *now) {
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += ahead;
    return result;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone) {
    struct timespec found;
    (void)zone;
    clock_gettime(CLOCK_REALTIME, &found);
    now->tv_sec = found.tv_sec;
    now->tv_usec = found.tv_nsec / 1000;
    return 0;
}

time_t time(time_t *into) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (into != NULL)
        *into = now.tv_sec;
    return now.tv_sec;
}

int timerfd_settime(int fd, int flags, const struct itimerspec *value, struct itimerspec *former) {
    struct itimerspec moved = *value;
    if ((flags & TFD_TIMER_ABSTIME) == 0)
        return (int)set_timer(fd, flags, value, former);
    int known = 0;
    while (known < timer_count && timers[known] != fd)
        ++known;
    if (known == timer_count && known < timers_max) {
        timers[known] = fd;
        timer_count = known + 1;
    }
    if (moved.it_value.tv_sec != 0)
        moved.it_value.tv_sec = moved.it_value.tv_sec > ahead ? moved.it_value.tv_sec - ahead : 1;
    return (int)set_timer(fd, flags, &moved, former);
}
