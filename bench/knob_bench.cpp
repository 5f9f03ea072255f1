// Settings: the value in force from a host's file, against the bare opening, reading and closing of that file; from the
// default; from a site with ten settings through a real daemon; and looking a setting up by its name.
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_knob.h>

namespace {

constexpr uint32_t view_cache_size = 1;
constexpr uint32_t site_name = 13;
constexpr uint32_t lyfs_mnmax = 31; // with a host's file
constexpr int site_settings = 10;   // that the site has set

std::string host_file;

void require(bool holds, const char *what) {
    if (holds)
        return;
    fprintf(stderr, "%s failed\n", what);
    exit(1);
}

void ValueFromHostFile(benchmark::State &state) {
    for (auto _ : state) {
        int32_t value = 0;
        require(rvzd_knob_get_integer(lyfs_mnmax, nullptr, &value) == TBS_ST_OK && value == 7, "the host's value");
    }
}

void OpenReadClose(benchmark::State &state) {
    char bytes[64];
    for (auto _ : state) {
        const int descriptor = open(host_file.c_str(), O_RDONLY | O_CLOEXEC);
        require(read(descriptor, bytes, sizeof bytes) == 2, "the bare reading");
        close(descriptor);
    }
}

void ValueFromDefault(benchmark::State &state) {
    for (auto _ : state) {
        int32_t value = 0;
        tbs_boolean_t found = 0;
        rvzd_knoblet_get_integer(view_cache_size, KNOBLET_DEFAULT, nullptr, &found, &value);
        require(found != 0, "the default");
    }
}

void ValueFromSite(benchmark::State &state) {
    char buffer[RVZD_KNOB_TEXT_SIZE];
    for (auto _ : state)
        require(rvzd_knob_get_string(site_name, nullptr, sizeof buffer, buffer) == TBS_ST_OK && buffer[0] == 'l',
                "the site's value");
}

void LookupByName(benchmark::State &state) {
    for (auto _ : state) {
        uint32_t id;
        require(rvzd_knob_id_by_name("server_group_lifetime", &id) == TBS_ST_OK, "the last name");
        benchmark::DoNotOptimize(id);
    }
}

void set_up(const bench::Site &site) {
    std::filesystem::create_directories(site.root() + "/host/data/lyfsconfig");
    host_file = site.root() + "/host/data/lyfsconfig/lyfs_mnmax";
    std::ofstream(host_file) << "7\n";
    int set = 0;
    uint32_t id;
    for (int32_t cursor = rvzd_knob_next_with_knoblet(KNOBLET_SYNC_SITE, 0, &id);
         cursor != 0 && set < site_settings - 1; cursor = rvzd_knob_next_with_knoblet(KNOBLET_SYNC_SITE, cursor, &id)) {
        rvzd_knob_type_t type;
        rvzd_knob_type(id, &type);
        if (type == KNOB_INTEGER && rvzd_knoblet_set_integer(id, KNOBLET_SYNC_SITE, nullptr, 100) == TBS_ST_OK)
            ++set;
    }
    require(rvzd_knoblet_set_string(site_name, KNOBLET_SYNC_SITE, nullptr, "lab") == TBS_ST_OK, "the site's setting");
}

BENCHMARK(ValueFromHostFile)->UseRealTime();
BENCHMARK(OpenReadClose)->UseRealTime();
BENCHMARK(ValueFromDefault)->UseRealTime();
BENCHMARK(ValueFromSite)->UseRealTime();
BENCHMARK(LookupByName)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    set_up(site);
    return bench::run(argc, argv, {{"ValueFromHostFile", "OpenReadClose", 0}},
                      {{"ValueFromDefault", 300}, {"LookupByName", 100}});
}
