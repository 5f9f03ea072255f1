// A transport without a handle: one RPC client for the process.
#include <cstdio>

#include <support/ks.h>
#include <support/strutl.h>
#include <veliaxdr/sched_handle.h>

namespace {

constexpr char error_prefix[] = "SCHED";

CLIENT *or_own(CLIENT *client) {
    return client != nullptr ? client : sched_clnt;
}

void set_time(CLIENT *client, u_int request, const timeval &time) {
    client = or_own(client);
    if (client != nullptr)
        clnt_control(client, request, reinterpret_cast<char *>(const_cast<timeval *>(&time)));
}

timeval time_of(int64_t seconds, int64_t microseconds) {
    return {static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
}

} // namespace

CLIENT *sched_clnt;

CLIENT *sched_open_transport(const char *server, uint32_t program, uint32_t version) {
    if (server == nullptr) {
        fputs("sched_open_transport(): servername (nil)!\n", stderr);
        return nullptr;
    }
    const uint32_t wanted_program = program != 0 ? program : sched_client_rpc_number();
    const uint32_t wanted_version = version != 0 ? version : uint32_t{SCHED_RPC_VERSION};
    CLIENT *client = ks_clnt_create(server, wanted_program, wanted_version, "tcp");
    if (client == nullptr)
        client = ks_clnt_create(server, wanted_program, wanted_version, "udp");
    if (client == nullptr) {
        ks_clnt_pcreateerror(error_prefix);
        return nullptr;
    }
    sched_clnt = client;
    return client;
}

CLIENT *sched_open_service(const char *server, uint64_t /*unused1*/, uint64_t /*unused2*/, uint64_t /*unused3*/,
                           uint64_t /*unused4*/, char *error_text, int32_t *error) {
    CLIENT *client = sched_open_transport(server, 0, 0);
    if (client == nullptr && error_text != nullptr)
        strutl_cpy_buf(error_text, ks_clnt_spcreateerror(error_prefix), SCHED_ERROR_TEXT_SIZE);
    if (error != nullptr)
        *error = client != nullptr ? 0 : -1;
    return client;
}

void sched_close_transport(CLIENT *client) {
    client = or_own(client);
    if (client == nullptr)
        return;
    clnt_destroy(client);
    if (client == sched_clnt)
        sched_clnt = nullptr;
}

int sched_change_timeout(CLIENT *client, int64_t seconds, int64_t microseconds) {
    sched_timeout = time_of(seconds, microseconds);
    set_time(client, CLSET_TIMEOUT, sched_timeout);
    return 1;
}

int sched_change_retry_timeout(CLIENT *client, int64_t seconds, int64_t microseconds) {
    set_time(client, CLSET_RETRY_TIMEOUT, time_of(seconds, microseconds));
    return 1;
}

int sched_clnt_perror(CLIENT *client, const char *text, uint64_t /*unused*/) {
    client = or_own(client);
    if (client != nullptr)
        ks_clnt_perror(client, text);
    else
        perror(text);
    return 1;
}

int sched_rpc_init(void) {
    return 1;
}

int sched_namebroker(void) {
    return 0;
}

uint32_t sched_client_rpc_number(void) {
    return 1;
}

void sched_secure_install(void) {}
void sched_secure_uninstall(void) {}
void sched_unsecure_transport(void) {}

int sched_secure_transport(void) {
    return 0;
}
