// Records of the registry's wire. The first byte chooses the record, the rest is what a peer sends for it. What decodes
// must go out again, and what went out must come back and go out as the same bytes.
#include <fuzz/harness.h>

#include <tests/unit/xdr/samples.h>
#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_procedures.h>

using namespace wire_tests;

namespace {

// Decodes; false if it was refused, else `again` is what the record goes out as.
template <class Record>
bool sent_again(bool_t (*routine)(XDR *, Record *), const Bytes &bytes, Bytes &again) {
    Record record = {};
    const bool is_accepted = decode(routine, bytes, record);
    if (is_accepted)
        FUZZ_REQUIRE(encode(routine, record, again, 4 * bytes.size() + (1 << 16)));
    FUZZ_REQUIRE(release(routine, record));
    FUZZ_REQUIRE(release(routine, record));
    return is_accepted;
}

template <class Record, bool_t (*routine)(XDR *, Record *)>
void try_record(const Bytes &input) {
    Bytes first;
    Bytes second;
    if (!sent_again(routine, input, first))
        return;
    FUZZ_REQUIRE(sent_again(routine, first, second));
    FUZZ_REQUIRE(first == second);
}

#define RECORDS(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                                    \
    try_record<REQUEST, xdr_##REQUEST>, try_record<REPLY, xdr_##REPLY>,
constexpr void (*records[])(const Bytes &) = {RVZD_REGISTRY_PROCEDURES(RECORDS)
                                                  try_record<rgy_svr_entry_t, xdr_rgy_svr_entry_t>};
#undef RECORDS

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    records[data[0] % std::size(records)](Bytes(reinterpret_cast<const char *>(data) + 1, size - 1));
    return 0;
}
