#include <server/registry/postgres_session.h>

#include <algorithm>

#include <server/registry/postgres_commit.h>
#include <server/registry/postgres_schema.h>
#include <server/registry/sqlite.h>

namespace velia::server {

namespace {

constexpr PostgresStatement last_transaction = {"last_transaction", "SELECT transaction FROM writer WHERE name = $1"};

// Whoever moves a registry is busy elsewhere in between.
constexpr const char *patience_of_move = "SET idle_in_transaction_session_timeout = 600000";

std::string_view bytes_of(const tbs_uuid_t &uuid) {
    return {reinterpret_cast<const char *>(uuid.bytes), sizeof uuid.bytes};
}

// A counter of the locked row. What has been forged is not to grow over what the column holds.
uint64_t counter_of(const PostgresRows &rows, int column) {
    const std::string text = rows.text(0, column);
    const long long number = strtoll(text.c_str(), nullptr, 10);
    if (number < 0 || number > INT64_MAX / 2)
        throw StoreError("the registry's counters are damaged in the database");
    return static_cast<uint64_t>(number);
}

} // namespace

PostgresSession::PostgresSession(const std::string &conninfo, PostgresUse use, bool &is_new)
    : database_(conninfo, use == PostgresUse::reading ? PostgresServer::replica : PostgresServer::primary), use_(use) {
    if (use_ == PostgresUse::reading) {
        connect();
        return;
    }
    database_.connect();
    is_new = make_postgres_schema(database_, postgres_schema_steps());
    seen_ = database_.generation();
    if (use_ == PostgresUse::moving)
        database_.run(patience_of_move);
    else
        database_.run("DELETE FROM writer WHERE at < now() - interval '30 days'");
}

void PostgresSession::require_served(std::string_view place, uint64_t version) const {
    require_postgres_version(version);
    if (use_ != PostgresUse::moving && !place.empty())
        throw StoreMoved(moved_words(std::string(place)));
}

PostgresRows PostgresSession::reading(const std::function<PostgresRows()> &body) {
    if (is_amid()) {
        require_connection();
        return body();
    }
    const bool was_connected = database_.is_connected();
    connect();
    try {
        return body();
    } catch (const StoreAway &) {
        if (!was_connected || database_.is_connected())
            throw;
    }
    connect();
    return body();
}

// A server that is reached anew may hold something else by now.
void PostgresSession::connect() {
    database_.connect();
    if (database_.generation() == seen_)
        return;
    try {
        require_postgres_schema(database_);
    } catch (const StoreError &) {
        database_.drop();
        throw;
    }
    if (use_ == PostgresUse::moving)
        database_.run(patience_of_move);
    seen_ = database_.generation();
}

void PostgresSession::at_one_moment(const std::function<void()> &body) {
    if (in_hand_)
        return body();
    reading([&] { return database_.run("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY"); });
    is_at_one_moment_ = true;
    try {
        body();
    } catch (...) {
        is_at_one_moment_ = false;
        roll_back();
        throw;
    }
    is_at_one_moment_ = false;
    roll_back();
}

void PostgresSession::together(const std::function<void()> &body) {
    if (in_hand_)
        return make_step(body);
    begin();
    try {
        body();
        commit();
    } catch (...) {
        in_hand_.reset();
        roll_back();
        throw;
    }
    in_hand_.reset();
}

// The row that was waited for is looked at as it is behind the wait, so what was moved meanwhile is seen.
void PostgresSession::begin() {
    const std::string lock_ms = std::to_string(std::max<int64_t>(wait_for_others_now_ms(), 1));
    try {
        const PostgresRows row = reading([&] {
            return database_.run("BEGIN; SET LOCAL lock_timeout = " + lock_ms +
                                 "; SELECT changes, last_number, coalesce(encode(moved, 'escape'), ''), version "
                                 "FROM registry FOR UPDATE");
        });
        if (row.count() != 1)
            throw StoreError("the registry's row is gone from the database");
        require_served(row.bytes(0, 2), counter_of(row, 3));
        began_ = in_hand_.emplace(Counters{counter_of(row, 0), counter_of(row, 1)});
    } catch (...) {
        roll_back();
        throw;
    }
}

void PostgresSession::roll_back() {
    velia::server::roll_back(database_);
}

void PostgresSession::require_connection() const {
    if (!database_.is_connected())
        throw StoreAway("the connection broke amid a transaction");
}

void PostgresSession::make_step(const std::function<void()> &body) {
    require_connection();
    const Counters before = *in_hand_;
    database_.run("SAVEPOINT step");
    try {
        body();
        require_connection();
        database_.run("RELEASE step");
    } catch (...) {
        in_hand_ = before;
        if (database_.is_connected())
            database_.run("ROLLBACK TO step; RELEASE step");
        throw;
    }
}

// A standby that has to have it may take its time; the wait here has an end.
void PostgresSession::commit() {
    require_connection();
    if (*in_hand_ == began_) {
        database_.run("COMMIT");
        return;
    }
    const std::string changes = "UPDATE registry SET changes = " + std::to_string(in_hand_->changes) +
                                ", last_number = " + std::to_string(in_hand_->last_number);
    commit_marked(database_, changes, {"writer", bytes_of(writer_), ++transaction_}, [this] {
        in_hand_.reset();
        return is_made();
    });
}

// Under the lock, which the transaction holds until it has ended in one way or the other. Somebody may have moved the
// registry behind it.
bool PostgresSession::is_made() {
    try {
        begin();
    } catch (const StoreMoved &) {
        const PostgresRows rows = reading([&] { return database_.run(last_transaction, writer_); });
        return rows.count() == 1 && rows.number(0, 0) == transaction_;
    }
    in_hand_.reset();
    const PostgresRows rows = database_.run(last_transaction, writer_);
    const bool is_made = rows.count() == 1 && rows.number(0, 0) == transaction_;
    roll_back();
    return is_made;
}

} // namespace velia::server
