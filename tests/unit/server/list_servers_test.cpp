// The server table as a flat buffer: what fits, where a walk goes on, and that the wire takes it.
#include <tests/unit/server/table_fixture.h>

#include <server/broker/server_list.h>

using namespace velia::server;

namespace {

class ListServers : public server_tests::ServerTableTest {
protected:
    void register_servers(int count, const std::string &path = "/repo") {
        for (int32_t pid = 2; pid < 2 + count; ++pid) {
            launcher.existing.insert(pid);
            ASSERT_EQ(register_server(pid, 4000, udp_trait, path), TBS_ST_OK);
        }
    }
    // The cookies of the records of a piece.
    static std::vector<uint64_t> cookies(const ServerListPiece &piece) {
        std::vector<uint64_t> found;
        for (size_t at = 0; at < piece.records.size();) {
            rvzd_server_entry_t entry;
            memcpy(&entry, &piece.records[at], RVZD_SERVER_ENTRY_NAME_OFFSET);
            found.push_back(entry.cookie);
            at += rvzd_server_entry_size(entry.name_length);
        }
        return found;
    }
    ServerListPiece list(uint64_t cookie, uint64_t size = RVZD_LIST_SERVERS_BYTES_MAX) {
        return list_servers(table.processes(), cookie, size);
    }
};

TEST_F(ListServers, OfNoneIsEmptyAndAtItsEnd) {
    EXPECT_TRUE(list(0).records.empty());
    EXPECT_TRUE(list(0).at_end);
}

TEST_F(ListServers, TellsAllOfARegistration) {
    launcher.existing = {50};
    register_server(50, 4321, tcp_trait, "/repo", 7);
    const auto piece = list(0);
    ASSERT_EQ(piece.records.size(), rvzd_server_entry_size(5));
    rvzd_server_entry_t entry;
    memcpy(&entry, piece.records.data(), RVZD_SERVER_ENTRY_NAME_OFFSET);
    EXPECT_EQ(entry.trait.prog, 390600u);
    EXPECT_EQ(entry.trait.proto, RVZD_PROTOCOL_TCP);
    EXPECT_EQ(entry.ports.ports[0].port, 4321u);
    EXPECT_EQ(entry.uuid.bytes[0], 7);
    EXPECT_EQ(entry.state, static_cast<int32_t>(ProcessState::idle));
    EXPECT_EQ(entry.pid, 50);
    EXPECT_STREQ(&piece.records[RVZD_SERVER_ENTRY_NAME_OFFSET], "/repo");
}

TEST_F(ListServers, WalksInPiecesThatNeitherRepeatNorMissOne) {
    register_servers(300);
    std::vector<uint64_t> walked;
    ServerListPiece piece;
    do {
        piece = list(walked.empty() ? 0 : walked.back());
        EXPECT_LE(piece.records.size(), size_t{RVZD_LIST_SERVERS_BYTES_MAX});
        const auto found = cookies(piece);
        ASSERT_FALSE(found.empty());
        walked.insert(walked.end(), found.begin(), found.end());
    } while (!piece.at_end);
    EXPECT_EQ(walked.size(), 300u);
    EXPECT_TRUE(std::is_sorted(walked.begin(), walked.end()));
    EXPECT_EQ(std::adjacent_find(walked.begin(), walked.end()), walked.end());
}

TEST_F(ListServers, GoesOnBehindACookieWhoseServerHasGone) {
    register_servers(3);
    const auto all = cookies(list(0));
    launcher.existing = {2, 4};
    pass_s(5);
    EXPECT_EQ(cookies(list(all[1])), std::vector<uint64_t>{all[2]});
}

TEST_F(ListServers, GivesNoRecordThatDoesNotFit) {
    register_servers(2);
    const uint64_t one = rvzd_server_entry_size(5);
    EXPECT_TRUE(list(0, one - 1).records.empty());
    EXPECT_FALSE(list(0, one - 1).at_end);
    EXPECT_EQ(cookies(list(0, 2 * one - 1)).size(), 1u);
    EXPECT_FALSE(list(0, 2 * one - 1).at_end);
    EXPECT_TRUE(list(0, 2 * one).at_end);
    EXPECT_TRUE(list(0, UINT64_MAX).at_end);
}

TEST_F(ListServers, IsTakenByTheWireAsItStands) {
    register_servers(50, std::string(SERVER_PATH_MAX, 'p'));
    auto piece = list(0);
    rvzd_list_servers_reply_t reply = {{}, 0, piece.records.size(), piece.at_end, piece.records.data()};
    std::vector<char> wire(65536);
    XDR stream;
    xdrmem_create(&stream, wire.data(), static_cast<u_int>(wire.size()), XDR_ENCODE);
    ASSERT_TRUE(xdr_rvzd_list_servers_reply_t(&stream, &reply));
    const u_int size = xdr_getpos(&stream);
    rvzd_list_servers_reply_t received = {{}, 0, 65536, 0, nullptr};
    xdrmem_create(&stream, wire.data(), size, XDR_DECODE);
    ASSERT_TRUE(xdr_rvzd_list_servers_reply_t(&stream, &received));
    EXPECT_EQ(received.size, piece.records.size());
    EXPECT_EQ(received.cookie, cookies(piece).back());
    EXPECT_FALSE(received.at_end);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_list_servers_reply_t), &received);
}

} // namespace
