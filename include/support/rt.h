/*
 * The event loop of a process: one-shot timers and readable descriptors.
 *
 *     rt_event_t timer = rt_sched(close_idle, NULL, 60);
 *     rt_handle_fd(RT_READ, take_request, listener, NULL);
 *     rt_run();
 *
 * The loop comes into being with its first use. It belongs to one thread, the one that calls rt_run: timers and
 * descriptors may be added before that thread runs the loop, and in it. From other threads, rt_sched and rt_handle_fd
 * may be called at any time: what they add takes effect at once if the loop is running. A process that never calls
 * rt_run may arm events as it likes; they simply do not fire.
 */
#ifndef VELIA_SUPPORT_RT_H
#define VELIA_SUPPORT_RT_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum { RT_READ = 0 };

typedef struct rt_event *rt_event_t;

/*
 * Arms a timer that calls `function` with `argument` once, in the loop, after `seconds` (negative counts as 0).
 * Returns its handle, which is void once the function has been called; null without memory or a loop. A loop that could
 * not be made, for want of descriptors, is tried for again by the next call.
 */
rt_event_t rt_sched(void (*function)(void *), void *argument, int seconds);

/* Takes back a timer that has not fired; its function is not called. Null is ignored. */
void rt_cancel(rt_event_t event);

/*
 * Calls `function` with `argument` in the loop whenever `descriptor` is readable, which includes its end of file and
 * errors, until rt_forget_fd. `direction` is RT_READ. Watching a descriptor again replaces its function. The
 * descriptor becomes non-blocking. Returns non-zero on success, 0 for another direction, a descriptor that cannot be
 * watched (closed, or a plain file), or without memory.
 */
int rt_handle_fd(int direction, void (*function)(void *), int descriptor, void *argument);

/*
 * Stops watching `descriptor`; to be called before it is closed, and only in the thread that sits in the loop, or while
 * none does. One that is not watched is ignored.
 */
void rt_forget_fd(int descriptor);

/*
 * Sits in the loop until rt_stop, or until nothing is left to wait for, and returns 0; non-zero if there is no loop or
 * the calling thread or another one sits in it already. A raise that leaves a called function ends the loop and is
 * raised again from here with the same code.
 */
int rt_run(void);

/*
 * Makes rt_run return after the function being called now; without one running, makes the next rt_run return at once.
 * May be called from any thread and from a signal handler.
 */
void rt_stop(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
