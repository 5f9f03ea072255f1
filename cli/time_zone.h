// Time-zone records as rows.
#pragma once

#include <cli/command.h>
#include <veliaxdr/clnt_timezone.h>

namespace velia::cli {

extern const Output zone_output;

void print_zone(const clnt_tz_info_t &info, int32_t year, const Settings &settings);

// The place of a year on the line; 0 stands for the current one.
Option year_option(int32_t &year);
int32_t year_or_current(int32_t year);

} // namespace velia::cli
