// The file of one run, through which its keeper tells the daemon, whichever daemon that is by then. While it is locked
// the keeper lives; so it is locked before the keeper is made, and the lock goes with the last of the two that has it.
//
//     keeper 4711
//     process 4712
//     ended 1790000000 0 17
//     the end of output
//
// Room for all of that is taken when it is made: a disk that fills up later does not lose the end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <server/loop/unique_fd.h>
#include <server/scheduler/job_store.h>

namespace velia::server {

constexpr size_t run_messages_max = 16384; // of the output, from its end

struct RunNotes {
    int32_t keeper = 0;  // 0: not there yet
    int32_t process = 0; // the same
    std::optional<int64_t> ended;
    uint32_t exit_status = 0;
    std::string messages;
};

// What whole lines say; a cut one says nothing.
RunNotes read_notes(std::string_view text);

std::string keeper_note(int32_t keeper);
std::string process_note(int32_t process);
std::string end_note(int64_t ended, uint32_t exit_status, std::string_view messages);

struct RunPaths {
    std::string notes;
    std::string output;
};
RunPaths run_paths(const std::string &directory, const RunRow &run);

// Makes the file, with its room, and locks it. None with errno.
UniqueFd make_run_file(const std::string &path);

// None: there is no such file.
std::optional<RunNotes> read_run_file(const std::string &path);

// What a run has put out, from a byte on; none: there is no such file.
struct OutputPiece {
    uint64_t total = 0;
    std::string bytes;
};
std::optional<OutputPiece> read_output(const std::string &path, uint64_t offset, size_t size_max);

// Whether a keeper has it.
bool is_kept(const std::string &path);

} // namespace velia::server
