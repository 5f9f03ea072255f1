#include <server/config/access.h>

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <string>

namespace velia::server {

namespace {

constexpr uint32_t bits_of_ipv4 = 32;
constexpr uint32_t bits_of_ipv6 = 128;
constexpr uint32_t bits_of_wrapping = bits_of_ipv6 - bits_of_ipv4;
constexpr uint32_t bits_of_byte = 8;

struct RightWord {
    std::string_view word;
    uint32_t rights;
};

constexpr std::array right_words = {RightWord{"read", ACCESS_READ}, RightWord{"register", ACCESS_REGISTER},
                                    RightWord{"write", ACCESS_WRITE}, RightWord{"administer", ACCESS_ADMINISTER}};

bool take_rights(std::string_view words, uint32_t &rights) {
    rights = 0;
    if (words == "none")
        return true;
    while (true) {
        const auto comma = words.find(',');
        const auto known = std::find_if(right_words.begin(), right_words.end(),
                                        [&](const RightWord &row) { return row.word == words.substr(0, comma); });
        if (known == right_words.end())
            return false;
        rights |= known->rights;
        if (comma == std::string_view::npos)
            return true;
        words.remove_prefix(comma + 1);
    }
}

// How many bits the address itself has.
std::optional<uint32_t> take_address(const std::string &text, AddressBytes &bytes) {
    ks_sockaddr_storage_t address = {};
    if (inet_pton(AF_INET, text.c_str(), &address.ipv4.sin_addr) == 1) {
        address.ipv4.sin_family = AF_INET;
        bytes = address_bytes(address);
        return bits_of_ipv4;
    }
    return inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1 ? std::optional(bits_of_ipv6) : std::nullopt;
}

bool take_bits(std::string_view text, uint32_t most, uint32_t &bits) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), bits);
    return !text.empty() && error == std::errc() && end == text.data() + text.size() && bits <= most;
}

bool has_bits_behind(const AddressBytes &address, uint32_t bits) {
    for (uint32_t bit = bits; bit < bits_of_ipv6; ++bit)
        if ((address[bit / bits_of_byte] >> (bits_of_byte - 1 - bit % bits_of_byte) & 1) != 0)
            return true;
    return false;
}

const char *take_place(std::string_view place, AccessLine &line) {
    if (place == "any")
        return nullptr;
    const auto slash = place.find('/');
    const auto length = take_address(std::string(place.substr(0, slash)), line.address);
    if (!length)
        return "An access line names an address, ADDRESS/BITS or any";
    line.bits = *length;
    if (slash != std::string_view::npos && !take_bits(place.substr(slash + 1), *length, line.bits))
        return "An address has no such number of bits";
    if (*length == bits_of_ipv4)
        line.bits += bits_of_wrapping;
    return has_bits_behind(line.address, line.bits) ? "The address has bits beyond its prefix" : nullptr;
}

} // namespace

AddressBytes address_bytes(const ks_sockaddr_storage_t &address) {
    AddressBytes bytes = {};
    if (address.base.sa_family == AF_INET6) {
        memcpy(bytes.data(), &address.ipv6.sin6_addr, bytes.size());
    } else {
        bytes[10] = bytes[11] = 0xff;
        memcpy(bytes.data() + bits_of_wrapping / bits_of_byte, &address.ipv4.sin_addr, sizeof address.ipv4.sin_addr);
    }
    return bytes;
}

bool share_prefix(const AddressBytes &left, const AddressBytes &right, uint32_t bits) {
    const size_t whole = bits / bits_of_byte;
    if (!std::equal(left.begin(), left.begin() + whole, right.begin()))
        return false;
    const uint32_t rest = bits % bits_of_byte;
    return rest == 0 || (left[whole] ^ right[whole]) >> (bits_of_byte - rest) == 0;
}

std::optional<AccessLine> access_line(std::string_view place, std::string_view rights, const char *&fault) {
    AccessLine line;
    fault = take_place(place, line);
    if (fault == nullptr && !take_rights(rights, line.rights))
        fault = "Access is none, or some of read, register, write and administer with commas between them";
    return fault == nullptr ? std::optional(line) : std::nullopt;
}

uint32_t rights_of(const std::vector<AccessLine> &lines, const ks_sockaddr_storage_t &address) {
    const auto bytes = address_bytes(address);
    for (const AccessLine &line : lines)
        if (share_prefix(line.address, bytes, line.bits))
            return line.rights;
    return access_by_default;
}

} // namespace velia::server
