/*
 * Jobs of a scheduler and their runs.
 *
 *     uint32_t count = 0;
 *     sched_job_properties_t *jobs = NULL;
 *     if (sched_get_jobs(scheduler, &count, &jobs) == TBS_ST_OK)
 *         for (uint32_t i = 0; i < count; ++i)
 *             puts(jobs[i].rw.name);
 *     sched_free_jobs(scheduler, count, &jobs);
 *
 * Statuses, outputs and threads are as <veliaxdr/sched_handle.h> tells; TBS_ST_NO_ACCESS and TBS_ST_NOT_FOUND are the
 * scheduler's.
 */
#ifndef VELIAXDR_SCHED_JOBS_H
#define VELIAXDR_SCHED_JOBS_H

#include <veliaxdr/sched_handle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* All jobs. Released by sched_free_jobs. */
tbs_status_t sched_get_jobs(sched_h_t handle, uint32_t *count, sched_job_properties_t **jobs);

/* Whether jobs, or one job, changed since this client last asked. */
tbs_status_t sched_has_info_changed(sched_h_t handle, tbs_boolean_t *changed);
tbs_status_t sched_job_has_info_changed(sched_h_t handle, sched_job_h_t job, tbs_boolean_t *changed);

/*
 * Make a job. `job` stays the caller's. *out is released by sched_job_free_handle; *err_mask tells which field the
 * scheduler did not take (SCHED_ERR_).
 */
tbs_status_t sched_job_create(sched_h_t handle, sched_job_rw_properties_t *job, sched_job_h_t *out,
                              sched_validate_job_rw_properties_err_mask_t *err_mask);
tbs_status_t sched_job_create_utc(sched_h_t handle, sched_job_utc_rw_props_t *job, sched_job_h_t *out,
                                  sched_validate_job_rw_properties_err_mask_t *err_mask);

/*
 * Deletes the job in *job. The scheduler's handle, which may be null, takes its place, and is the caller's to release;
 * the handle that was there is not released here, so a caller keeps it and releases it, too. `even_running` is the
 * scheduler's to interpret: delete it although it runs. After a failed RPC *job is as it was.
 */
tbs_status_t sched_job_delete(sched_h_t handle, sched_job_h_t *job, tbs_boolean_t even_running);

/* The handle of a job; TBS_ST_NOT_FOUND. Released by sched_job_free_handle. */
tbs_status_t sched_job_lookup_by_id(sched_h_t handle, sched_job_id_t id, sched_job_h_t *out);
tbs_status_t sched_job_lookup_by_name(sched_h_t handle, const char *name, sched_job_h_t *out);

/* The id in a job handle; 0 for a null one. TBS_ST_OK. */
tbs_status_t sched_job_get_id(sched_h_t handle, sched_job_h_t job, sched_job_id_t *id);

/* A job's properties into the caller's record. Released by sched_free_job_properties, of the second `props` is. */
tbs_status_t sched_job_get_properties(sched_h_t handle, sched_job_h_t job, sched_job_properties_t *properties);
tbs_status_t sched_job_get_properties_utc(sched_h_t handle, sched_job_h_t job, sched_job_utc_props_t *properties);

/* Change a job. As with creation. */
tbs_status_t sched_job_set_properties(sched_h_t handle, sched_job_h_t job, sched_job_rw_properties_t *properties,
                                      sched_validate_job_rw_properties_err_mask_t *err_mask);
tbs_status_t sched_job_set_properties_utc(sched_h_t handle, sched_job_h_t job, sched_job_utc_rw_props_t *properties,
                                          sched_validate_job_rw_properties_err_mask_t *err_mask);

/* The run that is on, and a new one. Released by sched_rjob_free_handle. */
tbs_status_t sched_rjob_get_handle(sched_h_t handle, sched_job_h_t job, sched_running_job_h_t *out);
tbs_status_t sched_rjob_run_job(sched_h_t handle, sched_job_h_t job, sched_running_job_h_t *out);

/* How a run ended, into the caller's record. Released by sched_free_job_completion_info. */
tbs_status_t sched_rjob_get_completion_info(sched_h_t handle, sched_running_job_h_t job,
                                            sched_job_completion_info_t *info);

/* Ends a run. */
tbs_status_t sched_rjob_terminate(sched_h_t handle, sched_running_job_h_t job);

/*
 * Release what calls gave, or the definition parser made. The handle's RPC client is asked to do it, under
 * rvzd_call_lock; a handle without one (null, or decoded) will do as well. Slots are cleared, records zeroed; null
 * arrays, null handles and zeroed records are harmless.
 */
void sched_free_jobs(sched_h_t handle, uint32_t count, sched_job_properties_t **jobs);
tbs_status_t sched_free_job_properties(sched_h_t handle, sched_job_properties_t *properties);
tbs_status_t sched_free_job_completion_info(sched_h_t handle, sched_job_completion_info_t *info);
void sched_job_free_handle(sched_h_t handle, sched_job_h_t *job);
void sched_rjob_free_handle(sched_h_t handle, sched_running_job_h_t *job);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
