#include <server/registry/site_procedures.h>

#include <ctime>

#include <server/registry/look.h>
#include <support/sysutl.h>
#include <veliaxdr/rvzd_daemon.h>

namespace velia::server {

namespace {

constexpr size_t udp_piece_bytes_max = 7000;

// Of a master the term is its own. Others have it from whom they copy.
std::string master_of(const RegistryService &service, const RegistryService::Standing &standing) {
    return service.is_master() ? sysutl_myhostname() : standing.term.host;
}

std::string printable_host(const char *host) {
    return host != nullptr && std::string(host).find_first_of(" \t\r\n\v\f") == std::string::npos ? host : "";
}

} // namespace

std::vector<ServedProcedure> SiteProcedures::rows() {
    using P = SiteProcedures;
    return {serve<procedures::registry_state, &P::state>(*this), serve<procedures::registry_turn, &P::turn>(*this),
            serve<procedures::registry_save, &P::save>(*this)};
}

tbs_status_t SiteProcedures::state(const rvzd_registry_state_req_t &request, const Caller &caller,
                                   Reply<rvzd_registry_state_reply_t> &reply) {
    service_.hear_of_term(request.registry, request.term, printable_host(request.host),
                          guard_.permits({RVZD_PROC_REGISTRY_TURN}, caller));
    const auto standing = service_.standing();
    auto &record = reply.record;
    record.role = standing.role;
    record.takes_updates = service_.takes_updates() ? 1 : 0;
    record.term = standing.term.number;
    record.master = reply.arena.text(master_of(service_, standing));
    const bool is_superseded = standing.term.is_superseded();
    record.heard_term = is_superseded ? standing.term.heard : 0;
    record.heard_host = reply.arena.text(is_superseded ? standing.term.heard_host : "");
    record.registry = standing.registry;
    record.now = time(nullptr);
    record.looked = standing.looked;
    record.current = standing.current;
    record.source = reply.arena.text(standing.source);
    record.failure = reply.arena.text(standing.failure);
    return TBS_ST_OK;
}

void SiteProcedures::turn(const rvzd_registry_turn_req_t &request, const Caller & /*caller*/,
                          const Answer<rvzd_null_reply_t> &answer) {
    const auto done = [answer](tbs_status_t status) { answer(status, {}); };
    switch (request.op) {
    case RVZD_TURN_HOLD:
        return service_.hold_updates(printable_host(request.host), request.seconds, done);
    case RVZD_TURN_RELEASE:
        return service_.release_updates(printable_host(request.host), done);
    case RVZD_TURN_FOLLOW:
        return service_.follow_host(printable_host(request.host), done);
    default:
        return done(TBS_ST_INVALID_ARG);
    }
}

void SiteProcedures::save(const rvzd_registry_save_req_t &request, const Caller &caller,
                          const Answer<rvzd_registry_save_reply_t> &answer) {
    if (!service_.is_serving().value_or(true))
        return answer(TBS_ST_NO_SERVER, {});
    const size_t bytes_max = caller.transport == RVZD_PROTOCOL_UDP ? udp_piece_bytes_max : size_t{RVZD_SAVE_PIECE_MAX};
    saver_.ask(request.save, request.offset, bytes_max, [answer](tbs_status_t status, Saver::Piece piece) {
        rvzd_registry_save_reply_t record = {};
        record.save = piece.save;
        record.pages_done = piece.pages_done;
        record.pages = piece.pages;
        record.size = piece.size;
        record.failure = unowned(piece.failure);
        record.count = static_cast<uint32_t>(piece.bytes.size());
        record.bytes = piece.bytes.data();
        answer(status, record);
    });
}

} // namespace velia::server
