// The one operation behind all five that open a handle, and behind those that need a time-out of their own.
#pragma once

#include <veliaxdr/rvzd_handle.h>

namespace velia::rvzd_clnt {

struct HandleRequest {
    const char *host; // null or empty: this host
    uint32_t protocol;
    uint32_t prim;
    int64_t timeout_s;
    bool quiet;
    bool generic_service;
    uint32_t program; // for the port range test
};

constexpr int64_t default_timeout_s = 25;

// The transport of the broker's service, as an index of rvzd_protocol_names.
uint32_t default_protocol();

tbs_status_t rvzd_get_handle_prim_timeout_proto(const HandleRequest &wanted, rvzd_handle_t **out);

} // namespace velia::rvzd_clnt
