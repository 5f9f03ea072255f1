// The scripted peer behind every RPC client of the simulated world. It sees the bytes of each request and answers with
// the bytes of a reply, or fails as a network does.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <rpc/rpc.h>

#include <support/sysutl.h>

namespace sim {

using Bytes = std::vector<uint8_t>;

// The bytes of a record, by its routine.
template <class Record>
Bytes encode(bool_t (*routine)(XDR *, Record *), Record record, size_t capacity = 65536) {
    Bytes bytes(capacity);
    XDR xdrs;
    xdrmem_create(&xdrs, reinterpret_cast<char *>(bytes.data()), static_cast<u_int>(bytes.size()), XDR_ENCODE);
    if (!routine(&xdrs, &record))
        return {};
    bytes.resize(xdr_getpos(&xdrs));
    return bytes;
}

struct Call {
    uint32_t program;
    uint32_t version;
    uint32_t procedure;
    bool tcp;
    ks_sockaddr_storage_t address;
    Bytes request;
    int authenticator_flavor;
    int64_t time_out_us;

    // The request as a record; what decoding allocates is the test's to free.
    template <class Record>
    Record decode(bool_t (*routine)(XDR *, Record *)) const {
        Record record = {};
        XDR xdrs;
        Bytes bytes = request;
        xdrmem_create(&xdrs, reinterpret_cast<char *>(bytes.data()), static_cast<u_int>(bytes.size()), XDR_DECODE);
        if (!routine(&xdrs, &record))
            throw std::runtime_error("the request does not decode");
        return record;
    }
};

// What comes back: bytes of a reply, or a failure of the call. `delay_us` passes first; beyond the call's time-out the
// call times out whatever the answer is.
struct Answer {
    clnt_stat outcome = RPC_SUCCESS;
    int error_number = 0;
    Bytes reply;
    int64_t delay_us = 20;
};

template <class Record>
Answer reply(bool_t (*routine)(XDR *, Record *), const Record &record) {
    return {RPC_SUCCESS, 0, encode(routine, record)};
}
inline Answer failure(clnt_stat outcome, int error_number = 0) {
    return {outcome, error_number, {}};
}
Answer silence();

class Peer {
public:
    using Handler = std::function<Answer(const Call &)>;

    // The peer answers `contact` with this protocol version from the start.
    Peer();
    void on(uint32_t procedure, Handler handler) { handlers_[procedure] = std::move(handler); }
    void answer(uint32_t procedure, Answer answer) {
        on(procedure, [answer](const Call &) { return answer; });
    }
    // Answers once in this way, ahead of the handler.
    void answer_once(uint32_t procedure, Answer answer) { once_.emplace(procedure, std::move(answer)); }
    void speak(uint64_t protocol_version, int32_t status = 0);

    Answer take(const Call &call);

    std::vector<Call> calls;
    size_t count(uint32_t procedure) const;
    const Call &last() const { return calls.back(); }

private:
    std::map<uint32_t, Handler> handlers_;
    std::multimap<uint32_t, Answer> once_;
};

} // namespace sim
