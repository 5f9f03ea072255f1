// Who may have what of the daemon: one row for each procedure, and for each operation of those that have several. The
// same rows stand in doc/SECURITY.md, for people.
#pragma once

#include <array>
#include <cstdint>

#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rvzd_daemon.h>
#include <veliaxdr/rvzd_procedures.h>

namespace velia::server {

// What is asked for.
enum class Right : uint8_t {
    meet,       // whether the daemon is there, and which protocol it speaks
    read,       // what it knows of servers, hosts and the registry
    enroll,     // to be listed as a client host
    write,      // entries of the registry
    report,     // what a server says of itself
    administer, // this host's daemon, role and hosts, and the registry's backup hosts
};

// The terms of a right, as SECURITY.md tells them.
struct RightTerms {
    Right right;
    const char *name;
    const char *from_where;
    const char *as_whom;
    const char *how_proven;
};

inline constexpr std::array right_terms = {
    RightTerms{Right::meet, "meet", "any address", "anyone", "nothing is to be proven"},
    RightTerms{Right::read, "read", "this host, an address with `read`", "anyone",
               "the socket of this host; over IP the address"},
    RightTerms{Right::enroll, "register", "this host, an address with `register`", "anyone",
               "the socket of this host; over IP the address"},
    RightTerms{Right::write, "write", "this host, an address with `write`", "a caller with credentials, not nobody",
               "the kernel's word at the socket of this host; over IP the address, and a claim"},
    RightTerms{Right::report, "report", "this host", "the process that it names",
               "the kernel's word at the socket of this host; over IP, for a server that the daemon started, its own "
               "live socket"},
    RightTerms{Right::administer, "administer", "this host, an address with `administer`",
               "root or the daemon's user; over IP anyone",
               "the kernel's word at the socket of this host; over IP the address"},
};

constexpr int64_t any_operation = -1;

struct RightsRow {
    uint32_t procedure;
    const char *name;
    int64_t operation; // any_operation: those without a row of their own
    const char *operation_name;
    Right right;
};

inline constexpr std::array rights_rows = {
    RightsRow{RVZD_PROC_CONTACT, "contact", any_operation, "", Right::meet},
    RightsRow{RVZD_PROC_REGISTER_SERVER, "register_server", any_operation, "", Right::report},
    RightsRow{RVZD_PROC_FIND_SERVER_V70, "find_server_v70", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SERVER_IDLE, "server_idle", any_operation, "", Right::report},
    RightsRow{RVZD_PROC_SERVER_BUSY, "server_busy", any_operation, "", Right::report},
    RightsRow{RVZD_PROC_SCHED_INFO, "sched_info", any_operation, "", Right::report},
    RightsRow{RVZD_PROC_SERVER_ALTERNATE_UUID, "server_alternate_uuid", any_operation, "", Right::report},
    RightsRow{RVZD_PROC_LIST_SERVERS_V70, "list_servers_v70", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_GET_LOCAL_PATH, "get_local_path", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_CLNT_LIST_LOOKUP_V70, "clnt_list_lookup_v70", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_CLNT_LIST_GET_V70, "clnt_list_get_v70", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_HOSTINFO, "hostinfo", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_CLNT_LIST_REGISTER, "clnt_list_register", any_operation, "", Right::enroll},
    RightsRow{RVZD_PROC_REMOTE_BUILD_HI, "remote_build_hi", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_TZ_INFO, "tz_info", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_TOGGLE_SERVER_RESTART, "toggle_server_restart", any_operation, "", Right::administer},
    RightsRow{RVZD_PROC_FIND_SERVER, "find_server", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_LIST_SERVERS, "list_servers", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_CLNT_LIST_LOOKUP, "clnt_list_lookup", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_CLNT_LIST_GET, "clnt_list_get", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_GET_ID, "rgy_get_id", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_FINDBYSTRING_ENTRY, "rgy_findbystring_entry", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_FINDBYUUID_ENTRY, "rgy_findbyuuid_entry", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_GET_ENTRY, "rgy_get_entry", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_ADD_ENTRY, "rgy_add_entry", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_RGY_REMOVE_ENTRY, "rgy_remove_entry", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_RGY_CHANGE_ENTRIES, "rgy_change_entries", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_RGY_CHK_ACCESS, "rgy_chk_access", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_GET_DTM, "rgy_get_dtm", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_GET_DB_LIST, "rgy_get_db_list", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_CLNT_CONF_CHANGE, "rgy_clnt_conf_change", RGY_CONF_SET_HOST, "set the registry host",
              Right::administer},
    RightsRow{RVZD_PROC_RGY_CLNT_CONF_CHANGE, "rgy_clnt_conf_change", RGY_CONF_SET_BACKUP, "set the backup host",
              Right::administer},
    RightsRow{RVZD_PROC_RGY_CLNT_CONF_CHANGE, "rgy_clnt_conf_change", any_operation, "any other", Right::administer},
    RightsRow{RVZD_PROC_RGY_SVR_CONF_CHANGE, "rgy_svr_conf_change", RGY_CONF_PROMOTE, "promote", Right::administer},
    RightsRow{RVZD_PROC_RGY_SVR_CONF_CHANGE, "rgy_svr_conf_change", RGY_CONF_DEMOTE, "demote", Right::administer},
    RightsRow{RVZD_PROC_RGY_SVR_CONF_CHANGE, "rgy_svr_conf_change", any_operation, "any other", Right::administer},
    RightsRow{RVZD_PROC_RGY_GET_BACKUP, "rgy_get_backup", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_SET_BACKUP, "rgy_set_backup", any_operation, "", Right::administer},
    RightsRow{RVZD_PROC_RGY_FINDBYATTR_ENTRY, "rgy_findbyattr_entry", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_RGY_GET_PATTERN_ENTRY, "rgy_get_pattern_entry", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_DAEMON_STATUS, "daemon_status", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_REGISTRY_STATE, "registry_state", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_REGISTRY_SAVE, "registry_save", any_operation, "", Right::administer},
    RightsRow{RVZD_PROC_REGISTRY_TURN, "registry_turn", RVZD_TURN_HOLD, "hold updates", Right::administer},
    RightsRow{RVZD_PROC_REGISTRY_TURN, "registry_turn", RVZD_TURN_RELEASE, "take updates again", Right::administer},
    RightsRow{RVZD_PROC_REGISTRY_TURN, "registry_turn", RVZD_TURN_FOLLOW, "become a standby", Right::administer},
    RightsRow{RVZD_PROC_REGISTRY_TURN, "registry_turn", any_operation, "any other", Right::administer},
    RightsRow{RVZD_PROC_SCHED_GET_JOBS, "sched_get_jobs", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_HAS_INFO_CHANGED, "sched_has_info_changed", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_GET_TASKS, "sched_get_tasks", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_GET_ACL, "sched_get_acl", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_SET_ACL, "sched_set_acl", any_operation, "", Right::administer},
    RightsRow{RVZD_PROC_SCHED_JOB_CREATE, "sched_job_create", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_JOB_DELETE, "sched_job_delete", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_JOB_LOOKUP_BY_ID, "sched_job_lookup_by_id", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_JOB_GET_PROPERTIES, "sched_job_get_properties", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_JOB_SET_PROPERTIES, "sched_job_set_properties", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_JOB_HAS_INFO_CHANGED, "sched_job_has_info_changed", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_RJOB_GET_HANDLE, "sched_rjob_get_handle", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_RJOB_GET_COMPLETION_INFO, "sched_rjob_get_completion_info", any_operation, "",
              Right::read},
    RightsRow{RVZD_PROC_SCHED_RJOB_RUN_JOB, "sched_rjob_run_job", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_RJOB_TERMINATE, "sched_rjob_terminate", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_JOB_LOOKUP_BY_NAME, "sched_job_lookup_by_name", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_TASK_EXISTS, "sched_task_exists", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_TASK_NAME_TO_ID, "sched_task_name_to_id", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_CHECK_ACC, "sched_check_acc", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_TASK_ID_TO_NAME, "sched_task_id_to_name", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_GET_APP_PERMS, "sched_get_app_perms", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_GET_TIME, "sched_get_time", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_CONTACT, "sched_contact", any_operation, "", Right::meet},
    RightsRow{RVZD_PROC_SCHED_JOB_CREATE_UTC, "sched_job_create_utc", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_JOB_GET_PROPERTIES_UTC, "sched_job_get_properties_utc", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_JOB_SET_PROPERTIES_UTC, "sched_job_set_properties_utc", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_RUN_GET_OUTPUT, "sched_run_get_output", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_RUN_GET_HISTORY, "sched_run_get_history", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_GET_CHANGES, "sched_get_changes", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_GET_NEXT_RUNS, "sched_get_next_runs", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_JOB_SET_HOST, "sched_job_set_host", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_GET_JOB_HOSTS, "sched_get_job_hosts", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_JOB_CREATE_AT_HOST, "sched_job_create_at_host", any_operation, "", Right::write},
    RightsRow{RVZD_PROC_SCHED_SET_GET_JOBS, "sched_set_get_jobs", any_operation, "", Right::read},
    RightsRow{RVZD_PROC_SCHED_SET_APPLY, "sched_set_apply", any_operation, "", Right::write},
};

// Of the operation's row, or else of the procedure's. What has no row needs the right to administer.
constexpr Right right_to(uint32_t procedure, int64_t operation) {
    Right right = Right::administer;
    for (const RightsRow &row : rights_rows)
        if (row.procedure == procedure) {
            if (row.operation == operation)
                return row.right;
            if (row.operation == any_operation)
                right = row.right;
        }
    return right;
}

} // namespace velia::server
