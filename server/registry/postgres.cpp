#include <server/registry/postgres.h>

#include <algorithm>
#include <array>
#include <cstring>

#include <server/loop/handles.h>
#include <server/registry/postgres_errors.h>
#include <server/registry/sqlite.h>
#include <server/registry/time_lines.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr int64_t greeting_ms = 3000;
constexpr int64_t patience_ms = 15000; // a client's call waits for 25 s
constexpr int64_t replica_patience_ms = 3000;
constexpr int oldest_server = 150000;
constexpr int binary = 1;

// Of a session. Look-ups go by an index however few records there are, and in one way whatever is looked for, so that
// it is thought out once; a server that is told otherwise about commits meanwhile is obeyed by the next session; what
// is idle amid a transaction, such as of a daemon whose host is gone, lets go of the lock.
constexpr const char *greeting =
    "SET statement_timeout = 12000; SET idle_in_transaction_session_timeout = 10000; SET enable_seqscan = off; "
    "SET enable_bitmapscan = off; SET plan_cache_mode = force_generic_plan; SET jit = off; SET client_min_messages = "
    "warning; "
    "SELECT set_config('synchronous_commit', CASE WHEN wanted IN ('off', 'local') THEN 'on' ELSE wanted END, false) "
    "FROM current_setting('synchronous_commit') AS wanted; "
    "SELECT pg_is_in_recovery() OR current_setting('transaction_read_only') = 'on', "
    "CASE WHEN pg_is_in_recovery() THEN '' ELSE substr(pg_walfile_name(pg_current_wal_lsn()), 1, 8) END, "
    "(SELECT system_identifier FROM pg_control_system())";

// Of one that others stand in for at once.
constexpr const char *greeting_to_replica = "SET statement_timeout = 2500";

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

bool may_have_password(const std::string &conninfo) {
    return conninfo.find("password") != std::string::npos || conninfo.find("://") != std::string::npos;
}

// What the library quotes of a string may be a part of the password, or all of it.
std::string without_quoted(std::string fault) {
    const size_t first = fault.find('"');
    if (first != std::string::npos)
        fault.replace(first, fault.rfind('"') + 1 - first, "...");
    return fault;
}

// Taken for the host and its port, it would be told.
bool has_slash_in_password(const std::string &conninfo) {
    const size_t authority = conninfo.find("://");
    if (authority == std::string::npos)
        return false;
    const size_t slash = conninfo.find('/', authority + 3);
    const size_t at = conninfo.find('@', authority + 3);
    return slash < at && at < conninfo.find('?');
}

std::string big_endian(uint64_t number, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        text.push_back(static_cast<char>(number >> shift));
    return text;
}

// Dimensions, whether there are nulls, the type; of the one dimension the count and the first index; the elements.
template <class Element, class Bytes>
std::string array_of(uint64_t type, const std::vector<Element> &elements, Bytes &&bytes_of) {
    const bool is_empty = elements.empty();
    std::string array = big_endian(is_empty ? 0 : 1, 4) + big_endian(0, 4) + big_endian(type, 4);
    if (!is_empty)
        array += big_endian(elements.size(), 4) + big_endian(1, 4);
    for (const Element &element : elements) {
        const std::string bytes = bytes_of(element);
        array += big_endian(bytes.size(), 4) + bytes;
    }
    return array;
}

} // namespace

