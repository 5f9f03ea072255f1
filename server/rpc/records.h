// What the rows of every family of procedures share: reply headers, lent texts, and rows whose answer is known at once.
#pragma once

#include <string>

#include <server/rpc/dispatcher.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

// The client never looks at the reply's header word; it gets its own sequence number back, which helps whoever reads a
// capture.
inline rvzd_hdr_reply_t reply_header(const rvzd_hdr_req_t &request, tbs_status_t status) {
    return {request.sequence, status};
}

// A text in a record for encoding, which is only read.
inline char *unowned(const std::string &text) {
    return const_cast<char *>(text.c_str());
}

// A row whose answer is known at once: `work(request, caller)` gives it.
template <class Request, class Reply, class Work>
Procedure make_prompt_procedure(uint32_t number, bool_t (*request_routine)(XDR *, Request *),
                                bool_t (*reply_routine)(XDR *, Reply *), Work work) {
    return make_procedure<Request, Reply>(number, false, request_routine, reply_routine,
                                          [work](const Request &request, const Caller &caller,
                                                 const Answer<Reply> &answer) { answer(work(request, caller)); });
}

} // namespace velia::server
