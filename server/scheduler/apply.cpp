#include <server/scheduler/apply.h>

#include <algorithm>
#include <ctime>
#include <sys/random.h>
#include <unordered_map>
#include <unordered_set>

#include <server/registry/store.h>
#include <server/scheduler/changes.h>
#include <server/scheduler/procedures.h>
#include <veliaxdr/sched_check.h>

namespace velia::server {

namespace {

// Of a list of jobs that goes as one reply. What a job takes beside its texts is less than that.
constexpr size_t list_bytes_max = 900000;
constexpr size_t job_bytes = 1024;

uint64_t unguessable() {
    uint64_t number = 0;
    while (number == 0)
        if (getrandom(&number, sizeof number, 0) != sizeof number)
            return 0;
    return number;
}

bool is_whose(const StagedSet &set, const StagedSet &whose) {
    return set.from == whose.from && set.uid == whose.uid;
}

size_t bytes_of(const Job &job) {
    const size_t messages = job.runs.empty() ? 0 : job.runs.back().messages.size();
    return job_bytes + job.row.body.size() + messages;
}

std::string name_in(const std::string &body) {
    JobBody decoded(body);
    return decoded.get().rw.name;
}

bool is_sequential(const std::string &body) {
    JobBody decoded(body);
    return decoded.get().rw.schedule.kind == SCHED_KIND_SEQUENTIAL;
}

// A row of the set whose job follows one that is created by the set, too.
struct Link {
    bool is_added;
    size_t row;
    size_t created; // the how manieth new job it follows
};

void follow(std::string &body, sched_job_id_t followed) {
    JobBody decoded(body);
    decoded.get().rw.schedule.u.sequential.follows_job = followed;
    body = xdr_bytes(xdr_sched_job_utc_rw_props_t, decoded.get());
}

// As the database has it. What follows a new job is changed once that has its number.
std::vector<Link> take_rows(const StagedSet &set, Jobs &jobs, JobSet &rows) {
    rows.state = set.state;
    std::vector<size_t> created_of_place;
    size_t created = 0;
    for (const auto &change : set.changes)
        created_of_place.push_back(change.what == SCHED_SET_CREATE ? created++ : 0);
    std::vector<Link> links;
    const int64_t now = time(nullptr);
    for (const auto &change : set.changes) {
        if (change.what == SCHED_SET_DELETE) {
            rows.removed.push_back(change.id);
            continue;
        }
        const bool is_added = change.what == SCHED_SET_CREATE;
        JobRow row = is_added ? JobRow{} : jobs.find(change.id)->row;
        if (is_added)
            row.owner = set.uid;
        row.replaces = 0; // all jobs are as the caller knows them, or nothing is done
        row.body = change.body;
        row.changed_start = now;
        row.considered = std::max<int64_t>(row.considered, now - 1);
        auto &list = is_added ? rows.added : rows.changed;
        if (change.follows != 0)
            links.push_back({is_added, list.size(), created_of_place[change.follows - 1]});
        list.push_back(std::move(row));
    }
    return links;
}

// What the log of changes tells; by whom is known in the thread.
std::vector<ChangeRow> notes_of(const JobSet &rows, Jobs &jobs) {
    std::vector<ChangeRow> notes;
    for (const auto &row : rows.added)
        notes.push_back({0, {}, "created", 0, noted_name(name_in(row.body)), ""});
    for (const auto &row : rows.changed) {
        JobBody before(jobs.find(row.id)->row.body);
        JobBody after(row.body);
        notes.push_back({0,
                         {},
                         "changed",
                         row.id,
                         noted_name(after.get().rw.name),
                         changed_fields(before.get().rw, after.get().rw)});
    }
    for (const auto id : rows.removed)
        notes.push_back({0, {}, "deleted", id, noted_name(jobs.find(id)->name), ""});
    return notes;
}

std::shared_ptr<JobSet> rows_of(const StagedSet &set, Jobs &jobs) {
    auto rows = std::make_shared<JobSet>();
    const auto links = take_rows(set, jobs, *rows);
    rows->notes = notes_of(*rows, jobs);
    rows->take_numbers = [&rows = *rows, links](sched_job_id_t first) {
        for (const auto &link : links)
            follow((link.is_added ? rows.added : rows.changed)[link.row].body,
                   first + static_cast<sched_job_id_t>(link.created));
    };
    return rows;
}

// The set as a change of the jobs that are there: who follows whom, who has which name, once it is made.
class Outlook {
public:
    Outlook(const StagedSet &set, Jobs &jobs) : set_(set), jobs_(jobs) {}

