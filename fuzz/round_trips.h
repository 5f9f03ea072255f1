// What decodes must go out again, and what went out must come back and go out as the same bytes.
#pragma once

#include <fuzz/harness.h>

#include <tests/unit/xdr/samples.h>

namespace fuzz {

using wire_tests::Bytes;

// Free mode may come twice.
template <class Record>
void release_twice(bool_t (*routine)(XDR *, Record *), Record &record) {
    FUZZ_REQUIRE(wire_tests::release(routine, record));
    FUZZ_REQUIRE(wire_tests::release(routine, record));
}

constexpr auto always_goes_out = [](const auto & /*record*/) { return true; };

// Decodes; false if it was refused, or need not go out, else `again` is what the record goes out as.
template <class Record, class GoesOut>
bool sent_again(bool_t (*routine)(XDR *, Record *), const Bytes &bytes, Bytes &again, GoesOut &&goes_out) {
    Record record = {};
    bool is_sent = wire_tests::decode(routine, bytes, record);
    if (is_sent) {
        is_sent = goes_out(record);
        FUZZ_REQUIRE(wire_tests::encode(routine, record, again, 4 * bytes.size() + (1 << 16)) == is_sent);
    }
    release_twice(routine, record);
    return is_sent;
}

template <class Record, class GoesOut>
void try_record(bool_t (*routine)(XDR *, Record *), const Bytes &input, GoesOut &&goes_out) {
    Bytes first;
    Bytes second;
    if (!sent_again(routine, input, first, goes_out))
        return;
    FUZZ_REQUIRE(sent_again(routine, first, second, goes_out));
    FUZZ_REQUIRE(first == second);
}

} // namespace fuzz
