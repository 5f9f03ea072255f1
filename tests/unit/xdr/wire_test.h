// The fixture of tests that decode bytes and count what that allocates.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/sim/sweeps.h>
#include <tests/sim/world.h>
#include <tests/unit/xdr/samples.h>
#include <tests/unit/xdr/wire_bytes.h>

namespace wire_tests {

class WireTest : public testing::Test {
protected:
    sim::World world;
    Sampler sampler{20260101};

    // Decodes bytes that must be accepted to their last one.
    template <class Record>
    Record decoded(bool_t (*routine)(XDR *, Record *), const Bytes &bytes) {
        Record record = cleared<Record>();
        size_t consumed = 0;
        EXPECT_TRUE(decode(routine, bytes, record, &consumed));
        EXPECT_EQ(consumed, bytes.size());
        return record;
    }

    // Decodes bytes that must be refused, and releases what they brought.
    template <class Record>
    void expect_refused(bool_t (*routine)(XDR *, Record *), const Bytes &bytes) {
        const size_t blocks = world.live_blocks();
        Record record = cleared<Record>();
        EXPECT_FALSE(decode(routine, bytes, record));
        EXPECT_TRUE(release(routine, record));
        EXPECT_EQ(world.live_blocks(), blocks);
    }

    template <class Record>
    Bytes encoded(bool_t (*routine)(XDR *, Record *), const Record &record) {
        Bytes bytes;
        EXPECT_TRUE(encode(routine, record, bytes));
        return bytes;
    }
};

} // namespace wire_tests
