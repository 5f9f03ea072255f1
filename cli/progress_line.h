// A line on the terminal, on standard error, that is written over as the work goes on. Programs that read messages in
// JSON, and whoever does not look at a terminal, see nothing of it.
#pragma once

#include <cstdint>
#include <string>

namespace velia::cli {

class ProgressLine {
public:
    explicit ProgressLine(bool is_wanted = true);
    ~ProgressLine() { wipe(); }
    ProgressLine(const ProgressLine &) = delete;
    ProgressLine &operator=(const ProgressLine &) = delete;

    void show(const std::string &words);

    // The same in parts of a whole, told when it has come a thousand further; `all` 0: nobody knows yet.
    void count(const std::string &words, uint64_t done, uint64_t all = 0);

    // Before anything else is written there.
    void wipe();

private:
    bool is_shown_;
    bool is_begun_ = false;
    uint64_t counted_ = 0;
};

} // namespace velia::cli
