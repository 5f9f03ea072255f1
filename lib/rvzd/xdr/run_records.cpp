// Records of the runs of jobs, and of who changed what: each routine is the list of its fields.
#include <veliaxdr/sched_runs.h>

#include <rvzd/xdr/fields.h>

using namespace velia;
using namespace velia::wire;

bool_t xdr_sched_run_output_t(XDR *xdrs, sched_run_output_t *record) {
    return xdr_time_t(xdrs, &record->started) && xdr_time_t(xdrs, &record->ended) && xdr_size_t(xdrs, &record->total) &&
           xdr_bytes(xdrs, &record->bytes, &record->size, SCHED_RUN_PIECE_MAX);
}

bool_t xdr_sched_run_t(XDR *xdrs, sched_run_t *record) {
    return xdr_time_t(xdrs, &record->started) && xdr_time_t(xdrs, &record->due) && xdr_time_t(xdrs, &record->ended) &&
           xdr_sched_job_exit_status_t(xdrs, &record->exit_status) && text(xdrs, record->process_id) &&
           text(xdrs, record->messages);
}

bool_t xdr_sched_change_t(XDR *xdrs, sched_change_t *record) {
    return xdr_size_t(xdrs, &record->number) && xdr_time_t(xdrs, &record->when) && text(xdrs, record->who) &&
           text(xdrs, record->where) && text(xdrs, record->what) && xdr_sched_job_id_t(xdrs, &record->job_id) &&
           text(xdrs, record->job_name) && text(xdrs, record->fields);
}

bool_t xdr_sched_run_output_request_t(XDR *xdrs, sched_run_output_request_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->job_id) && xdr_time_t(xdrs, &record->started) &&
           xdr_size_t(xdrs, &record->offset) && xdr_u_int(xdrs, &record->size_max);
}

bool_t xdr_sched_run_output_reply_t(XDR *xdrs, sched_run_output_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_sched_run_output_t(xdrs, &record->output);
}

bool_t xdr_sched_run_history_request_t(XDR *xdrs, sched_run_history_request_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->job_id);
}

bool_t xdr_sched_run_history_reply_t(XDR *xdrs, sched_run_history_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_u_int(xdrs, &record->count) &&
           code_elements<sched_run_t, xdr_sched_run_t>(xdrs, record->runs, record->count);
}

bool_t xdr_sched_changes_request_t(XDR *xdrs, sched_changes_request_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->job_id) && xdr_size_t(xdrs, &record->before) &&
           xdr_u_int(xdrs, &record->count_max);
}

bool_t xdr_sched_changes_reply_t(XDR *xdrs, sched_changes_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_u_int(xdrs, &record->count) &&
           code_elements<sched_change_t, xdr_sched_change_t>(xdrs, record->changes, record->count);
}

bool_t xdr_sched_next_run_t(XDR *xdrs, sched_next_run_t *record) {
    return xdr_time_t(xdrs, &record->at) && xdr_int(xdrs, &record->utc_offset) && xdr_u_int(xdrs, &record->clock_shift);
}

bool_t xdr_sched_next_runs_request_t(XDR *xdrs, sched_next_runs_request_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->job_id) && xdr_time_t(xdrs, &record->after) &&
           xdr_u_int(xdrs, &record->count_max);
}

bool_t xdr_sched_next_runs_reply_t(XDR *xdrs, sched_next_runs_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_u_int(xdrs, &record->count) &&
           code_elements<sched_next_run_t, xdr_sched_next_run_t>(xdrs, record->next_runs, record->count);
}

bool_t xdr_sched_job_host_t(XDR *xdrs, sched_job_host_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->job_id) && text(xdrs, record->host) && text(xdrs, record->run_host);
}

bool_t xdr_sched_set_host_request_t(XDR *xdrs, sched_set_host_request_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->job_id) && text(xdrs, record->host);
}

bool_t xdr_sched_set_host_reply_t(XDR *xdrs, sched_set_host_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status);
}

bool_t xdr_sched_create_at_host_request_t(XDR *xdrs, sched_create_at_host_request_t *record) {
    return text(xdrs, record->host) && xdr_sched_job_rw_properties_t(xdrs, &record->job);
}

bool_t xdr_sched_create_at_host_reply_t(XDR *xdrs, sched_create_at_host_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_sched_job_id_t(xdrs, &record->job_id) &&
           xdr_sched_validate_job_rw_properties_err_mask_t(xdrs, &record->err_mask);
}

bool_t xdr_sched_job_hosts_request_t(XDR *xdrs, sched_job_hosts_request_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->after) && xdr_u_int(xdrs, &record->count_max);
}

bool_t xdr_sched_job_hosts_reply_t(XDR *xdrs, sched_job_hosts_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_u_int(xdrs, &record->count) &&
           code_elements<sched_job_host_t, xdr_sched_job_host_t>(xdrs, record->hosts, record->count);
}
