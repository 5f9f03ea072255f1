// From the bytes of a call to the bytes of its reply. What a program's procedures are is a table; an answer may be
// given later than the call, and at most once.
#pragma once

#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

#include <server/rpc/call_header.h>
#include <server/rpc/caller.h>
#include <server/rpc/reply.h>

namespace velia::server {

// Where the reply of one call goes.
using ReplySink = std::function<void(MessageBytes)>;

// Gives a procedure's results; the record need only live for the call.
template <class Reply>
using Answer = std::function<void(Reply)>;

// A row of a program's table: the work takes the arguments off the stream, false when they are garbage.
struct Procedure {
    uint32_t number;
    bool runs_once; // a call that is sent again must not be run again
    std::function<bool(XDR &arguments, uint32_t xid, const Caller &caller, const ReplySink &sink)> run;
};

// The row of a procedure with a request record and a reply record. `work(request, caller, answer)` runs it.
template <class Request, class Reply>
Procedure
make_procedure(uint32_t number, bool runs_once, bool_t (*request_routine)(XDR *, Request *),
               bool_t (*reply_routine)(XDR *, Reply *),
               std::type_identity_t<std::function<void(const Request &, const Caller &, const Answer<Reply> &)>> work) {
    return {number, runs_once, [=](XDR &arguments, uint32_t xid, const Caller &caller, const ReplySink &sink) {
                Request request = {};
                const bool is_decoded = request_routine(&arguments, &request) != FALSE;
                if (is_decoded)
                    work(request, caller, [xid, sink, reply_routine](Reply reply) {
                        sink(encode_success(xid, reinterpret_cast<xdrproc_t>(reply_routine), &reply));
                    });
                xdr_free(reinterpret_cast<xdrproc_t>(request_routine), &request);
                return is_decoded;
            }};
}

class Dispatcher {
public:
    Dispatcher(uint32_t program, uint32_t version, std::vector<Procedure> procedures);

    // Replaces the table, for the calls to come.
    void set_procedures(std::vector<Procedure> procedures);

    // Runs one call message. The sink is called at once, later, or, for what is no call, never.
    void dispatch(Bytes message, const Caller &caller, const ReplySink &sink) const;

    // True when the message calls a procedure that runs once.
    bool must_run_once(Bytes message) const;

private:
    const Procedure *find(const CallHeader &header) const;
    void run(const CallHeader &header, const Caller &caller, const ReplySink &sink) const;

    uint32_t program_;
    uint32_t version_;
    std::vector<Procedure> procedures_;
};

} // namespace velia::server
