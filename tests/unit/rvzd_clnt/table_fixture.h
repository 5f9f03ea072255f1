// A broker with a table of servers, which it gives out in pieces, and what the tests ask of it.
#pragma once

#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <algorithm>
#include <cstring>

#include <veliaxdr/rvzd_servers.h>

namespace {

struct Server {
    uint64_t cookie;
    std::string name = "/srv/a";
    rvzd_rpc_trait_t trait = {390600, 1, RVZD_PROTOCOL_UDP};
    rvzd_server_port_list_t ports = {1, {{AF_INET, 4000}, {0, 0}}};
    tbs_uuid_t uuid = {};
    int32_t state = 3;
    int32_t pid = 77;
};

// The records in the flat form of a reply.
[[maybe_unused]] std::vector<uint64_t> packed(const std::vector<Server> &servers) {
    std::vector<uint64_t> records;
    for (const Server &server : servers) {
        const size_t at = records.size();
        records.resize(at + rvzd_server_entry_size(server.name.size()) / sizeof(uint64_t));
        auto *entry = reinterpret_cast<rvzd_server_entry_t *>(&records[at]);
        entry->cookie = server.cookie;
        entry->trait = server.trait;
        entry->ports = server.ports;
        entry->uuid = server.uuid;
        entry->state = server.state;
        entry->pid = server.pid;
        entry->name_length = static_cast<uint16_t>(server.name.size());
        memcpy(rvzd_server_entry_name(entry), server.name.data(), server.name.size());
    }
    return records;
}

[[maybe_unused]] sim::Answer list_reply(const std::vector<Server> &servers, bool at_end, bool is_v70 = false,
                                        tbs_status_t status = TBS_ST_OK) {
    auto records = packed(servers);
    rvzd_list_servers_reply_t reply = {{0, status},
                                       0,
                                       records.size() * sizeof(uint64_t),
                                       at_end ? 1 : 0,
                                       records.empty() ? nullptr : reinterpret_cast<char *>(records.data())};
    return sim::reply(is_v70 ? xdr_rvzd_list_servers_v70_reply_t : xdr_rvzd_list_servers_reply_t, reply);
}

class TableTest : public BrokerTest {
protected:
    ~TableTest() override { rvzd_free_handle(handle); }

    // Gives out the servers behind the cookie in pieces of at most `piece` servers, all at once by default.
    void serve(std::vector<Server> servers, size_t piece = SIZE_MAX) {
        for (const bool is_v70 : {false, true})
            world.peer.on(is_v70 ? RVZD_PROC_LIST_SERVERS_V70 : RVZD_PROC_LIST_SERVERS,
                          [servers, piece, is_v70](const sim::Call &call) {
                              const auto request = call.decode(xdr_rvzd_list_servers_req_t);
                              std::vector<Server> behind;
                              std::copy_if(servers.begin(), servers.end(), std::back_inserter(behind),
                                           [&](const Server &server) { return server.cookie > request.cookie; });
                              const bool at_end = behind.size() <= piece;
                              behind.resize(std::min(behind.size(), piece));
                              return list_reply(behind, at_end, is_v70);
                          });
    }

    rvzd_handle_t *open(const char *host = "alpha") {
        rvzd_free_handle(handle);
        return handle = handle_to(host);
    }

    // What to ask for: everything but for what a test sets.
    struct Wanted {
        int32_t prog = -1;
        int32_t vers = -1;
        int32_t proto = -1;
        int32_t port = -1;
        const tbs_uuid_t *uuid = nullptr;
        int32_t pid = -1;
        const char *name = nullptr;
    };

    tbs_status_t list(const Wanted &wanted) {
        const auto status = rvzd_list_matching_servers(handle, wanted.prog, wanted.vers, wanted.proto, wanted.port,
                                                       wanted.uuid, wanted.pid, wanted.name, &head);
        return status;
    }

    std::vector<rvzd_server_entry_elem_t *> nodes() {
        std::vector<rvzd_server_entry_elem_t *> found;
        for (llist_d_head_t *at = head.next; at != nullptr && at != &head; at = at->next)
            found.push_back(static_cast<rvzd_server_entry_elem_t *>(reinterpret_cast<llist_d_elem_t *>(at)->owner));
        return found;
    }
    std::vector<uint64_t> cookies() {
        std::vector<uint64_t> found;
        for (const auto *node : nodes())
            found.push_back(node->entry.cookie);
        return found;
    }

    // The cookies of the servers that pass; the list is given back.
    std::vector<uint64_t> matching(const Wanted &wanted) {
        EXPECT_EQ(list(wanted), TBS_ST_OK);
        const auto found = cookies();
        rvzd_destroy_server_entry_list(&head);
        return found;
    }

    rvzd_handle_t *handle = nullptr;
    llist_d_head_t head = {};
};

} // namespace
