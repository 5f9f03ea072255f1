/*
 * Tasks: the programs that a scheduler's jobs may run.
 *
 *     sched_task_id_t task = 0;
 *     if (sched_task_name_to_id(scheduler, "nightly build", &task) == TBS_ST_OK)
 *         job.task = task;
 *
 * Statuses, outputs and threads are as <veliaxdr/sched_handle.h> tells.
 */
#ifndef VELIAXDR_SCHED_TASKS_H
#define VELIAXDR_SCHED_TASKS_H

#include <veliaxdr/sched_handle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* All tasks. Released by sched_free_tasks, which clears the slot; a null array is harmless. */
tbs_status_t sched_get_tasks(sched_h_t handle, uint32_t *count, sched_task_properties_t **tasks);
void sched_free_tasks(sched_h_t handle, uint32_t count, sched_task_properties_t **tasks);

tbs_status_t sched_task_exists(sched_h_t handle, sched_task_id_t id, tbs_boolean_t *exists);
tbs_status_t sched_task_name_to_id(sched_h_t handle, const char *name, sched_task_id_t *id);

/*
 * A task's name into `name` of `size` bytes, cut to what fits with its terminator; a size of 0 writes nothing. The
 * server is told the size.
 */
tbs_status_t sched_task_id_to_name(sched_h_t handle, sched_task_id_t id, uint32_t size, char *name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
