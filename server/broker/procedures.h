// The broker's procedures: each row is a number, the two records that travel, and the work.
#pragma once

#include <vector>

#include <server/broker/server_table.h>
#include <server/rpc/dispatcher.h>

namespace velia::server {

// The rows that a broker of `protocol` (5 or 6) offers. The table has to outlive them. `on_change` is called after work
// that may have changed what is due when.
std::vector<Procedure> broker_procedures(ServerTable &table, uint32_t protocol, const std::function<void()> &on_change);

} // namespace velia::server
