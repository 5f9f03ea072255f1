#include <server/config/place.h>

#include <arpa/inet.h>
#include <charconv>
#include <netinet/in.h>
#include <sys/un.h>

#include <support/sysutl.h>

namespace velia::server {

namespace {

std::optional<uint16_t> port_of_text(const std::string &text) {
    uint16_t port = 0;
    const char *end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && last == end && port != 0 ? std::optional(port) : std::nullopt;
}

bool is_address(const std::string &text, bool is_ipv6, ks_sockaddr_storage_t &address) {
    if (is_ipv6) {
        address.ipv6.sin6_family = AF_INET6;
        return inet_pton(AF_INET6, text.c_str(), &address.ipv6.sin6_addr) == 1;
    }
    address.ipv4.sin_family = AF_INET;
    return inet_pton(AF_INET, text.c_str(), &address.ipv4.sin_addr) == 1;
}

} // namespace

std::optional<Place> place_of_text(const std::string &text) {
    Place place;
    if (text.starts_with('/')) {
        place.path = text;
        return text.size() < sizeof(sockaddr_un::sun_path) ? std::optional(place) : std::nullopt;
    }
    const auto colon = text.rfind(':');
    if (colon == std::string::npos)
        return std::nullopt;
    std::string address = text.substr(0, colon);
    const bool is_ipv6 = address.starts_with('[') && address.ends_with(']');
    if (is_ipv6)
        address = address.substr(1, address.size() - 2);
    const auto port = port_of_text(text.substr(colon + 1));
    if (!port || !is_address(address, is_ipv6, place.address))
        return std::nullopt;
    sysutl_sockaddr_set_port(&place.address.base, htons(*port));
    return place;
}

} // namespace velia::server
