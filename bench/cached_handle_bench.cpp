// Getting and freeing a handle that is in the cache, against the bare cost of its locks and its walk through a bucket.
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <strings.h>

#include <benchmark/benchmark.h>

#include <support/date.h>
#include <support/ivlthread.h>
#include <veliaxdr/rvzd_handle.h>

namespace {

void GetAndFreeCachedHandle(benchmark::State &state) {
    for (auto _ : state) {
        rvzd_handle_t *handle = nullptr;
        if (rvzd_get_handle(bench::Site::host, &handle) != TBS_ST_OK)
            exit(1);
        rvzd_free_handle(handle);
    }
}

struct Record {
    const char *host;
    uint32_t protocol;
    Record *next;
};

// The hash over the name, one comparison, and the lock taken as often as get and free take it.
void LocksAndBucketWalk(benchmark::State &state) {
    static ivlthread_mutex_t mutex;
    Record record = {bench::Site::host, 1, nullptr};
    Record *buckets[10];
    for (Record *&bucket : buckets)
        bucket = &record;
    for (auto _ : state) {
        for (int taken = 0; taken < 2; ++taken) {
            ivlthread_mutex_lock(&mutex);
            ivlthread_mutex_unlock(&mutex);
        }
        const char *host = bench::Site::host;
        benchmark::DoNotOptimize(host);
        uint32_t hash = 1;
        for (const char *at = host; *at != '\0'; ++at)
            hash = (hash << 5 | hash >> 27) + static_cast<unsigned char>(*at);
        benchmark::DoNotOptimize(strcasecmp(buckets[hash % 10]->host, host));
    }
}

// The part of it that is the system call of a clean-up frame, and the reading of the clock.
void SaveSignalMask(benchmark::State &state) {
    sigjmp_buf jump;
    for (auto _ : state)
        benchmark::DoNotOptimize(sigsetjmp(jump, 1));
}

void ReadClock(benchmark::State &state) {
    timeval now;
    for (auto _ : state) {
        date_get_timeval(&now);
        benchmark::DoNotOptimize(now);
    }
}

BENCHMARK(GetAndFreeCachedHandle);
BENCHMARK(LocksAndBucketWalk);
BENCHMARK(SaveSignalMask);
BENCHMARK(ReadClock);

} // namespace

int main(int argc, char **argv) {
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    return bench::run(argc, argv, {{"GetAndFreeCachedHandle", "LocksAndBucketWalk", 0}},
                      {{"GetAndFreeCachedHandle", 1000}});
}
