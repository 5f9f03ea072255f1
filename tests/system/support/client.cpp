#include <tests/system/support/client.h>

namespace velia::system_test {

namespace {

constexpr rpcproc_t proc_echo = 1;
constexpr timeval call_timeout = {10, 0};

bool_t xdr_nothing(XDR * /*stream*/, ...) {
    return TRUE;
}

bool_t xdr_text(XDR *stream, char **text) {
    return xdr_string(stream, text, 65536);
}

} // namespace

Handle::Handle(const char *host, uint32_t protocol, uint32_t prim)
    : status_(rvzd_get_handle_prim_proto(host, protocol, prim, 0, &handle_)) {}

rvzd_rpc_trait_t trait_of(uint32_t program, rvzd_protocol_in_t transport) {
    return {program, 1, transport};
}

tbs_uuid_t uuid_of(uint8_t seed) {
    tbs_uuid_t uuid = {};
    for (auto &byte : uuid.bytes)
        byte = seed;
    return uuid;
}

Found find(const Handle &handle, uint32_t program, rvzd_protocol_in_t transport, uint8_t uuid, const char *path) {
    Found found = {};
    auto trait = trait_of(program, transport);
    const auto wanted = uuid_of(uuid);
    found.status = rvzd_find_server(handle.get(), &trait, &wanted, path, &found.address);
    return found;
}

std::optional<std::string> echo(const char *host, uint32_t program, rvzd_protocol_in_t transport,
                                const std::string &text, tbs_status_t *status) {
    rvzd_connection_t connection = {};
    connection.wait_s = 1;
    connection.transport = transport == RVZD_PROTOCOL_TCP;
    auto trait = trait_of(program, transport);
    const tbs_uuid_t uuid = {};
    const auto connected = rvzd_connect_to_server(host, &trait, &connection, &uuid, nullptr, "sample");
    if (status != nullptr)
        *status = connected;
    if (connected != TBS_ST_OK)
        return std::nullopt;
    std::optional<std::string> answer;
    const char *sent = text.c_str();
    char *received = nullptr;
    if (clnt_call(connection.client, NULLPROC, xdr_nothing, nullptr, xdr_nothing, nullptr, call_timeout) ==
            RPC_SUCCESS &&
        clnt_call(connection.client, proc_echo, reinterpret_cast<xdrproc_t>(xdr_text), &sent,
                  reinterpret_cast<xdrproc_t>(xdr_text), &received, call_timeout) == RPC_SUCCESS)
        answer = received;
    if (received != nullptr)
        clnt_freeres(connection.client, reinterpret_cast<xdrproc_t>(xdr_text), &received);
    AUTH *authenticator = connection.client->cl_auth;
    auth_destroy(authenticator);
    clnt_destroy(connection.client);
    return answer;
}

} // namespace velia::system_test
