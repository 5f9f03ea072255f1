#include <server/registry/postgres_attempt.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <new>
#include <poll.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <server/loop/handles.h>
#include <server/registry/postgres_errors.h>
#include <server/registry/sqlite.h>
#include <server/registry/store.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr int64_t attempt_ms = 8000;  // for all the hosts that a connection string names
constexpr int64_t patience_ms = 1000; // of who begins an attempt
constexpr int64_t replica_patience_ms = 100;
constexpr int64_t glance_ms = 10;   // of who finds one under way
constexpr int64_t slice_ms = 100;   // between two looks whether the daemon is to end
constexpr int64_t hurried_ms = 500; // what such a daemon waits for an answer
constexpr int64_t first_pause_ms = 100;
constexpr int64_t longest_pause_ms = 5000;
constexpr int attempts_max = 16; // of this process, those included that nobody waits for any more
constexpr const char *under_way = "no host has answered yet";

// What a connection string may say otherwise. A host that is silent has its time, so that the next one is asked.
constexpr std::array<std::pair<const char *, const char *>, 4> defaults = {{{"application_name", "rvzd_server"},
                                                                            {"tcp_user_timeout", "3000"},
                                                                            {"keepalives_idle", "5"},
                                                                            {"keepalives_interval", "3"}}};

const char *session_attributes(PostgresServer server) {
    return server == PostgresServer::primary ? "read-write" : "prefer-standby";
}

} // namespace

bool waits_for_socket(const PGconn *connection, bool is_to_write, int64_t deadline_ms) {
    pollfd descriptor = {PQsocket(connection), static_cast<short>(is_to_write ? POLLOUT | POLLIN : POLLIN), 0};
    bool is_hurried = false;
    for (int64_t now_ms = monotonic_ms();; now_ms = monotonic_ms()) {
        if (!is_hurried && wait_for_others_now_ms() == 0) {
            is_hurried = true;
            deadline_ms = std::min(deadline_ms, now_ms + hurried_ms);
        }
        if (now_ms >= deadline_ms)
            return false;
        if (poll(&descriptor, 1, static_cast<int>(std::min(deadline_ms - now_ms, slice_ms))) > 0)
            return true;
    }
}

// Shared by the thread that makes it and those who wait for it, of whom there may be none any more.
struct PostgresAttempt::State {
    std::mutex lock; // of all that follows
    std::condition_variable ended;
    bool is_ended = false;
    OwnedConnection connection{nullptr, PQfinish}; // what came of it; null: there was no memory
    bool is_late = false;
};

namespace {

std::atomic<int> attempts_under_way = 0;

// Only a verbose message tells its code.
OwnedConnection begin_connection(const std::string &conninfo, PostgresServer server) {
    std::vector<const char *> names = {"target_session_attrs"};
    std::vector<const char *> values = {session_attributes(server)};
    for (const auto &[name, value] : defaults) {
        names.push_back(name);
        values.push_back(value);
    }
    names.push_back("dbname"); // stands for all that it says
    values.push_back(conninfo.c_str());
    for (auto *list : {&names, &values})
        list->push_back(nullptr);
    constexpr int is_expanded = 1;
    OwnedConnection connection(PQconnectStartParams(names.data(), values.data(), is_expanded), PQfinish);
    if (connection != nullptr)
        PQsetErrorVerbosity(connection.get(), PQERRORS_VERBOSE);
    return connection;
}

// False: it was not made, nor refused, in time.
bool is_brought_to_end(PGconn *connection, int64_t deadline_ms) {
    auto state =
        connection != nullptr && PQstatus(connection) != CONNECTION_BAD ? PGRES_POLLING_WRITING : PGRES_POLLING_FAILED;
    while (state == PGRES_POLLING_READING || state == PGRES_POLLING_WRITING) {
        if (!waits_for_socket(connection, state == PGRES_POLLING_WRITING, deadline_ms))
            return false;
        state = PQconnectPoll(connection);
    }
    return true;
}

} // namespace

// Names are looked up in between, for as long as a name server likes: nobody but this thread waits for that, and nobody
// for this thread.
PostgresAttempt::PostgresAttempt(const std::string &conninfo, PostgresServer server)
    : state_(std::make_shared<State>()), deadline_ms_(monotonic_ms() + attempt_ms) {
    if (++attempts_under_way > attempts_max) {
        --attempts_under_way;
        throw StoreAway(under_way);
    }
    try {
        std::thread([state = state_, conninfo, server, deadline_ms = deadline_ms_]() mutable {
            make(*state, conninfo, server, deadline_ms);
            state.reset(); // and the connection with it, where nobody waits any more
            --attempts_under_way;
        }).detach();
    } catch (const std::system_error &error) {
        --attempts_under_way;
        throw StoreAway(std::string("no thread for a connection: ") + error.what());
    }
}

