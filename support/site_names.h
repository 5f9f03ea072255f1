// The site's own host and service files.
#pragma once

#include <netdb.h>

namespace velia::support {

// Stores the addresses that config/hosts.conf gives `host` as a list in `*result`, which is null before, with `port`
// (decimal text) and socket type as told. Returns 0, also with no list if the file does not have the host, else an EAI_
// code.
int find_site_host(const char *host, const char *port, int socket_type, addrinfo **result);

// Stores the port that config/services.conf gives `service` for the transport of `socket_type` in `port`, 0 for none.
// Returns 0, or EAI_SYSTEM, with errno, when the file cannot be read for the moment.
int find_site_service(const char *service, int socket_type, unsigned &port);

// True of the errno values that say nothing about a file: no memory or no descriptor is left to look at it with.
bool lacks_means(int error_number);

} // namespace velia::support
