// The registry in one SQLite file. The write-ahead log with full synchronisation makes each commit durable before it is
// acknowledged; the stamps change in the transaction of the update that they tell of.
#include <server/registry/store.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <server/loop/unique_fd.h>
#include <server/registry/random_uuid.h>
#include <server/registry/replacing.h>
#include <server/registry/schema.h>
#include <server/registry/staged_sets.h>
#include <server/registry/trace.h>
#include <support/fileutl.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr const char *schema = R"(
CREATE TABLE entry (id INTEGER PRIMARY KEY AUTOINCREMENT, db INTEGER NOT NULL, region BLOB NOT NULL,
                    identity BLOB NOT NULL, text BLOB NOT NULL);
CREATE INDEX entry_of_db ON entry (db, id);
CREATE UNIQUE INDEX entry_identity ON entry (db, identity) WHERE identity <> x'';
CREATE TABLE item (db INTEGER NOT NULL, key BLOB NOT NULL, value BLOB NOT NULL, entry INTEGER NOT NULL,
                   PRIMARY KEY (db, key, value, entry)) WITHOUT ROWID;
CREATE INDEX item_of_entry ON item (entry);
CREATE TABLE stamp (db INTEGER PRIMARY KEY, dtm BLOB NOT NULL, svr_dtm BLOB NOT NULL);
CREATE TABLE setting (name BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
)";

using FileIdentity = std::pair<dev_t, ino_t>;

std::optional<FileIdentity> identity_of_file(const std::string &file_name) {
    struct stat status = {};
    if (stat(file_name.c_str(), &status) != 0)
        return std::nullopt;
    return FileIdentity(status.st_dev, status.st_ino);
}

class SqliteVersion : public StoreVersion {
public:
    explicit SqliteVersion(const volatile uint64_t *marks) : marks_(marks) {}

    uint64_t now() override {
        if (marks_ == nullptr)
            return ++version_;
        if (const auto mark = read_mark(marks_); mark != seen_) {
            seen_ = mark;
            ++version_;
        }
        return version_;
    }

private:
    const volatile uint64_t *marks_;
    CommitMark seen_ = {};
    uint64_t version_ = 1;
};

class SqliteStore : public StoreWithSets, private RecordKeeper {
public:
    explicit SqliteStore(const std::string &file_name)
        : StoreWithSets(database_), file_name_(file_name), database_(file_name), file_(identity_of_file(file_name)),
          trace_(file_name) {
        refuse_others();
        database_.write_ahead();
        database_.run("PRAGMA synchronous = FULL");
        make_totals(database_);
        trace_.leave();
        statements_ = std::make_unique<Statements>(database_);
        registry_ = named_uuid("registry");
        copy_ = named_uuid("copy");
        version_ = SqliteStore::watch_version();
        seen_version_ = version_->now();
    }

    std::unique_ptr<StoreVersion> watch_version() override {
        return std::make_unique<SqliteVersion>(database_.commit_marks());
    }

    // The version is taken before what it stands for is read: a commit in between shows the next time.
    void refresh() override {
        if (const uint64_t version = version_->now(); version != seen_version_) {
            registry_ = named_uuid("registry");
            seen_version_ = version;
        }
    }

    Stamps stamps(rgy_db_t db) override {
        auto &query = statements_->stamp.with(db);
        Stamps stamps = {{}, registry_, copy_};
        if (query.step())
            stamps.pair = {query.uuid(0), query.uuid(1)};
        query.reset();
        return stamps;
    }

    uint64_t count(rgy_db_t db) override {
        auto &query = statements_->count.with(db);
        const uint64_t count = query.step() ? static_cast<uint64_t>(query.number(0)) : 0;
        query.reset();
        return count;
    }

    bool is_in_place() override { return file_ && identity_of_file(file_name_) == file_; }

    void scan(const Selection &selection, uint64_t after_id, const Visit &visit) override {
        Statement &query = selection.key.empty()
                               ? statements_->scan_all.with(selection.db, after_id)
                               : statements_->scan_item.with(selection.db, after_id, selection.key, selection.value);
        while (query.step()) {
            const auto id = static_cast<uint64_t>(query.number(0));
            const bool is_selected = selection.region.empty() || query.is_empty_or(2, selection.region);
            const Record record = is_selected ? Record{id, query.text(1)} : Record{};
            if (!visit(id, is_selected ? &record : nullptr))
                break;
        }
        query.reset();
    }

