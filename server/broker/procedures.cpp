// Each procedure of the broker: what its record asks of the server table, and what the table's answer is as a record.
#include <server/broker/procedures.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>

#include <server/broker/server_list.h>
#include <server/loop/handles.h>
#include <server/messages.h>
#include <support/fileutl.h>

namespace velia::server {

namespace {

FindRequest find_request(const rvzd_find_server_req_t &request, const Caller &caller) {
    return {request.trait, request.uuid, request.path != nullptr ? request.path : "", caller.peer};
}

void fill(const FindAnswer &answer, tbs_status_t & /*status*/, rvzd_find_server_reply_t &reply) {
    reply.uuid = answer.uuid;
    reply.path = unowned(answer.path);
    reply.ports = answer.ports;
}

// One IPv4 address is all that this form can tell; a server without one is not there for its caller.
void fill(const FindAnswer &answer, tbs_status_t &status, rvzd_find_server_v70_reply_t &reply) {
    reply.uuid = answer.uuid;
    reply.path = unowned(answer.path);
    if (status != TBS_ST_OK)
        return;
    for (uint32_t i = 0; i < answer.ports.count; ++i)
        if (answer.ports.ports[i].family == AF_INET) {
            reply.address.sin_family = AF_INET;
            reply.address.sin_port = htons(static_cast<uint16_t>(answer.ports.ports[i].port));
            return;
        }
    status = TBS_ST_UNSUPPORTED;
}

// "//host/rest" of this host is "/rest" here.
tbs_status_t local_path(const rvzd_get_local_path_req_t &request, std::string &path) {
    constexpr size_t host_size = 256;
    std::array<char, host_size> host;
    const std::string global_path = request.global_path != nullptr ? request.global_path : "";
    if (fileutl_path_host(global_path.c_str(), host.data(), host.size()) != 0 || !fileutl_is_localhost(host.data()))
        return TBS_ST_NOT_FOUND;
    const auto rest = global_path.find('/', 2);
    path = rest != std::string::npos ? global_path.substr(rest) : "/";
    return path.size() < request.size ? TBS_ST_OK : TBS_ST_NAME_TOO_LONG;
}

// Whose word of itself has been taken tells of nobody else.
template <class Take>
tbs_status_t status_of_report(const std::function<void()> &on_change, Take &&take) {
    const tbs_status_t status = take();
    on_change();
    return status;
}

} // namespace

std::vector<ServedProcedure> BrokerProcedures::rows(uint32_t protocol) {
    using P = BrokerProcedures;
    protocol_ = protocol;
    std::vector<ServedProcedure> rows = {
        serve<procedures::contact, &P::contact>(*this),
        serve<procedures::list_servers_v70, &P::list_servers>(*this),
        serve<procedures::find_server_v70, &P::find<rvzd_find_server_v70_reply_t>>(*this),
        serve<procedures::register_server, &P::register_server>(*this),
        serve<procedures::server_idle, &P::server_idle>(*this),
        serve<procedures::server_busy, &P::server_busy>(*this),
        serve<procedures::server_alternate_uuid, &P::add_uuid>(*this),
        serve<procedures::sched_info, &P::sched_info>(*this),
        serve<procedures::get_local_path, &P::get_local_path>(*this),
        serve<procedures::toggle_server_restart, &P::toggle_server_restart>(*this),
    };
    if (protocol == RVZD_PROTOCOL_CURRENT) {
        rows.push_back(serve<procedures::list_servers, &P::list_servers>(*this));
        rows.push_back(serve<procedures::find_server, &P::find<rvzd_find_server_reply_t>>(*this));
    }
    return rows;
}

// A client that would rather speak another version is told which one is spoken here.
tbs_status_t BrokerProcedures::contact(const rvzd_contact_req_t &request, const Caller & /*caller*/,
                                       Reply<rvzd_contact_reply_t> &reply) {
    const uint64_t offered = request.protocol_version;
    const bool is_spoken = offered >= RVZD_PROTOCOL_V70 && (protocol_ != RVZD_PROTOCOL_V70 || offered <= protocol_);
    reply.record.protocol_version = is_spoken ? std::min<uint64_t>(offered, protocol_) : uint64_t{RVZD_PROTOCOL_V70};
    return is_spoken ? TBS_ST_OK : TBS_ST_UNSUPPORTED;
}

tbs_status_t BrokerProcedures::list_servers(const rvzd_list_servers_req_t &request, const Caller & /*caller*/,
                                            Reply<rvzd_list_servers_reply_t> &reply) {
    auto &piece = reply.arena.keep(velia::server::list_servers(table_.processes(), request.cookie, request.size));
    reply.record.cookie = request.cookie;
    reply.record.size = piece.records.size();
    reply.record.at_end = static_cast<tbs_boolean_t>(piece.at_end);
    reply.record.buffer = piece.records.data();
    return TBS_ST_OK;
}

template <class Record>
void BrokerProcedures::find(const rvzd_find_server_req_t &request, const Caller &caller, const Answer<Record> &answer) {
    table_.find(find_request(request, caller), monotonic_ms(), [answer](const FindAnswer &found) {
        Record reply = {};
        tbs_status_t status = found.status;
        fill(found, status, reply);
        answer(status, reply);
    });
    on_change_();
}

tbs_status_t BrokerProcedures::register_server(const rvzd_register_server_req_t &request, const Caller &caller,
                                               EmptyReply & /*reply*/) {
    return status_of_report(on_change_, [&] {
        const std::string path = request.path != nullptr ? request.path : "";
        const auto user = caller.known ? std::optional(caller.known->uid) : std::nullopt;
        return table_.register_server({request.trait, request.uuid, path, request.ports, request.pid, user},
                                      monotonic_ms());
    });
}

tbs_status_t BrokerProcedures::server_idle(const rvzd_server_idle_req_t &request, const Caller & /*caller*/,
                                           EmptyReply & /*reply*/) {
    return status_of_report(on_change_,
                            [&] { return table_.report_idle(request.pid, request.flag != 0, monotonic_ms()); });
}

tbs_status_t BrokerProcedures::server_busy(const rvzd_server_busy_req_t &request, const Caller & /*caller*/,
                                           EmptyReply & /*reply*/) {
    return status_of_report(on_change_, [&] { return table_.report_busy(request.pid, monotonic_ms()); });
}

tbs_status_t BrokerProcedures::add_uuid(const rvzd_server_alternate_uuid_req_t &request, const Caller & /*caller*/,
                                        EmptyReply & /*reply*/) {
    return status_of_report(on_change_, [&] { return table_.add_alternate_uuid(request.pid, request.uuid); });
}

tbs_status_t BrokerProcedures::sched_info(const rvzd_sched_info_req_t &request, const Caller & /*caller*/,
                                          EmptyReply & /*reply*/) {
    return status_of_report(on_change_, [&] {
        return table_.keep_sched_info(request.pid, {request.uuid, request.pair});
    });
}

tbs_status_t BrokerProcedures::get_local_path(const rvzd_get_local_path_req_t &request, const Caller & /*caller*/,
                                              Reply<rvzd_get_local_path_reply_t> &reply) {
    std::string path;
    const auto status = local_path(request, path);
    reply.record.size = path.size() + 1;
    reply.record.path = reply.arena.text(std::move(path));
    return status;
}

tbs_status_t BrokerProcedures::toggle_server_restart(const rvzd_toggle_server_restart_req_t &request,
                                                     const Caller & /*caller*/,
                                                     Reply<rvzd_toggle_server_restart_reply_t> &reply) {
    reply.record.toggle.status = table_.toggle_restart(request.name, request.enable != 0, monotonic_ms());
    on_change_();
    return TBS_ST_OK;
}

} // namespace velia::server
