// A pathname and the name of a pool through a map of 32 pairs, of which the last one matches, against the least that
// they cost: 32 comparisons of memory and one copy.
#include <bench/support/ratio.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <benchmark/benchmark.h>

#include <veliaxdr/poolmap.h>

namespace {

constexpr size_t pair_count = 32;
constexpr size_t buffer_size = 1024;

struct Map {
    stg_area_t area = stg_create_area(8192);
    size_t count = 0;
    poolmap_elem_t *prefixes = nullptr;
    poolmap_elem_t *targets = nullptr;
    std::string path; // below the last prefix
    std::string pool; // the last prefix itself
    std::string translated_path;

    Map() {
        std::string text;
        for (size_t i = 0; i < pair_count; ++i) {
            char pair[128];
            snprintf(pair, sizeof pair, "/srv/vaults/pool%02zu/=/net/pluto/export/pool%02zu/|", i, i);
            text += pair;
        }
        if (poolmap_crack_mapstring(text.data(), area, &count, &prefixes, &targets) != TBS_ST_OK)
            exit(1);
        const auto &last = prefixes[count - 1];
        pool.assign(last.text, last.length - 1);
        const std::string rest = "s/0a/17/source.c";
        path = last.text + rest;
        translated_path = targets[count - 1].text + rest;
    }
    ~Map() { stg_delete_area(&area); }
    Map(const Map &) = delete;
    Map &operator=(const Map &) = delete;
};

const Map &map() {
    static const Map the_map;
    return the_map;
}

void TranslatePathname(benchmark::State &state) {
    const Map &given = map();
    std::array<char, buffer_size> buffer;
    for (auto _ : state) {
        if (poolmap_translate_pathname(given.path.c_str(), given.count, given.prefixes, given.targets, buffer.size(),
                                       buffer.data()) != TBS_ST_OK)
            exit(1);
        benchmark::DoNotOptimize(buffer);
    }
    if (given.translated_path != buffer.data())
        exit(1);
}

void TranslatePoolname(benchmark::State &state) {
    const Map &given = map();
    std::array<char, buffer_size> buffer;
    for (auto _ : state) {
        if (poolmap_translate_poolname(given.pool.c_str(), given.count, given.prefixes, given.targets, buffer.size(),
                                       buffer.data()) != TBS_ST_OK)
            exit(1);
        benchmark::DoNotOptimize(buffer);
    }
}

void CompareAndCopy(benchmark::State &state) {
    const Map &given = map();
    std::array<char, buffer_size> buffer;
    for (auto _ : state) {
        const char *path = given.path.c_str();
        benchmark::DoNotOptimize(path);
        for (size_t i = 0; i < given.count; ++i)
            benchmark::DoNotOptimize(memcmp(path, given.prefixes[i].text, given.prefixes[i].length));
        memcpy(buffer.data(), given.translated_path.c_str(), given.translated_path.size() + 1);
        benchmark::DoNotOptimize(buffer);
    }
}

BENCHMARK(TranslatePathname);
BENCHMARK(TranslatePoolname);
BENCHMARK(CompareAndCopy);

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv,
                      {{"TranslatePathname", "CompareAndCopy", 0}, {"TranslatePoolname", "CompareAndCopy", 0}});
}
