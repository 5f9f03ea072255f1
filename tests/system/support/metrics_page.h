// The page of figures at a socket of a daemon.
#pragma once

#include <string>

namespace velia::system_test {

// With its head; empty without an answer.
std::string page_at(const std::string &socket_name, const std::string &target = "/metrics");

} // namespace velia::system_test
