// Headers, identities and port lists.
#include <tests/unit/xdr/wire_test.h>

#include <veliaxdr/rvzd_socket.h>

using namespace wire_tests;

static bool operator==(const rvzd_server_port_t &left, const rvzd_server_port_t &right) {
    return left.family == right.family && left.port == right.port;
}

namespace {

class Header : public WireTest {};
class Trait : public WireTest {};
class Port : public WireTest {};
class PortList : public WireTest {};

const rvzd_server_port_t empty_slot = {0, 0};
const rvzd_server_port_t stale_slot = {77, 77};

TEST_F(Header, OfARequestIsTheUniquifierAndTheSequence) {
    const rvzd_hdr_req_t sent = {0x0102030405060708, 9};
    EXPECT_EQ(encoded(xdr_rvzd_hdr_req_t, sent), WireBytes().hyper(0x0102030405060708).word(9));
}

TEST_F(Header, OfARequestCountsOnBeyond32Bits) {
    const rvzd_hdr_req_t sent = {1, 0x1'0000'0002};
    EXPECT_EQ(encoded(xdr_rvzd_hdr_req_t, sent), WireBytes().hyper(1).word(2));
    EXPECT_EQ(sent.sequence, 0x1'0000'0002u);
}

TEST_F(Header, OfAReplyIsAWordAndTheStatus) {
    const auto received = decoded(xdr_rvzd_hdr_reply_t, WireBytes().word(0xfffffffe).word(0xffffffff));
    EXPECT_EQ(received.word, 0xfffffffeu);
    EXPECT_EQ(received.status, -1);
}

TEST_F(Trait, IsProgramVersionAndTransport) {
    const rvzd_rpc_trait_t sent = {390600, 2, RVZD_PROTOCOL_TCP};
    EXPECT_EQ(encoded(xdr_rvzd_rpc_trait_t, sent), WireBytes().word(390600).word(2).word(2));
}

TEST_F(Trait, KeepsATransportThatItDoesNotKnow) {
    EXPECT_EQ(decoded(xdr_rvzd_rpc_trait_t, WireBytes().word(1).word(2).word(0xffffffff)).proto, -1);
}

TEST_F(Trait, NamesItsTransports) {
    EXPECT_EQ(rvzd_protocol_names[RVZD_PROTOCOL_NONE], nullptr);
    EXPECT_STREQ(rvzd_protocol_names[RVZD_PROTOCOL_UDP], "udp");
    EXPECT_STREQ(rvzd_protocol_names[RVZD_PROTOCOL_TCP], "tcp");
    EXPECT_EQ(RVZD_PROTOCOL_UDP, 1);
    EXPECT_EQ(RVZD_PROTOCOL_TCP, 2);
}

TEST_F(Trait, DoesNotGoOutWithANumberBeyond32Bits) {
    Bytes bytes;
    EXPECT_FALSE(encode(xdr_rvzd_rpc_trait_t, {0x1'0000'0000, 1, RVZD_PROTOCOL_UDP}, bytes));
    EXPECT_FALSE(encode(xdr_rvzd_rpc_trait_t, {1, 0x1'0000'0000, RVZD_PROTOCOL_UDP}, bytes));
}

TEST_F(Port, TravelsWithAFamilyCodeAndInHostOrder) {
    EXPECT_EQ(encoded(xdr_rvzd_server_port_t, {AF_INET, 371}), WireBytes().word(1).word(371));
    EXPECT_EQ(encoded(xdr_rvzd_server_port_t, {AF_INET6, 371}), WireBytes().word(2).word(371));
    EXPECT_EQ(decoded(xdr_rvzd_server_port_t, WireBytes().word(1).word(371)), (rvzd_server_port_t{AF_INET, 371}));
    EXPECT_EQ(decoded(xdr_rvzd_server_port_t, WireBytes().word(2).word(371)), (rvzd_server_port_t{AF_INET6, 371}));
}

TEST_F(Port, OfAnotherFamilyDoesNotGoOut) {
    for (const int32_t family : {0, 1, 3, 9, 11, -1}) {
        Bytes bytes;
        EXPECT_FALSE(encode(xdr_rvzd_server_port_t, {family, 371}, bytes)) << family;
    }
}

TEST_F(Port, OfAnotherCodeIsRefused) {
    for (const uint32_t code : {0u, 3u, 10u, 0xffffffffu})
        expect_refused(xdr_rvzd_server_port_t, WireBytes().word(code).word(371));
}

TEST_F(Port, OfAnotherFamilyMakesEveryRecordThatHoldsItFail) {
    const rvzd_server_port_list_t bad_list = {2, {{AF_INET, 1}, {0, 0}}};
    Bytes bytes;
    EXPECT_FALSE(encode(xdr_rvzd_server_port_list_t, bad_list, bytes));
    auto request = cleared<rvzd_register_server_req_t>();
    request.ports = bad_list;
    EXPECT_FALSE(encode(xdr_rvzd_register_server_req_t, request, bytes));
    auto reply = cleared<rvzd_find_server_reply_t>();
    reply.ports = bad_list;
    EXPECT_FALSE(encode(xdr_rvzd_find_server_reply_t, reply, bytes));
}

TEST_F(PortList, OfOneEntryLeavesTheSecondSlotEmpty) {
    rvzd_server_port_list_t received = {9, {stale_slot, stale_slot}};
    ASSERT_TRUE(decode(xdr_rvzd_server_port_list_t, WireBytes().word(1).word(2).word(371), received));
    EXPECT_EQ(received.count, 1u);
    EXPECT_EQ(received.ports[0], (rvzd_server_port_t{AF_INET6, 371}));
    EXPECT_EQ(received.ports[1], empty_slot);
}

TEST_F(PortList, OfNoEntryLeavesBothSlotsEmpty) {
    rvzd_server_port_list_t received = {9, {stale_slot, stale_slot}};
    ASSERT_TRUE(decode(xdr_rvzd_server_port_list_t, WireBytes().word(0), received));
    EXPECT_EQ(received.count, 0u);
    EXPECT_EQ(received.ports[0], empty_slot);
    EXPECT_EQ(received.ports[1], empty_slot);
}

TEST_F(PortList, OfMoreThanTwoEntriesTransfersTwoAndKeepsItsCount) {
    const WireBytes wire = WireBytes().word(5).word(1).word(10).word(2).word(11);
    const auto received = decoded(xdr_rvzd_server_port_list_t, wire);
    EXPECT_EQ(received.count, 5u);
    EXPECT_EQ(received.ports[0], (rvzd_server_port_t{AF_INET, 10}));
    EXPECT_EQ(received.ports[1], (rvzd_server_port_t{AF_INET6, 11}));
    EXPECT_EQ(encoded(xdr_rvzd_server_port_list_t, received), wire);
}

TEST_F(PortList, IsLeftAsItIsByFreeMode) {
    rvzd_server_port_list_t list = {1, {{77, 1}, {78, 2}}};
    EXPECT_TRUE(release(xdr_rvzd_server_port_list_t, list));
    EXPECT_EQ(list.count, 1u);
    EXPECT_EQ(list.ports[0], (rvzd_server_port_t{77, 1}));
}

} // namespace
