// Builds the bytes of a zone file, and puts TZ where a test wants it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include <tests/sim/world.h>
#include <veliaxdr/clnt_timezone.h>

namespace tz_test {

struct TypeRow {
    int32_t gmtoff;
    int8_t isdst;
    uint8_t abbrind;
};

struct ZoneBytes {
    struct Row {
        int32_t time;
        uint8_t type;
    };
    std::vector<Row> transitions;
    std::vector<TypeRow> types;
    std::string chars = std::string("STD\0DST\0", 8);
    std::vector<std::pair<int32_t, int32_t>> leaps;
    std::string isstd;
    std::string isgmt;

    static std::string number(int32_t value) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(static_cast<uint32_t>(value) >> shift);
        return bytes;
    }

    static std::string header(int32_t isgmt, int32_t isstd, int32_t leaps, int32_t times, int32_t types,
                              int32_t chars) {
        return std::string("TZif") + std::string(16, '\0') + number(isgmt) + number(isstd) + number(leaps) +
               number(times) + number(types) + number(chars);
    }

    std::string bytes() const { return part(4); }

    // A file of two parts: this one, and `second` in 64 bits.
    std::string bytes_of_both(const ZoneBytes &second) const {
        std::string all = part(4) + second.part(8);
        all[version_at] = '2';
        return all + "\n\n";
    }

private:
    static constexpr size_t version_at = 4;

    std::string part(size_t time_size) const {
        std::string all =
            header(count(isgmt), count(isstd), count(leaps), count(transitions), count(types), count(chars));
        for (const Row &row : transitions)
            all += std::string(time_size - 4, row.time < 0 ? '\xff' : '\0') + number(row.time);
        for (const Row &row : transitions)
            all += static_cast<char>(row.type);
        for (const TypeRow &type : types)
            all += number(type.gmtoff) + static_cast<char>(type.isdst) + static_cast<char>(type.abbrind);
        all += chars;
        for (const auto &[time, correction] : leaps)
            all += std::string(time_size - 4, '\0') + number(time) + number(correction);
        return all + isstd + isgmt;
    }

    template <class Items>
    static int32_t count(const Items &items) {
        return static_cast<int32_t>(items.size());
    }
};

// A zone five hours west of UTC whose clocks change in 2026 as told, and then only on two days of 2037: until its last
// change a zone has daylight time for the C library.
inline ZoneBytes zone_of_2026(int32_t to_daylight, int32_t to_standard) {
    constexpr int32_t july_2037 = 2130000000;
    constexpr int32_t october_2037 = 2140000000;
    ZoneBytes zone;
    zone.types = {{-18000, 0, 0}, {-14400, 1, 4}};
    zone.transitions = {{0, 0}, {to_daylight, 1}, {to_standard, 0}, {july_2037, 1}, {october_2037, 0}};
    return zone;
}

// 2026-03-08 02:00 and 2026-11-01 02:00 on the wall.
constexpr int32_t march_8 = 1772953200;
constexpr int32_t november_1 = 1793512800;

inline ZoneBytes usual_zone() {
    return zone_of_2026(march_8, november_1);
}

constexpr clnt_tz_date_t march_8_at_2 = {126, 2, 8, 0, 2, 0, 0};
constexpr clnt_tz_date_t november_1_at_2 = {126, 10, 1, 0, 2, 0, 0};
constexpr clnt_tz_date_t no_date = {};

inline bool same_date(const clnt_tz_date_t &left, const clnt_tz_date_t &right) {
    return left.year == right.year && left.month == right.month && left.mday == right.mday && left.wday == right.wday &&
           left.hour == right.hour && left.min == right.min && left.sec == right.sec;
}

// A record that is given back at its end.
class Record {
public:
    explicit Record(int year) : status_(clnt_tz_get_info(year, &info_)) {}
    ~Record() { clnt_tz_free_info(&info_); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;

    clnt_tz_status_t status() const { return status_; }
    const clnt_tz_info_t *operator->() const { return info_; }
    const clnt_tz_info_t *get() const { return info_; }

private:
    clnt_tz_info_t *info_ = nullptr;
    clnt_tz_status_t status_;
};

// The process's zone while a test runs.
class TimeZone {
public:
    TimeZone() { unset(); }
    ~TimeZone() { unset(); }
    TimeZone(const TimeZone &) = delete;
    TimeZone &operator=(const TimeZone &) = delete;

    void set(const std::string &value) {
        unset();
        setenv("TZ", value.c_str(), 1);
    }
    // The C library looks at a file again only when TZ has had another value meanwhile.
    void unset() {
        unsetenv("TZ");
        tzset();
    }

    // Makes a zone file and gives the value of TZ that names it: a path that leads out of the system's directory.
    std::string file(const std::string &bytes, const std::string &name = "zone") {
        world.write_file(name, bytes);
        return "../../.." + path(name);
    }
    std::string path(const std::string &name = "zone") const { return world.root() + "/" + name; }

    // The same file with other contents and the modification time that it had, so that only reading it tells.
    void replace_secretly(const std::string &bytes, const std::string &name = "zone") {
        struct stat before;
        stat(path(name).c_str(), &before);
        std::ofstream(path(name), std::ios::binary | std::ios::trunc) << bytes;
        const timespec times[] = {before.st_atim, before.st_mtim};
        utimensat(AT_FDCWD, path(name).c_str(), times, 0);
    }
    void touch(int64_t seconds, const std::string &name = "zone") {
        const timespec times[] = {{seconds, 0}, {seconds, 0}};
        utimensat(AT_FDCWD, path(name).c_str(), times, 0);
    }

    std::vector<std::string> take_texts() {
        std::vector<std::string> texts;
        for (const sim::Message &message : world.take_messages())
            texts.push_back(message.text);
        return texts;
    }

    sim::World world;
};

inline sim::Message message(int severity, int position, const std::string &text) {
    return {severity, &_clnt_timezone_rvzd_msg_table, position, text};
}

inline sim::Message refreshed_from_data() {
    return message(IMSG_PLAIN, CLNT_TZ_MSG_REFRESHED_FROM_DATA, "Successfully refreshed TZ cache from data.\n");
}

inline sim::Message refreshed_from_rule() {
    return message(IMSG_PLAIN, CLNT_TZ_MSG_REFRESHED_FROM_RULE, "Successfully refreshed TZ cache from rule.\n");
}

inline sim::Message not_set() {
    return message(IMSG_WARNING, CLNT_TZ_MSG_NOT_SET, "Environment variable 'TZ' is not defined.\n");
}

inline sim::Message no_memory() {
    return message(IMSG_WARNING, CLNT_TZ_MSG_NO_MEMORY, "Unable to allocate dynamic storage.\n");
}

inline sim::Message cannot_open(const std::string &value) {
    return message(IMSG_WARNING, CLNT_TZ_MSG_CANNOT_OPEN,
                   "Cannot open '/usr/share/zoneinfo/" + value + "' for reading.\n");
}

using Messages = std::vector<sim::Message>;

constexpr uint32_t change_flags = CLNT_TZ_ST_TRANS | CLNT_TZ_DT_TRANS;
// What says that the zone has daylight time; whether it is in force depends on the day of the test.
constexpr uint32_t daylight_flags = CLNT_TZ_BIAS | CLNT_TZ_DT_DEFINED | CLNT_TZ_DT_NAME;

} // namespace tz_test
