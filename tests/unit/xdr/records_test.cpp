// What holds for every record of the broker's wire: it comes back as it was sent, every cut is refused, nothing leaks.
#include <tests/unit/xdr/wire_test.h>

using namespace wire_tests;

namespace {

constexpr int samples_of_a_kind = 60;
constexpr int samples_cut = 6;

class EveryRecord : public WireTest {
protected:
    // Free mode leaves the entries of a client list alone, so a test releases them itself.
    void release_all(bool_t (*routine)(XDR *, rvzd_clnt_list_get_reply_t *), rvzd_clnt_list_get_reply_t &record) {
        for (uint32_t i = 0; i < record.count && record.entries != nullptr; ++i)
            release(xdr_clnt_entry_t, record.entries[i]);
        stg_free(record.entries);
        record.entries = nullptr;
        release(routine, record);
    }
    template <class Record>
    void release_all(bool_t (*routine)(XDR *, Record *), Record &record) {
        EXPECT_TRUE(release(routine, record));
    }
};

// Every record comes back as it was sent, but for the older server list: a socket address without an IPv4 port comes
// back as an IPv4 port 0.
bool is_symmetric(...) {
    return true;
}
bool is_symmetric(bool_t (*routine)(XDR *, rvzd_list_servers_v70_reply_t *)) {
    return routine != xdr_rvzd_list_servers_v70_reply_t;
}

TEST_F(EveryRecord, ComesBackAsItWasSent) {
    for_each_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_of_a_kind; ++i) {
            Record sent = cleared<Record>();
            fill(sampler, sent);
            const Bytes bytes = encoded(routine, sent);
            Record received = decoded(routine, bytes);
            const Bytes bytes_again = encoded(routine, received);
            EXPECT_TRUE(bytes_again == bytes || !is_symmetric(routine));
            release_all(routine, received);
            Record received_again = decoded(routine, bytes_again);
            EXPECT_EQ(encoded(routine, received_again), bytes_again);
            release_all(routine, received_again);
            ASSERT_EQ(world.live_blocks(), 0u);
        }
    });
}

TEST_F(EveryRecord, IsRefusedWhenCutAtAnyByteAndLeaksNothing) {
    for_each_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_cut; ++i) {
            Record sent = cleared<Record>();
            fill(sampler, sent);
            const Bytes bytes = encoded(routine, sent);
            for (size_t size = 0; size < bytes.size(); ++size)
                expect_refused(routine, bytes.substr(0, size));
        }
    });
}

TEST_F(EveryRecord, DoesNotGoOutWithoutRoomForItsLastByte) {
    for_each_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        Record sent = cleared<Record>();
        fill(sampler, sent);
        const Bytes bytes = encoded(routine, sent);
        for (size_t room = 0; room < bytes.size(); room += 4) {
            Bytes part;
            EXPECT_FALSE(encode(routine, sent, part, room));
        }
    });
}

TEST_F(EveryRecord, LeaksNothingWhereverMemoryEnds) {
    for_each_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        Record sent = cleared<Record>();
        fill(sampler, sent);
        const Bytes bytes = encoded(routine, sent);
        Record received;
        bool done = false;
        const auto decode_once = [&] {
            received = cleared<Record>();
            done = decode(routine, bytes, received);
        };
        sim::sweep_allocations(world, decode_once, [&](int number) {
            EXPECT_FALSE(done) << "allocation " << number;
            EXPECT_TRUE(release(routine, received));
            EXPECT_EQ(world.live_blocks(), 0u) << "allocation " << number;
        });
        EXPECT_TRUE(done);
        release_all(routine, received);
        EXPECT_EQ(world.live_blocks(), 0u);
    });
}

TEST_F(EveryRecord, MayBeFreedWhenNothingWasDecoded) {
    for_each_kind([&]<class Record>(const char *name, bool_t (*routine)(XDR *, Record *)) {
        SCOPED_TRACE(name);
        Record record = cleared<Record>();
        EXPECT_TRUE(release(routine, record));
        EXPECT_TRUE(release(routine, record));
    });
}

// A reply of another status ends behind its header; those of contact, builds and the slim question do not.
template <class Record>
size_t bytes_with_status(bool_t (*routine)(XDR *, Record *), tbs_status_t status) {
    Sampler sampler(5);
    Record record = cleared<Record>();
    fill(sampler, record);
    record.header.status = status;
    Bytes bytes;
    EXPECT_TRUE(encode(routine, record, bytes));
    return bytes.size();
}

TEST_F(EveryRecord, OfAReplyEndsBehindTheHeaderUnlessTheStatusIsGood) {
    const auto expect_short = [](auto routine, const char *name) {
        EXPECT_EQ(bytes_with_status(routine, TBS_ST_NOT_FOUND), 8u) << name;
        EXPECT_GT(bytes_with_status(routine, TBS_ST_OK), 8u) << name;
    };
    expect_short(xdr_rvzd_find_server_reply_t, "find_server");
    expect_short(xdr_rvzd_find_server_v70_reply_t, "find_server_v70");
    expect_short(xdr_rvzd_get_local_path_reply_t, "get_local_path");
    expect_short(xdr_rvzd_clnt_list_get_reply_t, "clnt_list_get");
    expect_short(xdr_rvzd_clnt_list_get_v70_reply_t, "clnt_list_get_v70");
    expect_short(xdr_rvzd_clnt_list_lookup_reply_t, "clnt_list_lookup");
    expect_short(xdr_rvzd_clnt_list_lookup_v70_reply_t, "clnt_list_lookup_v70");
    expect_short(xdr_rvzd_hostinfo_reply_t, "hostinfo");
    expect_short(xdr_rvzd_toggle_server_restart_reply_t, "toggle_server_restart");
    expect_short(xdr_rvzd_list_servers_reply_t, "list_servers");
    expect_short(xdr_rvzd_list_servers_v70_reply_t, "list_servers_v70");
}

TEST_F(EveryRecord, OfContactBuildsAndTheSlimQuestionIsWholeWhateverTheStatus) {
    const auto expect_whole = [](auto routine, const char *name) {
        EXPECT_EQ(bytes_with_status(routine, TBS_ST_NOT_FOUND), bytes_with_status(routine, TBS_ST_OK)) << name;
        EXPECT_GT(bytes_with_status(routine, TBS_ST_NOT_FOUND), 8u) << name;
    };
    expect_whole(xdr_rvzd_contact_reply_t, "contact");
    expect_whole(xdr_rvzd_remote_build_hi_reply_t, "remote_build_hi");
    expect_whole(xdr_rvzd_slim_is_slim_reply_t, "slim_is_slim");
}

} // namespace
