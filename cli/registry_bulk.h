// Many entries of the registry at once: a database read as it stood at one moment, and changes in large pieces.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <cli/duration.h>
#include <cli/json_lines.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

// A database, and the stamps that it had.
struct Database {
    rgy_dtm_pair_t stamps = {};
    std::vector<EntryLine> entries;
};
// What it is called with are the entries that are there so far.
using OnRead = std::function<void(uint64_t)>;
tbs_status_t read_database(rvzd_handle_t *registry, rgy_db_t db, Database &database, const OnRead &on_read = {});

class Steps;

// Changes on their way to a database. What became of a request is told by the status of what sent it; `failed` is the
// change of which it is then, counted from 0 over all that were added.
class Changes {
public:
    // Each request by itself, or all that are added as one. A registry that knows no requests of many gets one change
    // after the other, but for those that are to be one at any rate: TBS_ST_UNSUPPORTED.
    enum class As { pieces, one, one_or_steps };

    Changes(rvzd_handle_t *registry, rgy_db_t db, As as, uint32_t flags, Duration silence_max,
            const rgy_dtm_pair_t &stamps = {});
    ~Changes();
    Changes(const Changes &) = delete;
    Changes &operator=(const Changes &) = delete;

    tbs_status_t add(uint64_t id, std::string text);
    tbs_status_t finish();

    uint64_t sent() const { return sent_; } // and made, if these are pieces
    uint64_t passed() const { return passed_; }
    uint64_t failed() const { return failed_; }
    bool are_steps() const { return steps_ != nullptr; }

private:
    tbs_status_t send(bool is_last);
    tbs_status_t send_at_once(bool is_last);
    tbs_status_t make_steps();
    void forget_sent(uint64_t count);

    rvzd_handle_t *registry_;
    rgy_db_t db_;
    As as_;
    uint32_t flags_;
    Duration silence_max_;
    rgy_dtm_pair_t stamps_;
    std::unique_ptr<Steps> steps_; // since the registry has shown that it knows no other
    tbs_uuid_t set_;
    std::vector<uint64_t> ids_;
    std::vector<std::string> texts_;
    size_t bytes_ = 0;
    uint64_t sent_ = 0;
    uint64_t passed_ = 0;
    uint64_t failed_ = 0;
};

} // namespace velia::cli
