#include <server/registry/postgres_attempt.h>

#include <algorithm>
#include <array>
#include <map>
#include <poll.h>
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
constexpr int64_t glance_ms = 10;     // of who finds one under way
constexpr int64_t slice_ms = 100;     // between two looks whether the daemon is to end
constexpr int64_t hurried_ms = 500;   // what such a daemon waits for an answer
constexpr int64_t first_pause_ms = 100;
constexpr int64_t longest_pause_ms = 5000;
constexpr const char *under_way = "no host has answered yet";

// What a connection string may say otherwise. A host that is silent has its time, so that the next one is asked.
constexpr std::array<std::pair<const char *, const char *>, 5> defaults = {{{"application_name", "rvzd_server"},
                                                                            {"target_session_attrs", "read-write"},
                                                                            {"tcp_user_timeout", "3000"},
                                                                            {"keepalives_idle", "5"},
                                                                            {"keepalives_interval", "3"}}};

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

// Only a verbose message tells its code.
PostgresAttempt::PostgresAttempt(const std::string &conninfo)
    : connection_(nullptr, PQfinish), deadline_ms_(monotonic_ms() + attempt_ms) {
    std::vector<const char *> names;
    std::vector<const char *> values;
    for (const auto &[name, value] : defaults) {
        names.push_back(name);
        values.push_back(value);
    }
    names.push_back("dbname"); // stands for all that it says
    values.push_back(conninfo.c_str());
    for (auto *list : {&names, &values})
        list->push_back(nullptr);
    constexpr int is_expanded = 1;
    connection_.reset(PQconnectStartParams(names.data(), values.data(), is_expanded));
    if (connection_ == nullptr)
        throw StoreError("no memory for a connection");
    PQsetErrorVerbosity(connection_.get(), PQERRORS_VERBOSE);
    if (PQstatus(connection_.get()) == CONNECTION_BAD)
        state_ = PGRES_POLLING_FAILED;
}

bool PostgresAttempt::is_made_within(int64_t patience) {
    const int64_t until_ms = std::min(monotonic_ms() + patience, deadline_ms_);
    while (state_ == PGRES_POLLING_READING || state_ == PGRES_POLLING_WRITING) {
        if (!waits_for_socket(connection_.get(), state_ == PGRES_POLLING_WRITING, until_ms)) {
            if (monotonic_ms() < deadline_ms_ && wait_for_others_now_ms() > 0)
                return false;
            throw StoreAway("no answer in time");
        }
        state_ = PQconnectPoll(connection_.get());
    }
    if (state_ == PGRES_POLLING_OK)
        return true;
    const std::string words = PQerrorMessage(connection_.get());
    throw_postgres_error(code_in(words), first_message_in(words));
}

std::shared_ptr<PostgresStanding> PostgresStanding::of(const std::string &conninfo) {
    static std::mutex lock;
    static std::map<std::string, std::shared_ptr<PostgresStanding>> standings;
    const std::scoped_lock hold(lock);
    auto &standing = standings[conninfo];
    if (standing == nullptr)
        standing = std::make_shared<PostgresStanding>();
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
        attempt = std::make_unique<PostgresAttempt>(conninfo);
    if (attempt->is_made_within(is_begun ? patience_ms : glance_ms))
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

void PostgresStanding::tell_away(const std::string &words) {
    reason_ = words;
    if (!std::exchange(is_away_, true))
        imsg_print(IMSG_ERROR, "The registry's database is away: %s\n", IMSG_FORMAT, words.c_str());
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
        imsg_print(IMSG_PLAIN, "The registry's database is there again.\n", IMSG_FORMAT);
}

} // namespace velia::server
