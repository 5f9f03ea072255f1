// The client list of a broker: reading it piece by piece, looking one host up, and entering this host in it.
#include <cstring>

#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <rvzd/client/rvzd_clnt/host_info.h>
#include <rvzd/client/rvzd_clnt/register_throttle.h>
#include <support/stg.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr size_t key_size = 256;
constexpr int brokers_max = 2;
constexpr char registration_kind[] = "ClientList";
constexpr int64_t registration_interval_s = 21600;

// Only a version above the older one has the newer numbers, whatever it is.
bool is_current(const rvzd_handle_t *handle) {
    return handle->cached->protocol_version > RVZD_PROTOCOL_V70;
}

// The brokers that this process is registered with, for its life.
char *contacted[brokers_max];

// The address of which the first of them was made. This is asked before each fetch, and making a key of an address that
// is the same again would take longer than all else that a fetch does before its call.
ks_sockaddr_storage_t contacted_first_at;

bool is_same_host(const ks_sockaddr_storage_t &left, const ks_sockaddr_storage_t &right) {
    if (left.base.sa_family != right.base.sa_family)
        return false;
    if (left.base.sa_family == AF_INET)
        return left.ipv4.sin_addr.s_addr == right.ipv4.sin_addr.s_addr;
    return left.base.sa_family == AF_INET6 && left.ipv6.sin6_scope_id == right.ipv6.sin6_scope_id &&
           IN6_ARE_ADDR_EQUAL(&left.ipv6.sin6_addr, &right.ipv6.sin6_addr);
}

bool is_contacted(const rvzd_handle_t *handle) {
    const rvzd_server_addr_t &addresses = handle->cached->server_addr;
    return contacted[1] != nullptr || (contacted[0] != nullptr && addresses.addr_count != 0 &&
                                       is_same_host(addresses.addrs[0], contacted_first_at));
}

// The broker's address as a name for a file; false when it cannot be turned into text.
bool key_of(const rvzd_handle_t *handle, char (&key)[key_size]) {
    const rvzd_server_addr_t &addresses = handle->cached->server_addr;
    if (addresses.addr_count == 0 || sysutl_host_numeric(&addresses.addrs[0].base, sizeof key, key, 0, 0) != 0)
        return false;
    for (char *at = strchr(key, ':'); at != nullptr; at = strchr(at, ':'))
        *at = '_';
    return true;
}

// False when there is nothing more to do in this process. The second slot is never compared: a process registers with
// two brokers at most, and once both are known there is nothing to find out.
bool note_in_process(const char *key, const ks_sockaddr_storage_t &address) {
    if (contacted[1] != nullptr || (contacted[0] != nullptr && strcmp(contacted[0], key) == 0))
        return false;
    if (contacted[0] == nullptr)
        contacted_first_at = address;
    char *&slot = contacted[0] == nullptr ? contacted[0] : contacted[1];
    slot = stg_strdup(key);
    return slot != nullptr;
}

bool note_on_host(const char *key) {
    if (was_noted(registration_kind, key, registration_interval_s))
        return false;
    note(registration_kind, key);
    return true;
}

void send_registration(rvzd_handle_t *handle) {
    rvzd_clnt_list_register_req_t request = {};
    rvzd_clnt_list_register_reply_t reply = {};
    with_release(
        [&]() -> tbs_status_t {
            const auto status = clnt_list_get_local_hostinfo(&request.hostinfo);
            return status == TBS_ST_OK ? broker_call(handle, procedures::clnt_list_register, request, reply,
                                                     [](clnt_stat) { return TBS_ST_OK; })
                                       : status;
        },
        [&] { with_inhibit([&] { release_local_hostinfo(request.hostinfo); }); });
}

} // namespace

void velia::rvzd_clnt::release_undelivered(rvzd_clnt_list_get_reply_t &reply) {
    if (reply.entries == nullptr)
        return;
    for (uint32_t i = 0; i < reply.count; ++i)
        rvzd_hostinfo_free(reply.entries[i].hostinfo);
    stg_free(reply.entries);
    reply.entries = nullptr;
}

tbs_status_t rvzd_clnt_list_get(rvzd_handle_t *handle, int32_t first, uint32_t second, int32_t *position,
                                tbs_boolean_t *finished, uint32_t *count, clnt_entry_t **entries) {
    return with_lock(call_lock, [&] {
        rvzd_clnt_list_get_req_t request = {{}, first, second, *position};
        rvzd_clnt_list_get_reply_t reply = {};
        return broker_call(handle, is_current(handle) ? procedures::clnt_list_get : procedures::clnt_list_get_v70,
                           request, reply, [&](clnt_stat outcome) -> tbs_status_t {
                               if (outcome != RPC_SUCCESS)
                                   return TBS_ST_RPC_FAILED;
                               if (reply.header.status != TBS_ST_OK)
                                   return reply.header.status;
                               *position = reply.position;
                               *finished = reply.at_end;
                               *count = reply.count;
                               *entries = reply.entries;
                               reply.entries = nullptr;
                               return TBS_ST_OK;
                           });
    });
}

void rvzd_clnt_list_get_free(rvzd_handle_t * /*unused*/, uint32_t /*unused*/, clnt_entry_t **entries) {
    *entries = nullptr;
}

tbs_status_t rvzd_clnt_list_lookup(rvzd_handle_t *handle, const char *host, clnt_entry_t *entry) {
    return with_lock(call_lock, [&] {
        rvzd_clnt_list_lookup_req_t request = {{}, const_cast<char *>(host)};
        rvzd_clnt_list_lookup_reply_t reply = {};
        return broker_call(handle,
                           quiet(is_current(handle) ? procedures::clnt_list_lookup : procedures::clnt_list_lookup_v70),
                           request, reply, [&](clnt_stat outcome) -> tbs_status_t {
                               if (outcome != RPC_SUCCESS)
                                   return outcome == RPC_PROCUNAVAIL ? TBS_ST_UNSUPPORTED : TBS_ST_RPC_FAILED;
                               if (reply.header.status == TBS_ST_OK) {
                                   *entry = reply.entry;
                                   reply.entry = {};
                               }
                               return reply.header.status;
                           });
    });
}

void rvzd_clnt_list_lookup_free(rvzd_handle_t * /*unused*/, clnt_entry_t *entry) {
    rvzd_hostinfo_free(entry->hostinfo);
    entry->hostinfo = {};
}

void rvzd_clnt_list_register(rvzd_handle_t *handle) {
    with_lock(call_lock, [&] {
        char key[key_size];
        if (is_contacted(handle))
            return;
        const bool is_due = with_inhibit([&] {
            return key_of(handle, key) && note_in_process(key, handle->cached->server_addr.addrs[0]) &&
                   note_on_host(key);
        });
        if (is_due)
            send_registration(handle);
    });
}
