// A piece of the list is cut to what a reply carries; the position is how many clients have been delivered, which stays
// true since none ever leaves the list.
#include <server/clients/procedures.h>

#include <array>
#include <cstdlib>
#include <ctime>

#include <unistd.h>

#include <server/rpc/records.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/rvzd_hosts.h>

namespace velia::server {

namespace {

constexpr size_t udp_piece_bytes_max = 7500;
constexpr size_t tcp_piece_bytes_max = 50000;
// The largest address, two times, the lengths of the texts, and the fill behind each.
constexpr size_t entry_bytes_without_texts = 8 * 4 + 2 * 8 + CLIENT_TEXT_COUNT * (4 + 3);

size_t encoded_bytes(const Client &client) {
    size_t bytes = entry_bytes_without_texts;
    for (const std::string &text : client.texts)
        bytes += text.size();
    return bytes;
}

// The older form has room for IPv4 addresses alone.
bool can_tell(const Client &client, bool is_v70) {
    return !is_v70 || client.address.base.sa_family == AF_INET;
}

// The older form sends the IPv4 part of an address in the IPv6 form.
clnt_entry_t lend(const Client &client, bool is_v70) {
    clnt_entry_t entry = client.lend(false);
    if (is_v70)
        sysutl_set_ipv4_as_ipv6mapped(&client.address.ipv4, &entry.address);
    return entry;
}

void take_registration(ClientList &list, const rvzd_clnt_list_register_req_t &request, const Caller &caller) {
    Client client;
    client.address = unmapped(caller.peer);
    sysutl_sockaddr_set_port(&client.address.base, 0);
    take_texts(request.hostinfo, client);
    client.registry_time = time(nullptr);
    const size_t known = list.clients().size();
    const std::string address = numeric_address(client.address);
    if (list.enter(std::move(client)))
        imsg_print(IMSG_PLAIN, &_clnt_list_rvzd_msg_table,
                   list.clients().size() > known ? CLNT_LIST_MSG_ADDED : CLNT_LIST_MSG_UPDATED, address.c_str());
}

rvzd_clnt_list_get_reply_t piece_of(const ClientList &list, const rvzd_clnt_list_get_req_t &request,
                                    const Caller &caller, bool is_v70) {
    static std::vector<clnt_entry_t> entries; // live until the reply is encoded, which is before the next one is made
    entries.clear();
    const auto &clients = list.clients();
    const size_t bytes_max = caller.transport == RVZD_PROTOCOL_UDP ? udp_piece_bytes_max : tcp_piece_bytes_max;
    size_t at = request.position > 0 ? static_cast<size_t>(request.position) : 0;
    for (size_t bytes = 0; at < clients.size(); ++at) {
        if (!can_tell(clients[at], is_v70))
            continue;
        bytes += encoded_bytes(clients[at]);
        const bool is_enough = request.second > 0 && entries.size() >= request.second;
        if (!entries.empty() && (bytes > bytes_max || is_enough))
            break;
        entries.push_back(lend(clients[at], is_v70));
    }
    return {reply_header(request.header, TBS_ST_OK), static_cast<int32_t>(at),
            static_cast<tbs_boolean_t>(at >= clients.size()), static_cast<uint32_t>(entries.size()), entries.data()};
}

rvzd_clnt_list_lookup_reply_t look_up(const ClientList &list, const rvzd_clnt_list_lookup_req_t &request, bool is_v70) {
    const Client *client = list.find(request.hostname != nullptr ? request.hostname : "");
    if (client == nullptr || !can_tell(*client, is_v70))
        return {reply_header(request.header, TBS_ST_NOT_FOUND), {}};
    return {reply_header(request.header, TBS_ST_OK), lend(*client, is_v70)};
}

// Lives until the next description is made; its registry host belongs to it.
rvzd_hostinfo_reply_t describe_host(const rvzd_hostinfo_req_t &request) {
    static clnt_hostinfo_t info;
    stg_free(info.registry_host);
    stg_free(info.reserved);
    const auto status = clnt_list_get_local_hostinfo(&info);
    if (status != TBS_ST_OK)
        imsg_print(IMSG_ERROR, &_clnt_list_rvzd_msg_table, CLNT_LIST_MSG_NO_PLATFORM);
    return {reply_header(request.header, status), info};
}

// Whether to build here: processors, the load of the last minute in hundredths, and what the host is.
rvzd_remote_build_hi_reply_t describe_builder(const rvzd_remote_build_hi_req_t &request) {
    const char *os_name = "";
    const char *os_version = "";
    const char *machine = "";
    tbs_platform_info(&os_name, &os_version, &machine);
    double load = 0;
    getloadavg(&load, 1);
    const auto lend = [](const char *text) { return const_cast<char *>(text); };
    return {reply_header(request.header, TBS_ST_OK),
            static_cast<int32_t>(sysconf(_SC_NPROCESSORS_ONLN)),
            static_cast<int32_t>(load * 100),
            time(nullptr),
            0,
            lend(sysutl_myhostname()),
            lend(os_name),
            lend(machine)};
}

// Of this process's zone, which is the host's.
rvzd_tz_info_reply_t describe_time_zone(const rvzd_tz_info_req_t &request) {
    clnt_tz_info_t *info = nullptr;
    const auto status = clnt_tz_get_info(request.year, &info);
    if (status == CLNT_TZ_INVALID)
        return {reply_header(request.header, TBS_ST_INVALID_ARG), {}};
    if (status != CLNT_TZ_OK)
        return {reply_header(request.header, TBS_ST_ERROR), {}};
    const rvzd_tz_info_reply_t reply = {reply_header(request.header, TBS_ST_OK), *info};
    clnt_tz_free_info(&info);
    return reply;
}

class Rows {
public:
    Rows(ClientList &list, std::function<void()> on_change) : list_(list), on_change_(std::move(on_change)) {}

