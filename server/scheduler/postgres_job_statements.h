// What the store of jobs asks a database. All that a change hangs on is compared in its statement.
#pragma once

#include <server/registry/postgres.h>

namespace velia::server::job_statements {

inline constexpr PostgresStatement take_name = {
    "job_take_name", "INSERT INTO job_daemon (host, generation, seen, boot) VALUES ($1, 1, clock_timestamp(), '') ON "
                     "CONFLICT (host) DO UPDATE SET generation = job_daemon.generation + 1, seen = clock_timestamp() "
                     "RETURNING generation"};
// A database that was put back, or a standby that had not got all, knows an older daemon of the name than this one.
inline constexpr PostgresStatement take_name_again = {
    "job_take_name_again",
    "INSERT INTO job_daemon (host, generation, seen, boot) VALUES ($1, $2, clock_timestamp(), '') ON CONFLICT (host) "
    "DO UPDATE SET generation = excluded.generation, seen = excluded.seen WHERE job_daemon.generation < "
    "excluded.generation RETURNING 1"};
inline constexpr PostgresStatement boot = {"job_boot", "SELECT boot FROM job_daemon WHERE host = $1"};
inline constexpr PostgresStatement set_boot = {"job_set_boot",
                                               "UPDATE job_daemon SET boot = $3 WHERE host = $1 AND generation = $2"};
inline constexpr PostgresStatement number = {"job_number", "SELECT changes, acl FROM scheduler"};
inline constexpr PostgresStatement jobs = {
    "job_jobs", "SELECT id, body, owner, created_who, created_where, created_when, changed_who, changed_where, "
                "changed_when, considered, changed_start, predefined, definition, host FROM job WHERE at > $1 "
                "ORDER BY id"};
#define RUN_COLUMNS "job, started, due, ended, exit_status, process_id, messages, host, to_end"
inline constexpr PostgresStatement runs = {"job_runs",
                                           "SELECT " RUN_COLUMNS " FROM job_run WHERE at > $1 UNION ALL "
                                           "SELECT " RUN_COLUMNS " FROM job_run WHERE ended = 0 AND at <= $1 "
                                           "ORDER BY 1, 2"};
inline constexpr PostgresStatement gone = {"job_gone", "SELECT id FROM job_gone WHERE at > $1 ORDER BY id"};
inline constexpr PostgresStatement owed = {"job_owed", "SELECT job FROM job_owed ORDER BY job"};
inline constexpr PostgresStatement dropped = {"job_dropped", "SELECT definition FROM job_dropped ORDER BY definition"};
#define IS_AWAY(SECONDS) "seen < clock_timestamp() - " SECONDS "::bigint * interval '1 second'"
#define IS_NOT_HEARD(SECONDS) "host NOT IN (SELECT host FROM job_daemon WHERE NOT " IS_AWAY(SECONDS) ")"
inline constexpr PostgresStatement hosts_away = {
    "job_hosts_away", "SELECT DISTINCT host FROM job WHERE host <> ''::bytea AND " IS_NOT_HEARD("$1") " ORDER BY host"};
inline constexpr PostgresStatement others_heard = {
    "job_others_heard",
    "SELECT host, greatest(extract(epoch FROM clock_timestamp() - seen), 0)::bigint FROM job_daemon "
    "WHERE host <> $1 AND NOT " IS_AWAY("$2") " ORDER BY host"};
inline constexpr PostgresStatement set_host = {"job_set_host",
                                               "UPDATE job SET host = $2, at = $3 WHERE id = $1 RETURNING 1"};
inline constexpr PostgresStatement lost = {
    "job_lost", "SELECT " RUN_COLUMNS " FROM job_run WHERE ended = 0 AND " IS_NOT_HEARD("$1") " ORDER BY job"};
inline constexpr PostgresStatement is_lost = {
    "job_is_lost", "SELECT 1 FROM job_run WHERE job = $1 AND started = $2 AND ended = 0 AND " IS_NOT_HEARD("$3")};
inline constexpr PostgresStatement bodies = {"job_bodies", "SELECT id, body FROM job ORDER BY id"};

inline constexpr PostgresStatement namesake = {
    "job_namesake", "SELECT 1 FROM job WHERE sha256(name) = sha256($1) AND name <> ''::bytea AND id <> $2"};
inline constexpr PostgresStatement was_dropped = {"job_was_dropped",
                                                  "SELECT 1 FROM job_dropped WHERE sha256(definition) = sha256($1)"};
// Whether a job would, by whatever way, follow itself.
inline constexpr PostgresStatement goes_round = {
    "job_goes_round",
    "WITH RECURSIVE way (id) AS (SELECT $2::bigint UNION SELECT follows FROM job JOIN way USING (id)) "
    "SELECT 1 FROM way WHERE id = $1"};
inline constexpr PostgresStatement add = {
    "job_add",
    "INSERT INTO job (at, id, mark, follows, owner, created_when, changed_when, considered, changed_start, predefined, "
    "body, name, host, created_who, created_where, changed_who, changed_where, definition) "
    "SELECT $1::bigint, * FROM unnest($2::bigint[], $3::bigint[], $4::bigint[], $5::bigint[], $6::bigint[], "
    "$7::bigint[], $8::bigint[], $9::bigint[], $10::bigint[], $11::bytea[], $12::bytea[], $13::bytea[], $14::bytea[], "
    "$15::bytea[], $16::bytea[], $17::bytea[], $18::bytea[])"};
inline constexpr PostgresStatement change = {
    "job_change",
    "UPDATE job SET at = $2, body = $3, mark = $4, name = $5, follows = $6, owner = $7, changed_who = $8, "
    "changed_where = $9, changed_when = $10, considered = greatest(considered, $11), "
    "changed_start = $12 WHERE id = $1 AND $13::bigint IN (0, mark) RETURNING 1"};
inline constexpr PostgresStatement is_there = {"job_is_there", "SELECT 1 FROM job WHERE id = $1"};
// $3 mark, $4 the start of its last change, each 0 for any, $5 whether it is only removed while it does not run. A job
// that was moved in may have the number of one that has gone.
inline constexpr PostgresStatement remove = {
    "job_remove", "WITH gone AS (DELETE FROM job WHERE id = $1 AND $3::bigint IN (0, mark) AND $4::bigint IN (0, "
                  "changed_start) AND ($5::bigint = 0 OR NOT EXISTS (SELECT 1 FROM job_run WHERE job = $1 AND "
                  "ended = 0)) RETURNING id, definition), "
                  "dropped AS (INSERT INTO job_dropped SELECT definition FROM gone WHERE definition <> ''::bytea "
                  "ON CONFLICT DO NOTHING) INSERT INTO job_gone SELECT id, $2::bigint FROM gone "
                  "ON CONFLICT (id) DO UPDATE SET at = excluded.at RETURNING 1"};
inline constexpr PostgresStatement clear = {
    "job_clear", "WITH gone AS (DELETE FROM job RETURNING id) INSERT INTO job_gone SELECT id, $1::bigint FROM gone "
                 "ON CONFLICT (id) DO UPDATE SET at = excluded.at"};
inline constexpr PostgresStatement drop_gone = {"job_drop_gone", "DELETE FROM job_gone WHERE at <= $1"};
inline constexpr PostgresStatement forget_dropped = {"job_forget_dropped",
                                                     "DELETE FROM job_dropped WHERE sha256(definition) = sha256($1)"};
inline constexpr PostgresStatement set_acl = {"job_set_acl", "UPDATE scheduler SET acl = $1"};
inline constexpr PostgresStatement note = {
    "job_note", "INSERT INTO job_change (number, time, job, who, place, what, job_name, fields) SELECT * FROM "
                "unnest($1::bigint[], $2::bigint[], $3::bigint[], $4::bytea[], $5::bytea[], $6::bytea[], $7::bytea[], "
                "$8::bytea[])"};
inline constexpr PostgresStatement drop_notes = {"job_drop_notes", "DELETE FROM job_change WHERE number <= $1"};
#define NOTE_COLUMNS "SELECT number, who, place, time, what, job, job_name, fields FROM job_change WHERE "
inline constexpr PostgresStatement all_notes = {"job_all_notes",
                                                NOTE_COLUMNS "number < $1 ORDER BY number DESC LIMIT $2"};
inline constexpr PostgresStatement notes = {"job_notes",
                                            NOTE_COLUMNS "job = $3 AND number < $1 ORDER BY number DESC LIMIT $2"};

// All that a beginning hangs on is looked at where it is written down; $1 job, $2 started, $3 due, $4 this host, $5 the
// generation of its daemon, $6 mark, $7 whether it has to be owed, $8 the number of the change. None: it is not this
// daemon's to begin.
inline constexpr PostgresStatement begin = {
    "job_begin",
    "WITH wanted AS (SELECT id, considered, EXISTS (SELECT 1 FROM job_run WHERE job = $1 AND ended = 0) AS runs, "
    "EXISTS (SELECT 1 FROM job_owed WHERE job = $1) AS owed, "
    "coalesce((SELECT max(started) FROM job_run WHERE job = $1), 0) AS last FROM job WHERE id = $1 "
    "AND $6::bigint IN (0, mark) AND host IN (''::bytea, $4::bytea) "
    "AND EXISTS (SELECT 1 FROM job_daemon WHERE host = $4 AND generation = $5)), "
    "judged AS (SELECT id, last, CASE WHEN $3::bigint <> 0 AND considered >= $3 THEN 1 "
    "WHEN $7::bigint <> 0 AND NOT owed THEN 1 WHEN runs THEN 2 ELSE 0 END::bigint AS refusal FROM wanted), "
    "begun AS (INSERT INTO job_run (job, started, at, due, host, ended, exit_status, process_id, messages, to_end) "
    "SELECT id, greatest($2::bigint, last + 1), $8::bigint, $3, $4, 0, 0, ''::bytea, ''::bytea, 0 FROM judged "
    "WHERE refusal = 0 RETURNING started), "
    "considered AS (UPDATE job SET considered = greatest(considered, $3), at = $8 FROM judged WHERE job.id = judged.id "
    "AND refusal <> 1), "
    "paid AS (DELETE FROM job_owed USING judged WHERE job = id AND refusal = 0) "
    "SELECT refusal, coalesce((SELECT started FROM begun), 0) FROM judged"};
inline constexpr PostgresStatement forget = {
    "job_forget", "WITH gone AS (DELETE FROM job_run WHERE job = $1 AND started = $2 AND ended = 0 AND host = $3 "
                  "AND EXISTS (SELECT 1 FROM job_daemon WHERE host = $3 AND generation = $6) "
                  "RETURNING job) UPDATE job SET considered = $4, at = $5 FROM gone WHERE id = job RETURNING 1"};
// What it was before: one that another daemon has given up is told of late, and its followers have gone on.
inline constexpr PostgresStatement end = {
    "job_end", "WITH before AS (SELECT ended FROM job_run WHERE job = $1 AND started = $2), "
               "done AS (UPDATE job_run SET ended = $3, exit_status = $4, process_id = $5, messages = $6, at = $7 "
               "WHERE job = $1 AND started = $2), seen AS (UPDATE job SET at = $7 WHERE id = $1) "
               "SELECT ended FROM before"};
inline constexpr PostgresStatement keep_youngest = {
    "job_keep_youngest", "DELETE FROM job_run WHERE job = $1 AND ended <> 0 AND started < (SELECT started FROM job_run "
                         "WHERE job = $1 AND ended <> 0 ORDER BY started DESC OFFSET $2 LIMIT 1)"};
inline constexpr PostgresStatement owe = {
    "job_owe", "INSERT INTO job_owed SELECT id FROM job WHERE id = $1 ON CONFLICT DO NOTHING"};
// What follows it, whichever daemon has made it follow.
inline constexpr PostgresStatement owe_followers = {
    "job_owe_followers", "INSERT INTO job_owed SELECT id FROM job WHERE follows = $1 AND follows <> 0 ORDER BY id "
                         "ON CONFLICT (job) DO UPDATE SET job = excluded.job RETURNING job"};
inline constexpr PostgresStatement pass_over = {
    "job_pass_over", "UPDATE job SET considered = $2, at = $3 WHERE id = $1 AND considered < $2 AND ($4::bigint = 0 OR "
                     "EXISTS (SELECT 1 FROM job_run WHERE job = $1 AND ended = 0)) RETURNING 1"};
inline constexpr PostgresStatement pay = {
    "job_pay", "DELETE FROM job_owed WHERE job = $1 AND ($2::bigint = 0 OR EXISTS (SELECT 1 FROM "
               "job_run WHERE job = $1 AND ended = 0)) RETURNING 1"};
inline constexpr PostgresStatement want_end = {
    "job_want_end", "WITH wanted AS (UPDATE job_run SET to_end = 1, at = $3 WHERE job = $1 AND started = $2 AND "
                    "ended = 0 RETURNING job) UPDATE job SET at = $3 FROM wanted WHERE id = job RETURNING 1"};
inline constexpr PostgresStatement put_run = {
    "job_put_run",
    "INSERT INTO job_run (job, started, at, due, host, ended, exit_status, process_id, messages, to_end) "
    "VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, 0)"};
inline constexpr PostgresStatement drop = {"job_drop", "INSERT INTO job_dropped VALUES ($1) ON CONFLICT DO NOTHING"};
inline constexpr PostgresStatement last_number = {"job_last_number", "SELECT last_job FROM scheduler"};
inline constexpr PostgresStatement last_transaction = {"job_last_transaction",
                                                       "SELECT transaction FROM job_writer WHERE name = $1"};

#undef RUN_COLUMNS
#undef IS_NOT_HEARD
#undef IS_AWAY
#undef NOTE_COLUMNS

} // namespace velia::server::job_statements
