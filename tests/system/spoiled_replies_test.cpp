// Every question of the client to a broker whose replies are cut at every byte, and spoiled in every word: each is
// answered with some status, soon, and nothing is lost. Leaks are looked for at the end of the process, where a
// sanitizer does.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>

#include <support/imsg.h>
#include <support/ks.h>
#include <tests/system/support/client.h>
#include <tests/system/support/rounds.h>
#include <tests/system/support/scripted_broker.h>
#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_hosts.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>
#include <veliaxdr/rvzd_servers.h>
#include <veliaxdr/rvzd_svr.h>

using namespace velia::system_test;
using velia::hostile::Bytes;

namespace {

constexpr uint32_t values[] = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff};
constexpr size_t word_bytes = ScriptedBroker::word_bytes;
constexpr int64_t limit_ms = 40;
constexpr int64_t soon_us = 2'000'000;
constexpr int tries_max = 100;

char *text(const char *words) {
    return const_cast<char *>(words);
}

// A server as it stands in the table, in protocol version 6's packed form.
std::vector<uint64_t> one_server() {
    const std::string name = "/server";
    std::vector<uint64_t> buffer(rvzd_server_entry_size(name.size()) / sizeof(uint64_t));
    auto *entry = reinterpret_cast<rvzd_server_entry_t *>(buffer.data());
    entry->cookie = 1;
    entry->trait = {390600, 1, RVZD_PROTOCOL_TCP};
    entry->ports = {1, {{AF_INET, 4711}, {0, 0}}};
    entry->name_length = static_cast<uint16_t>(name.size());
    memcpy(rvzd_server_entry_name(entry), name.c_str(), name.size() + 1);
    return buffer;
}

clnt_hostinfo_t host_info() {
    return {text("peer"), text("p"), text("1"), text("Linux"),    text("6"),
            text("x86"),  text("r"), text("g"), text("reserved"), text("-o")};
}

