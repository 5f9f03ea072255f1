// What a daemon that does not read has been sent.
#pragma once

#include <tests/system/support/site.h>

namespace velia::system_test {

// Whether a request waits in a socket of the site's daemon, of UDP, TCP or of its host, or a caller for its connection.
bool is_request_waiting(const Site &site);

} // namespace velia::system_test
