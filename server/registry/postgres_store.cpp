// Changes are made one transaction after the other: each locks the one row of "registry" first, so that daemons are in
// nobody's way but each other's, in one order, and numbers grow in the order in which they are seen. What a commit
// without an answer has come to is asked of the row that each transaction leaves of itself: it can be read for certain
// as soon as the lock is free. Reads lock nothing.
#include <server/registry/postgres_store.h>

#include <algorithm>
#include <vector>

#include <server/registry/moved.h>
#include <server/registry/postgres_commit.h>
#include <server/registry/postgres_schema.h>
#include <server/registry/random_uuid.h>
#include <server/registry/replacing.h>
#include <server/registry/staged_sets.h>

namespace velia::server {

namespace {

constexpr uint64_t first_rows = 50; // most look-ups find few
constexpr uint64_t rows_max = 1000;
constexpr size_t text_bytes_max = 1 << 20; // more than any that came from here

// Of a text that is too long as much as shows it.
#define BOUNDED_TEXT "substr(text, 1, 1048577)"
#define TEXT_IF_OF_REGION "CASE WHEN $3 = ''::bytea OR region = ''::bytea OR region = $3 THEN " BOUNDED_TEXT " END"
#define DIGESTS_OF(PARAMETER) "SELECT sha256(value) AS digest FROM unnest(" PARAMETER "::bytea[]) AS value"

namespace statements {

constexpr PostgresStatement stamp = {"stamp",
                                     "SELECT dtm, svr_dtm, name, copy FROM registry LEFT JOIN stamp ON db = $1"};
constexpr PostgresStatement count = {"count", "SELECT entries FROM stamp WHERE db = $1"};
constexpr PostgresStatement scan_all = {"scan_all", "SELECT id, " TEXT_IF_OF_REGION
                                                    " FROM entry WHERE db = $1 AND id > $2 ORDER BY id LIMIT $4"};
constexpr PostgresStatement scan_item = {
    "scan_item",
    "SELECT id, " TEXT_IF_OF_REGION " FROM item JOIN entry ON id = item.entry WHERE item.db = $1 AND item.entry > $2 "
    "AND digest = sha256($5) ORDER BY item.entry LIMIT $4"};
constexpr PostgresStatement bearer = {
    "bearer", "SELECT id FROM entry WHERE db = $1 AND sha256(identity) = sha256($2) AND identity <> ''::bytea"};
// The stamps are compared where they are renewed.
constexpr PostgresStatement add = {
    "add", "WITH stamped AS (UPDATE stamp SET dtm = $4, svr_dtm = $5, entries = entries + 1 "
           "WHERE db = $1 AND dtm = $2 AND svr_dtm = $3 AND NOT EXISTS (SELECT 1 FROM entry WHERE entry.db = $1 AND "
           "sha256(identity) = sha256($8) AND identity <> ''::bytea) RETURNING db), "
           "added AS (INSERT INTO entry (id, db, region, identity, text) SELECT $6::bigint, db, $7::bytea, $8::bytea, "
           "$9::bytea FROM stamped), "
           "items AS (INSERT INTO item (db, digest, entry) SELECT db, digest, $6 FROM stamped, (" DIGESTS_OF(
               "$10") ") AS digests ON CONFLICT DO NOTHING) SELECT 1 FROM stamped"};
constexpr PostgresStatement remove = {
    "remove", "WITH gone AS (DELETE FROM entry WHERE id = $2 AND db = $1 RETURNING " BOUNDED_TEXT " AS text), "
              "items AS (DELETE FROM item WHERE entry = $2 AND EXISTS (SELECT 1 FROM gone)), "
              "stamped AS (UPDATE stamp SET dtm = $3, svr_dtm = $4, entries = entries - 1 "
              "WHERE db = $1 AND EXISTS (SELECT 1 FROM gone)) SELECT text FROM gone"};
constexpr PostgresStatement is_there = {"is_there", "SELECT 1 FROM entry WHERE db = $1 AND id = $2"};
constexpr PostgresStatement change = {"change", "UPDATE entry SET region = $2, identity = $3, text = $4 WHERE id = $1"};
constexpr PostgresStatement put_items = {
    "put_items", "INSERT INTO item (db, digest, entry) SELECT $1::integer, "
                 "digest, $2::bigint FROM (" DIGESTS_OF("$3") ") AS digests ON CONFLICT DO NOTHING"};
constexpr PostgresStatement remove_items = {"remove_items", "DELETE FROM item WHERE entry = $1"};
constexpr PostgresStatement put_entry = {
    "put_entry", "WITH counted AS (UPDATE stamp SET entries = entries + 1 WHERE db = $2) "
                 "INSERT INTO entry (id, db, region, identity, text) VALUES ($1, $2, $3, $4, $5)"};
constexpr PostgresStatement erase_entry = {"erase_entry",
                                           "WITH gone AS (DELETE FROM entry WHERE id = $1 RETURNING db) "
                                           "UPDATE stamp SET entries = entries - 1 FROM gone WHERE stamp.db = gone.db"};
constexpr PostgresStatement put_stamps = {"put_stamps", "UPDATE stamp SET dtm = $2, svr_dtm = $3 WHERE db = $1"};
constexpr PostgresStatement name_registry = {"name_registry", "UPDATE registry SET name = $1"};
constexpr PostgresStatement setting = {"setting", "SELECT value FROM setting WHERE sha256(name) = sha256($1)"};
constexpr PostgresStatement put_setting = {"put_setting",
                                           "INSERT INTO setting (name, value) VALUES ($1, $2) "
                                           "ON CONFLICT (sha256(name)) DO UPDATE SET value = excluded.value"};
constexpr PostgresStatement settings = {"settings", "SELECT name, value FROM setting"};
constexpr PostgresStatement counters = {"counters", "SELECT changes, last_number FROM registry"};
constexpr PostgresStatement size_bytes = {
    "size_bytes",
    "SELECT sum(pg_total_relation_size(oid))::bigint FROM pg_class WHERE relkind = 'r' AND relnamespace = "
    "(SELECT oid FROM pg_namespace WHERE nspname = current_schema()) AND relname IN ('registry', 'writer', "
    "'stamp', 'entry', 'item', 'setting')"};
constexpr PostgresStatement last_transaction = {"last_transaction", "SELECT transaction FROM writer WHERE name = $1"};

} // namespace statements

// Key and value as one, so that no other pair of them is the same.
std::string joined(const std::string &key, const std::string &value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>(key.size() >> shift));
    return bytes + key + value;
}

// A uuid is found by its one spelling, too, however it was written.
std::vector<std::string> joined(const Items &items) {
    std::vector<std::string> all;
    for (const auto &[key, value] : items) {
        all.push_back(joined(key, value));
        if (const auto spelled = spelled_uuid(value); spelled && *spelled != value)
            all.push_back(joined(key, *spelled));
    }
    return all;
}

std::string region_of(const Items &items) {
    return value_of(items, registry_item_name(RGY_ITEM_REGION));
}

std::string_view bytes_of(const tbs_uuid_t &uuid) {
    return {reinterpret_cast<const char *>(uuid.bytes), sizeof uuid.bytes};
}

// Others may serve the same registry: nothing that was read is known to be so still.
class UnknownVersion : public StoreVersion {
public:
    uint64_t now() override { return ++version_; }

private:
    uint64_t version_ = 0;
};

// Whoever reads on from the last one comes to an end.
uint64_t next_number(uint64_t last, uint64_t number) {
    if (number <= last)
        throw StoreError("the numbers of entries are not in their order in the database");
    return number;
}

// Somebody else may have written it there; none is longer that came from here.
std::string bounded_text(const PostgresRows &rows, int row, int column) {
    if (rows.bytes(row, column).size() > text_bytes_max)
        throw StoreError("an entry in the database is longer than an entry may be");
    return rows.text(row, column);
}

// A counter of the locked row. What has been forged is not to grow over what the column holds.
uint64_t counter_of(const PostgresRows &rows, int column) {
    const std::string text = rows.text(0, column);
    const long long number = strtoll(text.c_str(), nullptr, 10);
    if (number < 0 || number > INT64_MAX / 2)
        throw StoreError("the registry's counters are damaged in the database");
    return static_cast<uint64_t>(number);
}

class PostgresStore : public StoreWithSets, private RecordKeeper {
public:
    PostgresStore(const std::string &conninfo, bool &is_new) : StoreWithSets(sets_database_), database_(conninfo) {
        database_.connect();
        is_new = make_postgres_schema(database_, postgres_schema_steps());
        registry_ = PostgresStore::stamps(0).registry;
        seen_ = database_.generation();
        database_.run("DELETE FROM writer WHERE at < now() - interval '30 days'");
    }

