// A database made what it is elsewhere, whatever keeps it.
#pragma once

#include <optional>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// The steps of it, within one transaction.
class RecordKeeper {
public:
    RecordKeeper() = default;
    virtual ~RecordKeeper() = default;
    RecordKeeper(const RecordKeeper &) = delete;
    RecordKeeper &operator=(const RecordKeeper &) = delete;

    virtual std::optional<uint64_t> bearer_of(rgy_db_t db, const std::string &identity) = 0;
    virtual void erase(rgy_db_t db, uint64_t id) = 0;
    virtual void put(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
                     const Items &items) = 0;
};

// What stands there already in the same words is left as it is.
void make_like(Store &store, RecordKeeper &keeper, rgy_db_t db, Contents contents);

} // namespace velia::server
