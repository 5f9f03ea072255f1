// What our routine and the one that rpcgen made of a description owe each other for any bytes of ours.
#pragma once

#include <gtest/gtest.h>

#include <tests/unit/xdr/samples.h>

namespace wire_tests {

constexpr int samples_of_a_pair = 100;
constexpr int samples_cut = 4;

template <class Record>
Bytes sent(bool_t (*routine)(XDR *, Record *), const Record &record) {
    Bytes bytes;
    EXPECT_TRUE(encode(routine, record, bytes));
    return bytes;
}

// Decodes the whole of `bytes` and encodes what came of it.
template <class Record>
Bytes sent_again(bool_t (*routine)(XDR *, Record *), const Bytes &bytes) {
    Record record = {};
    size_t consumed = 0;
    EXPECT_TRUE(decode(routine, bytes, record, &consumed));
    EXPECT_EQ(consumed, bytes.size());
    const Bytes again = sent(routine, record);
    release(routine, record);
    return again;
}

template <class Record>
bool is_refused(bool_t (*routine)(XDR *, Record *), const Bytes &bytes) {
    Record record = {};
    const bool done = decode(routine, bytes, record);
    release(routine, record);
    return !done;
}

// `sample(routine)` gives the bytes of a record; `for_each_pair` visits with a name, our routine and its twin.
template <class ForEachPair, class Sample>
void expect_both_sides_take_bytes_whole(ForEachPair &&for_each_pair, Sample &&sample) {
    for_each_pair([&](const char *name, auto our_routine, auto twin_routine) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_of_a_pair; ++i) {
            const Bytes bytes = sample(our_routine);
            ASSERT_EQ(sent_again(twin_routine, bytes), bytes);
            ASSERT_EQ(sent_again(our_routine, bytes), bytes);
        }
    });
}

template <class ForEachPair, class Sample>
void expect_both_sides_refuse_bytes_cut_anywhere(ForEachPair &&for_each_pair, Sample &&sample) {
    for_each_pair([&](const char *name, auto our_routine, auto twin_routine) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_cut; ++i) {
            const Bytes bytes = sample(our_routine);
            for (size_t size = 1; size < bytes.size(); ++size) {
                ASSERT_TRUE(is_refused(our_routine, bytes.substr(0, size))) << size;
                ASSERT_TRUE(is_refused(twin_routine, bytes.substr(0, size))) << size;
            }
        }
    });
}

} // namespace wire_tests
