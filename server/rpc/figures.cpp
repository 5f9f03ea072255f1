#include <server/rpc/figures.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <numeric>

namespace velia::server {

// Times below four have a place each; above, an octave is cut into four.
size_t CallFigures::place_of(uint64_t time_us) {
    if (time_us < steps_of_octave)
        return time_us;
    const auto octave = static_cast<size_t>(std::bit_width(time_us)) - 1;
    const size_t step = (time_us >> (octave - 2)) & (steps_of_octave - 1);
    return std::min((octave - 1) * steps_of_octave + step, octaves * steps_of_octave - 1);
}

// The largest time that has this place.
uint64_t CallFigures::end_of(size_t place) {
    if (place < steps_of_octave)
        return place;
    const size_t octave = place / steps_of_octave + 1;
    const uint64_t step = uint64_t{1} << (octave - 2);
    return (uint64_t{1} << octave) + (place % steps_of_octave + 1) * step - 1;
}

void CallFigures::add(uint32_t procedure, int64_t took_us) {
    Counts &counts = procedures_[procedure];
    ++counts.calls;
    const auto time_us = static_cast<uint64_t>(std::max<int64_t>(took_us, 0));
    counts.total_us += time_us;
    ++counts.by_time[place_of(time_us)];
}

uint64_t CallFigures::time_of_share(const Counts &counts, uint64_t per_cent) {
    const uint64_t wanted = (counts.calls * per_cent + 99) / 100;
    uint64_t seen = 0;
    for (size_t place = 0; place < counts.by_time.size(); ++place)
        if ((seen += counts.by_time[place]) >= wanted)
            return end_of(place);
    return 0;
}

std::vector<CallFigures::Row> CallFigures::rows() const {
    std::vector<Row> rows;
    for (const auto &[procedure, counts] : procedures_)
        rows.push_back({procedure, counts.calls, time_of_share(counts, 50), time_of_share(counts, 99)});
    return rows;
}

// Each bound is the end of a place.
std::vector<CallFigures::Spread> CallFigures::spreads() const {
    std::vector<Spread> spreads;
    for (const auto &[procedure, counts] : procedures_) {
        Spread spread = {procedure, counts.calls, counts.total_us, {}};
        for (size_t i = 0; i < bounds_us.size(); ++i) {
            const auto end = counts.by_time.begin() + static_cast<ptrdiff_t>(place_of(bounds_us[i])) + 1;
            spread.up_to[i] = std::accumulate(counts.by_time.begin(), end, uint64_t{0});
        }
        spreads.push_back(spread);
    }
    return spreads;
}

int64_t now_us() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace velia::server
