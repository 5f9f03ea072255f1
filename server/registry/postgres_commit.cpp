#include <server/registry/postgres_commit.h>

#include <algorithm>
#include <optional>
#include <poll.h>

#include <server/loop/handles.h>
#include <server/registry/sqlite.h>

namespace velia::server {

namespace {

constexpr int64_t asking_ms = 10000; // with the wait for the commit's answer less than a client's patience
constexpr int asking_pause_ms = 50;
constexpr const char *wait_was_ended = "somebody ended the wait for a standby";

// What was made may be on this server alone, where somebody ended its wait for a standby. A later commit is not on the
// standby before it.
void confirm(Postgres &database, const TransactionMark &mark, int64_t wait_ms) {
    database.run(std::string("BEGIN; UPDATE ") + mark.table + " SET at = now() WHERE name = " + literal_of(mark.name) +
                     "; SET LOCAL statement_timeout = 0; COMMIT",
                 std::max<int64_t>(wait_ms, 1));
    if (database.is_remarked())
        throw StoreBusy(wait_was_ended);
}

// Returns if it was made.
void ask_after_commit(Postgres &database, const TransactionMark &mark, const std::string &words,
                      const std::function<bool()> &is_made) {
    const int64_t deadline_ms = monotonic_ms() + asking_ms;
    while (monotonic_ms() < deadline_ms && wait_for_others_now_ms() > 0) {
        bool is_known_not_to_be = false;
        try {
            is_known_not_to_be = !is_made();
            if (!is_known_not_to_be)
                return confirm(database, mark, deadline_ms - monotonic_ms());
        } catch (const StoreError &) {
            roll_back(database);
            poll(nullptr, 0, asking_pause_ms);
        }
        if (is_known_not_to_be)
            throw StoreAway(words + "; what was in hand was not made");
    }
    throw StoreUncertain("the database did not say whether what was in hand was made: " + words);
}

} // namespace

void roll_back(Postgres &database) {
    if (!database.is_connected())
        return;
    try {
        database.run("ROLLBACK");
    } catch (const StoreError &) {
        database.drop();
    }
}

std::string literal_of(std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text = "'\\x";
    for (const char byte : bytes) {
        text.push_back(digits[static_cast<unsigned char>(byte) >> 4]);
        text.push_back(digits[static_cast<unsigned char>(byte) & 0xf]);
    }
    return text + "'";
}

void commit_marked(Postgres &database, const std::string &last_changes, const TransactionMark &mark,
                   const std::function<bool()> &is_made) {
    std::optional<std::string> doubt;
    try {
        database.run(last_changes + "; INSERT INTO " + mark.table + " (name, transaction) VALUES (" +
                     literal_of(mark.name) + ", " + std::to_string(mark.number) +
                     ") ON CONFLICT (name) DO UPDATE SET transaction = excluded.transaction, at = now(); "
                     "SET LOCAL statement_timeout = 0; COMMIT");
        if (database.is_remarked())
            doubt = wait_was_ended;
    } catch (const StoreError &error) {
        if (database.is_connected())
            throw;
        doubt = error.what();
    }
    if (doubt)
        ask_after_commit(database, mark, *doubt, is_made);
}

} // namespace velia::server
