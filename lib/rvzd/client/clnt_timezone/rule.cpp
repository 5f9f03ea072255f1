// Reads a rule as the value of TZ may spell one. Its grammar is this system's own: both offsets and both dates are
// spelled out, and a date is month, day of the week and week, in this order.
#include "timezone.h"

#include <cctype>
#include <cstring>

#include <support/stg.h>
#include <support/strutl.h>

using namespace velia::tz;

namespace {

int32_t held_to_32_bits(int64_t value) {
    return static_cast<int32_t>(value < INT32_MIN ? INT32_MIN : value > INT32_MAX ? INT32_MAX : value);
}

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

// A cursor over a rule. What it does not recognise leaves it where it is.
class RuleReader {
public:
    explicit RuleReader(const char *text) : begin_(text), at_(text) {}

    bool at_end() const { return *at_ == '\0'; }
    size_t position() const { return static_cast<size_t>(at_ - begin_); }
    const char *rest() const { return at_; }

    bool consume(char wanted) {
        if (*at_ != wanted)
            return false;
        ++at_;
        return true;
    }

    // Moves on, not beyond the end.
    void skip(size_t count) { at_ += strnlen(at_, count); }

    // A decimal number with white space and a sign before it; one that 32 bits do not hold becomes the nearest.
    bool take_number(int32_t &value) {
        const char *at = at_;
        while (isspace(static_cast<unsigned char>(*at)))
            ++at;
        const bool is_negative = *at == '-';
        if (is_negative || *at == '+')
            ++at;
        if (!is_digit(*at))
            return false;
        int64_t number = 0;
        for (; is_digit(*at); ++at)
            number = number <= INT32_MAX ? number * 10 + (*at - '0') : number;
        value = held_to_32_bits(is_negative ? -number : number);
        at_ = at;
        return true;
    }

    // A number behind a ":"; without one the ":" is not taken either.
    bool take_part(int32_t &value) {
        const char *before = at_;
        if (consume(':') && take_number(value))
            return true;
        at_ = before;
        return false;
    }

    bool take_time(clnt_tz_tod_t &time) {
        time = {};
        if (!take_number(time.hours))
            return false;
        if (take_part(time.minutes))
            take_part(time.seconds);
        return true;
    }

    // A name of at least three characters; null, with the cursor behind what there is, for a shorter one.
    char *take_name() {
        constexpr size_t least_length = 3;
        const size_t length = strcspn(at_, "+,-0123456789:");
        const char *begin = at_;
        at_ += length;
        auto *name = length >= least_length ? static_cast<char *>(stg_malloc(length + 1)) : nullptr;
        return name != nullptr ? strutl_ncpy(name, begin, length) : nullptr;
    }

private:
    const char *begin_;
    const char *at_;
};

// ",M10.1.5/": fields are stored as they are read; `length` only once the whole has been read.
void scan_date(RuleReader reader, RuleDate &date, size_t &length) {
    const size_t begin = reader.position();
    if (!reader.consume(',') || !reader.consume('M') || !reader.take_number(date.month) || !reader.consume('.') ||
        !reader.take_number(date.day) || !reader.consume('.') || !reader.take_number(date.week) || !reader.consume('/'))
        return;
    length = reader.position() - begin;
}

// The length of a date is not forgotten between the two dates: a second one that cannot be read counts as being as long
// as the first, and what could be read of it holds.
bool take_date(RuleReader &reader, RuleDate &date, size_t &length) {
    scan_date(reader, date, length);
    if (length == 0)
        return false;
    reader.skip(length);
    date.month = held_to_32_bits(int64_t{date.month} - 1);
    date.day = held_to_32_bits(int64_t{date.day} - 1);
    clnt_tz_tod_t time;
    if (!reader.take_time(time))
        return false;
    date.hour = time.hours;
    date.min = time.minutes;
    date.sec = time.seconds;
    return true;
}

int64_t seconds_behind_hours(const clnt_tz_tod_t &time) {
    return int64_t{time.minutes} * seconds_of_minute + time.seconds;
}

// Whatever is no name of daylight time ends the rule there, as one of a zone without it.
bool take_daylight(RuleReader &reader, Rule &rule) {
    if (reader.at_end())
        return true;
    rule.dt_name = reader.take_name();
    if (rule.dt_name == nullptr)
        return true;
    clnt_tz_tod_t offset;
    if (!reader.take_time(offset))
        return false;
    // Its sign is the opposite of the other's. Nothing reads either.
    rule.dt_offset = held_to_32_bits(int64_t{offset.hours} * seconds_of_hour + seconds_behind_hours(offset));
    size_t length = 0;
    return take_date(reader, rule.dt_rule, length) && take_date(reader, rule.st_rule, length);
}

bool take_rule(RuleReader &reader, Rule &rule) {
    rule.st_name = reader.take_name();
    clnt_tz_tod_t offset;
    if (rule.st_name == nullptr || !reader.take_time(offset))
        return false;
    rule.st_offset = held_to_32_bits(int64_t{offset.hours} * -seconds_of_hour - seconds_behind_hours(offset));
    return take_daylight(reader, rule);
}

} // namespace

bool velia::tz::parse_rule(const char *text, Rule &rule) {
    rule = {};
    RuleReader reader(text);
    if (take_rule(reader, rule))
        return true;
    release_rule(rule);
    return false;
}

void velia::tz::release_rule(Rule &rule) {
    stg_free(rule.st_name);
    stg_free(rule.dt_name);
    rule = {};
}

int tod_from_str(const char *text, clnt_tz_tod_t *time) {
    *time = {};
    if (text == nullptr)
        return 0;
    RuleReader reader(text);
    return reader.take_time(*time) ? static_cast<int>(reader.position()) : 0;
}
