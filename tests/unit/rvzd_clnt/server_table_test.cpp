// A piece of the broker's table in the caller's buffer.
#include <tests/unit/rvzd_clnt/table_fixture.h>

#include <rvzd/client/rvzd_clnt/server_records.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr uint64_t untouched = 999;

class ServerTablePiece : public TableTest {
protected:
    ServerTablePiece() { open(); }

    tbs_status_t read(uint64_t cookie, uint64_t size = 0) {
        next_cookie = used = untouched;
        at_end = 77;
        const uint64_t capacity = buffer.size() * sizeof(uint64_t);
        const auto status = rvzd_list_servers(handle, cookie, size != 0 ? size : capacity,
                                              reinterpret_cast<char *>(buffer.data()), &next_cookie, &used, &at_end);
        expect_lock_is_free();
        return status;
    }
    bool nothing_was_stored() const { return next_cookie == untouched && used == untouched && at_end == 77; }
    rvzd_server_entry_t *record(uint64_t at) {
        return velia::rvzd_clnt::whole_record_at(reinterpret_cast<char *>(buffer.data()), used, at);
    }

    std::vector<uint64_t> buffer = std::vector<uint64_t>(2000);
    uint64_t next_cookie;
    uint64_t used;
    tbs_boolean_t at_end;
};

TEST_F(ServerTablePiece, SendsTheCookieAndTheSmallerOfBufferAndLargestReply) {
    serve({{5}});
    handle->tv_sec = 9;
    for (const uint64_t size : {80, 8743, 8744, 8745, 16000}) {
        read(0x12345678, size);
        const auto &call = world.peer.last();
        EXPECT_EQ(call.procedure, 73u);
        EXPECT_EQ(call.time_out_us, 9'000'000);
        const auto request = call.decode(xdr_rvzd_list_servers_req_t);
        EXPECT_EQ(request.cookie, 0x12345678u);
        EXPECT_EQ(request.size, std::min<uint64_t>(size, 8744));
    }
}

TEST_F(ServerTablePiece, BringsWholeRecordsIntoTheCallersBuffer) {
    serve(
        {{5, "a", {390601, 2, RVZD_PROTOCOL_TCP}, {2, {{AF_INET6, 6000}, {AF_INET, 4000}}}, {{9}}, 4, 123}, {7, "bc"}});
    ASSERT_EQ(read(0), TBS_ST_OK);
    EXPECT_EQ(next_cookie, 7u);
    EXPECT_EQ(used, 80u + 88u);
    EXPECT_EQ(at_end, 1);
    const rvzd_server_entry_t *first = record(0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->cookie, 5u);
    EXPECT_EQ(first->trait.prog, 390601u);
    EXPECT_EQ(first->ports.ports[0].family, AF_INET6);
    EXPECT_EQ(first->uuid.bytes[0], 9);
    EXPECT_EQ(first->state, 4);
    EXPECT_EQ(first->pid, 123);
    EXPECT_STREQ(rvzd_server_entry_name(record(80)), "bc");
    EXPECT_EQ(record(168), nullptr);
}

TEST_F(ServerTablePiece, TheBufferStaysTheCallers) {
    serve({{5}});
    const auto before = sim::Holdings::now(world);
    const size_t freed = world.replies_freed;
    ASSERT_EQ(read(0), TBS_ST_OK);
    EXPECT_EQ(world.replies_freed, freed + 1);
    EXPECT_EQ(sim::Holdings::now(world), before);
    buffer.at(0) = 1; // a sanitizer knows if it was freed
}

TEST_F(ServerTablePiece, TheOlderProcedureIsForVersionFiveAlone) {
    serve({{5, "a", {}, {2, {{AF_INET6, 6000}, {AF_INET, 4000}}}}});
    for (const uint32_t version : {0u, 5u, 6u}) {
        handle->cached->protocol_version = version;
        ASSERT_EQ(read(0), TBS_ST_OK);
        EXPECT_EQ(world.peer.last().procedure, version == 5 ? 22u : 73u) << version;
    }
    handle->cached->protocol_version = 5;
    ASSERT_EQ(read(0), TBS_ST_OK);
    EXPECT_EQ(record(0)->ports.count, 1u);
    EXPECT_EQ(record(0)->ports.ports[0].family, AF_INET);
    EXPECT_EQ(record(0)->ports.ports[0].port, 4000u);
}

