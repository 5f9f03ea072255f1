// The process that keeps one run: it starts the job's process, takes its output, holds its time limit and ends what it
// leaves behind. It outlives the daemon, so that a daemon's end loses no run.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace velia::server {

constexpr const char *keep_run_switch = "--keep-run";

// What shells say of a program that is not there or cannot be run, and of one that a signal ended.
constexpr uint32_t status_not_found = 127;
constexpr uint32_t status_not_executable = 126;
constexpr uint32_t status_of_signal = 128;

struct RunOrder {
    std::optional<uid_t> user; // none: the daemon's own
    uint32_t seconds_max = 0;  // 0: as long as it likes
    uint64_t output_bytes_max = 0;
    std::string path;
    std::vector<std::string> arguments;
};

// The descriptors of a keeper behind the standard ones.
constexpr int keeper_notes_fd = 3;
constexpr int keeper_output_fd = 4;

std::vector<std::string> keeper_arguments(const RunOrder &order);

// The keeper's whole life, for a command line that begins with the switch; its exit status.
int keep_run(int argc, char **argv);

} // namespace velia::server
