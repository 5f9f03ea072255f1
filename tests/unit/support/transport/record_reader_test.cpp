// Records out of a stream, however it is cut.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include <support/ks.h>
#include <support/transport/record_reader.h>

using namespace velia::support::transport;

namespace {

constexpr uint32_t last = 0x80000000;

std::string mark(uint32_t word) {
    const uint32_t network_word = htonl(word);
    return {reinterpret_cast<const char *>(&network_word), sizeof network_word};
}

std::string fragment(const std::string &bytes, bool is_last) {
    return mark(static_cast<uint32_t>(bytes.size()) | (is_last ? last : 0)) + bytes;
}

std::string record(const std::string &bytes) {
    return fragment(bytes, true);
}

class Records : public testing::Test {
protected:
    ~Records() override { release(reader_); }

    void arrive(const std::string &bytes) {
        for (size_t taken = 0; taken < bytes.size();) {
            size_t size = 0;
            char *place = room(reader_, size);
            ASSERT_NE(place, nullptr);
            const size_t count = std::min(size, bytes.size() - taken);
            memcpy(place, bytes.data() + taken, count);
            arrived(reader_, count);
            taken += count;
            take_whole_ones();
        }
    }

    void take_whole_ones() {
        while (state_ != Record::too_large && (state_ = next_record(reader_)) == Record::whole)
            whole_.emplace_back(reader_.bytes + reader_.begin, reader_.end - reader_.begin);
    }

    RecordReader reader_ = {};
    Record state_ = Record::incomplete;
    std::vector<std::string> whole_;
};

using Strings = std::vector<std::string>;

} // namespace

TEST_F(Records, AreTakenOutOfOneArrival) {
    arrive(record("one") + record("") + record("three"));
    EXPECT_EQ(whole_, (Strings{"one", "", "three"}));
}

TEST_F(Records, ArePutTogetherFromFragments) {
    arrive(fragment("ab", false) + fragment("", false) + fragment("cde", false) + fragment("f", true) + record("g"));
    EXPECT_EQ(whole_, (Strings{"abcdef", "g"}));
}

TEST_F(Records, EndWithAnEmptyLastFragment) {
    arrive(fragment("ab", false) + fragment("", true) + record("c"));
    EXPECT_EQ(whole_, (Strings{"ab", "c"}));
}

TEST_F(Records, MayComeInTwoPiecesCutAnywhere) {
    const std::string stream = fragment("ab", false) + fragment("cde", true) + record("") + record("fghi");
    for (size_t cut = 1; cut < stream.size(); ++cut) {
        whole_.clear();
        arrive(stream.substr(0, cut));
        arrive(stream.substr(cut));
        EXPECT_EQ(whole_, (Strings{"abcde", "", "fghi"})) << cut;
    }
}

TEST_F(Records, MayComeByteByByte) {
    for (const char byte : fragment("ab", false) + fragment("cde", true) + record("fghi"))
        arrive({byte});
    EXPECT_EQ(whole_, (Strings{"abcde", "fghi"}));
}

TEST_F(Records, OfManyFragmentsAreWhole) {
    std::string wanted;
    std::string stream;
    for (int i = 0; i < 20'000; ++i) {
        wanted += static_cast<char>('a' + i % 26);
        stream += fragment(wanted.substr(wanted.size() - 1), false);
    }
    arrive(stream + fragment("", true));
    EXPECT_EQ(whole_, Strings{wanted});
}

TEST_F(Records, TakeNoMoreStorageThanTwiceWhatHasCome) {
    arrive(mark(last | 40'000'000));
    size_t come = 0;
    for (const std::string piece(100'000, 'x'); come < 4'000'000; come += piece.size()) {
        arrive(piece);
        ASSERT_LE(reader_.capacity, 2 * (come + piece.size()) + 64 * 1024);
    }
    EXPECT_TRUE(whole_.empty());
}

TEST_F(Records, OfOnlyEmptyFragmentsTakeNoStorage) {
    for (int i = 0; i < 1000; ++i)
        arrive(mark(0) + mark(0) + mark(0));
    EXPECT_LE(reader_.capacity, 64u * 1024);
    EXPECT_TRUE(whole_.empty());
}

TEST_F(Records, AreTooLargeByTheMarkAlready) {
    arrive(mark(last | KS_RECORD_MAX));
    EXPECT_EQ(state_, Record::incomplete);
    begin_anew(reader_);
    arrive(mark(last | (KS_RECORD_MAX + 1)));
    EXPECT_EQ(state_, Record::too_large);
}

TEST_F(Records, AreTooLargeByTheSumOfTheirFragments) {
    arrive(fragment("abc", false) + mark(KS_RECORD_MAX - 2));
    EXPECT_EQ(state_, Record::too_large);
}

TEST_F(Records, OfTheLongestMarksAreTooLarge) {
    arrive(mark(0xffffffff));
    EXPECT_EQ(state_, Record::too_large);
}

TEST_F(Records, LeaveNoLargeStorageBehind) {
    arrive(record(std::string(1'000'000, 'x')));
    ASSERT_GE(reader_.capacity, 1'000'000u);
    shrink(reader_);
    EXPECT_LE(reader_.capacity, 64u * 1024);
    arrive(record("next"));
    EXPECT_EQ(whole_.back(), "next");
}

TEST_F(Records, KeepTheirStorageWhileMoreIsToCome) {
    arrive(record(std::string(1'000'000, 'x')) + mark(last | 3) + "a");
    shrink(reader_);
    arrive("bc");
    EXPECT_EQ(whole_.back(), "abc");
}

TEST_F(Records, BeginAnewWithAnotherStream) {
    arrive(mark(last | 100) + "part");
    begin_anew(reader_);
    arrive(record("whole"));
    EXPECT_EQ(whole_, Strings{"whole"});
}
