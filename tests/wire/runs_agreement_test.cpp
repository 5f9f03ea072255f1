// The routines of runs and changes against code that rpcgen made of doc/protocol/runs.x.
#include <runs.h>
#include <runs_routines.h>

#include <gtest/gtest.h>

#include <tests/unit/sched/run_samples.h>
#include <tests/wire/agreement_suite.h>

using namespace wire_tests;

namespace {

AGREEMENT_PROTOCOL(Runs, RUNS, RVZD_RUN_PROCEDURES, fill);

} // namespace

TEST(RunsAgreement, OfTheLongestPiece) {
    EXPECT_EQ(RUNS_PIECE_MAX, int{SCHED_RUN_PIECE_MAX});
}

TEST(RunsAgreement, AFieldMeansTheSameOnBothSides) {
    char text[] = "abc";
    sched_run_output_reply_t output = {7, {1, 2, 3, 2, text}};
    runs_output_reply output_twin = {};
    ASSERT_TRUE(decode(xdr_runs_output_reply, sent(xdr_sched_run_output_reply_t, output), output_twin));
    EXPECT_EQ(output_twin.status, 7);
    EXPECT_EQ(output_twin.started, 1);
    EXPECT_EQ(output_twin.ended, 2);
    EXPECT_EQ(output_twin.total, 3U);
    EXPECT_EQ(std::string(output_twin.bytes.bytes_val, output_twin.bytes.bytes_len), "ab");
    release(xdr_runs_output_reply, output_twin);

    sched_run_t run = {1, 2, 3, 4, text, nullptr};
    runs_run run_twin = {};
    ASSERT_TRUE(decode(xdr_runs_run, sent(xdr_sched_run_t, run), run_twin));
    EXPECT_EQ(run_twin.due, 2);
    EXPECT_EQ(run_twin.ended, 3);
    EXPECT_EQ(run_twin.exit_status, 4U);
    EXPECT_STREQ(run_twin.process_id, "abc");
    EXPECT_STREQ(run_twin.messages, "");
    release(xdr_runs_run, run_twin);

    char where[] = "where";
    char what[] = "what";
    char fields[] = "fields";
    sched_change_t change = {1, 2, text, where, what, 3, nullptr, fields};
    runs_change change_twin = {};
    ASSERT_TRUE(decode(xdr_runs_change, sent(xdr_sched_change_t, change), change_twin));
    EXPECT_EQ(change_twin.number, 1U);
    EXPECT_EQ(change_twin.when, 2);
    EXPECT_STREQ(change_twin.who, "abc");
    EXPECT_STREQ(change_twin.where, "where");
    EXPECT_STREQ(change_twin.what, "what");
    EXPECT_EQ(change_twin.job, 3U);
    EXPECT_STREQ(change_twin.fields, "fields");
    release(xdr_runs_change, change_twin);

    sched_next_run_t next = {1, -2, 3};
    runs_next next_twin = {};
    ASSERT_TRUE(decode(xdr_runs_next, sent(xdr_sched_next_run_t, next), next_twin));
    EXPECT_EQ(next_twin.at, 1);
    EXPECT_EQ(next_twin.utc_offset, -2);
    EXPECT_EQ(next_twin.clock_shift, 3U);

    sched_job_host_t host = {1, text, where};
    runs_host host_twin = {};
    ASSERT_TRUE(decode(xdr_runs_host, sent(xdr_sched_job_host_t, host), host_twin));
    EXPECT_EQ(host_twin.job, 1U);
    EXPECT_STREQ(host_twin.host, "abc");
    EXPECT_STREQ(host_twin.run_host, "where");
    release(xdr_runs_host, host_twin);
}

TEST(RunsAgreement, AJobThatIsMadeAtAHostMeansTheSameOnBothSides) {
    char host[] = "beta";
    char name[] = "nightly";
    sched_create_at_host_request_t request = {host, {}};
    request.job.name = name;
    request.job.schedule.kind = SCHED_KIND_DAILY;
    runs_create_req twin = {};
    ASSERT_TRUE(decode(xdr_runs_create_req, sent(xdr_sched_create_at_host_request_t, request), twin));
    EXPECT_STREQ(twin.host, "beta");
    EXPECT_STREQ(twin.job.name, "nightly");
    release(xdr_runs_create_req, twin);

    sched_create_at_host_reply_t reply = {1, 2, 3};
    runs_create_reply reply_twin = {};
    ASSERT_TRUE(decode(xdr_runs_create_reply, sent(xdr_sched_create_at_host_reply_t, reply), reply_twin));
    EXPECT_EQ(reply_twin.status, 1);
    EXPECT_EQ(reply_twin.job, 2U);
    EXPECT_EQ(reply_twin.faults, 3U);
}

TEST(RunsAgreement, APieceThatIsTooLongIsRefused) {
    const Bytes head(4 + 3 * 8, '\0');
    const Bytes bytes = head + Bytes({'\0', '\0', static_cast<char>(0xC0), '\4'}) + Bytes(SCHED_RUN_PIECE_MAX + 4, 'x');
    EXPECT_TRUE(is_refused(xdr_sched_run_output_reply_t, bytes));
    EXPECT_TRUE(is_refused(xdr_runs_output_reply, bytes));
}
