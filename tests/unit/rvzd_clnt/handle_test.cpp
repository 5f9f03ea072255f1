// Obtaining handles: sharing, protocol versions, and the words and numbers of every way to fail.
#include <tests/unit/rvzd_clnt/handle_fixture.h>

#include <bit>

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <rvzd/client/rvzd_clnt/get_handle.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Handle : public HandleTest {};

TEST_F(Handle, LearnsThePeersProtocolVersionByContact) {
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(rvzd_get_server_protocol_version(handle), 6u);
    ASSERT_EQ(world.peer.calls.size(), 1u);
    const auto &call = world.peer.last();
    EXPECT_EQ(call.program, uint32_t{RVZD_PROGRAM});
    EXPECT_EQ(call.version, uint32_t{RVZD_VERSION});
    EXPECT_EQ(call.procedure, 1u);
    EXPECT_EQ(call.decode(xdr_rvzd_contact_req_t).protocol_version, 6u);
    EXPECT_EQ(call.time_out_us, 25'000'000);
    rvzd_free_handle(handle);
}

TEST_F(Handle, AcceptsAPeerOfTheOlderVersion) {
    world.peer.speak(5);
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(rvzd_get_server_protocol_version(handle), 5u);
    rvzd_free_handle(handle);
}

TEST_F(Handle, AcceptsUnsupportedWithAKnownVersion) {
    world.peer.speak(5, TBS_ST_UNSUPPORTED);
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(rvzd_get_server_protocol_version(handle), 5u);
    rvzd_free_handle(handle);
}

