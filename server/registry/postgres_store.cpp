// What the store's operations are in the database's statements. How they come to be one transaction is the session's
// affair.
#include <server/registry/postgres_store.h>

#include <algorithm>
#include <vector>

#include <server/registry/moved.h>
#include <server/registry/postgres_replica.h>
#include <server/registry/postgres_session.h>
#include <server/registry/postgres_statements.h>
#include <server/registry/replacing.h>
#include <server/registry/staged_sets.h>

namespace velia::server {

namespace {

constexpr uint64_t first_rows = 50; // most look-ups find few
constexpr uint64_t rows_max = 1000;
constexpr size_t text_bytes_max = 1 << 20; // more than any that came from here

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

class PostgresStore : public StoreWithSets, private RecordKeeper {
public:
    PostgresStore(const std::string &conninfo, PostgresUse use, const std::string &replica, bool &is_new)
        : StoreWithSets(sets_database_), session_(conninfo, use, is_new) {
        registry_ = PostgresStore::stamps(0).registry;
        if (!replica.empty())
            replica_.emplace(replica);
    }

    std::unique_ptr<StoreVersion> watch_version() override { return std::make_unique<UnknownVersion>(); }
    void refresh() override {}
    bool is_in_place() override { return true; }

    Stamps stamps(rgy_db_t db) override { return stamps_in(session_.read(statements::stamp, db), 0, db); }

    uint64_t count(rgy_db_t db) override {
        const PostgresRows rows = session_.read(statements::count, db);
        return rows.count() == 1 ? rows.number(0, 0) : 0;
    }

    void scan(const Selection &selection, uint64_t after_id, const Visit &visit) override {
        for (uint64_t rows_wanted = first_rows;; rows_wanted = std::min(rows_wanted * 4, rows_max)) {
            const PostgresRows rows =
                page(statements::scan_all, statements::scan_item, selection, after_id, rows_wanted);
            if (!visit_all(rows, rows.count(), after_id, visit) || static_cast<uint64_t>(rows.count()) < rows_wanted)
                return;
        }
    }

    void reading_on(rgy_db_t db, const rgy_dtm_pair_t &pair, const std::function<void(Store &)> &body) override {
        if (!replica_ || !replica_->read(db, pair, body))
            body(*this);
    }

    // The way to the database and back costs more than what it is asked there.
    Stamps scan_with_stamps(const Selection &selection, uint64_t after_id, const Visit &visit) override {
        const PostgresRows rows =
            page(statements::scan_all_stamped, statements::scan_item_stamped, selection, after_id, first_rows);
        const Stamps stamps = stamps_in(rows, 2, selection.db);
        const int count = rows.is_null(0, 0) ? 0 : rows.count();
        if (visit_all(rows, count, after_id, visit) && static_cast<uint64_t>(count) == first_rows)
            scan(selection, after_id, visit);
        return stamps;
    }

    void at_one_moment(const std::function<void()> &body) override { session_.at_one_moment(body); }

    // What is staged beside it goes the same way.
    void together(const std::function<void()> &body) override {
        std::optional<Transaction> staged;
        session_.together([&] {
            staged.emplace(sets_database_);
            body();
        });
        staged->commit();
    }

    AddResult add(rgy_db_t db, const rgy_dtm_pair_t &expected, const std::string &identity,
                  const std::string &flex_text, const Items &items) override {
        return session_.within([&] {
            const PostgresRows added =
                session_.run(statements::add, db, expected.dtm, expected.svr_dtm, random_uuid(), random_uuid(),
                             session_.in_hand().last_number + 1, region_of(items), identity, flex_text, joined(items));
            if (added.count() == 0)
                return is_same(stamps(db).pair, expected) ? AddResult::exists : AddResult::stale;
            ++session_.in_hand().last_number;
            ++session_.in_hand().changes;
            return AddResult::added;
        });
    }

    bool remove(rgy_db_t db, uint64_t id, Record &removed) override {
        return session_.within([&] {
            const PostgresRows gone = session_.run(statements::remove, db, id, random_uuid(), random_uuid());
            if (gone.count() == 0)
                return false;
            removed = {id, gone.text(0, 0)};
            ++session_.in_hand().changes;
            return true;
        });
    }

    ChangeResult change(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
                        const Items &items) override {
        return session_.within([&] {
            if (session_.run(statements::is_there, db, id).count() == 0)
                return ChangeResult::absent;
            if (const auto bearer = identity.empty() ? std::nullopt : bearer_of(db, identity); bearer && *bearer != id)
                return ChangeResult::exists;
            session_.run(statements::change, id, region_of(items), identity, flex_text);
            session_.run(statements::remove_items, id);
            session_.run(statements::put_items, db, id, joined(items));
            renew_stamps(db);
            return ChangeResult::changed;
        });
    }

