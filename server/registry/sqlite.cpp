#include <server/registry/sqlite.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

// Short against the time for which somebody who comes back at once has let go.
constexpr std::chrono::milliseconds wait_between_attempts(1);

std::atomic<int64_t> wait_for_others_ms = usual_wait_for_others_ms;

// Of the write-ahead log: who copies the files of a daemon finds little in it, and whoever opens them has little to
// read.
constexpr int log_pages_usual = 250;
constexpr int64_t log_bytes_kept = int64_t{2} << 20;

constexpr int log_index_bytes = 32768; // of the first piece in which it is mapped

// SQLite counts its memory behind one lock of the process, at each piece of it: a search that is not worth much and is
// put off while it holds that lock would put off everybody.
void count_no_memory() {
    [[maybe_unused]] static const int configured = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

} // namespace

void wait_for_others(int64_t wait_ms) {
    wait_for_others_ms = wait_ms;
}

int64_t wait_for_others_now_ms() {
    return wait_for_others_ms;
}

void throw_system_error() {
    throw StoreError(imsg_strerror(errno));
}

// A file that is there is not touched: the system drops this process's locks on a file when any of its descriptors of
// that file is closed.
void make_private_file(const std::string &file_name) {
    const UniqueFd fd(open(file_name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!fd && errno != EEXIST)
        throw_system_error();
}

void remove_file(const std::string &file_name) {
    if (unlink(file_name.c_str()) != 0 && errno != ENOENT)
        throw_system_error();
}

void put_on_disk(const std::string &file_name) {
    const UniqueFd fd(open(file_name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!fd || fsync(fd.get()) != 0)
        throw_system_error();
}

void put_directory_on_disk(const std::string &file_name) {
    const std::string directory = file_name.substr(0, file_name.rfind('/') + 1);
    const UniqueFd fd(open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || fsync(fd.get()) != 0)
        throw_system_error();
}

Sqlite::Sqlite(const std::string &file_name, Access access) {
    if (access == Access::change)
        make_private_file(file_name);
    count_no_memory();
    sqlite3 *database = nullptr;
    const int mode = access == Access::read ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int result = sqlite3_open_v2(file_name.c_str(), &database, mode | SQLITE_OPEN_NOFOLLOW, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK)
        throw StoreError(database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(result));
    sqlite3_busy_handler(database, is_worth_waiting, this);
}

// Another process may set the password meanwhile, or copy the file.
int Sqlite::is_worth_waiting(void *database, int attempts) {
    auto &waiting = *static_cast<Sqlite *>(database);
    const int64_t now_ms = monotonic_ms();
    if (attempts == 0)
        waiting.waits_since_ms_ = now_ms;
    if (now_ms - waiting.waits_since_ms_ >= wait_for_others_ms)
        return 0;
    std::this_thread::sleep_for(wait_between_attempts);
    return 1;
}

void Sqlite::write_ahead() {
    Statement mode(*this, "PRAGMA journal_mode = WAL");
    has_log_ = mode.step() && mode.text(0) == "wal";
    mode.run();
    sqlite3_wal_autocheckpoint(database_.get(), log_pages_usual);
    run(("PRAGMA journal_size_limit = " + std::to_string(log_bytes_kept)).c_str());
}

void Sqlite::checkpoint() {
    sqlite3_wal_checkpoint_v2(database_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

void Sqlite::leave_log(bool is_left) {
    int persists = is_left ? 1 : 0;
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, persists, nullptr);
    sqlite3_file_control(database_.get(), "main", SQLITE_FCNTL_PERSIST_WAL, &persists);
}

// The log's index is shared memory that begins with a header, which a commit rewrites as its last act.
const volatile uint64_t *Sqlite::commit_marks() {
    sqlite3_file *file = nullptr;
    if (!has_log_ || sqlite3_file_control(database_.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
        file->pMethods == nullptr || file->pMethods->iVersion < 2)
        return nullptr;
    void volatile *index = nullptr;
    return file->pMethods->xShmMap(file, 0, log_index_bytes, 0, &index) == SQLITE_OK
               ? static_cast<const volatile uint64_t *>(index)
               : nullptr;
}

// A header that is read while it is written is like none before or behind it.
CommitMark read_mark(const volatile uint64_t *marks) {
    CommitMark mark;
    for (size_t i = 0; i < mark.size(); ++i)
        mark[i] = __atomic_load_n(marks + i, __ATOMIC_ACQUIRE);
    return mark;
}

void Sqlite::run(const char *sql) {
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail();
}

void Sqlite::fail() const {
    if (sqlite3_errcode(database_.get()) == SQLITE_BUSY)
        throw StoreBusy(sqlite3_errmsg(database_.get()));
    throw StoreError(sqlite3_errmsg(database_.get()));
}

Statement::Statement(Sqlite &database, const char *sql) : database_(database) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v3(database.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK)
        database.fail();
    statement_.reset(statement);
}

void Statement::check(int result) const {
    if (result != SQLITE_OK)
        database_.fail();
}

bool Statement::step() {
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_ROW)
        return true;
    if (result == SQLITE_DONE) {
        sqlite3_reset(statement_.get());
        return false;
    }
    const std::string words = sqlite3_errmsg(database_.get()); // before the reset changes them
    sqlite3_reset(statement_.get());
    if (result == SQLITE_BUSY)
        throw StoreBusy(words);
    throw StoreError(words);
}

bool Statement::is_empty_or(int column, std::string_view text) const {
    const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement_.get(), column));
    const auto length = static_cast<size_t>(sqlite3_column_bytes(statement_.get(), column));
    return length == 0 || std::string_view(bytes, length) == text;
}

std::string Statement::text(int column) const {
    const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement_.get(), column));
    const auto length = static_cast<size_t>(sqlite3_column_bytes(statement_.get(), column));
    return bytes != nullptr ? std::string(bytes, length) : std::string();
}

tbs_uuid_t Statement::uuid(int column) const {
    tbs_uuid_t uuid = {};
    const void *bytes = sqlite3_column_blob(statement_.get(), column);
    if (bytes == nullptr || sqlite3_column_bytes(statement_.get(), column) != sizeof uuid)
        throw StoreError("malformed uuid in the database");
    memcpy(&uuid, bytes, sizeof uuid);
    return uuid;
}

void Statement::bind(int position, int64_t value) {
    check(sqlite3_bind_int64(statement_.get(), position, value));
}

void Statement::bind(int position, std::optional<int64_t> value) {
    check(value ? sqlite3_bind_int64(statement_.get(), position, *value)
                : sqlite3_bind_null(statement_.get(), position));
}

void Statement::bind(int position, std::string_view value) {
    // As bytes: a text of clients need not be UTF-8. A null pointer would bind NULL.
    check(sqlite3_bind_blob64(statement_.get(), position, value.empty() ? "" : value.data(), value.size(),
                              SQLITE_TRANSIENT));
}

void Statement::bind(int position, const tbs_uuid_t &value) {
    check(sqlite3_bind_blob(statement_.get(), position, &value, sizeof value, SQLITE_TRANSIENT));
}

Transaction::Transaction(Sqlite &database) : database_(database), is_step_(database.is_in_transaction()) {
    database_.run(is_step_ ? "SAVEPOINT step" : "BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (is_open_)
        sqlite3_exec(database_.get(), is_step_ ? "ROLLBACK TO step; RELEASE step" : "ROLLBACK", nullptr, nullptr,
                     nullptr);
}

void Transaction::commit() {
    database_.run(is_step_ ? "RELEASE step" : "COMMIT");
    is_open_ = false;
}

} // namespace velia::server
