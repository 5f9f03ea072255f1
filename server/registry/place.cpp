#include <server/registry/place.h>

#include <array>

#include <server/registry/postgres.h>
#include <server/registry/postgres_store.h>
#include <server/registry/role.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

std::string &shared_place() {
    static std::string conninfo;
    return conninfo;
}

} // namespace

void keep_registry_in(const std::string &conninfo) {
    shared_place() = conninfo;
}

bool is_registry_kept_in(const std::string &conninfo) {
    return shared_place() == conninfo;
}

bool is_registry_shared() {
    return !shared_place().empty();
}

std::string registry_place() {
    return is_registry_shared() ? told_conninfo(shared_place()) : registry_file();
}

std::string registry_file() {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), "registry.db") == TBS_ST_OK ? path.data() : "";
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
