/*
 * The procedures of RVZD_PROGRAM: one row each, and the only place where their numbers stand. Clients, the daemon and
 * the tests are made of these rows.
 *
 *     #include <veliaxdr/rvzd_procedures.h>
 *
 *     #define PRINT_NAME(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER) printf("%2d %s\n", NUMBER, #NAME);
 *     RVZD_PROCEDURES(PRINT_NAME)
 *
 * A row is ROW(number, constant, name, request record, reply record, how often it runs, over which transport):
 *
 *   constant    of the number, behind RVZD_PROC_
 *   name        of the operation, behind rvzd_; messages show it
 *   records     each with its XDR routine, xdr_<record>
 *   REPEATABLE  may run again when a client sends its call again
 *   ONCE        a call that comes again is answered from memory
 *   ANY         is called over UDP and TCP;  TCP  over TCP only, since its records outgrow a datagram
 *
 * A pair that differs by protocol version has two rows; the older is called v70.
 */
#ifndef VELIAXDR_RVZD_PROCEDURES_H
#define VELIAXDR_RVZD_PROCEDURES_H

/* clang-format off */
#define RVZD_BROKER_PROCEDURES(ROW) \
    ROW( 1, CONTACT,               contact,               rvzd_contact_req_t,               rvzd_contact_reply_t,               REPEATABLE, ANY) \
    ROW( 2, REGISTER_SERVER,       register_server,       rvzd_register_server_req_t,       rvzd_null_reply_t,                  REPEATABLE, ANY) \
    ROW( 3, FIND_SERVER_V70,       find_server_v70,       rvzd_find_server_req_t,           rvzd_find_server_v70_reply_t,       ONCE,       ANY) \
    ROW( 4, SERVER_IDLE,           server_idle,           rvzd_server_idle_req_t,           rvzd_null_reply_t,                  REPEATABLE, ANY) \
    ROW( 5, SERVER_BUSY,           server_busy,           rvzd_server_busy_req_t,           rvzd_null_reply_t,                  REPEATABLE, ANY) \
    ROW(11, SCHED_INFO,            sched_info,            rvzd_sched_info_req_t,            rvzd_null_reply_t,                  REPEATABLE, ANY) \
    ROW(19, SERVER_ALTERNATE_UUID, server_alternate_uuid, rvzd_server_alternate_uuid_req_t, rvzd_null_reply_t,                  REPEATABLE, ANY) \
    ROW(22, LIST_SERVERS_V70,      list_servers_v70,      rvzd_list_servers_req_t,          rvzd_list_servers_v70_reply_t,      REPEATABLE, ANY) \
    ROW(23, GET_LOCAL_PATH,        get_local_path,        rvzd_get_local_path_req_t,        rvzd_get_local_path_reply_t,        REPEATABLE, ANY) \
    ROW(24, CLNT_LIST_LOOKUP_V70,  clnt_list_lookup_v70,  rvzd_clnt_list_lookup_req_t,      rvzd_clnt_list_lookup_v70_reply_t,  REPEATABLE, ANY) \
    ROW(26, CLNT_LIST_GET_V70,     clnt_list_get_v70,     rvzd_clnt_list_get_req_t,         rvzd_clnt_list_get_v70_reply_t,     REPEATABLE, ANY) \
    ROW(27, HOSTINFO,              hostinfo,              rvzd_hostinfo_req_t,              rvzd_hostinfo_reply_t,              REPEATABLE, ANY) \
    ROW(28, CLNT_LIST_REGISTER,    clnt_list_register,    rvzd_clnt_list_register_req_t,    rvzd_clnt_list_register_reply_t,    REPEATABLE, ANY) \
    ROW(60, REMOTE_BUILD_HI,       remote_build_hi,       rvzd_remote_build_hi_req_t,       rvzd_remote_build_hi_reply_t,       REPEATABLE, ANY) \
    ROW(66, TZ_INFO,               tz_info,               rvzd_tz_info_req_t,               rvzd_tz_info_reply_t,               REPEATABLE, ANY) \
    ROW(67, TOGGLE_SERVER_RESTART, toggle_server_restart, rvzd_toggle_server_restart_req_t, rvzd_toggle_server_restart_reply_t, REPEATABLE, ANY) \
    ROW(71, FIND_SERVER,           find_server,           rvzd_find_server_req_t,           rvzd_find_server_reply_t,           ONCE,       ANY) \
    ROW(73, LIST_SERVERS,          list_servers,          rvzd_list_servers_req_t,          rvzd_list_servers_reply_t,          REPEATABLE, ANY) \
    ROW(74, CLNT_LIST_LOOKUP,      clnt_list_lookup,      rvzd_clnt_list_lookup_req_t,      rvzd_clnt_list_lookup_reply_t,      REPEATABLE, ANY) \
    ROW(75, CLNT_LIST_GET,         clnt_list_get,         rvzd_clnt_list_get_req_t,         rvzd_clnt_list_get_reply_t,         REPEATABLE, ANY)

