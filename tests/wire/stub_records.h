// The records of a procedure as its description has them, which is in the prototype of the stub that rpcgen makes for
// its clients. The stubs themselves are not used.
#pragma once

#include <rpc/rpc.h>

namespace wire_tests {

template <class Stub>
struct StubRecords;

template <class TwinReply, class TwinRequest>
struct StubRecords<TwinReply *(TwinRequest *, CLIENT *)> {
    using Request = TwinRequest;
    using Reply = TwinReply;
};

template <class Twin>
auto routine_of_twin() {
    return twin_routine(static_cast<Twin *>(nullptr));
}

} // namespace wire_tests
