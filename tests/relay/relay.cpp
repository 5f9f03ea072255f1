#include <tests/relay/relay.h>

#include <cstring>

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

// Connections come on the port of the datagrams, also where that was any free one.
Relay::Relay(const Plan &plan) : port_(plan.listen.port()) {
    if (plan.takes_datagrams) {
        datagrams_ = std::make_unique<DatagramRelay>(loop_, plan.listen, plan.server, plan.harms, plan.seed, tally_);
        port_ = datagrams_->port();
    }
    if (plan.takes_connections) {
        streams_ = std::make_unique<StreamRelay>(loop_, with_port(plan.listen, port_), plan.server, plan.harms,
                                                 plan.seed, tally_);
        port_ = streams_->port();
    }
}

} // namespace velia::relay