TEST_F(Handle, AnUnknownVersionIsUnsupportedAndSilent) {
    for (uint64_t version : {0u, 4u, 7u, UINT32_MAX}) {
        world.peer.speak(version);
        EXPECT_EQ(fail_to_get(), TBS_ST_UNSUPPORTED) << version;
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Handle, AnotherContactStatusIsTheResultAndSilent) {
    world.peer.speak(6, 1234);
    EXPECT_EQ(fail_to_get(), 1234);
    EXPECT_EQ(world.peer.calls.size(), 1u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Handle, ASecondOneWithinFourSecondsSharesTheRecordWithoutTraffic) {
    rvzd_handle_t *first = handle_to("alpha");
    world.advance_s(4);
    const size_t lookups = world.lookups.size();
    rvzd_handle_t *second = handle_to("alpha");
    EXPECT_NE(first, second);
    EXPECT_EQ(first->cached, second->cached);
    EXPECT_EQ(first->cached->reference_count, 2);
    EXPECT_EQ(world.peer.calls.size(), 1u);
    EXPECT_EQ(world.lookups.size(), lookups);
    rvzd_free_handle(first);
    rvzd_free_handle(second);
}

TEST_F(Handle, TheFourSecondsBeginWhenThePeerIsAskedAndNotWithItsAnswer) {
    world.peer.on(RVZD_PROC_CONTACT, [](const sim::Call &) {
        sim::Answer late = sim::reply(xdr_rvzd_contact_reply_t, rvzd_contact_reply_t{{}, RVZD_PROTOCOL_CURRENT});
        late.delay_us = 3'000'000;
        return late;
    });
    const time_t asked = world.now_us / 1'000'000;
    rvzd_handle_t *first = handle_to("alpha");
    EXPECT_EQ(first->cached->last_contact, asked);
    world.advance_s(1);
    rvzd_free_handle(handle_to("alpha"));
    EXPECT_EQ(world.peer.count(RVZD_PROC_CONTACT), 1u);
    world.advance_s(1);
    rvzd_free_handle(handle_to("alpha"));
    EXPECT_EQ(world.peer.count(RVZD_PROC_CONTACT), 2u);
    rvzd_free_handle(first);
}

TEST_F(Handle, MoreThanFourSecondsLaterThePeerIsContactedAgainOnTheSameConnection) {
    rvzd_handle_t *first = handle_to("alpha");
    world.advance_s(5);
    rvzd_handle_t *second = handle_to("alpha");
    EXPECT_EQ(world.peer.count(RVZD_PROC_CONTACT), 2u);
    EXPECT_EQ(world.live_clients(), 1u);
    const auto header = world.peer.last().decode(xdr_rvzd_contact_req_t).header;
    EXPECT_EQ(header.sequence, 1u);
    EXPECT_EQ(header.uniquifier, 1000u);
    rvzd_free_handle(first);
    rvzd_free_handle(second);
}

TEST_F(Handle, KeepsTheDefaultTimeOutAndItsSize) {
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(handle->tv_sec, 25);
    EXPECT_EQ(handle->tv_usec, 0);
    rvzd_free_handle(handle);
}

TEST_F(Handle, TheDefaultProtocolIsUdp) {
    rvzd_handle_t *handle = nullptr;
    ASSERT_EQ(rvzd_get_handle("alpha", &handle), TBS_ST_OK);
    EXPECT_FALSE(world.peer.last().tcp);
    EXPECT_EQ(handle->cached->protocol, 1u);
    EXPECT_EQ(handle->cached->prim, 0u);
    rvzd_free_handle(handle);
}

TEST_F(Handle, ProtocolAndPrimAreChosenByTheCaller) {
    rvzd_handle_t *tcp = nullptr;
    rvzd_handle_t *prim = nullptr;
    ASSERT_EQ(rvzd_get_handle_proto("alpha", RVZD_PROTOCOL_TCP, &tcp), TBS_ST_OK);
    EXPECT_TRUE(world.peer.last().tcp);
    ASSERT_EQ(rvzd_get_handle_prim("alpha", 1, &prim), TBS_ST_OK);
    EXPECT_FALSE(world.peer.last().tcp);
    EXPECT_NE(tcp->cached, prim->cached);
    EXPECT_EQ(prim->cached->prim, 1u);
    rvzd_free_handle(tcp);
    rvzd_free_handle(prim);
}

TEST_F(Handle, ANullOrEmptyHostIsThisHost) {
    rvzd_handle_t *by_null = handle_to(nullptr);
    rvzd_handle_t *by_empty = handle_to("");
    rvzd_handle_t *by_name = handle_to("thishost");
    EXPECT_STREQ(by_null->cached->host_name, "thishost");
    EXPECT_EQ(by_null->cached, by_empty->cached);
    EXPECT_EQ(by_null->cached, by_name->cached);
    for (rvzd_handle_t *handle : {by_null, by_empty, by_name})
        rvzd_free_handle(handle);
}

TEST_F(Handle, ThisHostsAddressesAreResolvedOnceAndKept) {
    rvzd_handle_t *udp = handle_to(nullptr, RVZD_PROTOCOL_UDP);
    world.hosts.erase("thishost");
    rvzd_handle_t *tcp = handle_to(nullptr, RVZD_PROTOCOL_TCP);
    EXPECT_EQ(tcp->cached->server_addr.addrs[0].ipv4.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    rvzd_free_handle(udp);
    rvzd_free_handle(tcp);
}

TEST_F(Handle, ThisHostsAddressesServeUnderItsOwnNameToo) {
    rvzd_handle_t *by_null = handle_to(nullptr);
    const size_t lookups = world.lookups.size();
    rvzd_handle_t *by_name = handle_to("thishost", RVZD_PROTOCOL_TCP);
    EXPECT_EQ(world.lookups.size(), lookups);
    rvzd_free_handle(by_null);
    rvzd_free_handle(by_name);
}

TEST_F(Handle, ALocalHostNameIsCutAt63Bytes) {
    const std::string longest(63, 'h');
    world.add_host(longest, {"127.0.0.1"});
    world.host_name = longest + "more";
    rvzd_handle_t *handle = handle_to(nullptr);
    EXPECT_EQ(handle->cached->host_name, longest);
    rvzd_free_handle(handle);
}

TEST_F(Handle, WithoutALocalHostNameThereIsNone) {
    world.faults.gethostname = 0;
    world.faults.error_number = EFAULT;
    EXPECT_EQ(fail_to_get(nullptr), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "gethostname",
                                                                imsg_strerror(EFAULT)))));
    EXPECT_EQ(fail_to_get(nullptr, RVZD_PROTOCOL_UDP, 1), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Handle, ANameThatIsNotKnownIsToldWithTheResolversWords) {
    const std::pair<int, tbs_status_t> cases[] = {{EAI_NONAME, TBS_ST_NOT_FOUND},
                                                  {EAI_AGAIN, TBS_ST_TRY_AGAIN},
                                                  {EAI_FAIL, TBS_ST_ERROR},
                                                  {EAI_MEMORY, TBS_ST_ERROR},
                                                  {EAI_SYSTEM, TBS_ST_ERROR}};
    for (const auto &[code, status] : cases) {
        world.resolver_errors["nowhere"] = code;
        EXPECT_EQ(fail_to_get("nowhere"), status) << code;
        EXPECT_THAT(world.take_messages(),
                    ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 27, "nowhere", gai_strerror(code))));
        EXPECT_EQ(fail_to_get("nowhere", RVZD_PROTOCOL_UDP, 1), status) << code;
        EXPECT_THAT(world.take_messages(), IsEmpty());
    }
}

