#include "words.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <schedule/calendar.h>
#include <veliaxdr/sched_check.h>

using namespace velia::schedule;

namespace schedule_test {

namespace {

constexpr int64_t seconds_of_minute = 60;

// The calendar of the words is a computation of its own.
int64_t days_from_civil(int64_t year, int64_t month, int64_t day) {
    int64_t days = day - 1;
    for (int64_t y = 1970; y < year; ++y)
        days += is_leap_year(y) ? 366 : 365;
    for (int m = 1; m < month; ++m)
        days += length_of_month(year, m);
    return days;
}

// Of the first of two, and behind a gap where there is none.
int64_t moment_of(const Zone &zone, int64_t wall) {
    for (int64_t moment = wall - 26 * 3600; moment <= wall + 26 * 3600; moment += seconds_of_minute)
        if (moment + zone.offset_at(moment) == wall)
            return moment;
    return 0;
}

bool read_time(const std::string &text, uint32_t &seconds) {
    unsigned hours = 0;
    unsigned minutes = 0;
    const bool is_time = sscanf(text.c_str(), "%u:%u", &hours, &minutes) == 2;
    seconds = hours * 3600 + minutes * 60;
    return is_time;
}

bool read_moment(const Zone &zone, const std::string &text, int64_t &moment) {
    int year = 0;
    int month = 1;
    int day = 1;
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    if (sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &year, &month, &day, &hours, &minutes, &seconds) < 3)
        return false;
    moment =
        moment_of(zone, days_from_civil(year, month, day) * seconds_of_day + hours * 3600 + minutes * 60) + seconds;
    return true;
}

std::string told_run(const Zone &zone, const Start &start) {
    const int64_t offset = zone.offset_at(start.at);
    const int64_t wall = start.at + offset;
    const Date date = date_of(floor_divide(wall, seconds_of_day));
    const int64_t of_day = floor_rest(wall, seconds_of_day);
    const int64_t east = offset < 0 ? -offset : offset;
    char text[128];
    int length = snprintf(text, sizeof text, "runs %04d-%02d-%02d %02d:%02d", static_cast<int>(date.year), date.month,
                          date.day, static_cast<int>(of_day / 3600), static_cast<int>(of_day / 60 % 60));
    if (of_day % 60 != 0)
        length +=
            snprintf(text + length, sizeof text - static_cast<size_t>(length), ":%02d", static_cast<int>(of_day % 60));
    constexpr const char *shifts[] = {"", " moved", " first of two", " second of two"};
    snprintf(text + length, sizeof text - static_cast<size_t>(length), " %c%02d%02d%s", offset < 0 ? '-' : '+',
             static_cast<int>(east / 3600), static_cast<int>(east / 60 % 60), shifts[static_cast<int>(start.shift)]);
    return text;
}

std::vector<std::string> split(const std::string &text, char at) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, at);) {
        part.erase(0, part.find_first_not_of(' '));
        parts.push_back(part);
    }
    return parts;
}

// "31", or "Last Fri".
bool read_month_day(const std::string &text, sched_monthly_sched_t &monthly) {
    const auto words = split(text, ' ');
    if (words.size() == 1) {
        monthly.day.number = static_cast<uint32_t>(atoi(text.c_str()));
        return monthly.day.number > 0;
    }
    monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
    monthly.day.kind = {sched_utl_mds_ordinal_from_str(words[0].c_str()),
                        sched_utl_mds_kind_from_str(words[1].c_str())};
    return words.size() == 2;
}

