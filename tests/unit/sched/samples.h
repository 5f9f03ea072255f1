// Random records of every kind of the scheduler. As in tests/unit/xdr/samples.h the strings, arrays and objects of a
// record belong to its sampler.
#pragma once

#include <tests/unit/xdr/samples.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>
#include <veliaxdr/sched_wire.h>

namespace wire_tests {

constexpr size_t sched_text_longest = 40;
constexpr size_t sched_elements_most = 3;

template <class Record>
Record *sampled_object(Sampler &s);

inline void fill(Sampler &s, credutl_credentials_t &r) {
    r = {};
    r.user = static_cast<uint32_t>(s.word());
    r.group = static_cast<uint32_t>(s.word());
    r.group_count = static_cast<uint32_t>(s.number(CREDUTL_GROUPS_MAX));
    for (uint32_t i = 0; i < r.group_count; ++i)
        r.groups[i] = static_cast<uint32_t>(s.word());
}
inline void fill(Sampler &s, sched_handle &r) {
    r = {};
    r.handle_word = static_cast<uint32_t>(s.word());
    r.auth.flavour = static_cast<uint32_t>(s.word());
    fill(s, r.auth.credentials);
}
inline void fill(Sampler &s, sched_job_handle &r) {
    r = {static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_running_job_handle &r) {
    r = {static_cast<uint32_t>(s.word()), s.time()};
}
inline void fill(Sampler &s, tbs_acl_t &r) {
    r.count = static_cast<uint32_t>(s.number(sched_elements_most));
    r.entries = s.array<tbs_acl_entry_t>(r.count);
    for (uint32_t i = 0; i < r.count; ++i)
        r.entries[i] = {static_cast<uint32_t>(s.number(2)), s.text(sched_text_longest),
                        static_cast<uint32_t>(s.word())};
}
// A handle, or none.
template <class Record>
void fill(Sampler &s, Record *&r) {
    r = s.coin() ? sampled_object<Record>(s) : nullptr;
}
inline void fill(Sampler &s, char *&r) {
    r = s.text(sched_text_longest);
}
inline void fill(Sampler &s, uint32_t &r) {
    r = static_cast<uint32_t>(s.word());
}
inline void fill(Sampler &s, int32_t &r) { // of a boolean
    r = s.coin() ? 1 : 0;
}
inline void fill(Sampler &s, time_t &r) {
    r = s.time();
}
inline void fill(Sampler &s, tbs_acl_generic_map_t &r) {
    r = {static_cast<uint32_t>(s.word()), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, strutl_flag_item_t &r) {
    r = {s.text(sched_text_longest), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_common_sched_t &r) {
    r = {{s.time(), s.time()},
         {static_cast<uint32_t>(s.word()), static_cast<uint32_t>(s.word()), static_cast<uint32_t>(s.word())}};
}
inline void fill(Sampler &s, sched_monthly_sched_t &r) {
    r = {};
    fill(s, r.common);
    r.frequency = s.signed_word();
    r.day_spec_kind = s.coin() ? SCHED_MONTHLY_DAY_NUMBER : SCHED_MONTHLY_DAY_KIND;
    if (r.day_spec_kind == SCHED_MONTHLY_DAY_NUMBER)
        r.day.number = static_cast<uint32_t>(s.word());
    else
        r.day.kind = {s.signed_word(), s.signed_word()};
}
inline void fill(Sampler &s, sched_weekly_sched_t &r) {
    fill(s, r.common);
    r.frequency = s.signed_word();
    r.days = static_cast<uint32_t>(s.word());
}
inline void fill(Sampler &s, sched_daily_sched_t &r) {
    fill(s, r.common);
    r.frequency = s.signed_word();
}
inline void fill(Sampler &s, sched_schedule_t &r) {
    r = {};
    r.kind = static_cast<int32_t>(SCHED_KIND_MONTHLY + s.number(3));
    switch (r.kind) {
    case SCHED_KIND_MONTHLY:
        return fill(s, r.u.monthly);
    case SCHED_KIND_WEEKLY:
        return fill(s, r.u.weekly);
    case SCHED_KIND_DAILY:
        return fill(s, r.u.daily);
    default:
        r.u.sequential.follows_job = static_cast<uint32_t>(s.word());
    }
}
inline char **sampled_texts(Sampler &s, size_t count) {
    char **texts = s.array<char *>(count);
    for (size_t i = 0; i < count; ++i)
        fill(s, texts[i]);
    return texts;
}
inline void fill(Sampler &s, sched_notify_info_t &r) {
    r.events = static_cast<uint32_t>(s.word());
    r.delivery = static_cast<uint32_t>(s.word());
    r.recipient_count = static_cast<int32_t>(s.number(sched_elements_most));
    r.recipients = sampled_texts(s, static_cast<size_t>(r.recipient_count));
}
inline void fill(Sampler &s, sched_job_rw_properties_t &r) {
    fill(s, r.name);
    fill(s, r.description);
    fill(s, r.schedule);
    fill(s, r.task);
    r.arg_count = static_cast<uint32_t>(s.number(sched_elements_most));
    r.args = sampled_texts(s, r.arg_count);
    fill(s, r.run_control.max_run_time);
    fill(s, r.delete_when_completed);
    r.notify_count = static_cast<uint32_t>(s.number(sched_elements_most));
    r.notify = s.array<sched_notify_info_t>(r.notify_count);
    for (uint32_t i = 0; i < r.notify_count; ++i)
        fill(s, r.notify[i]);
}
inline void fill(Sampler &s, sched_www_info_t &r) {
    r = {s.text(sched_text_longest), s.text(sched_text_longest), s.text(sched_text_longest), s.time()};
}
inline void fill(Sampler &s, sched_job_completion_info_t &r) {
    r = {s.text(sched_text_longest), s.time(), s.time(), static_cast<uint32_t>(s.word()), s.text(sched_text_longest)};
}
inline void fill(Sampler &s, sched_job_ro_properties_t &r) {
    fill(s, r.predefined);
    fill(s, r.job_id);
    fill(s, r.next_run_time);
    fill(s, r.created);
    fill(s, r.last_modified);
    r.running_status = {s.text(sched_text_longest), s.time()};
    fill(s, r.last_completion);
}
inline void fill(Sampler &s, sched_job_properties_t &r) {
    fill(s, r.rw);
    fill(s, r.ro);
}
inline void fill(Sampler &s, sched_job_utc_lifetime_t &r) {
    r = {s.time(), s.signed_word(), static_cast<uint32_t>(s.word())};
}
inline void fill(Sampler &s, sched_job_utc_rw_props_t &r) {
    fill(s, r.utc);
    fill(s, r.rw);
}
inline void fill(Sampler &s, sched_job_utc_props_t &r) {
    fill(s, r.utc);
    fill(s, r.props);
}
inline void fill(Sampler &s, sched_task_properties_t &r) {
    fill(s, r.task_id);
    fill(s, r.name);
    fill(s, r.ui.ui_info);
    fill(s, r.pathname);
    fill(s, r.run_as);
}

template <class Record>
Record *sampled_object(Sampler &s) {
    auto *object = s.array<Record>(1);
    *object = {};
    fill(s, *object);
    return object;
}
template <class Element>
Element **sampled_array(Sampler &s, uint32_t *&count) {
    count = s.array<uint32_t>(1);
    *count = static_cast<uint32_t>(s.number(sched_elements_most));
    auto **cell = s.array<Element *>(1);
    *cell = s.array<Element>(*count);
    for (uint32_t i = 0; i < *count; ++i)
        fill(s, (*cell)[i]);
    return cell;
}

// Requests.
inline void fill(Sampler &s, sched_request_t &r) {
    r.req_word = 0;
    fill(s, r.handle);
}
inline void fill(Sampler &s, sched_acl_request_t &r) {
    fill(s, r.head);
    fill(s, r.acl);
}
inline void fill(Sampler &s, sched_job_create_request_t &r) {
    fill(s, r.head);
    r.job = sampled_object<sched_job_rw_properties_t>(s);
}
inline void fill(Sampler &s, sched_utc_create_request_t &r) {
    fill(s, r.head);
    r.job = sampled_object<sched_job_utc_rw_props_t>(s);
}
inline void fill(Sampler &s, sched_job_delete_request_t &r) {
    fill(s, r.head);
    r.job = sampled_object<sched_job_h_t>(s);
    fill(s, r.flag);
}
inline void fill(Sampler &s, sched_job_id_request_t &r) {
    fill(s, r.head);
    fill(s, r.job_id);
}
inline void fill(Sampler &s, sched_job_request_t &r) {
    fill(s, r.head);
    fill(s, r.job);
}
inline void fill(Sampler &s, sched_job_set_request_t &r) {
    fill(s, r.head);
    fill(s, r.job);
    r.properties = sampled_object<sched_job_rw_properties_t>(s);
}
inline void fill(Sampler &s, sched_utc_set_request_t &r) {
    fill(s, r.head);
    fill(s, r.job);
    r.properties = sampled_object<sched_job_utc_rw_props_t>(s);
}
inline void fill(Sampler &s, sched_running_job_request_t &r) {
    fill(s, r.head);
    fill(s, r.job);
}
inline void fill(Sampler &s, sched_name_request_t &r) {
    fill(s, r.head);
    fill(s, r.name);
}
inline void fill(Sampler &s, sched_task_request_t &r) {
    fill(s, r.head);
    fill(s, r.task);
}
inline void fill(Sampler &s, sched_permission_request_t &r) {
    fill(s, r.head);
    fill(s, r.permissions);
}
inline void fill(Sampler &s, sched_task_name_request_t &r) {
    fill(s, r.head);
    fill(s, r.task);
    fill(s, r.size);
}
inline void fill(Sampler &s, sched_contact_request_t &r) {
    fill(s, r.head);
    fill(s, r.version);
}

// Replies.
inline void fill(Sampler &s, sched_status_reply_t &r) {
    r.status = s.signed_word();
}
inline void fill(Sampler &s, sched_get_jobs_reply_t &r) {
    r.status = s.signed_word();
    r.jobs = sampled_array<sched_job_properties_t>(s, r.count);
}
inline void fill(Sampler &s, sched_get_tasks_reply_t &r) {
    r.status = s.signed_word();
    r.tasks = sampled_array<sched_task_properties_t>(s, r.count);
}
inline void fill(Sampler &s, sched_app_perms_reply_t &r) {
    r.status = s.signed_word();
    r.items = sampled_array<strutl_flag_item_t>(s, r.count);
    r.map = sampled_object<tbs_acl_generic_map_t>(s);
}
template <class Reply>
requires requires(Reply r) {
    r.value;
}
void fill(Sampler &s, Reply &r) {
    r = {s.signed_word(), sampled_object<tbs_boolean_t>(s)};
}
inline void fill(Sampler &s, sched_acl_reply_t &r) {
    r = {s.signed_word(), sampled_object<tbs_acl_h_t>(s)};
}
inline void fill(Sampler &s, sched_job_create_reply_t &r) {
    r = {s.signed_word(), sampled_object<sched_job_h_t>(s), sampled_object<uint32_t>(s)};
}
inline void fill(Sampler &s, sched_job_reply_t &r) {
    r = {s.signed_word(), sampled_object<sched_job_h_t>(s)};
}
inline void fill(Sampler &s, sched_properties_reply_t &r) {
    r = {s.signed_word(), sampled_object<sched_job_properties_t>(s)};
}
inline void fill(Sampler &s, sched_utc_reply_t &r) {
    r = {s.signed_word(), sampled_object<sched_job_utc_props_t>(s)};
}
inline void fill(Sampler &s, sched_err_mask_reply_t &r) {
    r = {s.signed_word(), sampled_object<uint32_t>(s)};
}
inline void fill(Sampler &s, sched_running_job_reply_t &r) {
    r = {s.signed_word(), sampled_object<sched_running_job_h_t>(s)};
}
inline void fill(Sampler &s, sched_completion_reply_t &r) {
    r = {s.signed_word(), sampled_object<sched_job_completion_info_t>(s)};
}
inline void fill(Sampler &s, sched_task_id_reply_t &r) {
    r = {s.signed_word(), sampled_object<uint32_t>(s)};
}
inline void fill(Sampler &s, sched_task_name_reply_t &r) {
    r = {s.signed_word(), static_cast<uint32_t>(s.word()), s.text(sched_text_longest)};
}
inline void fill(Sampler &s, sched_time_reply_t &r) {
    r = {s.signed_word(), sampled_object<time_t>(s)};
}
inline void fill(Sampler &s, sched_contact_reply_t &r) {
    r = {s.signed_word(), sampled_object<uint32_t>(s), sampled_object<uint32_t>(s)};
}

// Calls `visit(name, routine)` for the request and the reply of each procedure.
template <class Visit>
void for_each_scheduler_kind(Visit &&visit) {
    velia::for_each_scheduler_procedure([&](const auto &row) {
        visit((std::string(row.name) + " request").c_str(), row.xdr_request);
        visit((std::string(row.name) + " reply").c_str(), row.xdr_reply);
    });
}

} // namespace wire_tests
