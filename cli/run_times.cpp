#include <cli/run_times.h>

#include <cstdlib>

#include <cli/messages.h>
#include <cli/output.h>

namespace velia::cli {

std::optional<schedule::Zone> zone_for(const std::string &name) {
    const char *own_zone = getenv("TZ");
    const std::string chosen = !name.empty() ? name : own_zone != nullptr ? own_zone : "";
    auto zone = schedule::read_zone(chosen);
    if (!zone)
        tell_failure(TBS_ST_INVALID_ARG, "", "There is no zone '%s'\n", chosen.c_str());
    return zone;
}

std::string wall_text(const schedule::Zone &zone, int64_t moment) {
    constexpr int64_t seconds_of_minute = 60;
    const int64_t offset = zone.offset_at(moment);
    const time_t wall = moment + offset;
    tm parts = {};
    gmtime_r(&wall, &parts);
    return iso_time(parts, static_cast<int>(offset / seconds_of_minute));
}

} // namespace velia::cli
