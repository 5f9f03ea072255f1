#include <tests/system/support/raw.h>

#include <array>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <veliaxdr/rvzd_wire.h>

namespace velia::system_test {

void put_word(Bytes &bytes, uint32_t value) {
    for (const int shift : {24, 16, 8, 0})
        bytes.push_back(static_cast<unsigned char>(value >> shift));
}

uint32_t word_at(const Bytes &bytes, size_t index) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value = value << 8 | bytes.at(index * 4 + i);
    return value;
}

Bytes call_message(uint32_t xid, uint32_t program, uint32_t version, uint32_t procedure, const Bytes &arguments) {
    Bytes bytes;
    for (const uint32_t word : {xid, 0U, 2U, program, version, procedure, 0U, 0U, 0U, 0U})
        put_word(bytes, word);
    bytes.insert(bytes.end(), arguments.begin(), arguments.end());
    return bytes;
}

Bytes contact_arguments(uint32_t protocol) {
    Bytes bytes;
    for (const uint32_t word : {0U, 4711U, 0U, protocol}) // uniquifier in two words, sequence, version
        put_word(bytes, word);
    return bytes;
}

Bytes as_record(const Bytes &message) {
    Bytes record;
    put_word(record, 0x80000000U | static_cast<uint32_t>(message.size()));
    record.insert(record.end(), message.begin(), message.end());
    return record;
}

RawSocket::RawSocket(const Site &site, int type) : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(site.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

RawSocket::RawSocket(RawSocket &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

RawSocket::~RawSocket() {
    if (fd_ >= 0)
        close(fd_);
}

bool RawSocket::send(const Bytes &bytes) const {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::optional<Bytes> RawSocket::receive(double deadline_s) const {
    pollfd readable = {fd_, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(deadline_s * 1000)) <= 0)
        return std::nullopt;
    Bytes bytes(65536);
    const ssize_t count = recv(fd_, bytes.data(), bytes.size(), 0);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

bool RawSocket::is_closed_by_peer(double deadline_s) const {
    return eventually(
        [&] {
            const auto bytes = receive(0.01);
            return bytes && bytes->empty();
        },
        deadline_s);
}

std::optional<Bytes> datagram_reply(const Site &site, const Bytes &message, double deadline_s) {
    const RawSocket socket(site, SOCK_DGRAM);
    return socket.send(message) ? socket.receive(deadline_s) : std::nullopt;
}

bool serves_a_good_client(const Site &site) {
    const auto ping = call_message(77, RVZD_PROGRAM, RVZD_VERSION, 0);
    // A datagram that finds the daemon's queue full is lost, so a good client sends its call again.
    const bool is_answered = eventually([&] {
        const auto reply = datagram_reply(site, ping, 0.5);
        return reply && reply->size() == 24 && word_at(*reply, 0) == 77;
    });
    if (!is_answered)
        return false;
    const RawSocket stream(site, SOCK_STREAM);
    if (!stream.is_connected() || !stream.send(as_record(ping)))
        return false;
    const auto record = stream.receive();
    return record && record->size() == 28 && word_at(*record, 1) == 77;
}

} // namespace velia::system_test
