// What a daemon is asked of itself and of its registry. A reply's texts go to the caller as they came: the record that
// is released behind the call is left empty.
#include <veliaxdr/rvzd_daemon.h>

#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <rvzd/client/rvzd_clnt/host_info.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

char *as_sent(const char *text) {
    return const_cast<char *>(text != nullptr ? text : "");
}

// Free mode releases what a reply brought, so what is delivered is taken out of it.
template <class Request, class Reply>
tbs_status_t ask(rvzd_handle_t *handle, const Procedure<Request, Reply> &procedure, Request request, Reply *out) {
    *out = {};
    Reply reply = {};
    return broker_call(handle, quiet(procedure), request, reply, [&](clnt_stat outcome) -> tbs_status_t {
        const auto status = status_of_question(outcome, reply.header.status);
        if (outcome == RPC_SUCCESS && status == TBS_ST_OK)
            with_inhibit([&] {
                *out = reply;
                reply = {};
            });
        return status;
    });
}

template <class Request, class Reply>
void release(const Procedure<Request, Reply> &procedure, Reply *reply) {
    with_inhibit([&] { xdr_free(procedure.reply_routine(), reply); });
    *reply = {};
}

} // namespace

tbs_status_t rvzd_registry_state(rvzd_handle_t *handle, const tbs_uuid_t *registry, uint64_t term, const char *host,
                                 rvzd_registry_state_reply_t *reply) {
    rvzd_registry_state_req_t request = {};
    if (registry != nullptr)
        request = {{}, *registry, term, as_sent(host)};
    return ask(handle, procedures::registry_state, request, reply);
}

void rvzd_registry_state_free(rvzd_registry_state_reply_t *reply) {
    release(procedures::registry_state, reply);
}

tbs_status_t rvzd_registry_turn(rvzd_handle_t *handle, int64_t op, uint32_t seconds, const char *host) {
    rvzd_null_reply_t reply = {};
    return ask(handle, procedures::registry_turn, {{}, op, seconds, as_sent(host)}, &reply);
}

tbs_status_t rvzd_registry_save(rvzd_handle_t *handle, uint64_t save, uint64_t offset,
                                rvzd_registry_save_reply_t *reply) {
    return ask(handle, procedures::registry_save, {{}, save, offset}, reply);
}

void rvzd_registry_save_free(rvzd_registry_save_reply_t *reply) {
    release(procedures::registry_save, reply);
}

tbs_status_t rvzd_daemon_status(rvzd_handle_t *handle, rvzd_daemon_status_reply_t *reply) {
    return ask(handle, procedures::daemon_status, {}, reply);
}

void rvzd_daemon_status_free(rvzd_daemon_status_reply_t *reply) {
    release(procedures::daemon_status, reply);
}
