// How long a command waits in silence, and what ends it before.
#pragma once

#include <cli/duration.h>
#include <support/ks.h>

namespace velia::cli {

// While it lives, whatever the calling thread asks a service for ends when nothing has come for so long, and an
// interrupt or a termination of the process ends its waits. A command that has not come to its end shortly after is
// ended with its exit status, wherever it is.
class Waits {
public:
    explicit Waits(Duration silence_max);
    ~Waits();
    Waits(const Waits &) = delete;
    Waits &operator=(const Waits &) = delete;

    // The status with which the command ends: its own, or that of the signal which has ended it.
    int status(int of_command) const;

private:
    ks_interrupt_t *interrupt_;
};

bool are_waits_over();

// What is begun now has the whole time again.
void begin_wait(Duration silence_max);

} // namespace velia::cli
