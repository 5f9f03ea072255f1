// veliactl tz: the time zone of this process.
#include <cli/time_zone.h>

#include <ctime>

#include <fmt/core.h>

#include <cli/commands.h>
#include <cli/results.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

constexpr int year_base = 1900;
constexpr time_t minutes_a_day = 24 * 60;

struct Arguments {
    int32_t year = 0;
};

Options options_of(Arguments &arguments) {
    return {year_option(arguments.year)};
}

int print_own_zone(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {
    {"year", Type::integer, "of the changes"},
    {"standard", Type::text, "name of standard time", true},
    {"daylight", Type::text, "name of daylight time", true},
    {"minutes_west", Type::integer, "of UTC, for standard time", true},
    {"daylight_bias", Type::integer, "minutes by which daylight time differs from standard time", true},
    {"to_daylight", Type::time, "when clocks go forward, as they show it before", true},
    {"to_standard", Type::time, "when clocks go back, as they show it before", true}};

constexpr Command commands[] = {
    {.path = "tz",
     .help = "Tell the time zone of this process",
     .examples = {"veliactl tz 2026", "TZ=Europe/Berlin veliactl tz 2026 --output json"},
     .make = call_of<print_own_zone, options_of>,
     .output = &zone_output},
};

// A zone without daylight time has a rule all the same, whose date is all zeros; and a peer may send anything.
bool is_date(const clnt_tz_date_t &date) {
    const auto is_within = [](int32_t value, int32_t least, int32_t most) { return value >= least && value <= most; };
    return is_within(date.year, -year_base, 9999 - year_base) && is_within(date.month, 0, 11) &&
           is_within(date.mday, 1, 31) && is_within(date.hour, 0, 24) && is_within(date.min, 0, 59) &&
           is_within(date.sec, 0, 60);
}

Cell date_cell(const clnt_tz_date_t &date, bool is_known, time_t minutes_west) {
    if (!is_known || !is_date(date) || minutes_west <= -minutes_a_day || minutes_west >= minutes_a_day)
        return {};
    tm parts = {};
    parts.tm_year = date.year;
    parts.tm_mon = date.month;
    parts.tm_mday = date.mday;
    parts.tm_hour = date.hour;
    parts.tm_min = date.min;
    parts.tm_sec = date.sec;
    const std::string shown = fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", date.year + year_base, date.month + 1,
                                          date.mday, date.hour, date.min, date.sec);
    return Cell::told(iso_time(parts, static_cast<int>(-minutes_west)), shown);
}

int print_own_zone(const Arguments &arguments, const Settings &settings) {
    const int32_t year = year_or_current(arguments.year);
    clnt_tz_info_t *info = nullptr;
    const auto status = clnt_tz_get_info(year, &info);
    if (status != CLNT_TZ_OK) {
        clnt_tz_status_msg(status);
        return exit_failed;
    }
    print_zone(*info, year, settings);
    clnt_tz_free_info(&info);
    return exit_done;
}

} // namespace

const Output zone_output = {Output::Shape::one, columns};

void print_zone(const clnt_tz_info_t &info, int32_t year, const Settings &settings) {
    const auto knows = [&](uint32_t flag) { return (info.flags & flag) != 0; };
    const auto minutes_west = [](time_t standard, time_t bias) {
        time_t sum = 0;
        return __builtin_add_overflow(standard, bias, &sum) ? minutes_a_day : sum;
    };
    Results results(zone_output, settings);
    results.add({year, knows(CLNT_TZ_ST_NAME) ? Cell(info.st_name) : Cell(),
                 knows(CLNT_TZ_DT_NAME) && info.dt_name[0] != '\0' ? Cell(info.dt_name) : Cell(),
                 knows(CLNT_TZ_OFFSET) ? Cell(info.offset) : Cell(), knows(CLNT_TZ_BIAS) ? Cell(info.bias) : Cell(),
                 date_cell(info.dt_trans, knows(CLNT_TZ_DT_TRANS), info.offset),
                 date_cell(info.st_trans, knows(CLNT_TZ_ST_TRANS), minutes_west(info.offset, info.bias))});
    results.finish();
}

Option year_option(int32_t &year) {
    return {.name = "YEAR", .help = "year of the changes (default: this one)", .target = &year};
}

int32_t year_or_current(int32_t year) {
    if (year != 0)
        return year;
    const time_t now = time(nullptr);
    tm parts = {};
    localtime_r(&now, &parts);
    return parts.tm_year + year_base;
}

const Commands time_zone_commands = commands;

} // namespace velia::cli
