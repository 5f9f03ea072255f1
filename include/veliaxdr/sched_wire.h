/*
 * The scheduler's records as they travel and as programs have them: jobs, tasks, their schedules, and the request and
 * reply of each of its procedures.
 *
 *     sched_job_rw_properties_t job = {0};
 *     job.name = "nightly";
 *     job.schedule.kind = SCHED_KIND_DAILY;
 *     job.schedule.u.daily.frequency = 1;
 *     job.task = 7;
 *
 * Each record has one routine, xdr_<type>, which encodes, decodes and frees it. Decoding begins with a cleared record
 * and takes its storage from the heap; free mode releases that and is safe on a zeroed record. Null texts are sent
 * as "". A routine fails with its first field that fails, and says nothing; of what a failed decoding has made, the
 * free mode of the same record releases what is left. Nothing here has state; a stream belongs to one thread at a time.
 */
#ifndef VELIAXDR_SCHED_WIRE_H
#define VELIAXDR_SCHED_WIRE_H

#include <stdint.h>
#include <time.h>

#include <rpc/rpc.h>

#include <support/credutl.h>
#include <support/strutl.h>
#include <support/tbs.h>
#include <support/tbs_acl.h>
#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_procedures.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Version of the scheduler's interface, and that of a transport that is opened without a handle. */
enum { SCHED_INTERFACE_VERSION = 1, SCHED_RPC_VERSION = 2 };

/* Ids of jobs and tasks; 0 is none. Their text forms fit in buffers of this many bytes. */
enum { SCHED_ID_STR_SIZE = 64 };
typedef uint32_t sched_job_id_t;
typedef uint32_t sched_task_id_t;
typedef char sched_job_id_str_t[SCHED_ID_STR_SIZE];
typedef char sched_task_id_str_t[SCHED_ID_STR_SIZE];

typedef uint32_t sched_job_exit_status_t;
typedef uint32_t sched_sched_dow_mask_t;
typedef uint32_t sched_event_mask_t;
typedef tbs_notify_delivery_mask_t sched_notify_delivery_mask_t;
typedef uint32_t sched_validate_job_rw_properties_err_mask_t;
typedef int32_t sched_schedule_kind_t;
typedef int32_t sched_sched_mds_ordinal_t;
typedef int32_t sched_sched_mds_kind_t;
typedef int32_t sched_sched_monthly_day_spec_kind_t;

/* 0: no schedule has been given. */
enum { SCHED_KIND_MONTHLY = 1, SCHED_KIND_WEEKLY = 2, SCHED_KIND_DAILY = 3, SCHED_KIND_SEQUENTIAL = 4 };

enum { SCHED_MONTHLY_DAY_NUMBER = 0, SCHED_MONTHLY_DAY_KIND = 1 };

/* Which field of a job is at fault. */
enum {
    SCHED_ERR_TASK = 0x1,
    SCHED_ERR_MONTHLY_FREQ = 0x2,
    SCHED_ERR_MONTH_DAY = 0x4,
    SCHED_ERR_MDS_ORDINAL = 0x8,
    SCHED_ERR_MDS_KIND = 0x10,
    SCHED_ERR_DAY_KIND = 0x20,
    SCHED_ERR_WEEKLY_FREQ = 0x40,
    SCHED_ERR_DOW_SET = 0x80,
    SCHED_ERR_DAILY_OR_TIME_ORDER = 0x100, /* two findings share this bit */
    SCHED_ERR_FOLLOWS = 0x200,
    SCHED_ERR_KIND = 0x400,
    SCHED_ERR_RESTART_FREQ = 0x800,
    SCHED_ERR_FIRST_START = 0x1000,
    SCHED_ERR_LAST_START = 0x2000,
    SCHED_ERR_LAST_DATE = 0x4000,
    SCHED_ERR_EVENT_MASK = 0x8000,
    SCHED_ERR_DELIVERY_MASK = 0x10000,
    SCHED_ERR_NAME_NIL = 0x20000,
    SCHED_ERR_NAME_DUPLICATE = 0x40000,
    SCHED_ERR_PREDEF_NAME = 0x80000,
};

/* A date of a schedule that means "now", and a time of day that is not given. */
enum { SCHED_DATE_NOW = 1 };
#define SCHED_TIME_NOT_GIVEN 0xFFFFFFFFu

/* ---- texts of values ---- */

