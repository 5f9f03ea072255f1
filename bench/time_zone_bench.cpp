// The time-zone record: with a warm cache, against the one stat of the zone file that it costs and the C library's part
// of it; and cold, against reading the bytes of the file.
#include <bench/support/ratio.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <support/imsg.h>
#include <veliaxdr/clnt_timezone.h>

namespace {

constexpr char zone_name[] = "Europe/Berlin";
constexpr char other_name[] = "Europe/Vienna";
constexpr char zone_path[] = "/usr/share/zoneinfo/Europe/Berlin";
constexpr int year = 2026;

void get_and_free() {
    clnt_tz_info_t *info = nullptr;
    if (clnt_tz_get_info(year, &info) != CLNT_TZ_OK || (info->flags & CLNT_TZ_ST_TRANS) == 0)
        exit(1);
    benchmark::DoNotOptimize(info);
    clnt_tz_free_info(&info);
}

void GetRecordWarm(benchmark::State &state) {
    setenv("TZ", zone_name, 1);
    for (auto _ : state)
        get_and_free();
}

// Each round finds another value of TZ, as a first call does.
void GetRecordCold(benchmark::State &state) {
    bool is_other = false;
    for (auto _ : state) {
        setenv("TZ", is_other ? other_name : zone_name, 1);
        is_other = !is_other;
        get_and_free();
    }
    setenv("TZ", zone_name, 1);
}

void StatZoneFile(benchmark::State &state) {
    struct stat status;
    for (auto _ : state)
        benchmark::DoNotOptimize(stat(zone_path, &status));
}

// What the C library has to do for a record: the zone, the time now, the start of the year.
void start_of_year() {
    struct tm moment = {};
    moment.tm_mday = 1;
    moment.tm_year = year - 1900;
    benchmark::DoNotOptimize(mktime(&moment));
}

void ask_c_library() {
    tzset();
    const time_t now = time(nullptr);
    struct tm local;
    benchmark::DoNotOptimize(localtime_r(&now, &local));
    start_of_year();
}

void StatAndCLibrary(benchmark::State &state) {
    setenv("TZ", zone_name, 1);
    struct stat status;
    for (auto _ : state) {
        benchmark::DoNotOptimize(stat(zone_path, &status));
        ask_c_library();
    }
}

// The file is read twice, once by the C library for itself.
void ReadBytesAndCLibrary(benchmark::State &state) {
    static char bytes[65536];
    bool is_other = false;
    for (auto _ : state) {
        setenv("TZ", is_other ? other_name : zone_name, 1);
        is_other = !is_other;
        ask_c_library();
        const int descriptor = open(zone_path, O_RDONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(read(descriptor, bytes, sizeof bytes));
        close(descriptor);
    }
    setenv("TZ", zone_name, 1);
}

void ignore_message(void *, int, const char *, const imsg_table_t *, int, const char *) {}

BENCHMARK(GetRecordWarm);
BENCHMARK(GetRecordCold);
BENCHMARK(StatZoneFile);
BENCHMARK(StatAndCLibrary);
BENCHMARK(ReadBytesAndCLibrary);

} // namespace

int main(int argc, char **argv) {
    imsg_set_sink(ignore_message, nullptr);
    return bench::run(argc, argv,
                      {{"GetRecordWarm", "StatZoneFile", 0},
                       {"GetRecordWarm", "StatAndCLibrary", 0},
                       {"GetRecordCold", "ReadBytesAndCLibrary", 0}});
}
