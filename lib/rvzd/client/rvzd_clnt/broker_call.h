// The one road of a broker procedure. A procedure is a record; what differs between procedures is how the outcome
// becomes a status, and that is the caller's lambda.
//
// rvzd_call_lock is held from before the header is filled until the reply is freed. A raise that arrives during the
// exchange lands when it is over: the RPC library keeps a lock of its own on the client meanwhile.
#pragma once

#include <cstring>

#include <common/with.h>
#include <rvzd/client/rvzd_clnt/cached_handle.h>
#include <support/ks.h>

namespace velia::rvzd_clnt {

template <class Request, class Reply>
struct Procedure {
    uint32_t number;
    const char *failed_text; // what ks_clnt_perror prints in front of the RPC error; null prints nothing
    bool_t (*xdr_request)(XDR *, Request *);
    bool_t (*xdr_reply)(XDR *, Reply *);

    xdrproc_t request_routine() const { return reinterpret_cast<xdrproc_t>(xdr_request); }
    xdrproc_t reply_routine() const { return reinterpret_cast<xdrproc_t>(xdr_reply); }
};

template <class Request, class Reply>
Procedure(uint32_t, const char *, bool_t (*)(XDR *, Request *), bool_t (*)(XDR *, Reply *))
    -> Procedure<Request, Reply>;

// Fills the header, which the request begins with, and makes the call with the handle's time-out. A failure is printed
// behind `failed_text`, unless that is null.
clnt_stat call_with_header(rvzd_handle_t *handle, uint32_t procedure_number, const char *failed_text,
                           xdrproc_t request_routine, rvzd_hdr_req_t *request, xdrproc_t reply_routine, void *reply);

template <class Request, class Reply>
clnt_stat call_procedure(rvzd_handle_t *handle, const Procedure<Request, Reply> &procedure, Request &request,
                         Reply &reply) {
    return call_with_header(handle, procedure.number, procedure.failed_text, procedure.request_routine(),
                            &request.header, procedure.reply_routine(), &reply);
}

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

// Makes the call into `reply`, which the caller has cleared (but for what it presets), gives the RPC outcome to
// `outcome_to_status`, and releases what the reply holds, also when a raise lands.
template <class Request, class Reply, class OutcomeToStatus>
tbs_status_t broker_call(rvzd_handle_t *handle, const Procedure<Request, Reply> &procedure, Request &request,
                         Reply &reply, OutcomeToStatus &&outcome_to_status) {
    return with_lock(rvzd_call_lock, [&] {
        const auto release = [&] {
            detach_caller_storage(reply);
            release_undelivered(reply);
            // As the exchange, it holds a lock of the RPC library.
            with_inhibit([&] {
                clnt_freeres(handle->cached->client, procedure.reply_routine(), reinterpret_cast<char *>(&reply));
            });
        };
        return with_cleanup(
            [&]() -> tbs_status_t {
                const auto outcome = call_procedure(handle, procedure, request, reply);
                const tbs_status_t status = outcome_to_status(outcome);
                release();
                return status;
            },
            release);
    });
}

// Runs `body` with a handle to the broker of `host`, which is given back on every way out.
template <class Body>
tbs_status_t with_handle(const char *host, Body &&body) {
    rvzd_handle_t *handle = nullptr;
    // The variable is cleared before a raise that waits can land.
    const auto give_back = [&] {
        with_inhibit([&] {
            rvzd_free_handle(handle);
            handle = nullptr;
        });
    };
    return with_lock(rvzd_call_lock, [&] {
        return with_cleanup(
            [&]() -> tbs_status_t {
                auto status = rvzd_get_handle(host, &handle);
                if (status == TBS_ST_OK)
                    status = body(handle);
                give_back();
                return status;
            },
            give_back);
    });
}

} // namespace velia::rvzd_clnt
