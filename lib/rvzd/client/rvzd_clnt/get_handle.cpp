// Obtaining a handle: settle the host, find or make the shared record, give it addresses and a connection, and learn
// the peer's protocol version unless it is known from a moment ago. A cached record that fails may merely be stale: it
// is discarded and one fresh attempt is made.
#include <rvzd/client/rvzd_clnt/get_handle.h>

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <unistd.h>

#include <common/with.h>
#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <rvzd/client/rvzd_clnt/rpc_client.h>
#include <support/fileutl.h>
#include <support/stg.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr size_t local_host_size = 64;
constexpr time_t contact_skipped_s = 4;
constexpr int msg_operation_failed = 46;
constexpr int server_side_component = 1;

char *rvzd_wk_localhost;
rvzd_server_addr_t rvzd_wk_localaddr;

struct Attempt {
    const HandleRequest &wanted;
    rvzd_handle_t *&handle;
    const char *host; // identical with rvzd_wk_localhost when it is this host
    uint32_t bucket;

    rvzd_cached_handle_t *record() const { return handle->cached; }
    RecordKey key() const { return {host, wanted.protocol, wanted.prim}; }
};

// How a step ended: `record_failed` means that this record is of no use, and that another attempt may be.
enum class Verdict { good, record_failed, final };

struct Outcome {
    Verdict verdict;
    tbs_status_t status;
    bool client_only = false;
};

constexpr Outcome good = {Verdict::good, TBS_ST_OK};

Outcome record_failed(tbs_status_t status) {
    return {Verdict::record_failed, status};
}
Outcome final_failure(tbs_status_t status) {
    return {Verdict::final, status};
}

tbs_status_t remember_local_host(bool quiet) {
    char name[local_host_size];
    if (gethostname(name, sizeof name) != 0) {
        if (!quiet)
            imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, msg_operation_failed, "gethostname",
                              imsg_strerror(errno));
        return TBS_ST_NOT_FOUND;
    }
    name[sizeof name - 1] = '\0';
    rvzd_wk_localhost = stg_strdup(name);
    return rvzd_wk_localhost != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

tbs_status_t settle_host(Attempt &attempt) {
    const char *given = attempt.wanted.host;
    if (given != nullptr && *given != '\0') {
        const bool is_local = rvzd_wk_localhost != nullptr && strcmp(given, rvzd_wk_localhost) == 0;
        attempt.host = is_local ? rvzd_wk_localhost : given;
        return TBS_ST_OK;
    }
    const auto status = rvzd_wk_localhost == nullptr ? remember_local_host(attempt.wanted.quiet) : TBS_ST_OK;
    attempt.host = rvzd_wk_localhost;
    return status;
}

// The caller's half. It goes to the out pointer at once, where the undoing finds it.
bool make_handle(Attempt &attempt) {
    attempt.handle = static_cast<rvzd_handle_t *>(stg_malloc(sizeof(rvzd_handle_t)));
    if (attempt.handle == nullptr)
        return false;
    *attempt.handle = {nullptr, attempt.wanted.timeout_s, 0};
    return true;
}

tbs_status_t take_new_record(Attempt &attempt) {
    attempt.handle->cached = make_record(attempt.key(), attempt.wanted.generic_service);
    return attempt.record() != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

tbs_status_t take_record(Attempt &attempt) {
    return with_inhibit([&]() -> tbs_status_t {
        if (!make_handle(attempt))
            return TBS_ST_NO_MEMORY;
        rvzd_cached_handle_t *known = find_record(attempt.bucket, attempt.key());
        if (known == nullptr)
            return take_new_record(attempt);
        take_reference(known);
        attempt.handle->cached = known;
        return TBS_ST_OK;
    });
}

tbs_status_t status_of_resolver(int code) {
    switch (code) {
    case EAI_AGAIN:
        return TBS_ST_TRY_AGAIN;
    case EAI_NONAME:
        return TBS_ST_NOT_FOUND;
    default:
        return TBS_ST_ERROR;
    }
}

// The first IPv4 and the first IPv6 address, in the order in which they come.
void take_addresses(const addrinfo *list, rvzd_server_addr_t &out) {
    bool have_ipv4 = false;
    bool have_ipv6 = false;
    for (const addrinfo *entry = list; entry != nullptr && out.addr_count < RVZD_SERVER_ADDRS_MAX;
         entry = entry->ai_next) {
        if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6)
            continue;
        bool &have = entry->ai_family == AF_INET ? have_ipv4 : have_ipv6;
        if (have)
            continue;
        have = true;
        sysutl_copy_sockaddr(&out.addrs[out.addr_count++], entry->ai_addr);
    }
}

