// Bytes on the wire written by hand.
#pragma once

#include <string>
#include <string_view>

#include <gtest/gtest.h>

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

} // namespace wire_tests
