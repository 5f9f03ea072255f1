#include <server/registry/staged_sets.h>

#include <server/registry/schema.h>

namespace velia::server {

namespace {

constexpr int64_t sets_max = 8;

} // namespace

void StagedSets::make_place() {
    database_.run("CREATE TEMP TABLE IF NOT EXISTS staged (place INTEGER PRIMARY KEY, name BLOB, id INTEGER, "
                  "text BLOB); CREATE INDEX IF NOT EXISTS temp.staged_by_name ON staged (name, place); "
                  "CREATE TEMP TABLE IF NOT EXISTS staged_set (place INTEGER PRIMARY KEY, name BLOB UNIQUE, "
                  "changes INTEGER, bytes INTEGER)");
}

bool StagedSets::is_full(const tbs_uuid_t &set) {
    return size(set).changes == 0 && number_answer(database_, "SELECT count(*) FROM temp.staged_set") >= sets_max;
}

void StagedSets::forget_oldest() {
    Statement query(database_, "SELECT name FROM temp.staged_set ORDER BY place LIMIT 1");
    if (!query.step())
        return;
    const tbs_uuid_t oldest = query.uuid(0);
    query.reset();
    forget(oldest);
}

void StagedSets::add(const tbs_uuid_t &set, std::span<const rgy_change_t> changes) {
    make_place();
    Transaction transaction(database_);
    if (is_full(set))
        forget_oldest();
    Statement(database_, "INSERT OR IGNORE INTO temp.staged_set (name, changes, bytes) VALUES (?1, 0, 0)")
        .with(set)
        .run();
    Statement insert(database_, "INSERT INTO temp.staged (name, id, text) VALUES (?1, ?2, ?3)");
    uint64_t bytes = 0;
    for (const rgy_change_t &change : changes) {
        const std::string text = flex_text_of(change);
        bytes += text.size();
        insert.with(set, change.entry_id, text).run();
    }
    Statement(database_, "UPDATE temp.staged_set SET changes = changes + ?2, bytes = bytes + ?3 WHERE name = ?1")
        .with(set, uint64_t{changes.size()}, bytes)
        .run();
    transaction.commit();
}

Store::SetSize StagedSets::size(const tbs_uuid_t &set) {
    make_place();
    Statement query(database_, "SELECT changes, bytes FROM temp.staged_set WHERE name = ?1");
    if (!query.with(set).step())
        return {};
    return {static_cast<uint64_t>(query.number(0)), static_cast<uint64_t>(query.number(1))};
}

void StagedSets::each(const tbs_uuid_t &set, const std::function<bool(uint64_t id, const std::string &text)> &visit) {
    make_place();
    Statement query(database_, "SELECT id, text FROM temp.staged WHERE name = ?1 ORDER BY place");
    query.with(set);
    while (query.step() && visit(static_cast<uint64_t>(query.number(0)), query.text(1))) {
    }
}

void StagedSets::forget(const tbs_uuid_t &set) {
    make_place();
    Statement(database_, "DELETE FROM temp.staged WHERE name = ?1").with(set).run();
    Statement(database_, "DELETE FROM temp.staged_set WHERE name = ?1").with(set).run();
}

} // namespace velia::server