bool copy_host_name(const Attempt &attempt) {
    attempt.record()->host_name = stg_strdup(attempt.host);
    return attempt.record()->host_name != nullptr;
}

Outcome resolve_host(const Attempt &attempt) {
    addrinfo *list = nullptr;
    const int code = sysutl_host_addr(attempt.host, nullptr, 0, &list);
    if (code != 0) {
        if (!attempt.wanted.quiet)
            imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_UNKNOWN_HOST, attempt.host, gai_strerror(code));
        return final_failure(status_of_resolver(code));
    }
    const bool named = with_inhibit([&] {
        take_addresses(list, attempt.record()->server_addr);
        if (list != nullptr)
            freeaddrinfo(list);
        return copy_host_name(attempt);
    });
    if (!named)
        return final_failure(TBS_ST_NO_MEMORY);
    if (attempt.host == rvzd_wk_localhost)
        rvzd_wk_localaddr = attempt.record()->server_addr;
    return good;
}

Outcome find_addresses(const Attempt &attempt) {
    if (attempt.host != rvzd_wk_localhost || rvzd_wk_localaddr.addr_count == 0)
        return resolve_host(attempt);
    attempt.record()->server_addr = rvzd_wk_localaddr;
    return copy_host_name(attempt) ? good : final_failure(TBS_ST_NO_MEMORY);
}

Outcome set_ports(const Attempt &attempt) {
    if (fileutl_is_localhost(attempt.host) && (tbs_product_comp_test(server_side_component) & 1) == 0)
        return {Verdict::record_failed, TBS_ST_RPC_FAILED, true};
    rvzd_server_addr_t &addresses = attempt.record()->server_addr;
    for (uint32_t i = 0; i < addresses.addr_count; ++i) {
        uint16_t port;
        const auto status = rvzd_get_port(attempt.host, &port, addresses.addrs[i].base.sa_family);
        if (status != TBS_ST_OK)
            return record_failed(status);
        sysutl_sockaddr_set_port(&addresses.addrs[i].base, port);
    }
    return good;
}

Outcome connect_record(const Attempt &attempt) {
    if (attempt.record()->client != nullptr) // of the parent of this process
        with_inhibit([&] { drop_connection(attempt.record()); });
    switch (make_client(attempt.record(), attempt.wanted.program)) {
    case ClientResult::made:
        return good;
    case ClientResult::no_authenticator:
        return final_failure(TBS_ST_ERROR);
    default:
        return record_failed(TBS_ST_ERROR);
    }
}

// A peer that knows only the older version may say so with TBS_ST_UNSUPPORTED, and is still accepted.
Outcome judge_contact(rvzd_cached_handle_t *record, const rvzd_contact_reply_t &reply, time_t now) {
    if (reply.header.status != TBS_ST_OK && reply.header.status != TBS_ST_UNSUPPORTED)
        return final_failure(reply.header.status);
    if (reply.protocol_version != RVZD_PROTOCOL_CURRENT && reply.protocol_version != RVZD_PROTOCOL_V70)
        return final_failure(TBS_ST_UNSUPPORTED);
    record->protocol_version = static_cast<uint32_t>(reply.protocol_version);
    record->last_contact = now;
    return good;
}

// Neither record holds storage, so nothing here has to be released.
Outcome contact_peer(const Attempt &attempt) {
    rvzd_cached_handle_t *record = attempt.record();
    const time_t now = now_s();
    if (record->last_contact + contact_skipped_s >= now)
        return good;
    rvzd_contact_req_t request = {{}, RVZD_PROTOCOL_CURRENT};
    rvzd_contact_reply_t reply = {};
    const auto outcome =
        exchange_with_header(attempt.handle, nullptr, exchange_of(procedures::contact, request, reply));
    if (outcome == RPC_SUCCESS)
        return judge_contact(record, reply, now);
    if (outcome != RPC_TIMEDOUT && !attempt.wanted.quiet)
        print_failed_call(record->client, procedures::contact.failed_text);
    return record_failed(TBS_ST_RPC_FAILED);
}

Outcome ready_record(const Attempt &attempt) {
    Outcome outcome = good;
    if (attempt.record()->host_name == nullptr) {
        outcome = find_addresses(attempt);
        if (outcome.verdict == Verdict::good)
            outcome = set_ports(attempt);
    }
    if (outcome.verdict == Verdict::good && !is_connected(attempt.record()))
        outcome = connect_record(attempt);
    return outcome.verdict == Verdict::good ? contact_peer(attempt) : outcome;
}

