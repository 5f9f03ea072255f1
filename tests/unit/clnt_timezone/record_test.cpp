// The record: making, copying, reading and sending one.
#include <gtest/gtest.h>

#include <cstring>

#include "zone_bytes.h"

using namespace tz_test;

namespace {

clnt_tz_info_t full_record() {
    clnt_tz_info_t info = {};
    info.version = CLNT_TZ_VERSION;
    info.flags = 255;
    info.offset = 300;
    info.bias = -60;
    strcpy(info.st_name, "EST");
    strcpy(info.dt_name, "EDT");
    info.st_trans = november_1_at_2;
    info.dt_trans = march_8_at_2;
    return info;
}

clnt_tz_info_t without(uint32_t flag) {
    clnt_tz_info_t info = full_record();
    info.flags &= ~flag;
    return info;
}

std::string encoded(clnt_tz_info_t info, bool_t expected = TRUE) {
    char bytes[512];
    XDR stream;
    xdrmem_create(&stream, bytes, sizeof bytes, XDR_ENCODE);
    EXPECT_EQ(xdr_clnt_tz_info_t(&stream, &info), expected);
    return {bytes, xdr_getpos(&stream)};
}

bool_t decode(std::string bytes, clnt_tz_info_t &info) {
    XDR stream;
    xdrmem_create(&stream, bytes.data(), static_cast<unsigned>(bytes.size()), XDR_DECODE);
    return xdr_clnt_tz_info_t(&stream, &info);
}

struct Answer {
    clnt_tz_status_t status;
    int64_t value;

    bool operator==(const Answer &) const = default;
};

template <class Value>
Answer ask(clnt_tz_status_t (*question)(const clnt_tz_info_t *, Value *), const clnt_tz_info_t *info) {
    Value value = 99;
    const clnt_tz_status_t status = question(info, &value);
    return {status, value};
}

} // namespace