    void together(const std::function<void()> &body) override {
        require_file();
        Transaction transaction(database_);
        body();
        transaction.commit();
        acknowledge();
    }

    AddResult add(rgy_db_t db, const rgy_dtm_pair_t &expected, const std::string &identity,
                  const std::string &flex_text, const Items &items) override {
        require_file();
        Transaction transaction(database_);
        if (!is_same(stamps(db).pair, expected))
            return AddResult::stale;
        if (!identity.empty() && bearer_of(db, identity))
            return AddResult::exists;
        insert(db, std::nullopt, identity, flex_text, items);
        renew_stamps(db);
        transaction.commit();
        acknowledge();
        return AddResult::added;
    }

    bool remove(rgy_db_t db, uint64_t id, Record &removed) override {
        require_file();
        Transaction transaction(database_);
        auto &query = statements_->find.with(db, id);
        const bool is_found = query.step();
        if (is_found)
            removed = {id, query.text(0)};
        query.reset();
        if (!is_found)
            return false;
        erase(db, id);
        renew_stamps(db);
        transaction.commit();
        acknowledge();
        return true;
    }

    ChangeResult change(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
                        const Items &items) override {
        require_file();
        Transaction transaction(database_);
        auto &query = statements_->find.with(db, id);
        const bool is_found = query.step();
        query.reset();
        if (!is_found)
            return ChangeResult::absent;
        if (const auto bearer = identity.empty() ? std::nullopt : bearer_of(db, identity); bearer && *bearer != id)
            return ChangeResult::exists;
        erase(db, id);
        insert(db, static_cast<int64_t>(id), identity, flex_text, items);
        renew_stamps(db);
        transaction.commit();
        acknowledge();
        return ChangeResult::changed;
    }

    void replace(rgy_db_t db, const std::optional<rgy_dtm_pair_t> &stamps, Contents contents) override {
        require_file();
        Transaction transaction(database_);
        make_like(*this, *this, db, std::move(contents));
        put_stamps(db, stamps ? *stamps : rgy_dtm_pair_t{random_uuid(), random_uuid()});
        transaction.commit();
        acknowledge();
    }

    void begin_anew(const tbs_uuid_t &registry) override {
        Transaction transaction(database_);
        database_.run("DELETE FROM item; DELETE FROM entry");
        for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
            renew_stamps(db);
        statements_->put_setting.with(std::string_view("registry"), registry).run();
        transaction.commit();
        registry_ = registry;
        acknowledge();
    }

    void skip_numbers(uint64_t gap) override {
        Transaction transaction(database_);
        database_.run("INSERT INTO sqlite_sequence (name, seq) SELECT 'entry', 0 "
                      "WHERE NOT EXISTS (SELECT 1 FROM sqlite_sequence WHERE name = 'entry')");
        Statement(database_, "UPDATE sqlite_sequence SET seq = seq + ?1 WHERE name = 'entry'").with(gap).run();
        transaction.commit();
    }

    void save_to(const std::string &file_name) override {
        const std::string unfinished = file_name + ".new";
        remove_file(unfinished);
        make_private_file(unfinished);
        Statement(database_, "VACUUM INTO CAST(?1 AS TEXT)").with(std::string_view(unfinished)).run();
        put_on_disk(unfinished);
        if (fileutl_rename(unfinished.c_str(), file_name.c_str()) != 0)
            throw_system_error();
    }

    std::string setting(const std::string &name) override {
        auto &query = statements_->get_setting.with(name);
        std::string value = query.step() ? query.text(0) : "";
        query.reset();
        return value;
    }

    void set_setting(const std::string &name, const std::string &value) override {
        require_file();
        Transaction transaction(database_);
        statements_->put_setting.with(name, value).run();
        count_change();
        transaction.commit();
        acknowledge();
    }

    std::map<std::string, std::string> settings() override {
        std::map<std::string, std::string> settings;
        Statement query(database_, "SELECT name, value FROM setting WHERE name NOT IN (CAST('registry' AS BLOB), "
                                   "CAST('copy' AS BLOB), CAST('moved' AS BLOB))");
        while (query.step())
            settings[query.text(0)] = query.text(1);
        return settings;
    }

    uint64_t last_number() override {
        return static_cast<uint64_t>(number_answer(database_, "SELECT seq FROM sqlite_sequence WHERE name = 'entry'"));
    }

    uint64_t changes() override { return stored_changes(database_); }

    uint64_t size_bytes() override {
        return static_cast<uint64_t>(number_answer(database_, "PRAGMA page_count") *
                                     number_answer(database_, "PRAGMA page_size"));
    }

