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
    // Takes this host's role as its file has it. A registry that cannot be opened is told, and asked for in vain.
    void take_role();

    // Null while this host is no registry server.
    Registry *registry() { return registry_.get(); }

    // Only a master takes updates: what others hold is a copy.
    bool is_master() const { return is_master_; }

    // A standby becomes the master. TBS_ST_UNSUPPORTED for any other; else what went wrong, told.
    tbs_status_t promote();

    // A master stops serving until it has another role. TBS_ST_UNSUPPORTED for any other.
    tbs_status_t step_down();

    // Tells of an update, who made it and what it was.
    static void tell_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller);

    // Tells what the database said, and gives the status for the client.
    static tbs_status_t tell_failure(const char *what);

private:
    bool open();

    bool is_master_ = false;
    std::unique_ptr<Store> store_;
    std::unique_ptr<Registry> registry_;
};

} // namespace velia::server
