#include "oracle.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>

#include <schedule/next_start.h>

namespace schedule_test {

namespace {

constexpr int minutes_of_day = 1440;
constexpr const char *database = "/usr/share/zoneinfo";

int64_t rounded_down(int64_t number, int64_t by) {
    return (number - ((number % by) + by) % by) / by;
}

struct tm date_by_c_library(int64_t day) {
    const time_t noon = day * 86400 + 43200;
    struct tm date;
    gmtime_r(&noon, &date);
    return date;
}

// The date of a day by the C library's calendar, which is asked once for each.
const struct tm &date_of_day(int64_t day) {
    constexpr int64_t first_day = -400;
    constexpr int64_t days_of_a_century = 36525;
    static const auto dates = [] {
        std::vector<struct tm> made;
        for (int64_t of_table = first_day; of_table < days_of_a_century; ++of_table)
            made.push_back(date_by_c_library(of_table));
        return made;
    }();
    return dates.at(static_cast<size_t>(day - first_day));
}

const sched_common_sched_t &common_of(const sched_schedule_t &schedule) {
    switch (schedule.kind) {
    case SCHED_KIND_MONTHLY:
        return schedule.u.monthly.common;
    case SCHED_KIND_WEEKLY:
        return schedule.u.weekly.common;
    default:
        return schedule.u.daily.common;
    }
}

bool is_of_kind(int weekday_from_sunday, int kind) {
    const bool is_weekend = weekday_from_sunday == 0 || weekday_from_sunday == 6;
    switch (kind) {
    case 8:
        return !is_weekend;
    case 9:
        return is_weekend;
    case 10:
        return true;
    default:
        return weekday_from_sunday == kind % 7;
    }
}

// Counts the days of the kind up to this one, and looks whether another follows in the month.
bool is_day_of_kind(int64_t day, const sched_sched_monthly_day_kind_t &wanted) {
    const struct tm &date = date_of_day(day);
    if (!is_of_kind(date.tm_wday, wanted.kind))
        return false;
    int count = 0;
    for (int64_t other = day - date.tm_mday + 1; other <= day; ++other)
        count += is_of_kind(date_of_day(other).tm_wday, wanted.kind) ? 1 : 0;
    if (wanted.ordinal < 5)
        return count == wanted.ordinal;
    for (int64_t other = day + 1; date_of_day(other).tm_mon == date.tm_mon; ++other)
        if (is_of_kind(date_of_day(other).tm_wday, wanted.kind))
            return false;
    return wanted.ordinal == 5;
}

bool is_run_day(const sched_schedule_t &schedule, int64_t start, int64_t last, int64_t day) {
    if (day < start || day > last)
        return false;
    const struct tm &date = date_of_day(day);
    const struct tm &first = date_of_day(start);
    switch (schedule.kind) {
    case SCHED_KIND_MONTHLY: {
        const auto &monthly = schedule.u.monthly;
        const int months = (date.tm_year - first.tm_year) * 12 + date.tm_mon - first.tm_mon;
        if (months % monthly.frequency != 0)
            return false;
        return monthly.day_spec_kind == SCHED_MONTHLY_DAY_NUMBER
                   ? static_cast<uint32_t>(date.tm_mday) == monthly.day.number
                   : is_day_of_kind(day, monthly.day.kind);
    }
    case SCHED_KIND_WEEKLY: {
        const int64_t monday = day - (date.tm_wday + 6) % 7;
        const int64_t first_monday = start - (first.tm_wday + 6) % 7;
        return (monday - first_monday) / 7 % schedule.u.weekly.frequency == 0 &&
               (schedule.u.weekly.days & 1U << (date.tm_wday + 6) % 7) != 0;
    }
    default:
        return (day - start) % schedule.u.daily.frequency == 0;
    }
}

// What is looked at, minute by minute.
class Search {
public:
    Search(const Question &question, const Wall &wall, size_t count)
        : schedule_(question.schedule), times_(common_of(schedule_).start_times), wall_(wall), count_(count),
          after_(question.after), created_(question.created), created_wall_(shown(question.created / 60)) {
        const auto &lifetime = common_of(schedule_).lifetime;
        start_ = lifetime.start_date == 0 ? 0 : day_of(lifetime.start_date);
        last_ = lifetime.last_date == 0 ? INT64_MAX : day_of(lifetime.last_date);
    }