TEST_F(Handle, TakesOneAddressOfEachFamilyInTheResolversOrder) {
    world.add_host("many", {"::1", "fe80::1", "127.0.0.9", "127.0.0.10"});
    rvzd_handle_t *handle = handle_to("many");
    rvzd_server_addr_t addresses;
    rvzd_get_addr(handle, &addresses);
    ASSERT_EQ(addresses.addr_count, 2u);
    EXPECT_EQ(addresses.addrs[0].base.sa_family, AF_INET6);
    EXPECT_TRUE(IN6_IS_ADDR_LOOPBACK(&addresses.addrs[0].ipv6.sin6_addr));
    EXPECT_EQ(addresses.addrs[1].base.sa_family, AF_INET);
    EXPECT_EQ(addresses.addrs[1].ipv4.sin_addr.s_addr, htonl(0x7f000009));
    EXPECT_EQ(addresses.addrs[0].ipv6.sin6_port, htons(3710));
    EXPECT_EQ(addresses.addrs[1].ipv4.sin_port, htons(3710));
    EXPECT_EQ(world.peer.last().address.base.sa_family, AF_INET6);
    rvzd_free_handle(handle);
}

TEST_F(Handle, AContactThatTimesOutIsToldWithTheBrokersTextOnly) {
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    const int64_t before_us = world.now_us;
    EXPECT_EQ(fail_to_get(), TBS_ST_RPC_FAILED);
    EXPECT_EQ(world.now_us - before_us, 25'000'000);
    EXPECT_THAT(world.take_messages(), ElementsAre(cannot_contact()));
}

TEST_F(Handle, AHostIsResolvedForEveryTypeOfSocket) {
    rvzd_free_handle(handle_to("alpha"));
    ASSERT_EQ(world.lookups.at(0), "alpha");
    EXPECT_EQ(world.lookup_socket_types.at(0), 0);
}

TEST_F(Handle, OfATransportAloneIsWithoutCredentialsAndNotQuiet) {
    rvzd_handle_t *handle = nullptr;
    ASSERT_EQ(rvzd_get_handle_proto("alpha", RVZD_PROTOCOL_TCP, &handle), TBS_ST_OK);
    EXPECT_EQ(handle->cached->protocol, RVZD_PROTOCOL_TCP);
    EXPECT_EQ(handle->cached->prim, 0u);
    rvzd_free_handle(handle);
    EXPECT_EQ(rvzd_get_handle_proto("nowhere", RVZD_PROTOCOL_TCP, &handle), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, RVZD_MSG_UNKNOWN_HOST,
                                                              "nowhere", gai_strerror(EAI_NONAME))));
}

TEST_F(Handle, WithoutASocketNoDescriptorIsClosed) {
    EXPECT_EQ(fail_to_get("nowhere"), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.network.closed, IsEmpty());
}

TEST_F(Handle, WithoutANameTheFailureIsToldUnderThatOfThisHost) {
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    for (const char *host : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(fail_to_get(host), TBS_ST_RPC_FAILED);
        EXPECT_THAT(world.take_messages(), ElementsAre(cannot_contact("thishost")));
    }
}

TEST_F(Handle, AContactThatFailsIsToldWithTheRpcErrorToo) {
    world.peer.answer(RVZD_PROC_CONTACT, sim::failure(RPC_CANTRECV, ECONNREFUSED));
    EXPECT_EQ(fail_to_get(), TBS_ST_RPC_FAILED);
    const auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].severity, IMSG_ERROR);
    EXPECT_THAT(messages[0].text, testing::StartsWith("rvzd_contact call failed"));
    EXPECT_EQ(messages[1], cannot_contact());
}

