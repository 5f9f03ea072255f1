// schedule_oracle COUNT [SEED]: as many made-up schedules, over all zones of the system, against the search.
#include <cstdio>
#include <cstdlib>

#include "oracle.h"

int main(int argc, char **argv) {
    const int64_t count = argc > 1 ? atoll(argv[1]) : 1000;
    const uint64_t seed = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1;
    const auto zones = schedule_test::zone_names();
    const auto zone_count = static_cast<int64_t>(zones.size());
    int64_t runs = 0;
    int64_t compared = 0;
    int64_t differences = 0;
    for (int64_t i = 0; i < zone_count; ++i) {
        const int64_t share = count / zone_count + (i < count % zone_count ? 1 : 0);
        differences += schedule_test::count_differences(zones[static_cast<size_t>(i)], share,
                                                        seed + static_cast<uint64_t>(i) * 1000003, runs);
        compared += share;
    }
    printf("%lld schedules in %lld zones, %lld runs, %lld differences\n", static_cast<long long>(compared),
           static_cast<long long>(zone_count), static_cast<long long>(runs), static_cast<long long>(differences));
    return differences == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