typedef struct sched_str_map {
    int32_t value;
    const char *text;
} sched_str_map_t;

/* The first and the last row of each are no values of a schedule. Texts are compared without case. */
enum { SCHED_MDS_ORDINAL_ROWS = 7, SCHED_MDS_KIND_ROWS = 12 };
extern const sched_str_map_t mds_ordinal_str_map[SCHED_MDS_ORDINAL_ROWS];
extern const sched_str_map_t mds_kind_str_map[SCHED_MDS_KIND_ROWS];

/* For strutl_flags_from_str and strutl_flags_to_str, with the separator ",". */
enum { SCHED_DOW_FLAGS = 7, SCHED_EVENT_MASK_FLAGS = 7, SCHED_DELIVERY_MASK_FLAGS = 2 };
extern const strutl_flag_item_t dow_flags[SCHED_DOW_FLAGS];
extern const strutl_flag_item_t event_mask_flags[SCHED_EVENT_MASK_FLAGS];
extern const strutl_flag_item_t delivery_mask_flags[SCHED_DELIVERY_MASK_FLAGS];

/* ---- handles ---- */

/* What sched_get_handle makes; as decoded, the caller's authentication and a client area that points to it. */
typedef struct sched_handle {
    char *hostname; /* owned, or null */
    rvzd_handle_t *rvzd_handle;
    uint32_t handle_word; /* 0 from this client */
    credutl_auth_ironvale_t auth;
    credutl_client_t client;
} * sched_h_t;

typedef struct sched_job_handle {
    sched_job_id_t job_id;
} * sched_job_h_t;

/* Job and start time together name one run. */
typedef struct sched_running_job_handle {
    sched_job_id_t job_id;
    time_t started;
} * sched_running_job_h_t;

/* ---- schedules ---- */

typedef struct sched_sched_lifetime {
    time_t start_date; /* first day; SCHED_DATE_NOW */
    time_t last_date;  /* 0: none; SCHED_DATE_NOW */
} sched_sched_lifetime_t;

/* Seconds after midnight. */
typedef struct sched_sched_start_times {
    uint32_t first_start_time;  /* SCHED_TIME_NOT_GIVEN */
    uint32_t last_start_time;   /* no restart after it */
    uint32_t restart_frequency; /* seconds between starts within a day; 0: one start */
} sched_sched_start_times_t;

typedef struct sched_common_sched {
    sched_sched_lifetime_t lifetime;
    sched_sched_start_times_t start_times;
} sched_common_sched_t;

typedef struct sched_sched_monthly_day_kind {
    sched_sched_mds_ordinal_t ordinal; /* row of mds_ordinal_str_map */
    sched_sched_mds_kind_t kind;       /* row of mds_kind_str_map */
} sched_sched_monthly_day_kind_t;

typedef struct sched_monthly_sched {
    sched_common_sched_t common;
    int32_t frequency; /* every so many months */
    sched_sched_monthly_day_spec_kind_t day_spec_kind;
    union {
        uint32_t number;
        sched_sched_monthly_day_kind_t kind;
    } day;
} sched_monthly_sched_t;

typedef struct sched_weekly_sched {
    sched_common_sched_t common;
    int32_t frequency; /* every so many weeks */
    sched_sched_dow_mask_t days;
} sched_weekly_sched_t;

typedef struct sched_daily_sched {
    sched_common_sched_t common;
    int32_t frequency; /* every so many days */
} sched_daily_sched_t;

typedef struct sched_sequential_sched {
    sched_job_id_t follows_job; /* after whose end it runs */
} sched_sequential_sched_t;

typedef struct sched_schedule {
    sched_schedule_kind_t kind; /* which arm counts */
    union {
        sched_monthly_sched_t monthly;
        sched_weekly_sched_t weekly;
        sched_daily_sched_t daily;
        sched_sequential_sched_t sequential;
    } u;
} sched_schedule_t;

/* ---- jobs ---- */

typedef struct sched_job_run_cntl {
    uint32_t max_run_time; /* seconds; 0: no limit */
} sched_job_run_cntl_t;

typedef struct sched_notify_info {
    sched_event_mask_t events;
    sched_notify_delivery_mask_t delivery;
    int32_t recipient_count;
    char **recipients;
} sched_notify_info_t;

