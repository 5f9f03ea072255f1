// libuv's handles with owners. A handle is closed by the loop after its owner is gone; until then it calls nobody.
#pragma once

#include <cstdint>
#include <functional>
#include <new>

#include <uv.h>

namespace velia::server {

// Whom the events of a descriptor are for: a member function that takes them, or nothing. It is on the road of every
// call, and so no more than two pointers.
struct EventTarget {
    void *owner;
    void (*call)(void *owner, int events);
};

// Tells, now and then, that an event came to nothing.
void no_memory_for_event();

template <auto member, class Owner>
EventTarget event_target(Owner &owner) {
    return {&owner, [](void *object, int events) {
                auto *receiver = static_cast<Owner *>(object);
                try {
                    if constexpr (requires { (receiver->*member)(events); })
                        (receiver->*member)(events);
                    else
                        (receiver->*member)();
                } catch (const std::bad_alloc &) {
                    no_memory_for_event();
                }
            }};
}

// Watches a descriptor, which has to outlive it.
class PollHandle {
public:
    PollHandle(uv_loop_t *loop, int fd, EventTarget target);
    ~PollHandle();
    PollHandle(const PollHandle &) = delete;
    PollHandle &operator=(const PollHandle &) = delete;

    // UV_READABLE, UV_WRITABLE, both, or 0 for neither.
    void watch(int events);

private:
    struct State;
    State *state_;
};

class TimerHandle {
public:
    TimerHandle(uv_loop_t *loop, std::function<void()> on_time);
    ~TimerHandle();
    TimerHandle(const TimerHandle &) = delete;
    TimerHandle &operator=(const TimerHandle &) = delete;

    // `repeat_ms` 0: once.
    void start(uint64_t delay_ms, uint64_t repeat_ms = 0);
    void stop();

private:
    struct State;
    State *state_;
};

// Called in each round of the loop while it is on, which does not wait meanwhile.
class RoundHandle {
public:
    RoundHandle(uv_loop_t *loop, std::function<void()> on_round);
    ~RoundHandle();
    RoundHandle(const RoundHandle &) = delete;
    RoundHandle &operator=(const RoundHandle &) = delete;

    void start();
    void stop();

private:
    struct State;
    State *state_;
};

class SignalHandle {
public:
    SignalHandle(uv_loop_t *loop, int signal_number, std::function<void()> on_signal);
    ~SignalHandle();
    SignalHandle(const SignalHandle &) = delete;
    SignalHandle &operator=(const SignalHandle &) = delete;

private:
    struct State;
    State *state_;
};

// Tells of files that were made, changed, renamed or removed in a directory, by their names. A directory that cannot be
// watched is never heard of.
class DirectoryWatch {
public:
    DirectoryWatch(uv_loop_t *loop, const char *directory, std::function<void(const char *file_name)> on_change);
    ~DirectoryWatch();
    DirectoryWatch(const DirectoryWatch &) = delete;
    DirectoryWatch &operator=(const DirectoryWatch &) = delete;

private:
    struct State;
    State *state_;
};

// The clock of the system in milliseconds, some of which it may be behind.
int64_t monotonic_ms();

} // namespace velia::server
