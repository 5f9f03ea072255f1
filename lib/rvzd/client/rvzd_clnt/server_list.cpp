// The broker's table of servers: a piece of it in the caller's buffer, or all of it as a list of the records wanted.
// The cookie carries the whole state of a walk, so a cookie that comes again is a walk that does not end.
#include <veliaxdr/rvzd_servers.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>

#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <rvzd/client/rvzd_clnt/server_records.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::rvzd_clnt;

static_assert(sizeof(rvzd_server_entry_elem_t) == 1128 && offsetof(rvzd_server_entry_elem_t, entry) == 24);
static_assert(sizeof(rvzd_server_info_t) == 1112);
static_assert(offsetof(rvzd_server_info_t, trait) == 8 && offsetof(rvzd_server_info_t, address) == 32);
static_assert(offsetof(rvzd_server_info_t, uuid) == 60 && offsetof(rvzd_server_info_t, state) == 76);
static_assert(offsetof(rvzd_server_info_t, name_length) == 84 && offsetof(rvzd_server_info_t, name) == 86);
static_assert((RVZD_SERVER_PATH_SIZE - 1 + 86) / 8 * 8 == RVZD_SERVER_ENTRY_BYTES);

namespace {

struct Filter {
    int32_t prog;
    int32_t vers;
    int32_t proto;
    int32_t port;
    const tbs_uuid_t *uuid;
    int32_t pid;
    const char *name;
};

// The sign of what is wanted is extended, and a number of the wire never is negative: what has its highest bit set
// equals nothing.
bool passes_number(int32_t wanted, uint64_t found) {
    return wanted == RVZD_SERVER_ANY || static_cast<uint64_t>(int64_t{wanted}) == found;
}

bool passes_word(int32_t wanted, int32_t found) {
    return wanted == RVZD_SERVER_ANY || wanted == found;
}

// The second port is looked at only in a list of two.
bool passes_port(int32_t wanted, const rvzd_server_port_list_t &list) {
    if (wanted == RVZD_SERVER_ANY)
        return true;
    const auto port = static_cast<uint32_t>(wanted);
    return list.count > 0 && (list.ports[0].port == port || (list.count == 2 && list.ports[1].port == port));
}

bool passes(const Filter &filter, rvzd_server_entry_t *entry) {
    return passes_number(filter.prog, entry->trait.prog) && passes_number(filter.vers, entry->trait.vers) &&
           passes_word(filter.proto, entry->trait.proto) && passes_port(filter.port, entry->ports) &&
           (filter.uuid == nullptr || tbs_uuid_cmp(filter.uuid, &entry->uuid) == 0) &&
           passes_word(filter.pid, entry->pid) &&
           (filter.name == nullptr || strcmp(filter.name, rvzd_server_entry_name(entry)) == 0);
}

// A copy of the record at the end of the list; false without storage.
bool append_copy(const rvzd_server_entry_t *entry, llist_d_head_t *servers) {
    return with_inhibit([&] {
        auto *node = static_cast<rvzd_server_entry_elem_t *>(stg_malloc(sizeof(rvzd_server_entry_elem_t)));
        if (node == nullptr)
            return false;
        memcpy(node->bytes, entry, rvzd_server_entry_size(entry->name_length));
        llist_d_insert(servers, node, &node->element, 0);
        return true;
    });
}

// A server has a port of its own in one of two transports, so no host has more of them than that.
constexpr uint32_t servers_max = 2 * 65536;

// One step of a walk, preset so that a call or an answer that failed shows as no progress.
struct Piece {
    alignas(rvzd_server_entry_t) char records[RVZD_SERVER_ENTRY_BYTES];
    uint64_t next_cookie;
    uint64_t used = 0;
    tbs_boolean_t at_end = 0;
    uint32_t count = 0; // of the records

