// veliactl tz: the time zone of this process.
#include <cli/time_zone.h>

#include <ctime>
#include <iostream>
#include <memory>

#include <fmt/format.h>

#include <support/imsg.h>

namespace velia::cli {

namespace {

constexpr int year_base = 1900;

constexpr const char *footer = R"(Examples:
  veliactl tz 2026
  TZ=Europe/Berlin veliactl tz 2026 --output json
)";

Cell date_cell(const clnt_tz_date_t &date, bool is_known) {
    if (!is_known)
        return {};
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", date.year + year_base, date.month + 1, date.mday,
                       date.hour, date.min, date.sec);
}

int print_own_zone(int32_t year, const Settings &settings) {
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

void print_zone(const clnt_tz_info_t &info, int32_t year, const Settings &settings) {
    const auto knows = [&](uint32_t flag) { return (info.flags & flag) != 0; };
    Results results({"year", "standard", "daylight", "minutes_west", "daylight_bias", "to_daylight", "to_standard"});
    results.add({year, knows(CLNT_TZ_ST_NAME) ? Cell(info.st_name) : Cell(),
                 knows(CLNT_TZ_DT_NAME) && info.dt_name[0] != '\0' ? Cell(info.dt_name) : Cell(),
                 knows(CLNT_TZ_OFFSET) ? Cell(info.offset) : Cell(), knows(CLNT_TZ_BIAS) ? Cell(info.bias) : Cell(),
                 date_cell(info.dt_trans, knows(CLNT_TZ_DT_TRANS)), date_cell(info.st_trans, knows(CLNT_TZ_ST_TRANS))});
    results.print(settings.format, settings.with_headers, std::cout);
}

int32_t year_or_current(int32_t year) {
    if (year != 0)
        return year;
    const time_t now = time(nullptr);
    tm parts = {};
    localtime_r(&now, &parts);
    return parts.tm_year + year_base;
}

void add_time_zone_command(CLI::App &app, Settings &settings, Command &chosen) {
    auto year = std::make_shared<int32_t>(0);
    CLI::App *command = app.add_subcommand("tz", "Tell the time zone of this process");
    command->add_option("YEAR", *year, "year of the changes (default: this one)")->type_name("");
    add_common_options(*command, settings);
    command->footer(std::string(footer) + "\n" + exit_status_help);
    command->callback([year, &chosen] {
        chosen = [year](const Settings &given) { return print_own_zone(year_or_current(*year), given); };
    });
}

} // namespace velia::cli
