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

    // What the work is on, and what becomes of a database that fails.
    Registry *subject() { return service_.registry(); }
    static tbs_status_t print_failure(const char *what) { return RegistryService::print_failure(what); }

private:
    using EmptyReply = Reply<rvzd_null_reply_t>;

    tbs_status_t get_id(Registry &registry, const rvzd_registry_get_id_req_t &request, const Caller &caller,
                        Reply<rvzd_registry_get_id_reply_t> &reply);
    tbs_status_t get_dtm(Registry &registry, const rvzd_registry_get_dtm_req_t &request, const Caller &caller,
                         Reply<rvzd_registry_get_dtm_reply_t> &reply);

    // The five fetches, which differ in what they select and pass.
    template <class Request>
    tbs_status_t fetch(Registry &registry, const Request &request, const Caller &caller,
                       Reply<rvzd_registry_get_reply_t> &reply);

    tbs_status_t add_entry(Registry &registry, const rvzd_registry_add_req_t &request, const Caller &caller,
                           EmptyReply &reply);
    tbs_status_t remove_entry(Registry &registry, const rvzd_registry_remove_req_t &request, const Caller &caller,
                              EmptyReply &reply);
    tbs_status_t chk_access(Registry &registry, const rvzd_registry_chk_access_req_t &request, const Caller &caller,
                            EmptyReply &reply);
    tbs_status_t get_db_list(Registry &registry, const rvzd_registry_get_db_req_t &request, const Caller &caller,
                             Reply<rvzd_registry_get_db_reply_t> &reply);
    tbs_status_t get_backup(Registry &registry, const rvzd_registry_get_backup_req_t &request, const Caller &caller,
                            Reply<rvzd_registry_get_backup_reply_t> &reply);
    tbs_status_t set_backup(Registry &registry, const rvzd_registry_set_backup_req_t &request, const Caller &caller,
                            EmptyReply &reply);

    // Changes of this host's own configuration, with a registry here or without.
    tbs_status_t clnt_conf_change(const rvzd_registry_clnt_conf_req_t &request, const Caller &caller,
                                  EmptyReply &reply);
    void svr_conf_change(const rvzd_registry_svr_conf_req_t &request, const Caller &caller,
                         const Answer<rvzd_null_reply_t> &answer);

    RegistryService &service_;
};

} // namespace velia::server
