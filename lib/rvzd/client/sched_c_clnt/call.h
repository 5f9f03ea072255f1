// The road of a scheduler procedure: the hooks around it, one RPC, the outputs that the caller wants moved out of the
// reply, and the reply released. What differs between the calls is a row of the table of procedures, what goes into the
// request, and what is taken out of the reply.
#pragma once

#include <common/trace.h>
#include <common/with.h>
#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <veliaxdr/sched_handle.h>

namespace velia::scheduler {

inline constexpr char subsystem[] = "scheduler";
inline constexpr uint32_t hook_ends_call = 0xFFFFFFFF;
inline constexpr uint32_t word_of_error_hook = 4;

inline void trace_no_memory() {
    trace(subsystem, 1, "%s: no memory\n", subsystem);
}

using rvzd_clnt::Exchange;

// One call as its hooks and its stub see it, whatever its records are.
struct SchedulerCall {
    sched_h_t handle;
    Exchange exchange;
    uint32_t (*stub)(void *request, CLIENT *client, void *reply, const timeval *time_out);
    void (*clear)(void *reply);
};

// Everything up to the reply. False: the call is over, with what stands in `status`.
bool make_call(const SchedulerCall &call, tbs_status_t &status);

// Releases what is in a record through the handle's client, if there is one; raises are held off.
void release_record(sched_h_t handle, xdrproc_t routine, void *record);

// The value behind a pointer of a reply, or nothing.
template <class Value>
Value value_of(const Value *value) {
    return value != nullptr ? *value : Value{};
}

// Copies a value out of a reply, for a caller that wants it.
template <class Value>
void copy_out(Value *out, const Value *value) {
    if (out != nullptr)
        *out = value_of(value);
}

// Moves what a reply holds to a caller that wants it; the reply's release then passes it over.
template <class Value>
void move_out(Value *out, Value *value) {
    if (out == nullptr)
        return;
    *out = value_of(value);
    if (value != nullptr)
        *value = {};
}

// Makes the call of a row whose stub is given, and lets `take` have what the caller wants of the reply.
template <auto stub, class Request, class Reply, class Take>
tbs_status_t call(const Procedure<Request, Reply> &procedure, sched_h_t handle, Request request, Take &&take) {
    Reply reply = {};
    const SchedulerCall whole = {handle, rvzd_clnt::exchange_of(procedure, request, reply),
                                 [](void *of_call, CLIENT *client, void *into, const timeval *time_out) {
                                     return stub(static_cast<Request *>(of_call), client, static_cast<Reply *>(into),
                                                 time_out);
                                 },
                                 [](void *record) { *static_cast<Reply *>(record) = {}; }};
    return with_release(
        [&] {
            tbs_status_t status = TBS_ST_RPC_FAILED;
            if (!make_call(whole, status))
                return status;
            take(reply);
            status = reply.status;
            reply.status = TBS_ST_OK;
            return status;
        },
        [&] { release_record(whole.handle, whole.exchange.reply_routine, &reply); });
}

// One RPC of a row; what is wrong with it is told.
template <class Request, class Reply>
uint32_t call_once(const Procedure<Request, Reply> &procedure, const char *no_client_text, Request *request,
                   CLIENT *client, Reply *reply, const timeval *time_out) {
    if (client == nullptr) {
        sched_clnt_perror(nullptr, no_client_text, 0);
        return RPC_FAILED;
    }
    const clnt_stat outcome =
        rvzd_clnt::make_exchange(client, rvzd_clnt::exchange_of(procedure, *request, *reply), *time_out);
    if (outcome != RPC_SUCCESS)
        sched_clnt_perror(client, procedure.failed_text, 0);
    return outcome;
}

// The stub of a row of this suite's own: nobody calls it by a name.
template <const auto &procedure, class Request, class Reply>
uint32_t own_stub(Request *request, CLIENT *client, Reply *reply, const timeval *time_out) {
    return call_once(procedure, procedure.failed_text, request, client, reply, time_out);
}

template <const auto &procedure, class Request, class Reply>
constexpr auto own_stub_of(const Procedure<Request, Reply> & /*typed*/) {
    return &own_stub<procedure, Request, Reply>;
}

template <const auto &procedure, class Request, class Take>
tbs_status_t call_own(sched_h_t handle, const Request &request, Take &&take) {
    return call<own_stub_of<procedure>(procedure)>(procedure, handle, request, take);
}

// For the calls whose outcome is the status alone.
inline constexpr auto take_nothing = [](const auto & /*reply*/) {};

} // namespace velia::scheduler
