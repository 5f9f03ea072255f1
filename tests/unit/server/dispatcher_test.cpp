// What a call comes to, by its procedure: answered, refused, or left to whoever works on it.
#include <server/rpc/serve.h>
#include <tests/unit/server/open_guard.h>

#include <cstring>
#include <new>
#include <stdexcept>

#include <gtest/gtest.h>

using namespace velia::server;
namespace procedures = velia::procedures;

namespace {

constexpr uint32_t xid = 7;
constexpr uint64_t sequence = 4711;
constexpr size_t results_at = 24; // behind the reply message's own words

// A procedure whose records outgrow a datagram.
constexpr auto only_over_tcp = [] {
    auto procedure = procedures::rgy_get_backup;
    procedure.over = velia::Over::TCP;
    return procedure;
}();

struct Subject {};

// Does the work of a few procedures, as a test says.
class Owner {
public:
    tbs_status_t contact(const rvzd_contact_req_t &request, const Caller &caller, Reply<rvzd_contact_reply_t> &reply) {
        if (has_no_memory)
            throw std::bad_alloc();
        offered = request.protocol_version;
        transport = caller.transport;
        reply.record.protocol_version = 9;
        return TBS_ST_TRY_AGAIN;
    }
    tbs_status_t get_backup(const rvzd_registry_get_backup_req_t &, const Caller &,
                            Reply<rvzd_registry_get_backup_reply_t> &reply) {
        reply.record.host_list = reply.arena.text(std::string(RGY_WIRE_HOST_LIST_MAX, 'h'));
        return TBS_ST_OK;
    }
    tbs_status_t get_dtm(Subject &, const rvzd_registry_get_dtm_req_t &, const Caller &,
                         Reply<rvzd_registry_get_dtm_reply_t> &) {
        throw std::runtime_error("the disk is gone");
    }
    void later(const rvzd_find_server_req_t &, const Caller &, const Answer<rvzd_find_server_reply_t> &answer) {
        answers.push_back(answer);
    }

    Subject *subject() { return subject_; }
    tbs_status_t print_failure(const char *what) {
        told = what;
        return TBS_ST_ERROR;
    }

    std::vector<ServedProcedure> rows() {
        return {serve<procedures::contact, &Owner::contact>(*this), serve<only_over_tcp, &Owner::get_backup>(*this),
                serve<procedures::rgy_get_dtm, &Owner::get_dtm>(*this),
                serve<procedures::find_server, &Owner::later>(*this)};
    }

    bool has_no_memory = false;
    uint64_t offered = 0;
    rvzd_protocol_in_t transport = RVZD_PROTOCOL_NONE;
    std::string told;
    std::vector<Answer<rvzd_find_server_reply_t>> answers;
    Subject own_subject;
    Subject *subject_ = &own_subject;
};

class Dispatching : public testing::Test {
protected:
    // The message of a call with this record as its arguments.
    template <class Request>
    static MessageBytes call_of(uint32_t number, bool_t (*routine)(XDR *, Request *), Request request) {
        MessageBytes message(1024);
        XDR stream;
        xdrmem_create(&stream, reinterpret_cast<char *>(message.data()), static_cast<u_int>(message.size()),
                      XDR_ENCODE);
        for (u_int word : {xid, 0u, 2u, uint32_t{RVZD_PROGRAM}, uint32_t{RVZD_VERSION}, number, 0u, 0u, 0u, 0u})
            EXPECT_TRUE(xdr_u_int(&stream, &word));
        EXPECT_TRUE(routine(&stream, &request));
        message.resize(xdr_getpos(&stream));
        return message;
    }
    template <class Request, class Record>
    static MessageBytes call_of(const velia::Procedure<Request, Record> &procedure) {
        Request request = {};
        request.header.sequence = sequence;
        return call_of(procedure.number, procedure.xdr_request, request);
    }

    void dispatch(const MessageBytes &message, rvzd_protocol_in_t transport = RVZD_PROTOCOL_UDP) {
        Caller caller;
        caller.transport = transport;
        dispatcher.dispatch(read_call_header(message), caller,
                            [this](MessageBytes bytes) { replies.push_back(std::move(bytes)); });
    }

    accept_stat outcome() const {
        uint32_t word = 0;
        memcpy(&word, replies.at(0).data() + results_at - 4, sizeof word);
        return static_cast<accept_stat>(ntohl(word));
    }

    template <class Request, class Record>
    Record results(const velia::Procedure<Request, Record> &procedure) {
        MessageBytes &bytes = replies.at(0);
        XDR stream;
        xdrmem_create(&stream, reinterpret_cast<char *>(bytes.data() + results_at),
                      static_cast<u_int>(bytes.size() - results_at), XDR_DECODE);
        Record record = {};
        EXPECT_TRUE(procedure.xdr_reply(&stream, &record));
        return record;
    }

