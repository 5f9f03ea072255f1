// What servers and their clients say to the broker: the gate of a found server, local paths, restarts.
#include <tests/unit/xdr/wire_test.h>

using namespace wire_tests;

namespace {

class FoundServer : public WireTest {};
class LocalPathRecord : public WireTest {};
class RestartRecord : public WireTest {};
class ServerName : public WireTest {};

const std::string some_uuid = "0123456789abcdef";

TEST_F(FoundServer, BehindANonZeroGateIsLeftAsTheCallerClearedIt) {
    for (const uint64_t gate : {uint64_t{1}, uint64_t{1} << 32, UINT64_MAX}) {
        const auto reply = decoded(xdr_rvzd_find_server_reply_t, WireBytes().reply_header().hyper(gate));
        EXPECT_EQ(reply.gate, static_cast<time_t>(gate));
        EXPECT_EQ(reply.ports.count, 0u);
        EXPECT_EQ(reply.path, nullptr);
        EXPECT_EQ(memcmp(&reply.uuid, std::string(16, '\0').data(), 16), 0);
        EXPECT_EQ(encoded(xdr_rvzd_find_server_reply_t, reply), WireBytes().reply_header().hyper(gate));
        const auto reply_v70 = decoded(xdr_rvzd_find_server_v70_reply_t, WireBytes().reply_header().hyper(gate));
        EXPECT_EQ(reply_v70.address.sin_port, 0);
        EXPECT_EQ(reply_v70.path, nullptr);
    }
}

TEST_F(FoundServer, BehindAZeroGateBringsUuidPathAndPorts) {
    const WireBytes wire = WireBytes().reply_header().hyper(0).raw(some_uuid).text("/srv").word(1).word(1).word(4000);
    auto reply = decoded(xdr_rvzd_find_server_reply_t, wire);
    EXPECT_EQ(memcmp(&reply.uuid, some_uuid.data(), 16), 0);
    EXPECT_STREQ(reply.path, "/srv");
    EXPECT_EQ(reply.ports.count, 1u);
    EXPECT_EQ(reply.ports.ports[0].port, 4000u);
    release(xdr_rvzd_find_server_reply_t, reply);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(FoundServer, OfTheOlderFormHasASocketAddressInPlaceOfThePorts) {
    const WireBytes wire =
        WireBytes().reply_header().hyper(0).raw(some_uuid).text("/srv").word(AF_INET << 16 | 4000).repeated(12, 0);
    auto reply = decoded(xdr_rvzd_find_server_v70_reply_t, wire);
    EXPECT_EQ(reply.address.sin_port, htons(4000));
    release(xdr_rvzd_find_server_v70_reply_t, reply);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(FoundServer, IsFreedEvenWhenTheCallerHasChangedTheGate) {
    auto reply =
        decoded(xdr_rvzd_find_server_reply_t, WireBytes().reply_header().hyper(0).raw(some_uuid).text("/srv").word(0));
    reply.gate = 1;
    reply.header.status = TBS_ST_ERROR;
    release(xdr_rvzd_find_server_reply_t, reply);
    EXPECT_EQ(world.live_blocks(), 0u);
}

class PathIntoABuffer : public LocalPathRecord {
protected:
    char buffer[8] = "before";
    rvzd_get_local_path_reply_t reply = {{}, buffer, sizeof buffer};

    bool decode_text(std::string_view path) {
        return decode(xdr_rvzd_get_local_path_reply_t, WireBytes().reply_header().text(path), reply);
    }
};

TEST_F(PathIntoABuffer, FillsItWhenItFitsWithItsTerminator) {
    EXPECT_TRUE(decode_text("1234567"));
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(reply.path, buffer);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(PathIntoABuffer, FailsAndWritesNothingWhenItIsOneByteTooLong) {
    EXPECT_FALSE(decode_text("12345678"));
    EXPECT_STREQ(buffer, "before");
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(PathIntoABuffer, FailsForABufferOfNoBytes) {
    reply.size = 0;
    EXPECT_FALSE(decode_text(""));
    EXPECT_STREQ(buffer, "before");
}

TEST_F(PathIntoABuffer, FailsAndWritesNothingWithoutMemory) {
    world.fail_allocation(1);
    EXPECT_FALSE(decode_text("123"));
    EXPECT_TRUE(world.allocation_failed());
    EXPECT_STREQ(buffer, "before");
}

TEST_F(PathIntoABuffer, FailsAndWritesNothingWhenItIsCut) {
    const Bytes wire = WireBytes().reply_header().text("123456");
    for (size_t size = 0; size < wire.size(); ++size)
        EXPECT_FALSE(decode(xdr_rvzd_get_local_path_reply_t, wire.substr(0, size), reply));
    EXPECT_STREQ(buffer, "before");
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(LocalPathRecord, IsAllocatedWhenThereIsNoBuffer) {
    auto reply = decoded(xdr_rvzd_get_local_path_reply_t, WireBytes().reply_header().text("/a/b"));
    EXPECT_STREQ(reply.path, "/a/b");
    release(xdr_rvzd_get_local_path_reply_t, reply);
    EXPECT_EQ(reply.path, nullptr);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(LocalPathRecord, IsAskedForWithTheBuffersSize) {
    char path[] = "/a";
    const rvzd_get_local_path_req_t request = {{0x0102030405060708, 9}, path, 0x1'0000'0001};
    EXPECT_EQ(encoded(xdr_rvzd_get_local_path_req_t, request),
              WireBytes().request_header().text("/a").hyper(0x1'0000'0001));
}

TEST_F(ServerName, HasAtMost64Bytes) {
    for (const size_t length : {size_t{64}, size_t{65}}) {
        std::string name(length, 'n');
        auto request = cleared<rvzd_toggle_server_restart_req_t>();
        request.name = name.data();
        Bytes bytes;
        EXPECT_EQ(encode(xdr_rvzd_toggle_server_restart_req_t, request, bytes), length == 64);
        const WireBytes wire = WireBytes().request_header().word(1).text(name);
        auto received = cleared<rvzd_toggle_server_restart_req_t>();
        EXPECT_EQ(decode(xdr_rvzd_toggle_server_restart_req_t, wire, received), length == 64);
        release(xdr_rvzd_toggle_server_restart_req_t, received);
        EXPECT_EQ(world.live_blocks(), 0u);
    }
}

TEST_F(RestartRecord, AnyNonZeroWordEnables) {
    auto request =
        decoded(xdr_rvzd_toggle_server_restart_req_t, WireBytes().request_header().word(0x80000000).text("n"));
    EXPECT_EQ(request.enable, 1);
    release(xdr_rvzd_toggle_server_restart_req_t, request);
}

TEST_F(RestartRecord, HasAStatusOfItsOwnBehindTheGoodOneOfTheCall) {
    const auto reply = decoded(xdr_rvzd_toggle_server_restart_reply_t, WireBytes().reply_header().word(0xfffffffb));
    EXPECT_EQ(reply.header.status, TBS_ST_OK);
    EXPECT_EQ(reply.toggle.status, -5);
}

} // namespace
