// Jobs in one SQLite file, with a write-ahead log and full synchronisation. Numbers are never given twice, so a handle
// never means another job.
#include <server/scheduler/job_store.h>

#include <server/registry/sqlite.h>

namespace velia::server {

namespace {

// Each step makes a database of one version one of the next.
constexpr const char *upgrades[] = {R"(
CREATE TABLE job (id INTEGER PRIMARY KEY AUTOINCREMENT, body BLOB NOT NULL, owner INTEGER,
                  created_who BLOB NOT NULL, created_where BLOB NOT NULL, created_when INTEGER NOT NULL,
                  changed_who BLOB NOT NULL, changed_where BLOB NOT NULL, changed_when INTEGER NOT NULL,
                  considered INTEGER NOT NULL, changed_start INTEGER NOT NULL);
CREATE TABLE run (job INTEGER NOT NULL REFERENCES job (id) ON DELETE CASCADE, started INTEGER NOT NULL,
                  due INTEGER NOT NULL, ended INTEGER NOT NULL, exit_status INTEGER NOT NULL,
                  process_id BLOB NOT NULL, messages BLOB NOT NULL, PRIMARY KEY (job, started)) WITHOUT ROWID;
CREATE TABLE owed (job INTEGER PRIMARY KEY REFERENCES job (id) ON DELETE CASCADE);
CREATE TABLE setting (name BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
)",
                                    R"(
CREATE TABLE change (number INTEGER PRIMARY KEY AUTOINCREMENT, who BLOB NOT NULL, place BLOB NOT NULL,
                     time INTEGER NOT NULL, what BLOB NOT NULL, job INTEGER NOT NULL, job_name BLOB NOT NULL,
                     fields BLOB NOT NULL);
CREATE INDEX change_of_job ON change (job, number);
ALTER TABLE job ADD COLUMN predefined INTEGER NOT NULL DEFAULT 0;
)",
                                    R"(
ALTER TABLE job ADD COLUMN definition BLOB NOT NULL DEFAULT x'';
CREATE TABLE dropped (definition BLOB PRIMARY KEY) WITHOUT ROWID;
CREATE TRIGGER drop_definition AFTER DELETE ON job WHEN length(OLD.definition) > 0
BEGIN INSERT OR IGNORE INTO dropped VALUES (OLD.definition); END;
)"};

constexpr int64_t schema_version = std::size(upgrades);
constexpr std::string_view acl_setting = "acl";
constexpr std::string_view boot_setting = "boot";

int64_t version_of(Sqlite &database) {
    Statement query(database, "PRAGMA user_version");
    const int64_t version = query.step() ? query.number(0) : 0;
    query.reset();
    return version;
}

bool is_empty(Sqlite &database) {
    Statement query(database, "SELECT count(*) FROM sqlite_master");
    const bool is_empty = query.step() && query.number(0) == 0;
    query.reset();
    return is_empty;
}

void bring_up_to_date(Sqlite &database) {
    const int64_t version = version_of(database);
    if (version > schema_version)
        throw StoreError("the scheduler's database is of a newer version");
    if (version == 0 && !is_empty(database))
        throw StoreError("this is no database of a scheduler");
    if (version == schema_version)
        return;
    Transaction transaction(database);
    for (int64_t step = version; step < schema_version; ++step)
        database.run(upgrades[step]);
    database.run(("PRAGMA user_version = " + std::to_string(schema_version)).c_str());
    transaction.commit();
}

struct Statements {
    explicit Statements(Sqlite &database)
        : jobs(database,
               "SELECT id, body, owner IS NULL, owner, created_who, created_where, created_when, changed_who, "
               "changed_where, changed_when, considered, changed_start, predefined, definition FROM job ORDER BY id"),
          runs(database, "SELECT job, started, due, ended, exit_status, process_id, messages FROM run "
                         "ORDER BY job, started"),
          bodies(database, "SELECT id, body FROM job ORDER BY id"),
          numbers(database, "SELECT seq FROM sqlite_sequence WHERE name = 'job'"),
          owed(database, "SELECT job FROM owed ORDER BY job"), dropped(database, "SELECT definition FROM dropped"),
          forget_dropped(database, "DELETE FROM dropped WHERE definition = ?1"),
          get(database, "SELECT value FROM setting WHERE name = ?1"),
          add(database, "INSERT INTO job (body, owner, created_who, created_where, created_when, changed_who, "
                        "changed_where, changed_when, considered, changed_start, predefined, "
                        "definition) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)"),
          change(database, "UPDATE job SET body = ?2, owner = ?3, changed_who = ?4, changed_where = ?5, "
                           "changed_when = ?6, considered = max(considered, ?7), changed_start = ?8 WHERE id = ?1"),
          remove(database, "DELETE FROM job WHERE id = ?1"),
          runs_now(database, "SELECT 1 FROM run WHERE job = ?1 AND ended = 0"),
          put_job(database, "INSERT INTO job (id, body, owner, created_who, created_where, created_when, changed_who, "
                            "changed_where, changed_when, considered, changed_start, predefined, "
                            "definition) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)"),
          put_run(database, "INSERT INTO run (job, started, due, ended, exit_status, process_id, messages) "
                            "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)"),
          put_note(database, "INSERT INTO change (number, who, place, time, what, job, job_name, fields) "
                             "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"),
          drop(database, "INSERT OR IGNORE INTO dropped VALUES (?1)"),
          consider(database, "UPDATE job SET considered = max(considered, ?2) WHERE id = ?1"),
          set_considered(database, "UPDATE job SET considered = ?2 WHERE id = ?1"),
          begin(database, "INSERT INTO run (job, started, due, ended, exit_status, process_id, messages) "
                          "VALUES (?1, ?2, ?3, 0, 0, x'', x'')"),
          forget(database, "DELETE FROM run WHERE job = ?1 AND started = ?2"),
          end(database, "UPDATE run SET ended = ?3, exit_status = ?4, process_id = ?5, messages = ?6 "
                        "WHERE job = ?1 AND started = ?2"),
          keep_youngest(database, "DELETE FROM run WHERE job = ?1 AND ended <> 0 AND started NOT IN (SELECT started "
                                  "FROM run WHERE job = ?1 AND ended <> 0 ORDER BY started DESC LIMIT ?2)"),
          owe(database, "INSERT OR IGNORE INTO owed SELECT id FROM job WHERE id = ?1"),
          pay(database, "DELETE FROM owed WHERE job = ?1"),
          set(database, "INSERT INTO setting VALUES (?1, ?2) ON CONFLICT (name) DO UPDATE SET value = excluded.value"),
          note(database, "INSERT INTO change (who, place, time, what, job, job_name, fields) "
                         "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)"),
          drop_notes(database, "DELETE FROM change WHERE number <= ?1"),
          all_changes(database, "SELECT number, who, place, time, what, job, job_name, fields FROM change "
                                "WHERE number < ?1 ORDER BY number DESC LIMIT ?2"),
          changes(database, "SELECT number, who, place, time, what, job, job_name, fields FROM change "
                            "WHERE job = ?3 AND number < ?1 ORDER BY number DESC LIMIT ?2") {}

