// A run is written down before its process is made, and its process is a keeper's, which tells of the end in a file: so
// whenever the daemon goes, nothing is started twice and no end is lost.
#include <server/scheduler/scheduler.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <server/broker/service_process.h>
#include <server/registry/store.h>
#include <server/scheduler/changes.h>
#include <server/scheduler/keeper.h>
#include <server/scheduler/messages.h>
#include <server/scheduler/moved_jobs.h>
#include <server/scheduler/run_file.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr Worker::Shape store_shape = {{64, 1024, 4096}, 1, 0};
constexpr uint64_t retry_ms = 1000;
constexpr uint64_t bytes_of_mib = 1 << 20;
constexpr size_t notifiers_max = 32;

enum Event : sched_event_mask_t {
    EVENT_BEGIN = 0x2,
    EVENT_END_OK = 0x4,
    EVENT_END_OK_WITH_MESSAGES = 0x8,
    EVENT_END_FAIL = 0x10,
};

std::string private_path(const char *name) {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), name) == TBS_ST_OK ? path.data() : "";
}

std::string id_text(const Job &job) {
    return std::to_string(job.row.id);
}

RunOrder order_of(const Job &job, const Task &task, uint32_t output_mib) {
    RunOrder order;
    if (geteuid() == 0)
        order.user = job.row.owner;
    JobBody body(job.row.body);
    const auto &rw = body.get().rw;
    order.path = task.path;
    order.seconds_max = rw.run_control.max_run_time;
    order.output_bytes_max = output_mib * bytes_of_mib;
    for (uint32_t i = 0; i < rw.arg_count; ++i)
        order.arguments.emplace_back(rw.args[i]);
    return order;
}

// Another one each time that the system starts.
std::string boot_id() {
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

// All of it that the file says, so that two of them differ if the file does.
std::string definition_of(const DefinedJob &defined) {
    return defined.body + '\0' + defined.follows;
}

// Of a job that goes with its last run.
void take_removal(RunStep &step, const Job &job) {
    step.removal = {
        0, {"delete when completed", "this host", time(nullptr)}, "deleted", job.row.id, noted_name(job.name), ""};
    step.mark = mark_of(job.row.body);
    step.changed_start = job.row.changed_start;
}

} // namespace

Scheduler::Scheduler(uv_loop_t *loop)
    : loop_(loop), due_timer_(loop, [this] { look(); }), retry_timer_(loop, [this] { retry(); }),
      follow_timer_(loop, [this] { follow(); }), life_timer_(loop, [this] { tell_life(); }),
      writer_(worker_, [this](const RunTurn &turn) { has_been_written(turn); }), worker_(loop, store_shape) {}

void Scheduler::configure(const SchedulerSettings &settings) {
    settings_ = settings;
    jobs_.set_catch_up(settings.catch_up_s);
    make_predefined();
    start_waiting();
}

const Task *Scheduler::task(sched_task_id_t id) const {
    for (const auto &task : settings_.tasks)
        if (task.id == id)
            return &task;
    return nullptr;
}

std::string Scheduler::output_path(const RunRow &run) const {
    return run_paths(directory_, run).output;
}

bool Scheduler::may_run(const std::optional<uint32_t> &owner) {
    return geteuid() != 0 || owner.has_value();
}

bool Scheduler::ask(const Sender &sender, Work work, Done done) {
    const auto status = std::make_shared<tbs_status_t>(TBS_ST_OK);
    const auto words = std::make_shared<std::string>();
    return worker_.submit(sender, {[this, work = std::move(work), status, words] {
                                       try {
                                           work(*store_);
                                       } catch (const StoreBusy &) {
                                           *status = TBS_ST_TRY_AGAIN;
                                       } catch (const std::exception &error) {
                                           *status = TBS_ST_ERROR;
                                           *words = error.what();
                                       }
                                   },
                                   [done = std::move(done), status, words] {
                                       if (!words->empty())
                                           imsg_print(IMSG_ERROR, "Scheduler: %s\n", IMSG_FORMAT, words->c_str());
                                       done(*status);
                                   }});
}

