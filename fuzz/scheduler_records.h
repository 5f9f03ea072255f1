// Records of the scheduler's wire, a table of which each harness chooses its own part of.
#pragma once

#include <fuzz/round_trips.h>

#include <veliaxdr/sched_runs.h>
#include <veliaxdr/sched_wire.h>

namespace fuzz {

// An object that its sender left out comes in as zeros, and a job of zeros has no schedule to go out with.
inline bool goes_out(const sched_job_rw_properties_t &job) {
    return job.schedule.kind != 0;
}
inline bool goes_out(const sched_job_properties_t &job) {
    return goes_out(job.rw);
}
inline bool goes_out(const sched_job_utc_rw_props_t &job) {
    return goes_out(job.rw);
}
inline bool goes_out(const sched_job_utc_props_t &job) {
    return goes_out(job.props);
}

constexpr auto holds_no_job_of_zeros = []<class Record>(const Record &record) {
    if constexpr (requires { goes_out(*record.properties); })
        return goes_out(*record.properties);
    else if constexpr (requires { goes_out(*record.job); })
        return goes_out(*record.job);
    else
        return true;
};

template <class Record, bool_t (*routine)(XDR *, Record *)>
void try_scheduler_record(const Bytes &input) {
    try_record(routine, input, holds_no_job_of_zeros);
}

// The first byte chooses the record, the rest is what a peer sends for it.
template <size_t count>
int try_one_of(void (*const (&records)[count])(const Bytes &), const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    records[data[0] % count](Bytes(reinterpret_cast<const char *>(data) + 1, size - 1));
    return 0;
}

} // namespace fuzz