    Statement jobs, runs, bodies, numbers, owed, dropped, forget_dropped, get, add, change, remove, runs_now, put_job,
        put_run, put_note, drop, consider, set_considered, begin, forget, end, keep_youngest, owe, pay, set, note,
        drop_notes, all_changes, changes;
};

std::optional<int64_t> stored_owner(const JobRow &row) {
    return row.owner ? std::optional<int64_t>(*row.owner) : std::nullopt;
}

class SqliteJobStore : public JobStore {
public:
    explicit SqliteJobStore(const std::string &file_name) : database_(file_name) {
        bring_up_to_date(database_);
        database_.write_ahead();
        database_.run("PRAGMA synchronous = FULL");
        database_.run("PRAGMA foreign_keys = ON");
        statements_ = std::make_unique<Statements>(database_);
    }

    JobContents read() override {
        JobContents contents;
        auto &jobs = statements_->jobs.with();
        while (jobs.step())
            contents.jobs.push_back(
                {static_cast<sched_job_id_t>(jobs.number(0)), jobs.text(1),
                 jobs.number(2) != 0 ? std::nullopt : std::optional(static_cast<uint32_t>(jobs.number(3))),
                 Deed{jobs.text(4), jobs.text(5), jobs.number(6)}, Deed{jobs.text(7), jobs.text(8), jobs.number(9)},
                 jobs.number(10), jobs.number(11), jobs.number(12) != 0, jobs.text(13)});
        auto &runs = statements_->runs.with();
        while (runs.step())
            contents.runs.push_back({static_cast<sched_job_id_t>(runs.number(0)), runs.number(1), runs.number(2),
                                     runs.number(3), static_cast<uint32_t>(runs.number(4)), runs.text(5),
                                     runs.text(6)});
        auto &owed = statements_->owed.with();
        while (owed.step())
            contents.owed.push_back(static_cast<sched_job_id_t>(owed.number(0)));
        auto &dropped = statements_->dropped.with();
        while (dropped.step())
            contents.dropped.push_back(dropped.text(0));
        contents.acl = setting(acl_setting);
        contents.boot = setting(boot_setting);
        return contents;
    }