#define RVZD_REGISTRY_PROCEDURES(ROW) \
    ROW(13, RGY_GET_ID,             rgy_get_id,             rvzd_registry_get_id_req_t,       rvzd_registry_get_id_reply_t,     REPEATABLE, ANY) \
    ROW(14, RGY_FINDBYSTRING_ENTRY, rgy_findbystring_entry, rvzd_registry_findbystring_req_t, rvzd_registry_get_reply_t,        REPEATABLE, ANY) \
    ROW(15, RGY_FINDBYUUID_ENTRY,   rgy_findbyuuid_entry,   rvzd_registry_findbyuuid_req_t,   rvzd_registry_get_reply_t,        REPEATABLE, ANY) \
    ROW(16, RGY_GET_ENTRY,          rgy_get_entry,          rvzd_registry_get_req_t,          rvzd_registry_get_reply_t,        REPEATABLE, ANY) \
    ROW(17, RGY_ADD_ENTRY,          rgy_add_entry,          rvzd_registry_add_req_t,          rvzd_registry_add_reply_t,        ONCE,       ANY) \
    ROW(18, RGY_REMOVE_ENTRY,       rgy_remove_entry,       rvzd_registry_remove_req_t,       rvzd_registry_remove_reply_t,     ONCE,       ANY) \
    ROW(20, RGY_CHK_ACCESS,         rgy_chk_access,         rvzd_registry_chk_access_req_t,   rvzd_registry_chk_access_reply_t, REPEATABLE, ANY) \
    ROW(21, RGY_GET_DTM,            rgy_get_dtm,            rvzd_registry_get_dtm_req_t,      rvzd_registry_get_dtm_reply_t,    REPEATABLE, ANY) \
    ROW(29, RGY_GET_DB_LIST,        rgy_get_db_list,        rvzd_registry_get_db_req_t,       rvzd_registry_get_db_reply_t,     REPEATABLE, ANY) \
    ROW(30, RGY_CLNT_CONF_CHANGE,   rgy_clnt_conf_change,   rvzd_registry_clnt_conf_req_t,    rvzd_registry_clnt_conf_reply_t,  ONCE,       ANY) \
    ROW(31, RGY_SVR_CONF_CHANGE,    rgy_svr_conf_change,    rvzd_registry_svr_conf_req_t,     rvzd_registry_svr_conf_reply_t,   ONCE,       ANY) \
    ROW(32, RGY_GET_BACKUP,         rgy_get_backup,         rvzd_registry_get_backup_req_t,   rvzd_registry_get_backup_reply_t, REPEATABLE, ANY) \
    ROW(33, RGY_SET_BACKUP,         rgy_set_backup,         rvzd_registry_set_backup_req_t,   rvzd_registry_set_backup_reply_t, ONCE,       ANY) \
    ROW(34, RGY_FINDBYATTR_ENTRY,   rgy_findbyattr_entry,   rvzd_registry_findbyattr_req_t,   rvzd_registry_get_reply_t,        REPEATABLE, ANY) \
    ROW(76, RGY_GET_PATTERN_ENTRY,  rgy_get_pattern_entry,  rvzd_registry_get_pattern_req_t,  rvzd_registry_get_reply_t,        REPEATABLE, ANY) \
    ROW(10050, RGY_CHANGE_ENTRIES,  rgy_change_entries,     rvzd_registry_change_req_t,       rvzd_registry_change_reply_t,     ONCE,       ANY)

