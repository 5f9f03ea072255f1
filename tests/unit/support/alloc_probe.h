// Watches, and on demand refuses, the allocations that the support layer makes. The test program links the allocator's
// names through here.
#pragma once

#include <cstddef>

namespace probe {

// From now on: how many bytes have been asked for, in how many requests.
void start_counting();
size_t bytes_asked();
size_t requests();

// The n-th request from now on (1: the next) fails, once; 0: none.
void fail_request(size_t number);
bool has_failed();

} // namespace probe
