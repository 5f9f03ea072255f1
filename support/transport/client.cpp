#include "client.h"

#include <cstdlib>
#include <cstring>

#include <support/pfm.h>
#include <unistd.h>

#include "clock.h"
#include "limits.h"
#include "local_road.h"
#include "transaction.h"

namespace velia::support::transport {

namespace {

Client &client_of(CLIENT *handle) {
    return *static_cast<Client *>(handle->cl_private);
}

void number_call(Client &client) {
    if (!client.transaction_is_set)
        client.transaction = new_transaction_number();
    client.transaction_is_set = false;
}

void exchange(Client &client, const Call &call, int64_t until_us, bool waits) {
    if (!exchange_locally(client, call, until_us, waits))
        client.transport->exchange(client, call, until_us, waits);
}

// A peer that does not take the credentials is asked again with others, as long as there are any.
void exchange_with_credentials(Client &client, const Call &call, int64_t until_us, bool waits) {
    for (int renewals_left = 2;; --renewals_left) {
        number_call(client);
        exchange(client, call, until_us, waits);
        if (client.error.re_status != RPC_AUTHERROR || renewals_left == 0 || !renew_credentials(call, client.error))
            return;
    }
}

// A raise that comes during the call ends its wait, and lands here.
clnt_stat call(CLIENT *handle, rpcproc_t procedure, xdrproc_t xdr_arguments, void *arguments, xdrproc_t xdr_results,
               void *results, timeval time_out) {
    Client &client = client_of(handle);
    const Call wanted = {handle->cl_auth, client.program, client.version, procedure,
                         xdr_arguments,   arguments,      xdr_results,    results};
    const int64_t lasting_us = duration_us(client.has_time_out ? client.time_out : time_out);
    pfm_inhibit();
    exchange_with_credentials(client, wanted, deadline_after(lasting_us), lasting_us > 0);
    const clnt_stat status = client.error.re_status;
    if (status == RPC_SUCCESS)
        note_answer();
    pfm_enable();
    return status;
}

// A call is over when it returns, and there is no other to abort.
void abort_nothing(CLIENT *) {}

void get_error(CLIENT *handle, rpc_err *error) {
    *error = client_of(handle).error;
}

bool_t free_results(CLIENT *, xdrproc_t xdr_results, void *results) {
    XDR stream = {};
    stream.x_op = XDR_FREE;
    return (*xdr_results)(&stream, results);
}

void destroy(CLIENT *handle) {
    Client &client = client_of(handle);
    if (client.owns_descriptor)
        close(client.descriptor);
    discard_client(client);
}

bool turn_to(Client &client, const netbuf &address) {
    const auto *wanted = static_cast<const sockaddr *>(address.buf);
    if (wanted == nullptr || address.len < sizeof(sa_family_t) || sysutl_sockaddr_size(wanted) == 0 ||
        address.len < sysutl_sockaddr_size(wanted))
        return false;
    sysutl_copy_sockaddr(&client.peer, wanted);
    client.peer_buffer.len = sysutl_sockaddr_size(wanted);
    look_for_local_road(client);
    return client.transport->turn_to_peer(client) == 0;
}

bool is_time(const timeval &time) {
    return time.tv_sec >= 0 && time.tv_usec >= 0 && time.tv_usec < us_per_s;
}

bool set_time_out(Client &client, const timeval &time) {
    if (!is_time(time))
        return false;
    client.time_out = time;
    client.has_time_out = true;
    return true;
}

bool set_retransmission(Client &client, const timeval &time) {
    if (!client.transport->retransmits || !is_time(time) || duration_us(time) == 0)
        return false;
    client.retransmission_us = duration_us(time);
    return true;
}

bool get_retransmission(const Client &client, timeval &time) {
    time = {client.retransmission_us / us_per_s, client.retransmission_us % us_per_s};
    return client.transport->retransmits;
}

// The requests that carry nothing.
bool control_plain(Client &client, u_int request) {
    switch (request) {
    case CLSET_FD_CLOSE:
        client.owns_descriptor = true;
        return true;
    case CLSET_FD_NCLOSE:
        client.owns_descriptor = false;
        return true;
    case CLSET_CONNECT: // it is
        return client.transport->retransmits;
    default:
        return false;
    }
}

bool control_word(Client &client, u_int request, uint32_t &word) {
    switch (request) {
    case CLGET_XID:
        word = client.transaction;
        return true;
    case CLSET_XID:
        client.transaction = word;
        client.transaction_is_set = true;
        return true;
    case CLGET_VERS:
        word = client.version;
        return true;
    case CLSET_VERS:
        client.version = word;
        return true;
    case CLGET_PROG:
        word = client.program;
        return true;
    case CLSET_PROG:
        client.program = word;
        return true;
    default:
        return false;
    }
}

bool_t control(CLIENT *handle, u_int request, void *info) {
    Client &client = client_of(handle);
    if (control_plain(client, request))
        return TRUE;
    if (info == nullptr)
        return FALSE;
    switch (request) {
    case CLSET_TIMEOUT:
        return set_time_out(client, *static_cast<timeval *>(info));
    case CLGET_TIMEOUT:
        *static_cast<timeval *>(info) = client.time_out;
        return TRUE;
    case CLSET_RETRY_TIMEOUT:
        return set_retransmission(client, *static_cast<timeval *>(info));
    case CLGET_RETRY_TIMEOUT:
        return get_retransmission(client, *static_cast<timeval *>(info));
    case CLGET_FD:
        *static_cast<int *>(info) = client.descriptor;
        return TRUE;
    case CLGET_SERVER_ADDR:
        memcpy(info, &client.peer, client.peer_buffer.len);
        return TRUE;
    case CLGET_SVC_ADDR:
        *static_cast<netbuf *>(info) = client.peer_buffer;
        return TRUE;
    case CLSET_SVC_ADDR:
        return turn_to(client, *static_cast<netbuf *>(info));
    default:
        return control_word(client, request, *static_cast<uint32_t *>(info));
    }
}

CLIENT::clnt_ops operations = {call, abort_nothing, get_error, free_results, destroy, control};

} // namespace

bool begin_client(Client &client, const Transport &transport, const Origin &origin) {
    client.base.cl_auth = authnone_create();
    client.base.cl_ops = &operations;
    client.base.cl_private = &client;
    sysutl_copy_sockaddr(&client.peer, origin.address);
    const auto length = static_cast<unsigned>(sysutl_sockaddr_size(origin.address));
    client.peer_buffer = {static_cast<unsigned>(sizeof client.peer), length, &client.peer};
    client.program = origin.program;
    client.version = origin.version;
    client.time_out = {-1, -1};
    client.descriptor = origin.descriptor;
    client.transport = &transport;
    client.local.connection.descriptor = -1;
    look_for_local_road(client);
    return client.base.cl_auth != nullptr;
}

void discard_client(Client &client) {
    client.transport->release(client);
    leave_local_road(client);
    release(client.request);
    free(client.base.cl_netid);
    free(client.base.cl_tp);
    free(&client);
}

} // namespace velia::support::transport