TEST_F(ServerTablePiece, AnEmptyTableIsNothingUsedAndTheEnd) {
    serve({});
    ASSERT_EQ(read(0), TBS_ST_OK);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(at_end, 1);
    EXPECT_EQ(next_cookie, 0u);
}

TEST_F(ServerTablePiece, ACookieThatRepeatsBeforeTheEndIsAnError) {
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({{4}}, false));
    EXPECT_EQ(read(4), TBS_ST_ERROR);
    EXPECT_EQ(next_cookie, 4u); // stored nevertheless
    EXPECT_EQ(used, rvzd_server_entry_size(6));
    EXPECT_EQ(at_end, 0);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    EXPECT_EQ(read(3), TBS_ST_OK);
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({{4}}, true));
    EXPECT_EQ(read(4), TBS_ST_OK);
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({}, false));
    EXPECT_EQ(read(4), TBS_ST_ERROR);
}

TEST_F(ServerTablePiece, ARecordThatDoesNotFitComesFirstInTheNextPiece) {
    world.peer.on(RVZD_PROC_LIST_SERVERS, [](const sim::Call &call) {
        const auto request = call.decode(xdr_rvzd_list_servers_req_t);
        return request.cookie == 0 ? list_reply({{1, "a"}, {2, "b"}, {3, "c"}}, true) : list_reply({{3, "c"}}, true);
    });
    ASSERT_EQ(read(0, 2 * 80 + 79), TBS_ST_OK);
    EXPECT_EQ(used, 160u);
    EXPECT_EQ(next_cookie, 2u);
    EXPECT_EQ(at_end, 0);
    ASSERT_EQ(read(next_cookie, 80), TBS_ST_OK);
    EXPECT_EQ(record(0)->cookie, 3u);
    EXPECT_EQ(at_end, 1);
}

TEST_F(ServerTablePiece, AFirstRecordThatDoesNotFitIsAnError) {
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({{1, "a"}}, true));
    for (const uint64_t size : {1, 8, 79}) {
        EXPECT_EQ(read(0, size), TBS_ST_ERROR) << size;
        EXPECT_EQ(used, 0u);
        EXPECT_EQ(at_end, 0);
    }
    EXPECT_EQ(read(0, 80), TBS_ST_OK);
}

TEST_F(ServerTablePiece, ABufferOfNoBytesTakesNothing) {
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({{1, "a"}}, true));
    EXPECT_EQ(rvzd_list_servers(handle, 0, 0, reinterpret_cast<char *>(buffer.data()), &next_cookie, &used, &at_end),
              TBS_ST_ERROR);
    EXPECT_EQ(used, 0u);
}

TEST_F(ServerTablePiece, WithoutABufferNobodyIsAsked) {
    serve({{5}});
    const size_t calls = world.peer.calls.size();
    EXPECT_EQ(rvzd_list_servers(handle, 0, 100, nullptr, &next_cookie, &used, &at_end), TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.peer.calls.size(), calls);
    expect_lock_is_free();
}

TEST_F(ServerTablePiece, ABufferBeyondTheLargestReplyIsFilledAsFarAsRecordsCome) {
    // Records without names or ports are larger in the buffer than on the wire.
    std::vector<Server> many;
    for (uint64_t cookie = 1; cookie <= 150; ++cookie)
        many.push_back({.cookie = cookie, .name = "", .ports = {}});
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply(many, true));
    ASSERT_EQ(read(0, 16000), TBS_ST_OK);
    EXPECT_EQ(used, 150u * 80u);
    EXPECT_EQ(next_cookie, 150u);
    EXPECT_EQ(at_end, 1);
}

TEST_F(ServerTablePiece, NothingIsWrittenBehindTheBuffer) {
    serve({{1, "a"}, {2, "b"}, {3, "c"}});
    for (uint64_t size = 80; size < 400; ++size) {
        std::fill(buffer.begin(), buffer.end(), untouched);
        ASSERT_EQ(read(0, size), TBS_ST_OK);
        ASSERT_LE(used, size);
        ASSERT_EQ(buffer[(size + 7) / 8], untouched) << size;
    }
}

