// Digit by digit: the C library's reader of numbers takes infinities, exponents and the decimal comma of a locale, too.
#include <cli/duration.h>

#include <algorithm>

#include <fmt/core.h>

namespace velia::cli {

namespace {

constexpr size_t whole_digits_max = 9;
constexpr size_t fraction_digits = 3; // of a millisecond

bool are_digits(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int64_t milliseconds_of_fraction(const std::string &digits) {
    std::string first = digits.substr(0, fraction_digits);
    first.resize(fraction_digits, '0');
    const bool has_more = digits.find_first_not_of('0', std::min(digits.size(), fraction_digits)) != std::string::npos;
    return std::stoll(first) + (has_more ? 1 : 0);
}

} // namespace

std::optional<Duration> duration_of_text(const std::string &text) {
    const auto point = text.find('.');
    const std::string whole = text.substr(0, point);
    const std::string fraction = point == std::string::npos ? "" : text.substr(point + 1);
    const bool is_number = are_digits(whole) && are_digits(fraction) && !(whole + fraction).empty();
    if (!is_number || whole.size() > whole_digits_max)
        return std::nullopt;
    return Duration(std::stoll("0" + whole) * 1000 + milliseconds_of_fraction(fraction));
}

std::string text_of_duration(Duration duration) {
    std::string text = fmt::format("{}.{:03}", duration.count() / 1000, duration.count() % 1000);
    text.erase(text.find_last_not_of('0') + 1);
    return text.back() == '.' ? text.substr(0, text.size() - 1) : text;
}

timeval timeval_of(Duration duration) {
    return {static_cast<time_t>(duration.count() / 1000), static_cast<suseconds_t>(duration.count() % 1000 * 1000)};
}

int whole_seconds(Duration duration) {
    return static_cast<int>((duration.count() + 999) / 1000);
}

} // namespace velia::cli