void Scheduler::prepare() {
    const char *zone_name = getenv("TZ");
    if (auto zone = schedule::read_zone(zone_name != nullptr ? zone_name : ""))
        jobs_.set_zone(std::move(*zone));
    else
        imsg_print(IMSG_WARNING, "The scheduler's time zone cannot be read: it is UTC\n", IMSG_FORMAT);
    directory_ = private_path("runs");
    mkdir(directory_.c_str(), S_IRWXU);
    boot_ = boot_id();
}

void Scheduler::stop() {
    is_open_ = false;
    is_over_ = true;
    follow_timer_.stop();
    life_timer_.stop();
}

void Scheduler::open() {
    prepare();
    const std::string file_name = jobs_file();
    JobContents contents;
    try {
        store_ = open_job_store(file_name);
        contents = store_->read();
    } catch (const StoreError &error) {
        print_scheduler(IMSG_ERROR, MSG_JOBS_OPEN_FAILED, file_name.c_str());
        imsg_print(IMSG_CONTINUATION, "%s\n", IMSG_FORMAT, error.what());
        print_scheduler(IMSG_ERROR, MSG_JOBS_NOT_FUNCTIONAL);
        return;
    }
    writer_.open(*store_, directory_);
    is_open_ = true;
    dropped_ = {contents.dropped.begin(), contents.dropped.end()};
    if (jobs_.load(contents) != 0)
        print_scheduler(IMSG_ERROR, MSG_JOBS_NOT_FUNCTIONAL);
    if (!contents.acl.empty())
        access_.take(contents.acl);
    is_of_this_boot_ = contents.boot == boot_;
    for (const auto &run : contents.runs)
        if (run.ended == 0 && jobs_.find(run.job) != nullptr)
            adopt(run, contents.owed);
    if (!is_of_this_boot_)
        store_->set_boot(boot_);
    clear_away();
    start_followers(contents.owed);
    make_predefined();
    look();
}

// Of a run of before that has not ended, as far as is known. Without a word of a process there was none, and its start
// may be made again; unless the host was down since, when that word, which waits for no disk, may have been lost.
Scheduler::Standing Scheduler::standing_of(const RunRow &run) const {
    const auto paths = run_paths(directory_, run);
    if (is_kept(paths.notes))
        return Standing::lives;
    const auto notes = read_run_file(paths.notes);
    const bool is_without_word = !notes || (notes->process == 0 && !notes->ended);
    return is_of_this_boot_ && is_without_word ? Standing::never_began : Standing::has_ended;
}

void Scheduler::adopt(const RunRow &run, std::vector<sched_job_id_t> &owed) {
    Job &job = *jobs_.find(run.job);
    const auto paths = run_paths(directory_, run);
    const Standing standing = standing_of(run);
    if (standing == Standing::lives)
        return keep_watch_of(job, run);
    if (standing == Standing::never_began) {
        const int64_t considered = run.due != 0 ? run.due - 1 : job.row.considered;
        const bool is_owed = job.schedule.kind == SCHED_KIND_SEQUENTIAL;
        store_->forget(run, considered, is_owed);
        jobs_.consider(job, considered);
        if (is_owed)
            owed.push_back(run.job);
    } else {
        const auto followers = jobs_.followers_of(run.job);
        const RunRow ended = ended_run(run, read_run_file(paths.notes));
        store_->end(ended, followers, std::nullopt);
        job.runs.push_back(ended);
        owed.insert(owed.end(), followers.begin(), followers.end());
        tell_end(job, ended);
    }
    unlink(paths.notes.c_str());
}

// Its keeper is known from the run's file, once that has told it.
void Scheduler::keep_watch_of(Job &job, const RunRow &run) {
    job.phase = Job::Phase::running;
    job.run = run;
    job.is_ours = true;
    ++running_;
    unended_.push_back({run, false, true});
    retry_timer_.start(1);
}

