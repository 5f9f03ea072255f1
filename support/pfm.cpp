// Clean-up frames and raises. The chain of frames is per thread, and what a signal handler touches of it is lock-free
// and in static thread storage, so that pfm_post_raise never allocates.
#include <support/pfm.h>

#include <csignal>
#include <cstdlib>

#include <pthread.h>

#include <support/imsg.h>

#include "forked_locks.h"
#include "raise.h"

namespace {

struct ThreadState {
    pfm_frame_t *innermost;
    volatile sig_atomic_t inhibit_depth;
    volatile sig_atomic_t posted_code; // 0: none
};

__attribute__((tls_model("initial-exec"))) thread_local ThreadState state;

struct ExitAction {
    ExitAction *older;
    void (*function)(void *);
    void *argument;
};

pthread_mutex_t exit_lock = PTHREAD_MUTEX_INITIALIZER;
ExitAction *newest_exit_action;
bool exit_runner_registered;

ExitAction *take_newest_exit_action() {
    velia::support::free_in_children(exit_lock);
    pthread_mutex_lock(&exit_lock);
    ExitAction *action = newest_exit_action;
    if (action != nullptr)
        newest_exit_action = action->older;
    pthread_mutex_unlock(&exit_lock);
    return action;
}

// An action may register further ones; they run, too.
void run_exit_actions() {
    while (ExitAction *action = take_newest_exit_action()) {
        action->function(action->argument);
        free(action);
    }
}

// An unhandled raise never looks like success to whoever waits for the process.
[[noreturn]] void end_by_unhandled_raise(int code) {
    constexpr int exit_code_mask = 0xff;
    if (imsg_get_desired_verbosity() >= 1 && imsg_should_trace("pfm", 1))
        imsg_print(IMSG_TRACE, "unhandled raise %d\n", IMSG_FORMAT, code);
    const int exit_code = code & exit_code_mask;
    exit(exit_code != 0 ? exit_code : 1);
}

void deliver_posted_raise() {
    const int code = state.posted_code;
    if (code == 0)
        return;
    state.posted_code = 0;
    pfm_raise(code);
}

} // namespace

bool velia::support::raise_is_posted() {
    return state.posted_code != 0;
}

bool velia::support::raise_lands_next() {
    return state.posted_code != 0 && state.inhibit_depth == 1;
}

int pfm_cleanup_start(pfm_frame_t *frame, int) {
    if (frame->code != 0)
        return 1;
    frame->outer = state.innermost;
    frame->inhibit_depth = state.inhibit_depth;
    state.innermost = frame;
    return 0;
}

void pfm_cleanup_rls(pfm_frame_t *frame) {
    if (state.innermost != frame)
        pfm_assert_fail("frame is the innermost one", "pfm", __LINE__);
    state.innermost = frame->outer;
}

void pfm_raise(int code, ...) {
    pfm_frame_t *frame = state.innermost;
    if (frame == nullptr)
        end_by_unhandled_raise(code);
    state.innermost = frame->outer;
    state.inhibit_depth = frame->inhibit_depth;
    siglongjmp(frame->jump, code != 0 ? code : 1);
}

void pfm_inhibit(void) {
    state.inhibit_depth = state.inhibit_depth + 1;
}

void pfm_enable(void) {
    if (state.inhibit_depth <= 0)
        pfm_assert_fail("pfm_enable has its pfm_inhibit", "pfm", __LINE__);
    state.inhibit_depth = state.inhibit_depth - 1;
    if (state.inhibit_depth == 0)
        deliver_posted_raise();
}

void pfm_post_raise(int code) {
    const int effective_code = code != 0 ? code : 1;
    if (state.inhibit_depth == 0)
        pfm_raise(effective_code);
    if (state.posted_code == 0)
        state.posted_code = effective_code;
}

void pfm_panic(const char *source_file, int line) {
    imsg_print(IMSG_ERROR, "panic at %s, line %d\n", IMSG_FORMAT, source_file, line);
    abort();
}

void pfm_assert_fail(const char *expression, const char *source_file, int line) {
    imsg_print(IMSG_ERROR, "assertion failed: %s at %s, line %d\n", IMSG_FORMAT, expression, source_file, line);
    abort();
}

void pfm_on_exit(void (*function)(void *), void *argument) {
    auto *action = static_cast<ExitAction *>(malloc(sizeof(ExitAction)));
    if (action == nullptr) {
        imsg_print(IMSG_ERROR, "no memory to register an action for the end of the process\n", IMSG_FORMAT);
        return;
    }
    velia::support::free_in_children(exit_lock);
    pthread_mutex_lock(&exit_lock);
    *action = {newest_exit_action, function, argument};
    newest_exit_action = action;
    const bool is_first = !exit_runner_registered;
    exit_runner_registered = true;
    pthread_mutex_unlock(&exit_lock);
    if (is_first)
        atexit(run_exit_actions);
}
