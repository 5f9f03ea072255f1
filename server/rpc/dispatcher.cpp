// Each way in which a call can be wrong has its own reply, in the order in which a caller can be told.
#include <server/rpc/dispatcher.h>

#include <algorithm>

namespace velia::server {

Dispatcher::Dispatcher(uint32_t program, uint32_t version, std::vector<Procedure> procedures)
    : program_(program), version_(version), procedures_(std::move(procedures)) {}

void Dispatcher::set_procedures(std::vector<Procedure> procedures) {
    procedures_ = std::move(procedures);
}

const Procedure *Dispatcher::find(const CallHeader &header) const {
    const auto row = std::find_if(procedures_.begin(), procedures_.end(),
                                  [&](const Procedure &procedure) { return procedure.number == header.procedure; });
    return row != procedures_.end() ? &*row : nullptr;
}

bool Dispatcher::must_run_once(Bytes message) const {
    const CallHeader header = read_call_header(message);
    if (header.fault != CallFault::none || header.program != program_ || header.version != version_)
        return false;
    const Procedure *procedure = find(header);
    return procedure != nullptr && procedure->runs_once;
}

void Dispatcher::dispatch(Bytes message, const Caller &caller, const ReplySink &sink) const {
    const CallHeader header = read_call_header(message);
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
    const Procedure *procedure = find(header);
    if (procedure == nullptr)
        return sink(encode_refusal(header.xid, PROC_UNAVAIL));
    XDR arguments;
    auto *bytes = const_cast<unsigned char *>(header.arguments.data()); // only read
    xdrmem_create(&arguments, reinterpret_cast<char *>(bytes), static_cast<u_int>(header.arguments.size()), XDR_DECODE);
    Caller known = caller;
    known.credentials = header.credentials;
    const bool is_decoded = procedure->run(arguments, header.xid, known, sink);
    xdr_destroy(&arguments);
    if (!is_decoded)
        sink(encode_refusal(header.xid, GARBAGE_ARGS));
}

} // namespace velia::server
