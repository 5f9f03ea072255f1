// The daemon's figures for collectors of figures: those that "daemon status" has.
#pragma once

#include <string>

#include <server/daemon/status.h>
#include <server/rpc/figures.h>

namespace velia::server {

std::string metrics_text(const DaemonFigures &figures, const RegistryBytes &bytes, const CallFigures &calls,
                         time_t now);

} // namespace velia::server