    std::unique_ptr<StoreVersion> watch_version() override { return std::make_unique<UnknownVersion>(); }
    void refresh() override {}
    bool is_in_place() override { return true; }

    Stamps stamps(rgy_db_t db) override {
        const PostgresRows rows = read(statements::stamp, db);
        Stamps stamps = {{}, rows.uuid(0, 2), rows.uuid(0, 3)};
        if (db < RGY_DB_ALL || !rows.is_null(0, 0))
            stamps.pair = {rows.uuid(0, 0), rows.uuid(0, 1)};
        return stamps;
    }

    uint64_t count(rgy_db_t db) override {
        const PostgresRows rows = read(statements::count, db);
        return rows.count() == 1 ? rows.number(0, 0) : 0;
    }

    void scan(const Selection &selection, uint64_t after_id, const Visit &visit) override {
        for (uint64_t rows_wanted = first_rows;; rows_wanted = std::min(rows_wanted * 4, rows_max)) {
            const PostgresRows rows =
                selection.key.empty()
                    ? read(statements::scan_all, selection.db, after_id, selection.region, rows_wanted)
                    : read(statements::scan_item, selection.db, after_id, selection.region, rows_wanted,
                           joined(selection.key, selection.value));
            for (int row = 0; row < rows.count(); ++row) {
                after_id = next_number(after_id, rows.number(row, 0));
                const bool is_selected = !rows.is_null(row, 1);
                const Record record = is_selected ? Record{after_id, bounded_text(rows, row, 1)} : Record{};
                if (!visit(after_id, is_selected ? &record : nullptr))
                    return;
            }
            if (static_cast<uint64_t>(rows.count()) < rows_wanted)
                return;
        }
    }

