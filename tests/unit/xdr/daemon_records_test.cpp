// Replies about the state of a daemon, also as a peer that means no good sends them.
#include <tests/unit/xdr/wire_test.h>

#include <veliaxdr/rvzd_daemon.h>

using namespace wire_tests;

namespace {

class DaemonStatusReply : public WireTest {
protected:
    DaemonStatusReply() {
        sent.version = sent.host = nothing;
        sent.count = 1;
        sent.procedures = &figures;
    }

    char nothing[1] = "";
    rvzd_procedure_figures_t figures = {36, 1, 2, 3};
    rvzd_daemon_status_reply_t sent = {};
};

TEST_F(DaemonStatusReply, HasItsFigures) {
    auto received = decoded(xdr_rvzd_daemon_status_reply_t, encoded(xdr_rvzd_daemon_status_reply_t, sent));
    ASSERT_EQ(received.count, 1u);
    EXPECT_EQ(received.procedures[0].p99_us, 3u);
    EXPECT_TRUE(release(xdr_rvzd_daemon_status_reply_t, received));
    EXPECT_EQ(received.count, 0u);
}

TEST_F(DaemonStatusReply, OfMoreFiguresThanThereMayBeIsRefusedAndReleased) {
    sent.count = 0;
    Bytes bytes = encoded(xdr_rvzd_daemon_status_reply_t, sent);
    bytes.replace(bytes.size() - 4, 4, 4, '\xff');
    expect_refused(xdr_rvzd_daemon_status_reply_t, bytes);
}

TEST_F(DaemonStatusReply, CutOffInItsFiguresIsRefusedAndReleased) {
    Bytes bytes = encoded(xdr_rvzd_daemon_status_reply_t, sent);
    bytes.resize(bytes.size() - 4);
    expect_refused(xdr_rvzd_daemon_status_reply_t, bytes);
}

} // namespace
