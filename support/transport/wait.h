// Waiting for a descriptor.
#pragma once

#include <cstdint>

namespace velia::support::transport {

enum class Wait { ready, timed_out, interrupted };

// Until one of the poll(2) `events` has come on the descriptor, or an error there, or the clock shows `until_us`.
Wait wait_for(int descriptor, short events, int64_t until_us);

} // namespace velia::support::transport