    explicit Piece(uint64_t cookie) : next_cookie(cookie) {}
};

tbs_status_t collect(Piece &piece, const Filter &filter, llist_d_head_t *servers) {
    for (uint64_t at = 0; at < piece.used;) {
        rvzd_server_entry_t *entry = whole_record_at(piece.records, piece.used, at);
        if (entry == nullptr)
            return TBS_ST_ERROR;
        piece.next_cookie = entry->cookie;
        ++piece.count;
        if (passes(filter, entry) && !append_copy(entry, servers))
            return TBS_ST_NO_MEMORY;
        at += rvzd_server_entry_size(entry->name_length);
    }
    return TBS_ST_OK;
}

// Tells a walk that goes round: the cookie after 1, 2, 4, 8, ... steps is remembered, and one that is met again while
// it is remembered is in a circle. A circle of any length is found within three times its steps and those before it.
class Circle {
public:
    bool is_closed_by(uint64_t cookie) {
        if (cookie == remembered_)
            return true;
        if (++steps_ == steps_to_go_) {
            remembered_ = cookie;
            steps_ = 0;
            steps_to_go_ *= 2;
        }
        return false;
    }

private:
    uint64_t remembered_ = 0; // where every walk begins
    uint64_t steps_ = 0;
    uint64_t steps_to_go_ = 1;
};

tbs_status_t walk_table(rvzd_handle_t *handle, const Filter &filter, llist_d_head_t *servers) {
    Circle circle;
    uint32_t seen = 0;
    for (uint64_t cookie = 0;;) {
        Piece piece(cookie);
        auto status = rvzd_list_servers(handle, cookie, sizeof piece.records, piece.records, &piece.next_cookie,
                                        &piece.used, &piece.at_end);
        if (status == TBS_ST_OK)
            status = collect(piece, filter, servers);
        if (status != TBS_ST_OK || piece.at_end)
            return status;
        const bool stands_still = piece.next_cookie == cookie;
        cookie = piece.next_cookie;
        seen += piece.count; // cookies that never come again do not show that a walk has no end
        if (stands_still || seen > servers_max || circle.is_closed_by(cookie))
            return TBS_ST_ERROR;
    }
}

// A port that no socket address can hold is none.
bool is_reached_at(const ks_sockaddr_storage_t &address, const rvzd_server_port_t &port) {
    return address.base.sa_family == port.family && port.port <= UINT16_MAX;
}

bool find_address(const rvzd_server_addr_t &host, const rvzd_server_port_list_t &list, ks_sockaddr_storage_t &found) {
    const uint32_t ports = list.count == 2 ? 2 : std::min<uint32_t>(list.count, 1);
    for (uint32_t i = 0; i < std::min<uint32_t>(host.addr_count, RVZD_SERVER_ADDRS_MAX); ++i)
        for (uint32_t j = 0; j < ports; ++j)
            if (is_reached_at(host.addrs[i], list.ports[j])) {
                found = host.addrs[i];
                sysutl_sockaddr_set_port(&found.base, htons(static_cast<uint16_t>(list.ports[j].port)));
                return true;
            }
    return false;
}

// The bound is one more than the length, so that the last character is kept whether or not the copier counts the NUL.
void copy_name(const rvzd_server_entry_elem_t *node, rvzd_server_info_t *info) {
    const size_t length = std::min<size_t>(node->entry.name_length, RVZD_SERVER_PATH_SIZE - 1);
    strutl_cpy_buf(info->name, node->bytes + RVZD_SERVER_ENTRY_NAME_OFFSET, length + 1);
}

} // namespace

// A failure is told by the printed line and by results that stay as they were: callers have come to preset them.
tbs_status_t rvzd_list_servers(rvzd_handle_t *handle, uint64_t cookie, uint64_t buffer_size, char *buffer,
                               uint64_t *next_cookie, uint64_t *used, tbs_boolean_t *at_end) {
    if (buffer == nullptr)
        return TBS_ST_INVALID_ARG;
    return with_lock(call_lock, [&] {
        const bool is_v70 = rvzd_get_server_protocol_version(handle) == RVZD_PROTOCOL_V70;
        rvzd_list_servers_req_t request = {{}, cookie, std::min<uint64_t>(buffer_size, RVZD_LIST_SERVERS_BYTES_MAX)};
        rvzd_list_servers_reply_t reply = {{}, cookie, buffer_size, 0, buffer};
        return broker_call(handle, is_v70 ? procedures::list_servers_v70 : procedures::list_servers, request, reply,
                           [&](clnt_stat outcome) -> tbs_status_t {
                               if (outcome != RPC_SUCCESS || reply.header.status != TBS_ST_OK)
                                   return TBS_ST_OK;
                               *next_cookie = reply.cookie;
                               *used = reply.size;
                               *at_end = reply.at_end;
                               const bool stands_still = reply.cookie == cookie && !reply.at_end;
                               return stands_still ? TBS_ST_ERROR : TBS_ST_OK;
                           });
    });
}

tbs_status_t rvzd_list_matching_servers(rvzd_handle_t *handle, int32_t prog, int32_t vers, int32_t proto, int32_t port,
                                        const tbs_uuid_t *uuid, int32_t pid, const char *name,
                                        llist_d_head_t *servers) {
    if (servers == nullptr)
        return TBS_ST_ERROR;
    const Filter filter = {prog, vers, proto, port, uuid, pid, name};
    return with_lock(call_lock, [&] {
        servers->next = servers->previous = servers;
        return with_cleanup(
            [&] {
                const auto status = walk_table(handle, filter, servers);
                if (status != TBS_ST_OK)
                    rvzd_destroy_server_entry_list(servers);
                return status;
            },
            [&] { rvzd_destroy_server_entry_list(servers); });
    });
}

void rvzd_destroy_server_entry_list(llist_d_head_t *servers) {
    if (servers == nullptr || servers->next == nullptr)
        return;
    with_inhibit([&] {
        while (servers->next != servers) {
            auto *element = reinterpret_cast<llist_d_elem_t *>(servers->next);
            void *node = element->owner;
            llist_d_remove(element);
            stg_free(node);
        }
    });
}

rvzd_server_info_t *rvzd_get_server_entry(rvzd_handle_t *handle, const rvzd_server_entry_elem_t *node,
                                          stg_area_t area) {
    return with_inhibit([&]() -> rvzd_server_info_t * {
        auto *info = static_cast<rvzd_server_info_t *>(stg_alloc(area, sizeof(rvzd_server_info_t)));
        if (info == nullptr)
            return nullptr;
        const rvzd_server_entry_t &entry = node->entry;
        info->cookie = entry.cookie;
        info->trait = entry.trait;
        if (!find_address(handle->cached->server_addr, entry.ports, info->address)) {
            // An area keeps the block until its end; of the plain heap it would be lost.
            if (area == STG_HEAP_AREA)
                stg_free(info);
            return nullptr;
        }
        info->uuid = entry.uuid;
        info->state = entry.state;
        info->pid = entry.pid;
        info->name_length = entry.name_length;
        copy_name(node, info);
        return info;
    });
}
