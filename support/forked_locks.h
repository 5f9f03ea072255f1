// Locks of the layer that a child process does not take over: one that another thread of the parent held when it forked
// would never be given back. What these locks guard is whole at any moment.
#pragma once

#include <cstdint>

#include <pthread.h>

namespace velia::support {

// To be called before the lock is taken; once is enough, and costs nothing much after that.
void free_in_children(pthread_mutex_t &lock);

// Counts the forks between this process and the one that asked first: what is of another count is a parent's.
uint32_t process_generation();

} // namespace velia::support