TEST_F(Handle, AQuietContactThatFailsSaysNothing) {
    world.peer.answer(RVZD_PROC_CONTACT, sim::failure(RPC_CANTRECV));
    EXPECT_EQ(fail_to_get("alpha", RVZD_PROTOCOL_UDP, 1), TBS_ST_RPC_FAILED);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Handle, ATruncatedOrGarbledContactReplyFailsAtEveryByte) {
    rvzd_contact_reply_t record = {{}, 6};
    const auto whole = sim::encode(xdr_rvzd_contact_reply_t, record);
    ASSERT_EQ(whole.size(), 12u);
    for (size_t length = 0; length < whole.size(); ++length) {
        world.peer.answer(RVZD_PROC_CONTACT,
                          {RPC_SUCCESS, 0, sim::Bytes(whole.begin(), whole.begin() + static_cast<long>(length))});
        EXPECT_EQ(fail_to_get("alpha", RVZD_PROTOCOL_UDP, 1), TBS_ST_RPC_FAILED) << length;
    }
}

TEST_F(Handle, OneBeyondTheReplyIsIgnored) {
    auto bytes = sim::encode(xdr_rvzd_contact_reply_t, rvzd_contact_reply_t{{}, 6});
    bytes.resize(4096, 0xff);
    world.peer.answer(RVZD_PROC_CONTACT, {RPC_SUCCESS, 0, bytes});
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_EQ(rvzd_get_server_protocol_version(handle), 6u);
    rvzd_free_handle(handle);
}

TEST_F(Handle, AHostWithoutAServerSideIsToldAsClientOnly) {
    world.component_mask = 0;
    EXPECT_EQ(fail_to_get(nullptr), TBS_ST_RPC_FAILED);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 91, "thishost")));
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(Handle, OnlyTheFirstBitOfTheComponentsIsTheServerSide) {
    world.component_mask = ~1;
    EXPECT_EQ(fail_to_get(nullptr), TBS_ST_RPC_FAILED);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 91, "thishost")));
    world.component_mask = 1;
    rvzd_free_handle(handle_to(nullptr));
}

TEST_F(Handle, AClientOnlyHostStillTalksToOthers) {
    world.component_mask = 0;
    rvzd_free_handle(handle_to("alpha"));
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Handle, AnUnknownTransportIsAPanic) {
    rvzd_handle_t *handle = nullptr;
    const auto get = [&](uint32_t protocol) {
        imsg_set_sink(nullptr, nullptr);
        rvzd_get_handle_proto("alpha", protocol, &handle);
    };
    EXPECT_DEATH(get(3), "panic at rvzd_clnt");
    EXPECT_DEATH(get(0), "panic at rvzd_clnt");
}

TEST_F(Handle, SpellingsThatDifferInCaseAreOneHostOnlyInOneBucket) {
    // The bytes of four letters differ by 32 each, and 32 * (32^3 + 32^2 + 32 + 1) is a multiple of the ten buckets.
    const std::string lower = "abcd";
    const std::string upper = "ABCD";
    ASSERT_EQ(velia::rvzd_clnt::bucket_of(lower.c_str(), 1), velia::rvzd_clnt::bucket_of(upper.c_str(), 1));
    world.add_host(lower, {"127.0.0.7"});
    world.add_host(upper, {"127.0.0.7"});
    rvzd_handle_t *first = handle_to(lower.c_str());
    rvzd_handle_t *second = handle_to(upper.c_str());
    EXPECT_EQ(first->cached, second->cached);
    EXPECT_EQ(first->cached->host_name, lower);
    rvzd_free_handle(first);
    rvzd_free_handle(second);
}

TEST_F(Handle, SpellingsThatDifferInCaseInDifferentBucketsAreTwoRecords) {
    ASSERT_NE(velia::rvzd_clnt::bucket_of("alpha", 1), velia::rvzd_clnt::bucket_of("ALPHA", 1));
    world.add_host("ALPHA", {"127.0.0.2"});
    rvzd_handle_t *first = handle_to("alpha");
    rvzd_handle_t *second = handle_to("ALPHA");
    EXPECT_NE(first->cached, second->cached);
    rvzd_free_handle(first);
    rvzd_free_handle(second);
}

TEST_F(Handle, TheBucketIsTheRotatedHashOfTheSpelling) {
    // Computed by hand: start with the transport, rotate left by 5, add each byte unsigned.
    EXPECT_EQ(velia::rvzd_clnt::bucket_of("", 1), 1u);
    EXPECT_EQ(velia::rvzd_clnt::bucket_of("a", 1), (32u + 97u) % 10);
    EXPECT_EQ(velia::rvzd_clnt::bucket_of("ab", 2), ((64u + 97u) * 32u + 98u) % 10);
    EXPECT_EQ(velia::rvzd_clnt::bucket_of("\xff", 1), (32u + 255u) % 10);
    uint32_t hash = 1;
    for (const char c : std::string("a.name.that.turns.all.bits.round"))
        hash = std::rotl(hash, 5) + static_cast<unsigned char>(c);
    EXPECT_EQ(velia::rvzd_clnt::bucket_of("a.name.that.turns.all.bits.round", 1), hash % 10);
}

