// The registry's procedures of the broker's program.
#pragma once

#include <functional>
#include <vector>

#include <server/registry/service.h>
#include <server/rpc/serve.h>

namespace velia::server {

// While the service has no registry, each but those that change this host's role and hosts answers TBS_ST_NO_SERVER.
class RegistryProcedures {
public:
    // The service has to outlive them.
    explicit RegistryProcedures(RegistryService &service) : service_(service) {}

    std::vector<ServedProcedure> rows();

private:
    // Changes of this host's own configuration, with a registry here or without.
    tbs_status_t clnt_conf_change(const rvzd_registry_clnt_conf_req_t &request, const Caller &caller,
                                  Reply<rvzd_null_reply_t> &reply);
    void svr_conf_change(const rvzd_registry_svr_conf_req_t &request, const Caller &caller,
                         const Answer<rvzd_null_reply_t> &answer);

    RegistryService &service_;
};

} // namespace velia::server
