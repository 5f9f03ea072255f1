// The operations of a standard RPC client handle over an in-memory transport: real XDR bytes out, real XDR bytes in.
#include <tests/sim/rpc_client.h>

#include <cstring>
#include <type_traits>
#include <unistd.h>

#include <gtest/gtest.h>

#include <support/pfm.h>
#include <tests/sim/noted.h>
#include <tests/sim/world.h>

namespace sim {
namespace {

constexpr size_t message_bytes_max = 65536;

struct SimClient {
    CLIENT client;
    AUTH first_authenticator;
    uint32_t program;
    uint32_t version;
    ks_sockaddr_storage_t address;
    int socket_fd;
    bool tcp;
    bool owns_socket;
    rpc_err error;
};

SimClient &self(CLIENT *client) {
    return *static_cast<SimClient *>(static_cast<void *>(client->cl_private));
}

// The RPC library holds a lock of its own in its operations: a raise through one of them leaves it held.
void expect_raises_held_off() {
    pfm_frame_t frame = {};
    pfm_cleanup_start(&frame, 0);
    EXPECT_GT(frame.inhibit_depth, 0);
    pfm_cleanup_rls(&frame);
}

clnt_stat fail(SimClient &me, clnt_stat outcome, int error_number = 0) {
    me.error = {};
    me.error.re_status = outcome;
    me.error.re_errno = error_number;
    return outcome;
}

bool encode_request(xdrproc_t routine, void *request, Bytes &bytes) {
    bytes.resize(message_bytes_max);
    XDR xdrs;
    xdrmem_create(&xdrs, reinterpret_cast<char *>(bytes.data()), static_cast<u_int>(bytes.size()), XDR_ENCODE);
    if (!routine(&xdrs, request))
        return false;
    bytes.resize(xdr_getpos(&xdrs));
    return true;
}

bool decode_reply(xdrproc_t routine, void *reply, Bytes &bytes) {
    XDR xdrs;
    xdrmem_create(&xdrs, reinterpret_cast<char *>(bytes.data()), static_cast<u_int>(bytes.size()), XDR_DECODE);
    return routine(&xdrs, reply);
}

clnt_stat call(CLIENT *client, rpcproc_t procedure, xdrproc_t request_routine, void *request, xdrproc_t reply_routine,
               void *reply, timeval time_out) {
    SimClient &me = self(client);
    World &world = World::current();
    world.support_call();
    const int64_t time_out_us = time_out.tv_sec * 1'000'000 + time_out.tv_usec;
    Bytes bytes;
    if (!encode_request(request_routine, request, bytes))
        return fail(me, RPC_CANTENCODEARGS);
    Answer answer = world.peer.take({me.program, me.version, procedure, me.tcp, me.address, bytes,
                                     client->cl_auth->ah_cred.oa_flavor, time_out_us});
    if (answer.delay_us > time_out_us) {
        world.now_us += time_out_us;
        return fail(me, RPC_TIMEDOUT);
    }
    world.now_us += answer.delay_us;
    if (answer.outcome != RPC_SUCCESS)
        return fail(me, answer.outcome, answer.error_number);
    if (!decode_reply(reply_routine, reply, answer.reply))
        return fail(me, RPC_CANTDECODERES);
    return fail(me, RPC_SUCCESS);
}

void geterr(CLIENT *client, rpc_err *error) {
    *error = self(client).error;
}

bool_t freeres(CLIENT *, xdrproc_t routine, void *reply) {
    expect_raises_held_off();
    ++World::current().replies_freed;
    XDR xdrs = {};
    xdrs.x_op = XDR_FREE;
    return routine(&xdrs, reply);
}

void destroy(CLIENT *client) {
    SimClient &me = self(client);
    if (me.owns_socket)
        close(me.socket_fd);
    --World::current().clients;
    delete &me;
}

bool_t control(CLIENT *client, u_int request, void *info) {
    SimClient &me = self(client);
    switch (request) {
    case CLSET_FD_CLOSE:
        me.owns_socket = true;
        return TRUE;
    case CLSET_FD_NCLOSE:
        me.owns_socket = false;
        return TRUE;
    case CLSET_TIMEOUT:
    case CLSET_RETRY_TIMEOUT: {
        const auto *time = static_cast<timeval *>(info);
        World::current().controls.push_back(std::to_string(request) + " " + std::to_string(time->tv_sec) + "." +
                                            std::to_string(time->tv_usec));
        return TRUE;
    }
    case CLGET_SERVER_ADDR:
        memcpy(info, &me.address, sizeof me.address);
        return TRUE;
    default:
        return FALSE;
    }
}

void abort_call(CLIENT *) {}

std::remove_pointer_t<decltype(CLIENT::cl_ops)> operations = {call, abort_call, geterr, freeres, destroy, control};

} // namespace

CLIENT *make_client(const sockaddr *address, uint32_t program, uint32_t version, int socket_fd, bool tcp,
                    bool owns_socket) {
    auto *me = new SimClient{};
    me->program = program;
    me->version = version;
    memcpy(&me->address, address, sysutl_sockaddr_size(address));
    me->socket_fd = socket_fd;
    me->tcp = tcp;
    me->owns_socket = owns_socket;
    me->client.cl_ops = &operations;
    me->client.cl_private = reinterpret_cast<char *>(me);
    make_first_authenticator(me->first_authenticator);
    me->client.cl_auth = &me->first_authenticator;
    ++World::current().clients;
    return &me->client;
}

} // namespace sim
