// A connection to the registry's database and what is under way over it: reads that lock nothing, and transactions that
// change something one after the other. Each of these locks the one row of "registry" first, so that daemons are in
// nobody's way but each other's, in one order, and numbers grow in the order in which they are seen. What a commit
// without an answer has come to is asked of the row that each transaction leaves of itself: it can be read for certain
// as soon as the lock is free.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <server/registry/postgres.h>
#include <server/registry/postgres_store.h>
#include <server/registry/random_uuid.h>

namespace velia::server {

class PostgresSession {
public:
    // Connects, and makes the tables where there are none; `is_new` tells so.
    PostgresSession(const std::string &conninfo, PostgresUse use, bool &is_new);
    PostgresSession(const PostgresSession &) = delete;
    PostgresSession &operator=(const PostgresSession &) = delete;

    // What a transaction has of the locked row, which gets it with the commit.
    struct Counters {
        uint64_t changes = 0;
        uint64_t last_number = 0;
        bool operator==(const Counters &) const = default;
    };
    bool is_in_transaction() const { return in_hand_.has_value(); }
    Counters &in_hand() { return *in_hand_; }

    // Within a transaction, which has a connection.
    template <class... Values>
    PostgresRows run(const PostgresStatement &statement, const Values &...values) {
        return database_.run(statement, values...);
    }
    PostgresRows run(const std::string &sql) { return database_.run(sql); }

    // Anywhere. A connection that breaks has nothing of a transaction left; what only reads, or begins, is done once
    // more over another one, since a server that was started anew is noticed by the first call.
    template <class... Values>
    PostgresRows read(const PostgresStatement &statement, const Values &...values) {
        return reading([&] { return database_.run(statement, values...); });
    }

    void at_one_moment(const std::function<void()> &body);

    // A transaction, or within one a step of it that is undone where the body throws.
    void together(const std::function<void()> &body);

    // What changes nothing unless all of it is right needs no step of its own.
    template <class Body>
    auto within(Body &&body) -> decltype(body()) {
        if (is_in_transaction()) {
            require_connection();
            return body();
        }
        decltype(body()) result;
        together([&] { result = body(); });
        return result;
    }

    // Those who serve a registry are not to serve one that was moved elsewhere; nobody goes on with one that a newer
    // program has taken over. Both as the table has it.
    void require_served(std::string_view place, uint64_t version) const;

private:
    bool is_amid() const { return in_hand_ || is_at_one_moment_; }
    PostgresRows reading(const std::function<PostgresRows()> &body);
    void connect();
    void begin();
    void roll_back();
    void require_connection() const;
    void make_step(const std::function<void()> &body);
    void commit();
    bool is_made();

    Postgres database_;
    const PostgresUse use_;
    const tbs_uuid_t writer_ = random_uuid();
    uint64_t transaction_ = 0;
    std::optional<Counters> in_hand_; // while a transaction is open
    Counters began_;
    bool is_at_one_moment_ = false;
    uint64_t seen_ = 0; // the connection over which the tables were looked at
};

} // namespace velia::server
