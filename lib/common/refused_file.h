// How the library says that it does not read a file.
#pragma once

#include <common/text_file.h>
#include <support/tbs.h>

namespace velia {

inline void print_refused_file(const char *subsystem, const char *path, const TextFile &file, FileOutcome outcome) {
    char words[file_words_size];
    imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_READ, path,
                      file.why(outcome, words));
}

} // namespace velia
