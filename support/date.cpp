// The clock, and dates as text in one form of our own that is read back exactly.
#include <support/date.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int base_year = 1900;
constexpr time_t date_of_now = 1; // as schedules have it

// Texts of one thread: a printer may show several dates in one message.
struct TextRing {
    static constexpr unsigned text_count = 9;
    static constexpr size_t text_size = 48;
    char texts[text_count][text_size];
    unsigned next;

    char *take() { return texts[next++ % text_count]; }
};

thread_local TextRing ring;

// A year of fewer than four digits would not be read back.
bool has_readable_year(const struct tm &parts) {
    return parts.tm_year >= 1000 - base_year;
}

const char *formatted(time_t time, const char *format) {
    char *text = ring.take();
    struct tm parts;
    if (localtime_r(&time, &parts) == nullptr || !has_readable_year(parts) ||
        strftime(text, TextRing::text_size, format, &parts) == 0)
        snprintf(text, TextRing::text_size, "@%lld", static_cast<long long>(time));
    return text;
}

// A cursor over the text being read.
struct Reader {
    const char *at;

    bool take(char wanted) {
        if (*at != wanted)
            return false;
        ++at;
        return true;
    }

    // Exactly `least` to `most` digits.
    bool number(int least, int most, int &value) {
        int digits = 0;
        for (value = 0; digits < most && isdigit(static_cast<unsigned char>(*at)); ++digits, ++at)
            value = value * 10 + (*at - '0');
        return digits >= least && !isdigit(static_cast<unsigned char>(*at));
    }

    bool at_end() const { return *at == '\0'; }
};

bool read_date(Reader &reader, struct tm &parts) {
    int year = 0;
    if (!reader.number(4, 9, year) || !reader.take('-') || !reader.number(2, 2, parts.tm_mon) || !reader.take('-') ||
        !reader.number(2, 2, parts.tm_mday))
        return false;
    parts.tm_year = year - base_year;
    parts.tm_mon -= 1;
    return true;
}

bool read_time_of_day(Reader &reader, struct tm &parts) {
    return (reader.take(' ') || reader.take('T')) && reader.number(2, 2, parts.tm_hour) && reader.take(':') &&
           reader.number(2, 2, parts.tm_min) && reader.take(':') && reader.number(2, 2, parts.tm_sec);
}

// mktime moves an impossible date to a possible one; such a move tells that the text was wrong. A time of day that the
// zone skips may be moved.
bool to_time(const struct tm &wanted, time_t &time) {
    struct tm parts = wanted;
    parts.tm_isdst = -1;
    parts.tm_wday = -1;
    const time_t made = mktime(&parts);
    if (parts.tm_wday < 0)
        return false;
    const bool in_range = wanted.tm_hour < 24 && wanted.tm_min < 60 && wanted.tm_sec < 60;
    if (!in_range || parts.tm_year != wanted.tm_year || parts.tm_mon != wanted.tm_mon ||
        parts.tm_mday != wanted.tm_mday)
        return false;
    time = made;
    return true;
}

bool read_seconds(const char *text, time_t &time) {
    char *end = nullptr;
    if (*text != '-' && !isdigit(static_cast<unsigned char>(*text)))
        return false;
    errno = 0;
    const long long seconds = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0')
        return false;
    time = static_cast<time_t>(seconds);
    return true;
}

} // namespace

const char *date_fmt_token_date(time_t time) {
    return formatted(time, "%Y-%m-%d");
}

const char *date_fmt_token_date_time(time_t time) {
    return formatted(time, "%Y-%m-%d %H:%M:%S");
}

int date_str_to_time(const char *text, time_t *time) {
    if (text == nullptr)
        return 0;
    if (strcmp(text, "<now>") == 0) {
        *time = date_of_now;
        return 1;
    }
    if (*text == '@')
        return read_seconds(text + 1, *time) ? 1 : 0;
    Reader reader = {text};
    struct tm parts = {};
    if (!read_date(reader, parts))
        return 0;
    if (!reader.at_end() && !(read_time_of_day(reader, parts) && reader.at_end()))
        return 0;
    return to_time(parts, *time) ? 1 : 0;
}

struct tm *date_get_localtime(const time_t *time, struct tm *result) {
    return localtime_r(time, result);
}

struct tm *date_get_gmtime(const time_t *time, struct tm *result) {
    return gmtime_r(time, result);
}

void date_get_timeval(struct timeval *now) {
    gettimeofday(now, nullptr);
}
