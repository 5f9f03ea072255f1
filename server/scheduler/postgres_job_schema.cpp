#include <server/scheduler/postgres_job_schema.h>

#include <array>

namespace velia::server {

namespace {

// Texts are bytes, as in the registry's tables. The one row of "scheduler" is the lock of all changes: whoever has it
// is alone, so that "at", the number of the change that a row had last, grows in the order in which changes are seen.
// Of a job one run at most has not ended, whatever a daemon believes.
constexpr const char *first_step = R"(
CREATE TABLE scheduler (one boolean PRIMARY KEY DEFAULT true CHECK (one), version integer NOT NULL,
                        changes bigint NOT NULL, last_job bigint NOT NULL, last_note bigint NOT NULL, acl bytea NOT NULL);
CREATE TABLE job_writer (name bytea PRIMARY KEY, transaction bigint NOT NULL, at timestamptz NOT NULL DEFAULT now());
CREATE TABLE job_daemon (host bytea PRIMARY KEY, generation bigint NOT NULL, seen timestamptz NOT NULL,
                         boot bytea NOT NULL);
CREATE TABLE job (id bigint PRIMARY KEY, at bigint NOT NULL, body bytea NOT NULL, mark bigint NOT NULL,
                  name bytea NOT NULL, follows bigint NOT NULL, host bytea NOT NULL, owner bigint NOT NULL,
                  created_who bytea NOT NULL, created_where bytea NOT NULL, created_when bigint NOT NULL,
                  changed_who bytea NOT NULL, changed_where bytea NOT NULL, changed_when bigint NOT NULL,
                  considered bigint NOT NULL, changed_start bigint NOT NULL, predefined bigint NOT NULL,
                  definition bytea NOT NULL);
CREATE INDEX job_at ON job (at);
CREATE INDEX job_name ON job (sha256(name));
CREATE INDEX job_host ON job (host) WHERE host <> ''::bytea;
CREATE TABLE job_run (job bigint NOT NULL REFERENCES job (id) ON DELETE CASCADE, started bigint NOT NULL,
                      at bigint NOT NULL, due bigint NOT NULL, host bytea NOT NULL, ended bigint NOT NULL,
                      exit_status bigint NOT NULL, process_id bytea NOT NULL, messages bytea NOT NULL,
                      to_end bigint NOT NULL, PRIMARY KEY (job, started));
CREATE INDEX job_run_at ON job_run (at);
CREATE UNIQUE INDEX job_run_unended ON job_run (job) WHERE ended = 0;
CREATE TABLE job_owed (job bigint PRIMARY KEY REFERENCES job (id) ON DELETE CASCADE);
CREATE TABLE job_dropped (definition bytea NOT NULL);
CREATE UNIQUE INDEX job_dropped_definition ON job_dropped (sha256(definition));
CREATE TABLE job_gone (id bigint PRIMARY KEY, at bigint NOT NULL);
CREATE INDEX job_gone_at ON job_gone (at);
CREATE TABLE job_change (number bigint PRIMARY KEY, who bytea NOT NULL, place bytea NOT NULL, time bigint NOT NULL,
                         what bytea NOT NULL, job bigint NOT NULL, job_name bytea NOT NULL, fields bytea NOT NULL);
CREATE INDEX job_change_of_job ON job_change (job, number);
)";

// Whose run has ended is asked for those that follow it.
constexpr const char *second_step = "CREATE INDEX job_follows ON job (follows) WHERE follows <> 0";

constexpr std::array steps = {first_step, second_step};

void put_scheduler(Postgres &database) {
    database.run("INSERT INTO scheduler (version, changes, last_job, last_note, acl) VALUES (0, 0, 0, 0, '')");
}

} // namespace

PostgresSchema job_schema() {
    return {"scheduler", "the jobs were written by a newer version of this program", steps, put_scheduler};
}

} // namespace velia::server
