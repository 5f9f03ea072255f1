// Which jobs are behind which. Any number of them may be behind one, and each comes and goes at the cost of one look.
#pragma once

#include <set>
#include <utility>
#include <vector>

#include <veliaxdr/sched_wire.h>

namespace velia::server {

template <class Id = sched_job_id_t>
class Followers {
public:
    void add(Id followed, Id follower) { pairs_.insert({followed, follower}); }
    void remove(Id followed, Id follower) { pairs_.erase({followed, follower}); }
    std::vector<Id> of(Id followed) const {
        std::vector<Id> found;
        for (auto each = pairs_.lower_bound({followed, Id{0}}); each != pairs_.end() && each->first == followed; ++each)
            found.push_back(each->second);
        return found;
    }

private:
    std::set<std::pair<Id, Id>> pairs_;
};

} // namespace velia::server
