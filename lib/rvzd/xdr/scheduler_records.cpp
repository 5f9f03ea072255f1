// The scheduler's records: each routine is the list of its fields.
#include <veliaxdr/sched_wire.h>

#include <rvzd/xdr/fields.h>

using namespace velia;
using namespace velia::wire;

namespace {

bool_t code_text(XDR *xdrs, char **cell) {
    return xdr_ez_string8(xdrs, cell, no_maximum);
}

// Null is zeros on the wire, and decoding makes a record where there is none. The fields are coded in a copy, so that a
// record comes out whole or as it was.
template <class Record, class Fields>
bool_t code_handle(XDR *xdrs, Record *&handle, Fields &&code_fields) {
    Record fields = {};
    if (handle != nullptr && xdrs->x_op != XDR_DECODE)
        fields = *handle;
    if (!code_fields(fields))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE) {
        if (handle == nullptr)
            handle = static_cast<Record *>(stg_malloc(sizeof(Record)));
        if (handle == nullptr)
            return FALSE;
        *handle = fields;
    } else if (xdrs->x_op == XDR_FREE) {
        stg_free(handle);
        handle = nullptr;
    }
    return TRUE;
}

bool_t code_texts(XDR *xdrs, char **&texts, uint32_t count) {
    return code_elements<char *, code_text>(xdrs, texts, count);
}

bool_t code_monthly_day(XDR *xdrs, sched_monthly_sched_t *record) {
    switch (record->day_spec_kind) {
    case SCHED_MONTHLY_DAY_NUMBER:
        return xdr_u_int(xdrs, &record->day.number);
    case SCHED_MONTHLY_DAY_KIND:
        return xdr_sched_sched_monthly_day_kind_t(xdrs, &record->day.kind);
    default:
        return xdrs->x_op == XDR_FREE;
    }
}

bool_t code_schedule_arm(XDR *xdrs, sched_schedule_t *record) {
    switch (record->kind) {
    case SCHED_KIND_MONTHLY:
        return xdr_sched_monthly_sched_t(xdrs, &record->u.monthly);
    case SCHED_KIND_WEEKLY:
        return xdr_sched_weekly_sched_t(xdrs, &record->u.weekly);
    case SCHED_KIND_DAILY:
        return xdr_sched_daily_sched_t(xdrs, &record->u.daily);
    case SCHED_KIND_SEQUENTIAL:
        return xdr_sched_sequential_sched_t(xdrs, &record->u.sequential);
    default: // a record that was never filled holds nothing, and what stands behind it is released all the same
        return xdrs->x_op == XDR_FREE;
    }
}

// An object that is there for whoever follows the pointer, whatever was sent.
template <class Object, Routine<Object> routine>
bool_t code_object(XDR *xdrs, Object *&object) {
    void *cell = object;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): an object may be a pointer itself
    const bool_t done = xdr_ez_pointer(xdrs, &cell, sizeof *object, code_element<Object, routine>, nullptr);
    object = static_cast<Object *>(cell);
    return done;
}

bool_t code_word(XDR *xdrs, uint32_t *&word) {
    return xdr_pointer(xdrs, reinterpret_cast<char **>(&word), sizeof(uint32_t),
                       reinterpret_cast<xdrproc_t>(xdr_u_int));
}

// Freeing the count's cell takes the count away that the array is to be freed by.
uint32_t count_of(const uint32_t *count) {
    return count != nullptr ? *count : 0;
}

template <class Element, Routine<Element> routine>
bool_t code_indirect_elements(XDR *xdrs, Element **&array, uint32_t count) {
    auto **cell = reinterpret_cast<void **>(array);
    const bool_t done =
        xdr_ez_p2array(xdrs, &cell, &count, no_maximum, sizeof(Element), code_element<Element, routine>, nullptr);
    array = reinterpret_cast<Element **>(cell);
    return done;
}

template <class Element, Routine<Element> routine>
bool_t code_counted(XDR *xdrs, uint32_t *&count, Element **&array) {
    const uint32_t count_before = count_of(count);
    return code_word(xdrs, count) && code_indirect_elements<Element, routine>(
                                         xdrs, array, xdrs->x_op == XDR_FREE ? count_before : count_of(count));
}

// A request of this interface begins with a word whose low byte is 0.
bool_t code(XDR *xdrs, sched_request_t *record) {
    if (!velia_xdr_long(xdrs, &record->req_word))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE && (record->req_word & 0xff) != 0)
        return FALSE;
    return xdr_sched_h_t(xdrs, &record->handle);
}

