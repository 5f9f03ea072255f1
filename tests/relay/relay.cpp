#include <tests/relay/relay.h>

#include <stdexcept>

#include <netinet/in.h>

namespace velia::relay {

namespace {

Address with_port(Address address, uint16_t port) {
    if (address.storage.ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6 *>(address.base())->sin6_port = htons(port);
    else
        reinterpret_cast<sockaddr_in *>(address.base())->sin_port = htons(port);
    return address;
}

} // namespace

Relay::Relay(const Plan &plan) : port_(plan.listen.port()) {
    // A port that is free for datagrams may not be for connections, whose clients take theirs from the same range.
    constexpr int tries_max = 50;
    for (int tries = 1; streams_ == nullptr && datagrams_ == nullptr; ++tries)
        try {
            listen(plan);
        } catch (const std::runtime_error &) {
            datagrams_.reset();
            if (plan.listen.port() != 0 || tries == tries_max)
                throw;
        }
}

// Connections come on the port of the datagrams, also where that was any free one.
void Relay::listen(const Plan &plan) {
    if (plan.takes_datagrams) {
        datagrams_ = std::make_unique<DatagramRelay>(loop_, plan.listen, plan.server, plan.harms, plan.seed, tally_);
        port_ = datagrams_->port();
    }
    if (plan.takes_connections) {
        const Address address = plan.takes_datagrams ? with_port(plan.listen, port_) : plan.listen;
        streams_ = std::make_unique<StreamRelay>(loop_, address, plan.server, plan.harms, plan.seed, tally_);
        port_ = streams_->port();
    }
}

} // namespace velia::relay
