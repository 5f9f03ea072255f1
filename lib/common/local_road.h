// Where the daemon of a host listens for callers of that host, who are known there: the kernel tells it whose each
// message is. The daemon makes a socket for each address of its own, named after it, and the clients of this host look
// for the one of the address that they are to call. It belongs to the foundation, and holds both to the same names.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/socket.h>
#include <sys/un.h>

namespace velia {

// Below the root directory.
constexpr const char *local_road_directory = "host/run";

// The program that listens there, of which all versions are at one socket.
constexpr uint32_t local_road_program = 390512;

constexpr size_t local_road_name_size = 64;

// The name of the socket for an IPv4 or IPv6 address and its port; that of the wildcard address stands for all
// addresses of the family. False for any other family.
bool local_road_name(const sockaddr *address, char (&name)[local_road_name_size]);

// The address of a socket in a directory, however long the directory's name is: one that the system has no room for is
// named by a descriptor, which has to stay open until the address has been used.
class LocalRoadAddress {
public:
    LocalRoadAddress(const char *directory, const char *name);
    ~LocalRoadAddress();
    LocalRoadAddress(const LocalRoadAddress &) = delete;
    LocalRoadAddress &operator=(const LocalRoadAddress &) = delete;

    bool is_good() const { return length_ != 0; }
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&address_); }
    socklen_t length() const { return length_; }
    const char *path() const { return address_.sun_path; }

private:
    sockaddr_un address_;
    socklen_t length_;
    int directory_;
};

} // namespace velia
