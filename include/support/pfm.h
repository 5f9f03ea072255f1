/*
 * Clean-up frames, raises and fatal stops.
 *
 * A function that holds something when a raise passes through it opens a frame:
 *
 *     pfm_frame_t frame;
 *     frame.code = sigsetjmp(frame.jump, 1);
 *     if (pfm_cleanup_start(&frame, 0)) {
 *         release_what_is_held();
 *         pfm_raise(frame.code);
 *     }
 *     work();
 *     pfm_cleanup_rls(&frame);
 *
 * Frames form a chain per thread; every operation here concerns the calling thread only.
 */
#ifndef VELIA_SUPPORT_PFM_H
#define VELIA_SUPPORT_PFM_H

#include <setjmp.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define PFM_NORETURN [[noreturn]]
#else
#define PFM_NORETURN _Noreturn
#endif
#pragma GCC visibility push(default)

/*
 * Where C is compiled without the names of POSIX (-std=c11), a record may hold a frame, whose buffer is the same type
 * under both names; only a function that opens one needs them, by _POSIX_C_SOURCE or -std=gnu11.
 */
#ifdef sigsetjmp
typedef sigjmp_buf pfm_jump_t;
#else
typedef jmp_buf pfm_jump_t;
#endif

typedef struct pfm_frame {
    struct pfm_frame *outer;
    pfm_jump_t jump;
    int32_t code;          /* what sigsetjmp gave: 0 on the way in, the raise's code on a landing */
    int32_t inhibit_depth; /* the thread's depth when the frame was opened; a landing restores it */
} pfm_frame_t;

/*
 * Called right after sigsetjmp, with its result in frame->code. On the way in (code 0) makes `frame`, which the caller
 * keeps on its stack, the innermost one, notes the inhibit depth, and returns 0. On a landing returns non-zero: the
 * raise has already taken the frame off the chain. `reserved` is 0.
 */
int pfm_cleanup_start(pfm_frame_t *frame, int reserved);

/* Takes `frame` off the chain on the normal way out. It must be the innermost one; anything else ends the process. */
void pfm_cleanup_rls(pfm_frame_t *frame);

/*
 * Takes the innermost frame off the chain, restores the inhibit depth it noted and lands at its sigsetjmp with `code`
 * (1 for a code of 0). Destructors do not run; mutexes stay held. With no frame in the thread the process ends through
 * exit() with the code's low eight bits (1 if these are 0), exit handlers run, and only a trace ("pfm", level 1) tells.
 */
PFM_NORETURN void pfm_raise(int code, ...);

/*
 * Opens and closes a stretch in which a posted raise does not land. Stretches nest. pfm_enable at the outermost level
 * delivers what was posted meanwhile, and then does not return. One pfm_enable too many is a failed assertion.
 */
void pfm_inhibit(void);
void pfm_enable(void);

/*
 * Raises in the calling thread as an event from outside would: at once, or, in a stretch between pfm_inhibit and
 * pfm_enable, at the outermost pfm_enable. May be called from a signal handler. Returns only when deferred. Of several
 * raises posted in one stretch the first is delivered. A stretch that is left by pfm_raise keeps what was posted for
 * the end of the next one.
 */
void pfm_post_raise(int code);

/* Print "panic" or the failed expression with the place in the source to standard error, and abort(). */
PFM_NORETURN void pfm_panic(const char *source_file, int line);
PFM_NORETURN void pfm_assert_fail(const char *expression, const char *source_file, int line);

/*
 * Registers `function` to be called with `argument` at the end of the process, the last registered first. May be
 * called from any thread. Without memory for it the function will not run, which is printed as an error.
 */
void pfm_on_exit(void (*function)(void *), void *argument);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
