// Until when something may last.
#pragma once

#include <cstdint>

#include <sys/time.h>

namespace velia::support::transport {

// A time-out as microseconds: 0 for a negative one, a year for a longer one.
int64_t duration_us(const timeval &time);

// When what begins now and may last so long has to end: by the calling thread's limit if that comes first.
int64_t deadline_after(int64_t duration_us);

// Whether the calling thread has a limit.
bool has_limit();

// An answer has come: time that runs by silence begins anew.
void note_answer();

} // namespace velia::support::transport
