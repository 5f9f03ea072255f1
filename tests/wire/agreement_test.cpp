// The library's routines against code that rpcgen made of doc/protocol/broker.x: both sides produce the same bytes for
// the same record, take each other's bytes, and refuse them cut anywhere.
#include <tests/wire/twins.h>

#include <gtest/gtest.h>

#include <support/stg.h>
#include <tests/wire/stub_records.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

using namespace wire_tests;

namespace {

constexpr int samples_of_a_kind = 100;
constexpr int samples_cut = 4;

// Both records of a procedure with what its description makes of them.
template <class Stub, class Visit, class Request, class Reply>
void visit_records(Visit &&visit, const velia::Procedure<Request, Reply> &procedure) {
    using Twins = StubRecords<Stub>;
    visit(procedure.name, procedure.xdr_request, routine_of_twin<typename Twins::Request>());
    visit(procedure.name, procedure.xdr_reply, routine_of_twin<typename Twins::Reply>());
}

// The language names only the header of a server list's reply.
template <class Stub, class Visit>
void visit_records(Visit &&visit,
                   const velia::Procedure<rvzd_list_servers_req_t, rvzd_list_servers_reply_t> &procedure) {
    visit(procedure.name, procedure.xdr_request, routine_of_twin<typename StubRecords<Stub>::Request>());
    if (procedure.number == RVZD_PROC_LIST_SERVERS)
        visit(procedure.name, procedure.xdr_reply, code_server_list<broker_server_record, xdr_broker_server_record>);
    else
        visit(procedure.name, procedure.xdr_reply,
              code_server_list<broker_server_record_v70, xdr_broker_server_record_v70>);
}

// Every kind as visit(name, our routine, the routine of its twin).
template <class Visit>
void for_each_pair(Visit &&visit) {
#define PAIR(RECORD, TWIN) visit(#RECORD, xdr_##RECORD, xdr_broker_##TWIN)
    PAIR(rvzd_rpc_trait_t, rpc_trait);
    PAIR(rvzd_server_port_t, server_port);
    PAIR(rvzd_server_port_list_t, server_port_list);
    PAIR(rvzd_sockaddr_in_t, sockaddr_in);
    PAIR(clnt_hostinfo_t, hostinfo);
    PAIR(clnt_entry_t, clnt_entry);
    PAIR(clnt_entry_v70_t, clnt_entry_v70);
    PAIR(clnt_tz_info_t, tz);
    PAIR(rvzd_hdr_req_t, hdr_req);
    PAIR(rvzd_hdr_reply_t, hdr_reply);
    PAIR(rvzd_slim_is_slim_reply_t, slim_is_slim_reply);
#undef PAIR
#define PROCEDURE(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                                  \
    visit_records<decltype(broker_##NAME##_3)>(visit, velia::procedures::NAME);
    RVZD_BROKER_PROCEDURES(PROCEDURE)
#undef PROCEDURE
}

// A port list in a server list comes back changed where the older form had no IPv4 port to send.
bool keeps_everything(...) {
    return true;
}
bool keeps_everything(bool_t (*routine)(XDR *, rvzd_list_servers_v70_reply_t *)) {
    return routine != xdr_rvzd_list_servers_v70_reply_t;
}

// Free mode leaves the entries of a client list alone.
template <class Record>
void release_all(bool_t (*routine)(XDR *, Record *), Record &record) {
    release(routine, record);
}
void release_all(bool_t (*routine)(XDR *, rvzd_clnt_list_get_reply_t *), rvzd_clnt_list_get_reply_t &record) {
    for (uint32_t i = 0; i < record.count && record.entries != nullptr; ++i)
        release(xdr_clnt_entry_t, record.entries[i]);
    stg_free(record.entries);
    release(routine, record);
}

// Decodes the whole of `bytes` and encodes what came of it.
template <class Record>
Bytes sent_again(bool_t (*routine)(XDR *, Record *), const Bytes &bytes, Record &&empty) {
    size_t consumed = 0;
    EXPECT_TRUE(decode(routine, bytes, empty, &consumed));
    EXPECT_EQ(consumed, bytes.size());
    Bytes again;
    EXPECT_TRUE(encode(routine, empty, again));
    release_all(routine, empty);
    return again;
}

template <class Record>
bool is_refused(bool_t (*routine)(XDR *, Record *), const Bytes &bytes, Record &&empty) {
    const bool done = decode(routine, bytes, empty);
    release_all(routine, empty);
    return !done;
}

class Agreement : public testing::Test {
protected:
    Sampler sampler{20260202};

    template <class Record>
    Bytes ours(bool_t (*routine)(XDR *, Record *), const Record &record) {
        Bytes bytes;
        EXPECT_TRUE(encode(routine, record, bytes));
        return bytes;
    }
    template <class Record, class Twin>
    Bytes theirs(bool_t (*routine)(XDR *, Twin *), const Record &record) {
        Twin twin{};
        if constexpr (requires { assign(twin, record, sampler); })
            assign(twin, record, sampler);
        else
            assign(twin, record);
        Bytes bytes;
        EXPECT_TRUE(encode(routine, twin, bytes));
        return bytes;
    }
};

TEST_F(Agreement, OfTheProgramsNumbers) {
    EXPECT_EQ(BROKER_PROGRAM, uint32_t{RVZD_PROGRAM});
    EXPECT_EQ(BROKER_VERSION, uint32_t{RVZD_VERSION});
#define EXPECT_NUMBER(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                              \
    EXPECT_EQ(BROKER_##CONSTANT, uint32_t{NUMBER}) << #NAME;
    RVZD_BROKER_PROCEDURES(EXPECT_NUMBER)
#undef EXPECT_NUMBER
}

TEST_F(Agreement, BothSidesProduceTheSameBytesForTheSameRecord) {
    for_each_pair([&]<class Record, class Twin>(const char *name, bool_t (*our_routine)(XDR *, Record *),
                                                bool_t (*twin_routine)(XDR *, Twin *)) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_of_a_kind; ++i) {
            Record record = cleared<Record>();
            fill(sampler, record);
            ASSERT_EQ(ours(our_routine, record), theirs(twin_routine, record));
        }
    });
}

TEST_F(Agreement, BothSidesAcceptTheBytesAndSendThemAgainAsTheyWere) {
    for_each_pair([&]<class Record, class Twin>(const char *name, bool_t (*our_routine)(XDR *, Record *),
                                                bool_t (*twin_routine)(XDR *, Twin *)) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_of_a_kind; ++i) {
            Record record = cleared<Record>();
            fill(sampler, record);
            const Bytes bytes = ours(our_routine, record);
            ASSERT_EQ(sent_again(twin_routine, bytes, Twin{}), bytes);
            const Bytes again = sent_again(our_routine, bytes, cleared<Record>());
            ASSERT_TRUE(again == bytes || !keeps_everything(our_routine));
            ASSERT_EQ(sent_again(twin_routine, again, Twin{}), again);
        }
    });
}

