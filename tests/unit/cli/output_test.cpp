// The three forms of results, to the letter.
#include <sstream>

#include <gtest/gtest.h>

#include <cli/output.h>

using velia::cli::Cell;
using velia::cli::Format;
using velia::cli::Results;

namespace {

std::string printed(const Results &results, Format format, bool with_headers = true) {
    std::ostringstream out;
    results.print(format, with_headers, out);
    return out.str();
}

Results two_hosts() {
    Results results({"host", "round_trip_ms", "addresses"});
    results.add({"a", 1.5, Cell::array({"10.0.0.1", "fd00::1"})});
    results.add({"longer", nullptr, Cell::array()});
    return results;
}

} // namespace

TEST(Output, PlainAlignsColumnsWithoutBlanksAtTheEnd) {
    EXPECT_EQ(printed(two_hosts(), Format::plain), "HOST    ROUND-TRIP-MS  ADDRESSES\n"
                                                   "a       1.5            10.0.0.1,fd00::1\n"
                                                   "longer  -              -\n");
}

TEST(Output, PlainWithoutHeadersHasRowsAlone) {
    EXPECT_EQ(printed(two_hosts(), Format::plain, false), "a       1.5  10.0.0.1,fd00::1\n"
                                                          "longer  -    -\n");
}

TEST(Output, JsonIsOneObjectALineWithTheColumnsInOrder) {
    EXPECT_EQ(printed(two_hosts(), Format::json),
              R"({"host":"a","round_trip_ms":1.5,"addresses":["10.0.0.1","fd00::1"]})"
              "\n"
              R"({"host":"longer","round_trip_ms":null,"addresses":[]})"
              "\n");
}

TEST(Output, JsonOfATextThatIsNoUtf8IsStillJson) {
    Results results({"host"});
    results.add({"a\xff"});
    EXPECT_TRUE(nlohmann::json::accept(printed(results, Format::json)));
}

TEST(Output, TableHasBordersAndOneWidth) {
    EXPECT_EQ(printed(two_hosts(), Format::table), "+--------+---------------+------------------+\n"
                                                   "| HOST   | ROUND-TRIP-MS | ADDRESSES        |\n"
                                                   "+--------+---------------+------------------+\n"
                                                   "| a      | 1.5           | 10.0.0.1,fd00::1 |\n"
                                                   "| longer | -             | -                |\n"
                                                   "+--------+---------------+------------------+\n");
}

TEST(Output, NothingFoundPrintsNothingInAnyForm) {
    const Results results({"host"});
    for (const auto format : {Format::plain, Format::json, Format::table})
        EXPECT_EQ(printed(results, format), "");
}

TEST(Output, AnEmptyTextShowsAsADash) {
    Results results({"path", "host"});
    results.add({"", "a"});
    EXPECT_EQ(printed(results, Format::plain, false), "-  a\n");
}

TEST(Output, ARowOfAnotherLengthIsRefused) {
    Results results({"host", "path"});
    EXPECT_THROW(results.add({"a"}), std::logic_error);
}

TEST(Output, FormsHaveTheirNames) {
    Format format = Format::plain;
    EXPECT_TRUE(velia::cli::format_of_name("json", format));
    EXPECT_EQ(format, Format::json);
    EXPECT_TRUE(velia::cli::format_of_name("table", format));
    EXPECT_EQ(format, Format::table);
    EXPECT_TRUE(velia::cli::format_of_name("plain", format));
    EXPECT_EQ(format, Format::plain);
    EXPECT_FALSE(velia::cli::format_of_name("JSON", format));
}
