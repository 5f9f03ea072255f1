// The few calls of libpq that a store makes: one connection of one thread, with errors as exceptions and statements
// that are prepared once. Nothing of it waits without an end: whoever is silent for long is taken for gone.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <libpq-fe.h>

#include <server/registry/postgres_attempt.h>
#include <server/registry/store.h>
#include <server/registry/time_lines.h>

namespace velia::server {

// What is wrong with a connection string, for people; empty for one that is right.
std::string fault_of_conninfo(const std::string &conninfo);

// The connection string without its secrets, for messages.
std::string told_conninfo(const std::string &conninfo);

// Rows of an answer. What a prepared statement gives is binary, what plain text gives is text. A value that is not
// there, or not of the form that is asked for, is a StoreError: tables may have been altered by whomever.
class PostgresRows {
public:
    explicit PostgresRows(PGresult *result) : result_(result, PQclear) {}

    int count() const { return PQntuples(result_.get()); }
    bool is_null(int row, int column) const;
    std::string_view bytes(int row, int column) const;
    std::string text(int row, int column) const { return std::string(bytes(row, column)); }
    uint64_t number(int row, int column) const; // binary, of eight bytes, not negative
    tbs_uuid_t uuid(int row, int column) const;

private:
    void require_place(int row, int column) const;

    std::unique_ptr<PGresult, void (*)(PGresult *)> result_;
};

// Parameters in the form in which they are sent.
class PostgresValues {
public:
    template <class... Values>
    explicit PostgresValues(const Values &...values) {
        values_.reserve(sizeof...(values));
        (add(values), ...);
    }
    const std::vector<std::string> &values() const { return values_; }

private:
    void add(uint64_t number); // bigint
    void add(int64_t number) { add(static_cast<uint64_t>(number)); }
    void add(uint32_t number); // integer
    void add(std::string_view bytes) { values_.emplace_back(bytes); }
    void add(const tbs_uuid_t &uuid);
    void add(const std::vector<std::string> &elements); // bytea[]
    void add(const std::vector<int64_t> &elements);     // bigint[]

    std::vector<std::string> values_;
};

struct PostgresStatement {
    const char *name;
    const char *sql;
};

class Postgres {
public:
    explicit Postgres(const std::string &conninfo, PostgresServer server = PostgresServer::primary);
    Postgres(const Postgres &) = delete;
    Postgres &operator=(const Postgres &) = delete;

    // Where there is no connection, or one to what is a former primary by now, one is made; not at once when the last
    // attempt was in vain, and it waits for none that takes long. Throws StoreAway, or StoreError where it is refused
    // and never was made before.
    void connect();
    bool is_connected() const { return connection_ != nullptr; }
    void drop();

    // Counts connections that have been made, to tell one from the next.
    uint64_t generation() const { return generation_; }

    // Statements as plain text; the rows of the last one. Waits so long for them, else as long as is usual.
    PostgresRows run(const std::string &sql, int64_t wait_ms);
    PostgresRows run(const std::string &sql) { return run(sql, usual_wait_ms_); }

    // Whether the server had something to remark on what was run last: of a commit, that it was made here, and that the
    // wait for a standby to have it, too, was ended before one had.
    bool is_remarked() const { return is_remarked_; }

    template <class... Values>
    PostgresRows run(const PostgresStatement &statement, const Values &...values) {
        return run_prepared(statement, PostgresValues(values...).values());
    }

private:
    void greet();
    void require_primary(const PostgresRows &greeted);
    void wait(bool is_to_write, int64_t deadline_ms);
    PostgresRows run_prepared(const PostgresStatement &statement, const std::vector<std::string> &values);
    void prepare(const PostgresStatement &statement);
    PostgresRows answer(int64_t wait_ms);
    void require_sent(int is_sent);
    [[noreturn]] void lose(const std::string &words);
    [[noreturn]] void fail(const PGresult *result);
    [[noreturn]] void refuse(PGresult *result);

    const std::string conninfo_;
    const PostgresServer server_;
    const int64_t usual_wait_ms_;
    const std::shared_ptr<PostgresStanding> standing_;
    OwnedConnection connection_;
    TimeLine time_line_;
    bool is_remarked_ = false;
    std::set<std::string> prepared_;
    uint64_t generation_ = 0;
};

} // namespace velia::server