bool_t code(XDR *xdrs, sched_acl_request_t *record) {
    return code(xdrs, &record->head) && xdr_tbs_acl_h_t(xdrs, &record->acl);
}

bool_t code(XDR *xdrs, sched_job_create_request_t *record) {
    return code(xdrs, &record->head) &&
           code_object<sched_job_rw_properties_t, xdr_sched_job_rw_properties_t>(xdrs, record->job);
}

bool_t code(XDR *xdrs, sched_utc_create_request_t *record) {
    return code(xdrs, &record->head) &&
           code_object<sched_job_utc_rw_props_t, xdr_sched_job_utc_rw_props_t>(xdrs, record->job);
}

bool_t code(XDR *xdrs, sched_job_delete_request_t *record) {
    return code(xdrs, &record->head) && code_object<sched_job_h_t, xdr_sched_job_h_t>(xdrs, record->job) &&
           xdr_tbs_boolean_t(xdrs, &record->flag);
}

bool_t code(XDR *xdrs, sched_job_id_request_t *record) {
    return code(xdrs, &record->head) && xdr_sched_job_id_t(xdrs, &record->job_id);
}

bool_t code(XDR *xdrs, sched_job_request_t *record) {
    return code(xdrs, &record->head) && xdr_sched_job_h_t(xdrs, &record->job);
}

bool_t code(XDR *xdrs, sched_job_set_request_t *record) {
    return code(xdrs, &record->head) && xdr_sched_job_h_t(xdrs, &record->job) &&
           code_object<sched_job_rw_properties_t, xdr_sched_job_rw_properties_t>(xdrs, record->properties);
}

bool_t code(XDR *xdrs, sched_utc_set_request_t *record) {
    return code(xdrs, &record->head) && xdr_sched_job_h_t(xdrs, &record->job) &&
           code_object<sched_job_utc_rw_props_t, xdr_sched_job_utc_rw_props_t>(xdrs, record->properties);
}

bool_t code(XDR *xdrs, sched_running_job_request_t *record) {
    return code(xdrs, &record->head) && xdr_sched_running_job_h_t(xdrs, &record->job);
}

bool_t code(XDR *xdrs, sched_name_request_t *record) {
    return code(xdrs, &record->head) && code_text(xdrs, &record->name);
}

bool_t code(XDR *xdrs, sched_task_request_t *record) {
    return code(xdrs, &record->head) && xdr_sched_task_id_t(xdrs, &record->task);
}

bool_t code(XDR *xdrs, sched_permission_request_t *record) {
    return code(xdrs, &record->head) && xdr_tbs_acl_permission_set_t(xdrs, &record->permissions);
}

bool_t code(XDR *xdrs, sched_task_name_request_t *record) {
    return code(xdrs, &record->head) && xdr_sched_task_id_t(xdrs, &record->task) && xdr_u_int(xdrs, &record->size);
}

bool_t code(XDR *xdrs, sched_contact_request_t *record) {
    return code(xdrs, &record->head) && xdr_u_int(xdrs, &record->version);
}

bool_t code(XDR *xdrs, sched_status_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status);
}

bool_t code(XDR *xdrs, sched_get_jobs_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_counted<sched_job_properties_t, xdr_sched_job_properties_t>(xdrs, record->count, record->jobs);
}

bool_t code(XDR *xdrs, sched_get_tasks_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_counted<sched_task_properties_t, xdr_sched_task_properties_t>(xdrs, record->count, record->tasks);
}

// The count goes ahead of the status.
bool_t code(XDR *xdrs, sched_app_perms_reply_t *record) {
    const uint32_t count_before = count_of(record->count);
    if (!code_word(xdrs, record->count) || !xdr_tbs_status_t(xdrs, &record->status))
        return FALSE;
    const uint32_t count = xdrs->x_op == XDR_FREE ? count_before : count_of(record->count);
    return code_indirect_elements<strutl_flag_item_t, xdr_strutl_flag_item_t>(xdrs, record->items, count) &&
           code_object<tbs_acl_generic_map_t, xdr_tbs_acl_generic_map_t>(xdrs, record->map);
}

bool_t code(XDR *xdrs, sched_boolean_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<tbs_boolean_t, xdr_tbs_boolean_t>(xdrs, record->value);
}

bool_t code(XDR *xdrs, sched_acl_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && code_object<tbs_acl_h_t, xdr_tbs_acl_h_t>(xdrs, record->acl);
}

