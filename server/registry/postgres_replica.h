// A server that has the registry's database, too, and may be behind: what is read on is read there while it has just
// what the reader has seen. Stamps are random, so that the same stamps are the same entries, wherever they stand.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

class PostgresReplica {
public:
    explicit PostgresReplica(std::string conninfo) : conninfo_(std::move(conninfo)) {}

    // Runs the body with it, at one moment of its data. False where the database's stamps are others there, or it is
    // not to be had: the body may have been begun, and what it did then does not count. Who failed is let alone for a
    // while.
    bool read(rgy_db_t db, const rgy_dtm_pair_t &pair, const std::function<void(Store &)> &body);

private:
    bool read_at_once(rgy_db_t db, const rgy_dtm_pair_t &pair, const std::function<void(Store &)> &body);
    void note_failure(const char *words);

    const std::string conninfo_;
    std::unique_ptr<Store> store_;
    int64_t not_before_ms_ = 0;
    std::string told_; // why it was not read, until it is
};

} // namespace velia::server
