// What a look-up gives, as texts to compare.
#pragma once

#include <string>
#include <vector>

#include <support/sysutl.h>

struct LookUp {
    int error;
    std::vector<std::string> addresses; // "127.0.0.1:371"

    bool operator==(const LookUp &) const = default;
};

inline LookUp look_up(const char *host, const char *service, int socket_type = SOCK_STREAM) {
    addrinfo *found = nullptr;
    LookUp result = {sysutl_host_addr(host, service, socket_type, &found), {}};
    for (const addrinfo *at = found; at != nullptr; at = at->ai_next) {
        char text[SYSUTL_ADDRESS_TEXT_SIZE];
        result.addresses.emplace_back(sysutl_sockaddr_to_str(at->ai_addr, sizeof text, text));
    }
    if (found != nullptr)
        freeaddrinfo(found);
    return result;
}
