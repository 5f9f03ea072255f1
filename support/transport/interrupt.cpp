// The flag is what counts; the descriptor wakes a wait that has already looked at it.
#include "interrupt.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>

#include <sys/eventfd.h>
#include <unistd.h>

#include <support/ks.h>

#include "../raise.h"

struct ks_interrupter {
    std::atomic<bool> is_raised;
    int descriptor;
};

namespace {

static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

thread_local ks_interrupt_t *of_thread;

} // namespace

bool velia::support::transport::is_interrupted() {
    return raise_is_posted() || ks_is_interrupted();
}

int velia::support::transport::wake_descriptor() {
    return of_thread != nullptr ? of_thread->descriptor : -1;
}

ks_interrupt_t *ks_interrupt_open(void) {
    if (of_thread != nullptr)
        return of_thread;
    const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0)
        return nullptr;
    of_thread = new (std::nothrow) ks_interrupt_t{false, descriptor};
    if (of_thread == nullptr) {
        close(descriptor);
        errno = ENOMEM;
    }
    return of_thread;
}

// For signal handlers, too: an atomic word and write(2), with errno kept.
void ks_interrupt(ks_interrupt_t *interrupt) {
    const int kept_errno = errno;
    const uint64_t one = 1;
    interrupt->is_raised = true;
    [[maybe_unused]] const ssize_t written = write(interrupt->descriptor, &one, sizeof one);
    errno = kept_errno;
}

void ks_interrupt_clear(ks_interrupt_t *interrupt) {
    uint64_t count;
    interrupt->is_raised = false;
    [[maybe_unused]] const ssize_t taken = read(interrupt->descriptor, &count, sizeof count);
}

void ks_interrupt_close(ks_interrupt_t *interrupt) {
    if (interrupt == nullptr)
        return;
    close(interrupt->descriptor);
    if (of_thread == interrupt)
        of_thread = nullptr;
    delete interrupt;
}

int ks_is_interrupted(void) {
    return of_thread != nullptr && of_thread->is_raised;
}
