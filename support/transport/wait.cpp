#include "wait.h"

#include <cerrno>
#include <csignal>

#include <poll.h>

#include "clock.h"
#include "interrupt.h"

namespace velia::support::transport {

namespace {

// Signals come through during the poll only: one that interrupts the thread before it is seen by the question before
// the poll, and a later one ends the poll.
Wait poll_once(int descriptor, short events, int64_t until_us, const sigset_t &open_to) {
    if (is_interrupted())
        return Wait::interrupted;
    const int64_t now = now_us();
    const int64_t left_us = until_us > now ? until_us - now : 0;
    const struct timespec left = {left_us / us_per_s, left_us % us_per_s * 1000};
    pollfd wanted[] = {{descriptor, events, 0}, {wake_descriptor(), POLLIN, 0}};
    const int ready = ppoll(wanted, 2, &left, &open_to);
    // What is wrong with the poll is told by what the descriptor is used for.
    if (wanted[0].revents != 0 || (ready < 0 && errno != EINTR))
        return Wait::ready;
    return ready == 0 ? Wait::timed_out : Wait::interrupted;
}

} // namespace

Wait wait_for(int descriptor, short events, int64_t until_us) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    Wait outcome;
    do
        outcome = poll_once(descriptor, events, until_us, before);
    while (outcome == Wait::interrupted && !is_interrupted());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return outcome;
}

} // namespace velia::support::transport