bool_t code(XDR *xdrs, sched_job_create_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<sched_job_h_t, xdr_sched_job_h_t>(xdrs, record->job) &&
           code_object<uint32_t, xdr_sched_validate_job_rw_properties_err_mask_t>(xdrs, record->err_mask);
}

bool_t code(XDR *xdrs, sched_job_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && code_object<sched_job_h_t, xdr_sched_job_h_t>(xdrs, record->job);
}

bool_t code(XDR *xdrs, sched_properties_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<sched_job_properties_t, xdr_sched_job_properties_t>(xdrs, record->properties);
}

bool_t code(XDR *xdrs, sched_utc_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<sched_job_utc_props_t, xdr_sched_job_utc_props_t>(xdrs, record->properties);
}

bool_t code(XDR *xdrs, sched_err_mask_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<uint32_t, xdr_sched_validate_job_rw_properties_err_mask_t>(xdrs, record->err_mask);
}

bool_t code(XDR *xdrs, sched_running_job_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<sched_running_job_h_t, xdr_sched_running_job_h_t>(xdrs, record->job);
}

bool_t code(XDR *xdrs, sched_completion_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<sched_job_completion_info_t, xdr_sched_job_completion_info_t>(xdrs, record->info);
}

bool_t code(XDR *xdrs, sched_task_id_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) &&
           code_object<sched_task_id_t, xdr_sched_task_id_t>(xdrs, record->task);
}

bool_t code(XDR *xdrs, sched_task_name_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && xdr_u_int(xdrs, &record->size) && code_text(xdrs, &record->name);
}

bool_t code(XDR *xdrs, sched_time_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && code_object<time_t, xdr_time_t>(xdrs, record->time);
}

bool_t code(XDR *xdrs, sched_contact_reply_t *record) {
    return xdr_tbs_status_t(xdrs, &record->status) && code_word(xdrs, record->server_version) &&
           code_word(xdrs, record->server_version2);
}

bool_t code_id_text(XDR *xdrs, char *text) {
    return xdr_vector(xdrs, text, SCHED_ID_STR_SIZE, sizeof(char), reinterpret_cast<xdrproc_t>(xdr_char));
}

} // namespace

bool_t xdr_sched_job_id_t(XDR *xdrs, sched_job_id_t *cell) {
    return xdr_u_int(xdrs, cell);
}

bool_t xdr_sched_task_id_t(XDR *xdrs, sched_task_id_t *cell) {
    return xdr_u_int(xdrs, cell);
}

bool_t xdr_sched_job_exit_status_t(XDR *xdrs, sched_job_exit_status_t *cell) {
    return xdr_u_int(xdrs, cell);
}

bool_t xdr_sched_sched_dow_mask_t(XDR *xdrs, sched_sched_dow_mask_t *cell) {
    return xdr_u_int(xdrs, cell);
}

bool_t xdr_sched_event_mask_t(XDR *xdrs, sched_event_mask_t *cell) {
    return xdr_u_int(xdrs, cell);
}

bool_t xdr_sched_validate_job_rw_properties_err_mask_t(XDR *xdrs, sched_validate_job_rw_properties_err_mask_t *cell) {
    return xdr_u_int(xdrs, cell);
}

bool_t xdr_sched_notify_delivery_mask_t(XDR *xdrs, sched_notify_delivery_mask_t *cell) {
    return xdr_tbs_notify_delivery_mask_t(xdrs, cell);
}

bool_t xdr_sched_schedule_kind_t(XDR *xdrs, sched_schedule_kind_t *cell) {
    return xdr_enum(xdrs, cell);
}

bool_t xdr_sched_sched_mds_ordinal_t(XDR *xdrs, sched_sched_mds_ordinal_t *cell) {
    return xdr_enum(xdrs, cell);
}

bool_t xdr_sched_sched_mds_kind_t(XDR *xdrs, sched_sched_mds_kind_t *cell) {
    return xdr_enum(xdrs, cell);
}

bool_t xdr_sched_sched_monthly_day_spec_kind_t(XDR *xdrs, sched_sched_monthly_day_spec_kind_t *cell) {
    return xdr_enum(xdrs, cell);
}

bool_t xdr_sched_job_id_str_t(XDR *xdrs, sched_job_id_str_t *text) {
    return code_id_text(xdrs, *text);
}

bool_t xdr_sched_task_id_str_t(XDR *xdrs, sched_task_id_str_t *text) {
    return code_id_text(xdrs, *text);
}

