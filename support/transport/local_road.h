// Calls to the broker of this host go to it over its socket in the file system, where the kernel tells whose they are,
// whatever transport the client was made for. Where there is no such socket they go by that transport.
#pragma once

#include "client.h"

namespace velia::support::transport {

// Looks for the road to the client's peer: at its making, and when it has turned to another. The descriptor is -1
// before.
void look_for_local_road(Client &client);

bool has_local_road(const Client &client);

// Makes the call over the road. False where there is none, or none any more: the call is then to be made by the
// client's transport.
bool exchange_locally(Client &client, const Call &call, int64_t until_us, bool waits);

void leave_local_road(Client &client);

} // namespace velia::support::transport
