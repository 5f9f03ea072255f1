// Time zones as rows: a peer's record may hold anything.
#include <cstdint>
#include <iostream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cli/time_zone.h>

using namespace velia::cli;
using testing::HasSubstr;

namespace {

std::string printed(const clnt_tz_info_t &info, Format format = Format::json) {
    std::ostringstream out;
    std::streambuf *before = std::cout.rdbuf(out.rdbuf());
    print_zone(info, 2026, {.format = format});
    std::cout.rdbuf(before);
    return out.str();
}

clnt_tz_info_t berlin() {
    clnt_tz_info_t info = {};
    info.flags = UINT32_MAX;
    info.offset = -60;
    info.bias = -60;
    info.dt_trans = {126, 2, 29, 0, 2, 0, 0};
    info.st_trans = {126, 9, 25, 0, 3, 0, 0};
    return info;
}

} // namespace

TEST(TimeZone, TellsChangesWithTheOffsetThatHoldsBefore) {
    EXPECT_THAT(printed(berlin()), HasSubstr(R"("to_daylight":"2026-03-29T02:00:00+01:00")"));
    EXPECT_THAT(printed(berlin()), HasSubstr(R"("to_standard":"2026-10-25T03:00:00+02:00")"));
    EXPECT_THAT(printed(berlin(), Format::plain), HasSubstr(R"("2026-03-29 02:00:00"  "2026-10-25 03:00:00")"));
}

TEST(TimeZone, OfAPeerThatSendsNoDateHasNone) {
    const clnt_tz_date_t no_dates[] = {
        {0, 0, 0, 0, 0, 0, 0},    {126, 12, 1, 0, 0, 0, 0},      {126, -1, 1, 0, 0, 0, 0},
        {126, 0, 32, 0, 0, 0, 0}, {INT32_MAX, 0, 1, 0, 0, 0, 0}, {INT32_MIN, 0, 1, 0, 0, 0, 0},
        {126, 0, 1, 0, 25, 0, 0}, {126, 0, 1, 0, 0, -1, 0},      {126, 0, 1, 0, 0, 0, INT32_MAX}};
    for (const auto &date : no_dates) {
        auto info = berlin();
        info.dt_trans = date;
        EXPECT_THAT(printed(info), HasSubstr(R"("to_daylight":null)"));
    }
    for (const time_t minutes : {time_t{26 * 60}, time_t{-26 * 60}, time_t{INT64_MAX}, time_t{INT64_MIN}}) {
        auto info = berlin();
        info.offset = minutes;
        EXPECT_THAT(printed(info), HasSubstr(R"("to_daylight":null)"));
        info = berlin();
        info.bias = minutes;
        EXPECT_THAT(printed(info), HasSubstr(R"("to_standard":null)"));
    }
}
