// From the bytes of a call to the bytes of its reply. What a program's procedures are is a table; an answer may be
// given later than the call, and at most once.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include <server/rpc/call_header.h>
#include <server/rpc/caller.h>
#include <server/rpc/figures.h>
#include <server/rpc/guard.h>
#include <server/rpc/reply.h>

namespace velia::server {

// Where the reply of one call goes.
using ReplySink = std::function<void(MessageBytes)>;

// One call that is being answered.
struct Call {
    uint32_t xid;
    const Caller &caller;
    const ReplySink &sink;
    const Guard *guard = nullptr; // of every call that a dispatcher runs
    Bytes arguments = {};         // from where its arguments begin

    bool is_permitted(const Demand &demand) const { return guard == nullptr || guard->permits(demand, caller); }
};

// A row of a program's table; serve.h makes it of a procedure and who does its work.
struct ServedProcedure {
    uint32_t number;
    bool runs_once; // a call that is sent again must not be run again
    bool over_tcp_only;
    void *owner; // has to outlive the table
    // Takes the arguments off the stream and runs the work; false when they are garbage.
    bool (*run)(void *owner, XDR &arguments, const Call &call);
    // A reply of its form that has nothing but a status.
    MessageBytes (*bare_reply)(uint32_t xid, tbs_status_t status) = nullptr;
};

// Procedure 0 of the program, which answers nothing to nothing, needs no row.
class Dispatcher {
public:
    // The guard has to outlive the dispatcher.
    Dispatcher(uint32_t program, uint32_t version, const Guard &guard, const std::vector<ServedProcedure> &procedures);

    // From now on calls are counted there, which has to outlive their answers.
    void count_in(CallFigures &figures) { figures_ = &figures; }

    // Replaces the table, for the calls to come.
    void set_procedures(const std::vector<ServedProcedure> &procedures);

    // Runs one call message, whose header was read. The sink is called at once, later, or, for what is no call, never.
    void dispatch(const CallHeader &header, const Caller &caller, const ReplySink &sink) const;

    // The reply to a call that is not run now, since too much has been asked for by who makes it.
    MessageBytes try_again(const CallHeader &header) const;

    // True when the message calls a procedure that runs once.
    bool must_run_once(const CallHeader &header) const;

private:
    const ServedProcedure *find(uint32_t number) const;
    void run(const CallHeader &header, const Caller &caller, const ReplySink &sink) const;
    void run_procedure(const ServedProcedure &procedure, const CallHeader &header, const Caller &caller,
                       const ReplySink &sink) const;

    uint32_t program_;
    uint32_t version_;
    const Guard &guard_;
    CallFigures *figures_ = nullptr;
    std::vector<ServedProcedure> procedures_; // each at the place of its number; one that has nothing to run is none
    std::map<uint32_t, ServedProcedure> far_procedures_; // whose numbers are far from the others
};

} // namespace velia::server
