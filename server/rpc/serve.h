// Rows of the daemon's table: a procedure, and the member function that does its work.
//
//     serve<procedures::contact, &BrokerProcedures::contact>(*this)
//
// There are three kinds of work, told apart by what they take:
//
//     tbs_status_t (const Request &, const Caller &, Reply<Record> &)             answers at once
//     tbs_status_t (Subject &, const Request &, const Caller &, Reply<Record> &)  the same, with what the owner's
//                                                                                 subject() has; null: none is served
//     void (const Request &, const Caller &, const Answer<Record> &)              answers at once or later
//
// The status goes into the reply's header. An owner that may throw has print_failure(), which gives the status for it.
#pragma once

#include <exception>
#include <utility>

#include <server/rpc/dispatcher.h>
#include <server/rpc/reply_record.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

namespace velia::server {

// Replies of the scheduler's have no header, but the status as their own.
template <class Record>
constexpr bool has_status_alone = !requires(Record record) {
    record.header;
}
&&requires(Record record) {
    record.status;
};

// What comes as a whole, however long it is.
template <class Record>
constexpr bool is_list = requires(Record record) {
    record.jobs;
}
|| requires(Record record) {
    record.runs;
};

template <class Record>
constexpr uint32_t bytes_max_of = is_list<Record> ? LIST_BYTES_MAX : REPLY_BYTES_MAX;

// Gives the answer of one call, once, to a sink: that of the call for one that is answered at once, or one of its own.
template <class Record, class Sink>
class AnswerTo {
public:
    template <class Request>
    AnswerTo(const Procedure<Request, Record> &procedure, const Request &request, const Call &call)
        : reply_routine_(procedure.reply_routine()), xid_(call.xid), sink_(call.sink) {
        if constexpr (requires { request.header; })
            sequence_ = request.header.sequence;
    }

    // The client never looks at the reply's header word; it gets its own sequence number back, which helps whoever
    // reads a capture.
    void operator()(tbs_status_t status, Record record) const { sink_(encoded(status, record)); }

    // For an answer that is made further: its message, and one that is to be sent.
    MessageBytes encoded(tbs_status_t status, Record record) const {
        if constexpr (requires { record.header; })
            record.header = {sequence_, status};
        else if constexpr (has_status_alone<Record>)
            record.status = status;
        return encode_success(xid_, reply_routine_, &record, bytes_max_of<Record>);
    }
    void send(MessageBytes message) const { sink_(std::move(message)); }

private:
    xdrproc_t reply_routine_;
    uint32_t xid_;
    uint64_t sequence_ = 0;
    Sink sink_;
};

template <class Record>
using AnswerNow = AnswerTo<Record, const ReplySink &>;

// May be kept.
template <class Record>
using Answer = AnswerTo<Record, ReplySink>;

template <class Owner, class Request, class Record>
using Work = tbs_status_t (Owner::*)(const Request &, const Caller &, Reply<Record> &);

template <class Owner, class Subject, class Request, class Record>
using WorkOnSubject = tbs_status_t (Owner::*)(Subject &, const Request &, const Caller &, Reply<Record> &);

template <class Owner, class Request, class Record>
using LaterWork = void (Owner::*)(const Request &, const Caller &, const Answer<Record> &);

template <const auto &procedure, class Owner, class Request, class Record>
void work_and_answer(Owner &owner, Work<Owner, Request, Record> work, const Request &request, const Call &call) {
    Reply<Record> reply;
    const auto status = (owner.*work)(request, call.caller, reply);
    AnswerNow<Record>(procedure, request, call)(status, reply.record);
}

template <const auto &procedure, class Owner, class Subject, class Request, class Record>
void work_and_answer(Owner &owner, WorkOnSubject<Owner, Subject, Request, Record> work, const Request &request,
                     const Call &call) {
    const AnswerNow<Record> answer(procedure, request, call);
    try {
        Reply<Record> reply;
        Subject *subject = owner.subject();
        const auto status =
            subject != nullptr ? (owner.*work)(*subject, request, call.caller, reply) : tbs_status_t{TBS_ST_NO_SERVER};
        answer(status, reply.record);
    } catch (const std::exception &error) {
        answer(owner.print_failure(error.what()), Record{});
    }
}

template <const auto &procedure, class Owner, class Request, class Record>
void work_and_answer(Owner &owner, LaterWork<Owner, Request, Record> work, const Request &request, const Call &call) {
    (owner.*work)(request, call.caller, Answer<Record>(procedure, request, call));
}

// What the guard has to know of a request.
template <class Request>
Demand demand_of(uint32_t procedure, const Request &request) {
    Demand demand = {procedure};
    if constexpr (requires { request.op; })
        demand.operation = request.op;
    if constexpr (requires { request.pid; })
        demand.pid = request.pid;
    return demand;
}

// A record with a status of its own tells by it: clients are told nothing of the header's there.
template <const auto &procedure, class Request, class Record>
void refuse(const Procedure<Request, Record> & /*typed*/, const Request &request, const Call &call) {
    Record record = {};
    tbs_status_t status = TBS_ST_NO_ACCESS;
    if constexpr (requires { record.toggle.status; })
        record.toggle.status = std::exchange(status, TBS_ST_OK);
    AnswerNow<Record>(procedure, request, call)(status, record);
}

template <const auto &procedure, auto work, class Owner>
bool run_work(void *owner, XDR &arguments, const Call &call) {
    auto request = procedure.empty_request();
    const bool is_decoded = procedure.xdr_request(&arguments, &request) != FALSE;
    if (is_decoded && call.is_permitted(demand_of(procedure.number, request)))
        work_and_answer<procedure>(*static_cast<Owner *>(owner), work, request, call);
    else if (is_decoded)
        refuse<procedure>(procedure, request, call);
    xdr_free(procedure.request_routine(), &request);
    return is_decoded;
}

template <class Request, class Record>
MessageBytes encode_status(const Procedure<Request, Record> &procedure, uint32_t xid, tbs_status_t status) {
    Record record = {};
    if constexpr (requires { record.header; })
        record.header.status = status;
    else if constexpr (has_status_alone<Record>)
        record.status = status;
    return encode_success(xid, procedure.reply_routine(), &record);
}

template <const auto &procedure>
MessageBytes bare_reply(uint32_t xid, tbs_status_t status) {
    return encode_status(procedure, xid, status);
}

template <const auto &procedure, auto work, class Owner>
ServedProcedure serve(Owner &owner) {
    return {procedure.number, procedure.runs == Runs::ONCE,     procedure.over == Over::TCP,
            &owner,           run_work<procedure, work, Owner>, bare_reply<procedure>};
}

} // namespace velia::server
