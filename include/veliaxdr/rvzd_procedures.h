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
    ROW(76, RGY_GET_PATTERN_ENTRY,  rgy_get_pattern_entry,  rvzd_registry_get_pattern_req_t,  rvzd_registry_get_reply_t,        REPEATABLE, ANY)
/* clang-format on */

#define RVZD_PROCEDURES(ROW)                                                                                           \
    RVZD_BROKER_PROCEDURES(ROW)                                                                                        \
    RVZD_REGISTRY_PROCEDURES(ROW)

#define RVZD_PROCEDURE_NUMBER(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER) RVZD_PROC_##CONSTANT = (NUMBER),
enum { RVZD_PROCEDURES(RVZD_PROCEDURE_NUMBER) };
#undef RVZD_PROCEDURE_NUMBER

#endif
