// Rules as the system's database has them behind a zone's last change, and as TZ may have them.
#include <schedule/zone.h>

namespace velia::schedule {

namespace {

constexpr int64_t seconds_of_hour = 3600;
constexpr int64_t seconds_of_minute = 60;
constexpr int64_t usual_change = 2 * seconds_of_hour;
constexpr int hours_of_offset_max = 24;
constexpr int hours_of_change_max = 167;

bool is_letter(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

// What it does not recognise it leaves; a failure is kept to the end.
class RuleReader {
public:
    explicit RuleReader(std::string_view text) : rest_(text) {}

    bool is_good() const { return is_good_; }
    bool is_at_end() const { return rest_.empty(); }

    bool consume(char wanted) {
        if (rest_.empty() || rest_.front() != wanted)
            return false;
        rest_.remove_prefix(1);
        return true;
    }

    void expect(char wanted) { is_good_ = consume(wanted) && is_good_; }

    int number(int least, int most) {
        int value = 0;
        size_t digits = 0;
        for (; digits < rest_.size() && digits < 4 && is_digit(rest_[digits]); ++digits)
            value = value * 10 + (rest_[digits] - '0');
        rest_.remove_prefix(digits);
        is_good_ = is_good_ && digits > 0 && value >= least && value <= most;
        return value;
    }

    // "CET" or "<+0330>": at least three characters.
    void name() {
        constexpr size_t least_length = 3;
        const bool is_quoted = consume('<');
        size_t length = 0;
        while (length < rest_.size() && (is_quoted ? rest_[length] != '>' : is_letter(rest_[length])))
            ++length;
        rest_.remove_prefix(length);
        is_good_ = is_good_ && length >= least_length;
        if (is_quoted)
            expect('>');
    }

    // "[+-]hh[:mm[:ss]]"
    int64_t time(int hours_max) {
        const bool is_negative = consume('-');
        if (!is_negative)
            consume('+');
        int64_t seconds = number(0, hours_max) * seconds_of_hour;
        if (consume(':')) {
            seconds += number(0, 59) * seconds_of_minute;
            if (consume(':'))
                seconds += number(0, 59);
        }
        return is_negative ? -seconds : seconds;
    }

    RuleDay day() {
        RuleDay day;
        if (consume('M')) {
            day.month = number(1, 12);
            expect('.');
            day.week = number(1, 5);
            expect('.');
            day.day = number(0, 6);
        } else if (consume('J')) {
            day.form = RuleDay::Form::julian;
            day.day = number(1, 365);
        } else {
            day.form = RuleDay::Form::day_of_year;
            day.day = number(0, 365);
        }
        day.time = consume('/') ? time(hours_of_change_max) : usual_change;
        return day;
    }

private:
    std::string_view rest_;
    bool is_good_ = true;
};

} // namespace

// Offsets in a rule count westward.
std::optional<ZoneRule> parse_rule(std::string_view text) {
    RuleReader reader(text);
    ZoneRule rule;
    reader.name();
    rule.standard = -reader.time(hours_of_offset_max);
    if (!reader.is_at_end()) {
        rule.has_daylight = true;
        reader.name();
        rule.daylight = rule.standard + seconds_of_hour;
        if (!reader.consume(',')) {
            rule.daylight = -reader.time(hours_of_offset_max);
            reader.expect(',');
        }
        rule.to_daylight = reader.day();
        reader.expect(',');
        rule.to_standard = reader.day();
    }
    return reader.is_good() && reader.is_at_end() ? std::optional(rule) : std::nullopt;
}

} // namespace velia::schedule
