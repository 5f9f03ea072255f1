// One-way passwords.
#pragma once

#include <string>

namespace velia::server {

// A yescrypt hash with a salt of its own. Throws when the system cannot make one.
std::string hash_of(const std::string &password);

// Takes as long for a password that differs early as for one that differs late.
bool is_password(const std::string &password, const std::string &hash);

} // namespace velia::server
