// Whether the calling thread has been asked, by another thread, a signal handler or a raise, to wait no longer.
#pragma once

namespace velia::support::transport {

bool is_interrupted();

// Readable once somebody has called ks_interrupt; -1 where nobody can.
int wake_descriptor();

} // namespace velia::support::transport
