// How many lines of the log those may cause who need no right for it.
#pragma once

#include <cstdint>

namespace velia::server {

class LineRate {
public:
    enum { LINES_AT_ONCE = 50, LINES_A_SECOND = 5 };

    // False: this line is left out. `left_out` is how many were, since it was last told.
    bool take(int64_t now_ms, uint64_t &left_out);

private:
    static constexpr int64_t ms_a_line = 1000 / LINES_A_SECOND;

    int64_t full_ms_ = 0; // when there will be room for all that may come at once
    uint64_t left_out_ = 0;
};

// That of the daemon.
bool may_tell_of_stranger();

} // namespace velia::server
