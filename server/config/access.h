// What hosts may ask whose calls come over IP: the access lines of the configuration.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include <support/sysutl.h>

namespace velia::server {

// The words of an access line.
enum AccessRight : uint32_t {
    ACCESS_READ = 1,
    ACCESS_REGISTER = 2, // as a client host
    ACCESS_WRITE = 4,
    ACCESS_ADMINISTER = 8,
};

// What hosts may that no line names.
constexpr uint32_t access_by_default = ACCESS_READ | ACCESS_REGISTER;

// An address of 16 bytes, IPv4 in its IPv6 wrapping, so that one comparison serves both.
using AddressBytes = std::array<uint8_t, 16>;

AddressBytes address_bytes(const ks_sockaddr_storage_t &address);

// True when the first `bits` bits are the same.
bool share_prefix(const AddressBytes &left, const AddressBytes &right, uint32_t bits);

struct AccessLine {
    AddressBytes address = {};
    uint32_t bits = 0; // that have to agree
    uint32_t rights = 0;
    bool operator==(const AccessLine &) const = default;
};

// "ADDRESS", "ADDRESS/BITS" or "any". None, and why in `fault`, for anything else.
std::optional<AccessLine> access_line(std::string_view place, std::string_view rights, const char *&fault);

// Of the first line that names the address.
uint32_t rights_of(const std::vector<AccessLine> &lines, const ks_sockaddr_storage_t &address);

} // namespace velia::server
