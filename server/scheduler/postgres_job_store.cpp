// Changes are made one transaction after the other, each under the lock of the one row of "scheduler". So of daemons
// that want the same start one is first, and the next one sees it; numbers of changes grow in the order in which they
// are seen, so that whoever asks what is new behind a number misses nothing; and what a commit without an answer has
// come to can be asked. A transaction serves as many starts as there are at once.
#include <server/scheduler/shared_job_store.h>

#include <algorithm>
#include <span>
#include <utility>

#include <server/registry/postgres_commit.h>
#include <server/registry/random_uuid.h>
#include <server/registry/sqlite.h>
#include <server/scheduler/postgres_job_columns.h>
#include <server/scheduler/postgres_job_schema.h>
#include <server/scheduler/postgres_job_statements.h>

namespace velia::server {

namespace {

constexpr int64_t gone_kept = 100000; // changes behind which nobody is told any more which jobs are gone
constexpr size_t rows_at_once = 1000;

int64_t signed_number(const PostgresRows &rows, int row, int column) {
    return static_cast<int64_t>(rows.number(row, column));
}

sched_job_id_t id_in(const PostgresRows &rows, int row, int column) {
    return static_cast<sched_job_id_t>(rows.number(row, column));
}

JobRow job_in(const PostgresRows &rows, int row) {
    const auto number = [&](int column) { return signed_number(rows, row, column); };
    const auto text = [&](int column) { return rows.text(row, column); };
    const int64_t owner = number(2);
    return {id_in(rows, row, 0),
            text(1),
            owner == nobody ? std::nullopt : std::optional(static_cast<uint32_t>(owner)),
            Deed{text(3), text(4), number(5)},
            Deed{text(6), text(7), number(8)},
            number(9),
            number(10),
            number(11) != 0,
            text(12),
            text(13)};
}

RunRow run_in(const PostgresRows &rows, int row) {
    const auto number = [&](int column) { return signed_number(rows, row, column); };
    return {id_in(rows, row, 0), number(1),         number(2),         number(3),     static_cast<uint32_t>(number(4)),
            rows.text(row, 5),   rows.text(row, 6), rows.text(row, 7), number(8) != 0};
}

template <class Row, class Make>
std::vector<Row> all_of(const PostgresRows &rows, Make &&make) {
    std::vector<Row> all;
    all.reserve(static_cast<size_t>(rows.count()));
    for (int row = 0; row < rows.count(); ++row)
        all.push_back(make(rows, row));
    return all;
}

std::vector<sched_job_id_t> ids_of(const PostgresRows &rows) {
    return all_of<sched_job_id_t>(rows, [](const PostgresRows &of, int row) { return id_in(of, row, 0); });
}

std::vector<std::string> texts_of(const PostgresRows &rows) {
    return all_of<std::string>(rows, [](const PostgresRows &of, int row) { return of.text(row, 0); });
}

class PostgresJobStore : public SharedJobStore {
public:
    PostgresJobStore(const std::string &conninfo, std::string host, Milliseconds clock)
        : conninfo_(conninfo), database_(conninfo), host_(std::move(host)), clock_(std::move(clock)) {
        database_.connect();
        make_postgres_schema(database_, job_schema());
        database_.run("DELETE FROM job_writer WHERE at < now() - interval '30 days'");
        generation_ = signed_number(database_.run(job_statements::take_name, host_), 0, 0);
    }

    JobContents read() override {
        JobNews news;
        reading([&] { take_news(-1, news); });
        return std::move(news.contents);
    }

    JobNews follow(int64_t since, uint32_t take_over_s) override {
        take_over_s_ = take_over_s;
        JobNews news;
        reading([&] {
            news = {};
            news.number = tell_life();
            // Over another connection it may be another server, of which numbers tell nothing until all is known.
            if (std::exchange(followed_over_, database_.generation()) != database_.generation())
                since = -1;
            if (since < 0 || news.number != since)
                take_news(since, news);
            news.hosts_away = texts_of(database_.run(job_statements::hosts_away, uint64_t{take_over_s_}));
            if (has_listened())
                news.lost = all_of<RunRow>(database_.run(job_statements::lost, uint64_t{take_over_s_}), run_in);
        });
        return news;
    }

