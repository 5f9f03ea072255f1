/*
 * Jobs and tasks as people read them, and as the definition language has them.
 *
 *     sched_job_properties_t properties = {0};
 *     if (sched_job_get_properties(scheduler, nightly, &properties) == TBS_ST_OK)
 *         sched_utl_print_job_props(scheduler, &properties);
 *     sched_free_job_properties(scheduler, &properties);
 *
 * Everything is printed at severity 0. The texts that stand for a time not known, for a completed schedule and for now,
 * and the buffer of sched_utl_www_to_str, are made at first use and kept, without a lock.
 */
#ifndef VELIAXDR_SCHED_PRINT_H
#define VELIAXDR_SCHED_PRINT_H

#include <veliaxdr/sched_handle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Prints a job. The scheduler is asked for the name of the task and of a followed job; where it does not give one, that
 * line is missing. TBS_ST_ERROR, after the whole of it, for arguments that cannot stand on one line.
 */
tbs_status_t sched_utl_print_job_props(sched_h_t handle, sched_job_properties_t *props);

/* Prints a task. TBS_ST_OK. */
tbs_status_t sched_utl_print_task_properties(sched_task_properties_t *task);

/*
 * Prints how a run ended, as that of a job or, with `as_job` 0, of a running job; nothing if none is recorded.
 * TBS_ST_OK. No handle is needed.
 */
tbs_status_t sched_utl_print_completion_info(sched_h_t handle, int as_job, sched_job_completion_info_t *info);

/* A time, or that it is not known (0), or that there is none (all ones). Not to be freed. */
const char *sched_utl_next_run_time_to_str(time_t time);

/*
 * "<time> by <who>@<where>", cut to 511 bytes. Not to be freed; lives until it is asked again. No handle is needed.
 */
const char *sched_utl_www_to_str(sched_h_t handle, sched_www_info_t *www);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
