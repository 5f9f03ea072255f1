// Rules as the value of TZ spells them, and the dates that they give; and times of the day, whose numbers must be those
// that the C library's scanner reads.
#include <fuzz/harness.h>

#include <rvzd/client/clnt_timezone/rule.cpp>
#include <rvzd/client/clnt_timezone/transitions.cpp>

namespace {

// The scanner says nothing of numbers that an int does not hold.
bool has_long_number(const std::string &text) {
    constexpr size_t longest = 9;
    size_t digits = 0;
    for (const char character : text) {
        digits = is_digit(character) ? digits + 1 : 0;
        if (digits > longest)
            return true;
    }
    return false;
}

void try_time(const std::string &text) {
    clnt_tz_tod_t time;
    const int used = tod_from_str(text.c_str(), &time);
    FUZZ_REQUIRE(used >= 0 && static_cast<size_t>(used) <= text.size());
    if (has_long_number(text))
        return;
    int hours = 0;
    int length = 0;
    const bool is_number = sscanf(text.c_str(), "%d%n", &hours, &length) == 1;
    FUZZ_REQUIRE(is_number == (used > 0));
    FUZZ_REQUIRE(time.hours == (is_number ? hours : 0));
    FUZZ_REQUIRE(used >= length);
}

void require_date(const clnt_tz_date_t &date, const RuleDate &rule) {
    FUZZ_REQUIRE(date.hour == rule.hour && date.min == rule.min && date.sec == rule.sec);
    FUZZ_REQUIRE(date.wday >= 0 && date.wday < days_of_week);
}

void ask(const Rule &rule, int year) {
    clnt_tz_info_t info = {};
    info.flags = CLNT_TZ_DT_DEFINED;
    fill_from_rule(rule, year, info);
    FUZZ_REQUIRE(info.flags == (CLNT_TZ_DT_DEFINED | CLNT_TZ_ST_TRANS | CLNT_TZ_DT_TRANS));
    require_date(info.st_trans, rule.st_rule);
    require_date(info.dt_trans, rule.dt_rule);
}

void try_rule(const std::string &text) {
    constexpr size_t least_name = 3;
    Rule rule;
    if (!parse_rule(text.c_str(), rule)) {
        FUZZ_REQUIRE(rule.st_name == nullptr && rule.dt_name == nullptr);
        return;
    }
    FUZZ_REQUIRE(text.starts_with(rule.st_name) && strlen(rule.st_name) >= least_name);
    FUZZ_REQUIRE(rule.dt_name == nullptr || strlen(rule.dt_name) >= least_name);
    for (const int year : {CLNT_TZ_YEAR_FIRST + 0, 2026, CLNT_TZ_YEAR_LAST + 0})
        ask(rule, year);
    release_rule(rule);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    setenv("TZ", "UTC0", 1);
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    const std::string text = bytes.c_str();
    try_time(text);
    try_rule(text);
    return 0;
}
