// Zone files: the bytes of one, and what is made of them for the changes of a year. The module's sources are included,
// so that the C library, which reads the same file by itself when TZ names it, stays out of it.
#include <fuzz/harness.h>

#include <rvzd/client/clnt_timezone/transitions.cpp>
#include <rvzd/client/clnt_timezone/zone_file.cpp>

namespace {

template <class Item>
void require_array(const Item *array, int32_t count) {
    FUZZ_REQUIRE((array != nullptr) == (count > 0));
}

void require_whole(const Zone &zone) {
    const ZoneHeader &header = zone.header;
    require_array(zone.transitions, header.timecnt);
    require_array(zone.ttinfo, header.typecnt);
    require_array(zone.chars, header.charcnt);
    require_array(zone.leaps, header.leapcnt);
    require_array(zone.isstd, header.ttisstdcnt);
    require_array(zone.isgmt, header.ttisgmtcnt);
    for (int32_t i = 0; i < header.timecnt; ++i)
        FUZZ_REQUIRE(zone.transitions[i].type < header.typecnt);
    FUZZ_REQUIRE(header.charcnt <= 0 || zone.chars[header.charcnt - 1] == '\0');
}

void require_date(const clnt_tz_info_t &info, const Change &change, int year) {
    const clnt_tz_date_t &date = info.*change.date;
    const bool has_date = (info.flags & change.flag) != 0;
    FUZZ_REQUIRE(has_date ? date.year == year - tm_year_base : date.year == 0 && date.mday == 0);
    FUZZ_REQUIRE(!has_date || (date.month >= 0 && date.month < 12 && date.mday >= 1 && date.mday <= 31));
}

void ask(const Zone &zone, int year) {
    clnt_tz_info_t info = {};
    info.flags = CLNT_TZ_BIAS | CLNT_TZ_DT_DEFINED | CLNT_TZ_DAYLIGHT;
    fill_from_zone(zone, year, info);
    require_date(info, to_standard, year);
    require_date(info, to_daylight, year);
    FUZZ_REQUIRE(zone.transitions != nullptr || (info.flags & CLNT_TZ_DT_DEFINED) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    setenv("TZ", "UTC0", 1);
    Zone zone;
    const ReadOutcome outcome = decode_zone({reinterpret_cast<const char *>(data), size}, zone);
    if (outcome != ReadOutcome::done) {
        FUZZ_REQUIRE(zone.transitions == nullptr && zone.chars == nullptr);
        return 0;
    }
    require_whole(zone);
    for (const int year : {CLNT_TZ_YEAR_FIRST + 0, 2000, 2026, CLNT_TZ_YEAR_LAST + 0})
        ask(zone, year);
    release_zone(zone);
    return 0;
}
