#include <server/registry/postgres.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <mutex>
#include <poll.h>
#include <utility>

#include <server/loop/handles.h>
#include <server/registry/postgres_errors.h>
#include <server/registry/sqlite.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr int64_t open_ms = 8000;    // for all the hosts that a connection string names
constexpr int64_t answer_ms = 15000; // a client's call waits for 25 s
constexpr int64_t slice_ms = 100;    // between two looks whether the daemon is to end
constexpr int64_t hurried_ms = 500;  // what such a daemon waits for an answer
constexpr int64_t first_pause_ms = 100;
constexpr int64_t longest_pause_ms = 5000;
constexpr int oldest_server = 150000;
constexpr int binary = 1;

// What a connection string may say otherwise. A host that is silent has its time, so that the next one is asked.
constexpr std::array<std::pair<const char *, const char *>, 5> defaults = {{{"application_name", "rvzd_server"},
                                                                            {"target_session_attrs", "read-write"},
                                                                            {"tcp_user_timeout", "3000"},
                                                                            {"keepalives_idle", "5"},
                                                                            {"keepalives_interval", "3"}}};

// Of a session. Look-ups go by an index however few records there are; what is idle amid a transaction, such as of a
// daemon whose host is gone, lets go of the lock.
constexpr const char *greeting =
    "SET statement_timeout = 12000; SET idle_in_transaction_session_timeout = 10000; SET enable_seqscan = off; "
    "SET enable_bitmapscan = off; SET jit = off; SET client_min_messages = error; "
    "SELECT set_config('synchronous_commit', 'on', false) WHERE current_setting('synchronous_commit') = 'off'; "
    "SELECT pg_is_in_recovery() OR current_setting('transaction_read_only') = 'on', "
    "CASE WHEN pg_is_in_recovery() THEN '' ELSE substr(pg_walfile_name(pg_current_wal_lsn()), 1, 8) END";

using ParsedOptions = std::unique_ptr<PQconninfoOption, void (*)(PQconninfoOption *)>;

ParsedOptions parse(const std::string &conninfo, std::string &fault) {
    char *words = nullptr;
    ParsedOptions options(PQconninfoParse(conninfo.c_str(), &words), PQconninfoFree);
    if (options == nullptr)
        fault = words != nullptr ? words : "no memory";
    PQfreemem(words);
    while (fault.ends_with('\n'))
        fault.pop_back();
    return options;
}

std::string big_endian(uint64_t number, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        text.push_back(static_cast<char>(number >> shift));
    return text;
}

} // namespace

struct PostgresStanding {
    std::mutex lock; // of all that follows
    bool is_away = false;
    int64_t pause_ms = 0;
    int64_t not_before_ms = 0;
    std::string reason;
    std::string timeline; // the highest that a server was on: each promotion begins another
};

namespace {

std::shared_ptr<PostgresStanding> standing_of(const std::string &conninfo) {
    static std::mutex lock;
    static std::map<std::string, std::shared_ptr<PostgresStanding>> standings;
    const std::scoped_lock hold(lock);
    auto &standing = standings[conninfo];
    if (standing == nullptr)
        standing = std::make_shared<PostgresStanding>();
    return standing;
}

void note_failure(PostgresStanding &standing, const std::string &words) {
    const std::scoped_lock hold(standing.lock);
    standing.pause_ms = std::clamp(standing.pause_ms * 2, first_pause_ms, longest_pause_ms);
    standing.not_before_ms = monotonic_ms() + standing.pause_ms;
    standing.reason = words;
    if (!std::exchange(standing.is_away, true))
        imsg_print(IMSG_ERROR, "The registry's database is away: %s\n", IMSG_FORMAT, words.c_str());
}

void note_success(PostgresStanding &standing) {
    const std::scoped_lock hold(standing.lock);
    standing.pause_ms = standing.not_before_ms = 0;
    if (std::exchange(standing.is_away, false))
        imsg_print(IMSG_PLAIN, "The registry's database is there again.\n", IMSG_FORMAT);
}

// A primary that comes back after its standby was promoted goes on with the time line of before.
void require_timeline(PostgresStanding &standing, const std::string &timeline) {
    const std::scoped_lock hold(standing.lock);
    if (timeline < standing.timeline)
        throw StoreAway("the server is a former primary: it is on time line " + timeline + ", and " +
                        standing.timeline + " has been seen");
    standing.timeline = timeline;
}

} // namespace