    void at_one_moment(const std::function<void()> &body) override {
        if (in_hand_)
            return body();
        reading([&] { database_.run("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY"); });
        is_at_one_moment_ = true;
        try {
            body();
        } catch (...) {
            is_at_one_moment_ = false;
            roll_back();
            throw;
        }
        is_at_one_moment_ = false;
        roll_back();
    }

    void together(const std::function<void()> &body) override {
        if (in_hand_)
            return make_step(body);
        begin();
        Sqlite &sets = sets_database_;
        Transaction staged(sets);
        try {
            body();
            commit();
        } catch (...) {
            in_hand_.reset();
            roll_back();
            throw;
        }
        in_hand_.reset();
        staged.commit();
    }

    AddResult add(rgy_db_t db, const rgy_dtm_pair_t &expected, const std::string &identity,
                  const std::string &flex_text, const Items &items) override {
        return within([&] {
            const PostgresRows added =
                database_.run(statements::add, db, expected.dtm, expected.svr_dtm, random_uuid(), random_uuid(),
                              in_hand_->last_number + 1, region_of(items), identity, flex_text, joined(items));
            if (added.count() == 0)
                return is_same(stamps(db).pair, expected) ? AddResult::exists : AddResult::stale;
            ++in_hand_->last_number;
            ++in_hand_->changes;
            return AddResult::added;
        });
    }

    bool remove(rgy_db_t db, uint64_t id, Record &removed) override {
        return within([&] {
            const PostgresRows gone = database_.run(statements::remove, db, id, random_uuid(), random_uuid());
            if (gone.count() == 0)
                return false;
            removed = {id, gone.text(0, 0)};
            ++in_hand_->changes;
            return true;
        });
    }

