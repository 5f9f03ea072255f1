// Changes one after the other, by what every registry knows: for one that does not take many at once. A change of an
// entry is a removal and an addition then, and what was removed is added again if the addition fails.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include <cli/command.h>
#include <cli/registry_bulk.h>

namespace velia::cli {

class Steps {
public:
    Steps(rvzd_handle_t *registry, rgy_db_t db, uint32_t flags, const rgy_dtm_pair_t &stamps, Duration silence_max)
        : registry_(registry), db_(db), flags_(flags), stamps_(stamps), silence_max_(silence_max) {}

    // As one of many is made; `is_passed` for an entry that stands there in the same words.
    tbs_status_t make(uint64_t id, const std::string &text, bool &is_passed);

private:
    tbs_status_t take_stamps();
    tbs_status_t add(const std::string &text);
    tbs_status_t remove(uint64_t id);
    tbs_status_t replace(uint64_t id, const std::string &text);
    tbs_status_t read();
    template <class Step>
    tbs_status_t with_stamps(Step &&step);

    rvzd_handle_t *registry_;
    rgy_db_t db_;
    uint32_t flags_;
    rgy_dtm_pair_t stamps_; // with RGY_CHANGE_IF_UNCHANGED those that the next step expects
    Duration silence_max_;
    bool is_read_ = false;
    std::unordered_map<uint64_t, std::string> standing_; // as it was when it was read
    std::unordered_set<std::string> texts_;
};

} // namespace velia::cli
