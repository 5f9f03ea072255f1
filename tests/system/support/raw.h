// Bytes by hand: for what no well-behaved client would send.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <tests/system/support/site.h>

namespace velia::system_test {

using Bytes = std::vector<unsigned char>;

void put_word(Bytes &bytes, uint32_t value);
uint32_t word_at(const Bytes &bytes, size_t index);

// A call message without credentials.
Bytes call_message(uint32_t xid, uint32_t program, uint32_t version, uint32_t procedure, const Bytes &arguments = {});

// The arguments of a contact that offers `protocol`.
Bytes contact_arguments(uint32_t protocol);

// The message as one record of one fragment.
Bytes as_record(const Bytes &message);

// A socket connected to the daemon on 127.0.0.1, closed at the end.
class RawSocket {
public:
    RawSocket(const Site &site, int type);
    ~RawSocket();
    RawSocket(const RawSocket &) = delete;
    RawSocket &operator=(const RawSocket &) = delete;
    RawSocket(RawSocket &&other) noexcept;

    bool is_connected() const { return fd_ >= 0; }
    bool send(const Bytes &bytes) const;

    // What comes next; none when nothing does within the time, empty when the peer has closed.
    std::optional<Bytes> receive(double deadline_s = 5) const;

    // True when the peer closes, whatever else it sends before.
    bool is_closed_by_peer(double deadline_s) const;

private:
    int fd_;
};

// Sends a datagram and gives its reply.
std::optional<Bytes> datagram_reply(const Site &site, const Bytes &message, double deadline_s = 5);

// True when a fresh client is served over both transports.
bool serves_a_good_client(const Site &site);

} // namespace velia::system_test
