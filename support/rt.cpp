// The event loop on libuv. libuv's loop belongs to the thread that runs it, while events come from any thread; so every
// event is put on a list under a lock and the loop's thread takes it from there, woken if it is waiting.
#include <support/rt.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>

#include <support/pfm.h>

#include "forked_locks.h"

namespace {

// What the loop's thread has yet to do with an event.
enum class Order { none, start, close };

} // namespace

struct rt_event {
    rt_event *next_ordered;
    rt_event *next_watched; // of descriptors
    Order order;
    bool is_ordered; // stands on the list of orders
    bool is_running; // libuv knows it
    bool is_timer;
    void (*function)(void *);
    void *argument;
    int descriptor;
    uint64_t due_ms; // on the loop's clock
    union {
        uv_handle_t handle;
        uv_timer_t timer;
        uv_poll_t poll;
    };
};

namespace {

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
rt_event *orders;  // under the lock
rt_event *watched; // under the lock: the descriptors in force
bool is_running;   // under the lock

uv_loop_t loop;
uv_async_t waker;
int loop_is_ready;
int stop_is_wanted;
int raised_code; // of the loop's thread

class Locked {
public:
    Locked() {
        velia::support::free_in_children(lock);
        pthread_mutex_lock(&lock);
    }
    ~Locked() { pthread_mutex_unlock(&lock); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
};

uint64_t now_ms() {
    return uv_hrtime() / 1'000'000;
}

// A raise may not unwind through libuv: it ends the loop here and goes on from rt_run.
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

void release_event(uv_handle_t *handle) {
    free(handle->data);
}

// The loop's thread is done with the event. It is released at once if libuv never knew it.
void close_event(rt_event *event) {
    if (event->is_running)
        uv_close(&event->handle, release_event);
    else
        free(event);
}

void on_timer(uv_timer_t *timer) {
    auto *event = static_cast<rt_event *>(timer->data);
    {
        const Locked locked;
        if (event->is_ordered) // taken back meanwhile; its order releases it
            return;
    }
    void (*function)(void *) = event->function;
    void *argument = event->argument;
    close_event(event);
    call(function, argument);
}

bool is_to_be_closed(const rt_event *event) {
    const Locked locked;
    return event->order == Order::close;
}

// Errors of the descriptor are for the function to find by reading.
void on_readable(uv_poll_t *poll, int status, int) {
    auto *event = static_cast<rt_event *>(poll->data);
    void (*function)(void *);
    void *argument;
    {
        const Locked locked;
        if (event->order == Order::close)
            return;
        function = event->function;
        argument = event->argument;
    }
    call(function, argument);
    // libuv stops at an error of the descriptor; it is watched until it is forgotten.
    if (status < 0 && !is_to_be_closed(event))
        uv_poll_start(poll, UV_READABLE | UV_DISCONNECT, on_readable);
}

void start_timer(rt_event *event) {
    uv_timer_init(&loop, &event->timer);
    event->timer.data = event;
    event->is_running = true;
    const uint64_t now = now_ms();
    uv_update_time(&loop);
    uv_timer_start(&event->timer, on_timer, event->due_ms > now ? event->due_ms - now : 0, 0);
}

void start_watching(rt_event *event) {
    if (uv_poll_init(&loop, &event->poll, event->descriptor) != 0)
        return;
    event->poll.data = event;
    event->is_running = true;
    uv_poll_start(&event->poll, UV_READABLE | UV_DISCONNECT, on_readable);
}

rt_event *take_orders() {
    const Locked locked;
    rt_event *taken = orders;
    orders = nullptr;
    return taken;
}

Order take_order(rt_event *event) {
    const Locked locked;
    event->is_ordered = false;
    return event->order;
}

// Orders stand newest first. Of one descriptor the older watch has to be closed before the newer is started.
rt_event *oldest_first(rt_event *newest) {
    rt_event *list = nullptr;
    while (newest != nullptr) {
        rt_event *next = newest->next_ordered;
        newest->next_ordered = list;
        list = newest;
        newest = next;
    }
    return list;
}

void carry_out_orders() {
    rt_event *event = oldest_first(take_orders());
    while (event != nullptr) {
        rt_event *next = event->next_ordered;
        if (take_order(event) == Order::close)
            close_event(event);
        else if (event->is_timer)
            start_timer(event);
        else
            start_watching(event);
        event = next;
    }
}

void on_wake(uv_async_t *) {
    carry_out_orders();
    if (__atomic_load_n(&stop_is_wanted, __ATOMIC_ACQUIRE) != 0)
        uv_stop(&loop);
}

// libuv ends the process where it cannot have the descriptors of a first loop, six of them: so they are tried for
// first.
bool has_descriptors_for_loop() {
    constexpr int pipes = 4;
    int ends[pipes][2];
    int made = 0;
    while (made < pipes && pipe2(ends[made], O_CLOEXEC) == 0)
        ++made;
    for (int i = 0; i < made; ++i) {
        close(ends[i][0]);
        close(ends[i][1]);
    }
    return made == pipes;
}

// Under the lock. The waker alone keeps nobody waiting.
void make_loop() {
    if (!has_descriptors_for_loop() || uv_loop_init(&loop) != 0)
        return;
    if (uv_async_init(&loop, &waker, on_wake) != 0) {
        uv_loop_close(&loop);
        return;
    }
    uv_unref(reinterpret_cast<uv_handle_t *>(&waker));
    __atomic_store_n(&loop_is_ready, 1, __ATOMIC_RELEASE);
}

bool is_loop_ready() {
    return __atomic_load_n(&loop_is_ready, __ATOMIC_ACQUIRE) != 0;
}

// A loop that cannot be made now is tried for again by the next who needs it.
bool has_loop() {
    if (is_loop_ready())
        return true;
    const Locked locked;
    if (!is_loop_ready())
        make_loop();
    return is_loop_ready();
}

// Under the lock.
void give_order(rt_event *event, Order order) {
    event->order = order;
    if (event->is_ordered)
        return;
    event->is_ordered = true;
    event->next_ordered = orders;
    orders = event;
}

rt_event *new_event(void (*function)(void *), void *argument) {
    auto *event = static_cast<rt_event *>(calloc(1, sizeof(rt_event)));
    if (event != nullptr) {
        event->function = function;
        event->argument = argument;
    }
    return event;
}

// Under the lock.
rt_event *unlink_watched(int descriptor) {
    for (rt_event **link = &watched; *link != nullptr; link = &(*link)->next_watched) {
        if ((*link)->descriptor == descriptor) {
            rt_event *event = *link;
            *link = event->next_watched;
            return event;
        }
    }
    return nullptr;
}

// The kernel does not tell when a plain file or a directory becomes readable.
bool can_be_watched(int descriptor) {
    struct stat status;
    return fstat(descriptor, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

bool begin_run() {
    const Locked locked;
    if (is_running)
        return false;
    is_running = true;
    return true;
}

void end_run() {
    const Locked locked;
    is_running = false;
}

} // namespace

rt_event_t rt_sched(void (*function)(void *), void *argument, int seconds) {
    constexpr uint64_t ms_per_s = 1000;
    if (!has_loop())
        return nullptr;
    rt_event *event = new_event(function, argument);
    if (event == nullptr)
        return nullptr;
    event->is_timer = true;
    event->due_ms = now_ms() + (seconds > 0 ? static_cast<uint64_t>(seconds) * ms_per_s : 0);
    {
        const Locked locked;
        give_order(event, Order::start);
    }
    uv_async_send(&waker);
    return event;
}

void rt_cancel(rt_event_t event) {
    if (event == nullptr)
        return;
    {
        const Locked locked;
        give_order(event, Order::close);
    }
    uv_async_send(&waker);
}

int rt_handle_fd(int direction, void (*function)(void *), int descriptor, void *argument) {
    if (direction != RT_READ || !can_be_watched(descriptor) || !has_loop())
        return 0;
    rt_event *event = new_event(function, argument);
    if (event == nullptr)
        return 0;
    event->descriptor = descriptor;
    {
        const Locked locked;
        rt_event *replaced = unlink_watched(descriptor);
        if (replaced != nullptr)
            give_order(replaced, Order::close);
        event->next_watched = watched;
        watched = event;
        give_order(event, Order::start);
    }
    uv_async_send(&waker);
    return 1;
}

void rt_forget_fd(int descriptor) {
    {
        const Locked locked;
        rt_event *event = unlink_watched(descriptor);
        if (event == nullptr)
            return;
        give_order(event, Order::close);
    }
    uv_async_send(&waker);
}

int rt_run(void) {
    if (!has_loop() || !begin_run())
        return 1;
    raised_code = 0;
    carry_out_orders();
    if (__atomic_exchange_n(&stop_is_wanted, 0, __ATOMIC_ACQ_REL) == 0)
        uv_run(&loop, UV_RUN_DEFAULT);
    __atomic_store_n(&stop_is_wanted, 0, __ATOMIC_RELEASE);
    const int code = raised_code;
    end_run();
    if (code != 0)
        pfm_raise(code);
    return 0;
}

void rt_stop(void) {
    __atomic_store_n(&stop_is_wanted, 1, __ATOMIC_RELEASE);
    if (__atomic_load_n(&loop_is_ready, __ATOMIC_ACQUIRE) != 0)
        uv_async_send(&waker);
}