    ChangeResult change(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
                        const Items &items) override {
        return within([&] {
            if (database_.run(statements::is_there, db, id).count() == 0)
                return ChangeResult::absent;
            if (const auto bearer = identity.empty() ? std::nullopt : bearer_of(db, identity); bearer && *bearer != id)
                return ChangeResult::exists;
            database_.run(statements::change, id, region_of(items), identity, flex_text);
            database_.run(statements::remove_items, id);
            database_.run(statements::put_items, db, id, joined(items));
            renew_stamps(db);
            return ChangeResult::changed;
        });
    }

    void replace(rgy_db_t db, const std::optional<rgy_dtm_pair_t> &stamps, Contents contents) override {
        together([&] {
            make_like(*this, *this, db, std::move(contents));
            put_stamps(db, stamps ? *stamps : rgy_dtm_pair_t{random_uuid(), random_uuid()});
        });
    }

    void begin_anew(const tbs_uuid_t &registry) override {
        together([&] {
            database_.run("DELETE FROM item; DELETE FROM entry; UPDATE stamp SET entries = 0");
            for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
                renew_stamps(db);
            database_.run(statements::name_registry, registry);
        });
        registry_ = registry;
    }

    void skip_numbers(uint64_t gap) override {
        within([&] { return in_hand_->last_number += gap; });
    }

    void save_to(const std::string &file_name) override;

    std::string setting(const std::string &name) override {
        const PostgresRows rows = read(statements::setting, name);
        return rows.count() == 1 ? rows.text(0, 0) : "";
    }

    void set_setting(const std::string &name, const std::string &value) override {
        within([&] {
            database_.run(statements::put_setting, name, value);
            return ++in_hand_->changes;
        });
    }

    std::map<std::string, std::string> settings() override {
        const PostgresRows rows = read(statements::settings);
        std::map<std::string, std::string> settings;
        for (int row = 0; row < rows.count(); ++row)
            settings[rows.text(row, 0)] = rows.text(row, 1);
        return settings;
    }

    uint64_t last_number() override {
        return in_hand_ ? in_hand_->last_number : read(statements::counters).number(0, 1);
    }
    uint64_t changes() override { return in_hand_ ? in_hand_->changes : read(statements::counters).number(0, 0); }

    uint64_t size_bytes() override { return read(statements::size_bytes).number(0, 0); }

    void checkpoint() override {}

private:
    // What a transaction has of the locked row, which gets it with the commit.
    struct Counters {
        uint64_t changes = 0;
        uint64_t last_number = 0;
        bool operator==(const Counters &) const = default;
    };

    bool is_amid() const { return in_hand_ || is_at_one_moment_; }

    // A connection that breaks has nothing of a transaction left; what only reads, or begins, is done once more over
    // another one, since a server that was started anew is noticed by the first call.
    template <class Body>
    auto reading(Body &&body) -> decltype(body()) {
        if (is_amid() && !database_.is_connected())
            throw StoreAway("the connection broke amid a transaction");
        const bool was_connected = database_.is_connected();
        connect();
        try {
            return body();
        } catch (const StoreAway &) {
            if (is_amid() || !was_connected || database_.is_connected())
                throw;
        }
        connect();
        return body();
    }

    template <class... Values>
    PostgresRows read(const PostgresStatement &statement, const Values &...values) {
        return reading([&] { return database_.run(statement, values...); });
    }

    // A server that is reached anew may hold something else by now.
    void connect() {
        database_.connect();
        if (database_.generation() == seen_ || seen_ == 0)
            return;
        if (!has_postgres_schema(database_)) {
            database_.drop();
            throw StoreError("the registry's tables are gone from the database");
        }
        seen_ = database_.generation();
    }

