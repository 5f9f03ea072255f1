// Random records of runs and changes, as samples.h has those of jobs.
#pragma once

#include <tests/unit/sched/samples.h>
#include <veliaxdr/sched_runs.h>

namespace wire_tests {

inline void fill(Sampler &s, sched_run_output_t &r) {
    r = {s.time(), s.time(), s.word(), 0, s.text(sched_text_longest)};
    r.size = static_cast<uint32_t>(strlen(r.bytes));
}
inline void fill(Sampler &s, sched_run_t &r) {
    r = {s.time(),
         s.time(),
         s.time(),
         static_cast<uint32_t>(s.word()),
         s.text(sched_text_longest),
         s.text(sched_text_longest)};
}
inline void fill(Sampler &s, sched_change_t &r) {
    r = {s.word(),
         s.time(),
         s.text(sched_text_longest),
         s.text(sched_text_longest),
         s.text(sched_text_longest),
         static_cast<uint32_t>(s.word()),
         s.text(sched_text_longest),
         s.text(sched_text_longest)};
}
inline void fill(Sampler &s, sched_run_output_request_t &r) {
    r = {static_cast<uint32_t>(s.word()), s.time(), s.word(), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_run_history_request_t &r) {
    r = {static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_changes_request_t &r) {
    r = {static_cast<uint32_t>(s.word()), s.word(), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_run_output_reply_t &r) {
    r.status = s.signed_word();
    fill(s, r.output);
}
inline void fill(Sampler &s, sched_run_history_reply_t &r) {
    r.status = s.signed_word();
    r.count = static_cast<uint32_t>(s.number(sched_elements_most));
    r.runs = s.array<sched_run_t>(r.count);
    for (uint32_t i = 0; i < r.count; ++i)
        fill(s, r.runs[i]);
}
inline void fill(Sampler &s, sched_changes_reply_t &r) {
    r.status = s.signed_word();
    r.count = static_cast<uint32_t>(s.number(sched_elements_most));
    r.changes = s.array<sched_change_t>(r.count);
    for (uint32_t i = 0; i < r.count; ++i)
        fill(s, r.changes[i]);
}

inline void fill(Sampler &s, sched_next_runs_request_t &r) {
    r = {static_cast<uint32_t>(s.word()), s.time(), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_next_runs_reply_t &r) {
    r.status = s.signed_word();
    r.count = static_cast<uint32_t>(s.number(sched_elements_most));
    r.next_runs = s.array<sched_next_run_t>(r.count);
    for (uint32_t i = 0; i < r.count; ++i)
        r.next_runs[i] = {s.time(), s.signed_word(), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_job_host_t &r) {
    r = {static_cast<uint32_t>(s.word()), s.text(sched_text_longest), s.text(sched_text_longest)};
}
inline void fill(Sampler &s, sched_set_host_request_t &r) {
    r = {static_cast<uint32_t>(s.word()), s.text(sched_text_longest)};
}
inline void fill(Sampler &s, sched_set_host_reply_t &r) {
    r.status = s.signed_word();
}
inline void fill(Sampler &s, sched_create_at_host_request_t &r) {
    r.host = s.text(sched_text_longest);
    fill(s, r.job);
}
inline void fill(Sampler &s, sched_create_at_host_reply_t &r) {
    r = {s.signed_word(), static_cast<uint32_t>(s.word()), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_job_hosts_request_t &r) {
    r = {static_cast<uint32_t>(s.word()), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_job_hosts_reply_t &r) {
    r.status = s.signed_word();
    r.count = static_cast<uint32_t>(s.number(sched_elements_most));
    r.hosts = s.array<sched_job_host_t>(r.count);
    for (uint32_t i = 0; i < r.count; ++i)
        fill(s, r.hosts[i]);
}

} // namespace wire_tests
