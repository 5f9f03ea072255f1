#include <tests/system/support/registry_file.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace velia::system_test {

namespace {

constexpr int busy_timeout_ms = 10'000;

} // namespace

void change_registry(const Site &site, const std::string &sql) {
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open(site.path("host/priv/registry.db").c_str(), &database), SQLITE_OK);
    sqlite3_busy_timeout(database, busy_timeout_ms);
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    sqlite3_close(database);
}

void fill_registry(const Site &site, uint32_t db, size_t entry_count) {
    change_registry(
        site,
        "INSERT INTO entry (db, region, identity, text) WITH RECURSIVE number(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
        "FROM number WHERE i < " +
            std::to_string(entry_count) + ") SELECT " + std::to_string(db) +
            ", x'', x'', CAST('-name=region' || i || ';-title=one of many;' AS BLOB) FROM number");
}

RegistryLock::RegistryLock(const Site &site, const std::string &file) : database_(nullptr) {
    sqlite3 *database = nullptr;
    EXPECT_EQ(sqlite3_open(site.path(file).c_str(), &database), SQLITE_OK);
    sqlite3_busy_timeout(database, busy_timeout_ms);
    EXPECT_EQ(sqlite3_exec(database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    database_ = database;
}

RegistryLock::~RegistryLock() {
    release();
}

void RegistryLock::release() {
    sqlite3_close(static_cast<sqlite3 *>(database_));
    database_ = nullptr;
}

} // namespace velia::system_test
