// The exchange itself: header words from the shared record, the call, and the printed failure.
#include <rvzd/client/rvzd_clnt/broker_call.h>

#include <rvzd/client/rvzd_clnt/rpc_client.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

// A reply, and whether its routine was run.
struct Delivery {
    const Exchange &exchange;
    bool came;
};

// Calls the routine by the RPC library's type of all routines, as that library does.
#if defined(__clang__)
[[clang::no_sanitize("function")]]
#endif
bool_t
xdr_delivery(XDR *xdrs, Delivery *delivery) {
    delivery->came = true;
    return delivery->exchange.reply_routine(xdrs, delivery->exchange.reply);
}

} // namespace

void velia::rvzd_clnt::print_failed_call(CLIENT *client, const char *failed_text) {
    if (client == nullptr) // told when it could not be made
        return;
    rpc_err error = {};
    clnt_geterr(client, &error);
    if (error.re_status == RPC_SUCCESS) // the RPC library's own view of it
        imsg_print(IMSG_ERROR, "%s: the answer was empty\n", IMSG_FORMAT, failed_text);
    else
        ks_clnt_perror(client, failed_text);
}

// The RPC library takes an empty record of a peer's for a success without running the reply's routine, and whoever
// follows what such a reply should point to follows null.
clnt_stat velia::rvzd_clnt::make_exchange(CLIENT *client, const Exchange &exchange, const timeval &time_out) {
    Delivery delivery = {exchange, false};
    pfm_inhibit();
    const auto outcome =
        clnt_call(client, exchange.procedure_number, exchange.request_routine, static_cast<char *>(exchange.request),
                  reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_delivery)),
                  reinterpret_cast<char *>(&delivery), time_out);
    pfm_enable();
    return outcome == RPC_SUCCESS && !delivery.came ? RPC_CANTDECODERES : outcome;
}

clnt_stat velia::rvzd_clnt::exchange_with_header(rvzd_handle_t *handle, const char *failed_text,
                                                 const Exchange &exchange) {
    rvzd_cached_handle_t *record = handle->cached;
    if (!is_connected(record) && !renew_connection(record))
        return RPC_CANTSEND;
    auto *header = static_cast<rvzd_hdr_req_t *>(exchange.request);
    *header = {record->uniquifier, record->sequence++};
    const timeval time_out = {static_cast<time_t>(handle->tv_sec), static_cast<suseconds_t>(handle->tv_usec)};
    const auto outcome = make_exchange(record->client, exchange, time_out);
    if (outcome != RPC_SUCCESS && failed_text != nullptr)
        print_failed_call(record->client, failed_text);
    return outcome;
}

void velia::rvzd_clnt::free_reply(CLIENT *client, const Exchange &exchange) {
    if (client == nullptr) // there was no call
        return;
    pfm_inhibit();
    clnt_freeres(client, exchange.reply_routine, static_cast<char *>(exchange.reply));
    pfm_enable();
}