    std::vector<int64_t> runs() {
        const int64_t end = wall_.begin + static_cast<int64_t>(wall_.minutes.size());
        for (int64_t minute = std::max(rounded_down(after_, 60) - 3 * minutes_of_day, wall_.begin + 1);
             minute < end && found_.size() < count_; ++minute) {
            if (minute + minutes_of_day <= end && is_idle_day(minute))
                minute += minutes_of_day - 1;
            else
                look_at(minute);
        }
        return found_;
    }

private:
    int64_t shown(int64_t minute) const { return wall_.minutes[static_cast<size_t>(minute - wall_.begin)]; }
    int64_t day_of(int64_t date) const {
        return rounded_down(shown(date == SCHED_DATE_NOW ? created_ / 60 : rounded_down(date, 60)), minutes_of_day);
    }

    // A whole day, as long as all, in which nothing can begin: it is passed over.
    bool is_idle_day(int64_t minute) {
        const int64_t wall = shown(minute);
        const int64_t day = rounded_down(wall, minutes_of_day);
        return wall == day * minutes_of_day && shown(minute - 1) == wall - 1 &&
               shown(minute + minutes_of_day - 1) == wall + minutes_of_day - 1 && !runs_on(day - 1) && !runs_on(day);
    }

    void look_at(int64_t minute) {
        const int64_t before = shown(minute - 1);
        const int64_t now = shown(minute);
        if (now <= before)
            put_back_until_ = std::max(put_back_until_, before);
        bool is_start = minute * 60 == created_ && is_due_at_once();
        for (int64_t skipped = before + 1; skipped < now; ++skipped)
            is_start = is_start || is_due(skipped, minute, false);
        is_start = is_start || is_due(now, minute, now <= put_back_until_);
        if (is_start && minute * 60 > after_)
            found_.push_back(minute * 60);
    }

    bool is_due_at_once() {
        return times_.first_start_time == SCHED_TIME_NOT_GIVEN && runs_on(rounded_down(created_wall_, minutes_of_day));
    }

    bool is_due(int64_t wall, int64_t minute, bool is_again) {
        const int64_t day = rounded_down(wall, minutes_of_day);
        const int64_t of_day = wall - day * minutes_of_day;
        return is_due_on(day, of_day, minute, is_again) ||
               (of_day == 0 && is_due_on(day - 1, minutes_of_day, minute, is_again));
    }

    // `of_day` may be the midnight at the end.
    bool is_due_on(int64_t day, int64_t of_day, int64_t minute, bool is_again) {
        if (!runs_on(day))
            return false;
        int64_t first = times_.first_start_time == SCHED_TIME_NOT_GIVEN ? 0 : times_.first_start_time / 60;
        const int64_t created_day = rounded_down(created_wall_, minutes_of_day);
        const bool is_at_once = times_.first_start_time == SCHED_TIME_NOT_GIVEN && day == created_day;
        if (is_at_once) {
            first = created_wall_ - created_day * minutes_of_day;
            if (minute * 60 <= created_)
                return false;
        }
        if (of_day == first)
            return !is_again && !is_at_once;
        const int64_t step = times_.restart_frequency / 60;
        return step != 0 && of_day > first && (of_day - first) % step == 0 && of_day <= times_.last_start_time / 60;
    }

    bool runs_on(int64_t day) {
        if (day != known_day_) {
            known_day_ = day;
            is_known_run_day_ = is_run_day(schedule_, start_, last_, day);
        }
        return is_known_run_day_;
    }

