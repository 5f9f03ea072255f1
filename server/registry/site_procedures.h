// The procedures of our own that are about the registry: its state, its data as a file, and the steps of a turn of the
// site to another master.
#pragma once

#include <vector>

#include <server/registry/saver.h>
#include <server/registry/service.h>
#include <server/rpc/guard.h>
#include <server/rpc/serve.h>

namespace velia::server {

class SiteProcedures {
public:
    // The service and the guard have to outlive them.
    SiteProcedures(uv_loop_t *loop, RegistryService &service, const Guard &guard)
        : service_(service), guard_(guard), saver_(loop) {}

    std::vector<ServedProcedure> rows();

private:
    tbs_status_t state(const rvzd_registry_state_req_t &request, const Caller &caller,
                       Reply<rvzd_registry_state_reply_t> &reply);
    void turn(const rvzd_registry_turn_req_t &request, const Caller &caller, const Answer<rvzd_null_reply_t> &answer);
    void save(const rvzd_registry_save_req_t &request, const Caller &caller,
              const Answer<rvzd_registry_save_reply_t> &answer);

    RegistryService &service_;
    const Guard &guard_;
    Saver saver_;
};

} // namespace velia::server
