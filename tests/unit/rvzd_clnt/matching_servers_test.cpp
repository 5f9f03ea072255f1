// The whole table as a list of the servers wanted.
#include <tests/unit/rvzd_clnt/table_fixture.h>

#include <support/stg.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class MatchingServers : public TableTest {
protected:
    MatchingServers() { open(); }

    // A walk that fails leaves an empty list and no node behind.
    tbs_status_t fail_to_list() {
        const auto before = sim::Holdings::now(world);
        head = {};
        const auto status = list({});
        EXPECT_THAT(nodes(), IsEmpty());
        EXPECT_EQ(head.next, &head);
        EXPECT_EQ(sim::Holdings::now(world), before);
        expect_lock_is_free();
        return status;
    }
};

TEST_F(MatchingServers, WithoutFiltersEveryRecordIsListedInTheBrokersOrder) {
    serve({{1, "/c"}, {4, "/a"}, {9, "/b"}});
    EXPECT_THAT(matching({}), ElementsAre(1, 4, 9));
    expect_lock_is_free();
}

TEST_F(MatchingServers, ANodeIsACopyOfItsRecordAndKnowsItself) {
    const Server server = {
        5, "/srv/db", {390601, 2, RVZD_PROTOCOL_TCP}, {2, {{AF_INET6, 6000}, {AF_INET, 4000}}}, {{9, 8}}, 4, 123};
    serve({server});
    ASSERT_EQ(list({}), TBS_ST_OK);
    ASSERT_EQ(nodes().size(), 1u);
    auto *node = nodes()[0];
    EXPECT_EQ(node->element.owner, node);
    EXPECT_EQ(node->entry.trait.prog, 390601u);
    EXPECT_EQ(node->entry.trait.vers, 2u);
    EXPECT_EQ(node->entry.trait.proto, RVZD_PROTOCOL_TCP);
    EXPECT_EQ(memcmp(&node->entry.ports, &server.ports, sizeof server.ports), 0);
    EXPECT_TRUE(tbs_uuid_eq(&node->entry.uuid, &server.uuid));
    EXPECT_EQ(node->entry.state, 4);
    EXPECT_EQ(node->entry.pid, 123);
    EXPECT_EQ(node->entry.name_length, 7);
    EXPECT_STREQ(rvzd_server_entry_name(&node->entry), "/srv/db");
    rvzd_destroy_server_entry_list(&head);
}

TEST_F(MatchingServers, OneStepAsksForAsMuchAsANodeHolds) {
    serve({{1}});
    matching({});
    EXPECT_EQ(world.peer.last().decode(xdr_rvzd_list_servers_req_t).size, 1104u);
}

TEST_F(MatchingServers, AnEmptyTableGivesAnEmptyListWhateverTheHeadHeld) {
    serve({});
    for (llist_d_head_t *held :
         {static_cast<llist_d_head_t *>(nullptr), &head, reinterpret_cast<llist_d_head_t *>(8)}) {
        head = {held, held};
        EXPECT_EQ(list({}), TBS_ST_OK);
        EXPECT_EQ(head.next, &head);
        EXPECT_EQ(head.previous, &head);
    }
}

TEST_F(MatchingServers, WithoutAHeadNobodyIsAsked) {
    serve({{1}});
    const size_t calls = world.peer.calls.size();
    EXPECT_EQ(rvzd_list_matching_servers(handle, -1, -1, -1, -1, nullptr, -1, nullptr, nullptr), TBS_ST_ERROR);
    EXPECT_EQ(world.peer.calls.size(), calls);
    expect_lock_is_free();
}

TEST_F(MatchingServers, AWalkGoesOnBehindTheLastRecordOfEachPiece) {
    serve({{2}, {3}, {5}, {8}, {13}}, 2);
    EXPECT_THAT(matching({}), ElementsAre(2, 3, 5, 8, 13));
    std::vector<uint64_t> sent;
    for (const auto &call : world.peer.calls)
        if (call.procedure == RVZD_PROC_LIST_SERVERS)
            sent.push_back(call.decode(xdr_rvzd_list_servers_req_t).cookie);
    EXPECT_THAT(sent, ElementsAre(0, 3, 8));
}

TEST_F(MatchingServers, ATableOfManyServersIsReadInPiecesThatFitTheStep) {
    std::vector<Server> servers;
    for (uint64_t cookie = 1; cookie <= 500; ++cookie)
        servers.push_back({cookie, std::string(cookie % 200, 'n')});
    serve(servers); // more than fits: the rest of each reply comes again
    const auto found = matching({});
    ASSERT_EQ(found.size(), 500u);
    EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));
    EXPECT_GT(world.peer.count(RVZD_PROC_LIST_SERVERS), 50u);
}

