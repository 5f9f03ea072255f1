// What a broker answers when it is asked for its servers, in both protocol versions, walked as a client walks it: piece
// by piece into a buffer of any size, as a list of matches, and each match with its address.
//
// The first byte chooses the version and the size of the buffer; the rest are replies, each behind two bytes of length.
// A call for which there is no reply left fails.
#include <fuzz/harness.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include <arpa/inet.h>

#include <rvzd/client/rvzd_clnt/cached_handle.h>
#include <rvzd/client/rvzd_clnt/server_records.h>
#include <support/stg.h>

namespace {

constexpr size_t request_room = 256;

// The broker: replies in the order of the input, whatever is asked.
struct Replies {
    const uint8_t *at;
    size_t left;

    bool next(std::string &bytes) {
        if (left < 2)
            return false;
        const size_t length = std::min<size_t>(size_t{at[0]} << 8 | at[1], left - 2);
        bytes.assign(reinterpret_cast<const char *>(at) + 2, length);
        at += 2 + length;
        left -= 2 + length;
        return true;
    }
};

Replies replies;

// Runs a routine as the type that it is of; a sanitizer looks at that. The record of both reply forms is the same.
template <class Record>
bool_t run(xdrproc_t routine, XDR &stream, void *record) {
    return reinterpret_cast<bool_t (*)(XDR *, Record *)>(routine)(&stream, static_cast<Record *>(record));
}

// A reply goes through a routine of the library's around that of the record; its type is known there alone.
[[clang::no_sanitize("function")]] bool_t run_reply(xdrproc_t routine, XDR &stream, void *reply) {
    return routine(&stream, reply);
}

clnt_stat call(CLIENT *, rpcproc_t, xdrproc_t request_routine, void *request, xdrproc_t reply_routine, void *reply,
               timeval) {
    char sent[request_room];
    XDR stream;
    xdrmem_create(&stream, sent, sizeof sent, XDR_ENCODE);
    if (!run<rvzd_list_servers_req_t>(request_routine, stream, request))
        return RPC_CANTENCODEARGS;
    std::string bytes;
    if (!replies.next(bytes))
        return RPC_CANTRECV;
    // At their own end of a heap block, so that a sanitizer sees any read behind them.
    const auto block = std::make_unique<char[]>(bytes.size());
    memcpy(block.get(), bytes.data(), bytes.size());
    xdrmem_create(&stream, block.get(), static_cast<u_int>(bytes.size()), XDR_DECODE);
    return run_reply(reply_routine, stream, reply) ? RPC_SUCCESS : RPC_CANTDECODERES;
}

bool_t free_reply(CLIENT *, xdrproc_t routine, void *reply) {
    XDR stream = {};
    stream.x_op = XDR_FREE;
    return run<rvzd_list_servers_reply_t>(routine, stream, reply);
}

void tell_error(CLIENT *, rpc_err *error) {
    *error = {};
    error->re_status = RPC_CANTRECV;
}

void abort_call(CLIENT *) {}
void destroy(CLIENT *) {}
bool_t control(CLIENT *, u_int, void *) {
    return FALSE;
}

std::remove_pointer_t<decltype(CLIENT::cl_ops)> operations = {call,       abort_call, tell_error,
                                                              free_reply, destroy,    control};

// A handle to that broker, on a host of both families.
struct Broker {
    CLIENT client = {};
    rvzd_cached_handle_t record = {};
    rvzd_handle_t handle = {};

    explicit Broker(bool is_v70) {
        client.cl_ops = &operations;
        record.client = &client;
        record.protocol_version = is_v70 ? RVZD_PROTOCOL_V70 : RVZD_PROTOCOL_CURRENT;
        record.server_addr.addr_count = 2;
        record.server_addr.addrs[0].ipv4.sin_family = AF_INET;
        record.server_addr.addrs[1].ipv6.sin6_family = AF_INET6;
        handle.cached = &record;
        handle.tv_sec = 1;
    }
};

// Every byte that a piece says it used is part of a whole record, and the last one's cookie is where to go on.
void look_at(char *buffer, uint64_t used, uint64_t next_cookie) {
    for (uint64_t at = 0; at < used;) {
        rvzd_server_entry_t *entry = velia::rvzd_clnt::whole_record_at(buffer, used, at);
        FUZZ_REQUIRE(entry != nullptr);
        FUZZ_REQUIRE(rvzd_server_entry_name(entry)[entry->name_length] == '\0');
        at += rvzd_server_entry_size(entry->name_length);
        FUZZ_REQUIRE(at < used || (at == used && entry->cookie == next_cookie));
    }
}

void read_pieces(Broker &broker, size_t capacity) {
    const auto buffer = std::make_unique<uint64_t[]>((capacity + 7) / 8);
    char *bytes = reinterpret_cast<char *>(buffer.get());
    uint64_t cookie = 0;
    for (;;) {
        uint64_t next_cookie = cookie;
        uint64_t used = 0;
        tbs_boolean_t at_end = 0;
        const auto status = rvzd_list_servers(&broker.handle, cookie, capacity, bytes, &next_cookie, &used, &at_end);
        FUZZ_REQUIRE(status == TBS_ST_OK || status == TBS_ST_ERROR);
        FUZZ_REQUIRE(used <= capacity);
        look_at(bytes, used, next_cookie);
        if (status != TBS_ST_OK || at_end || next_cookie == cookie)
            return;
        cookie = next_cookie;
    }
}

// The number of nodes; each of them is whole and can be expanded.
size_t look_at(Broker &broker, llist_d_head_t &servers) {
    size_t count = 0;
    for (llist_d_head_t *at = servers.next; at != &servers; at = at->next, ++count) {
        auto *node = static_cast<rvzd_server_entry_elem_t *>(reinterpret_cast<llist_d_elem_t *>(at)->owner);
        FUZZ_REQUIRE(&node->element.links == at);
        FUZZ_REQUIRE(node->entry.name_length < RVZD_SERVER_PATH_SIZE);
        auto *info = rvzd_get_server_entry(&broker.handle, node, STG_HEAP_AREA);
        if (info != nullptr)
            FUZZ_REQUIRE(strcmp(info->name, rvzd_server_entry_name(&node->entry)) == 0);
        stg_free(info);
    }
    return count;
}

size_t list(Broker &broker, int32_t port) {
    llist_d_head_t servers;
    const auto status = rvzd_list_matching_servers(&broker.handle, -1, -1, -1, port, nullptr, -1, nullptr, &servers);
    const size_t count = look_at(broker, servers);
    FUZZ_REQUIRE(status == TBS_ST_OK || (status == TBS_ST_ERROR && count == 0));
    rvzd_destroy_server_entry_list(&servers);
    return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const fuzz::Messages messages;
    constexpr size_t capacity_step = 80;
    if (size == 0)
        return 0;
    Broker broker((data[0] & 1) != 0);
    const Replies input = {data + 1, size - 1};
    replies = input;
    read_pieces(broker, 1 + (data[0] >> 1) * capacity_step);
    replies = input;
    const size_t all = list(broker, RVZD_SERVER_ANY);
    replies = input;
    FUZZ_REQUIRE(list(broker, 4000) <= all);
    return 0;
}
