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

typedef struct pfm_frame {
    struct pfm_frame *outer;
    sigjmp_buf jump;
    int32_t code;          /* what sigsetjmp gave: 0 on the way in, the raise's code on a landing */
    int32_t inhibit_depth; /* the thread's depth when the frame was opened; a landing restores it */
} pfm_frame_t;

int pfm_cleanup_start(pfm_frame_t *frame, int reserved);
void pfm_cleanup_rls(pfm_frame_t *frame);
PFM_NORETURN void pfm_raise(int code, ...);

void pfm_inhibit(void);
void pfm_enable(void);

/*
 * Raises in the calling thread as an event from outside would: at once, or, in a stretch between pfm_inhibit and
 * pfm_enable, at the outermost pfm_enable. May be called from a signal handler. Returns only when deferred.
 */
void pfm_post_raise(int code);

PFM_NORETURN void pfm_panic(const char *source_file, int line);
PFM_NORETURN void pfm_assert_fail(const char *expression, const char *source_file, int line);

void pfm_on_exit(void (*function)(void *), void *argument);

#ifdef __cplusplus
}
#endif
#endif
