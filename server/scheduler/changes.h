// What the log of changes tells of a job that was changed.
#pragma once

#include <string>

#include <veliaxdr/sched_wire.h>

namespace velia::server {

// The fields in which two jobs differ, with commas between.
std::string changed_fields(const sched_job_rw_properties_t &before, const sched_job_rw_properties_t &after);

// A name as the log keeps it: bounded, whatever names may be, and cut between characters.
constexpr size_t noted_name_bytes_max = 255;
std::string noted_name(const std::string &name);

} // namespace velia::server
