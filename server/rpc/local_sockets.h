// The daemon's place in the file system: a directory of this host with the sockets over which callers of this host are
// known, and with the lock by which a root directory has one daemon at most.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <server/loop/unique_fd.h>
#include <server/rpc/caller.h>

namespace velia::server {

// A socket for the callers of this host who want the daemon at `address`.
struct LocalSocket {
    UniqueFd fd;
    ks_sockaddr_storage_t address;
};

class LocalPlace {
public:
    LocalPlace() = default;
    LocalPlace(LocalPlace &&) = default;
    LocalPlace &operator=(LocalPlace &&) = default;
    ~LocalPlace();

    // Makes the directory where it is not there, and takes the lock. None, told, where either cannot be had: the
    // directory is another's, or another daemon has the lock.
    static std::optional<LocalPlace> take();

    // Sockets for the daemon's addresses, in place of any that were left there. What cannot be made is told.
    std::vector<LocalSocket> listen(const std::vector<ks_sockaddr_storage_t> &addresses);

private:
    std::optional<LocalSocket> listen_for(const ks_sockaddr_storage_t &address);

    std::string directory_;
    UniqueFd lock_;
    std::vector<std::string> made_; // removed at the end
};

// Takes bytes off a socket of a LocalPlace together with who sent them, as the kernel has it. Bytes of two senders
// never come together. Descriptors that a sender passes are not taken. As recv(2) otherwise.
ssize_t receive_from_known(int fd, unsigned char *bytes, size_t size, std::optional<KnownCaller> &sender);

} // namespace velia::server
