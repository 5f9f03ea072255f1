// When jobs run, as it is shown: in the zone of the scheduler's host.
#pragma once

#include <optional>
#include <string>

#include <schedule/zone.h>

namespace velia::cli {

// By the name that was given, or else this host's own. None, told, for one that there is not.
std::optional<schedule::Zone> zone_for(const std::string &name);

// What the clocks of the zone show, with their offset.
std::string wall_text(const schedule::Zone &zone, int64_t moment);

} // namespace velia::cli
