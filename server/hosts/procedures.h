// What the broker tells of its host, and of the hosts that have used it.
#pragma once

#include <functional>
#include <vector>

#include <server/hosts/client_list.h>
#include <server/rpc/serve.h>
#include <veliaxdr/rvzd_hosts.h>

namespace velia::server {

class HostProcedures {
public:
    // The list has to outlive them. `on_change` is called when the list has changed.
    HostProcedures(ClientList &list, std::function<void()> on_change) : list_(list), on_change_(std::move(on_change)) {}

    // The rows that a broker of `protocol` (5 or 6) offers.
    std::vector<ServedProcedure> rows(uint32_t protocol);

private:
    // The older form of the list, v70, has room for IPv4 addresses alone.
    template <bool is_v70>
    tbs_status_t get(const rvzd_clnt_list_get_req_t &request, const Caller &caller,
                     Reply<rvzd_clnt_list_get_reply_t> &reply);
    template <bool is_v70>
    tbs_status_t look_up(const rvzd_clnt_list_lookup_req_t &request, const Caller &caller,
                         Reply<rvzd_clnt_list_lookup_reply_t> &reply);
    tbs_status_t enter(const rvzd_clnt_list_register_req_t &request, const Caller &caller,
                       Reply<rvzd_clnt_list_register_reply_t> &reply);
    tbs_status_t hostinfo(const rvzd_hostinfo_req_t &request, const Caller &caller,
                          Reply<rvzd_hostinfo_reply_t> &reply);
    tbs_status_t remote_build(const rvzd_remote_build_hi_req_t &request, const Caller &caller,
                              Reply<rvzd_remote_build_hi_reply_t> &reply);
    tbs_status_t time_zone(const rvzd_tz_info_req_t &request, const Caller &caller, Reply<rvzd_tz_info_reply_t> &reply);

    ClientList &list_;
    std::function<void()> on_change_;
};

} // namespace velia::server
