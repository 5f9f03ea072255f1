// The scheduler's procedures of the broker's program.
#pragma once

#include <map>
#include <vector>

#include <server/rpc/guard.h>
#include <server/rpc/serve.h>
#include <server/scheduler/apply.h>
#include <server/scheduler/job_lister.h>
#include <server/scheduler/scheduler.h>

namespace velia::server {

// What the access control list has to give for a procedure, beside what the table of rights asks.
struct PermissionRow {
    uint32_t procedure;
    Permission permission;
};

inline constexpr std::array permission_rows = {
    PermissionRow{RVZD_PROC_SCHED_GET_JOBS, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_HAS_INFO_CHANGED, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_GET_TASKS, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_GET_ACL, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_SET_ACL, PERMISSION_NONE}, // for administrators, by the table of rights
    PermissionRow{RVZD_PROC_SCHED_JOB_CREATE, PERMISSION_CHANGE},
    PermissionRow{RVZD_PROC_SCHED_JOB_DELETE, PERMISSION_CHANGE},
    PermissionRow{RVZD_PROC_SCHED_JOB_LOOKUP_BY_ID, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_JOB_GET_PROPERTIES, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_JOB_SET_PROPERTIES, PERMISSION_CHANGE},
    PermissionRow{RVZD_PROC_SCHED_JOB_HAS_INFO_CHANGED, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_RJOB_GET_HANDLE, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_RJOB_GET_COMPLETION_INFO, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_RJOB_RUN_JOB, PERMISSION_RUN},
    PermissionRow{RVZD_PROC_SCHED_RJOB_TERMINATE, PERMISSION_RUN},
    PermissionRow{RVZD_PROC_SCHED_JOB_LOOKUP_BY_NAME, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_TASK_EXISTS, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_TASK_NAME_TO_ID, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_CHECK_ACC, PERMISSION_NONE},
    PermissionRow{RVZD_PROC_SCHED_TASK_ID_TO_NAME, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_GET_APP_PERMS, PERMISSION_NONE},
    PermissionRow{RVZD_PROC_SCHED_GET_TIME, PERMISSION_NONE},
    PermissionRow{RVZD_PROC_SCHED_CONTACT, PERMISSION_NONE},
    PermissionRow{RVZD_PROC_SCHED_JOB_CREATE_UTC, PERMISSION_CHANGE},
    PermissionRow{RVZD_PROC_SCHED_JOB_GET_PROPERTIES_UTC, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_JOB_SET_PROPERTIES_UTC, PERMISSION_CHANGE},
    PermissionRow{RVZD_PROC_SCHED_RUN_GET_OUTPUT, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_RUN_GET_HISTORY, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_GET_CHANGES, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_GET_NEXT_RUNS, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_JOB_SET_HOST, PERMISSION_CHANGE},
    PermissionRow{RVZD_PROC_SCHED_GET_JOB_HOSTS, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_JOB_CREATE_AT_HOST, PERMISSION_CHANGE},
    PermissionRow{RVZD_PROC_SCHED_SET_GET_JOBS, PERMISSION_READ},
    PermissionRow{RVZD_PROC_SCHED_SET_APPLY, PERMISSION_CHANGE},
};

// By whom something is done, as he is known; names are looked up in the thread.
struct Doer {
    std::optional<uint32_t> uid;
    bool is_known;
    std::string where;
};
Doer doer_of(const Caller &caller);
Deed deed_of(const Doer &doer, int64_t when);

// What its keeper holds of a job, in a record that lends it. The body is decoded again and kept until the reply has
// gone.
sched_job_properties_t lent(const Job &job, JobBody &body);

constexpr size_t jobs_max = 200000;
constexpr sched_event_mask_t event_deleted = 0x20;
constexpr sched_event_mask_t event_modified = 0x40;

// While there is no way to the database each answers TBS_ST_NO_SERVER.
class SchedulerProcedures {
public:
    // Both have to outlive them. Whom the guard lets change the access control list is an administrator.
    SchedulerProcedures(Scheduler &scheduler, const Guard &guard);

    std::vector<ServedProcedure> rows();

private:
    template <class Record>
    using To = const Answer<Record> &;