// A definition that has gone from the file, or has become another, is as good as new when it comes back.
void Scheduler::forget_dropped() {
    if (is_shared()) // it may stand in another daemon's file
        return;
    std::vector<std::string> forgotten;
    std::set<std::string> defined;
    for (const auto &each : settings_.schedule)
        defined.insert(definition_of(each));
    for (const auto &definition : dropped_)
        if (!defined.contains(definition))
            forgotten.push_back(definition);
    for (const auto &definition : forgotten)
        dropped_.erase(definition);
    if (!forgotten.empty())
        worker_.submit_first({[this, forgotten] {
                                  try {
                                      store_->forget_dropped(forgotten);
                                  } catch (const StoreError &) { // the next daemon does it
                                  }
                              },
                              [] {}});
}

// What follows another is made behind it, when that has its number.
void Scheduler::make_predefined() {
    if (!is_open_)
        return;
    forget_dropped();
    const auto was_dropped = [this](const DefinedJob &defined) { return dropped_.contains(definition_of(defined)); };
    for (const auto &defined : settings_.schedule) {
        if (was_dropped(defined))
            continue;
        if (const Job *job = jobs_.find(defined.name); job != nullptr) {
            if (!job->row.is_predefined)
                imsg_print(IMSG_WARNING, "The job \"%s\" of the default schedule is not made: there is another one\n",
                           IMSG_FORMAT, defined.name.c_str());
        } else if (const auto row = predefined_row(defined); row && !names_on_the_way_.is_of_another(defined.name, 0)) {
            names_on_the_way_.add(defined.name, 0);
            make(defined, *row);
        }
    }
    for (const auto &defined : settings_.schedule)
        if (names_on_the_way_.empty() && jobs_.find(defined.name) == nullptr && !was_dropped(defined))
            imsg_print(IMSG_WARNING, "The job \"%s\" of the default schedule is not made: there is no job \"%s\"\n",
                       IMSG_FORMAT, defined.name.c_str(), defined.follows.c_str());
}

std::optional<JobRow> Scheduler::predefined_row(const DefinedJob &defined) {
    JobBody body(defined.body);
    auto &props = body.get();
    if (!defined.follows.empty()) {
        const Job *followed = jobs_.find(defined.follows);
        if (followed == nullptr)
            return std::nullopt;
        props.rw.schedule.u.sequential.follows_job = followed->row.id;
    }
    JobRow row;
    row.body = xdr_bytes(xdr_sched_job_utc_rw_props_t, props);
    row.owner = geteuid();
    row.is_predefined = true;
    row.definition = definition_of(defined);
    row.changed_start = time(nullptr);
    row.considered = row.changed_start - 1;
    row.created = row.changed = {"default schedule", "this host", row.changed_start};
    return row;
}

void Scheduler::make(const DefinedJob &defined, const JobRow &row) {
    const auto made = std::make_shared<JobRow>(row);
    const auto words = std::make_shared<std::string>();
    worker_.submit_first({[this, made, words, name = noted_name(defined.name)] {
                              try {
                                  made->id = store_->add(*made, {0, made->created, "created", 0, name, ""});
                              } catch (const StoreBusy &) {
                              } catch (const std::exception &error) {
                                  *words = error.what();
                              }
                          },
                          [this, made, words, name = defined.name] {
                              if (made->id == 0 && words->empty() && is_shared()) {
                                  made_by_others_.insert(name); // until it is known what they made
                                  return follow();
                              }
                              names_on_the_way_.remove(name);
                              if (!words->empty())
                                  return imsg_print(IMSG_ERROR, "The job \"%s\" cannot be made: %s\n", IMSG_FORMAT,
                                                    name.c_str(), words->c_str());
                              jobs_.add(*made);
                              schedule();
                              make_predefined(); // those that follow it
                          }});
}

void Scheduler::schedule() {
    due_timer_.set(jobs_.next_due());
}

