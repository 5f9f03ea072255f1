// What servers and their clients say to the broker: registering, reporting, finding, local paths, restarts.
#include <cstring>

#include <rvzd/xdr/fields.h>
#include <support/stg.h>

using namespace velia;
using namespace velia::wire;

namespace {

template <class Record>
bool_t code_pid_and_uuid(XDR *xdrs, Record *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_pid_t(xdrs, &record->pid) &&
           xdr_tbs_uuid_t(xdrs, &record->uuid);
}

// The two forms of the find_server reply differ in what tells the ports.
template <class Record, class CodePorts>
bool_t code_find_server_reply(XDR *xdrs, Record *record, CodePorts &&code_ports) {
    if (!xdr_rvzd_hdr_reply_t(xdrs, &record->header))
        return FALSE;
    if (!has_body(xdrs, record->header))
        return TRUE;
    if (!xdr_time_t(xdrs, &record->gate))
        return FALSE;
    if (record->gate != 0 && xdrs->x_op != XDR_FREE)
        return TRUE;
    return xdr_tbs_uuid_t(xdrs, &record->uuid) && xdr_ks_canon_pname_p_t(xdrs, &record->path) && code_ports();
}

// A path into a buffer of the caller's, which is left as it was unless the whole of the path fits.
bool_t decode_path_in_place(XDR *xdrs, char *buffer, uint64_t size) {
    if (size == 0)
        return FALSE;
    const uint64_t longest = size - 1;
    char *path = nullptr;
    if (!xdr_string_pointer(xdrs, &path, longest < UINT32_MAX ? static_cast<uint32_t>(longest) : UINT32_MAX))
        return FALSE;
    memcpy(buffer, path, strlen(path) + 1);
    stg_free(path);
    return TRUE;
}

} // namespace

bool_t xdr_rvzd_register_server_req_t(XDR *xdrs, rvzd_register_server_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_rvzd_rpc_trait_t(xdrs, &record->trait) &&
           xdr_tbs_uuid_t(xdrs, &record->uuid) && xdr_ks_canon_pname_p_t(xdrs, &record->path) &&
           xdr_rvzd_server_port_list_t(xdrs, &record->ports) && xdr_pid_t(xdrs, &record->pid);
}

bool_t xdr_rvzd_server_idle_req_t(XDR *xdrs, rvzd_server_idle_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_pid_t(xdrs, &record->pid) &&
           xdr_tbs_boolean_t(xdrs, &record->flag);
}

bool_t xdr_rvzd_server_busy_req_t(XDR *xdrs, rvzd_server_busy_req_t *record) {
    return code_pid_and_uuid(xdrs, record);
}

bool_t xdr_rvzd_server_alternate_uuid_req_t(XDR *xdrs, rvzd_server_alternate_uuid_req_t *record) {
    return code_pid_and_uuid(xdrs, record);
}

bool_t xdr_rvzd_sched_info_req_t(XDR *xdrs, rvzd_sched_info_req_t *record) {
    return code_pid_and_uuid(xdrs, record) && xdr_int(xdrs, &record->pair.kind) &&
           velia_xdr_u_long(xdrs, &record->pair.value);
}

bool_t xdr_rvzd_find_server_req_t(XDR *xdrs, rvzd_find_server_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_rvzd_rpc_trait_t(xdrs, &record->trait) &&
           xdr_tbs_uuid_t(xdrs, &record->uuid) && xdr_ks_canon_pname_p_t(xdrs, &record->path);
}

bool_t xdr_rvzd_find_server_reply_t(XDR *xdrs, rvzd_find_server_reply_t *record) {
    return code_find_server_reply(xdrs, record, [&] { return xdr_rvzd_server_port_list_t(xdrs, &record->ports); });
}

bool_t xdr_rvzd_find_server_v70_reply_t(XDR *xdrs, rvzd_find_server_v70_reply_t *record) {
    return code_find_server_reply(xdrs, record, [&] { return xdr_rvzd_sockaddr_in_t(xdrs, &record->address); });
}

bool_t xdr_rvzd_get_local_path_req_t(XDR *xdrs, rvzd_get_local_path_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_ks_canon_pname_p_t(xdrs, &record->global_path) &&
           xdr_size_t(xdrs, &record->size);
}

bool_t xdr_rvzd_get_local_path_reply_t(XDR *xdrs, rvzd_get_local_path_reply_t *record) {
    if (!xdr_rvzd_hdr_reply_t(xdrs, &record->header))
        return FALSE;
    if (!has_body(xdrs, record->header))
        return TRUE;
    if (xdrs->x_op == XDR_DECODE && record->path != nullptr)
        return decode_path_in_place(xdrs, record->path, record->size);
    return xdr_ks_canon_pname_p_t(xdrs, &record->path);
}

bool_t xdr_rvzd_toggle_server_restart_req_t(XDR *xdrs, rvzd_toggle_server_restart_req_t *record) {
    return xdr_rvzd_hdr_req_t(xdrs, &record->header) && xdr_tbs_boolean_t(xdrs, &record->enable) &&
           text(xdrs, record->name, RVZD_SERVER_NAME_MAX);
}

bool_t xdr_clnt_toggle_server_restart_t(XDR *xdrs, clnt_toggle_server_restart_t *record) {
    return xdr_int(xdrs, &record->status);
}

bool_t xdr_rvzd_toggle_server_restart_reply_t(XDR *xdrs, rvzd_toggle_server_restart_reply_t *record) {
    return xdr_rvzd_hdr_reply_t(xdrs, &record->header) &&
           (!has_body(xdrs, record->header) || xdr_clnt_toggle_server_restart_t(xdrs, &record->toggle));
}