    std::function<void()> life() const override {
        return [conninfo = conninfo_, statement = telling_life()] {
            Postgres database(conninfo);
            database.connect();
            database.run(statement);
        };
    }

    bool set_host(sched_job_id_t id, const std::string &host, const ChangeRow &change) override {
        return within([&] {
            if (database_.run(job_statements::set_host, number(id), host, at()).count() == 0)
                return false;
            note(change, id);
            return true;
        });
    }

    std::vector<HostHeard> others_heard(uint32_t within_s) override {
        std::vector<HostHeard> heard;
        reading([&] {
            heard = all_of<HostHeard>(database_.run(job_statements::others_heard, host_, uint64_t{within_s}),
                                      [](const PostgresRows &of, int row) {
                                          return HostHeard{of.text(row, 0), signed_number(of, row, 1)};
                                      });
        });
        return heard;
    }

    void clear() override {
        within([&] {
            database_.run(job_statements::clear, at());
            return true;
        });
    }

    bool ask_to_end(const RunRow &run) override {
        return within(
            [&] { return database_.run(job_statements::want_end, number(run.job), run.started, at()).count() == 1; });
    }

    sched_job_id_t add(const JobRow &row, const ChangeRow &change) override {
        sched_job_id_t id = 0;
        within([&] {
            require_name(BodyFacts(row.body).name, 0);
            if (!row.definition.empty() && database_.run(job_statements::was_dropped, row.definition).count() != 0)
                throw StoreBusy("another daemon has deleted the job of this definition");
            JobRow added = row;
            added.id = id = static_cast<sched_job_id_t>(++in_hand_->last_job);
            put_jobs({&added, 1});
            note(change, id);
            return true;
        });
        return id;
    }

    bool change(const JobRow &row, const ChangeRow &change) override {
        return within([&] {
            const BodyFacts facts(row.body);
            require_name(facts.name, row.id);
            if (facts.follows != 0 &&
                database_.run(job_statements::goes_round, number(row.id), facts.follows).count() != 0)
                throw StoreBusy("another daemon has changed whom a job follows");
            if (!change_in_hand(row, facts))
                return false;
            note(change, row.id);
            return true;
        });
    }

    bool remove(sched_job_id_t id, const ChangeRow &change) override {
        return within([&] { return remove_and_note(id, change, {}); });
    }

    bool remove_idle(sched_job_id_t id, const ChangeRow &change) override {
        return within([&] {
            const bool is_removed = remove_and_note(id, change, {.is_idle = true});
            if (!is_removed && is_there(id))
                throw StoreBusy("a run of the job goes on");
            return is_removed;
        });
    }

    void set_acl(const std::string &acl, const ChangeRow &change) override {
        within([&] {
            database_.run(job_statements::set_acl, acl);
            note(change, 0);
            return true;
        });
    }

    void set_boot(const std::string &boot) override {
        reading([&] { database_.run(job_statements::set_boot, host_, generation_, boot); });
    }

    std::vector<ChangeRow> changes(sched_job_id_t job, int64_t before, uint32_t count_max) override {
        std::vector<ChangeRow> found;
        reading([&] {
            const uint64_t count = count_max;
            const PostgresRows rows = job != 0 ? database_.run(job_statements::notes, before, count, number(job))
                                               : database_.run(job_statements::all_notes, before, count);
            found = all_of<ChangeRow>(rows, [](const PostgresRows &of, int row) {
                return ChangeRow{
                    signed_number(of, row, 0), Deed{of.text(row, 1), of.text(row, 2), signed_number(of, row, 3)},
                    of.text(row, 4),           id_in(of, row, 5),
                    of.text(row, 6),           of.text(row, 7)};
            });
        });
        return found;
    }