void Scheduler::take_up(const Job &job, sched_event_mask_t event, const std::string &what) {
    notify(job, event, what);
    schedule();
}

void Scheduler::look() {
    if (!is_open_ || is_away_)
        return;
    for (const auto &due : jobs_.take_due(time(nullptr))) {
        Job &job = *jobs_.find(due.job);
        const bool is_unmade = is_shared() && job.phase == Job::Phase::waiting; // the one of before, by anybody
        if (due.fate == Jobs::Fate::to_start || (due.fate == Jobs::Fate::still_running && is_unmade))
            wait_for_slot(job, due.start, false);
        else
            pass_over(due);
    }
    start_waiting();
    schedule();
}

// The younger start counts.
void Scheduler::wait_for_slot(Job &job, int64_t due, bool is_owed) {
    forget_waiting(job.row.id);
    job.phase = Job::Phase::waiting;
    waiting_.push_back({job.row.id, due, is_owed, {}});
}

// The first of each run; others are counted, so that one that runs on is no flood.
void Scheduler::tell_passed(Job &job, Jobs::Fate fate) {
    const int64_t run = job.run.started; // 0: as long as it is being begun
    if (fate == Jobs::Fate::still_running && run != 0 && run == job.passes_told_of) {
        ++job.untold_passes;
        return;
    }
    if (fate == Jobs::Fate::still_running) {
        tell_untold_passes(job);
        job.passes_told_of = run;
    }
    print_scheduler(IMSG_WARNING, fate == Jobs::Fate::still_running ? MSG_JOB_STILL_RUNNING : MSG_JOB_NOT_RUN,
                    id_text(job).c_str(), job.name.c_str());
}

void Scheduler::tell_untold_passes(Job &job) {
    if (const int count = std::exchange(job.untold_passes, 0); count > 0)
        print_scheduler(IMSG_WARNING, MSG_JOB_STILL_RUNNING_SUPPRESSED, count, static_cast<int>(job.row.id));
}

// Of daemons that have the job together the one that is first tells it.
void Scheduler::pass_over(const Jobs::Due &due) {
    Job &job = *jobs_.find(due.job);
    if (!is_shared())
        tell_passed(job, due.fate);
    const bool is_only_while_running = is_shared() && due.fate == Jobs::Fate::still_running;
    RunTurn turn; // where that fails the next daemon passes it over again
    turn.step.what = is_only_while_running ? RunStep::What::pass_over_running : RunStep::What::pass_over;
    turn.step.run.job = due.job;
    turn.step.run.due = due.start != 0 ? job.row.considered : 0;
    writer_.add(std::move(turn));
}

void Scheduler::start_waiting() {
    while (is_open_ && !is_away_ && !waiting_.empty() && running_ < settings_.runs_max) {
        const Start start = std::move(waiting_.front());
        waiting_.pop_front();
        if (Job *job = jobs_.find(start.job); job != nullptr && job->phase == Job::Phase::waiting)
            begin(*job, start);
    }
    writer_.write();
}

void Scheduler::run_by_hand(Job &job, const Begun &begun) {
    if (job.phase != Job::Phase::idle)
        return begun(TBS_ST_ALREADY_EXISTS, 0);
    if (!jobs_.may_start(job))
        return begun(TBS_ST_UNSUPPORTED, 0); // here: at its host
    if (running_ >= settings_.runs_max || is_away_)
        return begun(TBS_ST_TRY_AGAIN, 0);
    begin(job, {job.row.id, 0, false, begun});
    writer_.write();
}

void Scheduler::begin(Job &job, const Start &start) {
    RunRow run;
    run.job = job.row.id;
    run.due = start.due;
    run.host = host_;
    run.started = std::max<int64_t>(time(nullptr), job.runs.empty() ? 0 : job.runs.back().started + 1);
    job.phase = Job::Phase::running;
    job.run = run;
    job.is_ours = true;
    jobs_.touch(job);
    ++running_;
    const Task *task = this->task(job.task);
    RunTurn turn;
    turn.step.run = run;
    turn.step.mark = is_shared() ? mark_of(job.row.body) : 0;
    turn.step.is_owed = start.is_owed;
    turn.order = order_of(job, task != nullptr ? *task : Task{}, settings_.output_mib);
    turn.is_allowed = task != nullptr && may_run(job.row.owner);
    turn.begun = start.begun;
    writer_.add(std::move(turn));
}

