// The servers of a host, as its table has them.
#pragma once

#include <cstdint>

namespace velia::system_test {

// Prints address, process and path of each server of the program (-1: of all), over UDP or TCP. False if that fails.
bool print_servers(const char *host, int32_t program, uint32_t protocol);

} // namespace velia::system_test
