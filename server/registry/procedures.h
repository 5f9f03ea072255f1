// The registry's procedures of the broker's program.
#pragma once

#include <vector>

#include <server/registry/service.h>
#include <server/rpc/dispatcher.h>

namespace velia::server {

// The rows of the registry; the service has to outlive them. While it has no registry each answers TBS_ST_NO_SERVER.
std::vector<Procedure> registry_procedures(RegistryService &service);

} // namespace velia::server
