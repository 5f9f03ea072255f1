// An invariant: what our own code must have made true. A breach ends the process with the function, the file and the
// line, since whoever went on would work on a state that nobody has thought of.
//
// This is a foundation: it stands below all, for the library and the daemon alike.
#pragma once

#include <support/pfm.h>

namespace velia {

// The file without the folders of whoever built it.
constexpr const char *file_without_folders(const char *path) {
    const char *name = path;
    for (const char *at = path; *at != '\0'; ++at)
        if (*at == '/')
            name = at + 1;
    return name;
}

// The compiler's own names of the place, since not every compiler of ours has the standard's.
inline void require(bool holds, const char *function = __builtin_FUNCTION(), const char *file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
    if (!holds) [[unlikely]]
        pfm_assert_fail(function, file_without_folders(file), line);
}

} // namespace velia