void Scheduler::has_been_written(const RunTurn &turn) {
    switch (turn.step.what) {
    case RunStep::What::begin:
        return is_shared() && !turn.step.is_done ? has_not_begun(turn) : has_begun(turn);
    case RunStep::What::end:
        return has_end_written(turn);
    case RunStep::What::lose:
        return has_been_lost(turn);
    default:
        return has_passed(turn);
    }
}

void Scheduler::has_end_written(const RunTurn &turn) {
    if (turn.step.is_done) {
        has_ended(turn.step.run, turn.step.removal.has_value());
        start_followers(turn.step.owed);
    } else { // the run's file stays until it is
        unended_.push_back({turn.step.run, turn.was_kept, false});
        retry_timer_.start(retry_ms);
    }
}

void Scheduler::has_begun(const RunTurn &turn) {
    const RunRow &run = turn.step.run;
    if (Job *job = jobs_.find(run.job))
        job->run.started = run.started;
    if (turn.keeper > 0) {
        keep(run, turn.keeper);
        if (const Job *job = jobs_.find(run.job)) {
            print_scheduler(IMSG_PLAIN, MSG_JOB_STARTED, id_text(*job).c_str(), job->name.c_str(), turn.keeper);
            notify(*job, EVENT_BEGIN, "was started");
        }
    } else {
        if (const Job *job = jobs_.find(run.job))
            print_scheduler(IMSG_ERROR, MSG_JOB_PROBLEMS, id_text(*job).c_str(), job->name.c_str());
        if (turn.step.is_done)
            take_end(run, false); // as that of any other
        else
            has_ended(run, false);
        give_back_slot();
    }
    if (turn.begun)
        turn.begun(turn.step.is_done ? TBS_ST_OK : TBS_ST_NO_STORAGE, run.started);
}

void Scheduler::keep(const RunRow &run, int32_t keeper) {
    Kept &kept = kept_[run.job];
    kept.run = run;
    kept.run.process_id = std::to_string(keeper);
    Job *job = jobs_.find(run.job);
    if (job != nullptr) {
        job->run.process_id = kept.run.process_id;
        jobs_.touch(*job);
    }
    kept.watch = std::make_unique<ProcessWatch>(loop_, keeper, [this, id = run.job](int /*status*/) {
        const RunRow ended = kept_[id].run;
        kept_.erase(id);
        take_end(ended, true);
        give_back_slot();
    });
    if (job == nullptr || run.is_to_end) // it was deleted, or somebody wanted its end, before its keeper was known
        kept.watch->send(SIGTERM);
}

bool Scheduler::is_terminated(sched_job_id_t id, int64_t started) {
    const auto kept = kept_.find(id);
    if (kept == kept_.end() || kept->second.run.started != started)
        return false;
    kept->second.watch->send(SIGTERM);
    return true;
}

// Another daemon's is ended by that one, which hears of it.
void Scheduler::terminate(const Sender &sender, sched_job_id_t id, int64_t started, const Done &done) {
    const Job *job = jobs_.find(id);
    const bool is_elsewhere = job != nullptr && !job->is_ours && started != 0 && job->elsewhere.started == started;
    if (!is_elsewhere)
        return done(is_terminated(id, started) ? TBS_ST_OK : TBS_ST_NOT_FOUND);
    const auto is_there = std::make_shared<bool>(false);
    const bool is_taken = ask(
        sender, [this, is_there, run = job->elsewhere](JobStore & /*store*/) { *is_there = shared_->ask_to_end(run); },
        [is_there, done](tbs_status_t status) {
            done(status == TBS_ST_OK && !*is_there ? tbs_status_t{TBS_ST_NOT_FOUND} : status);
        });
    if (!is_taken)
        done(TBS_ST_TRY_AGAIN);
}