void discard_stale_record(const Attempt &attempt) {
    with_inhibit([&] {
        rvzd_cached_handle_t *stale = attempt.record();
        attempt.handle->cached = nullptr;
        --stale->reference_count;
        rvzd_release_handle(stale);
    });
}

void print_failure(const Attempt &attempt, const Outcome &outcome) {
    if (attempt.wanted.quiet)
        return;
    imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table,
               outcome.client_only ? RVZD_MSG_CLIENT_ONLY_HOST : RVZD_MSG_CANNOT_CONTACT, attempt.record()->host_name);
}

tbs_status_t obtain(Attempt &attempt) {
    auto status = settle_host(attempt);
    if (status != TBS_ST_OK)
        return status;
    attempt.bucket = bucket_of(attempt.host, attempt.wanted.protocol);
    status = take_record(attempt);
    if (status != TBS_ST_OK)
        return status;
    Outcome outcome = ready_record(attempt);
    if (outcome.verdict == Verdict::record_failed && attempt.record()->hash_bucket != no_bucket) {
        discard_stale_record(attempt);
        status = with_inhibit([&] { return take_new_record(attempt); });
        if (status != TBS_ST_OK)
            return status;
        outcome = ready_record(attempt);
    }
    if (outcome.verdict == Verdict::record_failed)
        print_failure(attempt, outcome);
    if (outcome.verdict == Verdict::good && attempt.record()->hash_bucket == no_bucket)
        enter_record(attempt.record(), attempt.bucket);
    return outcome.status;
}

// The record leaves the table first, so that it is destroyed with its last handle and not kept for others.
void undo(rvzd_handle_t *&handle) {
    with_inhibit([&] {
        if (handle == nullptr)
            return;
        if (handle->cached != nullptr)
            rvzd_release_handle(handle->cached);
        rvzd_free_handle(handle);
        handle = nullptr;
    });
}

} // namespace

uint32_t velia::rvzd_clnt::default_protocol() {
    const char *service;
    const char *name;
    const char *file;
    uint16_t port;
    rvzdsvr_get_server_socket(&service, &name, &file, &port);
    for (uint32_t i = 0; i < RVZD_PROTOCOL_NAMES_COUNT; ++i)
        if (rvzd_protocol_names[i] != nullptr && strcmp(rvzd_protocol_names[i], name) == 0)
            return i;
    pfm_panic(source_file, __LINE__);
}

void velia::rvzd_clnt::give_back_handle(rvzd_handle_t *&handle) {
    with_inhibit([&] {
        rvzd_free_handle(handle);
        handle = nullptr;
    });
}

tbs_status_t velia::rvzd_clnt::rvzd_get_handle_prim_timeout_proto(const HandleRequest &wanted, rvzd_handle_t **out) {
    return with_lock(call_lock, [&] {
        *out = nullptr;
        Attempt attempt = {wanted, *out, nullptr, 0};
        return with_cleanup(
            [&] {
                const auto status = obtain(attempt);
                if (status != TBS_ST_OK)
                    undo(*out);
                return status;
            },
            [&] { undo(*out); });
    });
}

tbs_status_t rvzd_get_handle(const char *host, rvzd_handle_t **out) {
    return rvzd_get_handle_prim(host, 0, out);
}

tbs_status_t rvzd_get_handle_prim(const char *host, uint32_t prim, rvzd_handle_t **out) {
    return rvzd_get_handle_prim_proto(host, default_protocol(), prim, 0, out);
}

tbs_status_t rvzd_get_handle_proto(const char *host, uint32_t protocol, rvzd_handle_t **out) {
    return rvzd_get_handle_prim_proto(host, protocol, 0, 0, out);
}

tbs_status_t rvzd_get_handle_prim_proto(const char *host, uint32_t protocol, uint32_t prim, int quiet,
                                        rvzd_handle_t **out) {
    return rvzd_get_handle_prim_timeout_proto(
        {host, protocol, prim, default_timeout_s, quiet != 0, false, RVZD_PROGRAM}, out);
}

tbs_status_t rvzd_get_generic_service_handle(const char *host, uint32_t protocol, uint32_t program,
                                             rvzd_handle_t **out) {
    return rvzd_get_handle_prim_timeout_proto({host, protocol, 0, default_timeout_s, false, true, program}, out);
}