    void get_jobs(const sched_request_t &request, const Caller &caller, To<sched_get_jobs_reply_t> answer);
    void get_many_jobs(const Caller &caller, To<sched_get_jobs_reply_t> answer);
    void has_info_changed(const sched_request_t &request, const Caller &caller, To<sched_boolean_reply_t> answer);
    void get_tasks(const sched_request_t &request, const Caller &caller, To<sched_get_tasks_reply_t> answer);
    void get_acl(const sched_request_t &request, const Caller &caller, To<sched_acl_reply_t> answer);
    void set_acl(const sched_acl_request_t &request, const Caller &caller, To<sched_status_reply_t> answer);
    void job_create(const sched_job_create_request_t &request, const Caller &caller,
                    To<sched_job_create_reply_t> answer);
    void job_create_utc(const sched_utc_create_request_t &request, const Caller &caller,
                        To<sched_job_create_reply_t> answer);
    void job_delete(const sched_job_delete_request_t &request, const Caller &caller, To<sched_job_reply_t> answer);
    void job_lookup_by_id(const sched_job_id_request_t &request, const Caller &caller, To<sched_job_reply_t> answer);
    void job_lookup_by_name(const sched_name_request_t &request, const Caller &caller, To<sched_job_reply_t> answer);
    void job_get_properties(const sched_job_request_t &request, const Caller &caller,
                            To<sched_properties_reply_t> answer);
    void job_get_properties_utc(const sched_job_request_t &request, const Caller &caller, To<sched_utc_reply_t> answer);
    void job_set_properties(const sched_job_set_request_t &request, const Caller &caller,
                            To<sched_err_mask_reply_t> answer);
    void job_set_properties_utc(const sched_utc_set_request_t &request, const Caller &caller,
                                To<sched_err_mask_reply_t> answer);
    void job_has_info_changed(const sched_job_request_t &request, const Caller &caller,
                              To<sched_boolean_reply_t> answer);
    void rjob_get_handle(const sched_job_request_t &request, const Caller &caller,
                         To<sched_running_job_reply_t> answer);
    void rjob_get_completion_info(const sched_running_job_request_t &request, const Caller &caller,
                                  To<sched_completion_reply_t> answer);
    void rjob_run_job(const sched_job_request_t &request, const Caller &caller, To<sched_running_job_reply_t> answer);
    void rjob_terminate(const sched_running_job_request_t &request, const Caller &caller,
                        To<sched_status_reply_t> answer);
    void task_exists(const sched_task_request_t &request, const Caller &caller, To<sched_boolean_reply_t> answer);
    void task_name_to_id(const sched_name_request_t &request, const Caller &caller, To<sched_task_id_reply_t> answer);
    void task_id_to_name(const sched_task_name_request_t &request, const Caller &caller,
                         To<sched_task_name_reply_t> answer);
    void check_acc(const sched_permission_request_t &request, const Caller &caller, To<sched_status_reply_t> answer);
    void get_app_perms(const sched_request_t &request, const Caller &caller, To<sched_app_perms_reply_t> answer);
    void set_get_jobs(const sched_set_get_jobs_request_t &request, const Caller &caller,
                      To<sched_set_get_jobs_reply_t> answer);
    void set_apply(const sched_set_apply_request_t &request, const Caller &caller, To<sched_set_apply_reply_t> answer);
    void get_time(const sched_request_t &request, const Caller &caller, To<sched_time_reply_t> answer);
    void contact(const sched_contact_request_t &request, const Caller &caller, To<sched_contact_reply_t> answer);
    void run_get_output(const sched_run_output_request_t &request, const Caller &caller,
                        To<sched_run_output_reply_t> answer);
    void run_get_history(const sched_run_history_request_t &request, const Caller &caller,
                         To<sched_run_history_reply_t> answer);
    void get_next_runs(const sched_next_runs_request_t &request, const Caller &caller,
                       To<sched_next_runs_reply_t> answer);
    void job_set_host(const sched_set_host_request_t &request, const Caller &caller, To<sched_set_host_reply_t> answer);
    void job_create_at_host(const sched_create_at_host_request_t &request, const Caller &caller,
                            To<sched_create_at_host_reply_t> answer);
    void get_job_hosts(const sched_job_hosts_request_t &request, const Caller &caller,
                       To<sched_job_hosts_reply_t> answer);
    void get_changes(const sched_changes_request_t &request, const Caller &caller, To<sched_changes_reply_t> answer);

    template <const auto &procedure, auto work>
    ServedProcedure row();
    template <const auto &procedure, auto work, class Request, class Record>
    ServedProcedure row_of(const Procedure<Request, Record> &typed);
    template <const auto &procedure, auto work, class Request, class Record>
    void work_if_permitted(const Request &request, const Caller &caller, const Answer<Record> &answer);

    bool is_administrator_here(const Caller &caller) const;
    tbs_acl_permission_set_t permissions_of(const Caller &caller) const;
    bool is_owner(const Job &job, const Caller &caller) const;

    // What has become of a new job; without a mask its properties were not looked at.
    using Created = std::function<void(tbs_status_t, sched_job_id_t, const uint32_t *err_mask)>;
    static Created telling(To<sched_job_create_reply_t> answer);
    void create(sched_job_utc_rw_props_t &props, const std::string &host, const Caller &caller, const Created &created);
    void set_properties(sched_job_h_t handle, sched_job_utc_rw_props_t &props, const Caller &caller,
                        To<sched_err_mask_reply_t> answer);
    // What nobody else may touch, while it is being written.
    struct Touched {
        std::vector<std::pair<std::string, sched_job_id_t>> names;
        std::vector<sched_job_id_t> changed;
        bool is_link = false; // one that is there is to follow another
    };
    void hold(const Touched &touched);
    void release(const Touched &touched);
    static Touched touched_by(const JobSet &set);
    bool may_touch(const Touched &touched) const { return !touched.is_link || links_on_the_way_ == 0; }
    bool write(const Caller &caller, const Touched &touched, Scheduler::Work work, Scheduler::Done done);

    tbs_status_t validate(sched_job_id_t id, sched_job_utc_rw_props_t &props, uint32_t &err_mask);
    bool has_seen(const Caller &caller, sched_job_id_t job, uint64_t version);

    uint64_t state_of_jobs();
    tbs_status_t take_piece(const sched_set_apply_request_t &request, const Caller &caller, StagedSet &piece,
                            StagedSet *&set);
    tbs_status_t judge(const StagedSet &set, const Caller &caller, sched_set_fault_t &fault);
    void apply(const StagedSet &set, const Caller &caller, To<sched_set_apply_reply_t> answer);
    void has_applied(const JobSet &set);

    Scheduler &scheduler_;
    const Guard &guard_;
    JobLister lister_;
    size_t links_on_the_way_ = 0; // two could close a circle that neither makes
    StagedSets staged_;
    std::pair<uint64_t, uint64_t> state_{}; // the version of the jobs, and their state by then
    // Which version of a job, or with 0 of all, a caller was told last.
    std::map<std::pair<Sender, sched_job_id_t>, uint64_t> seen_;
};

} // namespace velia::server