    const sched_schedule_t &schedule_;
    const sched_sched_start_times_t &times_;
    const Wall &wall_;
    const size_t count_;
    const int64_t after_;
    const int64_t created_;
    const int64_t created_wall_;
    int64_t start_ = 0;
    int64_t last_ = 0;
    int64_t put_back_until_ = INT64_MIN;
    int64_t known_day_ = INT64_MIN;
    bool is_known_run_day_ = false;
    std::vector<int64_t> found_;
};

constexpr int64_t minutes_between_looks = 30;

int64_t offset_of(int64_t minute) {
    const time_t moment = minute * 60;
    struct tm local;
    localtime_r(&moment, &local);
    return local.tm_gmtoff / 60;
}

template <class Number>
Number pick(std::mt19937_64 &random, Number least, Number most) {
    return std::uniform_int_distribution<Number>(least, most)(random);
}

sched_common_sched_t made_up_common(std::mt19937_64 &random, int64_t begin, int64_t end) {
    sched_common_sched_t common = {};
    const int64_t start = pick<int64_t>(random, begin, end);
    const int64_t starts[] = {0, SCHED_DATE_NOW, start, start};
    common.lifetime.start_date = starts[pick(random, 0, 3)];
    if (pick(random, 0, 3) == 0)
        common.lifetime.last_date = std::max<int64_t>(start, begin) + pick<int64_t>(random, 0, 400) * 86400;
    common.lifetime.last_date = std::min(common.lifetime.last_date, end);
    auto &times = common.start_times;
    times.first_start_time = pick<uint32_t>(random, 0, 1440) * 60;
    times.last_start_time = pick<uint32_t>(random, times.first_start_time / 60, 1440) * 60;
    if (pick(random, 0, 4) == 0)
        times.first_start_time = SCHED_TIME_NOT_GIVEN;
    if (pick(random, 0, 1) == 0)
        times.restart_frequency = pick<uint32_t>(random, 1, pick(random, 0, 1) == 0 ? 60 : 1440) * 60;
    return common;
}

} // namespace

std::vector<std::string> zone_names() {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(database)) {
        std::string name = entry.path().string().substr(strlen(database) + 1);
        if (name.starts_with("right/") || name.starts_with("posix/") || !std::filesystem::is_regular_file(entry.path()))
            continue;
        char magic[4] = {};
        std::ifstream(entry.path(), std::ios::binary).read(magic, sizeof magic);
        if (memcmp(magic, "TZif", sizeof magic) == 0)
            names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

Wall wall_of(const std::string &zone, int first_year, int years) {
    setenv("TZ", zone.c_str(), 1);
    tzset();
    struct tm first = {};
    first.tm_year = first_year - 1900;
    first.tm_mday = 1;
    const int64_t begin = timegm(&first) / 60;
    first.tm_year += years;
    const int64_t end = timegm(&first) / 60;
    Wall wall = {begin, {}};
    wall.minutes.reserve(static_cast<size_t>(end - begin));
    // Between two looks at the C library that show the same offset there is no other one.
    for (int64_t minute = begin; minute < end; minute += minutes_between_looks) {
        const int64_t offset = offset_of(minute);
        const bool is_even = offset == offset_of(minute + minutes_between_looks);
        for (int64_t near = minute; near < minute + minutes_between_looks; ++near)
            wall.minutes.push_back(static_cast<int32_t>(near + (is_even ? offset : offset_of(near))));
    }
    return wall;
}

// Created and asked for within the wall, some days from its ends.
Question made_up(std::mt19937_64 &random, const Wall &wall) {
    const int64_t begin = (wall.begin + 5 * minutes_of_day) * 60;
    const int64_t end = (wall.begin + static_cast<int64_t>(wall.minutes.size()) - 5 * minutes_of_day) * 60;
    Question question = {};
    auto &schedule = question.schedule;
    schedule.kind = pick<int32_t>(random, SCHED_KIND_MONTHLY, SCHED_KIND_DAILY);
    schedule.u.monthly.common = made_up_common(random, begin, end);
    schedule.u.monthly.frequency = pick(random, 0, 1) == 0 ? 1 : pick<int32_t>(random, 1, 14);
    if (schedule.kind == SCHED_KIND_MONTHLY && pick(random, 0, 1) == 0)
        schedule.u.monthly.day.number = pick<uint32_t>(random, 1, 31);
    else if (schedule.kind == SCHED_KIND_MONTHLY) {
        schedule.u.monthly.day_spec_kind = SCHED_MONTHLY_DAY_KIND;
        schedule.u.monthly.day.kind = {pick<int32_t>(random, 1, 6), pick<int32_t>(random, 1, 10)};
    }
    if (schedule.kind == SCHED_KIND_WEEKLY)
        schedule.u.weekly.days = pick<uint32_t>(random, 1, 0x7F);
    question.created = pick<int64_t>(random, begin / 60, end / 60) * 60;
    question.after = pick(random, 0, 1) == 0 ? question.created - 1 : pick<int64_t>(random, begin, end);
    return question;
}

std::vector<int64_t> searched_runs(const Question &question, const Wall &wall, size_t count) {
    return Search(question, wall, count).runs();
}

std::string words_of(const Question &question) {
    const auto &schedule = question.schedule;
    const auto &common = common_of(schedule);
    char text[400];
    snprintf(text, sizeof text,
             "kind %d every %d day %u/%d/%d/%d from %lld to %lld first %u last %u again %u created %lld after %lld",
             schedule.kind, schedule.u.monthly.frequency, schedule.u.monthly.day.number,
             schedule.u.monthly.day_spec_kind, schedule.u.monthly.day.kind.ordinal, schedule.u.monthly.day.kind.kind,
             static_cast<long long>(common.lifetime.start_date), static_cast<long long>(common.lifetime.last_date),
             common.start_times.first_start_time, common.start_times.last_start_time,
             common.start_times.restart_frequency, static_cast<long long>(question.created),
             static_cast<long long>(question.after));
    return text;
}

int64_t count_differences(const std::string &zone_name, int64_t count, uint64_t seed, int64_t &runs) {
    constexpr int first_year = 2020;
    constexpr int years = 10;
    constexpr size_t runs_max = 40;
    const auto zone = velia::schedule::read_zone(zone_name).value();
    const Wall wall = wall_of(zone_name, first_year, years);
    const int64_t end = (wall.begin + static_cast<int64_t>(wall.minutes.size())) * 60;
    std::mt19937_64 random(seed);
    int64_t differences = 0;
    for (int64_t i = 0; i < count; ++i) {
        const Question question = made_up(random, wall);
        const auto searched = searched_runs(question, wall, runs_max);
        std::vector<int64_t> computed;
        const velia::schedule::Spec spec = {&question.schedule, &zone, question.created, question.created};
        int64_t after = question.after;
        while (computed.size() < runs_max) {
            const auto start = velia::schedule::next_start(spec, after);
            if (!start || start->at >= end)
                break;
            computed.push_back(after = start->at);
        }
        runs += static_cast<int64_t>(searched.size());
        if (computed == searched)
            continue;
        ++differences;
        const auto at = static_cast<size_t>(
            std::mismatch(computed.begin(), computed.end(), searched.begin(), searched.end()).first - computed.begin());
        fprintf(stderr, "%s: %s: run %zu is %lld, and was searched as %lld\n", zone_name.c_str(),
                words_of(question).c_str(), at, at < computed.size() ? static_cast<long long>(computed[at]) : -1,
                at < searched.size() ? static_cast<long long>(searched[at]) : -1);
    }
    return differences;
}

} // namespace schedule_test
