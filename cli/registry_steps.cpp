#include <cli/registry_steps.h>

#include <cli/messages.h>
#include <cli/waits.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

constexpr int tries_max = 10;

} // namespace

tbs_status_t Steps::take_stamps() {
    begin_wait(silence_max_);
    return rvzd_rgy_get_id(registry_, db_, RGY_PROTOCOL_VERSION, &stamps_);
}

// A step is of the moment of its stamps. Where nobody else may have changed anything they are those of the step before.
template <class Step>
tbs_status_t Steps::with_stamps(Step &&step) {
    const bool is_bound = (flags_ & RGY_CHANGE_IF_UNCHANGED) != 0;
    tbs_status_t status = TBS_ST_STALE_ID;
    for (int tries = 0; status == TBS_ST_STALE_ID && tries < (is_bound ? 1 : tries_max); ++tries) {
        status = is_bound ? tbs_status_t{TBS_ST_OK} : take_stamps();
        begin_wait(silence_max_);
        if (status == TBS_ST_OK)
            status = step();
    }
    return status == TBS_ST_OK && is_bound ? take_stamps() : status;
}

tbs_status_t Steps::add(const std::string &text) {
    return with_stamps(
        [&] { return rvzd_rgy_add_entry(registry_, db_, RGY_PROTOCOL_VERSION, &stamps_, text.c_str()); });
}

tbs_status_t Steps::remove(uint64_t id) {
    return with_stamps([&] { return rvzd_rgy_remove_entry(registry_, db_, RGY_PROTOCOL_VERSION, &stamps_, id); });
}

tbs_status_t Steps::read() {
    if (is_read_)
        return TBS_ST_OK;
    begin_wait(silence_max_);
    Database database;
    const auto status = read_database(registry_, db_, database);
    is_read_ = status == TBS_ST_OK;
    for (const auto &entry : database.entries) {
        standing_[entry.id] = entry.flex_text;
        texts_.insert(entry.flex_text);
    }
    return status;
}

// The way back is gone without stamps that somebody else may have made old: an entry less is worse.
tbs_status_t Steps::replace(uint64_t id, const std::string &text) {
    if (const auto status = read(); status != TBS_ST_OK)
        return status;
    const auto before = standing_.find(id);
    if (before == standing_.end())
        return TBS_ST_NOT_FOUND;
    if (const auto status = remove(id); status != TBS_ST_OK)
        return status;
    const auto status = add(text);
    if (status == TBS_ST_OK)
        return status;
    flags_ &= ~uint32_t{RGY_CHANGE_IF_UNCHANGED};
    if (const auto back = add(before->second); back != TBS_ST_OK)
        tell_failure(back, "", "The entry was removed, and could not be added again: %s. It was: %s\n",
                     tbs_strerror(back), before->second.c_str());
    return status;
}

tbs_status_t Steps::make(uint64_t id, const std::string &text, bool &is_passed) {
    is_passed = false;
    if (id != 0)
        return text.empty() ? remove(id) : replace(id, text);
    const auto status = add(text);
    if (status != TBS_ST_ALREADY_EXISTS || (flags_ & RGY_CHANGE_PASS_STANDING) == 0)
        return status;
    if (const auto reading = read(); reading != TBS_ST_OK)
        return reading;
    is_passed = texts_.contains(text);
    return is_passed ? tbs_status_t{TBS_ST_OK} : status;
}

} // namespace velia::cli