    // The state is that of the jobs for which the set was judged, so that nothing of it is looked at again.
    bool apply(JobSet &set) override {
        return within([&] {
            if (state() != set.state)
                return false;
            set.take_numbers(static_cast<sched_job_id_t>(in_hand_->last_job + 1));
            for (auto &row : set.added)
                row.id = static_cast<sched_job_id_t>(++in_hand_->last_job);
            put_jobs(set.added);
            put_notes(numbered_notes(set));
            return std::all_of(set.changed.begin(), set.changed.end(),
                               [this](const JobRow &row) { return change_in_hand(row, BodyFacts(row.body)); }) &&
                   std::all_of(set.removed.begin(), set.removed.end(),
                               [this](sched_job_id_t id) { return remove_in_hand(id, {}); });
        });
    }

    void forget_dropped(const std::vector<std::string> &definitions) override {
        within([&] {
            for (const auto &definition : definitions)
                database_.run(job_statements::forget_dropped, definition);
            return true;
        });
    }

    void begin(const RunRow &run) override {
        RunStep step;
        step.run = run;
        record_one(step);
        if (!step.is_done)
            throw StoreError("another run of the job is there");
    }

    void forget(const RunRow &run, int64_t considered, bool is_owed) override {
        within([&] {
            const PostgresRows forgotten = database_.run(job_statements::forget, number(run.job), run.started, host_,
                                                         considered, at(), generation_);
            if (forgotten.count() == 1 && is_owed)
                database_.run(job_statements::owe, number(run.job));
            return forgotten.count() == 1;
        });
    }

    void end(const RunRow &run, const std::vector<sched_job_id_t> &owed,
             const std::optional<ChangeRow> &removal) override {
        RunStep step;
        step.what = RunStep::What::end;
        step.run = run;
        step.owed = owed;
        step.removal = removal;
        record_one(step);
    }

    sched_job_id_t last_number() override {
        sched_job_id_t last = 0;
        reading([&] { last = id_in(database_.run(job_statements::last_number), 0, 0); });
        return last;
    }

    void put_all(const JobStock &stock) override {
        within([&] {
            if (database_.run(job_statements::bodies).count() != 0)
                throw StoreError("there are jobs already");
            database_.run("DELETE FROM job_change; DELETE FROM job_dropped");
            put_jobs(stock.contents.jobs);
            for (const auto &run : stock.contents.runs)
                database_.run(job_statements::put_run, number(run.job), run.started, at(), run.due,
                              run.host.empty() ? host_ : run.host, run.ended, int64_t{run.exit_status}, run.process_id,
                              run.messages);
            put_notes(stock.notes);
            for (const auto job : stock.contents.owed)
                database_.run(job_statements::owe, number(job));
            for (const auto &definition : stock.contents.dropped)
                database_.run(job_statements::drop, definition);
            database_.run(job_statements::set_acl, stock.contents.acl);
            in_hand_->last_job = std::max(in_hand_->last_job, number(stock.last_number));
            return true;
        });
    }

    // What becomes of each is known only when all of it is on disk.
    void record(std::vector<RunStep *> &steps) override {
        std::vector<Judged> judged;
        within([&] {
            judged.clear();
            for (const auto *step : steps)
                judged.push_back(take(*step));
            return std::any_of(judged.begin(), judged.end(),
                               [](const Judged &each) { return each.refusal != RunStep::Refusal::taken; });
        });
        for (size_t i = 0; i < steps.size(); ++i) {
            take_judgement(*steps[i], judged[i]);
        }
    }

private:
    // What a transaction has of the locked row, which gets it with the commit.
    struct Counters {
        int64_t changes = 0;
        int64_t last_job = 0;
        int64_t last_note = 0;
        int64_t first_note = 0; // the last one before it
    };
    struct Judged {
        RunStep::Refusal refusal = RunStep::Refusal::none;
        int64_t started = 0;                   // of a beginning
        std::vector<sched_job_id_t> owed = {}; // of an end
        bool is_removed = false;               // the same
    };
    // What a removal hangs on.
    struct Removal {
        uint64_t mark = 0;
        int64_t changed_start = 0;
        bool is_idle = false;
    };

