// A process may have closed its standard input: then 0 is the next descriptor that it gets, and one like any other.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace sim {

class WithoutStandardInput {
public:
    WithoutStandardInput() : kept_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) { close(STDIN_FILENO); }
    ~WithoutStandardInput() {
        dup2(kept_, STDIN_FILENO);
        close(kept_);
    }
    WithoutStandardInput(const WithoutStandardInput &) = delete;
    WithoutStandardInput &operator=(const WithoutStandardInput &) = delete;

private:
    int kept_;
};

} // namespace sim