/* Our own, of the daemon and its registry, in numbers far from the others. */
#define RVZD_DAEMON_PROCEDURES(ROW) \
    ROW(10000, DAEMON_STATUS,  daemon_status,  rvzd_daemon_status_req_t,  rvzd_daemon_status_reply_t,  REPEATABLE, ANY) \
    ROW(10001, REGISTRY_STATE, registry_state, rvzd_registry_state_req_t, rvzd_registry_state_reply_t, REPEATABLE, ANY) \
    ROW(10002, REGISTRY_SAVE,  registry_save,  rvzd_registry_save_req_t,  rvzd_registry_save_reply_t,  REPEATABLE, ANY) \
    ROW(10003, REGISTRY_TURN,  registry_turn,  rvzd_registry_turn_req_t,  rvzd_null_reply_t,           ONCE,       ANY)

/* The scheduler's. Their names are whole, and the routines of their records are xdr_<name>_V2_over and ..._V2_back. */
#define RVZD_SCHEDULER_PROCEDURES(ROW) \
    ROW(36, SCHED_GET_JOBS,                 sched_get_jobs,                 sched_request_t,              sched_get_jobs_reply_t,     REPEATABLE, TCP) \
    ROW(37, SCHED_HAS_INFO_CHANGED,         sched_has_info_changed,         sched_request_t,              sched_boolean_reply_t,      REPEATABLE, TCP) \
    ROW(38, SCHED_GET_TASKS,                sched_get_tasks,                sched_request_t,              sched_get_tasks_reply_t,    REPEATABLE, TCP) \
    ROW(39, SCHED_GET_ACL,                  sched_get_acl,                  sched_request_t,              sched_acl_reply_t,          REPEATABLE, TCP) \
    ROW(40, SCHED_SET_ACL,                  sched_set_acl,                  sched_acl_request_t,          sched_status_reply_t,       ONCE,       TCP) \
    ROW(41, SCHED_JOB_CREATE,               sched_job_create,               sched_job_create_request_t,   sched_job_create_reply_t,   ONCE,       TCP) \
    ROW(42, SCHED_JOB_DELETE,               sched_job_delete,               sched_job_delete_request_t,   sched_job_reply_t,          ONCE,       TCP) \
    ROW(43, SCHED_JOB_LOOKUP_BY_ID,         sched_job_lookup_by_id,         sched_job_id_request_t,       sched_job_reply_t,          REPEATABLE, TCP) \
    ROW(44, SCHED_JOB_GET_PROPERTIES,       sched_job_get_properties,       sched_job_request_t,          sched_properties_reply_t,   REPEATABLE, TCP) \
    ROW(45, SCHED_JOB_SET_PROPERTIES,       sched_job_set_properties,       sched_job_set_request_t,      sched_err_mask_reply_t,     ONCE,       TCP) \
    ROW(46, SCHED_JOB_HAS_INFO_CHANGED,     sched_job_has_info_changed,     sched_job_request_t,          sched_boolean_reply_t,      REPEATABLE, TCP) \
    ROW(47, SCHED_RJOB_GET_HANDLE,          sched_rjob_get_handle,          sched_job_request_t,          sched_running_job_reply_t,  REPEATABLE, TCP) \
    ROW(48, SCHED_RJOB_GET_COMPLETION_INFO, sched_rjob_get_completion_info, sched_running_job_request_t,  sched_completion_reply_t,   REPEATABLE, TCP) \
    ROW(49, SCHED_RJOB_RUN_JOB,             sched_rjob_run_job,             sched_job_request_t,          sched_running_job_reply_t,  ONCE,       TCP) \
    ROW(50, SCHED_RJOB_TERMINATE,           sched_rjob_terminate,           sched_running_job_request_t,  sched_status_reply_t,       ONCE,       TCP) \
    ROW(51, SCHED_JOB_LOOKUP_BY_NAME,       sched_job_lookup_by_name,       sched_name_request_t,         sched_job_reply_t,          REPEATABLE, TCP) \
    ROW(52, SCHED_TASK_EXISTS,              sched_task_exists,              sched_task_request_t,         sched_boolean_reply_t,      REPEATABLE, TCP) \
    ROW(53, SCHED_TASK_NAME_TO_ID,          sched_task_name_to_id,          sched_name_request_t,         sched_task_id_reply_t,      REPEATABLE, TCP) \
    ROW(54, SCHED_CHECK_ACC,                sched_check_acc,                sched_permission_request_t,   sched_status_reply_t,       REPEATABLE, TCP) \
    ROW(55, SCHED_TASK_ID_TO_NAME,          sched_task_id_to_name,          sched_task_name_request_t,    sched_task_name_reply_t,    REPEATABLE, TCP) \
    ROW(56, SCHED_GET_APP_PERMS,            sched_get_app_perms,            sched_request_t,              sched_app_perms_reply_t,    REPEATABLE, TCP) \
    ROW(58, SCHED_GET_TIME,                 sched_get_time,                 sched_request_t,              sched_time_reply_t,         REPEATABLE, TCP) \
    ROW(59, SCHED_CONTACT,                  sched_contact,                  sched_contact_request_t,      sched_contact_reply_t,      REPEATABLE, TCP) \
    ROW(68, SCHED_JOB_CREATE_UTC,           sched_job_create_utc,           sched_utc_create_request_t,   sched_job_create_reply_t,   ONCE,       TCP) \
    ROW(69, SCHED_JOB_GET_PROPERTIES_UTC,   sched_job_get_properties_utc,   sched_job_request_t,          sched_utc_reply_t,          REPEATABLE, TCP) \
    ROW(70, SCHED_JOB_SET_PROPERTIES_UTC,   sched_job_set_properties_utc,   sched_utc_set_request_t,      sched_err_mask_reply_t,     ONCE,       TCP)