    static int64_t number(sched_job_id_t id) { return int64_t{id}; }
    int64_t at() const { return in_hand_->changes; }

    // A connection that breaks has nothing of a transaction left. What only reads, or begins, is done once more over
    // another one, since a server that was started anew is noticed by the first call.
    template <class Body>
    void reading(Body &&body) {
        const bool was_connected = database_.is_connected();
        database_.connect();
        try {
            return body();
        } catch (const StoreAway &) {
            roll_back(database_);
            if (!was_connected || database_.is_connected())
                throw;
        } catch (...) {
            roll_back(database_);
            throw;
        }
        database_.connect();
        body();
    }

    // Nothing hangs on it that it be on disk.
    std::string telling_life() const {
        return "SET LOCAL synchronous_commit = off; UPDATE job_daemon SET seen = clock_timestamp() WHERE host = " +
               literal_of(host_) + " AND generation = " + std::to_string(generation_) +
               " RETURNING (SELECT changes FROM scheduler)";
    }

    // How far changes have come.
    int64_t tell_life() {
        PostgresRows rows = database_.run(telling_life());
        if (rows.count() != 1 && database_.run(job_statements::take_name_again, host_, generation_).count() == 1)
            rows = database_.run(telling_life());
        if (rows.count() != 1)
            throw StoreError("another daemon serves the jobs under the name of this host, " + host_);
        return strtoll(rows.text(0, 0).c_str(), nullptr, 10);
    }

    // For as long as others have to tell that they live, and without a pause in which they might not have been able to.
    bool has_listened() {
        const int64_t now_ms = clock_();
        const int64_t enough_ms = int64_t{take_over_s_} * 1000;
        if (now_ms - listened_ms_ > enough_ms / 2)
            listens_since_ms_ = now_ms;
        listened_ms_ = now_ms;
        return now_ms - listens_since_ms_ >= enough_ms;
    }