    sched_job_id_t add(const JobRow &row, const ChangeRow &change) override {
        Transaction transaction(database_);
        statements_->add
            .with(row.body, stored_owner(row), row.created.who, row.created.where, row.created.when, row.changed.who,
                  row.changed.where, row.changed.when, row.considered, row.changed_start, uint32_t{row.is_predefined},
                  row.definition)
            .run();
        const auto id = static_cast<sched_job_id_t>(database_.last_row_id());
        note(change, id);
        transaction.commit();
        return id;
    }

    bool change(const JobRow &row, const ChangeRow &change) override {
        return changes_one(statements_->change.with(row.id, row.body, stored_owner(row), row.changed.who,
                                                    row.changed.where, row.changed.when, row.considered,
                                                    row.changed_start),
                           change, row.id);
    }

    bool remove(sched_job_id_t id, const ChangeRow &change) override {
        return changes_one(statements_->remove.with(id), change, id);
    }

    bool remove_idle(sched_job_id_t id, const ChangeRow &change) override {
        Transaction transaction(database_);
        auto &run = statements_->runs_now.with(id);
        const bool runs = run.step();
        run.reset();
        if (runs)
            throw StoreBusy("a run of the job goes on");
        const bool is_removed = remove(id, change);
        transaction.commit();
        return is_removed;
    }

    std::vector<ChangeRow> changes(sched_job_id_t job, int64_t before, uint32_t count_max) override {
        std::vector<ChangeRow> changes;
        auto &found = job != 0 ? statements_->changes.with(before, count_max, job)
                               : statements_->all_changes.with(before, count_max);
        while (found.step())
            changes.push_back({found.number(0), Deed{found.text(1), found.text(2), found.number(3)}, found.text(4),
                               static_cast<sched_job_id_t>(found.number(5)), found.text(6), found.text(7)});
        return changes;
    }

    bool apply(JobSet &set) override {
        Transaction transaction(database_);
        if (state() != set.state)
            return false;
        auto number = next_number();
        auto note = set.notes.begin();
        set.take_numbers(number);
        for (auto &row : set.added) {
            row.id = number++;
            if (add(row, *note++) != row.id)
                throw StoreError("a new job has another number than the next one");
        }
        for (const auto &row : set.changed)
            if (!change(row, *note++))
                return false;
        for (const auto id : set.removed)
            if (!remove(id, *note++))
                return false;
        transaction.commit();
        return true;
    }

    void forget_dropped(const std::vector<std::string> &definitions) override {
        Transaction transaction(database_);
        for (const auto &definition : definitions)
            statements_->forget_dropped.with(definition).run();
        transaction.commit();
    }

    void begin(const RunRow &run) override {
        Transaction transaction(database_);
        statements_->begin.with(run.job, run.started, run.due).run();
        statements_->consider.with(run.job, run.due).run();
        statements_->pay.with(run.job).run();
        transaction.commit();
    }

    void forget(const RunRow &run, int64_t considered, bool is_owed) override {
        Transaction transaction(database_);
        statements_->forget.with(run.job, run.started).run();
        statements_->set_considered.with(run.job, considered).run();
        if (is_owed)
            statements_->owe.with(run.job).run();
        transaction.commit();
    }

    void end(const RunRow &run, const std::vector<sched_job_id_t> &owed,
             const std::optional<ChangeRow> &removal) override {
        Transaction transaction(database_);
        statements_->end.with(run.job, run.started, run.ended, run.exit_status, run.process_id, run.messages).run();
        statements_->keep_youngest.with(run.job, runs_kept).run();
        for (const auto job : owed)
            statements_->owe.with(job).run();
        if (removal)
            remove(run.job, *removal);
        transaction.commit();
    }

    void record(std::vector<RunStep *> &steps) override {
        Transaction transaction(database_);
        std::vector<RunStep *> done;
        for (auto *step : steps)
            if (is_taken(*step))
                done.push_back(step);
        transaction.commit();
        for (auto *step : done)
            step->is_done = true;
    }

    sched_job_id_t last_number() override { return next_number() - 1; }

