// What every description owes the routines of its procedures: numbers, and bytes that both sides take whole, send again
// as they were and refuse cut anywhere. A protocol is a type that AGREEMENT_PROTOCOL makes of its rows.
#pragma once

#include <gtest/gtest.h>

#include <tests/wire/both_sides.h>
#include <tests/wire/stub_records.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

namespace wire_tests {

template <class Protocol>
class ProtocolAgreement : public testing::Test {
protected:
    Sampler sampler{20261122};

    template <class Record>
    Bytes sample(bool_t (*routine)(XDR *, Record *)) {
        Record record = {};
        Protocol::fill_sample(sampler, record);
        return sent(routine, record);
    }
};
TYPED_TEST_SUITE_P(ProtocolAgreement);

TYPED_TEST_P(ProtocolAgreement, OfTheProgramsNumbers) {
    EXPECT_EQ(TypeParam::program, uint32_t{RVZD_PROGRAM});
    EXPECT_EQ(TypeParam::version, uint32_t{RVZD_VERSION});
    TypeParam::for_each_number(
        [](const char *name, uint32_t described, uint32_t ours) { EXPECT_EQ(described, ours) << name; });
}

TYPED_TEST_P(ProtocolAgreement, BothSidesTakeTheBytesWholeAndSendThemAgainAsTheyWere) {
    expect_both_sides_take_bytes_whole([](auto &&visit) { TypeParam::for_each_pair(visit); },
                                       [&](auto routine) { return this->sample(routine); });
}

TYPED_TEST_P(ProtocolAgreement, BothSidesRefuseTheBytesCutAnywhere) {
    expect_both_sides_refuse_bytes_cut_anywhere([](auto &&visit) { TypeParam::for_each_pair(visit); },
                                                [&](auto routine) { return this->sample(routine); });
}

REGISTER_TYPED_TEST_SUITE_P(ProtocolAgreement, OfTheProgramsNumbers,
                            BothSidesTakeTheBytesWholeAndSendThemAgainAsTheyWere, BothSidesRefuseTheBytesCutAnywhere);

#define AGREEMENT_NUMBER(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER) visit(#NAME, CONSTANT, NUMBER);
#define AGREEMENT_PAIR(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                             \
    {                                                                                                                  \
        using Twins = StubRecords<decltype(NAME##_3)>;                                                                 \
        visit(#NAME " request", velia::procedures::NAME.xdr_request, routine_of_twin<typename Twins::Request>());      \
        visit(#NAME " reply", velia::procedures::NAME.xdr_reply, routine_of_twin<typename Twins::Reply>());            \
    }

// TYPE is of the rows ROWS and the description whose constants begin with PREFIX; FILL(sampler, record) is a sample.
#define AGREEMENT_PROTOCOL(TYPE, PREFIX, ROWS, FILL)                                                                   \
    struct TYPE {                                                                                                      \
        static constexpr uint32_t program = PREFIX##_PROGRAM;                                                          \
        static constexpr uint32_t version = PREFIX##_VERSION;                                                          \
        template <class Record>                                                                                        \
        static void fill_sample(Sampler &sampler, Record &record) {                                                    \
            FILL(sampler, record);                                                                                     \
        }                                                                                                              \
        template <class Visit>                                                                                         \
        static void for_each_number(Visit &&visit) {                                                                   \
            ROWS(AGREEMENT_NUMBER)                                                                                     \
        }                                                                                                              \
        template <class Visit>                                                                                         \
        static void for_each_pair(Visit &&visit) {                                                                     \
            ROWS(AGREEMENT_PAIR)                                                                                       \
        }                                                                                                              \
    };                                                                                                                 \
    INSTANTIATE_TYPED_TEST_SUITE_P(Of##TYPE, ProtocolAgreement, TYPE)

} // namespace wire_tests
