// The time lines on which database servers were seen. Each promotion begins another, with a higher number, so a server
// that is on a lower one than was seen is a former primary that came back; what it takes would be lost. What was seen
// is kept in a file of the host's, for daemons that are started later.
#pragma once

#include <cstdint>
#include <string>

namespace velia::server {

// From now on for this process; what the file has counts, too. None, or an empty name: in memory alone.
void keep_time_lines_in(const std::string &file_name);

// Notes that the servers of this name (all copies of one have it) are on this time line. Throws StoreAway if a higher
// one was seen.
void require_newest_time_line(const std::string &system, uint32_t time_line);

} // namespace velia::server
