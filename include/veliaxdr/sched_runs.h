/*
 * What became of jobs and what will: the output of their runs, the runs that are kept and those to come, and who
 * changed what.
 *
 *     sched_run_output_t piece = {0};
 *     uint64_t offset = 0;
 *     while (sched_run_get_output(scheduler, job_id, 0, offset, 65536, &piece) == TBS_ST_OK && piece.size != 0) {
 *         fwrite(piece.bytes, 1, piece.size, stdout);
 *         offset += piece.size;
 *         sched_run_free_output(scheduler, &piece);
 *     }
 *     sched_run_free_output(scheduler, &piece);
 *
 * Statuses, outputs and threads are as <veliaxdr/sched_handle.h> tells. Only schedulers of this suite know these
 * procedures; another one's answer is TBS_ST_RPC_FAILED.
 */
#ifndef VELIAXDR_SCHED_RUNS_H
#define VELIAXDR_SCHED_RUNS_H

#include <veliaxdr/sched_handle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A piece of what a run has put out. */
enum { SCHED_RUN_PIECE_MAX = 49152 };
typedef struct sched_run_output {
    time_t started; /* of which run */
    time_t ended;   /* 0: more may come */
    uint64_t total; /* bytes that are kept by now */
    uint32_t size;  /* of this piece */
    char *bytes;    /* without an end of their own; null for none */
} sched_run_output_t;

/*
 * What the run of the job that began at `started` has put out from the byte `offset` on: `size_max` bytes at most, and
 * SCHED_RUN_PIECE_MAX. With 0 as start the run that is on, or else the last one. A piece without bytes is the end for
 * now, and for good where `ended` is not 0. TBS_ST_NOT_FOUND: there is no such run, or its output is kept no more.
 * TBS_ST_UNSUPPORTED: another host's daemon has it, see sched_get_job_hosts.
 * Released by sched_run_free_output.
 */
tbs_status_t sched_run_get_output(sched_h_t handle, sched_job_id_t job, time_t started, uint64_t offset,
                                  uint32_t size_max, sched_run_output_t *output);
void sched_run_free_output(sched_h_t handle, sched_run_output_t *output);

/* One run. */
typedef struct sched_run {
    time_t started;
    time_t due;   /* 0: by hand, or behind another job */
    time_t ended; /* 0: it goes on */
    sched_job_exit_status_t exit_status;
    char *process_id; /* of its keeper */
    char *messages;   /* the end of what it put out */
} sched_run_t;

/* The runs that are kept of a job, the youngest last. Released by sched_run_free_history. */
tbs_status_t sched_run_get_history(sched_h_t handle, sched_job_id_t job, uint32_t *count, sched_run_t **runs);
void sched_run_free_history(sched_h_t handle, uint32_t count, sched_run_t **runs);

/* Who changed what. */
typedef struct sched_change {
    uint64_t number; /* grows with each change */
    time_t when;
    char *who;   /* with a "?" behind what is only claimed */
    char *where; /* from which host */
    char *what;  /* "created", "changed", "deleted", "access" */
    sched_job_id_t job_id;
    char *job_name; /* by then */
    char *fields;   /* of a changed job, with commas between */
} sched_change_t;

/*
 * Changes of a job, or with 0 of all, before the number `before`, or with 0 the youngest: `count_max` of them at most,
 * and SCHED_CHANGES_MAX, the youngest first. The scheduler keeps the last SCHED_CHANGES_KEPT. Released by
 * sched_free_changes.
 */
enum { SCHED_CHANGES_MAX = 64, SCHED_CHANGES_KEPT = 10000 };
tbs_status_t sched_get_changes(sched_h_t handle, sched_job_id_t job, uint64_t before, uint32_t count_max,
                               uint32_t *count, sched_change_t **changes);
void sched_free_changes(sched_h_t handle, uint32_t count, sched_change_t **changes);

/* When a job will run, and what the clock of the scheduler's zone makes of it. */
enum { SCHED_SHIFT_NONE = 0, SCHED_SHIFT_MOVED = 1, SCHED_SHIFT_FIRST = 2, SCHED_SHIFT_SECOND = 3 };
typedef struct sched_next_run {
    time_t at;
    int32_t utc_offset;   /* seconds east of Greenwich then */
    uint32_t clock_shift; /* moved out of a gap; first or second time of an hour that comes twice */
} sched_next_run_t;

/*
 * Runs of a job that are to come behind the time `after`, or with 0 from now on, by the scheduler's own reckoning:
 * `count_max` of them at most, and SCHED_NEXT_RUNS_MAX. None are left where fewer come. Released by
 * sched_free_next_runs.
 */
enum { SCHED_NEXT_RUNS_MAX = 256 };
tbs_status_t sched_get_next_runs(sched_h_t handle, sched_job_id_t job, time_t after, uint32_t count_max,
                                 uint32_t *count, sched_next_run_t **next_runs);
