// Each way in which a call can be wrong has its own reply, in the order in which a caller can be told.
#include <server/rpc/dispatcher.h>

#include <new>

namespace velia::server {

namespace {

constexpr uint32_t near_numbers = 256;

bool_t xdr_nothing(XDR * /*stream*/, void * /*record*/) {
    return TRUE;
}

} // namespace

Dispatcher::Dispatcher(uint32_t program, uint32_t version, const Guard &guard,
                       const std::vector<ServedProcedure> &procedures)
    : program_(program), version_(version), guard_(guard) {
    set_procedures(procedures);
}

void Dispatcher::set_procedures(const std::vector<ServedProcedure> &procedures) {
    procedures_.clear();
    far_procedures_.clear();
    for (const auto &procedure : procedures) {
        if (procedure.number >= near_numbers) {
            far_procedures_[procedure.number] = procedure;
            continue;
        }
        if (procedures_.size() <= procedure.number)
            procedures_.resize(procedure.number + 1);
        procedures_[procedure.number] = procedure;
    }
}

const ServedProcedure *Dispatcher::find(uint32_t number) const {
    if (number < procedures_.size())
        return procedures_[number].run != nullptr ? &procedures_[number] : nullptr;
    const auto found = far_procedures_.find(number);
    return found != far_procedures_.end() ? &found->second : nullptr;
}

bool Dispatcher::must_run_once(const CallHeader &header) const {
    if (header.fault != CallFault::none || header.program != program_ || header.version != version_)
        return false;
    const ServedProcedure *procedure = find(header.procedure);
    return procedure != nullptr && procedure->runs_once;
}

MessageBytes Dispatcher::try_again(const CallHeader &header) const {
    const ServedProcedure *procedure = find(header.procedure);
    return procedure != nullptr && procedure->bare_reply != nullptr
               ? procedure->bare_reply(header.xid, TBS_ST_TRY_AGAIN)
               : encode_refusal(header.xid, SYSTEM_ERR);
}

void Dispatcher::dispatch(const CallHeader &header, const Caller &caller, const ReplySink &sink) const {
    switch (header.fault) {
    case CallFault::no_call:
        return;
    case CallFault::rpc_version:
        return sink(encode_rpc_mismatch(header.xid));
    case CallFault::bad_credentials:
        return sink(encode_auth_error(header.xid, AUTH_BADCRED));
    case CallFault::unknown_flavor:
        return sink(encode_auth_error(header.xid, AUTH_REJECTEDCRED));
    case CallFault::none:
        return run(header, caller, sink);
    }
}

void Dispatcher::run(const CallHeader &header, const Caller &caller, const ReplySink &sink) const {
    if (header.program != program_)
        return sink(encode_refusal(header.xid, PROG_UNAVAIL));
    if (header.version != version_)
        return sink(encode_refusal(header.xid, PROG_MISMATCH, version_, version_));
    if (header.procedure == NULLPROC)
        return sink(encode_success(header.xid, reinterpret_cast<xdrproc_t>(xdr_nothing), nullptr));
    const ServedProcedure *procedure = find(header.procedure);
    if (procedure == nullptr || (procedure->over_tcp_only && caller.transport != RVZD_PROTOCOL_TCP))
        return sink(encode_refusal(header.xid, PROC_UNAVAIL));
    if (figures_ == nullptr)
        return run_procedure(*procedure, header, caller, sink);
    // An answer may come when this is long over.
    run_procedure(*procedure, header, caller,
                  [sink, figures = figures_, number = header.procedure, begin = now_us()](MessageBytes reply) {
                      figures->add(number, now_us() - begin);
                      sink(std::move(reply));
                  });
}

void Dispatcher::run_procedure(const ServedProcedure &procedure, const CallHeader &header, const Caller &caller,
                               const ReplySink &sink) const {
    XDR arguments;
    auto *bytes = const_cast<unsigned char *>(header.arguments.data()); // only read
    xdrmem_create(&arguments, reinterpret_cast<char *>(bytes), static_cast<u_int>(header.arguments.size()), XDR_DECODE);
    Caller told = caller;
    told.credentials = believed(header.credentials, caller.known);
    try {
        if (!procedure.run(procedure.owner, arguments, {header.xid, told, sink, &guard_, header.arguments}))
            sink(encode_refusal(header.xid, GARBAGE_ARGS));
    } catch (const std::bad_alloc &) { // the request's trouble, not the daemon's
        sink(encode_refusal(header.xid, SYSTEM_ERR));
    }
    xdr_destroy(&arguments);
}

} // namespace velia::server
