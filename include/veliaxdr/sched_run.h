/*
 * A task run once, now, on a given host, and waited for.
 *
 *     char *args[] = {"-all"};
 *     if (sched_utl_run_job_now("build7", "nightly build", "nightly by hand", args, 1) != TBS_ST_OK)
 *         return 1;
 */
#ifndef VELIAXDR_SCHED_RUN_H
#define VELIAXDR_SCHED_RUN_H

#include <stdint.h>

#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Creates a job for today that starts at once, asks once a second how it is until its run has ended, tells the outcome
 * in messages, and deletes the job. Blocks for as long as the job runs: a job without an end holds its caller for ever.
 * The texts stay the caller's.
 *
 * TBS_ST_OK when the run was seen to its end, also for a run that failed: the messages tell. After three looks in a row
 * that failed, the status of the last: the job is then left at the scheduler. Other statuses are of what came before.
 */
tbs_status_t sched_utl_run_job_now(const char *host, const char *task_name, const char *job_name, char *const *args,
                                   int32_t arg_count);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
