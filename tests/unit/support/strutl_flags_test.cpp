// Sets of flags, and numbers, as texts.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <support/strutl.h>

#include "alloc_probe.h"

namespace {

constexpr strutl_flag_item_t days[] = {{"Sunday", 1}, {"Monday", 2}, {"Tuesday", 4}, {"Weekend", 65}, {"Saturday", 64}};
constexpr size_t day_count = sizeof days / sizeof days[0];

struct Mask {
    uint32_t mask;
    size_t position;

    bool operator==(const Mask &) const = default;
};

Mask read(const char *text, const char *separators = ",") {
    size_t position = 999;
    const uint32_t mask = strutl_flags_from_str(text, 0, separators, days, day_count, &position);
    EXPECT_EQ(strutl_flags_from_str(text, 0, separators, days, day_count, nullptr), mask);
    return {mask, position};
}

std::string written(uint32_t mask, size_t count = day_count) {
    return strutl_flags_to_str(mask, ",", days, count);
}

struct Number {
    int result;
    int64_t value;

    bool operator==(const Number &) const = default;
};

constexpr int64_t untouched = -999;

Number number(const char *text, int flag = 0) {
    int64_t value = untouched;
    const int result = strutl_kstr_or_str_to_long(text, &value, flag);
    return {result != 0, value};
}

constexpr Number refused = {1, untouched};

} // namespace

TEST(FlagsFromText, AreNamesWithoutCaseAndWhiteSpace) {
    EXPECT_EQ(read("Sunday,Monday"), (Mask{3, 13}));
    EXPECT_EQ(read(" sunday , TUESDAY "), (Mask{5, 18}));
    EXPECT_EQ(read("monday"), (Mask{2, 6}));
    EXPECT_EQ(read("monday,monday"), (Mask{2, 13}));
}

TEST(FlagsFromText, MayBeSeparatedByAnyOfSeveral) {
    EXPECT_EQ(read("sunday|monday,tuesday", "|,"), (Mask{7, 21}));
}

TEST(FlagsFromText, NameThatIsUnknownOrMissingTellsItsPlace) {
    EXPECT_EQ(read("Sunday, Someday,Monday"), (Mask{0, 8}));
    EXPECT_EQ(read(""), (Mask{0, 0}));
    EXPECT_EQ(read("Sunday,"), (Mask{0, 7}));
    EXPECT_EQ(read(",Sunday"), (Mask{0, 0}));
    EXPECT_EQ(read("Sun"), (Mask{0, 0}));
}

TEST(FlagsFromText, MayBeANumberOfBits) {
    EXPECT_EQ(read("0x40,monday"), (Mask{66, 11}));
    EXPECT_EQ(read("0xFFFFFFFF").mask, UINT32_MAX);
    EXPECT_EQ(read("0x"), (Mask{0, 0}));
    EXPECT_EQ(read("0x123456789"), (Mask{0, 0}));
    EXPECT_EQ(read("0x1g"), (Mask{0, 0}));
}

TEST(FlagsToText, AreTheNamesInTheOrderOfTheTable) {
    EXPECT_EQ(written(6), "Monday,Tuesday");
    EXPECT_EQ(written(64), "Saturday");
    EXPECT_EQ(written(65), "Sunday,Weekend,Saturday") << "names whose bits are all set";
}

TEST(FlagsToText, BitsWithoutANameFollowAsANumber) {
    EXPECT_EQ(written(2 | 0x80000000), "Monday,0x80000000");
    EXPECT_EQ(written(0x100), "0x100");
}

TEST(FlagsToText, NoBitsAreTheEmptyTextOrTheNameOfNone) {
    EXPECT_EQ(written(0), "");
    constexpr strutl_flag_item_t items[] = {{"none", 0}, {"read", 1}, {"nothing", 0}};
    EXPECT_STREQ(strutl_flags_to_str(0, ",", items, 3), "none");
    EXPECT_STREQ(strutl_flags_to_str(1, ",", items, 3), "read");
}

TEST(FlagsToText, ReadsBackAsTheSameBits) {
    for (uint32_t mask = 1; mask < 256; ++mask)
        EXPECT_EQ(read(written(mask).c_str()).mask, mask) << mask;
}

TEST(FlagsToText, LivesUntilTheSameThreadHasAskedFourTimesMore) {
    const char *first = strutl_flags_to_str(2, ",", days, day_count);
    for (uint32_t mask = 4; mask < 8; ++mask)
        strutl_flags_to_str(mask, ",", days, day_count);
    std::thread([] {
        for (int i = 0; i < 10; ++i)
            strutl_flags_to_str(1, ",", days, day_count);
    }).join();
    EXPECT_STREQ(first, "Monday");
}

TEST(FlagsToText, WithoutMemoryIsNull) {
    written(1);
    probe::fail_request(1);
    EXPECT_EQ(strutl_flags_to_str(2, ",", days, day_count), nullptr);
    probe::fail_request(0);
    EXPECT_EQ(written(2), "Monday");
}

TEST(NumberFromText, IsDecimalWithAnOptionalSign) {
    EXPECT_EQ(number("0"), (Number{0, 0}));
    EXPECT_EQ(number("4711"), (Number{0, 4711}));
    EXPECT_EQ(number("-12"), (Number{0, -12}));
    EXPECT_EQ(number("+12"), (Number{0, 12}));
    EXPECT_EQ(number(" \t12 \n"), (Number{0, 12}));
    EXPECT_EQ(number("010"), (Number{0, 10})) << "never octal";
    EXPECT_EQ(number("9223372036854775807"), (Number{0, INT64_MAX}));
    EXPECT_EQ(number("-9223372036854775808"), (Number{0, INT64_MIN}));
}

TEST(NumberFromText, TakesASizeSuffixWhereAsked) {
    EXPECT_EQ(number("4k", 1), (Number{0, 4096}));
    EXPECT_EQ(number("4K ", 1), (Number{0, 4096}));
    EXPECT_EQ(number("2m", 1), (Number{0, 2 * 1024 * 1024}));
    EXPECT_EQ(number("-1G", 1), (Number{0, -1073741824}));
    EXPECT_EQ(number("7", 1), (Number{0, 7}));
    EXPECT_EQ(number("4k", 0), refused);
}

TEST(NumberFromText, RefusesAnythingElseAndLeavesTheResult) {
    for (const char *text :
         {"", " ", "-", "abc", "1x", "1 2", "0x10", "1.5", "9223372036854775808", "-9223372036854775809"})
        EXPECT_EQ(number(text), refused) << text;
    for (const char *text : {"k", "1kk", "1k2", "1t", "1 k", "9007199254740992k", "8589934592g"})
        EXPECT_EQ(number(text, 1), refused) << text;
    EXPECT_EQ(number(nullptr), refused);
}
