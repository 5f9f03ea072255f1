#include <schedule/zone.h>

#include <algorithm>
#include <limits>

#include <schedule/calendar.h>

namespace velia::schedule {

namespace {

constexpr int64_t for_ever = std::numeric_limits<int64_t>::max();
constexpr int64_t ever_since = std::numeric_limits<int64_t>::min();
constexpr int last_week = 5;

Day day_in_year(const RuleDay &rule, int64_t year) {
    switch (rule.form) {
    case RuleDay::Form::julian: {
        constexpr int march_1 = 60;
        return first_of_month(year, 1) + rule.day - 1 + (is_leap_year(year) && rule.day >= march_1 ? 1 : 0);
    }
    case RuleDay::Form::day_of_year:
        return first_of_month(year, 1) + rule.day;
    default: {
        const Day first = first_of_month(year, rule.month);
        const int weekday_from_monday = (rule.day + 6) % days_of_week;
        Day day = first + (weekday_from_monday - weekday_of(first) + days_of_week) % days_of_week +
                  Day{rule.week - 1} * days_of_week;
        if (rule.week == last_week && day >= first + length_of_month(year, rule.month))
            day -= days_of_week;
        return day;
    }
    }
}

int64_t change_in_year(const RuleDay &rule, int64_t year, int64_t offset_before) {
    return day_in_year(rule, year) * seconds_of_day + rule.time - offset_before;
}

} // namespace

Zone::Zone(int64_t first_offset, std::vector<Change> changes, const std::optional<ZoneRule> &rule)
    : first_offset_(first_offset), changes_(std::move(changes)), rule_(rule) {}

int64_t Zone::end_of_changes() const {
    return changes_.empty() ? ever_since : changes_.back().at;
}

// The changes of a rule lie near the years around the moment. One that changes nothing is none: a rule may have
// daylight time all the year.
Stretch Zone::stretch_of_rule(int64_t moment) const {
    Stretch stretch = {end_of_changes(), for_ever, rule_->standard};
    if (!rule_->has_daylight)
        return stretch;
    const int64_t year = date_of(floor_divide(moment, seconds_of_day)).year;
    std::vector<Change> changes;
    for (int64_t near = year - 2; near <= year + 2; ++near) {
        changes.push_back({change_in_year(rule_->to_daylight, near, rule_->standard), rule_->daylight});
        changes.push_back({change_in_year(rule_->to_standard, near, rule_->daylight), rule_->standard});
    }
    std::stable_sort(changes.begin(), changes.end(),
                     [](const Change &left, const Change &right) { return left.at < right.at; });
    for (size_t i = 0; i < changes.size(); ++i) {
        const bool is_undone_at_once = i + 1 < changes.size() && changes[i + 1].at == changes[i].at;
        if (is_undone_at_once || changes[i].offset == stretch.offset)
            continue;
        if (changes[i].at > moment) {
            stretch.end = changes[i].at;
            break;
        }
        stretch.begin = std::max(changes[i].at, end_of_changes());
        stretch.offset = changes[i].offset;
    }
    return stretch;
}

Stretch Zone::stretch_at(int64_t moment) const {
    const auto next = std::upper_bound(changes_.begin(), changes_.end(), moment,
                                       [](int64_t time, const Change &change) { return time < change.at; });
    if (next == changes_.end() && rule_)
        return stretch_of_rule(moment);
    return {next == changes_.begin() ? ever_since : std::prev(next)->at, next == changes_.end() ? for_ever : next->at,
            next == changes_.begin() ? first_offset_ : std::prev(next)->offset};
}

std::vector<Stretch> Zone::stretches(int64_t begin, int64_t end) const {
    std::vector<Stretch> found = {stretch_at(begin)};
    while (found.back().end <= end)
        found.push_back(stretch_at(found.back().end));
    return found;
}

} // namespace velia::schedule