void Scheduler::take_end(const RunRow &run, bool was_kept) {
    RunTurn turn;
    turn.step.what = RunStep::What::end;
    turn.step.run = run;
    turn.step.owed = jobs_.followers_of(run.job);
    turn.was_kept = was_kept;
    if (const Job *job = jobs_.find(run.job); job != nullptr && job->is_deleted_when_completed &&
                                              job->has_completed() && !changes_on_the_way_.contains(run.job))
        take_removal(turn.step, *job);
    writer_.add(std::move(turn));
}

// What begins in its place is written down together with the end.
void Scheduler::give_back_slot() {
    --running_;
    start_waiting();
}

void Scheduler::retry() {
    for (const auto &unended : std::exchange(unended_, {})) {
        const auto &run = unended.run;
        const auto paths = run_paths(directory_, run);
        const bool lives = unended.has_slot && is_kept(paths.notes);
        const auto notes = lives ? read_run_file(paths.notes) : std::nullopt;
        if (notes && notes->keeper > 0) {
            keep(run, notes->keeper);
        } else if (lives) {
            unended_.push_back(unended);
        } else {
            take_end(run, unended.was_kept);
            if (unended.has_slot)
                give_back_slot();
        }
    }
    writer_.write();
    if (!unended_.empty())
        retry_timer_.start(retry_ms);
}

void Scheduler::has_ended(const RunRow &run, bool is_last) {
    if (Job *job = jobs_.find(run.job); job != nullptr) {
        settle(*job);
        put_run(*job, run);
        jobs_.touch(*job);
        tell_end(*job, run);
        if (is_last)
            remove(*job);
    } else {
        drop_output({run});
    }
    schedule();
}

void Scheduler::put_run(Job &job, const RunRow &run) {
    Jobs::put_run(job, run);
    if (job.runs.size() <= static_cast<size_t>(runs_kept))
        return;
    drop_output({job.runs.front()});
    job.runs.erase(job.runs.begin());
}

void Scheduler::settle(Job &job) {
    job.is_ours = false;
    job.run = job.elsewhere;
    job.phase = job.run.started != 0 ? Job::Phase::running : Job::Phase::idle;
}

void Scheduler::forget_waiting(sched_job_id_t id) {
    std::erase_if(waiting_, [id](const Start &start) { return start.job == id; });
}

// The job goes, and a run of it with it.
void Scheduler::remove(const Job &job) {
    drop_output(job.runs);
    if (!job.row.definition.empty())
        dropped_.insert(job.row.definition);
    is_terminated(job.row.id, job.run.started);
    jobs_.remove(job.row.id);
    schedule();
}

void Scheduler::drop_output(const std::vector<RunRow> &runs) {
    worker_.submit_first({[this, runs] {
                              for (const auto &run : runs)
                                  unlink(run_paths(directory_, run).output.c_str());
                          },
                          [] {}});
}

// Files of runs that nobody knows any more.
void Scheduler::clear_away() {
    std::set<std::string> known;
    for (const auto &[id, job] : jobs_.all()) {
        for (const auto &run : job.runs)
            known.insert(run_paths(directory_, run).output);
        known.insert(run_paths(directory_, job.run).output);
        known.insert(run_paths(directory_, job.run).notes);
    }
    std::error_code failure;
    for (const auto &entry : std::filesystem::directory_iterator(directory_, failure))
        if (!known.contains(entry.path().string()) && !is_kept(entry.path()))
            unlink(entry.path().c_str());
}

