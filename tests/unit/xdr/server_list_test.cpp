// The server list reply: its flat buffer, its bounds, and the two forms of an address.
#include <tests/unit/xdr/wire_test.h>

#include <tests/unit/xdr/list_oracle.h>

using namespace wire_tests;

namespace {

constexpr uint32_t end_of_records = UINT32_MAX;
const std::string some_uuid = "0123456789abcdef";

// One record as both forms have it, but for what tells the port.
WireBytes &add_record(WireBytes &wire, std::string_view name, uint32_t cookie, bool v70 = false) {
    wire.text(name).word(cookie).word(390600).word(1).word(2);
    v70 ? wire.word(2 << 16 | 4000).repeated(12, 0) : wire.word(1).word(1).word(4000);
    return wire.raw(some_uuid).word(3).word(4321);
}

WireBytes header() {
    return WireBytes().reply_header();
}

class ServerList : public WireTest {
protected:
    alignas(8) char buffer[2048];
    rvzd_list_servers_reply_t reply = {};

    ServerList() { memset(buffer, 'x', sizeof buffer); }

    // Decodes into the first `capacity` bytes of the buffer.
    bool decode_into(uint64_t capacity, const Bytes &bytes, size_t *consumed = nullptr, bool v70 = false) {
        reply = {{}, 99, capacity, 1, buffer};
        return decode(v70 ? xdr_rvzd_list_servers_v70_reply_t : xdr_rvzd_list_servers_reply_t, bytes, reply, consumed);
    }

    rvzd_server_entry_t *entry_at(uint64_t offset) { return reinterpret_cast<rvzd_server_entry_t *>(buffer + offset); }

