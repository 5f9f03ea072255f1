// Where the daemon listens for something of its own: an address and port, or a socket in the file system.
#pragma once

#include <optional>
#include <string>

#include <support/ks.h>

namespace velia::server {

struct Place {
    std::string path; // empty: the address
    ks_sockaddr_storage_t address = {};
};

// "ADDRESS:PORT", "[IPV6 ADDRESS]:PORT" or an absolute path; none for anything else. No name is looked up.
std::optional<Place> place_of_text(const std::string &text);

} // namespace velia::server