    // Decodes each job of the set and looks whether it can be done alone.
    tbs_status_t look(sched_set_fault_t &fault) {
        for (size_t i = 0; i < set_.changes.size(); ++i) {
            const tbs_status_t status = look_at(set_.changes[i], fault.err_mask);
            if (status != TBS_ST_OK) {
                fault.place = static_cast<uint32_t>(i + 1);
                return status;
            }
        }
        return TBS_ST_OK;
    }

    // And whether all can be done together.
    tbs_status_t look_together(sched_set_fault_t &fault) {
        take_what_stays();
        for (size_t i = 0; i < set_.changes.size(); ++i) {
            const bool is_last_of_name =
                set_.changes[i].what == SCHED_SET_DELETE || names_.insert(wanted_[i].name).second;
            if (!is_last_of_name)
                fault.err_mask = SCHED_ERR_NAME_DUPLICATE;
            else if (!follows_well(i))
                fault.err_mask = SCHED_ERR_FOLLOWS;
            else
                continue;
            fault.place = static_cast<uint32_t>(i + 1);
            return TBS_ST_INVALID_ARG;
        }
        return TBS_ST_OK;
    }

private:
    // What the outlook has to know of one of the set's jobs.
    struct Wanted {
        std::string name;
        uint64_t follows = 0; // a key; 0: it follows none
    };

    // New jobs have no number yet, and are known by their places.
    static uint64_t key_of_place(size_t place) { return (uint64_t{1} << 32) + place; }
    uint64_t key_of(size_t place) const {
        const auto &change = set_.changes[place];
        return change.what == SCHED_SET_CREATE ? key_of_place(place) : change.id;
    }

    tbs_status_t look_at(const StagedChange &change, uint32_t &err_mask) {
        wanted_.emplace_back();
        if (change.what != SCHED_SET_CREATE && jobs_.find(change.id) == nullptr)
            return TBS_ST_NOT_FOUND;
        if (change.what != SCHED_SET_CREATE && !touched_.insert(change.id).second)
            return TBS_ST_INVALID_ARG;
        if (change.what != SCHED_SET_DELETE)
            return look_at_job(change, err_mask);
        deleted_.insert(change.id);
        return TBS_ST_OK;
    }

    tbs_status_t look_at_job(const StagedChange &change, uint32_t &err_mask) {
        JobBody body(change.body);
        if (!body.is_whole())
            return TBS_ST_INVALID_ARG;
        auto &rw = body.get().rw;
        const tbs_status_t status = sched_utl_validate_job_rw_properties(nullptr, change.id, &rw, 0, 1, &err_mask);
        if (status != TBS_ST_OK)
            return status;
        wanted_.back().name = rw.name;
        const bool is_sequential = rw.schedule.kind == SCHED_KIND_SEQUENTIAL;
        if (is_sequential)
            wanted_.back().follows =
                change.follows != 0 ? key_of_place(change.follows - 1) : rw.schedule.u.sequential.follows_job;
        if (is_sequential ? wanted_.back().follows != 0 : change.follows == 0)
            return TBS_ST_OK;
        err_mask = SCHED_ERR_FOLLOWS;
        return TBS_ST_INVALID_ARG;
    }

    void take_what_stays() {
        for (const auto &[id, job] : jobs_.all())
            if (!touched_.contains(id)) {
                names_.insert(job.name);
                if (job.schedule.kind == SCHED_KIND_SEQUENTIAL)
                    followed_[id] = job.schedule.u.sequential.follows_job;
            }
        for (size_t i = 0; i < wanted_.size(); ++i)
            if (wanted_[i].follows != 0)
                followed_[key_of(i)] = wanted_[i].follows;
    }

    bool is_there(uint64_t key) const {
        if (key < key_of_place(0)) {
            const auto id = static_cast<sched_job_id_t>(key);
            return jobs_.find(id) != nullptr && !deleted_.contains(id);
        }
        const uint64_t place = key - key_of_place(0);
        return place < set_.changes.size() && set_.changes[place].what == SCHED_SET_CREATE;
    }

    // What it follows is there, and the way from there does not come back. Each job is gone past once.
    bool follows_well(size_t place) {
        if (wanted_[place].follows == 0)
            return true;
        if (!is_there(wanted_[place].follows))
            return false;
        const uint64_t way = place + 1;
        for (uint64_t key = key_of(place);;) {
            const auto [seen, is_new] = seen_.try_emplace(key, way);
            if (!is_new)
                return seen->second != way;
            const auto next = followed_.find(key);
            if (next == followed_.end())
                return true;
            key = next->second;
        }
    }

