// The site's own host and service files.
#pragma once

#include <netdb.h>

namespace velia::support {

// Stores the addresses that config/hosts.conf gives `host` as a list in `*result`, which is null before, with `port`
// (decimal text) and socket type as told. Returns 0, also with no list if the file does not have the host, else an EAI_
// code.
int find_site_host(const char *host, const char *port, int socket_type, addrinfo **result);

// The port that config/services.conf gives `service` for the transport of `socket_type`; 0 for none.
unsigned find_site_service(const char *service, int socket_type);

} // namespace velia::support
