// What a file of jobs and one of tasks have in common: definitions one after the other, each with a number and a name
// of its own. One that is wrong loses the file. A File has its handle, state, reading, known definitions and, by
// overloads, stored(), take_definition() and release().
#pragma once

#include <common/with.h>
#include <rvzd/sched_utl_parse/engine.h>
#include <rvzd/sched_utl_parse/known.h>

namespace velia::sched_utl_parse {

struct DuplicateMessages {
    int of_id;
    int of_name;
};

template <class File, class Id>
bool is_duplicate(const File &file, Id id, const char *name, const DuplicateMessages &messages) {
    const auto line_no = static_cast<int>(file.state->line_no);
    switch (taken_by(file.known, stored(file), id, name)) {
    case Taken::id:
        imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, messages.of_id, id, line_no);
        return true;
    case Taken::name:
        imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, messages.of_name, name, line_no);
        return true;
    default:
        return false;
    }
}

// Until one cannot be taken: TBS_ST_NOT_FOUND is the end of the file.
template <class File>
tbs_status_t take_definitions(File &file) {
    tbs_status_t status = TBS_ST_OK;
    while (status == TBS_ST_OK)
        status = take_definition(file);
    return status;
}

// `take_all` is one of a file that was opened. All of it is handed out, or nothing, of which `problem` tells.
template <class File, class HandOut>
tbs_status_t read_definitions(File &file, const char *path, tbs_status_t (*take_all)(File &file), int problem,
                              const HandOut &hand_out) {
    return with_cleanup(
        [&] {
            tbs_status_t status = parse_new_state(file.handle, path, &file.state);
            if (status == TBS_ST_OK) {
                file.state->reading = file.reading;
                status = take_all(file);
            }
            if (status != TBS_ST_OK) {
                release(file);
                imsg_print(IMSG_ERROR, &_sched_rvzd_msg_table, problem);
                return status;
            }
            release_state(&file.state);
            with_inhibit([&] {
                release(file.known);
                hand_out(file);
                file = {};
            });
            return status;
        },
        [&] { release(file); });
}

} // namespace velia::sched_utl_parse