    std::string bytes_of_buffer(size_t from, size_t to) { return {buffer + from, buffer + to}; }
};

TEST_F(ServerList, PutsARecordIntoTheBufferInItsLayout) {
    WireBytes wire = header();
    add_record(wire, "alpha", 17).word(end_of_records).word(1);
    ASSERT_TRUE(decode_into(sizeof buffer, wire));
    const rvzd_server_entry_t *entry = entry_at(0);
    EXPECT_EQ(entry->cookie, 17u);
    EXPECT_EQ(entry->trait.prog, 390600u);
    EXPECT_EQ(entry->trait.vers, 1u);
    EXPECT_EQ(entry->trait.proto, RVZD_PROTOCOL_TCP);
    EXPECT_EQ(entry->ports.count, 1u);
    EXPECT_EQ(entry->ports.ports[0].family, AF_INET);
    EXPECT_EQ(entry->ports.ports[0].port, 4000u);
    EXPECT_EQ(entry->ports.ports[1].family, 0);
    EXPECT_EQ(memcmp(&entry->uuid, some_uuid.data(), 16), 0);
    EXPECT_EQ(entry->state, 3);
    EXPECT_EQ(entry->pid, 4321);
    EXPECT_EQ(entry->name_length, 5);
    EXPECT_STREQ(buffer + 78, "alpha");
    EXPECT_EQ(reply.size, 88u);
    EXPECT_EQ(reply.cookie, 17u);
    EXPECT_EQ(reply.at_end, 1);
    EXPECT_EQ(reply.buffer, buffer);
}

TEST_F(ServerList, RecordOfAOneByteNameTakes80BytesAndOfTwoBytes88) {
    EXPECT_EQ(rvzd_server_entry_size(1), 80u);
    EXPECT_EQ(rvzd_server_entry_size(2), 88u);
    WireBytes wire = header();
    add_record(add_record(add_record(wire, "a", 1), "bb", 2), "c", 3).word(end_of_records).word(1);
    ASSERT_TRUE(decode_into(sizeof buffer, wire));
    EXPECT_EQ(reply.size, 80u + 88u + 80u);
    EXPECT_EQ(entry_at(80)->cookie, 2u);
    EXPECT_STREQ(buffer + 80 + 78, "bb");
    EXPECT_EQ(entry_at(168)->cookie, 3u);
}

TEST_F(ServerList, RecordOfAnEmptyNameTakes80Bytes) {
    WireBytes wire = header();
    add_record(wire, "", 5).word(end_of_records).word(1);
    ASSERT_TRUE(decode_into(sizeof buffer, wire));
    EXPECT_EQ(reply.size, 80u);
    EXPECT_EQ(entry_at(0)->name_length, 0);
    EXPECT_STREQ(buffer + 78, "");
}

TEST_F(ServerList, WhoseFirstRecordDoesNotFitIsASuccessOfZeroBytesNotAtItsEnd) {
    WireBytes wire = header();
    add_record(wire, "a", 17).word(end_of_records).word(1);
    size_t consumed = 0;
    ASSERT_TRUE(decode_into(79, wire, &consumed));
    EXPECT_EQ(reply.size, 0u);
    EXPECT_EQ(reply.at_end, 0);
    EXPECT_EQ(reply.cookie, 99u);
    EXPECT_EQ(bytes_of_buffer(0, 80), std::string(80, 'x'));
    EXPECT_EQ(consumed, 12u) << "nothing is read behind the length of the record that did not fit";
}

TEST_F(ServerList, EndsBeforeTheRecordThatDoesNotFitUnderTheCookieOfTheOneBefore) {
    WireBytes wire = header();
    add_record(add_record(wire, "a", 17), "b", 18).word(end_of_records).word(1);
    ASSERT_TRUE(decode_into(159, wire));
    EXPECT_EQ(reply.size, 80u);
    EXPECT_EQ(reply.cookie, 17u);
    EXPECT_EQ(reply.at_end, 0);
    EXPECT_EQ(bytes_of_buffer(80, 160), std::string(80, 'x'));
    ASSERT_TRUE(decode_into(160, wire));
    EXPECT_EQ(reply.size, 160u);
    EXPECT_EQ(reply.cookie, 18u);
    EXPECT_EQ(reply.at_end, 1);
}

TEST_F(ServerList, MarksItsEndOnlyWhereMoreThan79BytesAreLeft) {
    WireBytes wire = header();
    add_record(wire, "a", 1).word(end_of_records).word(1);
    ASSERT_TRUE(decode_into(160, wire));
    EXPECT_EQ(entry_at(80)->name_length, 0);
    EXPECT_EQ(bytes_of_buffer(80, 156), std::string(76, 'x'));
    EXPECT_EQ(bytes_of_buffer(158, 240), std::string(82, 'x'));
    memset(buffer, 'x', sizeof buffer);
    ASSERT_TRUE(decode_into(159, wire));
    EXPECT_EQ(bytes_of_buffer(80, 240), std::string(160, 'x'));
}

TEST_F(ServerList, OfNoRecordsIsItsEndAlone) {
    ASSERT_TRUE(decode_into(sizeof buffer, header().word(end_of_records).word(0)));
    EXPECT_EQ(reply.size, 0u);
    EXPECT_EQ(reply.at_end, 0);
    EXPECT_EQ(reply.cookie, 99u);
    EXPECT_EQ(entry_at(0)->name_length, 0);
}

TEST_F(ServerList, AnyNonZeroWordIsTheEnd) {
    ASSERT_TRUE(decode_into(sizeof buffer, header().word(end_of_records).word(0x80000000)));
    EXPECT_EQ(reply.at_end, 1);
}

TEST_F(ServerList, OfAnotherStatusLeavesTheBufferAlone) {
    ASSERT_TRUE(decode_into(sizeof buffer, WireBytes().reply_header(TBS_ST_NOT_FOUND)));
    EXPECT_EQ(reply.size, sizeof buffer);
    EXPECT_EQ(bytes_of_buffer(0, sizeof buffer), std::string(sizeof buffer, 'x'));
}

TEST_F(ServerList, NameLongerThanItsLengthFieldFitsNoBuffer) {
    for (const uint32_t length : {0x10000u, 0x7fffffffu, 0xffffffa8u, 0xfffffffeu}) {
        std::vector<uint64_t> large(0x20000 / 8);
        reply = {{}, 99, 0x20000, 1, reinterpret_cast<char *>(large.data())};
        ASSERT_TRUE(decode(xdr_rvzd_list_servers_reply_t, header().word(length).repeated(64, 0), reply)) << length;
        EXPECT_EQ(reply.size, 0u);
        EXPECT_EQ(reply.at_end, 0);
    }
}

TEST_F(ServerList, LongestNamePasses) {
    WireBytes wire = header();
    add_record(wire, std::string(UINT16_MAX, 'n'), 5).word(end_of_records).word(1);
    auto received = cleared<rvzd_list_servers_reply_t>();
    received.size = 0x20000;
    ASSERT_TRUE(decode(xdr_rvzd_list_servers_reply_t, wire, received));
    EXPECT_EQ(received.size, rvzd_server_entry_size(UINT16_MAX));
    EXPECT_EQ(reinterpret_cast<rvzd_server_entry_t *>(received.buffer)->name_length, UINT16_MAX);
    release(xdr_rvzd_list_servers_reply_t, received);
}

TEST_F(ServerList, OfAnUnknownFamilyCodeIsRefused) {
    for (const uint32_t code : {0u, 3u, 10u}) {
        const WireBytes wire = header()
                                   .text("a")
                                   .word(1)
                                   .word(1)
                                   .word(1)
                                   .word(1)
                                   .word(1)
                                   .word(code)
                                   .word(4000)
                                   .raw(some_uuid)
                                   .word(3)
                                   .word(4)
                                   .word(end_of_records)
                                   .word(1);
        expect_refused(xdr_rvzd_list_servers_reply_t, wire);
    }
}

TEST_F(ServerList, OfAnUnknownFamilyInASocketAddressIsRefused) {
    const WireBytes wire = header()
                               .text("a")
                               .word(1)
                               .word(1)
                               .word(1)
                               .word(1)
                               .word(10 << 16 | 4000)
                               .repeated(12, 0)
                               .raw(some_uuid)
                               .word(3)
                               .word(4)
                               .word(end_of_records)
                               .word(1);
    expect_refused(xdr_rvzd_list_servers_v70_reply_t, wire);
}

TEST_F(ServerList, WithMorePortsThanTwoBringsTwoAndKeepsTheirCount) {
    const WireBytes wire = header()
                               .text("a")
                               .word(1)
                               .word(1)
                               .word(1)
                               .word(1)
                               .word(7)
                               .word(2)
                               .word(10)
                               .word(1)
                               .word(11)
                               .raw(some_uuid)
                               .word(3)
                               .word(4)
                               .word(end_of_records)
                               .word(1);
    ASSERT_TRUE(decode_into(sizeof buffer, wire));
    EXPECT_EQ(entry_at(0)->ports.count, 7u);
    EXPECT_EQ(entry_at(0)->ports.ports[0].family, AF_INET6);
    EXPECT_EQ(entry_at(0)->ports.ports[1].port, 11u);
    EXPECT_EQ(entry_at(0)->pid, 4);
}

TEST_F(ServerList, OfTheOlderFormMakesAListOfOneIpv4PortInHostOrder) {
    WireBytes wire = header();
    add_record(wire, "alpha", 17, true).word(end_of_records).word(1);
    ASSERT_TRUE(decode_into(sizeof buffer, wire, nullptr, true));
    const rvzd_server_port_list_t &ports = entry_at(0)->ports;
    EXPECT_EQ(ports.count, 1u);
    EXPECT_EQ(ports.ports[0].family, AF_INET);
    EXPECT_EQ(ports.ports[0].port, 4000u);
    EXPECT_EQ(ports.ports[1].family, 0);
    EXPECT_EQ(ports.ports[1].port, 0u);
    EXPECT_EQ(entry_at(0)->pid, 4321);
}

TEST_F(ServerList, MakesABufferOfTheCapacityWhenThereIsNone) {
    WireBytes wire = header();
    add_record(wire, "alpha", 17).word(end_of_records).word(1);
    auto received = decoded(xdr_rvzd_list_servers_reply_t, wire);
    ASSERT_NE(received.buffer, nullptr);
    EXPECT_EQ(world.live_blocks(), 1u);
    EXPECT_TRUE(release(xdr_rvzd_list_servers_reply_t, received));
    EXPECT_EQ(received.buffer, nullptr);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(ServerList, FailsWithoutMemoryForItsBuffer) {
    auto received = cleared<rvzd_list_servers_reply_t>();
    world.fail_allocation(1);
    EXPECT_FALSE(decode(xdr_rvzd_list_servers_reply_t, header().word(end_of_records).word(1), received));
    EXPECT_EQ(received.buffer, nullptr);
}

TEST_F(ServerList, FreeModeLooksAtTheBufferOnly) {
    rvzd_list_servers_reply_t record = {{3, TBS_ST_ERROR}, 17, 88, 1, nullptr};
    EXPECT_TRUE(release(xdr_rvzd_list_servers_reply_t, record));
    EXPECT_EQ(record.cookie, 17u);
    EXPECT_EQ(record.size, 88u);
    record.buffer = static_cast<char *>(stg_malloc(8));
    EXPECT_TRUE(release(xdr_rvzd_list_servers_v70_reply_t, record));
    EXPECT_EQ(record.buffer, nullptr);
    EXPECT_EQ(world.live_blocks(), 0u);
}

class ServerListSent : public ServerList {
protected:
    std::vector<uint64_t> servers;

    rvzd_list_servers_reply_t reply_of_servers(tbs_boolean_t at_end = 1) {
        return {{7, TBS_ST_OK}, 0, servers.size() * 8, at_end, reinterpret_cast<char *>(servers.data())};
    }
};

TEST_F(ServerListSent, HasItsFieldsInOrderAndItsEnd) {
    auto *entry = append_server(sampler, servers, "alpha");
    entry->cookie = 17;
    entry->trait = {390600, 1, RVZD_PROTOCOL_TCP};
    entry->ports = {1, {{AF_INET, 4000}, {0, 0}}};
    memcpy(&entry->uuid, some_uuid.data(), 16);
    entry->state = 3;
    entry->pid = 4321;
    WireBytes wire = header();
    add_record(wire, "alpha", 17).word(end_of_records).word(1);
    EXPECT_EQ(encoded(xdr_rvzd_list_servers_reply_t, reply_of_servers()), wire);
}

TEST_F(ServerListSent, WithoutABufferIsEmpty) {
    const rvzd_list_servers_reply_t sent = {{7, TBS_ST_OK}, 0, 4096, 1, nullptr};
    EXPECT_EQ(encoded(xdr_rvzd_list_servers_reply_t, sent), header().word(end_of_records).word(1));
}

TEST_F(ServerListSent, InTheOlderFormTakesThePortOfTheFirstIpv4Entry) {
    const auto socket_address = [&](rvzd_server_port_list_t ports) {
        servers.clear();
        append_server(sampler, servers, "")->ports = ports;
        const Bytes bytes = encoded(xdr_rvzd_list_servers_v70_reply_t, reply_of_servers());
        return bytes.substr(8 + 4 + 4 + 12, 16);
    };
    EXPECT_EQ(socket_address({2, {{AF_INET, 4000}, {AF_INET, 4001}}}),
              WireBytes().word(2 << 16 | 4000).repeated(12, 0));
    EXPECT_EQ(socket_address({2, {{AF_INET6, 4000}, {AF_INET, 4001}}}),
              WireBytes().word(2 << 16 | 4001).repeated(12, 0));
    EXPECT_EQ(socket_address({1, {{AF_INET6, 4000}, {0, 0}}}), WireBytes().repeated(16, 0));
    EXPECT_EQ(socket_address({0, {}}), WireBytes().repeated(16, 0));
}

TEST_F(ServerListSent, InTheOlderFormComesBackAsIpv4EvenWhereNoIpv4PortWasSent) {
    append_server(sampler, servers, "a")->ports = {1, {{AF_INET6, 4000}, {0, 0}}};
    auto received =
        decoded(xdr_rvzd_list_servers_v70_reply_t, encoded(xdr_rvzd_list_servers_v70_reply_t, reply_of_servers()));
    const auto &ports = reinterpret_cast<rvzd_server_entry_t *>(received.buffer)->ports;
    EXPECT_EQ(ports.count, 1u);
    EXPECT_EQ(ports.ports[0].family, AF_INET);
    EXPECT_EQ(ports.ports[0].port, 0u);
    release(xdr_rvzd_list_servers_v70_reply_t, received);
}

TEST_F(ServerListSent, EndsBeforeTheRecordThatMightGrowBeyond8744Bytes) {
    // A record of a name of 1 byte and two ports takes 68 bytes; its worst size is taken as 64. Of 8744 bytes the last
    // 64 must be free before a record: records begin at 0, 68, ... 8636 and 8680 is not exceeded by 127 * 68.
    constexpr size_t record_size = 4 + 4 + 4 + 12 + 4 + 16 + 16 + 8;
    constexpr size_t count = (RVZD_LIST_SERVERS_BYTES_MAX - 64) / record_size + 1;
    for (int i = 0; i < 400; ++i)
        append_server(sampler, servers, "n")->ports = {2, {{AF_INET, 1}, {AF_INET6, 2}}};
    auto sent = reply_of_servers();
    const Bytes bytes = encoded(xdr_rvzd_list_servers_reply_t, sent);
    EXPECT_EQ(bytes.size(), 8 + count * record_size + 8);
    auto received = decoded(xdr_rvzd_list_servers_reply_t, bytes);
    EXPECT_EQ(received.size, count * 80);
    EXPECT_EQ(received.at_end, 0);
    release(xdr_rvzd_list_servers_reply_t, received);
}

TEST_F(ServerListSent, TakesARecordWhoseWorstSizeEndsWithTheLimitAndNoneBeyondIt) {
    // 167 records of 52 bytes leave 60 of the 8744 bytes that are counted from where the list begins. A record without
    // a name is taken to need just that many, one of a single byte 64.
    for (const bool fits : {true, false}) {
        servers.clear();
        for (int i = 0; i < 167; ++i)
            append_server(sampler, servers, "four")->ports = {};
        append_server(sampler, servers, fits ? "" : "n")->ports = {};
        const Bytes bytes = encoded(xdr_rvzd_list_servers_reply_t, reply_of_servers());
        EXPECT_EQ(bytes.size(), 8u + 167 * 52 + (fits ? 48 : 0) + 8);
        EXPECT_EQ(bytes.substr(bytes.size() - 4), WireBytes().word(fits ? 1 : 0));
    }
}

TEST_F(ServerListSent, FailsOnABufferWhoseLastRecordRunsBeyondIt) {
    append_server(sampler, servers, "alpha");
    append_server(sampler, servers, std::string(100, 'n'));
    for (uint64_t size = 1; size < servers.size() * 8; ++size) {
        auto sent = reply_of_servers();
        sent.size = size;
        Bytes bytes;
        EXPECT_EQ(encode(xdr_rvzd_list_servers_reply_t, sent, bytes), size == 88) << size;
    }
}

TEST_F(ServerListSent, RequestCarriesTheCookieAndTheMostBytesWanted) {
    const rvzd_list_servers_req_t request = {{0x0102030405060708, 9}, 17, 0x1'0000'0000};
    EXPECT_EQ(encoded(xdr_rvzd_list_servers_req_t, request),
              WireBytes().request_header().word(17).hyper(0x1'0000'0000));
}

// Every kind of stream against decoding field by field.
class ServerListStreams : public WireTest {
protected:
    void compare_all(const Bytes &bytes, uint64_t capacity) {
        for (const bool v70 : {false, true}) {
            const Decoded expected = decode_by_fields(bytes, capacity, v70);
            EXPECT_EQ(decode_from_memory(bytes, capacity, v70, 0), expected);
            EXPECT_EQ(decode_from_memory(bytes, capacity, v70, 1), expected);
            EXPECT_EQ(decode_from_fragments(bytes, capacity, v70, sampler), expected);
        }
    }

    Bytes random_list() {
        auto sent = cleared<rvzd_list_servers_reply_t>();
        fill(sampler, sent);
        sent.header.status = sampler.number(9) == 0 ? TBS_ST_ERROR : TBS_ST_OK;
        return encoded(sampler.coin() ? xdr_rvzd_list_servers_reply_t : xdr_rvzd_list_servers_v70_reply_t, sent);
    }
};

TEST_F(ServerListStreams, GiveTheSameListsWhateverTheCapacity) {
    for (int i = 0; i < 300; ++i)
        compare_all(random_list(), sampler.coin() ? list_capacity : sampler.number(700));
}

// Records that are decoded at once stand on both sides of one that may not be.
TEST_F(ServerListStreams, GiveTheSameListsWhateverTheLengthOfANameAndThePorts) {
    for (size_t length = 0; length <= 70; ++length)
        for (const uint32_t count : {0u, 1u, 2u, 3u})
            for (const uint32_t family : {1u, 2u, 3u}) {
                WireBytes wire = header();
                add_record(wire, "a name of thirty-three characters", 0xf1f2f3f4);
                wire.text(std::string(length, 'n')).word(0x81828384).word(0x85868788).word(0x898a8b8c).word(0x8d8e8f90);
                wire.word(count);
                for (uint32_t i = 0; i < std::min(count, 2u); ++i)
                    wire.word(i + 1 == count ? family : 3 - family % 2).word(0x91929394 + i);
                wire.raw(some_uuid).word(0xa1a2a3a4).word(0xa5a6a7a8);
                add_record(wire, "another one of some length", 7).word(end_of_records).word(1);
                SCOPED_TRACE(testing::Message() << length << " bytes, " << count << " ports, family " << family);
                compare_all(wire, list_capacity);
                const uint64_t both = rvzd_server_entry_size(33) + rvzd_server_entry_size(length);
                compare_all(wire, both);
                compare_all(wire, both - 1);
            }
}

TEST_F(ServerListStreams, GiveTheSameListOfMoreBytesThanALengthFieldCounts) {
    WireBytes wire = header();
    for (uint32_t i = 0; i < 3; ++i)
        add_record(wire, std::string(40000, 'n'), i);
    for (uint32_t i = 0; i < 1000; ++i)
        add_record(wire, std::string(i % 100, 'n'), i);
    add_record(wire, std::string(UINT16_MAX + 1, 'n'), 5).word(end_of_records).word(1);
    compare_all(wire, 400000);
}

TEST_F(ServerListStreams, GiveTheSameRefusalsAtEveryCut) {
    for (int i = 0; i < 5; ++i) {
        const Bytes bytes = random_list();
        for (size_t size = 0; size < bytes.size(); ++size)
            compare_all(bytes.substr(0, size), list_capacity);
    }
}

TEST_F(ServerListStreams, GiveTheSameAnswersToMutatedLists) {
    for (int i = 0; i < 2000; ++i) {
        Bytes bytes = random_list();
        for (uint64_t changes = 1 + sampler.number(3); changes > 0; --changes) {
            const size_t place = sampler.number(bytes.size() / 4 - 1) * 4 + (sampler.coin() ? 3 : sampler.number(3));
            bytes[place] = static_cast<char>(sampler.coin() ? sampler.number(4) : sampler.number(255));
        }
        compare_all(bytes, sampler.coin() ? list_capacity : sampler.number(700));
    }
}

TEST_F(ServerListStreams, GiveTheSameFullReply) {
    std::vector<uint64_t> servers;
    for (int i = 0; i < 200; ++i)
        append_server(sampler, servers, "/usr/lib/servers/" + std::to_string(i));
    const rvzd_list_servers_reply_t sent = {
        {7, TBS_ST_OK}, 0, servers.size() * 8, 1, reinterpret_cast<char *>(servers.data())};
    compare_all(encoded(xdr_rvzd_list_servers_reply_t, sent), list_capacity);
    compare_all(encoded(xdr_rvzd_list_servers_v70_reply_t, sent), list_capacity);
}

} // namespace