    const StagedSet &set_;
    Jobs &jobs_;
    std::vector<Wanted> wanted_;
    std::unordered_set<sched_job_id_t> touched_;
    std::unordered_set<sched_job_id_t> deleted_;
    std::unordered_set<std::string> names_;
    std::unordered_map<uint64_t, uint64_t> followed_;
    std::unordered_map<uint64_t, uint64_t> seen_; // and on whose way
};

} // namespace

void StagedSets::forget_old(int64_t now) {
    std::erase_if(sets_, [now](const auto &each) { return now - each.second.begun > seconds_max; });
}

uint64_t StagedSets::begin(const StagedSet &set, int64_t now) {
    forget_old(now);
    const auto of_host =
        std::count_if(sets_.begin(), sets_.end(), [&](const auto &each) { return each.second.from == set.from; });
    if (sets_.size() >= sets_max || static_cast<size_t>(of_host) >= sets_of_host_max)
        return 0;
    const uint64_t number = unguessable();
    if (number != 0)
        sets_[number] = set;
    return number;
}

StagedSet *StagedSets::find(uint64_t number, const StagedSet &whose, int64_t now) {
    forget_old(now);
    const auto found = sets_.find(number);
    return found != sets_.end() && is_whose(found->second, whose) ? &found->second : nullptr;
}
// The state is reckoned anew only where something has changed.
uint64_t SchedulerProcedures::state_of_jobs() {
    const uint64_t version = scheduler_.jobs().version();
    if (state_.first == version)
        return state_.second;
    JobsState state;
    for (const auto &[id, job] : scheduler_.jobs().all())
        state.add(id, job.row.body);
    state_ = {version, state.value()};
    return state_.second;
}

void SchedulerProcedures::set_get_jobs(const sched_set_get_jobs_request_t &request, const Caller &caller,
                                       To<sched_set_get_jobs_reply_t> answer) {
    const auto &jobs = scheduler_.jobs().all();
    std::vector<std::unique_ptr<JobBody>> bodies;
    std::vector<sched_job_properties_t> properties;
    size_t bytes = 0;
    auto each = jobs.upper_bound(request.after);
    for (; each != jobs.end(); ++each) {
        bytes += bytes_of(each->second);
        if (bytes > list_bytes_max && !properties.empty())
            break;
        bodies.push_back(std::make_unique<JobBody>(each->second.row.body));
        properties.push_back(lent(each->second, *bodies.back()));
    }
    const bool has_more = each != jobs.end();
    if (!has_more)
        has_seen(caller, 0, scheduler_.jobs().version());
    answer(TBS_ST_OK,
           {TBS_ST_OK, state_of_jobs(), has_more ? 1 : 0, static_cast<uint32_t>(properties.size()), properties.data()});
}

// A piece is added to what came before it.
tbs_status_t SchedulerProcedures::take_piece(const sched_set_apply_request_t &request, const Caller &caller,
                                             StagedSet &piece, StagedSet *&set) {
    const int64_t now = time(nullptr);
    piece.from = sender_of(caller).host;
    piece.uid = caller.known ? std::optional(caller.known->uid) : std::nullopt;
    piece.begun = now;
    piece.state = request.state;
    set = request.set == 0 ? &piece : staged_.find(request.set, piece, now);
    if (set == nullptr)
        return TBS_ST_NOT_FOUND;
    if (set->changes.size() != request.before || set->state != request.state)
        return TBS_ST_INVALID_ARG;
    for (uint32_t i = 0; i < request.count; ++i) {
        auto &change = request.changes[i];
        StagedChange staged = {change.what, change.job_id, change.follows, ""};
        sched_job_utc_rw_props_t props = {{}, change.rw};
        if (const Job *job = scheduler_.jobs().find(change.job_id); job != nullptr && change.what == SCHED_SET_CHANGE)
            props.utc = JobBody(job->row.body).get().utc;
        if (change.what != SCHED_SET_DELETE)
            staged.body = xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
        set->bytes += sizeof staged + staged.body.size();
        set->changes.push_back(std::move(staged));
    }
    const bool fits = set->changes.size() <= jobs_max && set->bytes <= StagedSets::bytes_max;
    return fits ? TBS_ST_OK : TBS_ST_NO_STORAGE;
}

void SchedulerProcedures::set_apply(const sched_set_apply_request_t &request, const Caller &caller,
                                    To<sched_set_apply_reply_t> answer) {
    StagedSet piece;
    StagedSet *set = nullptr;
    uint64_t number = request.set;
    auto status = take_piece(request, caller, piece, set);
    if (status == TBS_ST_OK && request.is_last)
        apply(*set, caller, answer);
    else if (status == TBS_ST_OK && number == 0)
        number = staged_.begin(piece, piece.begun);
    const bool is_kept = status == TBS_ST_OK && !request.is_last;
    if (!is_kept)
        staged_.forget(number);
    if (status == TBS_ST_OK && request.is_last)
        return;
    if (status == TBS_ST_OK && number == 0)
        status = TBS_ST_TRY_AGAIN;
    answer(status, {status, number, {}, 0});
}

tbs_status_t SchedulerProcedures::judge(const StagedSet &set, const Caller &caller, sched_set_fault_t &fault) {
    if (set.state != state_of_jobs())
        return TBS_ST_STALE_ID;
    size_t created = 0;
    for (size_t i = 0; i < set.changes.size(); ++i) {
        const auto &change = set.changes[i];
        const Job *job = scheduler_.jobs().find(change.id);
        created += change.what == SCHED_SET_CREATE ? 1 : 0;
        const bool may_do =
            change.what == SCHED_SET_CREATE ? Scheduler::may_run(set.uid) : job == nullptr || is_owner(*job, caller);
        if (!may_do) {
            fault.place = static_cast<uint32_t>(i + 1);
            return TBS_ST_NO_ACCESS;
        }
    }
    if (scheduler_.jobs().all().size() + created > jobs_max)
        return TBS_ST_NO_STORAGE;
    Outlook outlook(set, scheduler_.jobs());
    const auto status = outlook.look(fault);
    return status == TBS_ST_OK ? outlook.look_together(fault) : status;
}

SchedulerProcedures::Touched SchedulerProcedures::touched_by(const JobSet &set) {
    Touched touched;
    for (const auto *list : {&set.added, &set.changed})
        for (const auto &row : *list)
            touched.names.emplace_back(name_in(row.body), row.id);
    for (const auto &row : set.changed) {
        touched.changed.push_back(row.id);
        touched.is_link = touched.is_link || is_sequential(row.body);
    }
    return touched;
}

// The numbers of new jobs are known before they are written, and so are those of what follows them.
void SchedulerProcedures::apply(const StagedSet &set, const Caller &caller, To<sched_set_apply_reply_t> answer) {
    sched_set_fault_t fault = {};
    const auto judged = judge(set, caller, fault);
    if (judged != TBS_ST_OK)
        return answer(judged, {judged, 0, fault, 0});
    const auto rows = rows_of(set, scheduler_.jobs());
    const auto is_done = std::make_shared<bool>(false);
    const auto touched = touched_by(*rows);
    const bool is_taken =
        may_touch(touched) && write(
                                  caller, touched,
                                  [rows, is_done, now = time(nullptr), doer = doer_of(caller)](JobStore &store) {
                                      for (auto *list : {&rows->added, &rows->changed})
                                          for (auto &row : *list)
                                              row.changed = deed_of(doer, row.changed_start);
                                      for (auto &row : rows->added)
                                          row.created = row.changed;
                                      for (auto &note : rows->notes)
                                          note.deed = deed_of(doer, now);
                                      *is_done = store.apply(*rows);
                                  },
                                  [this, rows, is_done, answer](tbs_status_t done) {
                                      const tbs_status_t status =
                                          done != TBS_ST_OK || *is_done ? done : tbs_status_t{TBS_ST_STALE_ID};
                                      const sched_job_id_t first = rows->added.empty() ? 0 : rows->added.front().id;
                                      if (status == TBS_ST_OK)
                                          has_applied(*rows);
                                      answer(status, {status, 0, {}, status == TBS_ST_OK ? first : 0});
                                  });
    if (!is_taken)
        answer(TBS_ST_TRY_AGAIN, {});
}

void SchedulerProcedures::has_applied(const JobSet &set) {
    for (const auto id : set.removed)
        if (const Job *job = scheduler_.jobs().find(id)) {
            scheduler_.take_up(*job, event_deleted, "was deleted");
            scheduler_.remove(*job);
        }
    for (const auto &row : set.changed)
        if (scheduler_.jobs().change(row))
            scheduler_.take_up(*scheduler_.jobs().find(row.id), event_modified, "was changed");
    for (const auto &row : set.added)
        scheduler_.jobs().add(row);
    scheduler_.schedule();
}

} // namespace velia::server
