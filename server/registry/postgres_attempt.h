// Attempts at connections to a database. One may take long, since hosts are asked one after the other and may be
// silent: whoever asks for a connection waits a little for it, and all others are told so at once until it has come to
// its end.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <libpq-fe.h>

namespace velia::server {

// What a connection string leads to, and how long that is waited for: the server that takes changes, which everything
// needs, or one that has what was changed a little later, which is done without where it is not at hand.
enum class PostgresServer { primary, replica };

using OwnedConnection = std::unique_ptr<PGconn, void (*)(PGconn *)>;

// Waits until there is something to read, or room to write; false where there is not in time. Who waits while the
// daemon is to end has little time left.
bool waits_for_socket(const PGconn *connection, bool is_to_write, int64_t deadline_ms);

// A thread of its own makes it, since names of hosts may be looked up without an end.
class PostgresAttempt {
public:
    // Throws StoreAway where too many are under way.
    explicit PostgresAttempt(const std::string &conninfo, PostgresServer server = PostgresServer::primary);

    // False: it is still under way. Throws StoreAway, or StoreError where it is refused.
    bool is_made_within(int64_t wait_ms);
    OwnedConnection take();

    // In threads that nobody joins: what the library tidies up at the end of the process is in use by them.
    static bool are_under_way();

private:
    struct State;
    static void make(State &state, const std::string &conninfo, PostgresServer server, int64_t deadline_ms);
    bool has_ended_within(int64_t wait_ms);

    std::shared_ptr<State> state_;
    int64_t deadline_ms_;
};

// What all connections of this process by one connection string know of the database.
class PostgresStanding {
public:
    static std::shared_ptr<PostgresStanding> of(const std::string &conninfo,
                                                PostgresServer server = PostgresServer::primary);
    explicit PostgresStanding(PostgresServer server) : server_(server) {}

    // A connection as it was made, before anything was asked over it; null where it is not to be had now, for that
    // reason. Throws StoreAway, or StoreError where it is refused.
    OwnedConnection connect(const std::string &conninfo);
    std::string reason();

    // Of who has a connection, and asked its first questions; the first of several failures is told. True where there
    // was a connection before.
    bool note_failure(const std::string &words);
    void note_success();

private:
    void put_off(std::unique_ptr<PostgresAttempt> attempt);
    void tell_away(const std::string &words);
    void tell(const std::string &words) const;

    const PostgresServer server_;
    std::mutex lock_; // of all that follows
    bool is_away_ = false;
    bool was_there_ = false;
    bool is_slow_ = false;                     // an attempt is under way that has taken long
    std::unique_ptr<PostgresAttempt> attempt_; // that one, while nobody looks at it
    int64_t pause_ms_ = 0;
    int64_t not_before_ms_ = 0;
    std::string reason_;
};

} // namespace velia::server
