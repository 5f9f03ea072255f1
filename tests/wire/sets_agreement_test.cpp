// The routines of sets of jobs against code that rpcgen made of doc/protocol/sets.x.
#include <sets.h>
#include <sets_routines.h>

#include <gtest/gtest.h>

#include <tests/unit/sched/set_samples.h>
#include <tests/wire/agreement_suite.h>

using namespace wire_tests;

namespace {

AGREEMENT_PROTOCOL(Sets, SETS, RVZD_SET_PROCEDURES, fill);

} // namespace

TEST(SetsAgreement, BothSidesRefuseAChangeThatThereIsNot) {
    for (const char what : {'\0', '\3', '\4'}) {
        const Bytes bytes = Bytes(3, '\0') + what + Bytes(200, '\0');
        EXPECT_EQ(is_refused(xdr_sched_set_change_t, bytes), what != SETS_DELETE) << static_cast<int>(what);
        EXPECT_EQ(is_refused(xdr_sets_change, bytes), what != SETS_DELETE) << static_cast<int>(what);
    }
}

TEST(SetsAgreement, AFieldMeansTheSameOnBothSides) {
    sched_set_change_t change = {SCHED_SET_DELETE, 2, 3, {}};
    sched_set_apply_request_t request = {4, 5, 6, 1, 1, &change};
    sets_apply_req twin = {};
    ASSERT_TRUE(decode(xdr_sets_apply_req, sent(xdr_sched_set_apply_request_t, request), twin));
    EXPECT_EQ(twin.set, 4U);
    EXPECT_EQ(twin.state, 5U);
    EXPECT_EQ(twin.before, 6U);
    EXPECT_TRUE(twin.is_last);
    ASSERT_EQ(twin.changes.changes_len, 1U);
    EXPECT_EQ(twin.changes.changes_val[0].what, SETS_DELETE);
    EXPECT_EQ(twin.changes.changes_val[0].sets_change_u.deleted.job, 2U);
    EXPECT_EQ(twin.changes.changes_val[0].sets_change_u.deleted.follows, 3U);
    release(xdr_sets_apply_req, twin);

    sched_set_apply_reply_t reply = {1, 2, {3, 4}, 5};
    sets_apply_reply reply_twin = {};
    ASSERT_TRUE(decode(xdr_sets_apply_reply, sent(xdr_sched_set_apply_reply_t, reply), reply_twin));
    EXPECT_EQ(reply_twin.set, 2U);
    EXPECT_EQ(reply_twin.place, 3U);
    EXPECT_EQ(reply_twin.faults, 4U);
    EXPECT_EQ(reply_twin.first_created, 5U);
}