    Owner owner;
    Dispatcher dispatcher{RVZD_PROGRAM, RVZD_VERSION, server_tests::open_guard, owner.rows()};
    std::vector<MessageBytes> replies;
};

TEST_F(Dispatching, TheWorkHasTheRequestAndItsStatusGoesIntoTheHeaderWithTheSequence) {
    rvzd_contact_req_t request = {{1, sequence}, 6};
    dispatch(call_of(procedures::contact.number, procedures::contact.xdr_request, request), RVZD_PROTOCOL_TCP);
    ASSERT_EQ(replies.size(), 1u);
    const auto reply = results(procedures::contact);
    EXPECT_EQ(owner.offered, 6u);
    EXPECT_EQ(owner.transport, RVZD_PROTOCOL_TCP);
    EXPECT_EQ(reply.header.word, sequence);
    EXPECT_EQ(reply.header.status, TBS_ST_TRY_AGAIN);
    EXPECT_EQ(reply.protocol_version, 9u);
}

TEST_F(Dispatching, ProcedureZeroAnswersNothing) {
    const auto nothing = +[](XDR *, char *) -> bool_t { return TRUE; };
    dispatch(call_of<char>(NULLPROC, nothing, '\0'));
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(outcome(), SUCCESS);
    EXPECT_EQ(replies[0].size(), results_at);
}

TEST_F(Dispatching, AProcedureWithoutARowIsNotThere) {
    dispatch(call_of(procedures::rgy_get_id));
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(outcome(), PROC_UNAVAIL);
}

TEST_F(Dispatching, AProcedureOverTcpAloneIsNotThereOverUdp) {
    dispatch(call_of(only_over_tcp), RVZD_PROTOCOL_UDP);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(outcome(), PROC_UNAVAIL);
    replies.clear();
    dispatch(call_of(only_over_tcp), RVZD_PROTOCOL_TCP);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(outcome(), SUCCESS);
}

TEST_F(Dispatching, WhatAReplyCarriesLivesUntilItIsEncoded) {
    dispatch(call_of(only_over_tcp), RVZD_PROTOCOL_TCP);
    ASSERT_EQ(replies.size(), 1u);
    auto reply = results(only_over_tcp);
    EXPECT_EQ(std::string(reply.host_list), std::string(RGY_WIRE_HOST_LIST_MAX, 'h'));
    xdr_free(only_over_tcp.reply_routine(), &reply);
}

TEST_F(Dispatching, ArgumentsThatAreCutAreGarbage) {
    MessageBytes message = call_of(procedures::contact);
    message.resize(message.size() - 4);
    dispatch(message);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(outcome(), GARBAGE_ARGS);
}

TEST_F(Dispatching, WorkWithoutItsSubjectIsNoServer) {
    owner.subject_ = nullptr;
    dispatch(call_of(procedures::rgy_get_dtm));
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(results(procedures::rgy_get_dtm).header.status, TBS_ST_NO_SERVER);
    EXPECT_EQ(owner.told, "");
}

TEST_F(Dispatching, WorkThatThrowsIsToldAndAnsweredOnce) {
    dispatch(call_of(procedures::rgy_get_dtm));
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(results(procedures::rgy_get_dtm).header.status, TBS_ST_ERROR);
    EXPECT_EQ(owner.told, "the disk is gone");
}

TEST_F(Dispatching, AnEndOfMemoryEndsTheRequestAlone) {
    owner.has_no_memory = true;
    dispatch(call_of(procedures::contact));
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(outcome(), SYSTEM_ERR);
    owner.has_no_memory = false;
    replies.clear();
    dispatch(call_of(procedures::contact));
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(outcome(), SUCCESS);
}

TEST_F(Dispatching, AnAnswerMayComeLater) {
    dispatch(call_of(procedures::find_server));
    EXPECT_TRUE(replies.empty());
    ASSERT_EQ(owner.answers.size(), 1u);
    owner.answers[0](TBS_ST_NOT_FOUND, {});
    ASSERT_EQ(replies.size(), 1u);
    const auto reply = results(procedures::find_server);
    EXPECT_EQ(reply.header.word, sequence);
    EXPECT_EQ(reply.header.status, TBS_ST_NOT_FOUND);
}

TEST_F(Dispatching, ATableTakesThePlaceOfTheFormerOne) {
    dispatcher.set_procedures({serve<procedures::find_server, &Owner::later>(owner)});
    dispatch(call_of(procedures::rgy_get_dtm));
    EXPECT_EQ(outcome(), PROC_UNAVAIL);
    EXPECT_TRUE(dispatcher.must_run_once(read_call_header(call_of(procedures::find_server))));
}

TEST_F(Dispatching, OnlyWhatRunsOnceIsRememberedAsSuch) {
    EXPECT_TRUE(dispatcher.must_run_once(read_call_header(call_of(procedures::find_server))));
    EXPECT_FALSE(dispatcher.must_run_once(read_call_header(call_of(procedures::contact))));
    EXPECT_FALSE(dispatcher.must_run_once(read_call_header(call_of(procedures::rgy_add_entry)))); // no row
}

} // namespace
