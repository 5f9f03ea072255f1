// Run days come from the calendar; a day's starts are times that the wall shows, and the zone makes moments of them. In
// each stretch between two changes of the clocks that is a matter of one division.
#include <schedule/next_start.h>

#include <algorithm>
#include <vector>

#include <schedule/run_days.h>
#include <veliaxdr/sched_check.h>

namespace velia::schedule {

namespace {

// No clock is farther from UTC, so a day's moments lie that near to it; and a change may skip a day.
constexpr int64_t offset_max = 26 * 3600;

// The starts of one day on the wall: seconds since 1 January 1970 as if clocks showed UTC.
struct Series {
    int64_t first;
    int64_t step; // 0: no restarts
    int64_t last; // of the restarts

    // The first restart that the wall shows at `least` or later.
    std::optional<int64_t> restart_from(int64_t least) const {
        if (step == 0)
            return std::nullopt;
        const int64_t count = std::max<int64_t>(1, floor_divide(least - first + step - 1, step));
        const int64_t wall = first + count * step;
        return wall <= last ? std::optional(wall) : std::nullopt;
    }
    bool has_any(int64_t begin, int64_t end) const {
        const auto restart = restart_from(begin);
        return (first >= begin && first < end) || (restart && *restart < end);
    }
};

class DayStarts {
public:
    DayStarts(const Zone &zone, Day day, const Series &series, std::optional<int64_t> at_once)
        : series_(series),
          stretches_(zone.stretches(day * seconds_of_day - offset_max, (day + 2) * seconds_of_day + offset_max)),
          first_(at_once ? Start{*at_once, Shift::none} : first_of_day()) {}

    std::optional<Start> after(int64_t moment) const {
        std::optional<Start> best;
        const auto consider = [&](const Start &start) {
            if (start.at > moment && (!best || start.at < best->at))
                best = start;
        };
        consider(first_);
        for (size_t i = 0; i < stretches_.size(); ++i) {
            const Stretch &stretch = stretches_[i];
            const int64_t least = std::max({stretch.begin, moment + 1, first_.at + 1});
            if (least >= stretch.end)
                continue;
            const auto wall = series_.restart_from(least + stretch.offset);
            if (wall && *wall - stretch.offset < stretch.end)
                consider({*wall - stretch.offset, shift_of(*wall, i)});
            if (skips_start(i))
                consider({stretch.begin, Shift::moved});
        }
        return best;
    }

private:
    // Whether the clocks go forward at the beginning of the stretch, over one of the day's starts.
    bool skips_start(size_t i) const {
        if (i == 0)
            return false;
        const int64_t begin = stretches_[i].begin;
        return series_.has_any(begin + stretches_[i - 1].offset, begin + stretches_[i].offset);
    }

    static bool shows(const Stretch &stretch, int64_t wall) {
        return wall - stretch.offset >= stretch.begin && wall - stretch.offset < stretch.end;
    }

    Shift shift_of(int64_t wall, size_t at) const {
        for (size_t i = 0; i < stretches_.size(); ++i)
            if (i != at && shows(stretches_[i], wall))
                return i < at ? Shift::second : Shift::first;
        return Shift::none;
    }

    Start first_of_day() const {
        for (size_t i = 0; i < stretches_.size(); ++i) {
            const Stretch &stretch = stretches_[i];
            if (i > 0 && series_.first < stretch.begin + stretch.offset)
                return {stretch.begin, Shift::moved};
            if (shows(stretch, series_.first))
                return {series_.first - stretch.offset, shift_of(series_.first, i)};
        }
        return {series_.first - stretches_.back().offset, Shift::none};
    }

    Series series_;
    std::vector<Stretch> stretches_;
    Start first_;
};

// Moments beyond the days that count are just beyond them.
Day local_day(const Zone &zone, int64_t moment) {
    const int64_t held = std::clamp(moment, day_min * seconds_of_day, (day_max + 2) * seconds_of_day);
    return floor_divide(held + zone.offset_at(held), seconds_of_day);
}

Day day_of_date(const Spec &spec, int64_t date) {
    return local_day(*spec.zone, date == SCHED_DATE_NOW ? spec.changed : date);
}

Lifetime lifetime_of(const Spec &spec, const sched_sched_lifetime_t &lifetime) {
    return {lifetime.start_date == 0 ? 0 : day_of_date(spec, lifetime.start_date),
            lifetime.last_date == 0 ? day_max : day_of_date(spec, lifetime.last_date)};
}

DayStarts starts_of(const Spec &spec, const sched_sched_start_times_t &times, Day day) {
    const bool is_given = times.first_start_time != SCHED_TIME_NOT_GIVEN;
    const bool is_at_once = !is_given && day == local_day(*spec.zone, spec.created);
    const int64_t midnight = day * seconds_of_day;
    Series series = {midnight + (is_given ? times.first_start_time : 0), times.restart_frequency,
                     midnight + std::min<int64_t>(times.last_start_time, seconds_of_day)};
    if (is_at_once)
        series.first = spec.created + spec.zone->offset_at(spec.created);
    return {*spec.zone, day, series, is_at_once ? std::optional(spec.created) : std::nullopt};
}

} // namespace

// Days overlap where clocks are put back over midnight, so the earliest of all those that may have it is sought.
std::optional<Start> next_start(const Spec &spec, int64_t after) {
    constexpr Day days_around = 3;
    const auto *common = sched_utl_get_common_sched(const_cast<sched_schedule_t *>(spec.schedule));
    const bool is_after_all = after == INT64_MAX;
    if (common == nullptr || is_after_all)
        return std::nullopt;
    const Lifetime lifetime = lifetime_of(spec, common->lifetime);
    std::optional<Start> best;
    auto day = next_run_day(*spec.schedule, lifetime, local_day(*spec.zone, after) - days_around);
    while (day && (!best || *day * seconds_of_day - offset_max <= best->at)) {
        const auto start = starts_of(spec, common->start_times, *day).after(after);
        if (start && (!best || start->at < best->at))
            best = start;
        day = next_run_day(*spec.schedule, lifetime, *day + 1);
    }
    return best;
}

} // namespace velia::schedule