TEST_F(Agreement, BothSidesRefuseTheBytesCutAnywhere) {
    for_each_pair([&]<class Record, class Twin>(const char *name, bool_t (*our_routine)(XDR *, Record *),
                                                bool_t (*twin_routine)(XDR *, Twin *)) {
        SCOPED_TRACE(name);
        for (int i = 0; i < samples_cut; ++i) {
            Record record = cleared<Record>();
            fill(sampler, record);
            const Bytes bytes = ours(our_routine, record);
            for (size_t size = 0; size < bytes.size(); ++size) {
                ASSERT_TRUE(is_refused(our_routine, bytes.substr(0, size), cleared<Record>())) << size;
                ASSERT_TRUE(is_refused(twin_routine, bytes.substr(0, size), Twin{})) << size;
            }
        }
    });
}

TEST_F(Agreement, BothSidesRefuseNamesThatAreTooLong) {
    std::string name(RVZD_SERVER_NAME_MAX + 1, 'n');
    auto toggle = cleared<rvzd_toggle_server_restart_req_t>();
    toggle.name = name.data();
    broker_toggle_server_restart_req toggle_twin{};
    assign(toggle_twin, toggle);
    auto lookup = cleared<rvzd_clnt_list_lookup_req_t>();
    name.resize(RVZD_HOST_NAME_MAX + 1);
    lookup.hostname = name.data();
    broker_clnt_list_lookup_req lookup_twin{};
    assign(lookup_twin, lookup);
    Bytes bytes;
    EXPECT_FALSE(encode(xdr_rvzd_clnt_list_lookup_req_t, lookup, bytes));
    EXPECT_FALSE(encode(xdr_broker_clnt_list_lookup_req, lookup_twin, bytes));
    name.resize(RVZD_SERVER_NAME_MAX + 1, 'n');
    toggle.name = toggle_twin.name = name.data();
    EXPECT_FALSE(encode(xdr_rvzd_toggle_server_restart_req_t, toggle, bytes));
    EXPECT_FALSE(encode(xdr_broker_toggle_server_restart_req, toggle_twin, bytes));
}

} // namespace
