// Records of the procedures that are our own: the daemon's state, its registry's, and the registry as a file.
#include <veliaxdr/rvzd_daemon.h>

#include <rvzd/xdr/fields.h>

using namespace velia;
using namespace velia::wire;

namespace {

bool_t told_text(XDR *xdrs, char *&cell) {
    return text(xdrs, cell, RVZD_DAEMON_TEXT_MAX);
}

// Bytes of a file behind their number.
bool_t code_piece(XDR *xdrs, rvzd_registry_save_reply_t *record) {
    return xdr_bytes(xdrs, reinterpret_cast<char **>(&record->bytes), &record->count, RVZD_SAVE_PIECE_MAX);
}

bool_t code_figures(XDR *xdrs, rvzd_daemon_status_reply_t *record) {
    uint32_t count = record->count;
    if (xdrs->x_op == XDR_DECODE) { // a reply that is refused here is released all the same
        record->procedures = nullptr;
        record->count = 0;
    }
    if (xdrs->x_op != XDR_FREE && !xdr_u_int(xdrs, &count))
        return FALSE;
    if (count > RVZD_DAEMON_PROCEDURES_MAX)
        return FALSE;
    const bool_t done =
        code_elements<rvzd_procedure_figures_t, xdr_rvzd_procedure_figures_t>(xdrs, record->procedures, count);
    if (xdrs->x_op != XDR_ENCODE)
        record->count = done && xdrs->x_op == XDR_DECODE ? count : 0;
    return done;
}

} // namespace

bool_t xdr_rvzd_registry_state_req_t(XDR *xdrs, rvzd_registry_state_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_tbs_uuid_t(xdrs, &record->registry) &&
           xdr_u_int64_t(xdrs, &record->term) && text(xdrs, record->host, RVZD_HOST_NAME_MAX);
}

bool_t xdr_rvzd_registry_state_reply_t(XDR *xdrs, rvzd_registry_state_reply_t *record) {
    if (!xdr_rvzd_hdr_reply_t(xdrs, &record->header))
        return FALSE;
    return !has_body(xdrs, record->header) ||
           (xdr_int(xdrs, &record->role) && xdr_tbs_boolean_t(xdrs, &record->takes_updates) &&
            xdr_u_int64_t(xdrs, &record->term) && told_text(xdrs, record->master) &&
            xdr_u_int64_t(xdrs, &record->heard_term) && told_text(xdrs, record->heard_host) &&
            xdr_tbs_uuid_t(xdrs, &record->registry) && xdr_int64_t(xdrs, &record->now) &&
            xdr_int64_t(xdrs, &record->looked) && xdr_int64_t(xdrs, &record->current) &&
            told_text(xdrs, record->source) && told_text(xdrs, record->failure));
}

bool_t xdr_rvzd_registry_turn_req_t(XDR *xdrs, rvzd_registry_turn_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && velia_xdr_long(xdrs, &record->op) &&
           xdr_u_int(xdrs, &record->seconds) && text(xdrs, record->host, RVZD_HOST_NAME_MAX);
}

bool_t xdr_rvzd_registry_save_req_t(XDR *xdrs, rvzd_registry_save_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_u_int64_t(xdrs, &record->save) &&
           xdr_u_int64_t(xdrs, &record->offset);
}

bool_t xdr_rvzd_registry_save_reply_t(XDR *xdrs, rvzd_registry_save_reply_t *record) {
    if (!xdr_rvzd_hdr_reply_t(xdrs, &record->header))
        return FALSE;
    return !has_body(xdrs, record->header) ||
           (xdr_u_int64_t(xdrs, &record->save) && xdr_u_int64_t(xdrs, &record->pages_done) &&
            xdr_u_int64_t(xdrs, &record->pages) && xdr_u_int64_t(xdrs, &record->size) &&
            told_text(xdrs, record->failure) && code_piece(xdrs, record));
}

bool_t xdr_rvzd_daemon_status_req_t(XDR *xdrs, rvzd_daemon_status_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header);
}

bool_t xdr_rvzd_procedure_figures_t(XDR *xdrs, rvzd_procedure_figures_t *record) {
    return xdr_u_int(xdrs, &record->number) && xdr_u_int64_t(xdrs, &record->calls) &&
           xdr_u_int64_t(xdrs, &record->median_us) && xdr_u_int64_t(xdrs, &record->p99_us);
}

bool_t xdr_rvzd_daemon_status_reply_t(XDR *xdrs, rvzd_daemon_status_reply_t *record) {
    if (!xdr_rvzd_hdr_reply_t(xdrs, &record->header))
        return FALSE;
    return !has_body(xdrs, record->header) ||
           (told_text(xdrs, record->version) && told_text(xdrs, record->host) && xdr_int64_t(xdrs, &record->now) &&
            xdr_int64_t(xdrs, &record->started) && xdr_u_int(xdrs, &record->connections) &&
            xdr_u_int(xdrs, &record->connections_max) && xdr_u_int(xdrs, &record->services) &&
            xdr_u_int(xdrs, &record->servers) && xdr_u_int(xdrs, &record->servers_busy) &&
            xdr_u_int64_t(xdrs, &record->registry_entries) && xdr_u_int64_t(xdrs, &record->registry_bytes) &&
            xdr_u_int64_t(xdrs, &record->registry_log_bytes) && code_figures(xdrs, record));
}