/* What a client may set. */
typedef struct sched_job_rw_properties {
    char *name; /* unique */
    char *description;
    sched_schedule_t schedule;
    sched_task_id_t task;
    uint32_t arg_count;
    char **args;
    sched_job_run_cntl_t run_control;
    tbs_boolean_t delete_when_completed;
    uint32_t notify_count;
    sched_notify_info_t *notify;
} sched_job_rw_properties_t;

/* Who did something, from where and when. */
typedef struct sched_www_info {
    char *who;
    char *who_extra; /* carried along */
    char *where;
    time_t when;
} sched_www_info_t;

typedef struct sched_running_job_status {
    char *process_id;
    time_t started; /* 0: it does not run */
} sched_running_job_status_t;

typedef struct sched_job_completion_info {
    char *process_id;
    time_t started; /* 0: no run is recorded */
    time_t ended;   /* 0: it has not ended */
    sched_job_exit_status_t exit_status;
    char *messages; /* what the run put out */
} sched_job_completion_info_t;

/* What only the server sets. */
typedef struct sched_job_ro_properties {
    tbs_boolean_t predefined; /* its name may not be changed */
    sched_job_id_t job_id;
    time_t next_run_time; /* 0: not known yet; all ones: the schedule has completed */
    sched_www_info_t created;
    sched_www_info_t last_modified;
    sched_running_job_status_t running_status;
    sched_job_completion_info_t last_completion;
} sched_job_ro_properties_t;

typedef struct sched_job_properties {
    sched_job_rw_properties_t rw;
    sched_job_ro_properties_t ro;
} sched_job_properties_t;

/* Passed through; their meaning lies with the scheduler. */
typedef struct sched_job_utc_lifetime {
    time_t utc_time;
    int32_t utc_int;
    uint32_t utc_uint;
} sched_job_utc_lifetime_t;

typedef struct sched_job_utc_rw_props {
    sched_job_utc_lifetime_t utc;
    sched_job_rw_properties_t rw;
} sched_job_utc_rw_props_t;

typedef struct sched_job_utc_props {
    sched_job_utc_lifetime_t utc;
    sched_job_properties_t props;
} sched_job_utc_props_t;

/* ---- tasks ---- */

typedef struct sched_task_ui_info {
    char *ui_info; /* for user interfaces */
} sched_task_ui_info_t;

typedef struct sched_task_properties {
    sched_task_id_t task_id;
    char *name;
    sched_task_ui_info_t ui;
    char *pathname;               /* of the program */
    credutl_credentials_t run_as; /* CREDUTL_NO_ID as user: none */
} sched_task_properties_t;

/* ---- requests: a word that is 0, the handle, and what the procedure takes ---- */

typedef struct sched_request {
    int64_t req_word;
    sched_h_t handle;
} sched_request_t;

typedef struct sched_acl_request {
    sched_request_t head;
    tbs_acl_h_t acl;
} sched_acl_request_t;

typedef struct sched_job_create_request {
    sched_request_t head;
    sched_job_rw_properties_t *job;
} sched_job_create_request_t;

typedef struct sched_utc_create_request {
    sched_request_t head;
    sched_job_utc_rw_props_t *job;
} sched_utc_create_request_t;

typedef struct sched_job_delete_request {
    sched_request_t head;
    sched_job_h_t *job;
    tbs_boolean_t flag;
} sched_job_delete_request_t;

typedef struct sched_job_id_request {
    sched_request_t head;
    sched_job_id_t job_id;
} sched_job_id_request_t;

typedef struct sched_job_request {
    sched_request_t head;
    sched_job_h_t job;
} sched_job_request_t;

typedef struct sched_job_set_request {
    sched_request_t head;
    sched_job_h_t job;
    sched_job_rw_properties_t *properties;
} sched_job_set_request_t;

typedef struct sched_utc_set_request {
    sched_request_t head;
    sched_job_h_t job;
    sched_job_utc_rw_props_t *properties;
} sched_utc_set_request_t;

typedef struct sched_running_job_request {
    sched_request_t head;
    sched_running_job_h_t job;
} sched_running_job_request_t;

typedef struct sched_name_request {
    sched_request_t head;
    char *name;
} sched_name_request_t;

typedef struct sched_task_request {
    sched_request_t head;
    sched_task_id_t task;
} sched_task_request_t;

typedef struct sched_permission_request {
    sched_request_t head;
    tbs_acl_permission_set_t permissions;
} sched_permission_request_t;

