// Record marking over a byte stream, and its bounds.
#include <algorithm>

#include <gtest/gtest.h>

#include <server/rpc/record_assembler.h>

using namespace velia::server;

namespace {

using State = RecordAssembler::State;

MessageBytes bytes_of(std::string_view text) {
    return {text.begin(), text.end()};
}

MessageBytes mark(uint32_t size, bool is_last) {
    const uint32_t word = size | (is_last ? 0x80000000 : 0);
    return {static_cast<unsigned char>(word >> 24), static_cast<unsigned char>(word >> 16),
            static_cast<unsigned char>(word >> 8), static_cast<unsigned char>(word)};
}

MessageBytes operator+(MessageBytes left, const MessageBytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST(RecordAssembler, GivesARecordOfOneFragment) {
    RecordAssembler assembler;
    const auto stream = with_record_mark(bytes_of("hello"));
    EXPECT_EQ(stream, mark(5, true) + bytes_of("hello"));
    Bytes rest(stream);
    ASSERT_EQ(assembler.feed(rest), State::has_record);
    EXPECT_EQ(assembler.take(), bytes_of("hello"));
    EXPECT_TRUE(rest.empty());
    EXPECT_FALSE(assembler.is_within_record());
}

TEST(RecordAssembler, JoinsFragmentsThatArriveByteByByte) {
    RecordAssembler assembler;
    const auto stream = mark(2, false) + bytes_of("ab") + mark(0, false) + mark(3, true) + bytes_of("cde");
    for (size_t i = 0; i < stream.size(); ++i) {
        Bytes one(&stream[i], 1);
        EXPECT_EQ(assembler.feed(one), i + 1 < stream.size() ? State::needs_bytes : State::has_record) << i;
        EXPECT_TRUE(one.empty());
        EXPECT_TRUE(assembler.is_within_record());
    }
    EXPECT_EQ(assembler.take(), bytes_of("abcde"));
}

TEST(RecordAssembler, LeavesTheNextRecordInTheBytes) {
    RecordAssembler assembler;
    const auto stream = with_record_mark(bytes_of("one")) + with_record_mark(bytes_of("two"));
    Bytes rest(stream);
    ASSERT_EQ(assembler.feed(rest), State::has_record);
    EXPECT_EQ(rest.size(), 7u);
    EXPECT_EQ(assembler.take(), bytes_of("one"));
    ASSERT_EQ(assembler.feed(rest), State::has_record);
    EXPECT_EQ(assembler.take(), bytes_of("two"));
}

TEST(RecordAssembler, TakesTheLargestRecordAndNoneBeyond) {
    for (const uint32_t beyond : {0u, 1u}) {
        RecordAssembler assembler;
        const auto stream = mark(RECORD_BYTES_MAX + beyond, true) + MessageBytes(RECORD_BYTES_MAX + beyond);
        Bytes rest(stream);
        EXPECT_EQ(assembler.feed(rest), beyond == 0 ? State::has_record : State::is_broken);
    }
}

TEST(RecordAssembler, CountsAllFragmentsOfARecordAgainstItsBound) {
    RecordAssembler assembler;
    const auto first = mark(RECORD_BYTES_MAX, false) + MessageBytes(RECORD_BYTES_MAX);
    Bytes rest(first);
    EXPECT_EQ(assembler.feed(rest), State::needs_bytes);
    const auto second = mark(1, true);
    rest = Bytes(second);
    EXPECT_EQ(assembler.feed(rest), State::is_broken);
}

TEST(RecordAssembler, RefusesTooManyFragmentsHoweverEmpty) {
    RecordAssembler assembler;
    const auto empty = mark(0, false);
    for (int i = 0; i < RECORD_FRAGMENTS_MAX; ++i) {
        Bytes rest(empty);
        ASSERT_EQ(assembler.feed(rest), State::needs_bytes) << i;
    }
    Bytes rest(empty);
    EXPECT_EQ(assembler.feed(rest), State::is_broken);
}

TEST(RecordAssembler, CountsFragmentsOfEachRecordAnew) {
    RecordAssembler assembler;
    const auto empty_record = mark(0, true);
    for (int i = 0; i < 2 * RECORD_FRAGMENTS_MAX; ++i) {
        Bytes rest(empty_record);
        ASSERT_EQ(assembler.feed(rest), State::has_record) << i;
        EXPECT_TRUE(assembler.take().empty());
    }
}

} // namespace