    std::vector<Procedure> take(uint32_t protocol) {
        add_list(RVZD_PROC_CLNT_LIST_GET_V70, RVZD_PROC_CLNT_LIST_LOOKUP_V70, true, xdr_rvzd_clnt_list_get_v70_reply_t,
                 xdr_rvzd_clnt_list_lookup_v70_reply_t);
        if (protocol == RVZD_PROTOCOL_CURRENT)
            add_list(RVZD_PROC_CLNT_LIST_GET, RVZD_PROC_CLNT_LIST_LOOKUP, false, xdr_rvzd_clnt_list_get_reply_t,
                     xdr_rvzd_clnt_list_lookup_reply_t);
        add(RVZD_PROC_CLNT_LIST_REGISTER, xdr_rvzd_clnt_list_register_req_t, xdr_rvzd_clnt_list_register_reply_t,
            [&list = list_, on_change = on_change_](const rvzd_clnt_list_register_req_t &request,
                                                    const Caller &caller) {
                take_registration(list, request, caller);
                on_change();
                return rvzd_null_reply_t{reply_header(request.header, TBS_ST_OK)};
            });
        add(RVZD_PROC_HOSTINFO, xdr_rvzd_hostinfo_req_t, xdr_rvzd_hostinfo_reply_t,
            [](const rvzd_hostinfo_req_t &request, const Caller &) { return describe_host(request); });
        add(RVZD_PROC_REMOTE_BUILD_HI, xdr_rvzd_remote_build_hi_req_t, xdr_rvzd_remote_build_hi_reply_t,
            [](const rvzd_remote_build_hi_req_t &request, const Caller &) { return describe_builder(request); });
        add(RVZD_PROC_TZ_INFO, xdr_rvzd_tz_info_req_t, xdr_rvzd_tz_info_reply_t,
            [](const rvzd_tz_info_req_t &request, const Caller &) { return describe_time_zone(request); });
        return std::move(rows_);
    }

private:
    template <class Request, class Reply, class Work>
    void add(uint32_t number, bool_t (*request_routine)(XDR *, Request *), bool_t (*reply_routine)(XDR *, Reply *),
             Work work) {
        rows_.push_back(make_prompt_procedure(number, request_routine, reply_routine, work));
    }

    void add_list(uint32_t get_number, uint32_t lookup_number, bool is_v70,
                  bool_t (*get_routine)(XDR *, rvzd_clnt_list_get_reply_t *),
                  bool_t (*lookup_routine)(XDR *, rvzd_clnt_list_lookup_reply_t *)) {
        add(get_number, xdr_rvzd_clnt_list_get_req_t, get_routine,
            [&list = list_, is_v70](const rvzd_clnt_list_get_req_t &request, const Caller &caller) {
                return piece_of(list, request, caller, is_v70);
            });
        add(lookup_number, xdr_rvzd_clnt_list_lookup_req_t, lookup_routine,
            [&list = list_, is_v70](const rvzd_clnt_list_lookup_req_t &request, const Caller &) {
                return look_up(list, request, is_v70);
            });
    }

    ClientList &list_;
    std::function<void()> on_change_;
    std::vector<Procedure> rows_;
};

} // namespace

std::vector<Procedure> client_procedures(ClientList &list, uint32_t protocol, const std::function<void()> &on_change) {
    return Rows(list, on_change).take(protocol);
}

} // namespace velia::server
