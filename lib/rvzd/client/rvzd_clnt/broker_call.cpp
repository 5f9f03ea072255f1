// The exchange itself: header words from the shared record, the call, and the printed failure.
#include <rvzd/client/rvzd_clnt/broker_call.h>

using namespace velia;
using namespace velia::rvzd_clnt;

clnt_stat velia::rvzd_clnt::make_exchange(CLIENT *client, const Exchange &exchange, const timeval &time_out) {
    pfm_inhibit();
    const auto outcome =
        clnt_call(client, exchange.procedure_number, exchange.request_routine, static_cast<char *>(exchange.request),
                  exchange.reply_routine, static_cast<char *>(exchange.reply), time_out);
    pfm_enable();
    return outcome;
}

clnt_stat velia::rvzd_clnt::exchange_with_header(rvzd_handle_t *handle, const char *failed_text,
                                                 const Exchange &exchange) {
    rvzd_cached_handle_t *record = handle->cached;
    auto *header = static_cast<rvzd_hdr_req_t *>(exchange.request);
    *header = {record->uniquifier, record->sequence++};
    const timeval time_out = {static_cast<time_t>(handle->tv_sec), static_cast<suseconds_t>(handle->tv_usec)};
    const auto outcome = make_exchange(record->client, exchange, time_out);
    if (outcome != RPC_SUCCESS && failed_text != nullptr)
        ks_clnt_perror(record->client, failed_text);
    return outcome;
}

void velia::rvzd_clnt::free_reply(CLIENT *client, const Exchange &exchange) {
    pfm_inhibit();
    clnt_freeres(client, exchange.reply_routine, static_cast<char *>(exchange.reply));
    pfm_enable();
}
