// Records of whole sets of jobs: each routine is the list of its fields.
#include <veliaxdr/sched_sets.h>

#include <rvzd/xdr/fields.h>

using namespace velia;
using namespace velia::wire;

// A deletion carries no job. Free mode releases whatever is there.
bool_t xdr_sched_set_change_t(XDR *xdrs, sched_set_change_t *record) {
    if (!xdr_int(xdrs, &record->what) || !xdr_sched_job_id_t(xdrs, &record->job_id) ||
        !xdr_u_int(xdrs, &record->follows))
        return FALSE;
    switch (record->what) {
    case SCHED_SET_CREATE:
    case SCHED_SET_CHANGE:
        return xdr_sched_job_rw_properties_t(xdrs, &record->rw);
    default:
        return record->what == SCHED_SET_DELETE || xdrs->x_op == XDR_FREE;
    }
}

bool_t xdr_sched_set_get_jobs_request_t(XDR *xdrs, sched_set_get_jobs_request_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->after);
}

bool_t xdr_sched_set_get_jobs_reply_t(XDR *xdrs, sched_set_get_jobs_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_size_t(xdrs, &record->state) &&
           xdr_tbs_boolean_t(xdrs, &record->has_more) && xdr_u_int(xdrs, &record->count) &&
           code_elements<sched_job_properties_t, xdr_sched_job_properties_t>(xdrs, record->jobs, record->count);
}

bool_t xdr_sched_set_apply_request_t(XDR *xdrs, sched_set_apply_request_t *record) {
    return xdr_size_t(xdrs, &record->set) && xdr_size_t(xdrs, &record->state) && xdr_u_int(xdrs, &record->before) &&
           xdr_tbs_boolean_t(xdrs, &record->is_last) && xdr_u_int(xdrs, &record->count) &&
           code_elements<sched_set_change_t, xdr_sched_set_change_t>(xdrs, record->changes, record->count);
}

bool_t xdr_sched_set_apply_reply_t(XDR *xdrs, sched_set_apply_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_size_t(xdrs, &record->set) &&
           xdr_u_int(xdrs, &record->fault.place) &&
           xdr_sched_validate_job_rw_properties_err_mask_t(xdrs, &record->fault.err_mask) &&
           xdr_sched_job_id_t(xdrs, &record->first_created);
}