/* Of this suite's own scheduler: its runs. Their numbers are far from the others', their names are whole. */
#define RVZD_RUN_PROCEDURES(ROW) \
    ROW(10100, SCHED_RUN_GET_OUTPUT,  sched_run_get_output,  sched_run_output_request_t,  sched_run_output_reply_t,  REPEATABLE, TCP) \
    ROW(10101, SCHED_RUN_GET_HISTORY, sched_run_get_history, sched_run_history_request_t, sched_run_history_reply_t, REPEATABLE, TCP) \
    ROW(10102, SCHED_GET_CHANGES,     sched_get_changes,     sched_changes_request_t,     sched_changes_reply_t,     REPEATABLE, TCP) \
    ROW(10103, SCHED_GET_NEXT_RUNS,   sched_get_next_runs,   sched_next_runs_request_t,   sched_next_runs_reply_t,   REPEATABLE, TCP) \
    ROW(10104, SCHED_JOB_SET_HOST,    sched_job_set_host,    sched_set_host_request_t,    sched_set_host_reply_t,    REPEATABLE, TCP) \
    ROW(10105, SCHED_GET_JOB_HOSTS,   sched_get_job_hosts,   sched_job_hosts_request_t,   sched_job_hosts_reply_t,   REPEATABLE, TCP) \
    ROW(10106, SCHED_JOB_CREATE_AT_HOST, sched_job_create_at_host, sched_create_at_host_request_t, sched_create_at_host_reply_t, ONCE, TCP)

/* Of this suite's own scheduler: whole sets of jobs. Their numbers are far from the others', their names are whole. */
#define RVZD_SET_PROCEDURES(ROW) \
    ROW(10150, SCHED_SET_GET_JOBS, sched_set_get_jobs, sched_set_get_jobs_request_t, sched_set_get_jobs_reply_t, REPEATABLE, TCP) \
    ROW(10151, SCHED_SET_APPLY,    sched_set_apply,    sched_set_apply_request_t,    sched_set_apply_reply_t,    ONCE,       TCP)
/* clang-format on */

#define RVZD_PROCEDURES(ROW)                                                                                           \
    RVZD_BROKER_PROCEDURES(ROW)                                                                                        \
    RVZD_REGISTRY_PROCEDURES(ROW)                                                                                      \
    RVZD_DAEMON_PROCEDURES(ROW)

#define RVZD_PROCEDURE_NUMBER(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER) RVZD_PROC_##CONSTANT = (NUMBER),
enum {
    RVZD_PROCEDURES(RVZD_PROCEDURE_NUMBER) RVZD_SCHEDULER_PROCEDURES(RVZD_PROCEDURE_NUMBER)
        RVZD_RUN_PROCEDURES(RVZD_PROCEDURE_NUMBER) RVZD_SET_PROCEDURES(RVZD_PROCEDURE_NUMBER)
};
#undef RVZD_PROCEDURE_NUMBER

#endif
