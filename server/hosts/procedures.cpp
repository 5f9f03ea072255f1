// A piece of the list is cut to what a reply carries; the position is how many clients have been delivered, which stays
// true since none ever leaves the list.
#include <server/hosts/procedures.h>

#include <cstdlib>
#include <ctime>
#include <utility>

#include <unistd.h>

#include <support/imsg.h>
#include <support/stg.h>

namespace velia::server {

namespace {

constexpr size_t udp_piece_bytes_max = 7500;
constexpr size_t tcp_piece_bytes_max = 50000;
// The largest address, two times, the lengths of the texts, and the fill behind each.
constexpr size_t entry_bytes_without_texts = 8 * 4 + 2 * 8 + CLIENT_TEXT_COUNT * (4 + 3);

size_t encoded_bytes(const ListedHost &client) {
    size_t bytes = entry_bytes_without_texts;
    for (const std::string &text : client.texts)
        bytes += text.size();
    return bytes;
}

// The older form has room for IPv4 addresses alone.
bool can_tell(const ListedHost &client, bool is_v70) {
    return !is_v70 || client.address.base.sa_family == AF_INET;
}

// The older form sends the IPv4 part of an address in the IPv6 form.
clnt_entry_t lend(const ListedHost &client, bool is_v70) {
    clnt_entry_t entry = client.lend(false);
    if (is_v70)
        sysutl_set_ipv4_as_ipv6mapped(&client.address.ipv4, &entry.address);
    return entry;
}

// Told once in a while: who fills the list would fill the log.
void print_full(const std::string &address) {
    constexpr time_t interval_s = 3600;
    static time_t told = 0;
    const time_t now = time(nullptr);
    if (now - told < interval_s)
        return;
    told = now;
    imsg_print(IMSG_WARNING,
               "The list of client hosts, or the share in it of its network or of callers over UDP, is full for %s\n",
               IMSG_FORMAT, address.c_str());
}

// False when there is no room.
bool take_registration(ClientList &list, const rvzd_clnt_list_register_req_t &request, const Caller &caller) {
    ListedHost client;
    client.address = unmapped(caller.peer);
    sysutl_sockaddr_set_port(&client.address.base, 0);
    take_texts(request.hostinfo, client);
    client.registry_time = time(nullptr);
    client.is_proven = caller.known.has_value() || caller.transport != RVZD_PROTOCOL_UDP;
    const size_t known = list.clients().size();
    const std::string address = numeric_address(client.address);
    if (!list.enter(std::move(client))) {
        print_full(address);
        return false;
    }
    imsg_print(IMSG_PLAIN, &_clnt_list_rvzd_msg_table,
               list.clients().size() > known ? CLNT_LIST_MSG_ADDED : CLNT_LIST_MSG_UPDATED, address.c_str());
    return true;
}

// What clnt_list_get_local_hostinfo leaves to its caller.
struct LocalHostinfo {
    clnt_hostinfo_t info = {};

