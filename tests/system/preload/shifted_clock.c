/* Loaded before the C library: the clock on the wall is ahead by the seconds in CLOCK_AHEAD_S, or behind. */
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

static time_t ahead_s(void) {
    const char *seconds = getenv("CLOCK_AHEAD_S");
    return seconds != NULL ? atol(seconds) : 0;
}

int clock_gettime(clockid_t clock, struct timespec *now) {
    int (*function)(clockid_t, struct timespec *);
    *(void **)&function = dlsym(RTLD_NEXT, "clock_gettime");
    const int result = function(clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += ahead_s();
    return result;
}

time_t time(time_t *place) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (place != NULL)
        *place = now.tv_sec;
    return now.tv_sec;
}

int gettimeofday(struct timeval *restrict place, void *restrict zone) {
    struct timespec now;
    (void)zone;
    clock_gettime(CLOCK_REALTIME, &now);
    place->tv_sec = now.tv_sec;
    place->tv_usec = now.tv_nsec / 1000;
    return 0;
}
