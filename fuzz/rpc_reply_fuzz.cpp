// What a peer sends over a connection: records in pieces of any size, and the reply in each of them. The pieces are
// linked in, for the library does not export them.
#include <fuzz/harness.h>

#include <algorithm>
#include <cstring>

#include <support/transport/message.cpp>
#include <support/transport/record_reader.cpp>

#include <support/ks.h>
#include <veliaxdr/rvzd_wire.h>

namespace {

using namespace velia::support::transport;

constexpr uint32_t transaction = 0x01020304;

void read_as_reply(const RecordReader &reader) {
    static AUTH *const nobody = authnone_create();
    rvzd_contact_reply_t results = {};
    const auto routine = reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_rvzd_contact_reply_t));
    const Call call = {nobody, 390512, 3, 1, nullptr, nullptr, routine, &results};
    rpc_err error = {};
    const size_t length = reader.end - reader.begin;
    const Reading reading = read_reply(reader.bytes + reader.begin, length, transaction, call, error);
    FUZZ_REQUIRE(reading == Reading::of_another || length >= sizeof transaction);
    FUZZ_REQUIRE(reading != Reading::done || error.re_status != RPC_AUTHERROR);
    xdr_free(routine, reinterpret_cast<char *>(&results));
}

// True until there is no sense in what has come.
bool take_records(RecordReader &reader) {
    for (;;) {
        switch (next_record(reader)) {
        case Record::whole:
            read_as_reply(reader);
            break;
        case Record::incomplete:
            return true;
        case Record::too_large:
            return false;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const size_t piece_max = size_t{data[0]} + 1;
    RecordReader reader = {};
    for (size_t taken = 1; taken < size;) {
        size_t room_size = 0;
        char *place = room(reader, room_size);
        FUZZ_REQUIRE(place != nullptr && room_size > 0);
        const size_t count = std::min({size - taken, room_size, piece_max});
        memcpy(place, data + taken, count);
        arrived(reader, count);
        taken += count;
        FUZZ_REQUIRE(reader.capacity <= 2 * taken + 64 * 1024);
        if (!take_records(reader))
            break;
    }
    release(reader);
    return 0;
}