TEST_F(MatchingServers, TheOlderProtocolIsWalkedAlike) {
    world.peer.speak(5);
    open("beta");
    serve({{2}, {3}, {5}}, 1);
    EXPECT_THAT(matching({.port = 4000}), ElementsAre(2, 3, 5));
    EXPECT_EQ(world.peer.count(RVZD_PROC_LIST_SERVERS_V70), 3u);
}

TEST_F(MatchingServers, EachFilterAloneChoosesByItsField) {
    tbs_uuid_t uuid = {{1, 2, 3}};
    Server other = {2};
    other.trait = {390601, 2, RVZD_PROTOCOL_TCP};
    other.ports.ports[0].port = 4001;
    other.uuid = uuid;
    other.pid = 78;
    other.name = "/srv/b";
    serve({{1}, other});
    EXPECT_THAT(matching({.prog = 390600}), ElementsAre(1));
    EXPECT_THAT(matching({.prog = 390601}), ElementsAre(2));
    EXPECT_THAT(matching({.vers = 1}), ElementsAre(1));
    EXPECT_THAT(matching({.vers = 2}), ElementsAre(2));
    EXPECT_THAT(matching({.proto = RVZD_PROTOCOL_UDP}), ElementsAre(1));
    EXPECT_THAT(matching({.proto = RVZD_PROTOCOL_TCP}), ElementsAre(2));
    EXPECT_THAT(matching({.port = 4000}), ElementsAre(1));
    EXPECT_THAT(matching({.port = 4001}), ElementsAre(2));
    EXPECT_THAT(matching({.uuid = &uuid}), ElementsAre(2));
    EXPECT_THAT(matching({.pid = 77}), ElementsAre(1));
    EXPECT_THAT(matching({.pid = 78}), ElementsAre(2));
    EXPECT_THAT(matching({.name = "/srv/a"}), ElementsAre(1));
    EXPECT_THAT(matching({.name = "/srv/b"}), ElementsAre(2));
}

TEST_F(MatchingServers, EveryFilterMustLetARecordPass) {
    const tbs_uuid_t uuid = {};
    serve({{1}});
    const Wanted exact = {390600, 1, RVZD_PROTOCOL_UDP, 4000, &uuid, 77, "/srv/a"};
    EXPECT_THAT(matching(exact), ElementsAre(1));
    const tbs_uuid_t other_uuid = {{1}};
    for (int field = 0; field < 7; ++field) {
        Wanted wanted = exact;
        if (field == 0)
            wanted.prog = 0;
        if (field == 1)
            wanted.vers = 0;
        if (field == 2)
            wanted.proto = 0;
        if (field == 3)
            wanted.port = 0;
        if (field == 4)
            wanted.uuid = &other_uuid;
        if (field == 5)
            wanted.pid = 0;
        if (field == 6)
            wanted.name = "";
        EXPECT_THAT(matching(wanted), IsEmpty()) << field;
    }
}

TEST_F(MatchingServers, ProgramAndVersionAreComparedWithTheSignOfTheFilter) {
    Server server = {1};
    server.trait = {0xfffffffe, 0x80000000, RVZD_PROTOCOL_UDP};
    serve({server});
    EXPECT_THAT(matching({.prog = -2}), IsEmpty());
    EXPECT_THAT(matching({.vers = INT32_MIN}), IsEmpty());
    EXPECT_THAT(matching({.prog = -1, .vers = -1}), ElementsAre(1));
}

TEST_F(MatchingServers, NegativeProcessIdsAreComparedAsTheyStand) {
    Server server = {1};
    server.pid = -2;
    serve({server});
    EXPECT_THAT(matching({.pid = -2}), ElementsAre(1));
}

TEST_F(MatchingServers, AServerWithoutPortsPassesNoPortFilter) {
    Server server = {1};
    server.ports = {};
    serve({server});
    EXPECT_THAT(matching({.port = 0}), IsEmpty());
    EXPECT_THAT(matching({.port = 4000}), IsEmpty());
    EXPECT_THAT(matching({}), ElementsAre(1));
}

TEST_F(MatchingServers, PortZeroMatchesOnlyAPortThatIsZero) {
    Server zero = {2};
    zero.ports = {1, {{AF_INET, 0}, {0, 0}}};
    Server second_zero = {3};
    second_zero.ports = {2, {{AF_INET, 4000}, {AF_INET6, 0}}};
    serve({{1}, zero, second_zero}); // of the first the second slot is 0, and not there
    EXPECT_THAT(matching({.port = 0}), ElementsAre(2, 3));
}

