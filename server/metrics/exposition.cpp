#include <server/metrics/exposition.h>

#include <array>
#include <cinttypes>
#include <cstdio>

namespace velia::server {

namespace {

constexpr uint64_t us_of_second = 1'000'000;

// A label's value may hold anything; a help has no quotation marks around it.
std::string escaped(const std::string &text, bool is_quoted) {
    std::string escaped;
    for (const char c : text)
        if (c == '\n')
            escaped += "\\n";
        else if (c == '\\' || (is_quoted && c == '"'))
            escaped += std::string("\\") + c;
        else
            escaped += c;
    return escaped;
}

} // namespace

std::string seconds_text(uint64_t time_us) {
    std::array<char, 40> text;
    snprintf(text.data(), text.size(), "%" PRIu64 ".%06" PRIu64, time_us / us_of_second, time_us % us_of_second);
    return text.data();
}

void Exposition::family(const char *name, const char *type, const char *help) {
    family_ = name;
    text_ += std::string("# HELP ") + name + " " + escaped(help, false) + "\n# TYPE " + name + " " + type + "\n";
}

void Exposition::line(const Labels &labels, const std::string &value, const char *suffix) {
    text_ += std::string(family_) + suffix;
    const char *before = "{";
    for (const auto &[name, text] : labels) {
        text_ += before + std::string(name) + "=\"" + escaped(text, true) + "\"";
        before = ",";
    }
    text_ += (labels.empty() ? " " : "} ") + value + "\n";
}

void Exposition::sample(const Labels &labels, uint64_t value, const char *suffix) {
    line(labels, std::to_string(value), suffix);
}

void Exposition::sample_seconds(const Labels &labels, uint64_t value_us, const char *suffix) {
    line(labels, seconds_text(value_us), suffix);
}

void Exposition::gauge(const char *name, const char *help, uint64_t value) {
    family(name, "gauge", help);
    sample({}, value);
}

} // namespace velia::server