typedef struct sched_task_name_request {
    sched_request_t head;
    sched_task_id_t task;
    uint32_t size; /* of the caller's buffer */
} sched_task_name_request_t;

typedef struct sched_contact_request {
    sched_request_t head;
    uint32_t version;
} sched_contact_request_t;

/* ---- replies: the status, and what the procedure gives; what is behind a pointer comes whatever the status is ---- */

typedef struct sched_status_reply {
    tbs_status_t status;
} sched_status_reply_t;

typedef struct sched_get_jobs_reply {
    tbs_status_t status;
    uint32_t *count; /* null: 0 */
    sched_job_properties_t **jobs;
} sched_get_jobs_reply_t;

typedef struct sched_get_tasks_reply {
    tbs_status_t status;
    uint32_t *count; /* null: 0 */
    sched_task_properties_t **tasks;
} sched_get_tasks_reply_t;

/* Travels with the count ahead of the status. */
typedef struct sched_app_perms_reply {
    tbs_status_t status;
    uint32_t *count; /* null: 0 */
    strutl_flag_item_t **items;
    tbs_acl_generic_map_t *map;
} sched_app_perms_reply_t;

typedef struct sched_boolean_reply {
    tbs_status_t status;
    tbs_boolean_t *value;
} sched_boolean_reply_t;

typedef struct sched_acl_reply {
    tbs_status_t status;
    tbs_acl_h_t *acl;
} sched_acl_reply_t;

typedef struct sched_job_create_reply {
    tbs_status_t status;
    sched_job_h_t *job;
    sched_validate_job_rw_properties_err_mask_t *err_mask;
} sched_job_create_reply_t;

typedef struct sched_job_reply {
    tbs_status_t status;
    sched_job_h_t *job;
} sched_job_reply_t;

typedef struct sched_properties_reply {
    tbs_status_t status;
    sched_job_properties_t *properties;
} sched_properties_reply_t;

typedef struct sched_utc_reply {
    tbs_status_t status;
    sched_job_utc_props_t *properties;
} sched_utc_reply_t;

typedef struct sched_err_mask_reply {
    tbs_status_t status;
    sched_validate_job_rw_properties_err_mask_t *err_mask;
} sched_err_mask_reply_t;

typedef struct sched_running_job_reply {
    tbs_status_t status;
    sched_running_job_h_t *job;
} sched_running_job_reply_t;

typedef struct sched_completion_reply {
    tbs_status_t status;
    sched_job_completion_info_t *info;
} sched_completion_reply_t;

typedef struct sched_task_id_reply {
    tbs_status_t status;
    sched_task_id_t *task;
} sched_task_id_reply_t;

typedef struct sched_task_name_reply {
    tbs_status_t status;
    uint32_t size;
    char *name;
} sched_task_name_reply_t;

typedef struct sched_time_reply {
    tbs_status_t status;
    time_t *time;
} sched_time_reply_t;

typedef struct sched_contact_reply {
    tbs_status_t status;
    uint32_t *server_version;  /* null: 0 */
    uint32_t *server_version2; /* null: 0 */
} sched_contact_reply_t;

/* ---- routines ---- */

bool_t xdr_sched_job_id_t(XDR *xdrs, sched_job_id_t *cell);
bool_t xdr_sched_task_id_t(XDR *xdrs, sched_task_id_t *cell);
bool_t xdr_sched_job_exit_status_t(XDR *xdrs, sched_job_exit_status_t *cell);
bool_t xdr_sched_sched_dow_mask_t(XDR *xdrs, sched_sched_dow_mask_t *cell);
bool_t xdr_sched_event_mask_t(XDR *xdrs, sched_event_mask_t *cell);
bool_t xdr_sched_validate_job_rw_properties_err_mask_t(XDR *xdrs, sched_validate_job_rw_properties_err_mask_t *cell);
bool_t xdr_sched_notify_delivery_mask_t(XDR *xdrs, sched_notify_delivery_mask_t *cell);
bool_t xdr_sched_schedule_kind_t(XDR *xdrs, sched_schedule_kind_t *cell);
bool_t xdr_sched_sched_mds_ordinal_t(XDR *xdrs, sched_sched_mds_ordinal_t *cell);
bool_t xdr_sched_sched_mds_kind_t(XDR *xdrs, sched_sched_mds_kind_t *cell);
bool_t xdr_sched_sched_monthly_day_spec_kind_t(XDR *xdrs, sched_sched_monthly_day_spec_kind_t *cell);

