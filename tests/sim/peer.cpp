// What the scripted peer answers when a test says nothing else.
#include <tests/sim/peer.h>

#include <algorithm>

#include <veliaxdr/rvzd_wire.h>

namespace sim {

Answer silence() {
    return {RPC_TIMEDOUT, 0, {}, INT64_MAX};
}

Peer::Peer() {
    speak(RVZD_PROTOCOL_CURRENT);
}

void Peer::speak(uint64_t protocol_version, int32_t status) {
    rvzd_contact_reply_t record = {};
    record.header.status = status;
    record.protocol_version = protocol_version;
    answer(RVZD_PROC_CONTACT, reply(xdr_rvzd_contact_reply_t, record));
}

Answer Peer::take(const Call &call) {
    calls.push_back(call);
    const auto once = once_.find(call.procedure);
    if (once != once_.end()) {
        Answer answer = once->second;
        once_.erase(once);
        return answer;
    }
    const auto handler = handlers_.find(call.procedure);
    return handler != handlers_.end() ? handler->second(call) : failure(RPC_PROCUNAVAIL);
}

size_t Peer::count(uint32_t procedure) const {
    return static_cast<size_t>(
        std::count_if(calls.begin(), calls.end(), [&](const Call &call) { return call.procedure == procedure; }));
}

} // namespace sim