std::string fault_of_conninfo(const std::string &conninfo) {
    std::string fault;
    if (conninfo.empty())
        return "it is empty";
    parse(conninfo, fault);
    return fault;
}

std::string told_conninfo(const std::string &conninfo) {
    std::string fault;
    const ParsedOptions options = parse(conninfo, fault);
    std::string told = "postgresql";
    for (const auto *option = options.get(); option != nullptr && option->keyword != nullptr; ++option)
        for (const char *shown : {"host", "hostaddr", "port", "dbname", "user"})
            if (option->val != nullptr && strcmp(option->keyword, shown) == 0)
                told += std::string(" ") + shown + "=" + option->val;
    return told;
}

uint64_t PostgresRows::number(int row, int column) const {
    uint64_t number = 0;
    for (const char byte : bytes(row, column))
        number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

tbs_uuid_t PostgresRows::uuid(int row, int column) const {
    tbs_uuid_t uuid = {};
    const std::string_view value = bytes(row, column);
    if (value.size() != sizeof uuid)
        throw StoreError("malformed uuid in the database");
    memcpy(&uuid, value.data(), sizeof uuid);
    return uuid;
}

void PostgresValues::add(uint64_t number) {
    values_.push_back(big_endian(number, 8));
}

void PostgresValues::add(uint32_t number) {
    values_.push_back(big_endian(number, 4));
}

void PostgresValues::add(const tbs_uuid_t &uuid) {
    values_.emplace_back(reinterpret_cast<const char *>(&uuid), sizeof uuid);
}

// Dimensions, whether there are nulls, the type; of the one dimension the count and the first index; the elements.
void PostgresValues::add(const std::vector<std::string> &elements) {
    constexpr uint64_t type_bytea = 17;
    const bool is_empty = elements.empty();
    std::string array = big_endian(is_empty ? 0 : 1, 4) + big_endian(0, 4) + big_endian(type_bytea, 4);
    if (!is_empty)
        array += big_endian(elements.size(), 4) + big_endian(1, 4);
    for (const std::string &element : elements)
        array += big_endian(element.size(), 4) + element;
    values_.push_back(std::move(array));
}

Postgres::Postgres(const std::string &conninfo)
    : conninfo_(conninfo), standing_(standing_of(conninfo)), connection_(nullptr, PQfinish) {}

void Postgres::drop() {
    connection_.reset();
    prepared_.clear();
}

void Postgres::connect() {
    if (is_connected())
        return;
    {
        const std::scoped_lock hold(standing_->lock);
        if (monotonic_ms() < standing_->not_before_ms)
            throw StoreAway(standing_->reason);
    }
    try {
        open();
    } catch (const StoreError &error) {
        drop();
        note_failure(*standing_, error.what());
        throw;
    }
    note_success(*standing_);
}

void Postgres::open() {
    std::vector<const char *> names;
    std::vector<const char *> values;
    for (const auto &[name, value] : defaults) {
        names.push_back(name);
        values.push_back(value);
    }
    names.push_back("dbname"); // stands for all that it says
    values.push_back(conninfo_.c_str());
    for (auto *list : {&names, &values})
        list->push_back(nullptr);
    constexpr int is_expanded = 1;
    connection_.reset(PQconnectStartParams(names.data(), values.data(), is_expanded));
    if (connection_ == nullptr)
        throw StoreError("no memory for a connection");
    finish_opening();
    greet();
    ++generation_;
}

// Only a verbose message tells its code.
void Postgres::finish_opening() {
    PQsetErrorVerbosity(connection_.get(), PQERRORS_VERBOSE);
    const int64_t deadline_ms = monotonic_ms() + open_ms;
    auto state = PQstatus(connection_.get()) == CONNECTION_BAD ? PGRES_POLLING_FAILED : PGRES_POLLING_WRITING;
    while (state == PGRES_POLLING_READING || state == PGRES_POLLING_WRITING) {
        wait(state == PGRES_POLLING_WRITING, deadline_ms);
        state = PQconnectPoll(connection_.get());
    }
    if (state == PGRES_POLLING_OK)
        return;
    const std::string words = PQerrorMessage(connection_.get());
    throw_postgres_error(code_in(words), first_message_in(words));
}

void Postgres::greet() {
    PQsetErrorVerbosity(connection_.get(), PQERRORS_DEFAULT);
    PQsetNoticeProcessor(
        connection_.get(), [](void *, const char *) {}, nullptr);
    if (PQserverVersion(connection_.get()) < oldest_server)
        throw StoreError("the server is older than PostgreSQL 15");
    const PostgresRows rows = run(greeting);
    if (rows.bytes(0, 0) == "t")
        throw_postgres_error("25006", "no server that is named takes changes");
    require_timeline(*standing_, rows.text(0, 1));
}

// The answer may have been on its way; whoever has sent what changes something asks after it.
void Postgres::lose(const std::string &words) {
    drop();
    throw StoreAway(words);
}

void Postgres::wait(bool is_to_write, int64_t deadline_ms) {
    pollfd descriptor = {PQsocket(connection_.get()), static_cast<short>(is_to_write ? POLLOUT | POLLIN : POLLIN), 0};
    bool is_hurried = false;
    for (int64_t now_ms = monotonic_ms();; now_ms = monotonic_ms()) {
        if (!is_hurried && wait_for_others_now_ms() == 0) {
            is_hurried = true;
            deadline_ms = std::min(deadline_ms, now_ms + hurried_ms);
        }
        if (now_ms >= deadline_ms)
            lose("no answer in time");
        if (poll(&descriptor, 1, static_cast<int>(std::min(deadline_ms - now_ms, slice_ms))) > 0)
            return;
    }
}

void Postgres::fail(const PGresult *result) {
    const char *code = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    const char *message = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    const std::string told_code = code != nullptr ? code : "";
    std::string words = message != nullptr ? message : first_message_in(PQerrorMessage(connection_.get()));
    if (PQstatus(connection_.get()) == CONNECTION_BAD || told_code == "25006")
        drop();
    throw_postgres_error(told_code, words);
}

void Postgres::require_sent(int is_sent) {
    if (is_sent == 0)
        lose(first_message_in(PQerrorMessage(connection_.get())));
}

// All results are taken, so that the connection is ready for the next statement; the first error is what went wrong.
PostgresRows Postgres::answer() {
    const int64_t deadline_ms = monotonic_ms() + answer_ms;
    PostgresRows last(nullptr);
    std::unique_ptr<PGresult, void (*)(PGresult *)> failed(nullptr, PQclear);
    while (true) {
        while (PQflush(connection_.get()) == 1)
            wait(true, deadline_ms);
        while (PQisBusy(connection_.get()) != 0) {
            wait(false, deadline_ms);
            if (PQconsumeInput(connection_.get()) == 0 && PQisBusy(connection_.get()) != 0)
                lose(first_message_in(PQerrorMessage(connection_.get())));
        }
        PGresult *result = PQgetResult(connection_.get());
        if (result == nullptr)
            break;
        const auto status = PQresultStatus(result);
        if (status == PGRES_TUPLES_OK || status == PGRES_COMMAND_OK)
            last = PostgresRows(result);
        else if (failed == nullptr)
            failed.reset(result);
        else
            PQclear(result);
    }
    if (failed != nullptr)
        fail(failed.get());
    return last;
}

PostgresRows Postgres::run(const std::string &sql) {
    require_sent(PQsendQuery(connection_.get(), sql.c_str()));
    return answer();
}

void Postgres::prepare(const PostgresStatement &statement) {
    if (prepared_.contains(statement.name))
        return;
    require_sent(PQsendPrepare(connection_.get(), statement.name, statement.sql, 0, nullptr));
    answer();
    prepared_.insert(statement.name);
}

PostgresRows Postgres::run_prepared(const PostgresStatement &statement, const std::vector<std::string> &values) {
    prepare(statement);
    std::vector<const char *> pointers;
    std::vector<int> lengths;
    for (const std::string &value : values) {
        pointers.push_back(value.data());
        lengths.push_back(static_cast<int>(value.size()));
    }
    const std::vector<int> formats(values.size(), binary);
    require_sent(PQsendQueryPrepared(connection_.get(), statement.name, static_cast<int>(values.size()),
                                     pointers.data(), lengths.data(), formats.data(), binary));
    return answer();
}

} // namespace velia::server