    void take_news(int64_t since, JobNews &news) {
        news.has_contents = true;
        database_.run("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
        const PostgresRows head = database_.run(job_statements::number);
        if (head.count() != 1)
            throw StoreError("the scheduler's row is gone from the database");
        news.number = signed_number(head, 0, 0);
        news.is_all = since < 0 || since > news.number || since < news.number - gone_kept;
        if (news.is_all)
            since = -1;
        JobContents &contents = news.contents;
        contents.acl = head.text(0, 1);
        contents.jobs = all_of<JobRow>(database_.run(job_statements::jobs, since), job_in);
        contents.runs = all_of<RunRow>(database_.run(job_statements::runs, since), run_in);
        contents.owed = ids_of(database_.run(job_statements::owed));
        contents.dropped = texts_of(database_.run(job_statements::dropped));
        const PostgresRows boot = database_.run(job_statements::boot, host_);
        contents.boot = boot.count() == 1 ? boot.text(0, 0) : "";
        if (!news.is_all)
            news.gone = ids_of(database_.run(job_statements::gone, since));
        database_.run("COMMIT");
    }

    // In a transaction of its own. False: nothing of it is to be kept.
    template <class Body>
    bool within(Body &&body) {
        begin_transaction();
        bool is_kept = false;
        try {
            is_kept = body();
            if (is_kept)
                commit();
        } catch (...) {
            in_hand_.reset();
            roll_back(database_);
            throw;
        }
        in_hand_.reset();
        if (!is_kept)
            roll_back(database_);
        return is_kept;
    }

    void begin_transaction() {
        const std::string lock_ms = std::to_string(std::max<int64_t>(wait_for_others_now_ms(), 1));
        reading([&] {
            const PostgresRows row = database_.run("BEGIN; SET LOCAL lock_timeout = " + lock_ms +
                                                   "; SELECT changes, last_job, last_note FROM scheduler FOR UPDATE");
            if (row.count() != 1)
                throw StoreError("the scheduler's row is gone from the database");
            const auto counter = [&](int column) { return strtoll(row.text(0, column).c_str(), nullptr, 10); };
            in_hand_ = {counter(0) + 1, counter(1), counter(2), counter(2)};
        });
    }

    void commit() {
        database_.run(job_statements::drop_gone, at() - gone_kept);
        if (in_hand_->last_note !=
            in_hand_->first_note) // once: what a transaction has deleted is in its way to the end
            database_.run(job_statements::drop_notes, in_hand_->last_note - changes_kept);
        const std::string counters = "UPDATE scheduler SET changes = " + std::to_string(in_hand_->changes) +
                                     ", last_job = " + std::to_string(in_hand_->last_job) +
                                     ", last_note = " + std::to_string(in_hand_->last_note);
        commit_marked(database_, counters, {"job_writer", writer_bytes(), ++transaction_},
                      [this] { return is_made(); });
    }

    // Under the lock, which the transaction holds to its end.
    bool is_made() {
        begin_transaction();
        const PostgresRows rows = database_.run(job_statements::last_transaction, writer_);
        const bool is_made = rows.count() == 1 && rows.number(0, 0) == transaction_;
        roll_back(database_);
        return is_made;
    }
    std::string_view writer_bytes() const {
        return {reinterpret_cast<const char *>(writer_.bytes), sizeof writer_.bytes};
    }

    // Whoever is told to try again has learned by then what the other daemon did, and judges it himself.
    void require_name(const std::string &name, sched_job_id_t id) {
        if (!name.empty() && database_.run(job_statements::namesake, name, number(id)).count() != 0)
            throw StoreBusy("another daemon has made a job of this name");
    }

    // Many in one statement, since each statement waits for its answer.
    template <class RowColumns, class Row>
    void put_rows(std::span<const Row> rows) {
        for (size_t first = 0; first < rows.size(); first += rows_at_once) {
            RowColumns columns;
            for (const Row &row : rows.subspan(first, std::min(rows_at_once, rows.size() - first)))
                columns.add_row(row);
            columns.put_in(database_, at());
        }
    }
    void put_jobs(std::span<const JobRow> rows) { put_rows<JobColumns>(rows); }
    void put_notes(std::span<const ChangeRow> rows) {
        for (const auto &row : rows)
            in_hand_->last_note = std::max(in_hand_->last_note, row.number);
        put_rows<NoteColumns>(rows);
    }

    bool change_in_hand(const JobRow &row, const BodyFacts &facts) {
        const PostgresRows changed =
            database_.run(job_statements::change, number(row.id), at(), row.body, mark_of(row.body), facts.name,
                          facts.follows, stored_owner(row), row.changed.who, row.changed.where, row.changed.when,
                          row.considered, row.changed_start, row.replaces);
        if (changed.count() == 1)
            return true;
        if (is_there(row.id))
            throw StoreBusy("another daemon has changed the job");
        return false;
    }

    bool is_there(sched_job_id_t id) { return database_.run(job_statements::is_there, number(id)).count() == 1; }

    bool remove_in_hand(sched_job_id_t id, const Removal &removal) {
        return database_
                   .run(job_statements::remove, number(id), at(), removal.mark, removal.changed_start,
                        int64_t{removal.is_idle})
                   .count() != 0;
    }

    bool remove_and_note(sched_job_id_t id, const ChangeRow &change, const Removal &removal) {
        if (!remove_in_hand(id, removal))
            return false;
        note(change, id);
        return true;
    }

    // One for each job, as they stand in the set.
    std::vector<ChangeRow> numbered_notes(const JobSet &set) const {
        std::vector<sched_job_id_t> jobs;
        for (const auto *list : {&set.added, &set.changed})
            for (const auto &row : *list)
                jobs.push_back(row.id);
        jobs.insert(jobs.end(), set.removed.begin(), set.removed.end());
        std::vector<ChangeRow> notes = set.notes;
        for (size_t i = 0; i < notes.size(); ++i) {
            notes[i].number = in_hand_->last_note + 1 + static_cast<int64_t>(i);
            notes[i].job = jobs.at(i);
        }
        return notes;
    }

    void note(ChangeRow change, sched_job_id_t job) {
        change.number = in_hand_->last_note + 1;
        change.job = job;
        put_notes({&change, 1});
    }

    uint64_t state() {
        const PostgresRows rows = database_.run(job_statements::bodies);
        JobsState state;
        for (int row = 0; row < rows.count(); ++row)
            state.add(id_in(rows, row, 0), rows.bytes(row, 1));
        return state.value();
    }

    void record_one(RunStep &step) {
        std::vector<RunStep *> steps = {&step};
        record(steps);
    }

    static void take_judgement(RunStep &step, Judged &judged) {
        step.refusal = judged.refusal;
        step.is_done = judged.refusal == RunStep::Refusal::none;
        if (judged.started != 0)
            step.run.started = judged.started;
        if (step.what != RunStep::What::end && step.what != RunStep::What::lose)
            return;
        step.owed = std::move(judged.owed);
        if (!judged.is_removed)
            step.removal.reset();
    }

    Judged take(const RunStep &step) {
        switch (step.what) {
        case RunStep::What::begin:
            return take_beginning(step);
        case RunStep::What::end:
            return take_end(step);
        case RunStep::What::lose:
            return is_lost(step.run) ? take_end(step) : Judged{RunStep::Refusal::taken};
        default:
            return take_passing(step);
        }
    }

    Judged take_beginning(const RunStep &step) {
        const RunRow &run = step.run;
        const PostgresRows judged = database_.run(job_statements::begin, number(run.job), run.started, run.due, host_,
                                                  generation_, step.mark, int64_t{step.is_owed}, at());
        if (judged.count() == 0)
            return {RunStep::Refusal::taken};
        constexpr RunStep::Refusal refusals[] = {RunStep::Refusal::none, RunStep::Refusal::taken,
                                                 RunStep::Refusal::running};
        return {refusals[judged.number(0, 0)], signed_number(judged, 0, 1)};
    }

    Judged take_end(const RunStep &step) {
        const RunRow &run = step.run;
        const PostgresRows before = database_.run(job_statements::end, number(run.job), run.started, run.ended,
                                                  int64_t{run.exit_status}, run.process_id, run.messages, at());
        const bool is_in_time = before.count() == 1 && before.number(0, 0) == 0;
        if (!is_in_time)
            return {};
        database_.run(job_statements::keep_youngest, number(run.job), runs_kept - 1);
        Judged judged;
        judged.owed = ids_of(database_.run(job_statements::owe_followers, number(run.job)));
        judged.is_removed = step.removal && remove_and_note(run.job, *step.removal, {step.mark, step.changed_start});
        return judged;
    }

    Judged take_passing(const RunStep &step) {
        const int64_t is_conditional = step.what == RunStep::What::pass_over_running ? 1 : 0;
        const PostgresRows passed =
            step.run.due == 0
                ? database_.run(job_statements::pay, number(step.run.job), is_conditional)
                : database_.run(job_statements::pass_over, number(step.run.job), step.run.due, at(), is_conditional);
        return {passed.count() == 1 ? RunStep::Refusal::none : RunStep::Refusal::taken};
    }

    bool is_lost(const RunRow &run) {
        return database_.run(job_statements::is_lost, number(run.job), run.started, uint64_t{take_over_s_}).count() ==
               1;
    }

    const std::string conninfo_;
    Postgres database_;
    const std::string host_;
    const Milliseconds clock_;
    int64_t listened_ms_ = INT64_MIN / 2; // when last
    int64_t listens_since_ms_ = 0;
    int64_t generation_ = 0;
    uint32_t take_over_s_ = 0;
    uint64_t followed_over_ = 0; // which connection
    const tbs_uuid_t writer_ = random_uuid();
    uint64_t transaction_ = 0;
    std::optional<Counters> in_hand_; // while a transaction is open
};

} // namespace

std::unique_ptr<SharedJobStore> open_postgres_job_store(const std::string &conninfo, const std::string &host,
                                                        Milliseconds clock) {
    return std::make_unique<PostgresJobStore>(conninfo, host, std::move(clock));
}

} // namespace velia::server
