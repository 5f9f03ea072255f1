// An invariant: what our own code must have made true. A breach ends the process with the function, the file and the
// line, since whoever went on would work on a state that nobody has thought of.
//
// This is a foundation: it stands below all, for the library and the daemon alike.
#pragma once

#include <source_location>

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

inline void require(bool holds, const std::source_location &at = std::source_location::current()) {
    if (!holds) [[unlikely]]
        pfm_assert_fail(at.function_name(), file_without_folders(at.file_name()), static_cast<int>(at.line()));
}

} // namespace velia