TEST_F(MatchingServers, BothPortsOfAListOfTwoCount) {
    Server two = {1};
    two.ports = {2, {{AF_INET, 4000}, {AF_INET6, 6000}}};
    serve({two});
    EXPECT_THAT(matching({.port = 4000}), ElementsAre(1));
    EXPECT_THAT(matching({.port = 6000}), ElementsAre(1));
    EXPECT_THAT(matching({.port = 5000}), IsEmpty());
}

TEST_F(MatchingServers, ACountThatIsNotTwoHasOnePortToLookAt) {
    Server many = {1};
    many.ports = {7, {{AF_INET, 4000}, {AF_INET6, 6000}}};
    serve({many});
    EXPECT_THAT(matching({.port = 4000}), ElementsAre(1));
    EXPECT_THAT(matching({.port = 6000}), IsEmpty());
}

TEST_F(MatchingServers, AnEmptyNameIsAFilterLikeAnyOther) {
    serve({{1, ""}, {2, "/x"}});
    EXPECT_THAT(matching({.name = ""}), ElementsAre(1));
}

TEST_F(MatchingServers, NamesUpToTheStepAreReadAndLongerOnesEndTheWalk) {
    for (const size_t length : {0u, 1u, 2u, 9u, 10u, 1017u, 1018u, 1024u, 1025u}) {
        const std::string name(length, 'n');
        serve({{1, "/a"}, {2, name}, {3, "/b"}});
        ASSERT_EQ(list({}), TBS_ST_OK) << length;
        EXPECT_THAT(cookies(), ElementsAre(1, 2, 3)) << length;
        EXPECT_STREQ(rvzd_server_entry_name(&nodes()[1]->entry), name.c_str()) << length;
        rvzd_destroy_server_entry_list(&head);
    }
    for (const size_t length : {1026u, 1027u, 1034u, 2000u, 8000u, 65535u}) {
        serve({{1, "/a"}, {2, std::string(length, 'n')}, {3, "/b"}});
        EXPECT_EQ(fail_to_list(), TBS_ST_ERROR) << length;
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(MatchingServers, ANameWithAZeroByteIsComparedUpToIt) {
    serve({{1, std::string("/srv/a\0/b", 9)}});
    EXPECT_THAT(matching({.name = "/srv/a"}), ElementsAre(1));
}

TEST_F(MatchingServers, AListWithoutProgressEndsTheWalk) {
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({{4}, {5}}, false)); // the same whatever is asked
    EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
    EXPECT_EQ(world.peer.count(RVZD_PROC_LIST_SERVERS), 2u);
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({}, false));
    EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
}

TEST_F(MatchingServers, ABrokerThatGoesRoundEndsTheWalk) {
    for (const uint64_t circle : {2u, 3u, 7u, 100u}) {
        world.peer.calls.clear();
        world.peer.on(RVZD_PROC_LIST_SERVERS, [circle](const sim::Call &call) {
            const auto sent = call.decode(xdr_rvzd_list_servers_req_t).cookie;
            return list_reply({{sent < 10 ? sent + 1 : 10 + (sent - 9) % circle}}, false);
        });
        EXPECT_EQ(fail_to_list(), TBS_ST_ERROR) << circle;
        EXPECT_LE(world.peer.count(RVZD_PROC_LIST_SERVERS), 3 * (circle + 11)) << circle;
    }
    world.peer.on(RVZD_PROC_LIST_SERVERS, [](const sim::Call &call) { // back to the beginning
        return list_reply({{call.decode(xdr_rvzd_list_servers_req_t).cookie == 0 ? 1u : 0u}}, false);
    });
    EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
}

TEST_F(MatchingServers, TheCookieAfterOneThreeAndSevenStepsIsWhatTellsACircle) {
    for (const auto &[circle, steps] : {std::pair(1u, 2u), {2u, 3u}, {3u, 6u}, {4u, 7u}, {5u, 12u}}) {
        world.peer.calls.clear();
        world.peer.on(RVZD_PROC_LIST_SERVERS, [circle](const sim::Call &call) {
            const auto sent = call.decode(xdr_rvzd_list_servers_req_t).cookie;
            return list_reply({{sent == 0 ? 1 : 1 + sent % circle}}, false);
        });
        EXPECT_EQ(fail_to_list(), TBS_ST_ERROR) << circle;
        EXPECT_EQ(world.peer.count(RVZD_PROC_LIST_SERVERS), steps) << circle;
    }
}

