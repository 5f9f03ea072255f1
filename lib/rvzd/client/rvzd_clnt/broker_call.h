// The road of a broker procedure: rvzd_call_lock, header words from the shared record, the exchange, and a reply that
// is released on every way out. What differs between procedures is a row of the table of procedures; how the outcome
// becomes a status is the caller's lambda.
#pragma once

#include <common/with.h>
#include <rvzd/client/rvzd_clnt/bound.h>
#include <rvzd/client/rvzd_clnt/cached_handle.h>
#include <rvzd/client/rvzd_clnt/get_handle.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

namespace velia::rvzd_clnt {

// The row of a procedure whose failure is not printed here: it is no failure, or is told in other words.
template <class Request, class Reply>
constexpr Procedure<Request, Reply> quiet(Procedure<Request, Reply> procedure) {
    procedure.failed_text = nullptr;
    return procedure;
}

// One call by any road: routines and records as the RPC library takes them.
struct Exchange {
    uint32_t procedure_number;
    xdrproc_t request_routine;
    void *request;
    xdrproc_t reply_routine;
    void *reply;
};

template <class Request, class Reply>
Exchange exchange_of(const Procedure<Request, Reply> &procedure, Request &request, Reply &reply) {
    return {procedure.number, procedure.request_routine(), &request, procedure.reply_routine(), &reply};
}

// Makes the call, and no more; one that brought no reply to its routine has failed. A raise that comes meanwhile lands
// when it is over: the RPC library keeps a lock of its own on the client.
clnt_stat make_exchange(CLIENT *client, const Exchange &exchange, const timeval &time_out);

// Prints why the client's last call failed behind the text.
void print_failed_call(CLIENT *client, const char *failed_text);

// Fills the header, with which every request of the broker begins, and makes the call with the handle's time-out, over
// a connection of this process: one that came with a fork is renewed, or the call fails as one that cannot be sent. A
// failure is printed behind `failed_text`, unless that is null.
clnt_stat exchange_with_header(rvzd_handle_t *handle, const char *failed_text, const Exchange &exchange);

// Takes storage that is the caller's own out of a reply before the reply is freed.
template <class Reply>
void detach_caller_storage(Reply & /*holds none*/) {}
inline void detach_caller_storage(rvzd_get_local_path_reply_t &reply) {
    reply.path = nullptr;
}
inline void detach_caller_storage(rvzd_list_servers_reply_t &reply) {
    reply.buffer = nullptr;
}

// Releases what a reply brought and freeing it leaves alone. What was delivered is no longer in it.
template <class Reply>
void release_undelivered(Reply & /*frees all by itself*/) {}
void release_undelivered(rvzd_clnt_list_get_reply_t &reply);

// Frees the reply of an exchange; as the exchange, it holds a lock of the RPC library.
void free_reply(CLIENT *client, const Exchange &exchange);

inline void begin_at_once(rvzd_handle_t * /*handle*/) {}

// Makes the call into `reply`, which the caller has cleared (but for what it presets), and gives the RPC outcome to
// `outcome_to_status`. `first` is run before, under the same lock.
template <class Request, class Reply, class OutcomeToStatus, class First = void(rvzd_handle_t *)>
tbs_status_t broker_call(rvzd_handle_t *handle, const Procedure<Request, Reply> &procedure, Request &request,
                         Reply &reply, OutcomeToStatus &&outcome_to_status, First &&first = begin_at_once) {
    const Exchange exchange = exchange_of(procedure, request, reply);
    return with_lock(
        call_lock,
        [&]() -> tbs_status_t {
            first(handle);
            return outcome_to_status(exchange_with_header(handle, procedure.failed_text, exchange));
        },
        [&] {
            detach_caller_storage(reply);
            release_undelivered(reply);
            free_reply(handle->cached->client, exchange);
        });
}

// Runs `body` with the handle that is wanted, which is given back on every way out; rvzd_call_lock is held.
template <class Body>
Bound with_handle(const HandleRequest &wanted, Body &&body) {
    rvzd_handle_t *handle = nullptr;
    return with_lock(
        call_lock,
        [&]() -> Bound {
            const auto status = rvzd_get_handle_prim_timeout_proto(wanted, &handle);
            return status == TBS_ST_OK ? Bound{true, body(handle)} : Bound{false, status};
        },
        [&] { give_back_handle(handle); });
}

} // namespace velia::rvzd_clnt
