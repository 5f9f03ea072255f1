#include <cli/waits.h>

#include <csignal>

#include <sys/time.h>
#include <unistd.h>

namespace velia::cli {

namespace {

constexpr int signal_base = 128;              // of an exit status, as shells have it
constexpr suseconds_t finishing_us = 500'000; // a machine may be busy

volatile sig_atomic_t ended_by;     // the signal, 0 for none
ks_interrupt_t *volatile interrupt; // of the thread that runs the command

// A reader that takes nothing, as a stopped pager, must not make a command immortal.
void give_up(int) {
    _exit(signal_base + ended_by);
}

void end_waits(int signal_number) {
    if (ended_by == 0)
        ended_by = signal_number;
    if (interrupt != nullptr)
        ks_interrupt(interrupt);
    const itimerval finishing = {{}, {0, finishing_us}};
    setitimer(ITIMER_REAL, &finishing, nullptr);
}

// What the caller's caller wants ignored stays so.
void take(int signal_number, void (*handler)(int)) {
    struct sigaction before = {};
    struct sigaction action = {};
    action.sa_handler = handler;
    if (sigaction(signal_number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
        sigaction(signal_number, &action, nullptr);
}

} // namespace

Waits::Waits(Duration silence_max) : interrupt_(ks_interrupt_open()) {
    begin_wait(silence_max);
    interrupt = interrupt_;
    struct sigaction action = {};
    action.sa_handler = give_up;
    sigaction(SIGALRM, &action, nullptr);
    take(SIGINT, end_waits);
    take(SIGTERM, end_waits);
}

Waits::~Waits() {
    interrupt = nullptr;
    ks_interrupt_close(interrupt_);
    ks_set_deadline(-1);
}

int Waits::status(int of_command) const {
    return ended_by != 0 ? signal_base + ended_by : of_command;
}

bool are_waits_over() {
    return ended_by != 0;
}

void begin_wait(Duration silence_max) {
    ks_set_patience(silence_max.count());
}

} // namespace velia::cli