    void begin() {
        const std::string lock_ms = std::to_string(std::max<int64_t>(wait_for_others_now_ms(), 1));
        try {
            reading([&] {
                const PostgresRows row = database_.run("BEGIN; SET LOCAL lock_timeout = " + lock_ms +
                                                       "; SELECT changes, last_number FROM registry FOR UPDATE");
                if (row.count() != 1)
                    throw StoreError("the registry's row is gone from the database");
                began_ = in_hand_.emplace(Counters{counter_of(row, 0), counter_of(row, 1)});
            });
        } catch (...) {
            roll_back();
            throw;
        }
    }

    void roll_back() { velia::server::roll_back(database_); }

    void require_connection() const {
        if (!database_.is_connected())
            throw StoreAway("the connection broke amid a transaction");
    }

    void make_step(const std::function<void()> &body) {
        require_connection();
        const Counters before = *in_hand_;
        database_.run("SAVEPOINT step");
        Transaction staged(sets_database_);
        try {
            body();
            require_connection();
            database_.run("RELEASE step");
        } catch (...) {
            in_hand_ = before;
            if (database_.is_connected())
                database_.run("ROLLBACK TO step; RELEASE step");
            throw;
        }
        staged.commit();
    }

    // What changes nothing unless all of it is right needs no step of its own.
    template <class Body>
    auto within(Body &&body) -> decltype(body()) {
        if (in_hand_) {
            require_connection();
            return body();
        }
        decltype(body()) result;
        together([&] { result = body(); });
        return result;
    }

    // A standby that has to have it may take its time; the wait here has an end.
    void commit() {
        require_connection();
        if (*in_hand_ == began_) {
            database_.run("COMMIT");
            return;
        }
        const std::string changes = "UPDATE registry SET changes = " + std::to_string(in_hand_->changes) +
                                    ", last_number = " + std::to_string(in_hand_->last_number);
        commit_marked(database_, changes, {"writer", bytes_of(writer_), ++transaction_}, [this] {
            in_hand_.reset();
            return is_made();
        });
    }

    // Under the lock, which the transaction holds until it has ended in one way or the other.
    bool is_made() {
        begin();
        in_hand_.reset();
        const PostgresRows rows = database_.run(statements::last_transaction, writer_);
        const bool is_made = rows.count() == 1 && rows.number(0, 0) == transaction_;
        roll_back();
        return is_made;
    }

    std::optional<uint64_t> bearer_of(rgy_db_t db, const std::string &identity) override {
        const PostgresRows rows = database_.run(statements::bearer, db, identity);
        return rows.count() == 1 ? std::optional(rows.number(0, 0)) : std::nullopt;
    }

    void erase(rgy_db_t /*db*/, uint64_t id) override {
        database_.run(statements::remove_items, id);
        database_.run(statements::erase_entry, id);
    }

    void put(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
             const Items &items) override {
        database_.run(statements::put_entry, id, db, region_of(items), identity, flex_text);
        database_.run(statements::put_items, db, id, joined(items));
        in_hand_->last_number = std::max(in_hand_->last_number, id);
    }

    void renew_stamps(rgy_db_t db) { put_stamps(db, {random_uuid(), random_uuid()}); }

    void put_stamps(rgy_db_t db, const rgy_dtm_pair_t &pair) {
        database_.run(statements::put_stamps, db, pair.dtm, pair.svr_dtm);
        ++in_hand_->changes;
    }

    Postgres database_;
    Sqlite sets_database_{"", Sqlite::Access::passing};
    const tbs_uuid_t writer_ = random_uuid();
    uint64_t transaction_ = 0;
    std::optional<Counters> in_hand_; // while a transaction is open
    Counters began_;
    bool is_at_one_moment_ = false;
    uint64_t seen_ = 0; // the connection over which the tables were looked at
    tbs_uuid_t registry_ = {};
};

void PostgresStore::save_to(const std::string &file_name) {
    save_into_sqlite(*this, file_name);
}

} // namespace

std::unique_ptr<Store> open_postgres_store(const std::string &conninfo, bool &is_new) {
    return std::make_unique<PostgresStore>(conninfo, is_new);
}

} // namespace velia::server
