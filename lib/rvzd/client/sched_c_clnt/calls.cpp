// The calls: what each puts into its request, and what it takes out of its reply.
#include <rvzd/client/sched_c_clnt/call.h>
#include <veliaxdr/sched_access.h>
#include <veliaxdr/sched_jobs.h>
#include <veliaxdr/sched_tasks.h>

using namespace velia;
using namespace velia::scheduler;
namespace row = velia::procedures;

namespace {

sched_request_t head(sched_h_t handle) {
    return {0, handle};
}

// What nearly all calls that give one thing have in common.
template <class Value, class Reply>
auto copying(Value *out, Value *Reply::*field) {
    return [out, field](Reply &reply) { copy_out(out, reply.*field); };
}

template <class Value, class Reply>
auto moving(Value *out, Value *Reply::*field) {
    return [out, field](Reply &reply) { move_out(out, reply.*field); };
}

auto take_created(sched_job_h_t *out, uint32_t *err_mask) {
    return [out, err_mask](sched_job_create_reply_t &reply) {
        move_out(out, reply.job);
        copy_out(err_mask, reply.err_mask);
    };
}

} // namespace

tbs_status_t sched_contact(sched_h_t handle, uint32_t version, uint32_t *server_version, uint32_t *server_version2) {
    return call<sched_contact_V2>(row::sched_contact, handle, sched_contact_request_t{head(handle), version},
                                  [&](sched_contact_reply_t &reply) {
                                      copy_out(server_version, reply.server_version);
                                      copy_out(server_version2, reply.server_version2);
                                  });
}

tbs_status_t sched_get_time(sched_h_t handle, time_t *server_time) {
    return call<sched_get_time_V2>(row::sched_get_time, handle, head(handle),
                                   copying(server_time, &sched_time_reply_t::time));
}

tbs_status_t sched_get_jobs(sched_h_t handle, uint32_t *count, sched_job_properties_t **jobs) {
    return call<sched_get_jobs_V2>(row::sched_get_jobs, handle, head(handle), [&](sched_get_jobs_reply_t &reply) {
        copy_out(count, reply.count);
        move_out(jobs, reply.jobs);
    });
}

tbs_status_t sched_has_info_changed(sched_h_t handle, tbs_boolean_t *changed) {
    return call<sched_has_info_changed_V2>(row::sched_has_info_changed, handle, head(handle),
                                           copying(changed, &sched_boolean_reply_t::value));
}

tbs_status_t sched_get_tasks(sched_h_t handle, uint32_t *count, sched_task_properties_t **tasks) {
    return call<sched_get_tasks_V2>(row::sched_get_tasks, handle, head(handle), [&](sched_get_tasks_reply_t &reply) {
        copy_out(count, reply.count);
        move_out(tasks, reply.tasks);
    });
}

tbs_status_t sched_get_app_perms(sched_h_t handle, strutl_flag_item_t **items, uint32_t *count,
                                 tbs_acl_generic_map_t *map) {
    return call<sched_get_app_perms_V2>(row::sched_get_app_perms, handle, head(handle),
                                        [&](sched_app_perms_reply_t &reply) {
                                            move_out(items, reply.items);
                                            copy_out(count, reply.count);
                                            copy_out(map, reply.map);
                                        });
}

tbs_status_t sched_get_acl(sched_h_t handle, tbs_acl_h_t *acl) {
    return call<sched_get_acl_V2>(row::sched_get_acl, handle, head(handle), moving(acl, &sched_acl_reply_t::acl));
}

tbs_status_t sched_set_acl(sched_h_t handle, tbs_acl_h_t acl) {
    return call<sched_set_acl_V2>(row::sched_set_acl, handle, sched_acl_request_t{head(handle), acl}, take_nothing);
}

tbs_status_t sched_check_acc(sched_h_t handle, tbs_acl_permission_set_t permissions) {
    return call<sched_check_acc_V2>(row::sched_check_acc, handle, sched_permission_request_t{head(handle), permissions},
                                    take_nothing);
}

tbs_status_t sched_job_create(sched_h_t handle, sched_job_rw_properties_t *job, sched_job_h_t *out,
                              sched_validate_job_rw_properties_err_mask_t *err_mask) {
    return call<sched_job_create_V2>(row::sched_job_create, handle, sched_job_create_request_t{head(handle), job},
                                     take_created(out, err_mask));
}

tbs_status_t sched_job_create_utc(sched_h_t handle, sched_job_utc_rw_props_t *job, sched_job_h_t *out,
                                  sched_validate_job_rw_properties_err_mask_t *err_mask) {
    return call<sched_job_create_utc_V2>(row::sched_job_create_utc, handle,
                                         sched_utc_create_request_t{head(handle), job}, take_created(out, err_mask));
}

tbs_status_t sched_job_delete(sched_h_t handle, sched_job_h_t *job, tbs_boolean_t even_running) {
    return call<sched_job_delete_V2>(row::sched_job_delete, handle,
                                     sched_job_delete_request_t{head(handle), job, even_running},
                                     moving(job, &sched_job_reply_t::job));
}

