// The three forms of results, to the letter.
#include <sstream>

#include <gtest/gtest.h>

#include <cli/output.h>

using velia::cli::Cell;
using velia::cli::Cells;
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
    results.add({"a", Cell::milliseconds(1.5), Cells{"10.0.0.1", "fd00::1"}});
    results.add({"longer", nullptr, Cells{}});
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
    EXPECT_EQ(printed(results, Format::json), "{\"host\":\"a\xef\xbf\xbd\"}\n") << "with the sign for what is none";
}

TEST(Output, NumbersAreWrittenInFull) {
    Results results({"a", "b", "c", "d", "e"});
    results.add({INT32_MIN, UINT32_MAX, INT64_MIN, UINT64_MAX, true});
    EXPECT_EQ(printed(results, Format::json),
              R"({"a":-2147483648,"b":4294967295,"c":-9223372036854775808,"d":18446744073709551615,"e":true})"
              "\n");
    EXPECT_EQ(printed(results, Format::plain, false),
              "-2147483648  4294967295  -9223372036854775808  18446744073709551615  true\n");
}

TEST(Output, MillisecondsHaveThreeDecimalsWithoutZerosAtTheEnd) {
    Results results({"a", "b", "c"});
    results.add({Cell::milliseconds(0.12349), Cell::milliseconds(2), Cell::milliseconds(900.5)});
    EXPECT_EQ(printed(results, Format::json), R"({"a":0.123,"b":2.0,"c":900.5})"
                                              "\n");
    EXPECT_EQ(printed(results, Format::plain, false), "0.123  2.0  900.5\n");
}

TEST(Output, TextsAreQuotedInJsonAlone) {
    Results results({"a", "b"});
    results.add({"say \"x\"\n", "\xc3\xa9"});
    EXPECT_EQ(printed(results, Format::json), "{\"a\":\"say \\\"x\\\"\\n\",\"b\":\"\xc3\xa9\"}\n");
}

TEST(Output, ControlsAndBytesThatAreNoUtf8AreEscapedInPlainAndTable) {
    Results results({"title", "b"});
    results.add({"\x1b[31mred\x07\r\n\t\x7f\\", std::string("\0", 1)});
    results.add({"\xc2\x9b"
                 "2J",
                 "a\xff\xc3"});
    results.add({Cells{"\xe2\x80\xae"
                       "txt",
                       "\xed\xa0\x80"},
                 "\xe2\x80\xa8"});
    EXPECT_EQ(printed(results, Format::plain, false), R"(\x1b[31mred\x07\r\n\t\x7f\\   \x00
\xc2\x9b2J                    a\xff\xc3
\xe2\x80\xaetxt,\xed\xa0\x80  \xe2\x80\xa8
)");
    EXPECT_EQ(printed(results, Format::table, false), R"(+------------------------------+--------------+
| \x1b[31mred\x07\r\n\t\x7f\\  | \x00         |
| \xc2\x9b2J                   | a\xff\xc3    |
| \xe2\x80\xaetxt,\xed\xa0\x80 | \xe2\x80\xa8 |
+------------------------------+--------------+
)");
}

TEST(Output, ColumnsAreAsWideAsTheyShow) {
    Results results({"a", "b"});
    results.add({"\xc3\xa9", "x"});     // one letter of two bytes
    results.add({"e\xcc\x81", "x"});    // the same of two characters
    results.add({"\xe6\xbc\xa2", "x"}); // a wide one
    results.add({"ab", "x"});
    EXPECT_EQ(printed(results, Format::plain, false), "\xc3\xa9   x\n"
                                                      "e\xcc\x81   x\n"
                                                      "\xe6\xbc\xa2  x\n"
                                                      "ab  x\n");
    EXPECT_EQ(printed(results, Format::table, false), "+----+---+\n"
                                                      "| \xc3\xa9  | x |\n"
                                                      "| e\xcc\x81  | x |\n"
                                                      "| \xe6\xbc\xa2 | x |\n"
                                                      "| ab | x |\n"
                                                      "+----+---+\n");
}

TEST(Output, ControlsAreEscapedByTheRulesOfJson) {
    Results results({"a"});
    results.add({"\x1b\x7f\xc2\x80\xc2\x9f\xc2\xa0"});
    EXPECT_EQ(printed(results, Format::json), "{\"a\":\"\\u001b\\u007f\\u0080\\u009f\xc2\xa0\"}\n");
}

TEST(Output, CellsAreEqualByKindAndValue) {
    EXPECT_EQ(Cell(1), Cell(uint64_t{1}));
    EXPECT_NE(Cell(1), Cell("1"));
    EXPECT_NE(Cell(), Cell(""));
    EXPECT_NE(Cell(Cells{"a"}), Cell(Cells{"b"}));
    EXPECT_EQ(Cell(Cells{"a", nullptr}), Cell(Cells{"a", nullptr}));
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