TEST_F(MatchingServers, ATableWithoutAnEndIsGivenUpAtTheMostThatAHostCanHave) {
    constexpr uint64_t servers_max = 131'072;
    constexpr uint64_t in_a_piece = 8; // so that the walk stands exactly at the most, too
    world.peer.on(RVZD_PROC_LIST_SERVERS, [](const sim::Call &call) {
        const auto sent = call.decode(xdr_rvzd_list_servers_req_t).cookie;
        std::vector<Server> servers(in_a_piece);
        for (uint64_t i = 0; i < in_a_piece; ++i)
            servers[i].cookie = sent + i + 1;
        return list_reply(servers, false);
    });
    EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
    EXPECT_EQ(world.peer.count(RVZD_PROC_LIST_SERVERS), servers_max / in_a_piece + 1);
}

TEST_F(MatchingServers, CookiesMayFall) {
    world.peer.on(RVZD_PROC_LIST_SERVERS, [](const sim::Call &call) {
        const auto sent = call.decode(xdr_rvzd_list_servers_req_t).cookie;
        const uint64_t next = sent == 0 ? 40 : sent - 1;
        return list_reply({{next}}, next == 1);
    });
    EXPECT_EQ(matching({}).size(), 40u);
}

TEST_F(MatchingServers, AFailedCallEndsTheWalkAndIsTold) {
    serve({{1}, {2}, {3}}, 1);
    world.peer.answer_once(RVZD_PROC_LIST_SERVERS, sim::silence());
    EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages().at(0).text, StartsWith("rvzd_list_servers call failed"));
    world.peer.answer_once(RVZD_PROC_LIST_SERVERS, list_reply({{1}}, false));
    world.peer.answer_once(RVZD_PROC_LIST_SERVERS, sim::failure(RPC_CANTRECV, ECONNRESET));
    EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
    EXPECT_EQ(world.take_messages().size(), 1u);
}

TEST_F(MatchingServers, AFailureInAnyStepEndsTheWalkAtOnce) {
    const sim::Answer failures[] = {sim::silence(), sim::failure(RPC_CANTRECV),
                                    list_reply({}, true, false, TBS_ST_NO_ACCESS)};
    for (const auto &failure : failures)
        for (size_t good = 0; good < 20; ++good) {
            size_t calls = 0;
            world.peer.on(RVZD_PROC_LIST_SERVERS, [&](const sim::Call &) {
                return calls++ < good ? list_reply({{100 + calls}}, false) : failure;
            });
            EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
            EXPECT_EQ(calls, good + 1);
        }
}

TEST_F(MatchingServers, AFailingAnswerEndsTheWalk) {
    world.peer.answer_once(RVZD_PROC_LIST_SERVERS, list_reply({{1}}, false));
    world.peer.answer(RVZD_PROC_LIST_SERVERS, list_reply({}, true, false, TBS_ST_NO_ACCESS));
    EXPECT_EQ(fail_to_list(), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(MatchingServers, WithoutStorageNothingIsLeft) {
    serve({{1}, {2}, {3}}, 2);
    tbs_status_t status = TBS_ST_OK;
    const auto before = sim::Holdings::now(world);
    const int failures = sim::sweep_allocations(
        world, [&] { status = list({}); },
        [&](int number) {
            EXPECT_EQ(status, TBS_ST_NO_MEMORY) << number;
            EXPECT_THAT(nodes(), IsEmpty());
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_EQ(failures, 3);
    EXPECT_EQ(status, TBS_ST_OK);
    rvzd_destroy_server_entry_list(&head);
}

TEST_F(MatchingServers, ARaiseAnywhereLeavesNoNodes) {
    serve({{1}, {2}, {3}}, 2);
    const auto before = sim::Holdings::now(world);
    const int raises = sim::sweep_raises(
        world, [&] { EXPECT_EQ(list({}), TBS_ST_OK); },
        [&](int number) {
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_THAT(nodes(), IsEmpty());
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        });
    EXPECT_GE(raises, 5);
    EXPECT_THAT(cookies(), ElementsAre(1, 2, 3));
    rvzd_destroy_server_entry_list(&head);
}

TEST_F(MatchingServers, DestroyingAListFreesItsNodesAndLeavesItEmpty) {
    const auto before = sim::Holdings::now(world);
    serve({{1}, {2}, {3}});
    ASSERT_EQ(list({}), TBS_ST_OK);
    EXPECT_EQ(world.live_blocks(), before.blocks + 3);
    rvzd_destroy_server_entry_list(&head);
    EXPECT_EQ(sim::Holdings::now(world), before);
    EXPECT_EQ(head.next, &head);
    rvzd_destroy_server_entry_list(&head); // and again
}

TEST_F(MatchingServers, DestroyingWhatIsNoListDoesNothing) {
    head = {};
    rvzd_destroy_server_entry_list(&head);
    EXPECT_EQ(head.next, nullptr);
    head = {&head, &head};
    rvzd_destroy_server_entry_list(&head);
    EXPECT_EQ(head.next, &head);
    rvzd_destroy_server_entry_list(nullptr);
}

} // namespace
