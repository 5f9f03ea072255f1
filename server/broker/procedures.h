// The broker's procedures: between wire records and the server table.
#pragma once

#include <functional>
#include <vector>

#include <server/broker/server_table.h>
#include <server/rpc/serve.h>

namespace velia::server {

class BrokerProcedures {
public:
    // The table has to outlive them. `on_change` is called after work that may have changed what is due when.
    BrokerProcedures(ServerTable &table, std::function<void()> on_change)
        : table_(table), on_change_(std::move(on_change)) {}

    // The rows that a broker of `protocol` (5 or 6) offers.
    std::vector<ServedProcedure> rows(uint32_t protocol);

private:
    using EmptyReply = Reply<rvzd_null_reply_t>;

    tbs_status_t contact(const rvzd_contact_req_t &request, const Caller &caller, Reply<rvzd_contact_reply_t> &reply);
    tbs_status_t list_servers(const rvzd_list_servers_req_t &request, const Caller &caller,
                              Reply<rvzd_list_servers_reply_t> &reply);
    tbs_status_t get_local_path(const rvzd_get_local_path_req_t &request, const Caller &caller,
                                Reply<rvzd_get_local_path_reply_t> &reply);
    tbs_status_t toggle_server_restart(const rvzd_toggle_server_restart_req_t &request, const Caller &caller,
                                       Reply<rvzd_toggle_server_restart_reply_t> &reply);

    // A find, whose answer may have to wait.
    template <class Record>
    void find(const rvzd_find_server_req_t &request, const Caller &caller, const Answer<Record> &answer);

    // What servers report, with an empty reply.
    tbs_status_t register_server(const rvzd_register_server_req_t &request, const Caller &caller, EmptyReply &reply);
    tbs_status_t server_idle(const rvzd_server_idle_req_t &request, const Caller &caller, EmptyReply &reply);
    tbs_status_t server_busy(const rvzd_server_busy_req_t &request, const Caller &caller, EmptyReply &reply);
    tbs_status_t add_uuid(const rvzd_server_alternate_uuid_req_t &request, const Caller &caller, EmptyReply &reply);
    tbs_status_t sched_info(const rvzd_sched_info_req_t &request, const Caller &caller, EmptyReply &reply);

    ServerTable &table_;
    std::function<void()> on_change_;
    uint32_t protocol_ = RVZD_PROTOCOL_CURRENT;
};

} // namespace velia::server
