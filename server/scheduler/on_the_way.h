// What is being written of jobs, and has not come yet: the same may be on the way several times.
#pragma once

#include <map>
#include <string>

#include <veliaxdr/sched_wire.h>

namespace velia::server {

class ChangesOnTheWay {
public:
    void add(sched_job_id_t id) { ++counts_[id]; }
    void remove(sched_job_id_t id) {
        const auto found = counts_.find(id);
        if (found != counts_.end() && --found->second == 0)
            counts_.erase(found);
    }
    bool contains(sched_job_id_t id) const { return counts_.contains(id); }

private:
    std::map<sched_job_id_t, int> counts_;
};

// Each is one job's, which may have several changes on the way; a new job has no number yet, and is known by 0.
class NamesOnTheWay {
public:
    void add(const std::string &name, sched_job_id_t id) {
        auto &held = names_.try_emplace(name, Held{id, 0}).first->second;
        held.id = held.id == id ? id : 0;
        ++held.count;
    }
    void remove(const std::string &name) {
        const auto found = names_.find(name);
        if (found != names_.end() && --found->second.count == 0)
            names_.erase(found);
    }
    bool is_of_another(const std::string &name, sched_job_id_t id) const {
        const auto found = names_.find(name);
        return found != names_.end() && (id == 0 || found->second.id != id);
    }
    bool empty() const { return names_.empty(); }

private:
    struct Held {
        sched_job_id_t id;
        int count;
    };
    std::map<std::string, Held> names_;
};

} // namespace velia::server
