// The event loop, on libuv. It comes into being at first use. A raise from a callback must not unwind through libuv's
// own frames, so each callback runs inside a clean-up frame: a raise stops the loop and goes on from rt_run.
//
// libuv's loop belongs to the thread that runs it. What another thread asks for meanwhile is queued and taken up there.
#include <support/rt.h>

#include <cerrno>
#include <cstdlib>
#include <sys/epoll.h>
#include <unistd.h>

#include <pthread.h>
#include <setjmp.h>
#include <uv.h>

#include <support/pfm.h>

struct rt_event {
    union {
        uv_handle_t handle;
        uv_timer_t timer;
        uv_poll_t poll;
    };
    void (*function)(void *);
    void *argument;
    uint64_t due_ms; // of a timer, on libuv's clock
    int descriptor;  // -1 for a timer
    bool started;
    bool cancelled;
    rt_event *next; // in the queue, or among the watches
};

namespace {

uv_loop_t loop;
uv_async_t wake_up;
bool loop_is_made;
bool loop_is_running;
pthread_t loop_thread;
int raised_code; // by a callback of the current run, 0 for none
rt_event *queue; // asked for and not yet started
rt_event *watches;
pthread_mutex_t loop_mutex = PTHREAD_MUTEX_INITIALIZER; // guards all above but the insides of a running loop

template <class Body>
auto locked(Body &&body) {
    pthread_mutex_lock(&loop_mutex);
    const auto result = body();
    pthread_mutex_unlock(&loop_mutex);
    return result;
}

bool may_touch_loop() {
    return !loop_is_running || pthread_equal(loop_thread, pthread_self());
}

[[gnu::noinline]] void call(void (*function)(void *), void *argument) {
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0)) {
        raised_code = frame.code;
        uv_stop(&loop);
        return;
    }
    function(argument);
    pfm_cleanup_rls(&frame);
}

void free_event(uv_handle_t *handle) {
    free(handle->data);
}

void close_event(rt_event *event) {
    uv_close(&event->handle, free_event);
}

void timer_is_due(uv_timer_t *timer) {
    auto *event = static_cast<rt_event *>(timer->data);
    void (*function)(void *) = event->function;
    void *argument = event->argument;
    // One shot: the event is gone before its function runs, which may arm another.
    close_event(event);
    call(function, argument);
}

void descriptor_is_readable(uv_poll_t *poll, int /*status*/, int /*events*/) {
    const auto *event = static_cast<rt_event *>(poll->data);
    call(event->function, event->argument);
}

uint64_t clock_ms() {
    return uv_hrtime() / 1000000;
}

void start_timer(rt_event *event) {
    uv_timer_init(&loop, &event->timer);
    event->timer.data = event;
    event->started = true;
    uv_update_time(&loop);
    const uint64_t now_ms = clock_ms();
    uv_timer_start(&event->timer, timer_is_due, event->due_ms > now_ms ? event->due_ms - now_ms : 0, 0);
}

void start_watch(rt_event *event) {
    if (uv_poll_init(&loop, &event->poll, event->descriptor) != 0) {
        free(event);
        return;
    }
    event->poll.data = event;
    event->started = true;
    event->next = watches;
    watches = event;
    uv_poll_start(&event->poll, UV_READABLE | UV_DISCONNECT, descriptor_is_readable);
}

// With the mutex held, in the loop's thread.
void start_queued() {
    while (queue != nullptr) {
        rt_event *event = queue;
        queue = event->next;
        if (event->cancelled)
            free(event);
        else if (event->descriptor < 0)
            start_timer(event);
        else
            start_watch(event);
    }
}

void woken_up(uv_async_t * /*unused*/) {
    locked([] {
        start_queued();
        return 0;
    });
}

bool make_loop() {
    if (loop_is_made)
        return true;
    if (uv_loop_init(&loop) != 0)
        return false;
    if (uv_async_init(&loop, &wake_up, woken_up) != 0) {
        uv_loop_close(&loop);
        return false;
    }
    // Being ready for other threads is no reason to stay in the loop.
    uv_unref(reinterpret_cast<uv_handle_t *>(&wake_up));
    loop_is_made = true;
    return true;
}

rt_event *make_event(void (*function)(void *), void *argument, int descriptor) {
    auto *event = static_cast<rt_event *>(calloc(1, sizeof(rt_event)));
    if (event != nullptr) {
        event->function = function;
        event->argument = argument;
        event->descriptor = descriptor;
    }
    return event;
}

// With the mutex held.
rt_event *enqueue(rt_event *event) {
    if (event == nullptr || !make_loop()) {
        free(event);
        return nullptr;
    }
    event->next = queue;
    queue = event;
    if (may_touch_loop())
        start_queued();
    else
        uv_async_send(&wake_up);
    return event;
}

bool can_be_watched(int descriptor) {
    const int poller = epoll_create1(EPOLL_CLOEXEC);
    if (poller < 0)
        return false;
    epoll_event events = {};
    events.events = EPOLLIN;
    const bool accepted = epoll_ctl(poller, EPOLL_CTL_ADD, descriptor, &events) == 0;
    close(poller);
    return accepted;
}

void forget(int descriptor) {
    for (rt_event *event = queue; event != nullptr; event = event->next)
        if (event->descriptor == descriptor)
            event->cancelled = true;
    for (rt_event **link = &watches; *link != nullptr;) {
        rt_event *event = *link;
        if (event->descriptor != descriptor) {
            link = &event->next;
            continue;
        }
        *link = event->next;
        uv_poll_stop(&event->poll);
        close_event(event);
    }
}

} // namespace

rt_event_t rt_sched(void (*function)(void *), void *argument, int seconds) {
    rt_event *event = make_event(function, argument, -1);
    if (event == nullptr)
        return nullptr;
    event->due_ms = clock_ms() + (seconds > 0 ? static_cast<uint64_t>(seconds) * 1000 : 0);
    return locked([&] { return enqueue(event); });
}

void rt_cancel(rt_event_t event) {
    locked([&] {
        if (event->started)
            close_event(event);
        else
            event->cancelled = true;
        return 0;
    });
}

int rt_handle_fd(int direction, void (*function)(void *), int descriptor, void *argument) {
    if (direction != RT_READ || descriptor < 0 || !can_be_watched(descriptor))
        return 0;
    return locked([&] { return enqueue(make_event(function, argument, descriptor)) != nullptr; });
}

void rt_forget_fd(int descriptor) {
    locked([&] {
        forget(descriptor);
        return 0;
    });
}

int rt_run(void) {
    const bool ready = locked([] {
        if (!make_loop())
            return false;
        loop_is_running = true;
        loop_thread = pthread_self();
        start_queued();
        return true;
    });
    if (!ready)
        return -1;
    raised_code = 0;
    const int left = uv_run(&loop, UV_RUN_DEFAULT);
    locked([] {
        loop_is_running = false;
        return 0;
    });
    if (raised_code != 0)
        pfm_raise(raised_code);
    return left;
}

void rt_stop(void) {
    locked([] {
        if (loop_is_made)
            uv_stop(&loop);
        return 0;
    });
}
