// Clients by host name: the port comes from the port mapper of the host, which here is a server of the test.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <support/ks.h>

#include <rpc/pmap_prot.h>
#include <rpc/rpcb_prot.h>

#include "rpc_server.h"
#include "test_site.h"

namespace {

constexpr uint32_t program = 390600;
constexpr uint32_t version = 2;

// A port mapper that knows one server.
RpcServer::Answer mapper_of(const RpcServer &server, int type) {
    return [&server, type](const rpc_msg &call, XDR *arguments, XDR *results) {
        if (call.rm_call.cb_vers == PMAPVERS) {
            struct pmap wanted = {};
            if (!xdr_pmap(arguments, &wanted))
                return false;
            const bool is_known = call.rm_call.cb_proc == PMAPPROC_GETPORT && wanted.pm_prog == program &&
                                  wanted.pm_vers == version &&
                                  wanted.pm_prot == (type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP);
            unsigned port = is_known ? server.port() : 0;
            return xdr_u_int(results, &port) != FALSE;
        }
        rpcb wanted = {};
        if (call.rm_call.cb_vers != RPCBVERS_3 || call.rm_call.cb_proc != RPCBPROC_GETADDR ||
            !xdr_rpcb(arguments, &wanted))
            return false;
        const bool is_known = wanted.r_prog == program && wanted.r_vers == version &&
                              wanted.r_netid == std::string(type == SOCK_STREAM ? "tcp6" : "udp6");
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_rpcb), &wanted);
        std::string text =
            is_known ? "::1." + std::to_string(server.port() >> 8) + "." + std::to_string(server.port() & 0xff) : "";
        char *at = text.data();
        return xdr_wrapstring(results, &at) != FALSE;
    };
}

class Site : public TestSite {
public:
    Site(const RpcServer &mapper, const char *addresses) {
        write("config/services.conf", "sunrpc " + std::to_string(mapper.port()) + "/udp\n");
        write("config/hosts.conf", std::string("pluto ") + addresses + "\n");
    }
};

void expect_echo(CLIENT *client) {
    ASSERT_NE(client, nullptr) << ks_clnt_spcreateerror("");
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client, 4711, &reply), RPC_SUCCESS);
    EXPECT_EQ(reply, 4711u);
    int socket_fd = -1;
    clnt_control(client, CLGET_FD, reinterpret_cast<char *>(&socket_fd));
    clnt_destroy(client);
    EXPECT_LT(fcntl(socket_fd, F_GETFD), 0) << "the client owns its socket";
}

} // namespace

TEST(ClientByName, CallsOverTheTransportNamed) {
    for (const auto &[type, name] : {std::pair(SOCK_STREAM, "tcp"), std::pair(SOCK_DGRAM, "udp")}) {
        RpcServer server(AF_INET, type);
        RpcServer mapper(AF_INET, SOCK_DGRAM, mapper_of(server, type));
        Site site(mapper, "127.0.0.1");
        expect_echo(ks_clnt_create("pluto", program, version, name));
    }
}

TEST(ClientByName, CallsOverIpv6) {
    for (const auto &[type, name] : {std::pair(SOCK_STREAM, "tcp"), std::pair(SOCK_DGRAM, "udp")}) {
        RpcServer server(AF_INET6, type);
        RpcServer mapper(AF_INET6, SOCK_DGRAM, mapper_of(server, type));
        Site site(mapper, "::1");
        expect_echo(ks_clnt_create("pluto", program, version, name));
    }
}

TEST(ClientByName, TriesEachAddressUntilOneAnswers) {
    RpcServer server(AF_INET, SOCK_STREAM);
    RpcServer mapper(AF_INET, SOCK_DGRAM, mapper_of(server, SOCK_STREAM));
    Site site(mapper, "127.0.0.2 127.0.0.1");
    expect_echo(ks_clnt_create("pluto", program, version, "tcp"));
}

TEST(ClientByName, ProgramThatTheMapperDoesNotKnowIsNotRegistered) {
    for (const auto &[family, address] : {std::pair(AF_INET, "127.0.0.1"), std::pair(AF_INET6, "::1")}) {
        RpcServer server(family, SOCK_STREAM);
        RpcServer mapper(family, SOCK_DGRAM, mapper_of(server, SOCK_STREAM));
        Site site(mapper, address);
        EXPECT_EQ(ks_clnt_create("pluto", program + 1, version, "tcp"), nullptr);
        EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_PROGNOTREGISTERED);
    }
}

TEST(ClientByName, ForgedUniversalAddressIsNoPort) {
    RpcServer mapper(AF_INET6, SOCK_DGRAM, [](const rpc_msg &, XDR *, XDR *results) {
        std::string text = "::1.256.1";
        char *at = text.data();
        return xdr_wrapstring(results, &at) != FALSE;
    });
    Site site(mapper, "::1");
    EXPECT_EQ(ks_clnt_create("pluto", program, version, "udp"), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_PROGNOTREGISTERED);
}

TEST(ClientByName, HostWithoutAMapperIsAFailureOfTheMapper) {
    RpcServer server(AF_INET, SOCK_STREAM);
    RpcServer mapper(AF_INET, SOCK_DGRAM, mapper_of(server, SOCK_STREAM));
    Site site(mapper, "127.0.0.2");
    EXPECT_EQ(ks_clnt_create("pluto", program, version, "tcp"), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_PMAPFAILURE);
}

TEST(ClientByName, UnknownHostAndUnknownTransportAreTold) {
    TestSite site;
    EXPECT_EQ(ks_clnt_create(std::string(300, 'x').c_str(), program, version, "tcp"), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_UNKNOWNHOST);
    EXPECT_EQ(ks_clnt_create(nullptr, program, version, "tcp"), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_UNKNOWNHOST);
    EXPECT_EQ(ks_clnt_create("pluto", program, version, "sctp"), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_UNKNOWNPROTO);
    EXPECT_EQ(ks_clnt_create("pluto", program, version, nullptr), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_UNKNOWNPROTO);
}
