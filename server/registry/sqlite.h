// The few calls of SQLite that a store makes, with errors as exceptions and statements that are prepared once.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sqlite3.h>

#include <server/registry/store.h>

namespace velia::server {

// A database's other files take over the mode of this one; it holds a password's hash.
void make_private_file(const std::string &file_name);

void remove_file(const std::string &file_name); // if it is there

// The contents of a file that SQLite has let go of.
void put_on_disk(const std::string &file_name);

// That the file has its name.
void put_directory_on_disk(const std::string &file_name);

// What errno says, as a StoreError.
[[noreturn]] void throw_system_error();

// Unlike all others of a database: each commit leaves a new one.
using CommitMark = std::array<uint64_t, 6>;

// Takes no system call and no lock.
CommitMark read_mark(const volatile uint64_t *marks);

// How long any thread waits for somebody else who has a database: a client's call takes two such waits. 0: not at all
// any more, also who is waiting now.
constexpr int64_t usual_wait_for_others_ms = 11000;
void wait_for_others(int64_t wait_ms);
int64_t wait_for_others_now_ms();

class Sqlite {
public:
    // What is only read has to be there, and nothing is made beside it. What is passing has no name, and goes with
    // this.
    enum class Access { change, read, passing };
    explicit Sqlite(const std::string &file_name, Access access = Access::change);
    Sqlite(const Sqlite &) = delete;
    Sqlite &operator=(const Sqlite &) = delete;

    // Leaves the files as they are found when the database is closed: none is cleared away.
    void leave_log(bool is_left);

    // From now on changes go to a write-ahead log.
    void write_ahead();

    // Puts what the log holds into the database, as far as nobody needs it there; the log is used anew then, and a
    // long one is cut.
    void checkpoint();

    // Where the mark of the last commit is, whoever makes it, for as long as the database is open; null where it cannot
    // be told.
    const volatile uint64_t *commit_marks();
    bool is_in_transaction() const { return sqlite3_get_autocommit(database_.get()) == 0; }

    void run(const char *sql);
    int64_t last_row_id() const { return sqlite3_last_insert_rowid(database_.get()); }
    int64_t changed_rows() const { return sqlite3_changes64(database_.get()); }
    sqlite3 *get() const { return database_.get(); }
    [[noreturn]] void fail() const;

private:
    static int is_worth_waiting(void *database, int attempts);

    struct Close {
        void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
    };
    std::unique_ptr<sqlite3, Close> database_;
    bool has_log_ = false;
    int64_t waits_since_ms_ = 0;
};

class Statement {
public:
    Statement(Sqlite &database, const char *sql);

    // Binds the parameters in order and readies the statement for its first row.
    template <class... Values>
    Statement &with(const Values &...values) {
        sqlite3_reset(statement_.get());
        int position = 0;
        (bind(++position, values), ...);
        return *this;
    }
    // True while there is a row; after the last one the statement holds nothing of the database any more.
    bool step();
    void run() {
        while (step()) {
        }
    }
    void reset() { sqlite3_reset(statement_.get()); }

    bool is_empty_or(int column, std::string_view text) const;
    int64_t number(int column) const { return sqlite3_column_int64(statement_.get(), column); }
    std::string text(int column) const;
    tbs_uuid_t uuid(int column) const;

private:
    void bind(int position, int64_t value);
    void bind(int position, uint64_t value) { bind(position, static_cast<int64_t>(value)); }
    void bind(int position, uint32_t value) { bind(position, int64_t{value}); }
    void bind(int position, std::optional<int64_t> value); // none: a null
    void bind(int position, std::string_view value);
    void bind(int position, const tbs_uuid_t &value);
    void check(int result) const;

    struct Finalize {
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };
    Sqlite &database_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// Rolls back unless it was committed. Within another it is a step of that.
class Transaction {
public:
    explicit Transaction(Sqlite &database);
    ~Transaction();
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    void commit();

private:
    Sqlite &database_;
    const bool is_step_;
    bool is_open_ = true;
};

} // namespace velia::server
