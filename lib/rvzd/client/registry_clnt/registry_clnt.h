// What the files of the registry client share: the module's name in traces and assertions, and small helpers.
#pragma once

#include <cstring>

#include <common/with.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <support/tbs.h>

namespace velia::registry_clnt {

inline constexpr char subsystem[] = "registry";
inline constexpr char source_file[] = "registry_clnt";

// White space as the C library's scanning knows it.
inline constexpr char white_space[] = " \t\n\v\f\r";

// Says that an operation failed, in the support layer's words.
inline void print_failed(const char *operation, tbs_status_t status) {
    imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, operation,
                      tbs_strerror(status));
}

// Zeroed storage for one record; null on failure.
template <class Record>
Record *new_record() {
    void *storage = stg_malloc(sizeof(Record));
    return storage != nullptr ? static_cast<Record *>(memset(storage, 0, sizeof(Record))) : nullptr;
}

// Runs `body` to its end before a raise may land. One that came meanwhile lands there, where `undo` takes back what
// body has made. For work that never waits.
template <class Body, class Undo>
auto all_or_nothing(Body &&body, Undo &&undo) {
    return with_cleanup([&] { return with_inhibit(body); }, undo);
}

} // namespace velia::registry_clnt