    void checkpoint() override { database_.checkpoint(); }

    std::string moved_to() override { return setting(moved_setting); }
    void set_moved_to(const std::string &place) override { set_setting(moved_setting, place); }

private:
    struct Statements {
        explicit Statements(Sqlite &database)
            : stamp(database, "SELECT dtm, svr_dtm FROM stamp WHERE db = ?1"),
              put_stamp(database, "INSERT OR REPLACE INTO stamp (db, dtm, svr_dtm) VALUES (?1, ?2, ?3)"),
              count(database, "SELECT entries FROM total WHERE db = ?1"),
              scan_all(database, "SELECT id, text, region FROM entry WHERE db = ?1 AND id > ?2 ORDER BY id"),
              scan_item(database, "SELECT id, text, region FROM item JOIN entry ON entry.id = item.entry "
                                  "WHERE item.db = ?1 AND item.entry > ?2 AND key = ?3 AND value = ?4 "
                                  "ORDER BY item.entry"),
              bearer(database, "SELECT id FROM entry WHERE db = ?1 AND identity = ?2 AND identity <> x''"),
              insert(database, "INSERT INTO entry (id, db, region, identity, text) VALUES (?1, ?2, ?3, ?4, ?5)"),
              insert_item(database, "INSERT OR IGNORE INTO item (db, key, value, entry) VALUES (?1, ?2, ?3, ?4)"),
              find(database, "SELECT text FROM entry WHERE db = ?1 AND id = ?2"),
              remove(database, "DELETE FROM entry WHERE id = ?1"),
              remove_items(database, "DELETE FROM item WHERE entry = ?1"),
              get_setting(database, "SELECT value FROM setting WHERE name = ?1"),
              put_setting(database, "INSERT OR REPLACE INTO setting (name, value) VALUES (?1, ?2)"),
              count_change(database, "INSERT INTO total VALUES (-1, 1) "
                                     "ON CONFLICT (db) DO UPDATE SET entries = entries + 1 RETURNING entries") {}

        Statement stamp, put_stamp, count, scan_all, scan_item, bearer, insert, insert_item, find, remove, remove_items,
            get_setting, put_setting, count_change;
    };

    // What is acknowledged has to be there after a restart, too.
    void require_file() {
        if (!is_in_place())
            throw StoreError(
                "the file was taken away under the daemon: put it back, or its copy in its place, and send "
                "the daemon SIGHUP");
    }

    tbs_uuid_t named_uuid(std::string_view name) {
        auto &query = statements_->get_setting.with(name);
        if (!query.step())
            throw StoreError("the registry has lost its name");
        const tbs_uuid_t uuid = query.uuid(0);
        query.reset();
        return uuid;
    }

    // Only what this program has made, or one before it, is opened for changes.
    void refuse_others() {
        database_.leave_log(true);
        require_registry(database_);
        if (trace_.is_there())
            refuse_older();
        else
            refuse_damaged();
        database_.leave_log(false);
    }

    void refuse_older() {
        const auto acknowledged = trace_.mark();
        RegistryTrace::Mark found;
        const std::string name =
            text_answer(database_, "SELECT value FROM setting WHERE name = CAST('registry' AS BLOB)");
        if (!acknowledged || name.size() != sizeof found.registry)
            return;
        memcpy(&found.registry, name.data(), name.size());
        found.changes = stored_changes(database_);
        RegistryTrace::require_not_older(found, acknowledged);
    }

    // One that comes from elsewhere, such as the file of a running daemon: it may have been copied amid a change.
    void refuse_damaged() {
        if (const std::string words = text_answer(database_, "PRAGMA quick_check(1)"); words != "ok")
            throw StoreError("the file is damaged: " + words);
    }

    // Who has this identity.
    std::optional<uint64_t> bearer_of(rgy_db_t db, const std::string &identity) override {
        auto &query = statements_->bearer.with(db, identity);
        std::optional<uint64_t> id;
        if (query.step())
            id = static_cast<uint64_t>(query.number(0));
        query.reset();
        return id;
    }

    void insert(rgy_db_t db, std::optional<int64_t> number, const std::string &identity, const std::string &flex_text,
                const Items &items) {
        statements_->insert.with(number, db, value_of(items, registry_item_name(RGY_ITEM_REGION)), identity, flex_text)
            .run();
        const int64_t id = database_.last_row_id();
        for (const auto &[key, value] : items)
            add_item(db, key, value, id);
    }

