// The client list on the wire: cut to what a datagram carries, and whole in the end.
#include <arpa/inet.h>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <server/hosts/procedures.h>

using namespace velia::server;

namespace {

constexpr size_t datagram_bytes_max = 8800; // what the RPC library's clients take
constexpr size_t reply_message_bytes = 24;  // in front of the results

ListedHost client_at(uint8_t number, bool is_ipv6) {
    ListedHost client;
    if (is_ipv6) {
        client.address.ipv6.sin6_family = AF_INET6;
        client.address.ipv6.sin6_addr.s6_addr[15] = number;
    } else {
        client.address.ipv4.sin_family = AF_INET;
        client.address.ipv4.sin_addr.s_addr = htonl(0x0a000000U + number);
    }
    client.texts[CLIENT_HOSTNAME] = std::to_string(number);
    // One byte each costs a word on the wire.
    for (size_t i = CLIENT_PRODUCT; i < CLIENT_TEXT_COUNT; ++i)
        client.texts[i] = "x";
    return client;
}

class ClientPieces : public testing::TestWithParam<bool> {
protected:
    MessageBytes reply_to(int32_t position) {
        rvzd_clnt_list_get_req_t request = {{}, 0, 0, position};
        std::vector<char> bytes(256);
        XDR stream;
        xdrmem_create(&stream, bytes.data(), static_cast<u_int>(bytes.size()), XDR_ENCODE);
        EXPECT_TRUE(xdr_rvzd_clnt_list_get_req_t(&stream, &request));
        xdrmem_create(&stream, bytes.data(), static_cast<u_int>(bytes.size()), XDR_DECODE);
        Caller caller;
        caller.transport = RVZD_PROTOCOL_UDP;
        MessageBytes reply;
        const ReplySink keep_reply = [&](MessageBytes message) { reply = message; };
        HostProcedures procedures(list, [] {});
        for (const ServedProcedure &procedure : procedures.rows(RVZD_PROTOCOL_CURRENT))
            if (procedure.number == RVZD_PROC_CLNT_LIST_GET) {
                EXPECT_TRUE(procedure.run(procedure.owner, stream, {1, caller, keep_reply}));
            }
        return reply;
    }

    ClientList list;
};

INSTANTIATE_TEST_SUITE_P(Addresses, ClientPieces, testing::Bool(),
                         [](const auto &is_ipv6) { return is_ipv6.param ? "Ipv6" : "Ipv4"; });

} // namespace

TEST_P(ClientPieces, FitADatagramAndAddUpToTheList) {
    constexpr uint8_t clients = 200;
    for (uint8_t i = 0; i < clients; ++i)
        list.enter(client_at(i, GetParam()));
    std::set<std::string> names;
    int32_t position = 0;
    for (bool at_end = false; !at_end;) {
        MessageBytes message = reply_to(position);
        ASSERT_GT(message.size(), reply_message_bytes);
        ASSERT_LE(message.size(), datagram_bytes_max);
        XDR stream;
        xdrmem_create(&stream, reinterpret_cast<char *>(message.data() + reply_message_bytes),
                      static_cast<u_int>(message.size() - reply_message_bytes), XDR_DECODE);
        rvzd_clnt_list_get_reply_t reply = {};
        ASSERT_TRUE(xdr_rvzd_clnt_list_get_reply_t(&stream, &reply));
        ASSERT_GT(reply.position, position);
        for (uint32_t i = 0; i < reply.count; ++i) {
            EXPECT_TRUE(names.insert(reply.entries[i].hostinfo.hostname).second);
            xdr_free(reinterpret_cast<xdrproc_t>(xdr_clnt_hostinfo_t), &reply.entries[i].hostinfo);
        }
        free(reply.entries);
        position = reply.position;
        at_end = reply.at_end != 0;
    }
    EXPECT_EQ(names.size(), clients);
}