void sched_free_next_runs(sched_h_t handle, uint32_t count, sched_next_run_t **next_runs);

/* Where several daemons have the jobs together: the hosts of one. */
typedef struct sched_job_host {
    sched_job_id_t job_id;
    char *host;     /* that has to run it; empty: any */
    char *run_host; /* of the run that is on, or else of the last one, whose output is there; empty: none of a host */
} sched_job_host_t;

/*
 * Names the host whose daemon has to run the job from now on, as that daemon names its host; with the empty name, or
 * null, any may. Where there is no such daemon, starts wait for it. TBS_ST_NOT_FOUND: there is no such job;
 * TBS_ST_NO_ACCESS: it is somebody else's; TBS_ST_UNSUPPORTED: this scheduler has its jobs alone.
 */
tbs_status_t sched_job_set_host(sched_h_t handle, sched_job_id_t job, const char *host);

/*
 * Makes a job that has to run at that host from the first, in one step, so that no other ever starts it. Otherwise as
 * sched_job_create and sched_job_set_host; `made` is its number. Either output may be null.
 */
tbs_status_t sched_job_create_at_host(sched_h_t handle, const sched_job_rw_properties_t *job, const char *host,
                                      sched_job_id_t *made, sched_validate_job_rw_properties_err_mask_t *err_mask);

/*
 * Jobs behind the number `after` of which there is a host to tell, by their numbers: `count_max` of them at most, and
 * SCHED_JOB_HOSTS_MAX. None are left where fewer come. Released by sched_free_job_hosts.
 */
enum { SCHED_JOB_HOSTS_MAX = 1024 };
tbs_status_t sched_get_job_hosts(sched_h_t handle, sched_job_id_t after, uint32_t count_max, uint32_t *count,
                                 sched_job_host_t **hosts);
void sched_free_job_hosts(sched_h_t handle, uint32_t count, sched_job_host_t **hosts);

/* ---- requests and replies ---- */

typedef struct sched_run_output_request {
    sched_job_id_t job_id;
    time_t started;
    uint64_t offset;
    uint32_t size_max;
} sched_run_output_request_t;

typedef struct sched_run_output_reply {
    tbs_status_t status;
    sched_run_output_t output;
} sched_run_output_reply_t;

typedef struct sched_run_history_request {
    sched_job_id_t job_id;
} sched_run_history_request_t;

typedef struct sched_run_history_reply {
    tbs_status_t status;
    uint32_t count;
    sched_run_t *runs;
} sched_run_history_reply_t;

typedef struct sched_changes_request {
    sched_job_id_t job_id;
    uint64_t before;
    uint32_t count_max;
} sched_changes_request_t;

typedef struct sched_changes_reply {
    tbs_status_t status;
    uint32_t count;
    sched_change_t *changes;
} sched_changes_reply_t;

typedef struct sched_next_runs_request {
    sched_job_id_t job_id;
    time_t after;
    uint32_t count_max;
} sched_next_runs_request_t;

typedef struct sched_next_runs_reply {
    tbs_status_t status;
    uint32_t count;
    sched_next_run_t *next_runs;
} sched_next_runs_reply_t;

typedef struct sched_set_host_request {
    sched_job_id_t job_id;
    char *host;
} sched_set_host_request_t;

typedef struct sched_set_host_reply {
    tbs_status_t status;
} sched_set_host_reply_t;

typedef struct sched_create_at_host_request {
    char *host;
    sched_job_rw_properties_t job;
} sched_create_at_host_request_t;

typedef struct sched_create_at_host_reply {
    tbs_status_t status;
    sched_job_id_t job_id;
    sched_validate_job_rw_properties_err_mask_t err_mask; /* also with a failure */
} sched_create_at_host_reply_t;

typedef struct sched_job_hosts_request {
    sched_job_id_t after;
    uint32_t count_max;
} sched_job_hosts_request_t;

typedef struct sched_job_hosts_reply {
    tbs_status_t status;
    uint32_t count;
    sched_job_host_t *hosts;
} sched_job_hosts_reply_t;

bool_t xdr_sched_run_output_t(XDR *xdrs, sched_run_output_t *record);
bool_t xdr_sched_run_t(XDR *xdrs, sched_run_t *record);
bool_t xdr_sched_change_t(XDR *xdrs, sched_change_t *record);
bool_t xdr_sched_next_run_t(XDR *xdrs, sched_next_run_t *record);
bool_t xdr_sched_job_host_t(XDR *xdrs, sched_job_host_t *record);
#define SCHED_DECLARE_ROUTINES(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                     \
    bool_t xdr_##REQUEST(XDR *xdrs, REQUEST *record);                                                                  \
    bool_t xdr_##REPLY(XDR *xdrs, REPLY *record);
RVZD_RUN_PROCEDURES(SCHED_DECLARE_ROUTINES)
#undef SCHED_DECLARE_ROUTINES

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