void PostgresAttempt::make(State &state, const std::string &conninfo, PostgresServer server, int64_t deadline_ms) {
    OwnedConnection connection(nullptr, PQfinish);
    try {
        connection = begin_connection(conninfo, server);
    } catch (const std::bad_alloc &) { // as where the library has none
    }
    const bool is_late = !is_brought_to_end(connection.get(), deadline_ms);
    const std::scoped_lock hold(state.lock);
    state.connection = std::move(connection);
    state.is_late = is_late;
    state.is_ended = true;
    state.ended.notify_all();
}

bool PostgresAttempt::are_under_way() {
    return attempts_under_way > 0;
}

// Whoever waits while the daemon is to end does not wait long.
bool PostgresAttempt::has_ended_within(int64_t wait_ms) {
    int64_t until_ms = std::min(monotonic_ms() + wait_ms, deadline_ms_);
    bool is_hurried = false;
    std::unique_lock hold(state_->lock);
    while (!state_->is_ended) {
        const int64_t now_ms = monotonic_ms();
        if (!is_hurried && wait_for_others_now_ms() == 0) {
            is_hurried = true;
            until_ms = std::min(until_ms, now_ms + hurried_ms);
        }
        if (now_ms >= until_ms)
            return false;
        state_->ended.wait_for(hold, std::chrono::milliseconds(std::min(until_ms - now_ms, slice_ms)));
    }
    return true;
}

bool PostgresAttempt::is_made_within(int64_t wait_ms) {
    if (!has_ended_within(wait_ms)) {
        if (monotonic_ms() < deadline_ms_ && wait_for_others_now_ms() > 0)
            return false;
        throw StoreAway("no answer in time");
    }
    const std::scoped_lock hold(state_->lock);
    if (state_->connection == nullptr)
        throw StoreError("no memory for a connection");
    if (state_->is_late)
        throw StoreAway("no answer in time");
    if (PQstatus(state_->connection.get()) == CONNECTION_OK)
        return true;
    const std::string words = PQerrorMessage(state_->connection.get());
    throw_postgres_error(code_in(words), first_message_in(words));
}

OwnedConnection PostgresAttempt::take() {
    const std::scoped_lock hold(state_->lock);
    return std::move(state_->connection);
}

std::shared_ptr<PostgresStanding> PostgresStanding::of(const std::string &conninfo, PostgresServer server) {
    static std::mutex lock;
    static std::map<std::pair<std::string, PostgresServer>, std::shared_ptr<PostgresStanding>> standings;
    const std::scoped_lock hold(lock);
    auto &standing = standings[{conninfo, server}];
    if (standing == nullptr)
        standing = std::make_shared<PostgresStanding>(server);
    return standing;
}

OwnedConnection PostgresStanding::connect(const std::string &conninfo) {
    std::unique_ptr<PostgresAttempt> attempt;
    {
        const std::scoped_lock hold(lock_);
        const bool is_looked_at = is_slow_ && attempt_ == nullptr; // by another thread, right now
        if (monotonic_ms() < not_before_ms_ || is_looked_at)
            return {nullptr, PQfinish};
        attempt = std::move(attempt_);
    }
    const bool is_begun = attempt == nullptr;
    if (is_begun)
        attempt = std::make_unique<PostgresAttempt>(conninfo, server_);
    const int64_t patience = server_ == PostgresServer::primary ? patience_ms : replica_patience_ms;
    if (attempt->is_made_within(is_begun ? patience : glance_ms))
        return attempt->take();
    put_off(std::move(attempt));
    return {nullptr, PQfinish};
}

std::string PostgresStanding::reason() {
    const std::scoped_lock hold(lock_);
    return reason_;
}

void PostgresStanding::put_off(std::unique_ptr<PostgresAttempt> attempt) {
    const std::scoped_lock hold(lock_);
    is_slow_ = true;
    attempt_ = std::move(attempt);
    tell_away(under_way);
}

void PostgresStanding::tell(const std::string &words) const {
    if (server_ == PostgresServer::primary)
        imsg_print(IMSG_ERROR, "The registry's database is away: %s\n", IMSG_FORMAT, words.c_str());
    else
        imsg_print(IMSG_WARNING, "The replica of the registry's database is away: %s\n", IMSG_FORMAT, words.c_str());
}

void PostgresStanding::tell_away(const std::string &words) {
    reason_ = words;
    if (!std::exchange(is_away_, true))
        tell(words);
}

bool PostgresStanding::note_failure(const std::string &words) {
    const std::scoped_lock hold(lock_);
    is_slow_ = false;
    pause_ms_ = std::clamp(pause_ms_ * 2, first_pause_ms, longest_pause_ms);
    not_before_ms_ = monotonic_ms() + pause_ms_;
    tell_away(words);
    return was_there_;
}

void PostgresStanding::note_success() {
    const std::scoped_lock hold(lock_);
    attempt_.reset(); // of a time at which it was slow
    is_slow_ = false;
    was_there_ = true;
    pause_ms_ = not_before_ms_ = 0;
    if (std::exchange(is_away_, false))
        imsg_print(IMSG_PLAIN, "%s is there again.\n", IMSG_FORMAT,
                   server_ == PostgresServer::primary ? "The registry's database"
                                                      : "The replica of the registry's database");
}

} // namespace velia::server
