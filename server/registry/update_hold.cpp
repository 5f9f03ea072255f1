#include <server/registry/update_hold.h>

#include <strings.h>

namespace velia::server {

namespace {

constexpr size_t turns_max = 64; // whoever is killed leaves one behind until its end

} // namespace

std::string host_of_turn(const std::string &turn) {
    return turn.substr(0, turn.find('#'));
}

std::optional<std::string> UpdateHold::host(int64_t now_ms) const {
    for (const auto &[turn, until_ms] : until_ms_)
        if (now_ms < until_ms)
            return host_of_turn(turn);
    return std::nullopt;
}

bool UpdateHold::is_held_by(const std::string &turn, int64_t now_ms) const {
    const auto found = until_ms_.find(turn);
    return found != until_ms_.end() && now_ms < found->second;
}

bool UpdateHold::is_of_another(const std::string &turn, int64_t now_ms) const {
    const auto holder = host(now_ms);
    return holder && strcasecmp(holder->c_str(), host_of_turn(turn).c_str()) != 0;
}

bool UpdateHold::take(const std::string &turn, int64_t now_ms, int64_t until_ms) {
    std::erase_if(until_ms_, [&](const auto &entry) { return entry.second <= now_ms; });
    if (is_of_another(turn, now_ms) || (until_ms_.size() >= turns_max && !until_ms_.contains(turn)))
        return false;
    until_ms_[turn] = until_ms;
    return true;
}

bool UpdateHold::release(const std::string &turn, int64_t now_ms) {
    if (is_of_another(turn, now_ms))
        return false;
    until_ms_.erase(turn);
    return true;
}

} // namespace velia::server
