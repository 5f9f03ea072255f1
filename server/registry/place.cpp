#include <server/registry/place.h>

#include <array>

#include <server/registry/moved.h>
#include <server/registry/postgres.h>
#include <server/registry/postgres_store.h>
#include <server/registry/role.h>
#include <server/registry/time_lines.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr const char *copy_file_name = "registry.db.copy";
constexpr const char *copied_setting = "copied";

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

bool &is_copied() {
    static bool is_wanted = false;
    return is_wanted;
}

std::string private_file(const char *name) {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), name) == TBS_ST_OK ? path.data() : "";
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

bool is_registry_shared() {
    return !shared_place().empty();
}

void read_registry_from_copy(bool is_wanted) {
    is_copied() = is_wanted;
}

bool is_registry_copied() {
    return is_registry_shared() && is_copied();
}

std::unique_ptr<Store> copy_of_shared_registry() {
    return existing_copy(private_file(copy_file_name));
}

// Stamps tell of entries, and the number of changes of settings.
void copy_shared_registry() {
    bool is_new = false;
    const auto from = open_postgres_store(shared_place(), is_new);
    const auto to = open_sqlite_store(private_file(copy_file_name), is_new);
    const std::string changes = std::to_string(from->changes());
    if (to->setting(copied_setting) == changes && has_same_stamps(*from, *to))
        return;
    move_registry(*from, *to);
    to->set_setting(copied_setting, changes);
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
                                : open_sqlite_store(registry_file(), is_new);
}

std::unique_ptr<Store> existing_registry() {
    bool is_new = false;
    return is_registry_shared() ? open_postgres_store(shared_place(), is_new) : existing_store(registry_file());
}

} // namespace velia::server
