// A time zone as data: which offset the clocks of a place have, at any moment. It is read once, by its name, and asked
// without a clock or a file.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velia::schedule {

// From `begin` to just before `end` the clocks are `offset` seconds ahead of UTC.
struct Stretch {
    int64_t begin;
    int64_t end;
    int64_t offset;
};

// The day of a change as a rule names it.
struct RuleDay {
    enum class Form { month_week_day, julian, day_of_year } form = Form::month_week_day;
    int month = 1;    // 1 to 12
    int week = 1;     // 1 to 5, the last
    int day = 0;      // of the week, from Sunday as 0; of the year, with `julian` from 1 and without February 29
    int64_t time = 0; // seconds after midnight, from -167 to 167 hours
};

// What holds behind the last change that a file lists.
struct ZoneRule {
    int64_t standard = 0;
    bool has_daylight = false;
    int64_t daylight = 0;
    RuleDay to_daylight;
    RuleDay to_standard;
};

class Zone {
public:
    struct Change {
        int64_t at;
        int64_t offset;
    };

    Zone() = default; // UTC
    // Changes in the order of their moments; without a rule the last one holds for ever.
    Zone(int64_t first_offset, std::vector<Change> changes, const std::optional<ZoneRule> &rule);

    int64_t offset_at(int64_t moment) const { return stretch_at(moment).offset; }
    Stretch stretch_at(int64_t moment) const;

    // All that meet the moments from `begin` to `end`, in order.
    std::vector<Stretch> stretches(int64_t begin, int64_t end) const;

private:
    Stretch stretch_of_rule(int64_t moment) const;
    int64_t end_of_changes() const;

    int64_t first_offset_ = 0;
    std::vector<Change> changes_;
    std::optional<ZoneRule> rule_;
};

// A rule such as "CET-1CEST,M3.5.0,M10.5.0/3"; none for a text that is no rule.
std::optional<ZoneRule> parse_rule(std::string_view text);

// A zone of the bytes of its file; none for what is no zone file, is cut off, or counts leap seconds.
std::optional<Zone> decode_zone(std::string_view bytes);

// By its name in the system's database, a rule, or the path of a file; the empty name is the host's own zone.
std::optional<Zone> read_zone(const std::string &name);

} // namespace velia::schedule