bool_t xdr_sched_h_t(XDR *xdrs, sched_h_t *handle) {
    const bool_t done = code_handle(xdrs, *handle, [&](sched_handle &fields) {
        return xdr_u_int(xdrs, &fields.handle_word) && xdr_credutl_auth_ironvale_t(xdrs, &fields.auth);
    });
    if (done && xdrs->x_op == XDR_DECODE)
        (*handle)->client = {1, &(*handle)->auth};
    return done;
}

bool_t xdr_sched_job_h_t(XDR *xdrs, sched_job_h_t *handle) {
    return code_handle(xdrs, *handle,
                       [&](sched_job_handle &fields) { return xdr_sched_job_id_t(xdrs, &fields.job_id); });
}

bool_t xdr_sched_running_job_h_t(XDR *xdrs, sched_running_job_h_t *handle) {
    return code_handle(xdrs, *handle, [&](sched_running_job_handle &fields) {
        return xdr_sched_job_id_t(xdrs, &fields.job_id) && xdr_time_t(xdrs, &fields.started);
    });
}

bool_t xdr_sched_sched_lifetime_t(XDR *xdrs, sched_sched_lifetime_t *record) {
    return xdr_time_t(xdrs, &record->start_date) && xdr_time_t(xdrs, &record->last_date);
}

bool_t xdr_sched_sched_start_times_t(XDR *xdrs, sched_sched_start_times_t *record) {
    return xdr_u_int(xdrs, &record->first_start_time) && xdr_u_int(xdrs, &record->last_start_time) &&
           xdr_u_int(xdrs, &record->restart_frequency);
}

bool_t xdr_sched_common_sched_t(XDR *xdrs, sched_common_sched_t *record) {
    return xdr_sched_sched_lifetime_t(xdrs, &record->lifetime) &&
           xdr_sched_sched_start_times_t(xdrs, &record->start_times);
}

bool_t xdr_sched_sched_monthly_day_kind_t(XDR *xdrs, sched_sched_monthly_day_kind_t *record) {
    return xdr_sched_sched_mds_ordinal_t(xdrs, &record->ordinal) && xdr_sched_sched_mds_kind_t(xdrs, &record->kind);
}

bool_t xdr_sched_monthly_sched_t(XDR *xdrs, sched_monthly_sched_t *record) {
    return xdr_sched_common_sched_t(xdrs, &record->common) && xdr_int(xdrs, &record->frequency) &&
           xdr_sched_sched_monthly_day_spec_kind_t(xdrs, &record->day_spec_kind) && code_monthly_day(xdrs, record);
}

bool_t xdr_sched_weekly_sched_t(XDR *xdrs, sched_weekly_sched_t *record) {
    return xdr_sched_common_sched_t(xdrs, &record->common) && xdr_int(xdrs, &record->frequency) &&
           xdr_sched_sched_dow_mask_t(xdrs, &record->days);
}

bool_t xdr_sched_daily_sched_t(XDR *xdrs, sched_daily_sched_t *record) {
    return xdr_sched_common_sched_t(xdrs, &record->common) && xdr_int(xdrs, &record->frequency);
}

bool_t xdr_sched_sequential_sched_t(XDR *xdrs, sched_sequential_sched_t *record) {
    return xdr_sched_job_id_t(xdrs, &record->follows_job);
}

bool_t xdr_sched_schedule_t(XDR *xdrs, sched_schedule_t *record) {
    return xdr_sched_schedule_kind_t(xdrs, &record->kind) && code_schedule_arm(xdrs, record);
}

bool_t xdr_sched_job_run_cntl_t(XDR *xdrs, sched_job_run_cntl_t *record) {
    return xdr_u_int(xdrs, &record->max_run_time);
}

bool_t xdr_sched_notify_info_t(XDR *xdrs, sched_notify_info_t *record) {
    return xdr_sched_event_mask_t(xdrs, &record->events) && xdr_sched_notify_delivery_mask_t(xdrs, &record->delivery) &&
           xdr_int(xdrs, &record->recipient_count) &&
           code_texts(xdrs, record->recipients, static_cast<uint32_t>(record->recipient_count));
}

