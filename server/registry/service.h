// The registry in the daemon: there or not, by this host's role, and what it tells the log.
#pragma once

#include <memory>
#include <string>

#include <server/registry/registry.h>

namespace velia::server {

// Where the registry of this host is, whether it is there or not.
std::string registry_file();

class RegistryService {
public:
    // Opens the registry in `file_name`. False, and told, when that fails; an open one is then kept.
    bool open(const std::string &file_name);
    void close();

    // Null while this host is no registry server.
    Registry *registry() { return registry_.get(); }

    // Tells of an update, who made it and what it was.
    static void tell_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller);

    // Tells what the database said, and gives the status for the client.
    static tbs_status_t tell_failure(const char *what);

private:
    std::string file_name_;
    std::unique_ptr<Store> store_;
    std::unique_ptr<Registry> registry_;
};

} // namespace velia::server
