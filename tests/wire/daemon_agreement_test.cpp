// The routines of the procedures that are our own against code that rpcgen made of doc/protocol/daemon.x: what the one
// sends the other takes whole and sends again as it was, and both refuse it cut anywhere.
#include <daemon.h>
#include <daemon_routines.h>

#include <gtest/gtest.h>

#include <tests/wire/agreement_suite.h>

using namespace wire_tests;

namespace {

void fill_body(Sampler &s, rvzd_registry_state_req_t &r) {
    fill(s, r.registry);
    r.term = s.hyper();
    r.host = s.text(RVZD_HOST_NAME_MAX);
}
void fill_body(Sampler &s, rvzd_registry_turn_req_t &r) {
    r.op = s.signed_word();
    r.seconds = static_cast<uint32_t>(s.word());
    r.host = s.text(RVZD_HOST_NAME_MAX);
}
void fill_body(Sampler &s, rvzd_registry_save_req_t &r) {
    r.save = s.hyper();
    r.offset = s.hyper();
}
void fill_body(Sampler & /*unused*/, rvzd_daemon_status_req_t & /*unused*/) {}
void fill_body(Sampler & /*unused*/, rvzd_null_reply_t & /*unused*/) {}
void fill_body(Sampler &s, rvzd_registry_state_reply_t &r) {
    r.role = s.signed_word();
    r.takes_updates = s.coin();
    r.term = s.hyper();
    r.heard_term = s.hyper();
    fill(s, r.registry);
    r.now = s.time();
    r.looked = s.time();
    r.current = s.time();
    for (char **text : {&r.master, &r.heard_host, &r.source, &r.failure})
        *text = s.text(100);
}
void fill_body(Sampler &s, rvzd_registry_save_reply_t &r) {
    r.save = s.hyper();
    r.pages_done = s.hyper();
    r.pages = s.hyper();
    r.size = s.hyper();
    r.failure = s.text(100);
    r.count = static_cast<uint32_t>(s.number(50));
    r.bytes = r.count > 0 ? s.array<uint8_t>(r.count) : nullptr;
}
void fill_body(Sampler &s, rvzd_daemon_status_reply_t &r) {
    r.version = s.text(40);
    r.host = s.text(40);
    r.now = s.time();
    r.started = s.time();
    for (uint32_t *number : {&r.connections, &r.connections_max, &r.services, &r.servers, &r.servers_busy})
        *number = static_cast<uint32_t>(s.word());
    r.registry_entries = s.hyper();
    r.registry_bytes = s.hyper();
    r.registry_log_bytes = s.hyper();
    r.count = static_cast<uint32_t>(s.number(4));
    r.procedures = r.count > 0 ? s.array<rvzd_procedure_figures_t>(r.count) : nullptr;
    for (uint32_t i = 0; i < r.count; ++i)
        r.procedures[i] = {static_cast<uint32_t>(s.word()), s.hyper(), s.hyper(), s.hyper()};
}

template <class Record>
void fill_record(Sampler &s, Record &r) {
    fill(s, r.header);
    fill_body(s, r);
}

AGREEMENT_PROTOCOL(DaemonItself, DAEMON, RVZD_DAEMON_PROCEDURES, fill_record);

struct DaemonAgreement : testing::Test {
    Sampler sampler{20261122};
};

TEST_F(DaemonAgreement, AFieldMeansTheSameOnBothSides) {
    rvzd_registry_state_reply_t reply = {};
    fill_record(sampler, reply);
    reply.header.status = TBS_ST_OK;
    daemon_registry_state_reply twin = {};
    ASSERT_TRUE(decode(xdr_daemon_registry_state_reply, sent(xdr_rvzd_registry_state_reply_t, reply), twin));
    const daemon_registry_state &state = twin.tail.daemon_registry_state_tail_u.state;
    EXPECT_EQ(state.role, reply.role);
    EXPECT_EQ(state.term, reply.term);
    EXPECT_EQ(state.heard_term, reply.heard_term);
    EXPECT_STREQ(state.master, reply.master);
    EXPECT_STREQ(state.heard_host, reply.heard_host);
    EXPECT_EQ(state.looked, reply.looked);
    EXPECT_EQ(state.current, reply.current);
    EXPECT_STREQ(state.source, reply.source);
    EXPECT_STREQ(state.failure, reply.failure);
    release(xdr_daemon_registry_state_reply, twin);
}

TEST_F(DaemonAgreement, BothSidesRefuseMoreProceduresThanThereAre) {
    rvzd_daemon_status_reply_t reply = {};
    std::vector<rvzd_procedure_figures_t> figures(RVZD_DAEMON_PROCEDURES_MAX + 1);
    reply.procedures = figures.data();
    reply.count = RVZD_DAEMON_PROCEDURES_MAX;
    Bytes bytes = sent(xdr_rvzd_daemon_status_reply_t, reply);
    EXPECT_FALSE(is_refused(xdr_daemon_status_reply, bytes));
    EXPECT_FALSE(is_refused(xdr_rvzd_daemon_status_reply_t, bytes));
    ++reply.count;
    Bytes none;
    EXPECT_FALSE(encode(xdr_rvzd_daemon_status_reply_t, reply, none));
    const size_t place = bytes.size() - RVZD_DAEMON_PROCEDURES_MAX * 28 - 1;
    ++bytes[place];
    EXPECT_TRUE(is_refused(xdr_rvzd_daemon_status_reply_t, bytes + Bytes(28, '\0')));
    EXPECT_TRUE(is_refused(xdr_daemon_status_reply, bytes + Bytes(28, '\0')));
}

} // namespace
