// Each procedure of the scheduler: what its record asks, and what the answer is as a record.
#include <server/scheduler/procedures.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <pwd.h>

#include <server/registry/store.h>
#include <server/rpc/long_replies.h>
#include <server/scheduler/changes.h>
#include <veliaxdr/sched_check.h>

namespace velia::server {

namespace {

constexpr size_t seen_max = 4096;
constexpr size_t jobs_at_once_max = 8; // in one round, however long each is

constexpr Permission permission_for(uint32_t procedure) {
    for (const auto &row : permission_rows)
        if (row.procedure == procedure)
            return row.permission;
    return PERMISSION_CHANGE;
}

std::string text_of(const char *text) {
    return text != nullptr ? text : "";
}

sched_job_id_t id_of(sched_job_h_t handle) {
    return handle != nullptr ? handle->job_id : 0;
}

// What its keeper holds of a job, in a record that lends it.
sched_www_info_t lent(const Deed &deed) {
    static const std::string nothing;
    return {unowned(deed.who), unowned(nothing), unowned(deed.where), deed.when};
}

sched_job_completion_info_t lent(const RunRow &run) {
    return {unowned(run.process_id), run.started, run.ended, run.exit_status, unowned(run.messages)};
}

} // namespace

sched_job_properties_t lent(const Job &job, JobBody &body) {
    static const RunRow none;
    sched_job_properties_t properties = {body.get().rw, {}};
    properties.ro.predefined = job.row.is_predefined ? 1 : 0;
    properties.ro.job_id = job.row.id;
    properties.ro.next_run_time = job.next_run;
    properties.ro.created = lent(job.row.created);
    properties.ro.last_modified = lent(job.row.changed);
    properties.ro.running_status = {unowned(job.run.process_id), job.run.started};
    properties.ro.last_completion = lent(job.runs.empty() ? none : job.runs.back());
    return properties;
}

bool encode_job(XDR &stream, const Job &job) {
    JobBody body(job.row.body);
    auto properties = lent(job, body);
    return xdr_sched_job_properties_t(&stream, &properties) != FALSE;
}

Doer doer_of(const Caller &caller) {
    if (caller.known)
        return {caller.known->uid, true, "this host"};
    return {caller.credentials ? std::optional(caller.credentials->uid) : std::nullopt, false,
            address_text(caller.peer)};
}

std::string look_up_name(uint32_t uid) {
    std::array<char, 4096> storage;
    passwd entry = {};
    passwd *found = nullptr;
    getpwuid_r(uid, &entry, storage.data(), storage.size(), &found);
    return found != nullptr ? found->pw_name : std::to_string(uid);
}

// A name may be asked of another host, and not at each request.
std::string name_of_user(uint32_t uid) {
    constexpr size_t names_max = 1024;
    constexpr int64_t good_for_s = 60;
    struct Name {
        std::string text;
        int64_t looked_up;
    };
    static thread_local std::map<uint32_t, Name> names;
    const int64_t now = time(nullptr);
    const auto found = names.find(uid);
    if (found != names.end() && found->second.looked_up <= now && now - found->second.looked_up < good_for_s)
        return found->second.text;
    if (names.size() >= names_max)
        names.clear();
    return (names[uid] = {look_up_name(uid), now}).text;
}

Deed deed_of(const Doer &doer, int64_t when) {
    if (!doer.uid)
        return {"nobody", doer.where, when};
    const std::string name = name_of_user(*doer.uid);
    return {doer.is_known ? name : name + "?", doer.where, when};
}

SchedulerProcedures::SchedulerProcedures(Scheduler &scheduler, const Guard &guard)
    : scheduler_(scheduler), guard_(guard), lister_(scheduler.loop(), scheduler.jobs(), encode_job) {}

bool SchedulerProcedures::is_administrator_here(const Caller &caller) const {
    return guard_.permits({RVZD_PROC_SCHED_SET_ACL}, caller);
}

tbs_acl_permission_set_t SchedulerProcedures::permissions_of(const Caller &caller) const {
    return is_administrator_here(caller) ? ~tbs_acl_permission_set_t{0} : scheduler_.access().permissions_of(caller);
}

// A job of nobody's is there only where all run as one user.
bool SchedulerProcedures::is_owner(const Job &job, const Caller &caller) const {
    return !job.row.owner || (caller.known && caller.known->uid == *job.row.owner) || is_administrator_here(caller);
}

template <const auto &procedure, auto work, class Request, class Record>
void SchedulerProcedures::work_if_permitted(const Request &request, const Caller &caller,
                                            const Answer<Record> &answer) {
    constexpr Permission permission = permission_for(procedure.number);
    if (!scheduler_.is_open())
        answer(TBS_ST_NO_SERVER, {});
    else if (permission != PERMISSION_NONE && (permissions_of(caller) & permission) != permission)
        answer(TBS_ST_NO_ACCESS, {});
    else
        (this->*work)(request, caller, answer);
}

template <const auto &procedure, auto work, class Request, class Record>
ServedProcedure SchedulerProcedures::row_of(const Procedure<Request, Record> & /*typed*/) {
    return serve<procedure, &SchedulerProcedures::work_if_permitted<procedure, work, Request, Record>>(*this);
}

template <const auto &procedure, auto work>
ServedProcedure SchedulerProcedures::row() {
    return row_of<procedure, work>(procedure);
}

void SchedulerProcedures::contact(const sched_contact_request_t & /*request*/, const Caller & /*caller*/,
                                  To<sched_contact_reply_t> answer) {
    uint32_t version = SCHED_INTERFACE_VERSION;
    answer(TBS_ST_OK, {TBS_ST_OK, &version, &version});
}

void SchedulerProcedures::get_time(const sched_request_t & /*request*/, const Caller & /*caller*/,
                                   To<sched_time_reply_t> answer) {
    time_t now = time(nullptr);
    answer(TBS_ST_OK, {TBS_ST_OK, &now});
}

// Whether he was told this version before; he has been now.
bool SchedulerProcedures::has_seen(const Caller &caller, sched_job_id_t job, uint64_t version) {
    if (seen_.size() >= seen_max)
        seen_.clear(); // all are told once more that something may have changed
    return std::exchange(seen_[{sender_of(caller), job}], version) == version;
}

void SchedulerProcedures::has_info_changed(const sched_request_t & /*request*/, const Caller &caller,
                                           To<sched_boolean_reply_t> answer) {
    tbs_boolean_t changed = has_seen(caller, 0, scheduler_.jobs().version()) ? 0 : 1;
    answer(TBS_ST_OK, {TBS_ST_OK, &changed});
}

void SchedulerProcedures::job_has_info_changed(const sched_job_request_t &request, const Caller &caller,
                                               To<sched_boolean_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(id_of(request.job));
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    tbs_boolean_t changed = has_seen(caller, job->row.id, job->version) ? 0 : 1;
    answer(TBS_ST_OK, {TBS_ST_OK, &changed});
}

void SchedulerProcedures::get_jobs(const sched_request_t & /*request*/, const Caller &caller,
                                   To<sched_get_jobs_reply_t> answer) {
    const auto &jobs = scheduler_.jobs().all();
    if (jobs.size() > jobs_at_once_max)
        return get_many_jobs(caller, answer);
    std::vector<std::unique_ptr<JobBody>> bodies;
    std::vector<sched_job_properties_t> properties;
    for (const auto &[id, job] : jobs) {
        bodies.push_back(std::make_unique<JobBody>(job.row.body));
        properties.push_back(lent(job, *bodies.back()));
    }
    has_seen(caller, 0, scheduler_.jobs().version());
    auto count = static_cast<uint32_t>(properties.size());
    auto *array = properties.data();
    answer(TBS_ST_OK, {TBS_ST_OK, &count, &array});
}

void SchedulerProcedures::get_many_jobs(const Caller &caller, To<sched_get_jobs_reply_t> answer) {
    const auto sender = sender_of(caller);
    uint32_t count = 0;
    sched_job_properties_t *none = nullptr;
    const bool is_taken =
        has_room_for_long_reply(sender.host) &&
        lister_.make(sender, answer.encoded(TBS_ST_OK, {TBS_ST_OK, &count, &none}), [answer](MessageBytes message) {
            if (message.empty())
                answer(TBS_ST_NO_STORAGE, {});
            else
                answer.send(std::move(message));
        });
    if (is_taken)
        has_seen(caller, 0, scheduler_.jobs().version());
    else
        answer(TBS_ST_TRY_AGAIN, {});
}

void SchedulerProcedures::get_tasks(const sched_request_t & /*request*/, const Caller & /*caller*/,
                                    To<sched_get_tasks_reply_t> answer) {
    std::vector<sched_task_properties_t> tasks;
    for (const auto &task : scheduler_.tasks()) {
        sched_task_properties_t properties = {
            task.id, unowned(task.name), {unowned(task.ui_info)}, unowned(task.path), {}};
        properties.run_as.user = properties.run_as.group = CREDUTL_NO_ID;
        tasks.push_back(properties);
    }
    auto count = static_cast<uint32_t>(tasks.size());
    auto *array = tasks.data();
    answer(TBS_ST_OK, {TBS_ST_OK, &count, &array});
}

void SchedulerProcedures::get_acl(const sched_request_t & /*request*/, const Caller & /*caller*/,
                                  To<sched_acl_reply_t> answer) {
    OwnedRecord<tbs_acl_h_t, xdr_tbs_acl_h_t> list(scheduler_.access().bytes());
    answer(TBS_ST_OK, {TBS_ST_OK, &list.get()});
}

void SchedulerProcedures::set_acl(const sched_acl_request_t &request, const Caller &caller,
                                  To<sched_status_reply_t> answer) {
    tbs_acl_h_t list = request.acl;
    const auto bytes = xdr_bytes(xdr_tbs_acl_h_t, list);
    const auto made = std::make_shared<AccessList>();
    const auto is_good = std::make_shared<bool>(false);
    const bool is_taken = scheduler_.ask(
        sender_of(caller),
        [bytes, made, is_good, doer = doer_of(caller)](JobStore &store) {
            *is_good = made->take(bytes);
            if (*is_good)
                store.set_acl(bytes, {0, deed_of(doer, time(nullptr)), "access", 0, "", ""});
        },
        [this, made, is_good, answer](tbs_status_t status) {
            if (status == TBS_ST_OK && *is_good)
                scheduler_.access() = *made;
            answer(status == TBS_ST_OK && !*is_good ? tbs_status_t{TBS_ST_INVALID_ARG} : status, {});
        });
    if (!is_taken)
        answer(TBS_ST_TRY_AGAIN, {});
}

void SchedulerProcedures::check_acc(const sched_permission_request_t &request, const Caller &caller,
                                    To<sched_status_reply_t> answer) {
    const bool has_all = (request.permissions & ~permissions_of(caller)) == 0;
    answer(has_all ? TBS_ST_OK : TBS_ST_NO_ACCESS, {});
}

void SchedulerProcedures::get_app_perms(const sched_request_t & /*request*/, const Caller & /*caller*/,
                                        To<sched_app_perms_reply_t> answer) {
    std::array<strutl_flag_item_t, permission_names.size()> items = {};
    for (size_t i = 0; i < items.size(); ++i) {
        items[i].name = const_cast<char *>(permission_names[i].name);
        items[i].value = permission_names[i].permission;
    }
    auto count = static_cast<uint32_t>(items.size());
    auto *array = items.data();
    auto map = generic_permissions;
    answer(TBS_ST_OK, {TBS_ST_OK, &count, &array, &map});
}

void SchedulerProcedures::task_exists(const sched_task_request_t &request, const Caller & /*caller*/,
                                      To<sched_boolean_reply_t> answer) {
    tbs_boolean_t exists = scheduler_.task(request.task) != nullptr ? 1 : 0;
    answer(TBS_ST_OK, {TBS_ST_OK, &exists});
}

void SchedulerProcedures::task_name_to_id(const sched_name_request_t &request, const Caller & /*caller*/,
                                          To<sched_task_id_reply_t> answer) {
    const std::string name = text_of(request.name);
    const auto &tasks = scheduler_.tasks();
    const auto task = std::find_if(tasks.begin(), tasks.end(), [&](const Task &row) { return row.name == name; });
    if (task == tasks.end())
        return answer(TBS_ST_NOT_FOUND, {});
    sched_task_id_t id = task->id;
    answer(TBS_ST_OK, {TBS_ST_OK, &id});
}

// The caller copies without a look at its buffer.
void SchedulerProcedures::task_id_to_name(const sched_task_name_request_t &request, const Caller & /*caller*/,
                                          To<sched_task_name_reply_t> answer) {
    const Task *task = scheduler_.task(request.task);
    if (task == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    if (task->name.size() >= request.size)
        return answer(TBS_ST_NAME_TOO_LONG, {});
    answer(TBS_ST_OK, {TBS_ST_OK, static_cast<uint32_t>(task->name.size() + 1), unowned(task->name)});
}

void SchedulerProcedures::job_lookup_by_id(const sched_job_id_request_t &request, const Caller & /*caller*/,
                                           To<sched_job_reply_t> answer) {
    sched_job_handle handle = {request.job_id};
    sched_job_h_t given = &handle;
    const bool is_there = scheduler_.jobs().find(request.job_id) != nullptr;
    answer(is_there ? TBS_ST_OK : TBS_ST_NOT_FOUND,
           is_there ? sched_job_reply_t{TBS_ST_OK, &given} : sched_job_reply_t{});
}

void SchedulerProcedures::job_lookup_by_name(const sched_name_request_t &request, const Caller & /*caller*/,
                                             To<sched_job_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(text_of(request.name));
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    sched_job_handle handle = {job->row.id};
    sched_job_h_t given = &handle;
    answer(TBS_ST_OK, {TBS_ST_OK, &given});
}

void SchedulerProcedures::job_get_properties(const sched_job_request_t &request, const Caller &caller,
                                             To<sched_properties_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(id_of(request.job));
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    has_seen(caller, job->row.id, job->version);
    JobBody body(job->row.body);
    auto properties = lent(*job, body);
    answer(TBS_ST_OK, {TBS_ST_OK, &properties});
}

void SchedulerProcedures::job_get_properties_utc(const sched_job_request_t &request, const Caller &caller,
                                                 To<sched_utc_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(id_of(request.job));
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    has_seen(caller, job->row.id, job->version);
    JobBody body(job->row.body);
    sched_job_utc_props_t properties = {body.get().utc, lent(*job, body)};
    answer(TBS_ST_OK, {TBS_ST_OK, &properties});
}

// What the library's own checks would ask a server is asked here.
tbs_status_t SchedulerProcedures::validate(sched_job_id_t id, sched_job_utc_rw_props_t &props, uint32_t &err_mask) {
    auto &rw = props.rw;
    const auto status = sched_utl_validate_job_rw_properties(nullptr, id, &rw, 0, 1, &err_mask);
    if (status != TBS_ST_OK)
        return status;
    const Job *namesake = scheduler_.jobs().find(text_of(rw.name));
    if ((namesake != nullptr && namesake->row.id != id) || scheduler_.names_on_the_way().is_of_another(rw.name, id)) {
        err_mask = SCHED_ERR_NAME_DUPLICATE;
        return TBS_ST_INVALID_ARG;
    }
    if (rw.schedule.kind == SCHED_KIND_SEQUENTIAL) {
        const auto followed = rw.schedule.u.sequential.follows_job;
        if (scheduler_.jobs().find(followed) == nullptr ||
            (id != 0 && scheduler_.jobs().would_go_round(id, followed))) {
            err_mask = SCHED_ERR_FOLLOWS;
            return TBS_ST_INVALID_ARG;
        }
    }
    if (scheduler_.task(rw.task) == nullptr)
        err_mask |= SCHED_ERR_TASK; // told, and no failure: it may be installed before the job runs
    return TBS_ST_OK;
}

void SchedulerProcedures::hold(const Touched &touched) {
    for (const auto &[name, id] : touched.names)
        scheduler_.names_on_the_way().add(name, id);
    for (const auto id : touched.changed)
        scheduler_.changes_on_the_way().add(id);
    links_on_the_way_ += touched.is_link ? 1 : 0;
}

void SchedulerProcedures::release(const Touched &touched) {
    for (const auto &[name, id] : touched.names)
        scheduler_.names_on_the_way().remove(name);
    for (const auto id : touched.changed)
        scheduler_.changes_on_the_way().remove(id);
    links_on_the_way_ -= touched.is_link ? 1 : 0;
}

bool SchedulerProcedures::write(const Caller &caller, const Touched &touched, Scheduler::Work work,
                                Scheduler::Done done) {
    hold(touched);
    const bool is_taken = scheduler_.ask(sender_of(caller), std::move(work),
                                         [this, touched, done = std::move(done)](tbs_status_t status) {
                                             release(touched);
                                             done(status);
                                         });
    if (!is_taken)
        release(touched);
    return is_taken;
}

void SchedulerProcedures::create(sched_job_utc_rw_props_t &props, const std::string &host, const Caller &caller,
                                 const Created &created) {
    uint32_t err_mask = 0;
    const auto status = validate(0, props, err_mask);
    if (status != TBS_ST_OK)
        return created(status, 0, &err_mask);
    const auto row = std::make_shared<JobRow>();
    row->host = host;
    row->owner = caller.known ? std::optional<uint32_t>(caller.known->uid) : std::nullopt;
    if (!Scheduler::may_run(row->owner))
        return created(TBS_ST_NO_ACCESS, 0, nullptr);
    if (scheduler_.jobs().all().size() >= jobs_max)
        return created(TBS_ST_NO_STORAGE, 0, nullptr);
    row->body = xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
    row->changed_start = time(nullptr);
    row->considered = row->changed_start - 1;
    const std::string name = props.rw.name;
    const bool is_taken = write(
        caller, {{{name, 0}}, {}, false},
        [row, name, doer = doer_of(caller)](JobStore &store) {
            row->created = row->changed = deed_of(doer, row->changed_start);
            row->id = store.add(*row, {0, row->changed, "created", 0, noted_name(name), ""});
        },
        [this, row, err_mask, created](tbs_status_t done) {
            if (done != TBS_ST_OK)
                return created(done, 0, nullptr);
            scheduler_.jobs().add(*row);
            created(TBS_ST_OK, row->id, &err_mask);
            scheduler_.schedule();
        });
    if (!is_taken)
        created(TBS_ST_TRY_AGAIN, 0, nullptr);
}

SchedulerProcedures::Created SchedulerProcedures::telling(To<sched_job_create_reply_t> answer) {
    return [answer](tbs_status_t status, sched_job_id_t id, const uint32_t *err_mask) {
        sched_job_handle handle = {id};
        sched_job_h_t given = &handle;
        uint32_t mask = err_mask != nullptr ? *err_mask : 0;
        answer(status, {status, id != 0 ? &given : nullptr, err_mask != nullptr ? &mask : nullptr});
    };
}

void SchedulerProcedures::job_create(const sched_job_create_request_t &request, const Caller &caller,
                                     To<sched_job_create_reply_t> answer) {
    sched_job_utc_rw_props_t props = {{}, request.job != nullptr ? *request.job : sched_job_rw_properties_t{}};
    create(props, "", caller, telling(answer));
}

void SchedulerProcedures::job_create_utc(const sched_utc_create_request_t &request, const Caller &caller,
                                         To<sched_job_create_reply_t> answer) {
    sched_job_utc_rw_props_t props = request.job != nullptr ? *request.job : sched_job_utc_rw_props_t{};
    create(props, "", caller, telling(answer));
}

// It stays whose it is: nobody runs what he wants as somebody else by changing a job of his.
void SchedulerProcedures::set_properties(sched_job_h_t handle, sched_job_utc_rw_props_t &props, const Caller &caller,
                                         To<sched_err_mask_reply_t> answer) {
    Job *job = scheduler_.jobs().find(id_of(handle));
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    if (!is_owner(*job, caller))
        return answer(TBS_ST_NO_ACCESS, {});
    uint32_t err_mask = 0;
    auto status = validate(job->row.id, props, err_mask);
    if (status == TBS_ST_OK && job->row.is_predefined)
        status = sched_utl_validate_predef_job_rw_properties(nullptr, &JobBody(job->row.body).get().rw, &props.rw, 1,
                                                             &err_mask);
    if (status != TBS_ST_OK)
        return answer(status, {status, &err_mask});
    const auto row = std::make_shared<JobRow>(job->row);
    row->replaces = mark_of(row->body);
    row->body = xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
    row->changed_start = time(nullptr);
    row->considered = std::max<int64_t>(row->considered, row->changed_start - 1);
    const auto is_there = std::make_shared<bool>(false);
    const auto fields = changed_fields(JobBody(job->row.body).get().rw, props.rw);
    const std::string name = props.rw.name;
    const Touched touched = {{{name, row->id}}, {row->id}, props.rw.schedule.kind == SCHED_KIND_SEQUENTIAL};
    const bool is_taken =
        may_touch(touched) &&
        write(
            caller, touched,
            [row, is_there, name, fields, doer = doer_of(caller)](JobStore &store) {
                row->changed = deed_of(doer, row->changed_start);
                *is_there = store.change(*row, {0, row->changed, "changed", row->id, noted_name(name), fields});
            },
            [this, row, is_there, err_mask, answer](tbs_status_t done) mutable {
                if (done != TBS_ST_OK || !*is_there || !scheduler_.jobs().change(*row))
                    return answer(done != TBS_ST_OK ? done : tbs_status_t{TBS_ST_NOT_FOUND}, {});
                answer(TBS_ST_OK, {TBS_ST_OK, &err_mask});
                scheduler_.take_up(*scheduler_.jobs().find(row->id), event_modified, "was changed");
            });
    if (!is_taken)
        answer(TBS_ST_TRY_AGAIN, {});
}

void SchedulerProcedures::job_set_properties(const sched_job_set_request_t &request, const Caller &caller,
                                             To<sched_err_mask_reply_t> answer) {
    sched_job_utc_rw_props_t props = {
        {}, request.properties != nullptr ? *request.properties : sched_job_rw_properties_t{}};
    if (const Job *job = scheduler_.jobs().find(id_of(request.job)))
        props.utc = JobBody(job->row.body).get().utc;
    set_properties(request.job, props, caller, answer);
}

void SchedulerProcedures::job_set_properties_utc(const sched_utc_set_request_t &request, const Caller &caller,
                                                 To<sched_err_mask_reply_t> answer) {
    sched_job_utc_rw_props_t props = request.properties != nullptr ? *request.properties : sched_job_utc_rw_props_t{};
    set_properties(request.job, props, caller, answer);
}

// With the flag also while it runs: the run is ended.
void SchedulerProcedures::job_delete(const sched_job_delete_request_t &request, const Caller &caller,
                                     To<sched_job_reply_t> answer) {
    const auto id = request.job != nullptr ? id_of(*request.job) : 0;
    const Job *job = scheduler_.jobs().find(id);
    sched_job_handle handle = {id};
    sched_job_h_t given = &handle;
    const auto refuse = [&](tbs_status_t status) { answer(status, {status, &given}); };
    if (job == nullptr)
        return refuse(TBS_ST_NOT_FOUND);
    if (!is_owner(*job, caller))
        return refuse(TBS_ST_NO_ACCESS);
    if (job->phase == Job::Phase::running && request.flag == 0)
        return refuse(TBS_ST_TRY_AGAIN);
    const bool is_taken = scheduler_.ask(
        sender_of(caller),
        [id, even_running = request.flag != 0, name = job->name, doer = doer_of(caller)](JobStore &store) {
            const ChangeRow change = {0, deed_of(doer, time(nullptr)), "deleted", id, noted_name(name), ""};
            if (even_running)
                store.remove(id, change);
            else
                store.remove_idle(id, change);
        },
        [this, id, answer](tbs_status_t status) {
            const Job *deleted = scheduler_.jobs().find(id);
            if (status == TBS_ST_OK && deleted != nullptr) {
                scheduler_.take_up(*deleted, event_deleted, "was deleted");
                scheduler_.remove(*deleted);
            }
            sched_job_handle left = {status == TBS_ST_OK ? 0 : id};
            sched_job_h_t of_reply = &left;
            answer(status, {status, &of_reply});
        });
    if (!is_taken)
        refuse(TBS_ST_TRY_AGAIN);
}

void SchedulerProcedures::rjob_get_handle(const sched_job_request_t &request, const Caller & /*caller*/,
                                          To<sched_running_job_reply_t> answer) {
    const Job *job = scheduler_.jobs().find(id_of(request.job));
    if (job == nullptr || job->phase != Job::Phase::running)
        return answer(TBS_ST_NOT_FOUND, {});
    sched_running_job_handle handle = {job->row.id, job->run.started};
    sched_running_job_h_t given = &handle;
    answer(TBS_ST_OK, {TBS_ST_OK, &given});
}

void SchedulerProcedures::rjob_get_completion_info(const sched_running_job_request_t &request,
                                                   const Caller & /*caller*/, To<sched_completion_reply_t> answer) {
    const Job *job = request.job != nullptr ? scheduler_.jobs().find(request.job->job_id) : nullptr;
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    const auto found = std::find_if(job->runs.begin(), job->runs.end(),
                                    [&](const RunRow &run) { return run.started == request.job->started; });
    const bool is_running = job->phase == Job::Phase::running && job->run.started == request.job->started;
    if (found == job->runs.end() && !is_running)
        return answer(TBS_ST_NOT_FOUND, {});
    auto info = lent(is_running ? job->run : *found);
    answer(TBS_ST_OK, {TBS_ST_OK, &info});
}

void SchedulerProcedures::rjob_run_job(const sched_job_request_t &request, const Caller &caller,
                                       To<sched_running_job_reply_t> answer) {
    Job *job = scheduler_.jobs().find(id_of(request.job));
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    if (!is_owner(*job, caller))
        return answer(TBS_ST_NO_ACCESS, {});
    scheduler_.run_by_hand(*job, [answer, id = job->row.id](tbs_status_t status, int64_t started) {
        sched_running_job_handle handle = {id, started};
        sched_running_job_h_t given = &handle;
        answer(status, status == TBS_ST_OK ? sched_running_job_reply_t{status, &given} : sched_running_job_reply_t{});
    });
}

void SchedulerProcedures::rjob_terminate(const sched_running_job_request_t &request, const Caller &caller,
                                         To<sched_status_reply_t> answer) {
    const Job *job = request.job != nullptr ? scheduler_.jobs().find(request.job->job_id) : nullptr;
    if (job == nullptr)
        return answer(TBS_ST_NOT_FOUND, {});
    if (!is_owner(*job, caller))
        return answer(TBS_ST_NO_ACCESS, {});
    scheduler_.terminate(sender_of(caller), job->row.id, request.job->started,
                         [answer](tbs_status_t status) { answer(status, {}); });
}

std::vector<ServedProcedure> SchedulerProcedures::rows() {
    using P = SchedulerProcedures;
    return {
        row<procedures::sched_get_jobs, &P::get_jobs>(),
        row<procedures::sched_has_info_changed, &P::has_info_changed>(),
        row<procedures::sched_get_tasks, &P::get_tasks>(),
        row<procedures::sched_get_acl, &P::get_acl>(),
        row<procedures::sched_set_acl, &P::set_acl>(),
        row<procedures::sched_job_create, &P::job_create>(),
        row<procedures::sched_job_delete, &P::job_delete>(),
        row<procedures::sched_job_lookup_by_id, &P::job_lookup_by_id>(),
        row<procedures::sched_job_get_properties, &P::job_get_properties>(),
        row<procedures::sched_job_set_properties, &P::job_set_properties>(),
        row<procedures::sched_job_has_info_changed, &P::job_has_info_changed>(),
        row<procedures::sched_rjob_get_handle, &P::rjob_get_handle>(),
        row<procedures::sched_rjob_get_completion_info, &P::rjob_get_completion_info>(),
        row<procedures::sched_rjob_run_job, &P::rjob_run_job>(),
        row<procedures::sched_rjob_terminate, &P::rjob_terminate>(),
        row<procedures::sched_job_lookup_by_name, &P::job_lookup_by_name>(),
        row<procedures::sched_task_exists, &P::task_exists>(),
        row<procedures::sched_task_name_to_id, &P::task_name_to_id>(),
        row<procedures::sched_check_acc, &P::check_acc>(),
        row<procedures::sched_task_id_to_name, &P::task_id_to_name>(),
        row<procedures::sched_get_app_perms, &P::get_app_perms>(),
        row<procedures::sched_get_time, &P::get_time>(),
        row<procedures::sched_contact, &P::contact>(),
        row<procedures::sched_job_create_utc, &P::job_create_utc>(),
        row<procedures::sched_job_get_properties_utc, &P::job_get_properties_utc>(),
        row<procedures::sched_job_set_properties_utc, &P::job_set_properties_utc>(),
        row<procedures::sched_run_get_output, &P::run_get_output>(),
        row<procedures::sched_run_get_history, &P::run_get_history>(),
        row<procedures::sched_get_changes, &P::get_changes>(),
        row<procedures::sched_get_next_runs, &P::get_next_runs>(),
        row<procedures::sched_job_set_host, &P::job_set_host>(),
        row<procedures::sched_get_job_hosts, &P::get_job_hosts>(),
        row<procedures::sched_job_create_at_host, &P::job_create_at_host>(),
        row<procedures::sched_set_get_jobs, &P::set_get_jobs>(),
        row<procedures::sched_set_apply, &P::set_apply>(),
    };
}

} // namespace velia::server
