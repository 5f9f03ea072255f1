// Random records of sets of jobs, as samples.h has those of jobs.
#pragma once

#include <tests/unit/sched/samples.h>
#include <veliaxdr/sched_sets.h>

namespace wire_tests {

inline void fill(Sampler &s, sched_set_change_t &r) {
    r = {static_cast<int32_t>(1 + s.number(2)), static_cast<uint32_t>(s.word()), static_cast<uint32_t>(s.word()), {}};
    if (r.what != SCHED_SET_DELETE)
        fill(s, r.rw);
}
inline void fill(Sampler &s, sched_set_get_jobs_request_t &r) {
    r = {static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_set_get_jobs_reply_t &r) {
    r = {s.signed_word(), s.word(), s.coin() ? 1 : 0, static_cast<uint32_t>(s.number(sched_elements_most)), nullptr};
    r.jobs = s.array<sched_job_properties_t>(r.count);
    for (uint32_t i = 0; i < r.count; ++i)
        fill(s, r.jobs[i]);
}
inline void fill(Sampler &s, sched_set_apply_request_t &r) {
    r = {s.word(),
         s.word(),
         static_cast<uint32_t>(s.word()),
         s.coin() ? 1 : 0,
         static_cast<uint32_t>(s.number(sched_elements_most)),
         nullptr};
    r.changes = s.array<sched_set_change_t>(r.count);
    for (uint32_t i = 0; i < r.count; ++i)
        fill(s, r.changes[i]);
}
inline void fill(Sampler &s, sched_set_apply_reply_t &r) {
    r = {s.signed_word(),
         s.word(),
         {static_cast<uint32_t>(s.word()), static_cast<uint32_t>(s.word())},
         static_cast<uint32_t>(s.word())};
}

} // namespace wire_tests
