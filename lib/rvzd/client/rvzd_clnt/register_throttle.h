// What was done on this host lately, by whichever process: one small file for each note, whose modification time says
// when. A courtesy that is throttled here is made once too often where no file can be written, and never too seldom.
#pragma once

#include <cstdint>

namespace velia::rvzd_clnt {

// True if this was noted within the last `seconds`. A note from the future counts for nothing: the clock was set back.
bool was_noted(const char *kind, const char *key, int64_t seconds);

// Notes it, now. `kind` and `key` become parts of a file name; a key that cannot be one is not noted.
void note(const char *kind, const char *key);

} // namespace velia::rvzd_clnt