void Scheduler::tell_end(Job &job, const RunRow &run) {
    tell_untold_passes(job);
    const bool is_good = run.exit_status == 0;
    const bool has_messages = !run.messages.empty();
    const std::string id = id_text(job);
    const int process = atoi(run.process_id.c_str());
    if (is_good && has_messages)
        print_scheduler(IMSG_PLAIN, MSG_JOB_ENDED_WITH_MESSAGES, id.c_str(), job.name.c_str(), process,
                        run.messages.c_str());
    else if (is_good)
        print_scheduler(IMSG_PLAIN, MSG_JOB_ENDED, id.c_str(), job.name.c_str(), process);
    else if (has_messages)
        print_scheduler(IMSG_ERROR, MSG_JOB_FAILED_WITH_MESSAGES, id.c_str(), job.name.c_str(), process,
                        run.exit_status, run.messages.c_str());
    else
        print_scheduler(IMSG_ERROR, MSG_JOB_FAILED, id.c_str(), job.name.c_str(), process, run.exit_status);
    const sched_event_mask_t good = has_messages ? EVENT_END_OK | EVENT_END_OK_WITH_MESSAGES : EVENT_END_OK;
    notify(job, is_good ? good : EVENT_END_FAIL,
           "ended with status " + std::to_string(run.exit_status) + "\n" + run.messages);
}

void Scheduler::start_followers(const std::vector<sched_job_id_t> &followers) {
    for (const auto id : followers) {
        Job *job = jobs_.find(id);
        if (job == nullptr || !jobs_.may_start(*job))
            continue;
        if (job->phase == Job::Phase::running)
            pass_over({id, 0, Jobs::Fate::still_running});
        else if (job->phase == Job::Phase::idle)
            wait_for_slot(*job, 0, true);
    }
    start_waiting();
}

void Scheduler::notify(const Job &job, sched_event_mask_t event, const std::string &what) {
    if (settings_.notify_program.empty())
        return;
    JobBody body(job.row.body);
    const auto &rw = body.get().rw;
    for (uint32_t i = 0; i < rw.notify_count; ++i) {
        const auto &wanted = rw.notify[i];
        if ((wanted.events & event) == 0)
            continue;
        std::vector<std::string> recipients;
        recipients.reserve(static_cast<size_t>(wanted.recipient_count));
        for (int32_t n = 0; n < wanted.recipient_count; ++n)
            recipients.emplace_back(wanted.recipients[n]);
        notify("Job " + id_text(job) + " \"" + job.name + "\" " + what.substr(0, what.find('\n')), recipients, what);
    }
}

// The program has the subject and the recipients as its arguments, and the text on its standard input.
void Scheduler::notify(const std::string &subject, const std::vector<std::string> &recipients,
                       const std::string &text) {
    if (notifiers_.size() >= notifiers_max)
        return imsg_print(IMSG_WARNING, "Too many notifications at once: one was left out\n", IMSG_FORMAT);
    std::vector<std::string> words = {settings_.notify_program, subject};
    words.insert(words.end(), recipients.begin(), recipients.end());
    const auto process = std::make_shared<int32_t>(-1);
    const auto error_number = std::make_shared<int>(0);
    worker_.submit_first(
        {[words, text, process, error_number] {
             const UniqueFd input(memfd_create("notification", MFD_CLOEXEC));
             const UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
             if (write(input.get(), text.data(), text.size()) < 0 || lseek(input.get(), 0, SEEK_SET) < 0)
                 return;
             const Account own;
             *process = start_process({words, environment_of(own), own, {input.get(), null.get(), null.get()}},
                                      error_number.get());
         },
         [this, process, error_number, words] {
             if (*process < 0)
                 return imsg_print(IMSG_ERROR, "Unable to run the notification program \"%s\": %s\n", IMSG_FORMAT,
                                   words[0].c_str(), imsg_strerror(*error_number));
             notifiers_[*process] =
                 std::make_unique<ProcessWatch>(loop_, *process, [this, number = *process](int status) {
                     if (status != 0)
                         imsg_print(IMSG_ERROR, "Notification failed: exit status 0x%x\n", IMSG_FORMAT, status);
                     notifiers_.erase(number);
                 });
         }});
}

} // namespace velia::server