ks_sockaddr_storage_t ipv4_address() {
    ks_sockaddr_storage_t address = {};
    address.ipv4.sin_family = AF_INET;
    address.ipv4.sin_port = htons(4711);
    address.ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A good reply of every kind, by the fields that it has. What it points to lives as long as the process.
template <class Reply>
void fill(Reply &reply, uint32_t protocol_version) {
    static std::vector<uint64_t> server = one_server();
    static clnt_entry_t client = {ipv4_address(), host_info(), 1, 2};
    static rgy_svr_entry_t entries[] = {{1, text("-name=one;")}, {2, text("-name=two;")}};
    static rgy_db_info_t databases[] = {{4, text("regions"), {}, {}, 7}};
    if constexpr (requires { reply.protocol_version; })
        reply.protocol_version = protocol_version;
    if constexpr (requires { reply.path; })
        reply.path = text("/server");
    if constexpr (requires { reply.ports; })
        reply.ports = {2, {{AF_INET, 4711}, {AF_INET6, 4711}}};
    if constexpr (requires { reply.address.sin_port; })
        reply.address.sin_family = AF_INET;
    if constexpr (requires { reply.buffer; }) {
        reply.at_end = 1;
        reply.size = server.size() * sizeof(uint64_t);
        reply.buffer = reinterpret_cast<char *>(server.data());
    }
    if constexpr (requires { reply.hostinfo; })
        reply.hostinfo = host_info();
    if constexpr (requires { reply.entry; })
        reply.entry = client;
    if constexpr (requires { reply.position; }) {
        reply.at_end = 1;
        reply.count = 1;
        reply.entries = &client;
    }
    if constexpr (requires { reply.text1; })
        reply.text1 = reply.text2 = reply.text3 = text("some text");
    if constexpr (requires { reply.dtm; })
        reply.version = RGY_PROTOCOL_VERSION;
    if constexpr (requires { reply.cursor; }) {
        reply.count = 2;
        reply.entries = entries;
    }
    if constexpr (requires { reply.dbs; }) {
        reply.count = 1;
        reply.dbs = databases;
    }
    if constexpr (requires { reply.host_list; })
        reply.host_list = text("beta gamma");
}

template <class Reply>
Bytes encoded(bool_t (*routine)(XDR *, Reply *), uint32_t protocol_version) {
    Reply reply;
    memset(&reply, 0, sizeof reply);
    fill(reply, protocol_version);
    alignas(8) char bytes[8192];
    XDR stream;
    xdrmem_create(&stream, bytes, sizeof bytes, XDR_ENCODE);
    return routine(&stream, &reply) ? Bytes(bytes, xdr_getpos(&stream)) : Bytes();
}

std::map<uint32_t, Bytes> good_results(uint32_t protocol_version) {
    std::map<uint32_t, Bytes> results;
    velia::for_each_procedure([&](const auto &row) { results[row.number] = encoded(row.xdr_reply, protocol_version); });
    return results;
}

// A question of the client's. It takes over what comes of it and gives it back.
struct Question {
    const char *name;
    uint32_t procedure;
    uint32_t procedure_of_version_5;
    std::function<void(rvzd_handle_t *)> ask;
};

class Entries {
public:
    ~Entries() { rgy_elist_free(list, count_max); }
    static constexpr int64_t count_max = 3;
    rgy_elist_t list = rgy_elist_alloc(count_max);
    rgy_dtm_pair_t stamps = {};
    uint64_t cursor = 0;
    int64_t count = 0;
};

std::vector<Question> broker_questions() {
    static const tbs_uuid_t uuid = {};
    const auto same = [](const char *name, uint32_t procedure, std::function<void(rvzd_handle_t *)> ask) {
        return Question{name, procedure, procedure, std::move(ask)};
    };
    return {
        same("contact", RVZD_PROC_CONTACT, [](rvzd_handle_t *) {}),
        {"find_server", RVZD_PROC_FIND_SERVER, RVZD_PROC_FIND_SERVER_V70,
         [](rvzd_handle_t *handle) {
             auto trait = trait_of(390600, RVZD_PROTOCOL_TCP);
             rvzd_server_addr_t address;
             rvzd_find_server(handle, &trait, &uuid, "", &address);
         }},
        {"list_servers", RVZD_PROC_LIST_SERVERS, RVZD_PROC_LIST_SERVERS_V70,
         [](rvzd_handle_t *handle) {
             std::vector<uint64_t> buffer(512);
             uint64_t next = 0;
             uint64_t used = 0;
             tbs_boolean_t at_end = 0;
             rvzd_list_servers(handle, 0, buffer.size() * 8, reinterpret_cast<char *>(buffer.data()), &next, &used,
                               &at_end);
         }},
        {"list_matching_servers", RVZD_PROC_LIST_SERVERS, RVZD_PROC_LIST_SERVERS_V70,
         [](rvzd_handle_t *handle) {
             llist_d_head_t servers;
             rvzd_list_matching_servers(handle, -1, -1, -1, -1, nullptr, -1, nullptr, &servers);
             for (llist_d_head_t *at = servers.next; at != &servers; at = at->next)
                 stg_free(rvzd_get_server_entry(
                     handle, static_cast<rvzd_server_entry_elem_t *>(reinterpret_cast<llist_d_elem_t *>(at)->owner),
                     STG_HEAP_AREA));
             rvzd_destroy_server_entry_list(&servers);
         }},
        {"clnt_list_lookup", RVZD_PROC_CLNT_LIST_LOOKUP, RVZD_PROC_CLNT_LIST_LOOKUP_V70,
         [](rvzd_handle_t *handle) {
             clnt_entry_t entry = {};
             if (rvzd_clnt_list_lookup(handle, "peer", &entry) == TBS_ST_OK)
                 rvzd_clnt_list_lookup_free(handle, &entry);
         }},
        {"clnt_list_get", RVZD_PROC_CLNT_LIST_GET, RVZD_PROC_CLNT_LIST_GET_V70,
         [](rvzd_handle_t *handle) {
             int32_t position = 0;
             tbs_boolean_t is_finished = 0;
             uint32_t count = 0;
             clnt_entry_t *entries = nullptr;
             if (rvzd_clnt_list_get(handle, 0, 0, &position, &is_finished, &count, &entries) != TBS_ST_OK)
                 return;
             for (uint32_t i = 0; i < count; ++i)
                 xdr_free(reinterpret_cast<xdrproc_t>(xdr_clnt_entry_t), &entries[i]);
             stg_free(entries);
         }},
        same("remote_build_hi", RVZD_PROC_REMOTE_BUILD_HI,
             [](rvzd_handle_t *handle) {
                 int32_t numbers[3];
                 time_t when;
                 char texts[3][RVZD_REMOTE_BUILD_TEXT_SIZE];
                 rvzd_remote_build_request_hi(handle, "peer", 1, 1, &numbers[0], &numbers[1], &when, &numbers[2],
                                              texts[0], texts[1], texts[2]);
             }),
        same("register_server", RVZD_PROC_REGISTER_SERVER,
             [](rvzd_handle_t *handle) {
                 const auto trait = trait_of(390600, RVZD_PROTOCOL_TCP);
                 rvzd_register_server(handle, &trait, &uuid, "/server", nullptr, 0);
             }),
        same("server_idle", RVZD_PROC_SERVER_IDLE, [](rvzd_handle_t *handle) { rvzd_server_idle(handle, 1); }),
        same("server_busy", RVZD_PROC_SERVER_BUSY, [](rvzd_handle_t *handle) { rvzd_server_busy(handle, &uuid); }),
        same("server_alternate_uuid", RVZD_PROC_SERVER_ALTERNATE_UUID,
             [](rvzd_handle_t *handle) { rvzd_server_alternate_uuid(handle, &uuid); }),
        same("sched_info", RVZD_PROC_SCHED_INFO,
             [](rvzd_handle_t *handle) {
                 const rvzd_sched_info_pair_t pair = {};
                 rvzd_sched_info(handle, &uuid, &pair);
             }),
    };
}

// By the name of the host, which is asked over UDP.
std::vector<Question> host_questions() {
    return {
        {"hostinfo", RVZD_PROC_HOSTINFO, RVZD_PROC_HOSTINFO,
         [](rvzd_handle_t *) {
             clnt_hostinfo_t info = {};
             rvzd_hostinfo("peer", &info);
             rvzd_hostinfo_opts_t options = {};
             if (info.options != nullptr && rvzd_hostinfo_parse_opts(&info, &options) == TBS_ST_OK)
                 rvzd_hostinfo_free_opts(&options);
             rvzd_hostinfo_free(info);
         }},
        {"tz_info", RVZD_PROC_TZ_INFO, RVZD_PROC_TZ_INFO,
         [](rvzd_handle_t *) {
             clnt_tz_info_t info = {};
             clnt_tz_info_t *out = &info;
             rvzd_tzinfo(2026, "peer", &out);
         }},
    };
}

std::vector<Question> registry_questions() {
    static const tbs_uuid_t uuid = {};
    static const rgy_dtm_pair_t stamps = {};
    constexpr auto version = RGY_PROTOCOL_VERSION;
    constexpr auto db = RGY_DB_REGIONS;
    const auto same = [](const char *name, uint32_t procedure, std::function<void(rvzd_handle_t *)> ask) {
        return Question{name, procedure, procedure, std::move(ask)};
    };
    return {
        same("rgy_get_id", RVZD_PROC_RGY_GET_ID,
             [](rvzd_handle_t *handle) {
                 rgy_dtm_pair_t out;
                 rvzd_rgy_get_id(handle, db, version, &out);
             }),
        same("rgy_get_dtm", RVZD_PROC_RGY_GET_DTM,
             [](rvzd_handle_t *handle) {
                 rgy_dtm_pair_t out;
                 tbs_uuid_t one;
                 tbs_uuid_t other;
                 rvzd_rgy_get_dtm(handle, db, version, &out, &one, &other);
             }),
        same("rgy_get_entry", RVZD_PROC_RGY_GET_ENTRY,
             [](rvzd_handle_t *handle) {
                 Entries out;
                 rvzd_rgy_get_entry(handle, db, version, "", &out.stamps, &out.cursor, out.count_max, out.list,
                                    &out.count);
             }),
        same("rgy_get_pattern_entry", RVZD_PROC_RGY_GET_PATTERN_ENTRY,
             [](rvzd_handle_t *handle) {
                 Entries out;
                 const char *patterns[] = {"-name=*"};
                 rvzd_rgy_get_pattern_entry(handle, db, version, "", &out.stamps, &out.cursor, patterns, 1,
                                            out.count_max, out.list, &out.count);
             }),
        same("rgy_findbystring_entry", RVZD_PROC_RGY_FINDBYSTRING_ENTRY,
             [](rvzd_handle_t *handle) {
                 Entries out;
                 rvzd_rgy_findbystring_entry(handle, db, version, "", "name", "one", &out.stamps, &out.cursor,
                                             out.count_max, out.list, &out.count);
             }),
        same("rgy_findbyuuid_entry", RVZD_PROC_RGY_FINDBYUUID_ENTRY,
             [](rvzd_handle_t *handle) {
                 Entries out;
                 rvzd_rgy_findbyuuid_entry(handle, db, version, "", "id", &uuid, &out.stamps, &out.cursor,
                                           out.count_max, out.list, &out.count);
             }),
        same("rgy_findbyattr_entry", RVZD_PROC_RGY_FINDBYATTR_ENTRY,
             [](rvzd_handle_t *handle) {
                 Entries out;
                 rvzd_rgy_findbyattr_entry(handle, db, version, "", "attributes", "a", "b", &out.stamps, &out.cursor,
                                           out.count_max, out.list, &out.count);
             }),
        same("rgy_add_entry", RVZD_PROC_RGY_ADD_ENTRY,
             [](rvzd_handle_t *handle) { rvzd_rgy_add_entry(handle, db, version, &stamps, "-name=one;"); }),
        same("rgy_remove_entry", RVZD_PROC_RGY_REMOVE_ENTRY,
             [](rvzd_handle_t *handle) { rvzd_rgy_remove_entry(handle, db, version, &stamps, 1); }),
        same("rgy_chk_access", RVZD_PROC_RGY_CHK_ACCESS,
             [](rvzd_handle_t *handle) { rvzd_rgy_chk_access(handle, db, version, 1, "secret"); }),
        same("rgy_get_db_list", RVZD_PROC_RGY_GET_DB_LIST,
             [](rvzd_handle_t *handle) {
                 rgy_db_info_t databases[4] = {};
                 int64_t count = 0;
                 rvzd_rgy_get_db_list(handle, version, 4, databases, &count);
                 for (auto &database : databases)
                     stg_free(database.name);
             }),
        same("rgy_clnt_conf_change", RVZD_PROC_RGY_CLNT_CONF_CHANGE,
             [](rvzd_handle_t *handle) { rvzd_rgy_clnt_conf_change(handle, version, 1, "beta"); }),
        same("rgy_svr_conf_change", RVZD_PROC_RGY_SVR_CONF_CHANGE,
             [](rvzd_handle_t *handle) { rvzd_rgy_svr_conf_change(handle, version, 1, "slave"); }),
        same("rgy_get_backup", RVZD_PROC_RGY_GET_BACKUP,
             [](rvzd_handle_t *handle) {
                 char buffer[RGY_WIRE_HOST_LIST_MAX + 1];
                 char *hosts = buffer;
                 rvzd_rgy_get_backup(handle, version, &hosts);
             }),
        same("rgy_set_backup", RVZD_PROC_RGY_SET_BACKUP,
             [](rvzd_handle_t *handle) { rvzd_rgy_set_backup(handle, version, "beta"); }),
    };
}

struct Road {
    uint32_t transport;
    uint32_t protocol_version;
};

class SpoiledReplies : public testing::TestWithParam<Road> {
protected:
    SpoiledReplies() : broker_(GetParam().transport, good_results(GetParam().protocol_version)) {
        site_.write("config/services.conf", "rvzd " + std::to_string(broker_.port()) + "\n");
        site_.write("config/hosts.conf", "alpha 127.0.0.1\npeer 127.0.0.1\n");
        imsg_set_sink([](void *, int, const char *, const imsg_table_t *, int, const char *) {}, nullptr);
    }
    ~SpoiledReplies() override {
        RecordProperty("calls", static_cast<int>(calls_));
        RecordProperty("longest_call_us", static_cast<int>(longest_us_));
    }

    // Over a connection of its own, so that nothing is known of the peer from before.
    void ask(const Question &question) {
        const int64_t begin_us = monotonic_us();
        ks_set_deadline(limit_ms);
        {
            const Handle handle("peer", GetParam().transport, 0);
            if (handle.status() == TBS_ST_OK) {
                question.ask(handle.get());
                rvzd_release_handle(handle.get()->cached);
            }
        }
        ks_set_deadline(-1);
        ++calls_;
        longest_us_ = std::max(longest_us_, monotonic_us() - begin_us);
    }

    // From that byte of the reply on.
    void try_all(const Question &question, size_t first_byte) {
        const bool is_old = GetParam().protocol_version < 6;
        const uint32_t procedure = is_old ? question.procedure_of_version_5 : question.procedure;
        const auto ask_spoiled = [&](const Spoiling &spoiling) {
            broker_.spoil(procedure, spoiling);
            // On a busy machine the limit may be over before the question itself comes.
            for (int tries = 0; tries < tries_max && broker_.asked() == 0; ++tries)
                ask(question);
            EXPECT_GT(broker_.asked(), 0u) << question.name;
        };
        ask_spoiled({});
        const size_t bytes = broker_.reply_bytes(procedure);
        for (size_t cut = first_byte; cut < bytes; ++cut)
            ask_spoiled({Spoiling::Kind::cut, cut, 0});
        for (size_t word = first_byte / word_bytes; word < bytes / word_bytes; ++word)
            for (const uint32_t value : values)
                ask_spoiled({Spoiling::Kind::word, word, value});
        EXPECT_LT(longest_us_, soon_us) << question.name;
    }

    void try_results(const std::vector<Question> &questions) {
        for (const auto &question : questions)
            try_all(question, ScriptedBroker::reply_header_bytes);
    }

    Site site_;
    ScriptedBroker broker_;
    size_t calls_ = 0;
    int64_t longest_us_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Over, SpoiledReplies,
                         testing::Values(Road{RVZD_PROTOCOL_UDP, 6}, Road{RVZD_PROTOCOL_TCP, 6},
                                         Road{RVZD_PROTOCOL_UDP, 5}, Road{RVZD_PROTOCOL_TCP, 5}),
                         [](const auto &road) {
                             return std::string(road.param.transport == RVZD_PROTOCOL_UDP ? "Udp" : "Tcp") +
                                    std::to_string(road.param.protocol_version);
                         });

} // namespace

TEST_P(SpoiledReplies, OfTheBrokerDoNoHarm) {
    try_results(broker_questions());
}

TEST_P(SpoiledReplies, OfTheRegistryDoNoHarm) {
    try_results(registry_questions());
}

TEST_P(SpoiledReplies, OfAHostDoNoHarm) {
    if (GetParam().transport == RVZD_PROTOCOL_UDP)
        try_results(host_questions());
}

// They are the same for all procedures.
TEST_P(SpoiledReplies, InTheirHeadersDoNoHarm) {
    try_all(broker_questions()[1], 0);
}