    void replace(rgy_db_t db, const std::optional<rgy_dtm_pair_t> &stamps, Contents contents) override {
        together([&] {
            make_like(*this, *this, db, std::move(contents));
            const rgy_dtm_pair_t pair = stamps ? *stamps : rgy_dtm_pair_t{random_uuid(), random_uuid()};
            session_.run(statements::put_counted_stamps, db, pair.dtm, pair.svr_dtm);
            ++session_.in_hand().changes;
        });
    }

    void begin_anew(const tbs_uuid_t &registry) override {
        together([&] {
            session_.run("DELETE FROM item; DELETE FROM entry; UPDATE stamp SET entries = 0");
            for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
                renew_stamps(db);
            session_.run(statements::name_registry, registry);
        });
        registry_ = registry;
    }

    void skip_numbers(uint64_t gap) override {
        session_.within([&] { return session_.in_hand().last_number += gap; });
    }

    void save_to(const std::string &file_name) override;

    std::string setting(const std::string &name) override {
        const PostgresRows rows = session_.read(statements::setting, name);
        return rows.count() == 1 ? rows.text(0, 0) : "";
    }

    void set_setting(const std::string &name, const std::string &value) override {
        session_.within([&] {
            session_.run(statements::put_setting, name, value);
            return ++session_.in_hand().changes;
        });
    }

    std::map<std::string, std::string> settings() override {
        const PostgresRows rows = session_.read(statements::settings);
        std::map<std::string, std::string> settings;
        for (int row = 0; row < rows.count(); ++row)
            settings[rows.text(row, 0)] = rows.text(row, 1);
        return settings;
    }

    uint64_t last_number() override {
        return session_.is_in_transaction() ? session_.in_hand().last_number
                                            : session_.read(statements::counters).number(0, 1);
    }
    uint64_t changes() override {
        return session_.is_in_transaction() ? session_.in_hand().changes
                                            : session_.read(statements::counters).number(0, 0);
    }

    uint64_t size_bytes() override { return session_.read(statements::size_bytes).number(0, 0); }

    void checkpoint() override {}

    std::string moved_to() override { return session_.read(statements::moved_to).text(0, 0); }

    void set_moved_to(const std::string &place) override {
        session_.within([&] {
            session_.run(statements::set_moved_to, place);
            return ++session_.in_hand().changes;
        });
    }

private:
    Stamps stamps_in(const PostgresRows &rows, int column, rgy_db_t db) const {
        session_.require_served(rows.bytes(0, column + 4), rows.number(0, column + 5));
        Stamps stamps = {{}, rows.uuid(0, column + 2), rows.uuid(0, column + 3)};
        if (db < RGY_DB_ALL || !rows.is_null(0, column))
            stamps.pair = {rows.uuid(0, column), rows.uuid(0, column + 1)};
        return stamps;
    }

    PostgresRows page(const PostgresStatement &all, const PostgresStatement &with_item, const Selection &selection,
                      uint64_t after_id, uint64_t rows_wanted) {
        if (selection.key.empty())
            return session_.read(all, selection.db, after_id, selection.region, rows_wanted);
        return session_.read(with_item, selection.db, after_id, selection.region, rows_wanted,
                             joined(selection.key, selection.value));
    }

    // False: the visitor has enough.
    static bool visit_all(const PostgresRows &rows, int count, uint64_t &after_id, const Visit &visit) {
        for (int row = 0; row < count; ++row) {
            after_id = next_number(after_id, rows.number(row, 0));
            const bool is_selected = !rows.is_null(row, 1);
            const Record record = is_selected ? Record{after_id, bounded_text(rows, row, 1)} : Record{};
            if (!visit(after_id, is_selected ? &record : nullptr))
                return false;
        }
        return true;
    }

    std::optional<uint64_t> bearer_of(rgy_db_t db, const std::string &identity) override {
        const PostgresRows rows = session_.run(statements::bearer, db, identity);
        return rows.count() == 1 ? std::optional(rows.number(0, 0)) : std::nullopt;
    }

    void erase(rgy_db_t /*db*/, uint64_t id) override { session_.run(statements::erase_entry, id); }

    void put(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
             const Items &items) override {
        session_.run(statements::put_entry, id, db, region_of(items), identity, flex_text, joined(items));
        session_.in_hand().last_number = std::max(session_.in_hand().last_number, id);
    }

    void renew_stamps(rgy_db_t db) {
        session_.run(statements::put_stamps, db, random_uuid(), random_uuid());
        ++session_.in_hand().changes;
    }

    Sqlite sets_database_{"", Sqlite::Access::passing};
    PostgresSession session_;
    std::optional<PostgresReplica> replica_;
    tbs_uuid_t registry_ = {};
};

void PostgresStore::save_to(const std::string &file_name) {
    save_into_sqlite(*this, file_name);
}

} // namespace

std::unique_ptr<Store> open_postgres_store(const std::string &conninfo, bool &is_new, PostgresUse use,
                                           const std::string &replica) {
    return std::make_unique<PostgresStore>(conninfo, use, replica, is_new);
}

} // namespace velia::server
