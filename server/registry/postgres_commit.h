// Commits of which it is known what they have come to. Each transaction leaves its number in a table; where its answer
// does not come, or nobody knows whether a standby has it, that is read under the lock which the transaction holds
// until it has ended in one way or the other.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <server/registry/postgres.h>

namespace velia::server {

// Of a transaction, over a connection that may be broken.
void roll_back(Postgres &database);

// How bytes are written in a statement.
std::string literal_of(std::string_view bytes);

struct TransactionMark {
    const char *table;     // with the columns name, transaction and at
    std::string_view name; // of who commits
    uint64_t number;       // of the transaction
};

// Makes the last changes, leaves the mark and commits; returns if all of it was made. `is_made` asks under the lock
// whether the mark is there, again and again while the database is not reached. Throws StoreAway if it was not made,
// and StoreUncertain where that cannot be learned. A standby that has to have it may take its time; the wait here has
// an end.
void commit_marked(Postgres &database, const std::string &last_changes, const TransactionMark &mark,
                   const std::function<bool()> &is_made);

} // namespace velia::server
