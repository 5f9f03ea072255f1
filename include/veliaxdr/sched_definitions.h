/*
 * Definitions of jobs and tasks, as people keep them in files.
 *
 *     uint32_t number = 0;
 *     sched_job_properties_t *jobs = NULL;
 *     char **followed = NULL;
 *     if (sched_utl_parse_job_properties(scheduler, "nightly.jobs", &number, &jobs, &followed) == TBS_ST_OK) {
 *         for (uint32_t i = 0; i < number; ++i)
 *             printf("%s behind %s\n", jobs[i].rw.name, followed[i] != NULL ? followed[i] : "none");
 *         sched_utl_free_extra_job_infos(scheduler, number, &followed);
 *         sched_free_jobs(scheduler, number, &jobs);
 *     }
 *
 * A file is a sequence of definitions. Each begins with the line "Job.Begin" or "Task.Begin" and ends with "Job.End" or
 * "Task.End"; between them stand lines that begin with a tag, whose case does not count, and go on with its value.
 * Lines without a word, and those whose first word begins with "#", are passed over, but within a description. What the
 * printers of <veliaxdr/sched_print.h> write is mostly read again.
 *
 * A file is read whole or not at all: the first thing that is wrong ends it, told by the number of its line and in
 * words. Only a definition whose id or name one before it in the file has already taken is told and passed over.
 *
 * A file that is none, or has more than 64 MiB, is refused. A line of more than 1999 characters comes in pieces of that
 * length, each of which counts as a line.
 */
#ifndef VELIAXDR_SCHED_DEFINITIONS_H
#define VELIAXDR_SCHED_DEFINITIONS_H

#include <stdint.h>

#include <veliaxdr/sched_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Reads the jobs of a file. Every job has been checked as sched_utl_validate_job_rw_properties does without a server,
 * so each has a name, a schedule and a task. A task that stands there by its name is looked up at the scheduler, in one
 * call of the handle's for each such job; a text that begins with a digit is an id. Where the scheduler answers that it
 * knows no such task, that is told and the file ends there, with what came before it and TBS_ST_OK.
 *
 * On success *count, *jobs and *extra_job_infos are written and the caller's, to be released with sched_free_jobs and
 * sched_utl_free_extra_job_infos; a file without jobs gives 0 and nulls. Element i of *extra_job_infos is the name of
 * the job that job i follows, where the file gives that by its name, and else null; the job's own record then has no id
 * of one. On failure nothing is written.
 *
 *   TBS_ST_ERROR        the file says what no definition may say
 *   TBS_ST_INVALID_ARG  a job has not passed the checks
 *   TBS_ST_NO_MEMORY    no storage
 *   others              of the file, by its errno value, or of the look-up of a task
 */
tbs_status_t sched_utl_parse_job_properties(sched_h_t handle, const char *path, uint32_t *count,
                                            sched_job_properties_t **jobs, char ***extra_job_infos);

/* Releases what came beside `count` jobs and clears *extra_job_infos; a null there does nothing. */
void sched_utl_free_extra_job_infos(sched_h_t handle, uint32_t count, char ***extra_job_infos);

/*
 * Reads the tasks of a file. Ids are not 0. No server is asked; the handle, which may be null, only serves to release.
 * On success *count and *tasks are the caller's, to be released with sched_free_tasks; a file without tasks gives 0 and
 * null. On failure nothing is written. The identity to run as is never read, and stays none.
 */
tbs_status_t sched_utl_parse_task_properties(sched_h_t handle, const char *path, uint32_t *count,
                                             sched_task_properties_t **tasks);

/*
 * How files are read by those who keep sets of definitions. Beside what the two calls above do
 *
 *  - a task's name is found by `find_task`, and no server is asked; what is no TBS_ST_OK ends the file and is told;
 *  - a job that another has anticipated, and a task that is not found, refuse the file;
 *  - lines that begin with "Job.RunCntl." hold what no other line can: doc/definitions.md tells of them. The calls
 * above pass over them.
 */
typedef struct sched_reading {
    tbs_status_t (*find_task)(void *context, const char *name, sched_task_id_t *id);
    /* A definition has been taken, which stands on these lines. Null: nobody wants to know. */
    void (*took)(void *context, uint32_t first_line, uint32_t last_line);
    void *context;
    /* Out, and true at any moment, so that whoever hears a message knows its line. */
    uint32_t first_line; /* of the definition that was begun last; 0: none */
    uint32_t line;       /* that was read last */
} sched_reading_t;

/* As sched_utl_parse_job_properties, with `reading`. The handle, which may be null, only serves to release. */
tbs_status_t sched_utl_read_job_definitions(sched_h_t handle, const char *path, sched_reading_t *reading,
                                            uint32_t *count, sched_job_properties_t **jobs, char ***extra_job_infos);

/* As sched_utl_parse_task_properties, with `reading`, whose `find_task` is not used. */
tbs_status_t sched_utl_read_task_definitions(sched_h_t handle, const char *path, sched_reading_t *reading,
                                             uint32_t *count, sched_task_properties_t **tasks);

/*
 * What a definition of a job may have: the tags that its lines begin with, in the order in which they are tried, and
 * what is done with such a line; null: nothing. The state is the parser's own. Data for those who want to know the
 * tags.
 */
typedef struct parse_state parse_state_t;
typedef tbs_status_t (*parse_action_t)(parse_state_t *state, const char *tag, char *value);
typedef struct parse_tag_action {
    const char *tag;
    parse_action_t action;
} parse_tag_action_t;

enum { NUM_TOP_TAG_ACTIONS = 15 };
extern const parse_tag_action_t top_tag_actions[NUM_TOP_TAG_ACTIONS];
extern const uint32_t num_top_tag_actions;

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
