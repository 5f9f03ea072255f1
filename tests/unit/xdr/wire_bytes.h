// Bytes on the wire written by hand, and the fixture of tests that count what decoding allocates.
#pragma once

#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/sim/sweeps.h>
#include <tests/sim/world.h>
#include <tests/unit/xdr/samples.h>

namespace wire_tests {

class WireBytes {
public:
    WireBytes &word(uint64_t value) { return big_endian(value, 4); }
    WireBytes &hyper(uint64_t value) { return big_endian(value, 8); }
    // A counted string with its padding.
    WireBytes &text(std::string_view value) {
        word(value.size()).bytes_.append(value);
        bytes_.append((4 - value.size() % 4) % 4, '\0');
        return *this;
    }
    WireBytes &raw(std::string_view value) {
        bytes_.append(value);
        return *this;
    }
    WireBytes &repeated(size_t count, char byte) {
        bytes_.append(count, byte);
        return *this;
    }
    WireBytes &reply_header(tbs_status_t status = TBS_ST_OK) { return word(7).word(static_cast<uint32_t>(status)); }
    WireBytes &request_header() { return hyper(0x0102030405060708).word(9); }

    operator const Bytes &() const { return bytes_; }
    friend bool operator==(const Bytes &left, const WireBytes &right) { return left == right.bytes_; }
    friend void PrintTo(const WireBytes &wire, std::ostream *out) { *out << testing::PrintToString(wire.bytes_); }

private:
    WireBytes &big_endian(uint64_t value, int size) {
        for (int shift = (size - 1) * 8; shift >= 0; shift -= 8)
            bytes_.push_back(static_cast<char>(value >> shift));
        return *this;
    }
    Bytes bytes_;
};

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
