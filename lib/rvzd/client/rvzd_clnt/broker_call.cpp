// The exchange itself: header words from the shared record, the call, and the printed failure.
#include <rvzd/client/rvzd_clnt/broker_call.h>

using namespace velia;
using namespace velia::rvzd_clnt;

clnt_stat velia::rvzd_clnt::call_with_header(rvzd_handle_t *handle, uint32_t procedure_number, const char *failed_text,
                                             xdrproc_t request_routine, rvzd_hdr_req_t *request,
                                             xdrproc_t reply_routine, void *reply) {
    rvzd_cached_handle_t *record = handle->cached;
    request->uniquifier = record->uniquifier;
    request->sequence = record->sequence++;
    const timeval time_out = {static_cast<time_t>(handle->tv_sec), static_cast<suseconds_t>(handle->tv_usec)};
    const auto outcome = with_inhibit([&] {
        return clnt_call(record->client, procedure_number, request_routine, reinterpret_cast<char *>(request),
                         reply_routine, static_cast<char *>(reply), time_out);
    });
    if (outcome != RPC_SUCCESS && failed_text != nullptr)
        ks_clnt_perror(record->client, failed_text);
    return outcome;
}