bool read_frequency(const std::string &text, sched_schedule_t &schedule) {
    int frequency = 0;
    char unit[16] = "";
    if (sscanf(text.c_str(), "every %d %15s", &frequency, unit) != 2)
        return false;
    const auto on = text.find(" on ");
    const std::string day = on == std::string::npos ? "" : text.substr(on + 4);
    if (strcmp(unit, "days") == 0) {
        schedule.kind = SCHED_KIND_DAILY;
        schedule.u.daily.frequency = frequency;
    } else if (strcmp(unit, "weeks") == 0) {
        schedule.kind = SCHED_KIND_WEEKLY;
        schedule.u.weekly.frequency = frequency;
        auto days = day;
        std::replace(days.begin(), days.end(), ' ', ',');
        schedule.u.weekly.days = sched_utl_dow_mask_from_str(days.c_str());
    } else if (strcmp(unit, "months") == 0) {
        schedule.kind = SCHED_KIND_MONTHLY;
        schedule.u.monthly.frequency = frequency;
        return read_month_day(day, schedule.u.monthly);
    }
    return schedule.kind != 0;
}

bool read_date(const Zone &zone, const std::string &text, time_t &date) {
    if (text == "now") {
        date = SCHED_DATE_NOW;
        return true;
    }
    return read_moment(zone, text + " 12:00", date);
}

// A piece of the schedule's line behind the first.
bool read_piece(const Zone &zone, const std::string &piece, sched_common_sched_t &common) {
    const auto space = piece.find(' ');
    const std::string word = piece.substr(0, space);
    const std::string value = space == std::string::npos ? "" : piece.substr(space + 1);
    if (word == "first")
        return read_time(value, common.start_times.first_start_time);
    if (word == "again")
        return read_time(value, common.start_times.restart_frequency);
    if (word == "until")
        return read_time(value, common.start_times.last_start_time);
    if (word == "from")
        return read_date(zone, value, common.lifetime.start_date);
    return word == "to" && read_date(zone, value, common.lifetime.last_date);
}

bool read_schedule(const std::string &line, Example &example) {
    const auto pieces = split(line, ',');
    if (!read_frequency(pieces[0], example.schedule))
        return false;
    sched_common_sched_t &common = *sched_utl_get_common_sched(&example.schedule);
    common.start_times.first_start_time = SCHED_TIME_NOT_GIVEN;
    return std::all_of(pieces.begin() + 1, pieces.end(),
                       [&](const std::string &piece) { return read_piece(example.zone, piece, common); });
}

bool read_zone_line(const std::string &name, Example &example) {
    const auto zone = read_zone(name);
    example.zone = zone.value_or(Zone());
    return zone.has_value();
}

bool read_line(const std::string &line, Example &example) {
    const auto space = line.find(' ');
    const std::string word = line.substr(0, space);
    const std::string value = space == std::string::npos ? "" : line.substr(space + 1);
    if (word == "zone")
        return read_zone_line(value, example);
    if (word == "made") {
        const bool is_read = read_moment(example.zone, value, example.created);
        example.changed = example.created;
        example.after = example.created - 1;
        return is_read;
    }
    if (word == "changed") {
        const bool is_read = read_moment(example.zone, value, example.changed);
        example.after = example.changed - 1;
        return is_read;
    }
    if (word == "after")
        return read_moment(example.zone, value, example.after);
    if (word == "runs" || word == "ends") {
        example.told.push_back(line);
        return true;
    }
    return read_schedule(line, example);
}

} // namespace

Example read_example(const std::string &text) {
    Example example;
    for (const auto &line : split(text, '\n'))
        if (!line.empty() && example.fault.empty() && !read_line(line, example))
            example.fault = line;
    return example;
}

std::vector<std::string> runs_of(const Example &example) {
    const Spec spec = {&example.schedule, &example.zone, example.created, example.changed};
    std::vector<std::string> runs;
    int64_t after = example.after;
    while (runs.size() < example.told.size()) {
        const auto start = next_start(spec, after);
        runs.push_back(start ? told_run(example.zone, *start) : "ends");
        if (!start)
            break;
        after = start->at;
    }
    return runs;
}

std::string first_runs(const std::string &text, int count) {
    Example example = read_example(text);
    if (!example.fault.empty())
        return "no example: " + example.fault;
    example.told.resize(static_cast<size_t>(count));
    std::string lines;
    for (const auto &run : runs_of(example))
        lines += run + "\n";
    return lines;
}

} // namespace schedule_test
