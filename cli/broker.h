// Reaching the broker of a host within a time of the user's choice.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <cli/duration.h>
#include <support/tbs.h>
#include <veliaxdr/rvzd_handle.h>

namespace velia::cli {

// A handle of the library's on the broker of a host, given back at the end.
using Broker = std::unique_ptr<rvzd_handle_t, decltype(&rvzd_free_handle)>;

// The host's broker, which has answered; null and printed if it has not within `timeout`, which goes for each call
// through the handle, too. A host that follows another has the whole time for itself.
enum class As { anyone, caller }; // without credentials or with those of the caller
Broker reach_broker(const std::string &host, uint32_t protocol, Duration timeout, As as = As::anyone);

// Calls procedure 0, which every program answers; false and printed, beginning with `failed_text`, when it does not.
bool ping(CLIENT *client, Duration timeout, const char *failed_text, double &round_trip_ms);

std::string text_of_address(const ks_sockaddr_storage_t &address);

// The names of the two that a server may be asked for by, and each as an index of rvzd_protocol_names.
inline constexpr const char *transports[] = {"udp", "tcp"};
uint32_t protocol_of_name(const std::string &name);

} // namespace velia::cli
