// Transaction numbers that nobody can guess.
#pragma once

#include <cstdint>

namespace velia::support::transport {

uint32_t new_transaction_number();

} // namespace velia::support::transport
