#include <cli/progress_line.h>

#include <iostream>

#include <unistd.h>

#include <cli/messages.h>

namespace velia::cli {

namespace {

constexpr uint64_t step = 1000; // what is shorter is over before anybody has read it
constexpr const char *begin_anew = "\r\033[K";

} // namespace

ProgressLine::ProgressLine(bool is_wanted) : is_shown_(is_wanted && isatty(STDERR_FILENO) != 0 && !tells_in_json()) {}

void ProgressLine::show(const std::string &words) {
    if (!is_shown_)
        return;
    is_begun_ = true;
    std::cerr << begin_anew << words << std::flush;
}

void ProgressLine::count(const std::string &words, uint64_t done, uint64_t all) {
    if (done / step == counted_ / step)
        return;
    counted_ = done;
    show(words + " " + std::to_string(done) + (all > 0 ? " of " + std::to_string(all) : "") + " entries");
}

void ProgressLine::wipe() {
    if (is_begun_)
        std::cerr << begin_anew << std::flush;
    is_begun_ = false;
    counted_ = 0;
}

} // namespace velia::cli