bool_t xdr_sched_job_rw_properties_t(XDR *xdrs, sched_job_rw_properties_t *record) {
    return code_text(xdrs, &record->name) && code_text(xdrs, &record->description) &&
           xdr_sched_schedule_t(xdrs, &record->schedule) && xdr_sched_task_id_t(xdrs, &record->task) &&
           xdr_u_int(xdrs, &record->arg_count) && code_texts(xdrs, record->args, record->arg_count) &&
           xdr_sched_job_run_cntl_t(xdrs, &record->run_control) &&
           xdr_tbs_boolean_t(xdrs, &record->delete_when_completed) && xdr_u_int(xdrs, &record->notify_count) &&
           code_elements<sched_notify_info_t, xdr_sched_notify_info_t>(xdrs, record->notify, record->notify_count);
}

bool_t xdr_sched_www_info_t(XDR *xdrs, sched_www_info_t *record) {
    return code_text(xdrs, &record->who) && code_text(xdrs, &record->who_extra) && code_text(xdrs, &record->where) &&
           xdr_time_t(xdrs, &record->when);
}

bool_t xdr_sched_running_job_status_t(XDR *xdrs, sched_running_job_status_t *record) {
    return code_text(xdrs, &record->process_id) && xdr_time_t(xdrs, &record->started);
}

bool_t xdr_sched_job_completion_info_t(XDR *xdrs, sched_job_completion_info_t *record) {
    return code_text(xdrs, &record->process_id) && xdr_time_t(xdrs, &record->started) &&
           xdr_time_t(xdrs, &record->ended) && xdr_sched_job_exit_status_t(xdrs, &record->exit_status) &&
           code_text(xdrs, &record->messages);
}

bool_t xdr_sched_job_ro_properties_t(XDR *xdrs, sched_job_ro_properties_t *record) {
    return xdr_tbs_boolean_t(xdrs, &record->predefined) && xdr_sched_job_id_t(xdrs, &record->job_id) &&
           xdr_time_t(xdrs, &record->next_run_time) && xdr_sched_www_info_t(xdrs, &record->created) &&
           xdr_sched_www_info_t(xdrs, &record->last_modified) &&
           xdr_sched_running_job_status_t(xdrs, &record->running_status) &&
           xdr_sched_job_completion_info_t(xdrs, &record->last_completion);
}

bool_t xdr_sched_job_properties_t(XDR *xdrs, sched_job_properties_t *record) {
    return xdr_sched_job_rw_properties_t(xdrs, &record->rw) && xdr_sched_job_ro_properties_t(xdrs, &record->ro);
}

bool_t xdr_sched_job_utc_lifetime_t(XDR *xdrs, sched_job_utc_lifetime_t *record) {
    return xdr_time_t(xdrs, &record->utc_time) && xdr_int(xdrs, &record->utc_int) && xdr_u_int(xdrs, &record->utc_uint);
}

bool_t xdr_sched_job_utc_rw_props_t(XDR *xdrs, sched_job_utc_rw_props_t *record) {
    return xdr_sched_job_utc_lifetime_t(xdrs, &record->utc) && xdr_sched_job_rw_properties_t(xdrs, &record->rw);
}

bool_t xdr_sched_job_utc_props_t(XDR *xdrs, sched_job_utc_props_t *record) {
    return xdr_sched_job_utc_lifetime_t(xdrs, &record->utc) && xdr_sched_job_properties_t(xdrs, &record->props);
}

bool_t xdr_sched_task_ui_info_t(XDR *xdrs, sched_task_ui_info_t *record) {
    return code_text(xdrs, &record->ui_info);
}

bool_t xdr_sched_task_properties_t(XDR *xdrs, sched_task_properties_t *record) {
    return xdr_sched_task_id_t(xdrs, &record->task_id) && code_text(xdrs, &record->name) &&
           xdr_sched_task_ui_info_t(xdrs, &record->ui) && code_text(xdrs, &record->pathname) &&
           xdr_credutl_credentials_t(xdrs, &record->run_as);
}

// NOLINTBEGIN(bugprone-macro-parentheses): types
#define DEFINE_ROUTINES(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                            \
    bool_t xdr_##NAME##_V2_over(XDR *xdrs, REQUEST *record) {                                                          \
        return code(xdrs, record);                                                                                     \
    }                                                                                                                  \
    bool_t xdr_##NAME##_V2_back(XDR *xdrs, REPLY *record) {                                                            \
        return code(xdrs, record);                                                                                     \
    }
RVZD_SCHEDULER_PROCEDURES(DEFINE_ROUTINES)
#undef DEFINE_ROUTINES
// NOLINTEND(bugprone-macro-parentheses)

void sched_xdr_makeprocs(void) {}
void sched_xdr_freeprocs(void) {}
