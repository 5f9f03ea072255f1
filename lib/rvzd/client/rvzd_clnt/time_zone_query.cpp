// The time zone of another host, asked of its broker.
#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <rvzd/client/rvzd_clnt/host_info.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr int64_t timeout_s = 4;

tbs_status_t ask_broker(rvzd_handle_t *handle, int32_t year, clnt_tz_info_t *info) {
    rvzd_tz_info_req_t request = {{}, year};
    rvzd_tz_info_reply_t reply = {};
    return broker_call(handle, quiet(procedures::tz_info), request, reply, [&](clnt_stat outcome) {
        if (outcome == RPC_SUCCESS && reply.header.status == TBS_ST_OK && info != nullptr)
            clnt_tz_copy(&reply.info, info);
        return status_of_question(outcome, reply.header.status);
    });
}

} // namespace

tbs_status_t rvzd_tzinfo(int32_t year, const char *host, clnt_tz_info_t **info) {
    const auto ask = [&](rvzd_handle_t *handle) { return ask_broker(handle, year, *info); };
    return with_handle(question_request(host, timeout_s), ask).status;
}
