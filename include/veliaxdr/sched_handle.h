/*
 * The way to the job scheduler of a host: handles, the time-out of every call, what stands around a call, ids as texts,
 * and a transport that is opened without a handle.
 *
 *     sched_h_t scheduler = NULL;
 *     if (sched_get_handle("build7", &scheduler) == TBS_ST_OK) {
 *         time_t now = 0;
 *         if (sched_get_time(scheduler, &now) == TBS_ST_OK)
 *             printf("%ld\n", (long)now);
 *         sched_free_handle(&scheduler);
 *     }
 *
 * Every call takes rvzd_call_lock while it waits, so a process has one call to a broker or scheduler in flight at a
 * time; any thread may call. Each waits for `sched_timeout` at most, whatever the broker handle's own time-out is.
 *
 * A call whose RPC failed returns TBS_ST_RPC_FAILED, prints why, and writes no output; so does a call through a null
 * handle. Otherwise it returns the server's own status, and all outputs are written whatever that is: zeros and nulls
 * where the server had nothing. A null output is not wanted. What a call gives is the caller's, to be released by the
 * operation that the call names, through a handle that still lives. On a raise an output holds what it held, or what
 * is to be released.
 */
#ifndef VELIAXDR_SCHED_HANDLE_H
#define VELIAXDR_SCHED_HANDLE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include <veliaxdr/sched_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Opens a handle to the scheduler of `host` (null: this host), over TCP. May block as rvzd_get_handle does and for one
 * call more. *out is written with TBS_ST_OK only.
 *
 *   TBS_ST_UNSUPPORTED  the scheduler speaks another version of the interface
 *   TBS_ST_NO_MEMORY    no storage
 *   others              of the broker handle, of the credentials, or the scheduler's own
 */
tbs_status_t sched_get_handle(const char *host, sched_h_t *out);

/* Gives the handle back and clears *handle; a null handle does nothing. What was had through it must be released. */
void sched_free_handle(sched_h_t *handle);

/* The host that was asked for; null for this host, and for a null handle. As long as the handle. */
const char *sched_get_hostname(sched_h_t handle);

/* As rvzd_get_rpc_clnt of the handle's broker handle; null for a null handle, and for one that was decoded. */
CLIENT *sched_get_rpc_clnt(sched_h_t handle);

/* Version of the interface at the server; the second word has no meaning here. */
tbs_status_t sched_contact(sched_h_t handle, uint32_t version, uint32_t *server_version, uint32_t *server_version2);

/* The server's clock. */
tbs_status_t sched_get_time(sched_h_t handle, time_t *server_time);

/* The time-out of every call; 25 seconds. Plain data: a change may race with a call that reads it. */
extern struct timeval sched_timeout;

/*
 * Around each call: before it, after one that succeeded, after one that failed. The library's own take and give back
 * rvzd_call_lock, and a program may put others in their place. A non-zero result of the first two ends the call at once
 * with what stands in *status; so does 0xFFFFFFFF of the third, and any other result sends the call again. *status is
 * TBS_ST_RPC_FAILED until a hook writes it. `four` is 4.
 */
uint32_t sched_c_clnt_exit_before(uint32_t procedure, void *request, void *reply, tbs_status_t *status);
uint32_t sched_c_clnt_exit_after(uint32_t procedure, void *request, void *reply, tbs_status_t *status);
uint32_t sched_c_clnt_exit_error(CLIENT *client, uint32_t procedure, uint32_t rpc_status, tbs_status_t *status,
                                 uint32_t four);

/*
 * One RPC of each procedure, and no more: sched_get_jobs_V2 and so on, with the records of its row in
 * <veliaxdr/rvzd_procedures.h>. The caller has rvzd_call_lock, has cleared the reply, and frees it. 0, or the RPC
 * status, told through sched_clnt_perror; RPC_FAILED for a null client.
 */
#define SCHED_DECLARE_STUB(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                         \
    uint32_t NAME##_V2(REQUEST *request, CLIENT *client, REPLY *reply, const struct timeval *time_out);
RVZD_SCHEDULER_PROCEDURES(SCHED_DECLARE_STUB)
#undef SCHED_DECLARE_STUB

/* Frees a reply by its routine, through `client` or, for null, sched_clnt; one of them must be there. */
void sched_free_result(CLIENT *client, xdrproc_t routine, void *reply);

/* ---- ids as texts; the handle is not used ---- */

/* Write to a buffer of SCHED_ID_STR_SIZE bytes and return it. A task's id is written with a sign. */
char *sched_job_id_to_str(sched_h_t handle, sched_job_id_t id, char *buffer);
char *sched_task_id_to_str(sched_h_t handle, sched_task_id_t id, char *buffer);

/* Read what the text begins with; with no number there, TBS_ST_ERROR and a message. "12ab" is 12. */
tbs_status_t sched_job_id_from_str(sched_h_t handle, const char *text, sched_job_id_t *id);
tbs_status_t sched_task_id_from_str(sched_h_t handle, const char *text, sched_task_id_t *id);

/* Non-zero if the text begins with a number. */
int sched_job_is_id_str(sched_h_t handle, const char *text);
int sched_task_is_id_str(sched_h_t handle, const char *text);

/* ---- a transport without a handle: one for the process, without a lock ---- */

/* The client of the transport that was opened last; null when there is none. */
extern CLIENT *sched_clnt;

/*
 * Opens a transport to `server` over TCP or, where that fails, UDP, and notes it in sched_clnt. 0 as program stands for
 * sched_client_rpc_number(), 0 as version for SCHED_RPC_VERSION. Null on failure, which is printed to standard error.
 */
CLIENT *sched_open_transport(const char *server, uint32_t program, uint32_t version);

/*
 * The same with both 0. On failure -1 goes to *error and the reason to `error_text` of `SCHED_ERROR_TEXT_SIZE` bytes at
 * least, cut to that; on success 0. Either may be null. The four words are not used.
 */
enum { SCHED_ERROR_TEXT_SIZE = 256 };
CLIENT *sched_open_service(const char *server, uint64_t unused1, uint64_t unused2, uint64_t unused3, uint64_t unused4,
                           char *error_text, int32_t *error);

/* Destroys `client` or, for null, sched_clnt, which is cleared if it was that one. */
void sched_close_transport(CLIENT *client);

/*
 * Set sched_timeout and the time-out of the client, and its retransmission time alone. `client` or, for null,
 * sched_clnt; without either only sched_timeout is set. They return 1.
 */
int sched_change_timeout(CLIENT *client, int64_t seconds, int64_t microseconds);
int sched_change_retry_timeout(CLIENT *client, int64_t seconds, int64_t microseconds);

/* Prints why the last call of `client` (null: sched_clnt) failed behind `text`; without one, as perror does. 1. */
int sched_clnt_perror(CLIENT *client, const char *text, uint64_t unused);

/* 1, 0 and 1; nothing else happens. */
int sched_rpc_init(void);
int sched_namebroker(void);
uint32_t sched_client_rpc_number(void);

/* They do nothing; sched_secure_transport returns 0. */
void sched_secure_install(void);
void sched_secure_uninstall(void);
void sched_unsecure_transport(void);
int sched_secure_transport(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