    void put_all(const JobStock &stock) override {
        Transaction transaction(database_);
        if (!read().jobs.empty())
            throw StoreError("there are jobs already");
        database_.run("DELETE FROM change; DELETE FROM dropped");
        for (const auto &row : stock.contents.jobs)
            statements_->put_job
                .with(row.id, row.body, stored_owner(row), row.created.who, row.created.where, row.created.when,
                      row.changed.who, row.changed.where, row.changed.when, row.considered, row.changed_start,
                      uint32_t{row.is_predefined}, row.definition)
                .run();
        for (const auto &run : stock.contents.runs)
            statements_->put_run
                .with(run.job, run.started, run.due, run.ended, run.exit_status, run.process_id, run.messages)
                .run();
        for (const auto &each : stock.notes)
            statements_->put_note
                .with(each.number, each.deed.who, each.deed.where, each.deed.when, each.what, each.job, each.job_name,
                      each.fields)
                .run();
        put_rest(stock);
        transaction.commit();
    }

    void set_acl(const std::string &acl, const ChangeRow &change) override {
        Transaction transaction(database_);
        statements_->set.with(acl_setting, acl).run();
        note(change, 0);
        transaction.commit();
    }

    void set_boot(const std::string &boot) override {
        Transaction transaction(database_);
        statements_->set.with(boot_setting, boot).run();
        transaction.commit();
    }

private:
    std::string setting(std::string_view name) {
        auto &value = statements_->get.with(name);
        std::string text = value.step() ? value.text(0) : "";
        value.reset();
        return text;
    }

    // A step of the transaction in hand. Some failures are the end of that, too, and then of all its steps.
    bool is_taken(const RunStep &step) {
        try {
            if (step.what == RunStep::What::begin)
                begin(step.run);
            else if (step.what == RunStep::What::end || step.what == RunStep::What::lose)
                end(step.run, step.owed, step.removal);
            else
                pass_over(step.run);
            return true;
        } catch (const StoreError &) {
            if (!database_.is_in_transaction())
                throw;
            return false;
        }
    }

    void pass_over(const RunRow &run) {
        Transaction transaction(database_);
        statements_->consider.with(run.job, run.due).run();
        statements_->pay.with(run.job).run();
        transaction.commit();
    }

    // In the transaction of what it tells of.
    void note(const ChangeRow &change, sched_job_id_t job) {
        statements_->note
            .with(change.deed.who, change.deed.where, change.deed.when, change.what, job, change.job_name,
                  change.fields)
            .run();
        statements_->drop_notes.with(database_.last_row_id() - changes_kept).run();
    }

    void put_rest(const JobStock &stock) {
        for (const auto job : stock.contents.owed)
            statements_->owe.with(job).run();
        for (const auto &definition : stock.contents.dropped)
            statements_->drop.with(definition).run();
        statements_->set.with(acl_setting, stock.contents.acl).run();
        const std::string last = std::to_string(stock.last_number);
        database_.run(("INSERT INTO sqlite_sequence SELECT 'job', 0 WHERE NOT EXISTS (SELECT 1 FROM sqlite_sequence "
                       "WHERE name = 'job'); UPDATE sqlite_sequence SET seq = max(seq, " +
                       last + ") WHERE name = 'job'")
                          .c_str());
    }

    uint64_t state() {
        JobsState state;
        auto &bodies = statements_->bodies.with();
        while (bodies.step())
            state.add(static_cast<sched_job_id_t>(bodies.number(0)), bodies.text(1));
        return state.value();
    }

    // That the next new job gets; none has been given twice.
    sched_job_id_t next_number() {
        auto &numbers = statements_->numbers.with();
        const int64_t last = numbers.step() ? numbers.number(0) : 0;
        numbers.reset();
        return static_cast<sched_job_id_t>(last + 1);
    }

    bool changes_one(Statement &statement, const ChangeRow &change, sched_job_id_t job) {
        Transaction transaction(database_);
        statement.run();
        const bool is_changed = database_.changed_rows() == 1;
        if (is_changed)
            note(change, job);
        transaction.commit();
        return is_changed;
    }

    Sqlite database_;
    std::unique_ptr<Statements> statements_;
};

} // namespace

uint64_t mark_of(std::string_view body) {
    JobsState state;
    state.add(0, body);
    return state.value() | 1;
}

void JobsState::add(sched_job_id_t id, std::string_view body) {
    constexpr uint64_t prime = 0x100000001B3;
    const auto take = [this](std::string_view bytes) {
        for (const char byte : bytes)
            value_ = (value_ ^ static_cast<unsigned char>(byte)) * prime; // FNV-1a
    };
    const uint64_t words[] = {id, body.size()};
    take({reinterpret_cast<const char *>(words), sizeof words});
    take(body);
}

std::unique_ptr<JobStore> open_job_store(const std::string &file_name) {
    return std::make_unique<SqliteJobStore>(file_name);
}

} // namespace velia::server