/* The 64 characters, each as a word. */
bool_t xdr_sched_job_id_str_t(XDR *xdrs, sched_job_id_str_t *text);
bool_t xdr_sched_task_id_str_t(XDR *xdrs, sched_task_id_str_t *text);

/*
 * A handle travels as what it points to; null as zeros. Decoding fills the record that is there, or makes one; free
 * mode releases the record with free() and clears the pointer. Of a sched_h_t only `handle_word` and `auth` travel; a
 * decoded one's client area is its own `auth`, counted once.
 */
bool_t xdr_sched_h_t(XDR *xdrs, sched_h_t *handle);
bool_t xdr_sched_job_h_t(XDR *xdrs, sched_job_h_t *handle);
bool_t xdr_sched_running_job_h_t(XDR *xdrs, sched_running_job_h_t *handle);

bool_t xdr_sched_sched_lifetime_t(XDR *xdrs, sched_sched_lifetime_t *record);
bool_t xdr_sched_sched_start_times_t(XDR *xdrs, sched_sched_start_times_t *record);
bool_t xdr_sched_common_sched_t(XDR *xdrs, sched_common_sched_t *record);
bool_t xdr_sched_sched_monthly_day_kind_t(XDR *xdrs, sched_sched_monthly_day_kind_t *record);

/* Another `day_spec_kind`, and another `kind` of schedule, 0 among them, neither go out nor come in. */
bool_t xdr_sched_monthly_sched_t(XDR *xdrs, sched_monthly_sched_t *record);
bool_t xdr_sched_weekly_sched_t(XDR *xdrs, sched_weekly_sched_t *record);
bool_t xdr_sched_daily_sched_t(XDR *xdrs, sched_daily_sched_t *record);
bool_t xdr_sched_sequential_sched_t(XDR *xdrs, sched_sequential_sched_t *record);
bool_t xdr_sched_schedule_t(XDR *xdrs, sched_schedule_t *record);

bool_t xdr_sched_job_run_cntl_t(XDR *xdrs, sched_job_run_cntl_t *record);
bool_t xdr_sched_notify_info_t(XDR *xdrs, sched_notify_info_t *record);
bool_t xdr_sched_job_rw_properties_t(XDR *xdrs, sched_job_rw_properties_t *record);
bool_t xdr_sched_www_info_t(XDR *xdrs, sched_www_info_t *record);
bool_t xdr_sched_running_job_status_t(XDR *xdrs, sched_running_job_status_t *record);
bool_t xdr_sched_job_completion_info_t(XDR *xdrs, sched_job_completion_info_t *record);
bool_t xdr_sched_job_ro_properties_t(XDR *xdrs, sched_job_ro_properties_t *record);
bool_t xdr_sched_job_properties_t(XDR *xdrs, sched_job_properties_t *record);
bool_t xdr_sched_job_utc_lifetime_t(XDR *xdrs, sched_job_utc_lifetime_t *record);
bool_t xdr_sched_job_utc_rw_props_t(XDR *xdrs, sched_job_utc_rw_props_t *record);
bool_t xdr_sched_job_utc_props_t(XDR *xdrs, sched_job_utc_props_t *record);
bool_t xdr_sched_task_ui_info_t(XDR *xdrs, sched_task_ui_info_t *record);
bool_t xdr_sched_task_properties_t(XDR *xdrs, sched_task_properties_t *record);

/*
 * Request and reply of each procedure: xdr_sched_get_jobs_V2_over, xdr_sched_get_jobs_V2_back and so on, with the
 * records of its row in <veliaxdr/rvzd_procedures.h>. A request whose first word has a low byte other than 0 does not
 * decode, and nothing behind that word is looked at.
 */
#define SCHED_DECLARE_ROUTINES(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER)                                     \
    bool_t xdr_##NAME##_V2_over(XDR *xdrs, REQUEST *record);                                                           \
    bool_t xdr_##NAME##_V2_back(XDR *xdrs, REPLY *record);
RVZD_SCHEDULER_PROCEDURES(SCHED_DECLARE_ROUTINES)
#undef SCHED_DECLARE_ROUTINES

/* They do nothing. */
void sched_xdr_makeprocs(void);
void sched_xdr_freeprocs(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