TEST(TimeZoneRecord, NewOneIsAllZeroAndFreedToNull) {
    sim::World world;
    clnt_tz_info_t *info = clnt_tz_new_info();
    ASSERT_NE(info, nullptr);
    const clnt_tz_info_t zero = {};
    EXPECT_EQ(memcmp(info, &zero, sizeof zero), 0);
    clnt_tz_free_info(&info);
    EXPECT_EQ(info, nullptr);
    clnt_tz_free_info(&info);
    clnt_tz_free_info(nullptr);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST(TimeZoneRecord, WithoutMemoryThereIsNone) {
    sim::World world;
    world.fail_allocation(1);
    EXPECT_EQ(clnt_tz_new_info(), nullptr);
}

TEST(TimeZoneRecord, AccessorsGiveWhatTheRecordHolds) {
    const clnt_tz_info_t info = full_record();
    EXPECT_EQ(ask(clnt_tz_offset, &info), (Answer{CLNT_TZ_OK, 300}));
    EXPECT_EQ(ask(clnt_tz_bias, &info), (Answer{CLNT_TZ_OK, -60}));
    EXPECT_EQ(ask(clnt_tz_dt_defined, &info), (Answer{CLNT_TZ_OK, 1}));
    EXPECT_EQ(ask(clnt_tz_daylight, &info), (Answer{CLNT_TZ_OK, 1}));
    char name[CLNT_TZ_NAME_SIZE];
    EXPECT_EQ(clnt_tz_st_name(&info, name), CLNT_TZ_OK);
    EXPECT_STREQ(name, "EST");
    EXPECT_EQ(clnt_tz_dt_name(&info, name), CLNT_TZ_OK);
    EXPECT_STREQ(name, "EDT");
    clnt_tz_date_t date = {};
    EXPECT_EQ(clnt_tz_st_trans(&info, &date), CLNT_TZ_OK);
    EXPECT_TRUE(same_date(date, november_1_at_2));
    EXPECT_EQ(clnt_tz_dt_trans(&info, &date), CLNT_TZ_OK);
    EXPECT_TRUE(same_date(date, march_8_at_2));
}

TEST(TimeZoneRecord, AccessorsSayWhatTheRecordDoesNotHold) {
    const clnt_tz_info_t no_offset = without(CLNT_TZ_OFFSET);
    EXPECT_EQ(ask(clnt_tz_offset, &no_offset), (Answer{CLNT_TZ_INVALID, 0}));
    const clnt_tz_info_t no_bias = without(CLNT_TZ_BIAS);
    EXPECT_EQ(ask(clnt_tz_bias, &no_bias), (Answer{CLNT_TZ_INVALID, 0}));
    char name[CLNT_TZ_NAME_SIZE] = "before";
    const clnt_tz_info_t no_st_name = without(CLNT_TZ_ST_NAME);
    EXPECT_EQ(clnt_tz_st_name(&no_st_name, name), CLNT_TZ_INVALID);
    EXPECT_STREQ(name, "");
    strcpy(name, "before");
    const clnt_tz_info_t no_dt_name = without(CLNT_TZ_DT_NAME);
    EXPECT_EQ(clnt_tz_dt_name(&no_dt_name, name), CLNT_TZ_INVALID);
    EXPECT_STREQ(name, "");
    clnt_tz_date_t date = march_8_at_2;
    const clnt_tz_info_t no_st_trans = without(CLNT_TZ_ST_TRANS);
    EXPECT_EQ(clnt_tz_st_trans(&no_st_trans, &date), CLNT_TZ_INVALID);
    const clnt_tz_info_t no_dt_trans = without(CLNT_TZ_DT_TRANS);
    EXPECT_EQ(clnt_tz_dt_trans(&no_dt_trans, &date), CLNT_TZ_INVALID);
    EXPECT_TRUE(same_date(date, march_8_at_2)) << "untouched";
}

TEST(TimeZoneRecord, QuestionsAreAnsweredAlways) {
    const clnt_tz_info_t none = {};
    EXPECT_EQ(ask(clnt_tz_dt_defined, &none), (Answer{CLNT_TZ_OK, 0}));
    EXPECT_EQ(ask(clnt_tz_daylight, &none), (Answer{CLNT_TZ_OK, 0}));
}

TEST(TimeZoneRecord, AccessorsOfANullRecordAreAnError) {
    EXPECT_EQ(ask(clnt_tz_offset, nullptr), (Answer{CLNT_TZ_ERROR, 99}));
    EXPECT_EQ(ask(clnt_tz_bias, nullptr), (Answer{CLNT_TZ_ERROR, 99}));
    EXPECT_EQ(ask(clnt_tz_dt_defined, nullptr), (Answer{CLNT_TZ_ERROR, 99}));
    EXPECT_EQ(ask(clnt_tz_daylight, nullptr), (Answer{CLNT_TZ_ERROR, 99}));
    char name[CLNT_TZ_NAME_SIZE];
    clnt_tz_date_t date;
    EXPECT_EQ(clnt_tz_st_name(nullptr, name), CLNT_TZ_ERROR);
    EXPECT_EQ(clnt_tz_dt_name(nullptr, name), CLNT_TZ_ERROR);
    EXPECT_EQ(clnt_tz_st_trans(nullptr, &date), CLNT_TZ_ERROR);
    EXPECT_EQ(clnt_tz_dt_trans(nullptr, &date), CLNT_TZ_ERROR);
}

TEST(TimeZoneRecord, NameWithoutATerminatorIsCutToItsField) {
    clnt_tz_info_t info = full_record();
    memset(info.st_name, 'x', sizeof info.st_name);
    char name[CLNT_TZ_NAME_SIZE];
    EXPECT_EQ(clnt_tz_st_name(&info, name), CLNT_TZ_OK);
    EXPECT_EQ(name, std::string(CLNT_TZ_NAME_SIZE - 1, 'x'));
}

TEST(TimeZoneRecord, CopyHasAllOfIt) {
    const clnt_tz_info_t source = full_record();
    clnt_tz_info_t target;
    memset(&target, 0xaa, sizeof target);
    EXPECT_EQ(clnt_tz_copy(&source, &target), CLNT_TZ_OK);
    EXPECT_EQ(encoded(target), encoded(source));
}

TEST(TimeZoneRecord, CopyHasNamesOnlyWhereTheyAreValid) {
    const clnt_tz_info_t source = without(CLNT_TZ_DT_NAME);
    clnt_tz_info_t target = {};
    EXPECT_EQ(clnt_tz_copy(&source, &target), CLNT_TZ_OK);
    EXPECT_STREQ(target.st_name, "EST");
    EXPECT_STREQ(target.dt_name, "");
}

TEST(TimeZoneRecord, CopyOfOrToANullIsAnError) {
    clnt_tz_info_t info = full_record();
    EXPECT_EQ(clnt_tz_copy(nullptr, &info), CLNT_TZ_ERROR);
    EXPECT_EQ(clnt_tz_copy(&info, nullptr), CLNT_TZ_ERROR);
}

TEST(TimeZoneStatus, IsToldInWords) {
    sim::World world;
    for (int status = 0; status <= 4; ++status)
        clnt_tz_status_msg(static_cast<clnt_tz_status_t>(status));
    EXPECT_EQ(world.take_messages(),
              (Messages{message(IMSG_PLAIN, 0, "Success.\n"), message(IMSG_ERROR, 1, "Unspecified error.\n"),
                        message(IMSG_ERROR, 2, "Incompatible data structure version.\n"),
                        message(IMSG_PLAIN, 3, "Component contains invalid data.\n"),
                        message(IMSG_ERROR, 4, "Unknown clnt_tz_status_t code: (4)\n")}));
}

TEST(TimeZoneMessages, AreTheTableOfTheSubsystem) {
    EXPECT_STREQ(_clnt_timezone_rvzd_msg_table.catalog_name, "rvzd_lib");
    EXPECT_STREQ(_clnt_timezone_rvzd_msg_table.subsystem_name, "clnt_timezone");
    EXPECT_EQ(_clnt_timezone_rvzd_msg_table.set, 73);
    EXPECT_EQ(_clnt_timezone_rvzd_msg_table.count, 14);
    EXPECT_STREQ(_clnt_timezone_rvzd_msg_table.texts[5], "\n");
    EXPECT_STREQ(_clnt_timezone_rvzd_msg_table.texts[13],
                 "TZ environment variable must be set to full POSIX specification.  Refer to environ(5) for further "
                 "details.\n");
}

TEST(TimeZoneWire, HasTheFieldsInTheirOrder) {
    std::string expected = ZoneBytes::number(1) + ZoneBytes::number(255);
    expected += ZoneBytes::number(0) + ZoneBytes::number(300);
    expected += ZoneBytes::number(-1) + ZoneBytes::number(-60);
    expected += ZoneBytes::number(3) + std::string("EST\0", 4) + ZoneBytes::number(3) + std::string("EDT\0", 4);
    for (const clnt_tz_date_t &date : {november_1_at_2, march_8_at_2})
        for (const int32_t field : {date.year, date.month, date.mday, date.wday, date.hour, date.min, date.sec})
            expected += ZoneBytes::number(field);
    EXPECT_EQ(encoded(full_record()), expected);
}

TEST(TimeZoneWire, SurvivesTheTrip) {
    clnt_tz_info_t info = full_record();
    info.st_trans.hour = -3;
    memset(info.st_name, 'x', sizeof info.st_name - 1);
    clnt_tz_info_t arrived = {};
    EXPECT_TRUE(decode(encoded(info), arrived));
    EXPECT_EQ(memcmp(&arrived, &info, sizeof info), 0);
}

TEST(TimeZoneWire, CutAnywhereDoesNotDecode) {
    const std::string bytes = encoded(full_record());
    for (size_t length = 0; length < bytes.size(); ++length) {
        clnt_tz_info_t arrived = {};
        EXPECT_FALSE(decode(bytes.substr(0, length), arrived)) << length;
    }
}

TEST(TimeZoneWire, NameThatDoesNotFitItsFieldIsRefused) {
    const std::string bytes = encoded(full_record());
    const std::string long_name = ZoneBytes::number(64) + std::string(64, 'x');
    clnt_tz_info_t arrived = {};
    EXPECT_FALSE(decode(bytes.substr(0, 24) + long_name + bytes.substr(32), arrived));
    EXPECT_FALSE(decode(bytes.substr(0, 24) + ZoneBytes::number(-1) + std::string(200, 'x'), arrived));
    clnt_tz_info_t unterminated = full_record();
    memset(unterminated.dt_name, 'x', sizeof unterminated.dt_name);
    encoded(unterminated, FALSE);
}

TEST(TimeZoneWire, HasNothingToFree) {
    clnt_tz_info_t info = full_record();
    XDR stream = {};
    stream.x_op = XDR_FREE;
    EXPECT_TRUE(xdr_clnt_tz_info_t(&stream, &info));
    EXPECT_STREQ(info.st_name, "EST");
}
