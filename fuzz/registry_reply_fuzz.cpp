// Records of the registry's wire, and of the procedures of our own about the daemon and its registry. The first byte
// chooses the record, the rest is what a peer sends for it.
#include <fuzz/round_trips.h>

#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_daemon.h>
#include <veliaxdr/rvzd_procedures.h>

using fuzz::Bytes;

namespace {

template <class Record, bool_t (*routine)(XDR *, Record *)>
void try_one(const Bytes &input) {
    fuzz::try_record(routine, input, fuzz::always_goes_out);
}

#define RECORDS(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                                    \
    try_one<REQUEST, xdr_##REQUEST>, try_one<REPLY, xdr_##REPLY>,
constexpr void (*records[])(const Bytes &) = {
    RVZD_REGISTRY_PROCEDURES(RECORDS) try_one<rgy_svr_entry_t, xdr_rgy_svr_entry_t>, RVZD_DAEMON_PROCEDURES(RECORDS)};
#undef RECORDS

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    records[data[0] % std::size(records)](Bytes(reinterpret_cast<const char *>(data) + 1, size - 1));
    return 0;
}
