// Jobs that several daemons have together. Each asks every second what is new, and what it learns becomes what it has
// in memory, as if it had done that itself. Whoever is first to write a start down makes it, so that a start that waits
// here is nobody's yet. An answer of the database is taken in the order in which the thread asked: what this daemon did
// before is known when news of it come.
#include <server/scheduler/scheduler.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <unistd.h>
#include <utility>

#include <server/registry/place.h>
#include <server/registry/store.h>
#include <server/scheduler/changes.h>
#include <server/scheduler/messages.h>
#include <server/scheduler/moved_jobs.h>
#include <server/scheduler/run_file.h>

namespace velia::server {

namespace {

constexpr uint64_t follow_ms = 1000;
constexpr Worker::Shape life_shape = {{1, 1, 1}, 1, 0};

// They would be forgotten: nobody looks there any more.
void tell_of_jobs_left_in(const std::string &file) {
    size_t count = 0;
    try {
        count = access(file.c_str(), F_OK) == 0 ? open_job_store(file)->read().jobs.size() : 0;
    } catch (const StoreError &) {
    }
    if (count != 0)
        imsg_print(IMSG_WARNING, "%zu jobs in \"%s\" are not served: rvzd_server --move-jobs takes them along\n",
                   IMSG_FORMAT, count, file.c_str());
}

} // namespace

void Scheduler::open_shared(const std::string &conninfo, const std::string &host) {
    prepare();
    tell_of_jobs_left_in(jobs_file());
    conninfo_ = conninfo;
    host_ = host;
    jobs_.set_host(host);
    life_worker_ = std::make_unique<Worker>(loop_, life_shape);
    follow();
    worker_.wait(); // where the database is there, jobs are served as soon as anything is
}

void Scheduler::follow() {
    if (is_over_)
        return;
    if (is_following_) {
        is_to_follow_ = true;
        return;
    }
    is_following_ = true;
    life_timer_.start(follow_ms);
    const auto followed = std::make_shared<Followed>();
    followed->doubts = doubts_;
    worker_.submit_first({[this, followed, since = followed_, take_over_s = settings_.take_over_s,
                           acl = access_.bytes()] { ask_what_is_new(*followed, since, take_over_s, acl); },
                          [this, followed] {
                              is_following_ = false;
                              life_timer_.stop();
                              if (is_over_)
                                  return;
                              follow_timer_.start(std::exchange(is_to_follow_, false) ? 1 : follow_ms);
                              take(*followed);
                          }});
}

// Whoever asks what is new tells it, too; but the thread may be in the middle of a long change, or wait for a lock, a
// standby, an answer. What runs here would be taken for lost.
void Scheduler::tell_life() {
    if (!is_following_ || is_over_ || !life_ || std::exchange(is_telling_life_, true))
        return;
    life_worker_->submit_first({[life = life_] {
                                    try {
                                        life();
                                    } catch (const std::exception &) { // there is no way to the database
                                    }
                                },
                                [this] {
                                    is_telling_life_ = false;
                                    if (!is_over_)
                                        life_timer_.start(follow_ms);
                                }});
}

// In the thread. That the database is away is told by whoever connects to it.
void Scheduler::ask_what_is_new(Followed &followed, int64_t since, uint32_t take_over_s, const std::string &acl) {
    try {
        if (shared_ == nullptr) {
            auto store = open_postgres_job_store(conninfo_, host_);
            shared_ = store.get();
            store_ = std::move(store);
        }
        followed.news = shared_->follow(since, take_over_s);
        const std::string &set = followed.news.contents.acl;
        if (!set.empty() && set != acl)
            followed.access.emplace().take(set);
        followed.is_there = true;
    } catch (const StoreAway &) {
    } catch (const std::exception &error) {
        followed.fault = error.what();
    }
}

void Scheduler::tell_fault(const std::string &fault) {
    if (fault.empty() || fault == told_fault_)
        return;
    told_fault_ = fault;
    print_scheduler(IMSG_ERROR, MSG_JOBS_OPEN_FAILED, registry_place().c_str());
    imsg_print(IMSG_CONTINUATION, "%s\n", IMSG_FORMAT, fault.c_str());
}

void Scheduler::take(const Followed &followed) {
    is_away_ = !followed.is_there;
    tell_fault(followed.fault);
    if (is_away_)
        return;
    told_fault_.clear();
    followed_ = -1; // should it not all be taken
    if (followed.access)
        access_ = *followed.access;
    const bool is_first = !std::exchange(is_open_, true);
    if (is_first) {
        life_ = shared_->life();
        writer_.open(*store_, directory_);
        is_of_this_boot_ = followed.news.contents.boot == boot_;
    }
    take_news(followed.news);
    if (is_first)
        take_first(followed.news);
    if (followed.doubts == doubts_)
        followed_ = followed.news.number;
    look();
    writer_.write();
}

// What there is to do once, behind all that is adopted.
void Scheduler::take_first(const JobNews &news) {
    for (const auto &run : news.contents.runs) // that somebody gave up, and that goes on or has told its end
        if (Job *job = jobs_.find(run.job); job != nullptr && run.ended != 0 && run.host == host_ && !job->is_ours &&
                                            read_run_file(run_paths(directory_, run).notes))
            take_own_run(*job, run);
    clear_away();
    if (!std::exchange(is_of_this_boot_, true))
        worker_.submit_first({[this] {
                                  try {
                                      store_->set_boot(boot_);
                                  } catch (const StoreError &) { // the next daemon takes it for another, and is careful
                                  }
                              },
                              [] {}});
    make_predefined();
}

void Scheduler::take_news(const JobNews &news) {
    if (news.has_contents) {
        take_gone(news);
        std::map<sched_job_id_t, std::vector<RunRow>> runs;
        for (const auto &run : news.contents.runs)
            runs[run.job].push_back(run);
        for (const auto &row : news.contents.jobs)
            take_job(row, runs[row.id]);
        dropped_ = {news.contents.dropped.begin(), news.contents.dropped.end()};
        start_followers(news.contents.owed);
    }
    for (const auto &name : made_by_others_)
        names_on_the_way_.remove(name);
    if (!std::exchange(made_by_others_, {}).empty())
        make_predefined();
    for (const auto &run : news.lost)
        lose(run);
    tell_hosts_away(news.hosts_away);
}

void Scheduler::take_gone(const JobNews &news) {
    std::vector<sched_job_id_t> gone = news.gone;
    if (news.is_all) {
        std::set<sched_job_id_t> there;
        for (const auto &row : news.contents.jobs)
            there.insert(row.id);
        for (const auto &[id, job] : jobs_.all())
            if (!there.contains(id))
                gone.push_back(id);
    }
    for (const auto id : gone)
        if (const Job *job = jobs_.find(id))
            remove(*job);
}

// A start that waits here is looked at anew, since another daemon may have made it.
void Scheduler::take_job(const JobRow &row, const std::vector<RunRow> &runs) {
    forget_waiting(row.id);
    if (!jobs_.take(row)) {
        print_scheduler(IMSG_ERROR, MSG_JOBS_NOT_FUNCTIONAL);
        return;
    }
    Job &job = *jobs_.find(row.id);
    const RunRow *own = nullptr;
    job.elsewhere = {};
    for (const auto &run : runs) {
        if (run.ended != 0)
            take_told_end(job, run);
        else if (run.host == host_)
            own = &run;
        else
            job.elsewhere = run;
    }
    if (own != nullptr && !job.is_ours)
        take_own_run(job, *own);
    else if (own != nullptr && own->is_to_end)
        end_own_run(row.id, own->started);
    job.has_unknown_run = own != nullptr && job.is_ours && !kept_.contains(row.id);
    if (!job.is_ours)
        settle(job);
}

// Whoever was silent for long may have been given up, and tell the end nevertheless.
void Scheduler::take_told_end(Job &job, const RunRow &run) {
    const auto known =
        std::find_if(job.runs.begin(), job.runs.end(), [&](const RunRow &each) { return each.started == run.started; });
    const bool was_given_up = known != job.runs.end() && known->exit_status == status_unknown;
    if (was_given_up && run.exit_status != status_unknown && run.host != host_)
        imsg_print(IMSG_PLAIN, "The run of job %u \"%s\" whose end was not known has ended at host %s: status %u\n",
                   IMSG_FORMAT, job.row.id, job.name.c_str(), run.host.c_str(), run.exit_status);
    if (const auto kept = kept_.find(run.job); kept != kept_.end() && kept->second.run.started == run.started)
        imsg_print(IMSG_WARNING,
                   "Others have given up the run of job %u \"%s\", since they heard nothing of this daemon. It goes "
                   "on, and its end will be told\n",
                   IMSG_FORMAT, job.row.id, job.name.c_str());
    put_run(job, run);
}

// Its keeper may not be known yet.
void Scheduler::end_own_run(sched_job_id_t id, int64_t started) {
    if (is_terminated(id, started))
        return;
    for (auto &unended : unended_)
        if (unended.run.job == id && unended.run.started == started)
            unended.run.is_to_end = true;
}

// Of which this daemon knows nothing: of a former one of this host, or its own, of which it was not told whether it was
// written down.
void Scheduler::take_own_run(Job &job, RunRow run) {
    run.ended = 0; // whatever others take it for
    switch (standing_of(run)) {
    case Standing::lives:
        return keep_watch_of(job, run);
    case Standing::never_began:
        if (!run.is_to_end)
            return forget_beginning(run);
        run.ended = time(nullptr);
        run.exit_status = status_unknown;
        run.messages = "The run was ended before it began.\n";
        [[fallthrough]];
    default:
        job.phase = Job::Phase::running;
        job.run = run;
        job.is_ours = true;
        take_end(run, false);
    }
}

void Scheduler::forget_beginning(const RunRow &run) {
    const Job &job = *jobs_.find(run.job);
    const bool is_owed = job.schedule.kind == SCHED_KIND_SEQUENTIAL;
    worker_.submit_first({[this, run, is_owed, considered = run.due != 0 ? run.due - 1 : job.row.considered] {
                              try {
                                  store_->forget(run, considered, is_owed);
                                  unlink(run_paths(directory_, run).notes.c_str());
                              } catch (const StoreError &) { // it is in the news once more
                              }
                          },
                          [this] {
                              ask_for_all();
                              follow();
                          }});
}

// One of those that see it tells its end; that of all is told to them.
void Scheduler::lose(const RunRow &run) {
    const Job *job = jobs_.find(run.job);
    if (job == nullptr || !losing_.insert({run.job, run.started}).second)
        return;
    RunTurn turn;
    turn.step.what = RunStep::What::lose;
    turn.step.run = run;
    turn.step.run.ended = time(nullptr);
    turn.step.run.exit_status = status_unknown;
    turn.step.run.messages = "The run's end is not known: the daemon of " + run.host + " is away.\n";
    turn.step.owed = jobs_.followers_of(run.job);
    writer_.add(std::move(turn));
}

void Scheduler::has_been_lost(const RunTurn &turn) {
    const RunRow &run = turn.step.run;
    losing_.erase({run.job, run.started});
    if (Job *job = jobs_.find(run.job); job != nullptr && turn.step.is_done)
        tell_end(*job, run);
    follow();
}

// Once for each job, until there is a daemon.
void Scheduler::tell_hosts_away(const std::vector<std::string> &hosts) {
    if (hosts.empty())
        return told_waiting_.clear();
    const std::set<std::string> away(hosts.begin(), hosts.end());
    std::set<sched_job_id_t> waiting;
    const int64_t now = time(nullptr);
    for (const auto &[id, job] : jobs_.all()) {
        if (!away.contains(job.row.host) || job.next_run <= schedule::next_run_unknown || job.next_run > now)
            continue;
        waiting.insert(id);
        if (!told_waiting_.contains(id))
            imsg_print(IMSG_WARNING, "The job %u \"%s\" waits for a daemon of host %s, which has to run it\n",
                       IMSG_FORMAT, id, job.name.c_str(), job.row.host.c_str());
    }
    told_waiting_ = std::move(waiting);
}

bool Scheduler::set_host(const Sender &sender, const Job &job, const std::string &host, std::function<Deed()> deed,
                         Done done) {
    const auto is_there = std::make_shared<bool>(false);
    const auto id = job.row.id;
    return ask(
        sender,
        [this, id, host, is_there, deed = std::move(deed), name = noted_name(job.name)](JobStore & /*store*/) {
            *is_there = shared_->set_host(id, host, {0, deed(), "changed", id, name, "host"});
        },
        [this, id, host, is_there, done = std::move(done)](tbs_status_t status) {
            if (Job *changed = jobs_.find(id); changed != nullptr && status == TBS_ST_OK && *is_there) {
                JobRow row = changed->row;
                row.host = host;
                jobs_.change(row);
                schedule();
            }
            done(status == TBS_ST_OK && !*is_there ? tbs_status_t{TBS_ST_NOT_FOUND} : status);
        });
}

// Also where something is being asked now, which may have been told from before.
void Scheduler::ask_for_all() {
    followed_ = -1;
    ++doubts_;
}

// Whatever is known may be wrong.
void Scheduler::is_in_doubt(const std::string &fault) {
    is_away_ = true;
    ask_for_all();
    tell_fault(fault);
}

// Another daemon was quicker, or a run of before goes on somewhere, or it could not be written down.
void Scheduler::has_not_begun(const RunTurn &turn) {
    const RunRow &run = turn.step.run;
    const auto refusal = turn.step.refusal;
    if (Job *job = jobs_.find(run.job)) {
        if (refusal == RunStep::Refusal::running && run.due != 0)
            tell_passed(*job, Jobs::Fate::still_running);
        settle(*job);
        if (std::exchange(job->has_unknown_run, false)) // of this daemon, told while it was begun once more
            ask_for_all();
        if (refusal != RunStep::Refusal::running) // unless another daemon made it, it is due still
            jobs_.consider(*job, job->considered_by_all);
        jobs_.touch(*job);
    }
    if (refusal == RunStep::Refusal::none)
        is_in_doubt(turn.fault);
    give_back_slot();
    follow();
    if (turn.begun)
        turn.begun(refusal == RunStep::Refusal::running ? TBS_ST_ALREADY_EXISTS : TBS_ST_TRY_AGAIN, 0);
}

void Scheduler::has_passed(const RunTurn &turn) {
    if (!is_shared())
        return;
    if (!turn.fault.empty())
        return is_in_doubt(turn.fault);
    const bool is_running = turn.step.what == RunStep::What::pass_over_running;
    if (is_running && !turn.step.is_done)
        return follow(); // it has ended, and another one may be made
    if (Job *job = jobs_.find(turn.step.run.job); job != nullptr && turn.step.is_done)
        tell_passed(*job, is_running ? Jobs::Fate::still_running : Jobs::Fate::too_old);
}

} // namespace velia::server
