/*
 * The event loop of a process: one-shot timers and readable descriptors.
 */
#ifndef VELIA_SUPPORT_RT_H
#define VELIA_SUPPORT_RT_H

#ifdef __cplusplus
extern "C" {
#endif

enum { RT_READ = 0 };

typedef struct rt_event *rt_event_t;

rt_event_t rt_sched(void (*function)(void *), void *argument, int seconds);
int rt_handle_fd(int direction, void (*function)(void *), int descriptor, void *argument);

/* Sits in the loop until rt_stop, or until nothing is left to wait for. */
int rt_run(void);
void rt_stop(void);

#ifdef __cplusplus
}
#endif
#endif
