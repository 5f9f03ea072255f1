// The table of rights against callers.
#pragma once

#include <functional>
#include <vector>

#include <server/config/access.h>
#include <server/rights/rights.h>
#include <server/rpc/guard.h>

namespace velia::server {

// What the daemon knows of its own servers: true when the process is one that it started, and the call came out of a
// socket of that process.
using ProvesServer = std::function<bool(int32_t pid, const Caller &caller)>;

class Gate : public Guard {
public:
    explicit Gate(ProvesServer proves_server) : proves_server_(std::move(proves_server)) {}

    void set_access(std::vector<AccessLine> lines) { lines_ = std::move(lines); }

    bool permits(const Demand &demand, const Caller &caller) const override;

private:
    ProvesServer proves_server_;
    std::vector<AccessLine> lines_;
};

} // namespace velia::server
