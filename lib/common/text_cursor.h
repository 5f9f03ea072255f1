// The one bounded reader of text: a position in a string_view that moves over what it recognises and stays where it is
// over what it does not.
#pragma once

#include <cstdint>
#include <string_view>

namespace velia {

class TextCursor {
public:
    explicit constexpr TextCursor(std::string_view text) : rest_(text) {}

    constexpr std::string_view rest() const { return rest_; }
    constexpr bool at_end() const { return rest_.empty(); }

    constexpr bool consume(std::string_view wanted) {
        if (!rest_.starts_with(wanted))
            return false;
        rest_.remove_prefix(wanted.size());
        return true;
    }

    // Moves behind the next `wanted`; false, and no move, if there is none.
    constexpr bool skip_past(char wanted) {
        const auto at = rest_.find(wanted);
        if (at == std::string_view::npos)
            return false;
        rest_.remove_prefix(at + 1);
        return true;
    }

    constexpr void skip_until_digit() {
        while (!rest_.empty() && !is_digit(rest_.front()))
            rest_.remove_prefix(1);
    }

    // Takes a number as scanf's "%d" does: behind white space, with a sign. The rest as for take_number.
    constexpr bool take_signed_number(int32_t &value) {
        const auto before = rest_;
        while (!rest_.empty() && is_space(rest_.front()))
            rest_.remove_prefix(1);
        const bool is_negative = consume("-");
        if (!is_negative)
            consume("+");
        if (!take_number(value)) {
            rest_ = before;
            return false;
        }
        value = is_negative ? -value : value;
        return true;
    }

    // Takes the text up to, and without, the next `end`, or all that is left.
    constexpr std::string_view take_until(char end) {
        const auto taken = rest_.substr(0, rest_.find(end));
        rest_.remove_prefix(taken.size());
        return taken;
    }

    // Takes a run of decimal digits. False, and no move, without a digit or when the value does not fit.
    constexpr bool take_number(int32_t &value) {
        size_t digits = 0;
        int64_t number = 0;
        while (digits < rest_.size() && is_digit(rest_[digits])) {
            number = number * 10 + (rest_[digits] - '0');
            if (number > INT32_MAX)
                return false;
            ++digits;
        }
        if (digits == 0)
            return false;
        value = static_cast<int32_t>(number);
        rest_.remove_prefix(digits);
        return true;
    }

private:
    static constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }
    static constexpr bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

    std::string_view rest_;
};

} // namespace velia
