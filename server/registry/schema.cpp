#include <server/registry/schema.h>

namespace velia::server {

namespace {

// How many entries each database has, so that nobody has to count them. A database of before has none of this, and a
// program of before keeps it true all the same.
constexpr const char *totals = R"(
CREATE TABLE total (db INTEGER PRIMARY KEY, entries INTEGER NOT NULL);
INSERT INTO total SELECT db, count(*) FROM entry GROUP BY db;
CREATE TRIGGER entry_added AFTER INSERT ON entry BEGIN
    INSERT INTO total VALUES (new.db, 1) ON CONFLICT (db) DO UPDATE SET entries = entries + 1;
END;
CREATE TRIGGER entry_removed AFTER DELETE ON entry BEGIN
    UPDATE total SET entries = entries - 1 WHERE db = old.db;
END;
)";

bool has_totals(Sqlite &database) {
    return number_answer(database, "SELECT count(*) FROM sqlite_master WHERE name = 'total'") != 0;
}

} // namespace

int64_t number_answer(Sqlite &database, const char *question) {
    Statement query(database, question);
    const int64_t number = query.step() ? query.number(0) : 0;
    query.reset();
    return number;
}

std::string text_answer(Sqlite &database, const char *question) {
    Statement query(database, question);
    std::string text = query.step() ? query.text(0) : "";
    query.reset();
    return text;
}

void require_registry(Sqlite &database) {
    const int64_t version = number_answer(database, "PRAGMA user_version");
    if (version > registry_schema_version)
        throw StoreError("the registry was written by a newer version of this program");
    if (version < 1)
        throw StoreError("the file is no registry");
}

void make_totals(Sqlite &database) {
    if (has_totals(database))
        return;
    Transaction transaction(database);
    if (!has_totals(database))
        database.run(totals);
    transaction.commit();
}

// They are in the table of totals, whose page each change writes anyway. A program of before does not count, and the
// next one goes on where it was.
uint64_t stored_changes(Sqlite &database) {
    return has_totals(database)
               ? static_cast<uint64_t>(number_answer(database, "SELECT entries FROM total WHERE db = -1"))
               : 0;
}

} // namespace velia::server
