/*
 * Whether a job may go to a scheduler, whether two jobs are the same, and values of jobs as texts.
 *
 *     sched_validate_job_rw_properties_err_mask_t err_mask = 0;
 *     if (sched_utl_validate_job_rw_properties(scheduler, 0, &job, 1, 0, &err_mask) != TBS_ST_OK)
 *         fprintf(stderr, "field 0x%x\n", err_mask);
 *
 * Nothing here changes a job. The checks that ask the server need a handle and wait as its calls do; what is not said
 * to need one takes any, also null.
 */
#ifndef VELIAXDR_SCHED_CHECK_H
#define VELIAXDR_SCHED_CHECK_H

#include <veliaxdr/sched_handle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Checks the job `rw`, which has the id `job_id` (0: none yet). With `check_server` non-zero the scheduler is asked
 * whether the name is free or this job's, and whether the task and a followed job exist. The first finding ends the
 * check with TBS_ST_INVALID_ARG, its bit in *err_mask, and a message unless `quiet` is non-zero. A call that failed
 * ends it with the call's status and a message, `quiet` or not.
 *
 * A task that the scheduler does not know is told and no failure: SCHED_ERR_TASK stands in *err_mask with TBS_ST_OK,
 * unless the job has notifications, whose check begins with a cleared mask. Limits are inclusive: a time of day may be
 * 86400, an ordinal 6 and a kind of day 11.
 */
tbs_status_t sched_utl_validate_job_rw_properties(sched_h_t handle, sched_job_id_t job_id,
                                                  sched_job_rw_properties_t *rw, int check_server, int quiet,
                                                  sched_validate_job_rw_properties_err_mask_t *err_mask);

/* Whether a predefined job may become `after`: its name may not change. No handle is needed. */
tbs_status_t sched_utl_validate_predef_job_rw_properties(sched_h_t handle, sched_job_rw_properties_t *before,
                                                         sched_job_rw_properties_t *after, int quiet,
                                                         sched_validate_job_rw_properties_err_mask_t *err_mask);

/*
 * Whether two jobs are the same in all that a client may set; null texts count as empty. Jobs with a kind of schedule
 * that there is not are never the same. TBS_ST_OK. No handle is needed.
 */
tbs_status_t sched_utl_equal_job_rw_properties(sched_h_t handle, sched_job_rw_properties_t *left,
                                               sched_job_rw_properties_t *right, tbs_boolean_t *equal);

/* What monthly, weekly and daily schedules have in common; null for another one. */
sched_common_sched_t *sched_utl_get_common_sched(sched_schedule_t *schedule);

/* As strutl_flags_to_str with the names of events. */
const char *sched_utl_notify_event_mask_to_str(sched_event_mask_t mask);

/* Masks of texts with ",", 0 for a text with a name that there is not. */
sched_event_mask_t sched_utl_notify_event_mask_from_str(const char *text);
sched_notify_delivery_mask_t sched_utl_notify_delivery_mask_from_str(const char *text);
sched_sched_dow_mask_t sched_utl_dow_mask_from_str(const char *text);

/*
 * Rows of mds_ordinal_str_map and mds_kind_str_map, from the first on, without case; their last row for another text.
 */
sched_sched_mds_ordinal_t sched_utl_mds_ordinal_from_str(const char *text);
sched_sched_mds_kind_t sched_utl_mds_kind_from_str(const char *text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
