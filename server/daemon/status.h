// What the daemon tells of itself to whoever may read.
#pragma once

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <server/registry/service.h>
#include <server/rpc/figures.h>
#include <server/rpc/serve.h>
#include <veliaxdr/rvzd_daemon.h>

namespace velia::server {

// What only the daemon as a whole knows at this moment.
struct DaemonFigures {
    uint32_t connections = 0;
    uint32_t connections_max = 0;
    uint32_t services = 0;
    uint32_t servers = 0;
    uint32_t servers_busy = 0;
    time_t started = 0;
    RegistryService::Standing registry;
    bool takes_updates = false;
};

// Of the registry's file, and of the log beside it; of one in a database what it takes there.
struct RegistryBytes {
    uint64_t file = 0;
    uint64_t log = 0;
};
RegistryBytes registry_bytes(const RegistryService::Standing &registry);

std::string version_text();

class StatusProcedures {
public:
    // The calls have to outlive them.
    StatusProcedures(const CallFigures &calls, std::function<DaemonFigures()> figures)
        : calls_(calls), figures_(std::move(figures)) {}

    std::vector<ServedProcedure> rows();

private:
    tbs_status_t status(const rvzd_daemon_status_req_t &request, const Caller &caller,
                        Reply<rvzd_daemon_status_reply_t> &reply);

    const CallFigures &calls_;
    const std::function<DaemonFigures()> figures_;
};

} // namespace velia::server