    void put(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
             const Items &items) override {
        insert(db, static_cast<int64_t>(id), identity, flex_text, items);
    }

    void erase(rgy_db_t /*db*/, uint64_t id) override {
        statements_->remove_items.with(id).run();
        statements_->remove.with(id).run();
    }

    // A uuid is found by its one spelling, too, however it was written.
    void add_item(rgy_db_t db, const std::string &key, const std::string &value, int64_t id) {
        statements_->insert_item.with(db, key, value, id).run();
        if (const auto spelled = spelled_uuid(value); spelled && *spelled != value)
            statements_->insert_item.with(db, key, *spelled, id).run();
    }

    void renew_stamps(rgy_db_t db) { put_stamps(db, {random_uuid(), random_uuid()}); }

    void put_stamps(rgy_db_t db, const rgy_dtm_pair_t &pair) {
        statements_->put_stamp.with(db, pair.dtm, pair.svr_dtm).run();
        count_change();
    }

    void count_change() {
        Statement &count = statements_->count_change;
        if (count.step())
            changes_ = static_cast<uint64_t>(count.number(0));
        count.run();
    }

    // A step of what others are put together in is acknowledged with them.
    void acknowledge() {
        if (!database_.is_in_transaction())
            trace_.note({registry_, changes_});
    }

    const std::string file_name_;
    Sqlite database_;
    const std::optional<FileIdentity> file_;
    RegistryTrace trace_;
    std::unique_ptr<Statements> statements_;
    std::unique_ptr<StoreVersion> version_;
    uint64_t seen_version_ = 0;
    tbs_uuid_t registry_ = {};
    tbs_uuid_t copy_ = {};
    uint64_t changes_ = 0;
};

class SqliteCopy : public SqliteStore {
public:
    using SqliteStore::SqliteStore;
    bool is_substitute() const override { return true; }
};

void make_empty_registry(const std::string &file_name) {
    Sqlite database(file_name);
    Transaction transaction(database);
    database.run(schema);
    make_totals(database);
    database.run("PRAGMA user_version = 1");
    Statement put(database, "INSERT INTO setting (name, value) VALUES (?1, ?2)");
    put.with(std::string_view("registry"), random_uuid()).run();
    put.with(std::string_view("copy"), random_uuid()).run();
    Statement put_stamp(database, "INSERT INTO stamp (db, dtm, svr_dtm) VALUES (?1, ?2, ?3)");
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        put_stamp.with(db, random_uuid(), random_uuid()).run();
    transaction.commit();
}

// A registry gets its name when it is whole. So whoever is killed amid that leaves none, and a file of the name that is
// empty was a registry once, or is somebody else's. True when it was made; not when another process was quicker.
bool make_if_absent(const std::string &file_name) {
    struct stat status = {};
    if (lstat(file_name.c_str(), &status) == 0) {
        if (S_ISREG(status.st_mode) && status.st_size == 0)
            throw StoreError("the file is empty, and a registry never is: put its copy in its place, or remove it to "
                             "begin a new one");
        return false;
    }
    if (errno != ENOENT)
        throw_system_error();
    if (access(trace_of_registry(file_name).c_str(), F_OK) == 0)
        throw StoreError("the file is gone, and a registry was there: put its copy in its place, or remove \"" +
                         trace_of_registry(file_name) + "\" to begin a new one");
    for (const char *suffix : {"-wal", "-shm"}) // of one that was removed on purpose: its log would be replayed
        remove_file(file_name + suffix);
    const std::string unfinished = file_name + ".new." + std::to_string(getpid());
    remove_file(unfinished);
    make_empty_registry(unfinished);
    const bool is_made = link(unfinished.c_str(), file_name.c_str()) == 0;
    const int error_number = errno;
    remove_file(unfinished);
    if (!is_made && error_number != EEXIST)
        throw StoreError(imsg_strerror(error_number));
    put_directory_on_disk(file_name);
    return is_made;
}

} // namespace

// A trace comes behind the registry: whoever is killed in between leaves it to the next one.
std::unique_ptr<Store> open_sqlite_store(const std::string &file_name, bool &is_new) {
    is_new = make_if_absent(file_name);
    return std::make_unique<SqliteStore>(file_name);
}

std::unique_ptr<Store> existing_copy(const std::string &file_name) {
    if (access(file_name.c_str(), F_OK) != 0)
        return nullptr;
    return std::make_unique<SqliteCopy>(file_name);
}

} // namespace velia::server
