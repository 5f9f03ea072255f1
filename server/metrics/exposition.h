// Figures in the text form that collectors of figures read (text format 0.0.4): families with what they mean and of
// which type they are, and samples of them with labels.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace velia::server {

class Exposition {
public:
    using Labels = std::vector<std::pair<const char *, std::string>>;

    // Samples of a family follow it. The help is one line, the type "gauge", "counter" or "histogram".
    void family(const char *name, const char *type, const char *help);

    // Of the family that was begun last. `suffix` is that of a part of a histogram.
    void sample(const Labels &labels, uint64_t value, const char *suffix = "");
    void sample_seconds(const Labels &labels, uint64_t value_us, const char *suffix = "");

    // A family of one sample without labels.
    void gauge(const char *name, const char *help, uint64_t value);

    std::string take() { return std::move(text_); }

private:
    void line(const Labels &labels, const std::string &value, const char *suffix);

    std::string text_;
    const char *family_ = "";
};

// Microseconds as seconds, exactly.
std::string seconds_text(uint64_t time_us);

} // namespace velia::server
