#include <tests/unit/store/store_kinds.h>

#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include <server/registry/postgres_store.h>
#include <tests/postgres/server.h>

namespace velia::server {

namespace {

// In memory where the system has a place for that: what is tested here is no disk.
std::filesystem::path quick_directory() {
    const char *const quick = "/dev/shm";
    return access(quick, W_OK) == 0 ? std::filesystem::path(quick) : std::filesystem::temp_directory_path();
}

class SqlitePlace : public StorePlace {
public:
    SqlitePlace() {
        std::string name = (quick_directory() / "velia-store-XXXXXX").string();
        directory_ = mkdtemp(name.data());
    }
    ~SqlitePlace() override { std::filesystem::remove_all(directory_); }

    std::unique_ptr<Store> open(bool &is_new) override { return open_sqlite_store(directory_ / "registry.db", is_new); }

private:
    std::filesystem::path directory_;
};

// A schema of its own in the server that all tests of this program share.
class PostgresPlace : public StorePlace {
public:
    PostgresPlace() {
        static int number = 0;
        const std::string schema = "place" + std::to_string(++number);
        postgres_test::server().run("CREATE SCHEMA " + schema);
        conninfo_ = postgres_test::server().conninfo() + "options='-c search_path=" + schema + "'";
    }

    std::unique_ptr<Store> open(bool &is_new) override { return open_postgres_store(conninfo_, is_new); }

private:
    std::string conninfo_;
};

} // namespace

std::vector<StoreKind> store_kinds() {
    return {{"Sqlite", [] { return std::make_unique<SqlitePlace>(); }},
            {"Postgres", [] { return std::make_unique<PostgresPlace>(); }}};
}

} // namespace velia::server
