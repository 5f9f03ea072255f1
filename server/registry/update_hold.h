// Turns of the site that are under way: whose asked this master to take no updates, each until a moment. All of them
// are to one host. Of two to different hosts the second is refused, or each of them would make its own host the master.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace velia::server {

// A turn is named by the host that is to become the master and, behind a '#', a word of whoever makes it. One of a tool
// that names none is to a host of its own.
std::string host_of_turn(const std::string &turn);

class UpdateHold {
public:
    // From now on until then. False, and as before, while a turn to another host holds them, or too many do.
    bool take(const std::string &turn, int64_t now_ms, int64_t until_ms);

    // This turn holds them no more; others to the same host may. False while one to another host does.
    bool release(const std::string &turn, int64_t now_ms);

    void clear() { until_ms_.clear(); }

    bool is_held_by(const std::string &turn, int64_t now_ms) const;

    // The host to which a turn holds them now.
    std::optional<std::string> host(int64_t now_ms) const;

private:
    bool is_of_another(const std::string &turn, int64_t now_ms) const;

    std::map<std::string, int64_t> until_ms_; // by turn
};

} // namespace velia::server
