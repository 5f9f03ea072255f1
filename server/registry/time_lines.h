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

// Of the server at the other end of a connection.
class TimeLine {
public:
    TimeLine() = default;
    TimeLine(std::string system, uint32_t number); // throws as above

    // False: this process has seen a higher one since. Asked before each use, so it looks only where there is news.
    bool is_newest();

private:
    std::string system_;
    uint32_t number_ = 0;
    uint64_t news_ = 0; // that it knows of
};

} // namespace velia::server
