#include <tests/system/support/metrics_page.h>

#include <array>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace velia::system_test {

std::string page_at(const std::string &socket_name, const std::string &target) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socket_name.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string text;
    const std::string request = "GET " + target + " HTTP/1.1\r\nHost: alpha\r\n\r\n";
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
        std::array<char, 65536> piece;
        for (ssize_t count; (count = recv(fd, piece.data(), piece.size(), 0)) > 0;)
            text.append(piece.data(), static_cast<size_t>(count));
    }
    close(fd);
    return text;
}

} // namespace velia::system_test
