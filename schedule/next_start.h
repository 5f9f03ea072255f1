// When a job runs next: one pure function of its schedule, its zone and a moment.
//
//     const Spec spec = {&job.schedule, &zone, created, changed};
//     for (auto start = next_start(spec, now); start; start = next_start(spec, start->at))
//         tell(start->at);
//
// What a schedule means is told in doc/schedules.md, by examples that are tests.
#pragma once

#include <cstdint>
#include <optional>

#include <schedule/zone.h>
#include <veliaxdr/sched_wire.h>

namespace velia::schedule {

struct Spec {
    const sched_schedule_t *schedule; // one that the validator lets through
    const Zone *zone;
    int64_t created; // of the job: the moment at which one without a first start runs, if it is on a run day
    int64_t changed; // last, or created: the day that "now" is
};

// What a change of the clocks makes of a start.
enum class Shift {
    none,
    moved,  // its time of day is skipped: it is at the first instant after that
    first,  // its time of day comes twice, and this is the first time
    second, // the same, and this is the second
};

struct Start {
    int64_t at;
    Shift shift;
    bool operator==(const Start &) const = default;
};

// The first start later than `after`; none where the schedule has come to its end, and for a sequential one. No start
// is beyond the year 9999.
std::optional<Start> next_start(const Spec &spec, int64_t after);

// What a job shows as its next run: 0 for one that is not known, all ones for none.
constexpr int64_t next_run_unknown = 0;
constexpr int64_t next_run_never = -1;

} // namespace velia::schedule
