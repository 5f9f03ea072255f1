// Sets of changes to jobs, which come in pieces and are made together or not at all. Until its last piece has come a
// set is kept here, for whom it came from.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <server/loop/fair_queue.h>
#include <server/scheduler/job_store.h>
#include <veliaxdr/sched_sets.h>

namespace velia::server {

struct StagedChange {
    int32_t what = 0;
    sched_job_id_t id = 0;
    uint32_t follows = 0; // a place in the set, from 1
    std::string body;     // of the job as it is to be
};

struct StagedSet {
    uint64_t state = 0;
    std::vector<StagedChange> changes;
    size_t bytes = 0;
    Sender::Host from = {};
    std::optional<uint32_t> uid;
    int64_t begun = 0;
};

class StagedSets {
public:
    // A set that is forgotten in time, so that nobody's half sets stay.
    static constexpr int64_t seconds_max = 60;
    static constexpr size_t sets_max = 16;
    static constexpr size_t sets_of_host_max = 4;
    static constexpr size_t bytes_max = 64 << 20;

    // Under a number that nobody guesses; 0 where there is no room for one more.
    uint64_t begin(const StagedSet &set, int64_t now);
    // Null for none of this caller's.
    StagedSet *find(uint64_t number, const StagedSet &whose, int64_t now);
    void forget(uint64_t number) { sets_.erase(number); }

private:
    void forget_old(int64_t now);

    std::map<uint64_t, StagedSet> sets_;
};

} // namespace velia::server