tbs_status_t sched_job_lookup_by_id(sched_h_t handle, sched_job_id_t id, sched_job_h_t *out) {
    return call<sched_job_lookup_by_id_V2>(row::sched_job_lookup_by_id, handle,
                                           sched_job_id_request_t{head(handle), id},
                                           moving(out, &sched_job_reply_t::job));
}

tbs_status_t sched_job_lookup_by_name(sched_h_t handle, const char *name, sched_job_h_t *out) {
    return call<sched_job_lookup_by_name_V2>(row::sched_job_lookup_by_name, handle,
                                             sched_name_request_t{head(handle), const_cast<char *>(name)},
                                             moving(out, &sched_job_reply_t::job));
}

tbs_status_t sched_job_get_properties(sched_h_t handle, sched_job_h_t job, sched_job_properties_t *properties) {
    return call<sched_job_get_properties_V2>(row::sched_job_get_properties, handle,
                                             sched_job_request_t{head(handle), job},
                                             moving(properties, &sched_properties_reply_t::properties));
}

tbs_status_t sched_job_get_properties_utc(sched_h_t handle, sched_job_h_t job, sched_job_utc_props_t *properties) {
    return call<sched_job_get_properties_utc_V2>(row::sched_job_get_properties_utc, handle,
                                                 sched_job_request_t{head(handle), job},
                                                 moving(properties, &sched_utc_reply_t::properties));
}

tbs_status_t sched_job_set_properties(sched_h_t handle, sched_job_h_t job, sched_job_rw_properties_t *properties,
                                      sched_validate_job_rw_properties_err_mask_t *err_mask) {
    return call<sched_job_set_properties_V2>(row::sched_job_set_properties, handle,
                                             sched_job_set_request_t{head(handle), job, properties},
                                             copying(err_mask, &sched_err_mask_reply_t::err_mask));
}

tbs_status_t sched_job_set_properties_utc(sched_h_t handle, sched_job_h_t job, sched_job_utc_rw_props_t *properties,
                                          sched_validate_job_rw_properties_err_mask_t *err_mask) {
    return call<sched_job_set_properties_utc_V2>(row::sched_job_set_properties_utc, handle,
                                                 sched_utc_set_request_t{head(handle), job, properties},
                                                 copying(err_mask, &sched_err_mask_reply_t::err_mask));
}

tbs_status_t sched_job_has_info_changed(sched_h_t handle, sched_job_h_t job, tbs_boolean_t *changed) {
    return call<sched_job_has_info_changed_V2>(row::sched_job_has_info_changed, handle,
                                               sched_job_request_t{head(handle), job},
                                               copying(changed, &sched_boolean_reply_t::value));
}

tbs_status_t sched_rjob_get_handle(sched_h_t handle, sched_job_h_t job, sched_running_job_h_t *out) {
    return call<sched_rjob_get_handle_V2>(row::sched_rjob_get_handle, handle, sched_job_request_t{head(handle), job},
                                          moving(out, &sched_running_job_reply_t::job));
}

tbs_status_t sched_rjob_run_job(sched_h_t handle, sched_job_h_t job, sched_running_job_h_t *out) {
    return call<sched_rjob_run_job_V2>(row::sched_rjob_run_job, handle, sched_job_request_t{head(handle), job},
                                       moving(out, &sched_running_job_reply_t::job));
}

tbs_status_t sched_rjob_get_completion_info(sched_h_t handle, sched_running_job_h_t job,
                                            sched_job_completion_info_t *info) {
    return call<sched_rjob_get_completion_info_V2>(row::sched_rjob_get_completion_info, handle,
                                                   sched_running_job_request_t{head(handle), job},
                                                   moving(info, &sched_completion_reply_t::info));
}

tbs_status_t sched_rjob_terminate(sched_h_t handle, sched_running_job_h_t job) {
    return call<sched_rjob_terminate_V2>(row::sched_rjob_terminate, handle,
                                         sched_running_job_request_t{head(handle), job}, take_nothing);
}

tbs_status_t sched_task_exists(sched_h_t handle, sched_task_id_t id, tbs_boolean_t *exists) {
    return call<sched_task_exists_V2>(row::sched_task_exists, handle, sched_task_request_t{head(handle), id},
                                      copying(exists, &sched_boolean_reply_t::value));
}

tbs_status_t sched_task_name_to_id(sched_h_t handle, const char *name, sched_task_id_t *id) {
    return call<sched_task_name_to_id_V2>(row::sched_task_name_to_id, handle,
                                          sched_name_request_t{head(handle), const_cast<char *>(name)},
                                          copying(id, &sched_task_id_reply_t::task));
}

tbs_status_t sched_task_id_to_name(sched_h_t handle, sched_task_id_t id, uint32_t size, char *name) {
    return call<sched_task_id_to_name_V2>(row::sched_task_id_to_name, handle,
                                          sched_task_name_request_t{head(handle), id, size},
                                          [&](sched_task_name_reply_t &reply) {
                                              if (name != nullptr)
                                                  strutl_cpy_buf(name, reply.name != nullptr ? reply.name : "", size);
                                          });
}
