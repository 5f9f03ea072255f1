// The one operation behind all that open a handle.
#pragma once

#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

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

// A request with nobody's credentials, over the service's transport, with the usual time-out.
inline HandleRequest usual_request(const char *host) {
    return {host, default_protocol(), 0, default_timeout_s, false, false, RVZD_PROGRAM};
}

// A request of a question that may well stay without an answer: nothing is printed, and it does not wait for long.
inline HandleRequest question_request(const char *host, int64_t timeout_s) {
    return {host, default_protocol(), 0, timeout_s, true, false, 0};
}

tbs_status_t rvzd_get_handle_prim_timeout_proto(const HandleRequest &wanted, rvzd_handle_t **out);

// Frees the handle, if there is one; the variable is cleared before a raise that waits can land.
void give_back_handle(rvzd_handle_t *&handle);

} // namespace velia::rvzd_clnt