std::string fault_of_conninfo(const std::string &conninfo) {
    std::string fault;
    if (conninfo.empty())
        return "it is empty";
    if (has_slash_in_password(conninfo))
        return "a / in the password or the user is written %2F";
    parse(conninfo, fault);
    return may_have_password(conninfo) ? without_quoted(fault) : fault;
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

void PostgresRows::require_place(int row, int column) const {
    if (row >= PQntuples(result_.get()) || column >= PQnfields(result_.get()))
        throw StoreError("the database answers less than it was asked for");
}

bool PostgresRows::is_null(int row, int column) const {
    require_place(row, column);
    return PQgetisnull(result_.get(), row, column) != 0;
}

std::string_view PostgresRows::bytes(int row, int column) const {
    if (is_null(row, column))
        throw StoreError("a value is missing in the database");
    return {PQgetvalue(result_.get(), row, column), static_cast<size_t>(PQgetlength(result_.get(), row, column))};
}

uint64_t PostgresRows::number(int row, int column) const {
    const std::string_view value = bytes(row, column);
    uint64_t number = 0;
    if (value.size() != sizeof number)
        throw StoreError("malformed number in the database");
    for (const char byte : value)
        number = number << 8 | static_cast<unsigned char>(byte);
    if (number > INT64_MAX)
        throw StoreError("negative number in the database");
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

void PostgresValues::add(const std::vector<std::string> &elements) {
    constexpr uint64_t type_bytea = 17;
    values_.push_back(array_of(type_bytea, elements, [](const std::string &bytes) { return bytes; }));
}

void PostgresValues::add(const std::vector<int64_t> &elements) {
    constexpr uint64_t type_bigint = 20;
    values_.push_back(
        array_of(type_bigint, elements, [](int64_t number) { return big_endian(static_cast<uint64_t>(number), 8); }));
}

Postgres::Postgres(const std::string &conninfo, PostgresServer server)
    : conninfo_(conninfo), server_(server),
      usual_wait_ms_(server == PostgresServer::primary ? patience_ms : replica_patience_ms),
      standing_(PostgresStanding::of(conninfo, server)), connection_(nullptr, PQfinish) {}

void Postgres::drop() {
    connection_.reset();
    prepared_.clear();
}

void Postgres::connect() {
    if (is_connected() && time_line_.is_newest())
        return;
    drop();
    try {
        connection_ = standing_->connect(conninfo_);
        if (is_connected())
            greet();
    } catch (const std::exception &error) {
        drop();
        if (standing_->note_failure(error.what()))
            throw StoreAway(error.what());
        throw;
    }
    if (!is_connected())
        throw StoreAway(standing_->reason());
    standing_->note_success();
    ++generation_;
}

void Postgres::greet() {
    PQsetErrorVerbosity(connection_.get(), PQERRORS_DEFAULT);
    PQsetNoticeReceiver(
        connection_.get(), [](void *is_remarked, const PGresult *) { *static_cast<bool *>(is_remarked) = true; },
        &is_remarked_);
    if (PQserverVersion(connection_.get()) < oldest_server)
        throw StoreError("the server is older than PostgreSQL 15");
    const PostgresRows greeted = run(greeting, greeting_ms);
    if (server_ == PostgresServer::primary)
        require_primary(greeted);
    else
        run(greeting_to_replica, greeting_ms);
}

void Postgres::require_primary(const PostgresRows &greeted) {
    if (greeted.bytes(0, 0) == "t")
        throw_postgres_error("25006", "no server that is named takes changes");
    constexpr int hexadecimal = 16;
    time_line_ =
        TimeLine(greeted.text(0, 2), static_cast<uint32_t>(strtoul(greeted.text(0, 1).c_str(), nullptr, hexadecimal)));
}

// The answer may have been on its way; whoever has sent what changes something asks after it.
void Postgres::lose(const std::string &words) {
    drop();
    throw StoreAway(words);
}

void Postgres::wait(bool is_to_write, int64_t deadline_ms) {
    if (!waits_for_socket(connection_.get(), is_to_write, deadline_ms))
        lose("no answer in time");
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

// Such as a copy, of which there would be results without an end.
void Postgres::refuse(PGresult *result) {
    PQclear(result);
    drop();
    throw StoreError("the database answers what it was not asked for");
}

// All results are taken, so that the connection is ready for the next statement; the first error is what went wrong.
PostgresRows Postgres::answer(int64_t wait_ms) {
    const int64_t deadline_ms = monotonic_ms() + wait_ms;
    is_remarked_ = false;
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
        else if (status != PGRES_FATAL_ERROR && status != PGRES_EMPTY_QUERY && status != PGRES_BAD_RESPONSE)
            refuse(result);
        else if (failed == nullptr)
            failed.reset(result);
        else
            PQclear(result);
    }
    if (failed != nullptr)
        fail(failed.get());
    return last;
}

PostgresRows Postgres::run(const std::string &sql, int64_t wait_ms) {
    require_sent(PQsendQuery(connection_.get(), sql.c_str()));
    return answer(wait_ms);
}

void Postgres::prepare(const PostgresStatement &statement) {
    if (prepared_.contains(statement.name))
        return;
    require_sent(PQsendPrepare(connection_.get(), statement.name, statement.sql, 0, nullptr));
    answer(usual_wait_ms_);
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
    return answer(usual_wait_ms_);
}

} // namespace velia::server