    LocalHostinfo() = default;
    LocalHostinfo(LocalHostinfo &&other) noexcept : info(std::exchange(other.info, {})) {}
    LocalHostinfo(const LocalHostinfo &) = delete;
    LocalHostinfo &operator=(const LocalHostinfo &) = delete;
    ~LocalHostinfo() {
        stg_free(info.registry_host);
        stg_free(info.reserved);
    }
};

} // namespace

std::vector<ServedProcedure> HostProcedures::rows(uint32_t protocol) {
    using P = HostProcedures;
    std::vector<ServedProcedure> rows = {
        serve<procedures::clnt_list_get_v70, &P::get<true>>(*this),
        serve<procedures::clnt_list_lookup_v70, &P::look_up<true>>(*this),
        serve<procedures::clnt_list_register, &P::enter>(*this),
        serve<procedures::hostinfo, &P::hostinfo>(*this),
        serve<procedures::remote_build_hi, &P::remote_build>(*this),
        serve<procedures::tz_info, &P::time_zone>(*this),
    };
    if (protocol == RVZD_PROTOCOL_CURRENT) {
        rows.push_back(serve<procedures::clnt_list_get, &P::get<false>>(*this));
        rows.push_back(serve<procedures::clnt_list_lookup, &P::look_up<false>>(*this));
    }
    return rows;
}

template <bool is_v70>
tbs_status_t HostProcedures::get(const rvzd_clnt_list_get_req_t &request, const Caller &caller,
                                 Reply<rvzd_clnt_list_get_reply_t> &reply) {
    if (list_.is_withheld())
        return TBS_ST_UNSUPPORTED;
    auto &entries = reply.arena.keep(std::vector<clnt_entry_t>());
    const auto &clients = list_.clients();
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
    reply.record.position = static_cast<int32_t>(at);
    reply.record.at_end = static_cast<tbs_boolean_t>(at >= clients.size());
    reply.record.count = static_cast<uint32_t>(entries.size());
    reply.record.entries = entries.data();
    return TBS_ST_OK;
}

template <bool is_v70>
tbs_status_t HostProcedures::look_up(const rvzd_clnt_list_lookup_req_t &request, const Caller & /*caller*/,
                                     Reply<rvzd_clnt_list_lookup_reply_t> &reply) {
    if (list_.is_withheld())
        return TBS_ST_UNSUPPORTED;
    const ListedHost *client = list_.find(request.hostname != nullptr ? request.hostname : "");
    if (client == nullptr || !can_tell(*client, is_v70))
        return TBS_ST_NOT_FOUND;
    reply.record.entry = lend(*client, is_v70);
    return TBS_ST_OK;
}

tbs_status_t HostProcedures::enter(const rvzd_clnt_list_register_req_t &request, const Caller &caller,
                                   Reply<rvzd_clnt_list_register_reply_t> & /*reply*/) {
    const bool is_taken = take_registration(list_, request, caller);
    if (list_.has_changed())
        on_change_();
    return is_taken ? TBS_ST_OK : TBS_ST_TRY_AGAIN;
}

tbs_status_t HostProcedures::hostinfo(const rvzd_hostinfo_req_t & /*request*/, const Caller & /*caller*/,
                                      Reply<rvzd_hostinfo_reply_t> &reply) {
    auto &local = reply.arena.keep(LocalHostinfo());
    const auto status = clnt_list_get_local_hostinfo(&local.info);
    if (status != TBS_ST_OK)
        imsg_print(IMSG_ERROR, &_clnt_list_rvzd_msg_table, CLNT_LIST_MSG_NO_PLATFORM);
    reply.record.hostinfo = local.info;
    return status;
}

// Whether to build here: processors, the load of the last minute in hundredths, and what the host is.
tbs_status_t HostProcedures::remote_build(const rvzd_remote_build_hi_req_t & /*request*/, const Caller & /*caller*/,
                                          Reply<rvzd_remote_build_hi_reply_t> &reply) {
    const char *os_name = "";
    const char *os_version = "";
    const char *machine = "";
    tbs_platform_info(&os_name, &os_version, &machine);
    double load = 0;
    getloadavg(&load, 1);
    const auto lend = [](const char *text) { return const_cast<char *>(text); };
    reply.record.word1 = static_cast<int32_t>(sysconf(_SC_NPROCESSORS_ONLN));
    reply.record.word2 = static_cast<int32_t>(load * 100);
    reply.record.time = time(nullptr);
    reply.record.text1 = lend(sysutl_myhostname());
    reply.record.text2 = lend(os_name);
    reply.record.text3 = lend(machine);
    return TBS_ST_OK;
}

// Of this process's zone, which is the host's.
tbs_status_t HostProcedures::time_zone(const rvzd_tz_info_req_t &request, const Caller & /*caller*/,
                                       Reply<rvzd_tz_info_reply_t> &reply) {
    clnt_tz_info_t *info = nullptr;
    const auto status = clnt_tz_get_info(request.year, &info);
    if (status != CLNT_TZ_OK)
        return status == CLNT_TZ_INVALID ? TBS_ST_INVALID_ARG : TBS_ST_ERROR;
    reply.record.info = *info;
    clnt_tz_free_info(&info);
    return TBS_ST_OK;
}

} // namespace velia::server
