// Each handle lives in a heap record with its function; the owner's end clears the function and asks the loop to close.
#include <server/loop/handles.h>

#include <ctime>
#include <stdexcept>
#include <string>
#include <utility>

#include <server/loop/line_rate.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

void require_ok(int code, const char *what) {
    if (code != 0)
        throw std::runtime_error(std::string(what) + ": " + uv_strerror(code));
}

template <class State>
void close(State *state) {
    state->handle.data = state;
    uv_close(reinterpret_cast<uv_handle_t *>(&state->handle),
             [](uv_handle_t *handle) { delete static_cast<State *>(handle->data); });
}

template <class State>
void close_state(State *state) {
    state->function = nullptr;
    close(state);
}

// False where there was no memory for it. The function may end its owner, so a copy is called.
template <class Function, class... Arguments>
bool call_copy(const Function &function, Arguments... arguments) {
    try {
        if (const auto copy = function)
            copy(arguments...);
        return true;
    } catch (const std::bad_alloc &) {
        no_memory_for_event();
        return false;
    }
}

} // namespace

void no_memory_for_event() {
    if (may_tell_of_stranger())
        imsg_print(IMSG_ERROR, "There is no memory for what has come.\n", IMSG_FORMAT);
}

struct PollHandle::State {
    uv_poll_t handle;
    EventTarget target;
    int events; // that are watched
};

PollHandle::PollHandle(uv_loop_t *loop, int fd, EventTarget target) : state_(new State{{}, target, 0}) {
    const int code = uv_poll_init(loop, &state_->handle, fd);
    if (code != 0) {
        delete state_;
        require_ok(code, "uv_poll_init");
    }
    state_->handle.data = state_;
}

PollHandle::~PollHandle() {
    state_->target = {};
    close(state_);
}

void PollHandle::watch(int events) {
    if (std::exchange(state_->events, events) == events)
        return; // to begin it anew costs two system calls
    if (events == 0) {
        uv_poll_stop(&state_->handle);
        return;
    }
    uv_poll_start(&state_->handle, events, [](uv_poll_t *handle, int status, int ready) {
        auto *state = static_cast<State *>(handle->data);
        if (status < 0)
            state->events = 0; // the library has stopped it
        if (state->target.call != nullptr)
            state->target.call(state->target.owner, status < 0 ? UV_READABLE | UV_WRITABLE : ready);
    });
}

struct TimerHandle::State {
    uv_timer_t handle;
    std::function<void()> function;
};

TimerHandle::TimerHandle(uv_loop_t *loop, std::function<void()> on_time) : state_(new State{{}, std::move(on_time)}) {
    uv_timer_init(loop, &state_->handle);
    state_->handle.data = state_;
}

TimerHandle::~TimerHandle() {
    close_state(state_);
}

void TimerHandle::start(uint64_t delay_ms, uint64_t repeat_ms) {
    // What there was no memory for comes again, since nobody else would ask for it.
    constexpr uint64_t again_ms = 1000;
    const auto call = [](uv_timer_t *handle) {
        if (!call_copy(static_cast<State *>(handle->data)->function) &&
            uv_is_closing(reinterpret_cast<uv_handle_t *>(handle)) == 0 &&
            uv_is_active(reinterpret_cast<uv_handle_t *>(handle)) == 0)
            uv_timer_start(handle, handle->timer_cb, again_ms, 0);
    };
    uv_update_time(state_->handle.loop);
    uv_timer_start(&state_->handle, call, delay_ms, repeat_ms);
}

void TimerHandle::stop() {
    uv_timer_stop(&state_->handle);
}

struct RoundHandle::State {
    uv_idle_t handle;
    std::function<void()> function;
};

RoundHandle::RoundHandle(uv_loop_t *loop, std::function<void()> on_round) : state_(new State{{}, std::move(on_round)}) {
    uv_idle_init(loop, &state_->handle);
    state_->handle.data = state_;
}

RoundHandle::~RoundHandle() {
    close_state(state_);
}

void RoundHandle::start() {
    uv_idle_start(&state_->handle, [](uv_idle_t *handle) { call_copy(static_cast<State *>(handle->data)->function); });
}

void RoundHandle::stop() {
    uv_idle_stop(&state_->handle);
}

struct SignalHandle::State {
    uv_signal_t handle;
    std::function<void()> function;
};

SignalHandle::SignalHandle(uv_loop_t *loop, int signal_number, std::function<void()> on_signal)
    : state_(new State{{}, std::move(on_signal)}) {
    uv_signal_init(loop, &state_->handle);
    state_->handle.data = state_;
    const auto call = [](uv_signal_t *handle, int) { call_copy(static_cast<State *>(handle->data)->function); };
    require_ok(uv_signal_start(&state_->handle, call, signal_number), "uv_signal_start");
}

SignalHandle::~SignalHandle() {
    close_state(state_);
}

struct DirectoryWatch::State {
    uv_fs_event_t handle;
    std::function<void(const char *)> function;
};

DirectoryWatch::DirectoryWatch(uv_loop_t *loop, const char *directory, std::function<void(const char *)> on_change)
    : state_(new State{{}, std::move(on_change)}) {
    uv_fs_event_init(loop, &state_->handle);
    state_->handle.data = state_;
    uv_fs_event_start(
        &state_->handle,
        [](uv_fs_event_t *handle, const char *file_name, int, int status) {
            const auto *state = static_cast<State *>(handle->data);
            if (status == 0 && file_name != nullptr)
                call_copy(state->function, file_name);
        },
        directory, 0);
}

DirectoryWatch::~DirectoryWatch() {
    close_state(state_);
}

int64_t monotonic_ms() {
    constexpr int64_t ns_per_ms = 1000000;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now); // some milliseconds old, for a twentieth of the price
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / ns_per_ms;
}

} // namespace velia::server