TEST_F(Handle, AGenericOneKeepsItsFlagForLaterPlainCallers) {
    rvzd_handle_t *generic = nullptr;
    ASSERT_EQ(rvzd_get_generic_service_handle("alpha", RVZD_PROTOCOL_UDP, RVZD_GENERIC_SERVICE_PROGRAM, &generic),
              TBS_ST_OK);
    rvzd_handle_t *plain = handle_to("alpha");
    EXPECT_EQ(plain->cached, generic->cached);
    EXPECT_EQ(plain->cached->generic_service, 1u);
    rvzd_free_handle(generic);
    rvzd_free_handle(plain);
}

TEST_F(Handle, AGenericOneObtainedWhileAPlainRecordExistsIsPlain) {
    rvzd_handle_t *plain = handle_to("alpha");
    rvzd_handle_t *generic = nullptr;
    ASSERT_EQ(rvzd_get_generic_service_handle("alpha", RVZD_PROTOCOL_UDP, RVZD_GENERIC_SERVICE_PROGRAM, &generic),
              TBS_ST_OK);
    EXPECT_EQ(generic->cached->generic_service, 0u);
    rvzd_free_handle(generic);
    rvzd_free_handle(plain);
}

TEST_F(Handle, TheInternalFormTakesATimeOutOfItsOwn) {
    rvzd_handle_t *handle = nullptr;
    ASSERT_EQ(
        velia::rvzd_clnt::rvzd_get_handle_prim_timeout_proto({"alpha", 1, 0, 4, true, false, RVZD_PROGRAM}, &handle),
        TBS_ST_OK);
    EXPECT_EQ(handle->tv_sec, 4);
    EXPECT_EQ(world.peer.last().time_out_us, 4'000'000);
    rvzd_free_handle(handle);
}

TEST_F(Handle, EachFailingAllocationIsOutOfMemoryAndLeavesTheCacheWhole) {
    rest_record("beta");
    rvzd_free_handle(handle_to(nullptr));
    world.take_messages();
    rvzd_handle_t *handle = nullptr;
    tbs_status_t status = TBS_ST_OK;
    const auto before = sim::Holdings::now(world);
    const int failures = sim::sweep_allocations(
        world, [&] { status = rvzd_get_handle("alpha", &handle); },
        [&](int number) {
            EXPECT_EQ(status, TBS_ST_NO_MEMORY) << number;
            EXPECT_EQ(handle, nullptr);
            EXPECT_EQ(sim::Holdings::now(world), before);
            expect_lock_is_free();
        });
    EXPECT_EQ(failures, 3); // the handle, the record, the host name
    EXPECT_EQ(status, TBS_ST_OK);
    rvzd_free_handle(handle);
}

TEST_F(Handle, AFailingAllocationOfTheLocalHostsNameIsOutOfMemory) {
    rvzd_handle_t *handle = nullptr;
    world.fail_allocation(1);
    EXPECT_EQ(rvzd_get_handle(nullptr, &handle), TBS_ST_NO_MEMORY);
    EXPECT_EQ(handle, nullptr);
    rvzd_free_handle(handle_to(nullptr));
}

class HandleRaises : public Handle, public testing::WithParamInterface<uint32_t> {};

TEST_P(HandleRaises, ARaiseAnywhereUndoesTheHandleAndPassesOnWithTheLockHeld) {
    const uint32_t protocol = GetParam();
    rvzd_free_handle(handle_to(nullptr, protocol));
    const auto before = sim::Holdings::now(world);
    rvzd_handle_t *handle = nullptr;
    const int raises = sim::sweep_raises(
        world,
        [&] {
            handle = reinterpret_cast<rvzd_handle_t *>(1);
            rvzd_get_handle_proto("alpha", protocol, &handle);
        },
        [&](int number) {
            EXPECT_EQ(handle, nullptr) << number;
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1) << number;
        });
    EXPECT_GE(raises, 8);
    EXPECT_NE(handle, nullptr);
    rvzd_free_handle(handle);
}

INSTANTIATE_TEST_SUITE_P(Transports, HandleRaises, testing::Values(1u, 2u));

} // namespace
