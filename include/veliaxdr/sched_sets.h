/*
 * Whole sets of jobs: all jobs of a scheduler with the state that they are in, and many changes of them at once.
 *
 *     uint64_t state = 0;
 *     uint32_t number = 0;
 *     sched_job_properties_t *jobs = NULL;
 *     sched_set_change_t change = {SCHED_SET_CREATE, 0, 0, job};
 *     sched_set_fault_t fault = {0};
 *     if (sched_set_get_jobs(scheduler, &state, &number, &jobs) == TBS_ST_OK &&
 *         sched_set_apply(scheduler, state, 1, &change, &fault) == TBS_ST_STALE_ID)
 *         puts("the jobs have changed meanwhile");
 *     sched_free_jobs(scheduler, number, &jobs);
 *
 * Statuses, outputs and threads are as <veliaxdr/sched_handle.h> tells. Only schedulers of this suite know these
 * procedures; another one's answer is TBS_ST_RPC_FAILED.
 */
#ifndef VELIAXDR_SCHED_SETS_H
#define VELIAXDR_SCHED_SETS_H

#include <veliaxdr/sched_handle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What is done to a job. */
enum { SCHED_SET_CREATE = 1, SCHED_SET_CHANGE = 2, SCHED_SET_DELETE = 3 };

typedef struct sched_set_change {
    int32_t what;
    sched_job_id_t job_id;        /* of the job that is changed or deleted; of one that was created */
    uint32_t follows;             /* 0, or the place in the set, from 1, of the created job that this one follows */
    sched_job_rw_properties_t rw; /* what the job is to be; not looked at for a deletion */
} sched_set_change_t;

/* The change that a set was refused for, and why. */
typedef struct sched_set_fault {
    uint32_t place; /* from 1; 0: none in particular */
    sched_validate_job_rw_properties_err_mask_t err_mask;
} sched_set_fault_t;

/*
 * All jobs, whatever their number, with the state that they are in: another one after each change of what a job is, the
 * same for all runs of them. Released by sched_free_jobs. Takes a call for each megabyte of them. TBS_ST_TRY_AGAIN
 * where they change again and again meanwhile; a failure gives no jobs.
 */
tbs_status_t sched_set_get_jobs(sched_h_t handle, uint64_t *state, uint32_t *count, sched_job_properties_t **jobs);

/*
 * Makes all changes or none, in one transaction of the scheduler's: TBS_ST_STALE_ID where the jobs are not in `state`
 * any more. Each job may be in the set once; a job that is deleted while it runs ends. The changes stay the caller's;
 * on success job_id stands in those that have created one. Takes a call for each 60 kilobytes of them, the last of
 * which decides: TBS_ST_RPC_FAILED leaves open whether they have been made.
 *
 * Of a refusal the fault tells which change it is for; null if nobody wants to know. TBS_ST_INVALID_ARG with a mask
 * tells what is wrong with a job as sched_utl_validate_job_rw_properties does, SCHED_ERR_FOLLOWS also that jobs follow
 * one another in a circle; without a mask, that there is no such change, or that it is larger than a request may be.
 */
tbs_status_t sched_set_apply(sched_h_t handle, uint64_t state, uint32_t count, sched_set_change_t *changes,
                             sched_set_fault_t *fault);

/* ---- requests and replies ---- */

typedef struct sched_set_get_jobs_request {
    sched_job_id_t after; /* jobs with greater ids */
} sched_set_get_jobs_request_t;

typedef struct sched_set_get_jobs_reply {
    tbs_status_t status;
    uint64_t state;
    tbs_boolean_t has_more;
    uint32_t count;
    sched_job_properties_t *jobs;
} sched_set_get_jobs_reply_t;

/* A piece of a set. */
typedef struct sched_set_apply_request {
    uint64_t set;    /* 0: a new one */
    uint64_t state;  /* that the jobs are to be in */
    uint32_t before; /* changes of the set that have been sent before these */
    tbs_boolean_t is_last;
    uint32_t count;
    sched_set_change_t *changes;
} sched_set_apply_request_t;

typedef struct sched_set_apply_reply {
    tbs_status_t status;
    uint64_t set; /* under which further pieces are to be sent */
    sched_set_fault_t fault;
    sched_job_id_t first_created; /* the others have the ids behind it, in the order of the set */
} sched_set_apply_reply_t;

bool_t xdr_sched_set_change_t(XDR *xdrs, sched_set_change_t *record);
#define SCHED_DECLARE_ROUTINES(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                     \
    bool_t xdr_##REQUEST(XDR *xdrs, REQUEST *record);                                                                  \
    bool_t xdr_##REPLY(XDR *xdrs, REPLY *record);
RVZD_SET_PROCEDURES(SCHED_DECLARE_ROUTINES)
#undef SCHED_DECLARE_ROUTINES

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
