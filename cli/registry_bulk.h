// Many entries of the registry at once: a database read as it stood at one moment, and changes in large pieces.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <cli/json_lines.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

// A database, and the stamps that it had.
struct Database {
    rgy_dtm_pair_t stamps = {};
    std::vector<EntryLine> entries;
};
tbs_status_t read_database(rvzd_handle_t *registry, rgy_db_t db, Database &database);

// Changes on their way to a database. What became of a request is told by the status of what sent it; `failed` is the
// change of which it is then, counted from 0 over all that were added.
class Changes {
public:
    // Each request by itself, or all that are added as one.
    enum class As { pieces, one };

    Changes(rvzd_handle_t *registry, rgy_db_t db, As as, uint32_t flags, const rgy_dtm_pair_t &stamps = {});

    tbs_status_t add(uint64_t id, std::string text);
    tbs_status_t finish();

    uint64_t sent() const { return sent_; } // and made, if these are pieces
    uint64_t passed() const { return passed_; }
    uint64_t failed() const { return failed_; }

private:
    tbs_status_t send(bool is_last);

    rvzd_handle_t *registry_;
    rgy_db_t db_;
    As as_;
    uint32_t flags_;
    rgy_dtm_pair_t stamps_;
    tbs_uuid_t set_;
    std::vector<uint64_t> ids_;
    std::vector<std::string> texts_;
    size_t bytes_ = 0;
    uint64_t sent_ = 0;
    uint64_t passed_ = 0;
    uint64_t failed_ = 0;
};

} // namespace velia::cli
