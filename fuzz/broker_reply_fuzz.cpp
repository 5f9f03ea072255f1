// Records of the broker's wire. The first byte chooses the record, the rest is what a peer sends for it. What decodes
// must go out again, and what went out must come back and go out as the same bytes.
#include <fuzz/harness.h>

#include <support/stg.h>
#include <tests/unit/xdr/samples.h>

using namespace wire_tests;

namespace {

// Free mode leaves the entries of a client list alone.
template <class Record>
void release_all(bool_t (*routine)(XDR *, Record *), Record &record) {
    if constexpr (requires { record.entries; }) {
        for (uint32_t i = 0; i < record.count && record.entries != nullptr; ++i)
            release(xdr_clnt_entry_t, record.entries[i]);
        stg_free(record.entries);
    }
    FUZZ_REQUIRE(release(routine, record));
    FUZZ_REQUIRE(release(routine, record));
}

// Decodes; the bytes that the record goes out as again, or none if it was refused.
template <class Record>
bool sent_again(bool_t (*routine)(XDR *, Record *), const Bytes &bytes, Bytes &again) {
    Record record = cleared<Record>();
    const bool is_accepted = decode(routine, bytes, record);
    if (is_accepted)
        FUZZ_REQUIRE(encode(routine, record, again, 4 * bytes.size() + (1 << 16)));
    if constexpr (requires { record.entries; })
        if (!is_accepted)
            FUZZ_REQUIRE(record.entries == nullptr);
    release_all(routine, record);
    return is_accepted;
}

template <class Record>
void try_record(bool_t (*routine)(XDR *, Record *), const Bytes &input) {
    Bytes first;
    Bytes second;
    if (!sent_again(routine, input, first))
        return;
    FUZZ_REQUIRE(sent_again(routine, first, second));
    FUZZ_REQUIRE(first == second);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const Bytes input(reinterpret_cast<const char *>(data) + 1, size - 1);
    unsigned kinds = 0;
    for_each_kind([&](const char *, auto) { ++kinds; });
    unsigned kind = 0;
    for_each_kind([&](const char *, auto routine) {
        if (kind++ == data[0] % kinds)
            try_record(routine, input);
    });
    return 0;
}
