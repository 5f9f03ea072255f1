// Between wire records and the server table. Reports are taken from this host only: they are told of by process number.
#include <server/broker/procedures.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>

#include <server/broker/privilege.h>
#include <server/broker/server_list.h>
#include <server/loop/handles.h>
#include <server/messages.h>
#include <server/rpc/records.h>
#include <support/fileutl.h>

namespace velia::server {

namespace {

bool_t xdr_nothing(XDR * /*stream*/, char * /*record*/) {
    return TRUE;
}

rvzd_contact_reply_t contact(const rvzd_contact_req_t &request, uint32_t protocol) {
    const uint64_t offered = request.protocol_version;
    // A client that would rather speak another version is told which one is spoken here.
    if (offered < RVZD_PROTOCOL_V70 || (protocol == RVZD_PROTOCOL_V70 && offered > protocol))
        return {reply_header(request.header, TBS_ST_UNSUPPORTED), RVZD_PROTOCOL_V70};
    return {reply_header(request.header, TBS_ST_OK), std::min<uint64_t>(offered, protocol)};
}

FindRequest find_request(const rvzd_find_server_req_t &request, const Caller &caller) {
    return {request.trait, request.uuid, request.path != nullptr ? request.path : "", address_text(caller.peer)};
}

rvzd_find_server_reply_t find_reply(const rvzd_hdr_req_t &header, const FindAnswer &answer) {
    return {reply_header(header, answer.status), 0, answer.uuid, unowned(answer.path), answer.ports};
}

// One IPv4 address is all that this form can tell; a server without one is not there for its caller.
rvzd_find_server_v70_reply_t find_v70_reply(const rvzd_hdr_req_t &header, const FindAnswer &answer) {
    rvzd_find_server_v70_reply_t reply = {
        reply_header(header, answer.status), 0, answer.uuid, unowned(answer.path), {}};
    if (answer.status != TBS_ST_OK)
        return reply;
    reply.header.status = TBS_ST_UNSUPPORTED;
    for (uint32_t i = 0; i < answer.ports.count; ++i)
        if (answer.ports.ports[i].family == AF_INET) {
            reply.header.status = TBS_ST_OK;
            reply.address.sin_family = AF_INET;
            reply.address.sin_port = htons(static_cast<uint16_t>(answer.ports.ports[i].port));
            break;
        }
    return reply;
}

rvzd_list_servers_reply_t list(const ServerTable &table, const rvzd_list_servers_req_t &request) {
    static ServerListPiece piece; // lives until the reply is encoded, which is before the next one is made
    piece = list_servers(table.processes(), request.cookie, request.size);
    return {reply_header(request.header, TBS_ST_OK), request.cookie, piece.records.size(),
            static_cast<tbs_boolean_t>(piece.at_end), piece.records.data()};
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

class Rows {
public:
    Rows(ServerTable &table, uint32_t protocol, std::function<void()> on_change)
        : table_(table), protocol_(protocol), on_change_(std::move(on_change)) {}

    std::vector<Procedure> take() {
        add_plain();
        add_finds();
        add_reports();
        add_administration();
        return std::move(rows_);
    }

private:
    // A row whose answer is known at once.
    template <class Request, class Reply, class Work>
    void add(uint32_t number, bool_t (*request_routine)(XDR *, Request *), bool_t (*reply_routine)(XDR *, Reply *),
             Work work) {
        rows_.push_back(make_prompt_procedure(number, request_routine, reply_routine, work));
    }

    // A server's report: a status in an empty reply.
    template <class Request, class Work>
    void add_report(uint32_t number, bool_t (*request_routine)(XDR *, Request *), Work work) {
        const auto judged = [work, on_change = on_change_](const Request &request, const Caller &caller) {
            const tbs_status_t status = is_from_this_host(caller) ? work(request) : tbs_status_t{TBS_ST_NO_ACCESS};
            on_change();
            return rvzd_null_reply_t{reply_header(request.header, status)};
        };
        add(number, request_routine, xdr_rvzd_null_reply_t, judged);
    }

    // A find, whose answer may have to wait; `make_reply` turns it into the record of its form.
    template <class Reply, class MakeReply>
    void add_find(uint32_t number, bool_t (*reply_routine)(XDR *, Reply *), MakeReply make_reply) {
        rows_.push_back(make_procedure<rvzd_find_server_req_t, Reply>(
            number, true, xdr_rvzd_find_server_req_t, reply_routine,
            [&table = table_, make_reply, on_change = on_change_](const rvzd_find_server_req_t &request,
                                                                  const Caller &caller, const Answer<Reply> &answer) {
                table.find(find_request(request, caller), monotonic_ms(),
                           [header = request.header, make_reply, answer](const FindAnswer &found) {
                               answer(make_reply(header, found));
                           });
                on_change();
            }));
    }

    void add_plain() {
        rows_.push_back(
            make_procedure<char, char>(NULLPROC, false, xdr_nothing, xdr_nothing,
                                       [](const char &, const Caller &, const Answer<char> &answer) { answer('\0'); }));
        add(RVZD_PROC_CONTACT, xdr_rvzd_contact_req_t, xdr_rvzd_contact_reply_t,
            [protocol = protocol_](const rvzd_contact_req_t &request, const Caller &) {
                return contact(request, protocol);
            });
        const auto lister = [&table = table_](const rvzd_list_servers_req_t &request, const Caller &) {
            return list(table, request);
        };
        add(RVZD_PROC_LIST_SERVERS_V70, xdr_rvzd_list_servers_req_t, xdr_rvzd_list_servers_v70_reply_t, lister);
        if (protocol_ == RVZD_PROTOCOL_CURRENT)
            add(RVZD_PROC_LIST_SERVERS, xdr_rvzd_list_servers_req_t, xdr_rvzd_list_servers_reply_t, lister);
    }

    void add_finds() {
        add_find(RVZD_PROC_FIND_SERVER_V70, xdr_rvzd_find_server_v70_reply_t, find_v70_reply);
        if (protocol_ == RVZD_PROTOCOL_CURRENT)
            add_find(RVZD_PROC_FIND_SERVER, xdr_rvzd_find_server_reply_t, find_reply);
    }

    void add_reports() {
        ServerTable &table = table_;
        add_report(RVZD_PROC_REGISTER_SERVER, xdr_rvzd_register_server_req_t,
                   [&table](const rvzd_register_server_req_t &request) {
                       const std::string path = request.path != nullptr ? request.path : "";
                       return table.register_server({request.trait, request.uuid, path, request.ports, request.pid},
                                                    monotonic_ms());
                   });
        add_report(RVZD_PROC_SERVER_IDLE, xdr_rvzd_server_idle_req_t, [&table](const rvzd_server_idle_req_t &request) {
            return table.report_idle(request.pid, request.flag != 0, monotonic_ms());
        });
        add_report(RVZD_PROC_SERVER_BUSY, xdr_rvzd_server_busy_req_t, [&table](const rvzd_server_busy_req_t &request) {
            return table.report_busy(request.pid, monotonic_ms());
        });
        add_report(RVZD_PROC_SERVER_ALTERNATE_UUID, xdr_rvzd_server_alternate_uuid_req_t,
                   [&table](const rvzd_server_alternate_uuid_req_t &request) {
                       return table.add_alternate_uuid(request.pid, request.uuid);
                   });
        add_report(RVZD_PROC_SCHED_INFO, xdr_rvzd_sched_info_req_t, [&table](const rvzd_sched_info_req_t &request) {
            return table.keep_sched_info(request.pid, {request.uuid, request.pair});
        });
    }

    void add_administration() {
        add(RVZD_PROC_GET_LOCAL_PATH, xdr_rvzd_get_local_path_req_t, xdr_rvzd_get_local_path_reply_t,
            [](const rvzd_get_local_path_req_t &request, const Caller &) {
                static std::string path; // as the list above
                const auto status = local_path(request, path);
                return rvzd_get_local_path_reply_t{reply_header(request.header, status), unowned(path),
                                                   path.size() + 1};
            });
        // A refusal is the toggling's own status: clients are told nothing of the header's.
        add(RVZD_PROC_TOGGLE_SERVER_RESTART, xdr_rvzd_toggle_server_restart_req_t,
            xdr_rvzd_toggle_server_restart_reply_t,
            [&table = table_, on_change = on_change_](const rvzd_toggle_server_restart_req_t &request,
                                                      const Caller &caller) {
                tbs_status_t status = TBS_ST_NO_ACCESS;
                if (is_privileged(caller))
                    status = table.toggle_restart(request.name, request.enable != 0, monotonic_ms());
                else
                    print(IMSG_WARNING, RVZD_MSG_NOT_PRIVILEGED);
                on_change();
                return rvzd_toggle_server_restart_reply_t{reply_header(request.header, TBS_ST_OK), {status}};
            });
    }

    ServerTable &table_;
    uint32_t protocol_;
    std::function<void()> on_change_;
    std::vector<Procedure> rows_;
};

} // namespace

std::vector<Procedure> broker_procedures(ServerTable &table, uint32_t protocol,
                                         const std::function<void()> &on_change) {
    return Rows(table, protocol, on_change).take();
}

} // namespace velia::server
