#include <server/registry/place.h>

#include <array>
#include <cstdlib>

#include <server/registry/moved.h>
#include <server/registry/postgres.h>
#include <server/registry/postgres_store.h>
#include <server/registry/role.h>
#include <server/registry/time_lines.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr const char *copy_file_name = "registry.db.copy";
constexpr const char *copied_setting = "copied";           // the number of changes that the copy has
constexpr const char *copied_from_setting = "copied-from"; // its database
constexpr const char *copied_at_setting = "copied-at";     // when

bool has_same_stamps(Store &left, Store &right) {
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db) {
        const Stamps there = left.stamps(db);
        const Stamps here = right.stamps(db);
        if (!is_same(there.pair, here.pair) || tbs_uuid_eq(&there.registry, &here.registry) == 0)
            return false;
    }
    return true;
}

std::string &shared_place() {
    static std::string conninfo;
    return conninfo;
}

std::string &replica_place() {
    static std::string conninfo;
    return conninfo;
}

bool &is_copied() {
    static bool is_wanted = false;
    return is_wanted;
}

std::string private_file(const char *name) {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), name) == TBS_ST_OK ? path.data() : "";
}

std::unique_ptr<Store> served_here(std::unique_ptr<Store> store) {
    const std::string place = store != nullptr ? store->moved_to() : "";
    if (!place.empty())
        throw StoreMoved(moved_words(place));
    return store;
}

} // namespace

void keep_registry_in(const std::string &conninfo) {
    shared_place() = conninfo;
    if (!conninfo.empty())
        keep_time_lines_in(private_file("database_servers"));
}

bool is_registry_kept_in(const std::string &conninfo) {
    return shared_place() == conninfo;
}

bool is_registry_read_on_in(const std::string &conninfo) {
    return replica_place() == conninfo;
}

bool is_registry_shared() {
    return !shared_place().empty();
}

void read_registry_on_in(const std::string &conninfo) {
    replica_place() = conninfo;
}

void read_registry_from_copy(bool is_wanted) {
    is_copied() = is_wanted;
}

bool is_registry_copied() {
    return is_registry_shared() && is_copied();
}

// One that is of another database, or never was made whole, tells nothing.
std::unique_ptr<Store> copy_of_shared_registry() {
    auto copy = existing_copy(private_file(copy_file_name));
    return copy != nullptr && copy->setting(copied_from_setting) == registry_place() ? std::move(copy) : nullptr;
}

time_t time_of_copy(Store &copy) {
    return strtoll(copy.setting(copied_at_setting).c_str(), nullptr, 10);
}

// Stamps tell of entries, and the number of changes of settings.
void copy_shared_registry() {
    bool is_new = false;
    const auto from = open_postgres_store(shared_place(), is_new);
    const auto to = open_sqlite_store(private_file(copy_file_name), is_new);
    const std::string changes = std::to_string(from->changes());
    if (to->setting(copied_setting) == changes && to->setting(copied_from_setting) == registry_place() &&
        has_same_stamps(*from, *to))
        return;
    to->together([&] {
        move_registry(*from, *to);
        to->set_setting(copied_setting, changes);
        to->set_setting(copied_from_setting, registry_place());
        to->set_setting(copied_at_setting, std::to_string(time(nullptr)));
    });
}

std::string registry_database() {
    return shared_place();
}

std::string registry_place() {
    return is_registry_shared() ? told_conninfo(shared_place()) : registry_file();
}

std::string registry_file() {
    return private_file("registry.db");
}

std::unique_ptr<Store> open_registry(bool &is_new) {
    return is_registry_shared() ? open_postgres_store(shared_place(), is_new)
                                : served_here(open_sqlite_store(registry_file(), is_new));
}

std::unique_ptr<Store> existing_registry() {
    bool is_new = false;
    return is_registry_shared() ? open_postgres_store(shared_place(), is_new, PostgresUse::serving, replica_place())
                                : served_here(existing_store(registry_file()));
}

} // namespace velia::server