TEST_F(ServerTablePiece, AFailedCallIsToldUnderTheNameOfItsFormAndIsNoError) {
    world.peer.answer(RVZD_PROC_LIST_SERVERS, sim::silence());
    world.peer.answer(RVZD_PROC_LIST_SERVERS_V70, sim::failure(RPC_PROCUNAVAIL));
    EXPECT_EQ(read(4), TBS_ST_OK);
    EXPECT_TRUE(nothing_was_stored());
    EXPECT_THAT(world.take_messages().at(0).text, StartsWith("rvzd_list_servers call failed"));
    handle->cached->protocol_version = 5;
    EXPECT_EQ(read(4), TBS_ST_OK);
    EXPECT_TRUE(nothing_was_stored());
    EXPECT_THAT(world.take_messages().at(0).text, StartsWith("rvzd_list_servers_v70 call failed"));
}

TEST_F(ServerTablePiece, AFailingAnswerIsNoErrorAndSilent) {
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({{5}}, true, false, TBS_ST_NO_ACCESS));
    EXPECT_EQ(read(0), TBS_ST_OK);
    EXPECT_TRUE(nothing_was_stored());
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerTablePiece, ACookieThatTheWireCannotCarryIsAFailedCall) {
    serve({{5}});
    EXPECT_EQ(read(uint64_t{1} << 32), TBS_ST_OK);
    EXPECT_TRUE(nothing_was_stored());
    EXPECT_THAT(world.take_messages().at(0).text, StartsWith("rvzd_list_servers call failed"));
}

TEST_F(ServerTablePiece, AReplyCutOffAtAnyByteIsAFailedCall) {
    const auto whole = list_reply({{1, "a"}, {2, "/srv/some/path"}}, true).reply;
    for (size_t length = 0; length < whole.size(); ++length) {
        world.peer.answer(RVZD_PROC_LIST_SERVERS,
                          {RPC_SUCCESS, 0, sim::Bytes(whole.begin(), whole.begin() + static_cast<long>(length))});
        EXPECT_EQ(read(0), TBS_ST_OK) << length;
        EXPECT_TRUE(nothing_was_stored()) << length;
    }
}

TEST_F(ServerTablePiece, ALengthBeyondEveryBufferEndsThePiece) {
    auto reply = list_reply({{1, "a"}}, true).reply;
    for (const uint32_t length : {0x7fffffffu, 0xffffffa0u, 0xfffffffeu}) {
        for (int byte = 0; byte < 4; ++byte) // the word behind the reply's header
            reply[8 + static_cast<size_t>(byte)] = static_cast<uint8_t>(length >> (24 - 8 * byte));
        world.peer.answer(RVZD_PROC_LIST_SERVERS, {RPC_SUCCESS, 0, reply});
        EXPECT_EQ(read(0), TBS_ST_ERROR) << length;
        EXPECT_EQ(used, 0u);
    }
}

TEST_F(ServerTablePiece, ARaiseAnywhereFreesTheReplyAndKeepsTheBuffer) {
    serve({{1}, {2}});
    const auto before = sim::Holdings::now(world);
    const int raises = sim::sweep_raises(
        world, [&] { read(0); },
        [&](int number) {
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        });
    EXPECT_GE(raises, 1);
    EXPECT_EQ(next_cookie, 2u);
}

TEST(ServerRecords, OneIsSeenOnlyWhereItStandsWhole) {
    auto records = packed({{1, "a"}, {2, std::string(1000, 'n')}});
    auto *buffer = reinterpret_cast<char *>(records.data());
    const uint64_t used = records.size() * sizeof(uint64_t);
    using velia::rvzd_clnt::whole_record_at;
    EXPECT_EQ(whole_record_at(buffer, used, 0)->cookie, 1u);
    EXPECT_EQ(whole_record_at(buffer, used, 80)->cookie, 2u);
    for (uint64_t cut = 80; cut < used; ++cut)
        EXPECT_EQ(whole_record_at(buffer, cut, 80), nullptr) << cut;
    EXPECT_EQ(whole_record_at(buffer, 79, 0), nullptr);
    EXPECT_EQ(whole_record_at(buffer, used, used), nullptr);
    EXPECT_EQ(whole_record_at(buffer, used, used + 8), nullptr);
    EXPECT_EQ(whole_record_at(buffer, used, UINT64_MAX - 7), nullptr);
}

} // namespace
