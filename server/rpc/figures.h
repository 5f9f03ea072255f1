// How often each procedure was called, and how long its answers took: told as the median and the 99th percentile, to a
// fifth, out of counts that never grow.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace velia::server {

class CallFigures {
public:
    struct Row {
        uint32_t procedure = 0;
        uint64_t calls = 0;
        uint64_t median_us = 0;
        uint64_t p99_us = 0;
    };

    // Up to which times calls are counted for collectors of figures; each holds those of the ones before, too.
    static constexpr std::array<uint64_t, 11> bounds_us = {(1 << 6) - 1,  (1 << 8) - 1,  (1 << 10) - 1, (1 << 12) - 1,
                                                           (1 << 14) - 1, (1 << 16) - 1, (1 << 18) - 1, (1 << 20) - 1,
                                                           (1 << 22) - 1, (1 << 24) - 1, (1 << 26) - 1};
    struct Spread {
        uint32_t procedure = 0;
        uint64_t calls = 0;
        uint64_t total_us = 0;
        std::array<uint64_t, bounds_us.size()> up_to = {};
    };

    void add(uint32_t procedure, int64_t took_us);

    // Those that were called, in the order of their numbers.
    std::vector<Row> rows() const;
    std::vector<Spread> spreads() const;

private:
    static constexpr size_t steps_of_octave = 4;
    static constexpr size_t octaves = 40;
    struct Counts {
        uint64_t calls = 0;
        uint64_t total_us = 0;
        std::array<uint64_t, octaves *steps_of_octave> by_time = {};
    };
    static size_t place_of(uint64_t time_us);
    static uint64_t end_of(size_t place);
    static uint64_t time_of_share(const Counts &counts, uint64_t per_cent);

    std::map<uint32_t, Counts> procedures_;
};

// Of a clock that only goes forward.
int64_t now_us();

} // namespace velia::server
