// Traces: two tests in a fixed order, the cheap one first, then a line at the trace severity.
#pragma once

#include <support/imsg.h>

namespace velia {

inline bool is_traced(const char *subsystem, int level) {
    return imsg_get_desired_verbosity() >= level && imsg_should_trace(subsystem, level) != 0;
}

template <class... Arguments>
inline void trace(const char *subsystem, int level, const char *format, Arguments... arguments) {
    if (is_traced(subsystem, level))
        imsg_print(IMSG_TRACE, format, IMSG_FORMAT, arguments...);
}

} // namespace velia
