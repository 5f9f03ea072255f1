// What the broker tells of its host, and of the hosts that have used it.
#pragma once

#include <functional>
#include <vector>

#include <server/clients/client_list.h>
#include <server/rpc/dispatcher.h>

namespace velia::server {

// The rows that a broker of `protocol` (5 or 6) offers. The list has to outlive them. `on_change` is called when the
// list has changed.
std::vector<Procedure> client_procedures(ClientList &list, uint32_t protocol, const std::function<void()> &on_change);

} // namespace velia::server
