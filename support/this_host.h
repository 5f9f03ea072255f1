// The names of this host.
#pragma once

namespace velia::support {

// With VELIA_HOSTNAME set, the machine's own name (whole, without case) stands for the host that it names: callers ask
// the system for their host's name and get the machine's. Any other name is given back as it is.
const char *as_this_host(const char *host);

} // namespace velia::support
