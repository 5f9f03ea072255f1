// The forms of results, to the letter.
#include <sstream>

#include <gtest/gtest.h>

#include <cli/output.h>

using velia::cli::Cell;
using velia::cli::Cells;
using velia::cli::Column;
using velia::cli::Format;
using velia::cli::Output;
using velia::cli::Type;
using velia::cli::Writer;

namespace {

// What a command would give out by and by.
struct Results {
    std::vector<std::string> names;
    Output::Shape shape = Output::Shape::list;
    std::vector<Cells> rows = {};

    explicit Results(std::vector<std::string> columns, Output::Shape of = Output::Shape::list)
        : names(std::move(columns)), shape(of) {}
    void add(Cells cells) { rows.push_back(std::move(cells)); }
};

std::vector<Column> columns_of(const Results &results) {
    std::vector<Column> columns;
    for (const auto &name : results.names)
        columns.push_back({name.c_str(), Type::text, ""});
    return columns;
}

std::string printed(const Results &results, Format format, bool with_headers = true) {
    const auto columns = columns_of(results);
    std::ostringstream out;
    Writer writer({results.shape, columns}, format, with_headers, out);
    for (const auto &row : results.rows)
        writer.add(row);
    writer.finish();
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

TEST(Output, JsonIsOneDocumentWithTheColumnsInOrder) {
    EXPECT_EQ(printed(two_hosts(), Format::json),
              R"([
{"host":"a","round_trip_ms":1.5,"addresses":["10.0.0.1","fd00::1"]},
{"host":"longer","round_trip_ms":null,"addresses":[]}
]
)");
    EXPECT_EQ(printed(Results({"host"}), Format::json), "[]\n");
    Results one({"host"}, Output::Shape::one);
    one.add({"a"});
    EXPECT_EQ(printed(one, Format::json), "{\"host\":\"a\"}\n");
}

TEST(Output, JsonLinesAreOneObjectEach) {
    EXPECT_EQ(printed(two_hosts(), Format::jsonl),
              R"({"host":"a","round_trip_ms":1.5,"addresses":["10.0.0.1","fd00::1"]})"
              "\n"
              R"({"host":"longer","round_trip_ms":null,"addresses":[]})"
              "\n");
}

TEST(Output, JsonThatIsBrokenOffIsNotClosed) {
    const auto results = two_hosts();
    const auto columns = columns_of(results);
    std::ostringstream out;
    Writer writer({Output::Shape::list, columns}, Format::json, true, out);
    writer.add(results.rows[0]);
    writer.break_off();
    EXPECT_EQ(out.str(), "[\n{\"host\":\"a\",\"round_trip_ms\":1.5,\"addresses\":[\"10.0.0.1\",\"fd00::1\"]}\n");
}

TEST(Output, ThatIsBrokenOffShowsWhatItHas) {
    const auto results = two_hosts();
    const auto columns = columns_of(results);
    for (const auto format : {Format::plain, Format::table}) {
        std::ostringstream out;
        Writer writer({Output::Shape::list, columns}, format, false, out);
        writer.add(results.rows[0]);
        EXPECT_EQ(out.str(), "") << "until it is known how wide the columns are";
        writer.break_off();
        EXPECT_NE(out.str().find("10.0.0.1"), std::string::npos);
        EXPECT_EQ(out.str().find('+', 1) != std::string::npos && out.str().back() == '+', false);
    }
}

TEST(Output, RowsAreWrittenAsTheyComeOnceTheWidthsAreKnown) {
    const std::vector<Column> columns = {{"a", Type::text, ""}, {"b", Type::text, ""}};
    for (const auto format : {Format::plain, Format::json, Format::jsonl, Format::table}) {
        std::ostringstream out;
        Writer writer({Output::Shape::list, columns}, format, true, out);
        for (size_t i = 0; i < Writer::measured_rows; ++i)
            writer.add({"x", "y"});
        EXPECT_TRUE(writer.is_all_shown());
        for (int i = 0; i < 1000; ++i) {
            const auto before = out.str().size();
            writer.add({"wider-than-the-others", "y"});
            ASSERT_GT(out.str().size(), before);
        }
    }
}

TEST(Output, AColumnIsAsWideAsTheRowsThatCameFirst) {
    Results results({"a", "b"});
    results.rows.assign(Writer::measured_rows, {"xyz", "1"});
    results.add({"wider-than-those", "2"});
    const auto plain = printed(results, Format::plain, false);
    EXPECT_EQ(plain.substr(0, 7), "xyz  1\n");
    EXPECT_EQ(plain.substr(plain.size() - 20), "wider-than-those  2\n");
}

TEST(Output, AnObjectHasItsMembersByNameAndAListWhereANameComesAgain) {
    Results results({"items"});
    results.add({Cell::object({"-tag", "-host", "-tag", "-attributes"},
                              {"/a", "h", "/b", Cell::object({"ro", "map"}, {true, "/x=/y"}, "ro,map=/x=/y")})});
    EXPECT_EQ(printed(results, Format::jsonl),
              R"({"items":{"tag":["/a","/b"],"host":"h","attributes":{"ro":true,"map":"/x=/y"}}})"
              "\n");
    EXPECT_EQ(printed(results, Format::plain, false), "-tag=/a,-host=h,-tag=/b,-attributes=\"ro,map=/x=/y\"\n");
}

TEST(Output, PlainQuotesAValueThatWouldEndTooSoon) {
    Results results({"value", "list", "items"});
    const auto add = [&](const char *value) { results.add({value, Cells{value, "x"}, Cell::object({"-n"}, {value})}); };
    for (const char *value : {"a", "a,b", "a=b", "a b", "a\"b", "-", "a\\b"})
        add(value);
    const std::string lines = printed(results, Format::plain, false);
    std::istringstream words(lines);
    std::vector<std::string> cells;
    for (std::string line; std::getline(words, line);)
        for (size_t at = 0; at < line.size();) {
            const size_t end = std::min(line.find("  ", at), line.size());
            cells.push_back(line.substr(at, end - at));
            at = std::min(line.find_first_not_of(' ', end), line.size());
        }
    const std::vector<std::string> wanted = {"a",         "a,x",         "-n=a",         //
                                             "a,b",       R"("a,b",x)",  R"(-n="a,b")",  //
                                             "a=b",       "a=b,x",       R"(-n="a=b")",  //
                                             R"("a b")",  R"("a b",x)",  R"(-n="a b")",  //
                                             R"("a\"b")", R"("a\"b",x)", R"(-n="a\"b")", //
                                             R"("-")",    R"("-",x)",    R"(-n="-")",    //
                                             R"(a\\b)",   R"(a\\b,x)",   R"(-n=a\\b)"};
    EXPECT_EQ(cells, wanted) << lines;
}

TEST(Output, ATimeHasItsOffsetInJson) {
    setenv("TZ", "CET-1", 1);
    tzset();
    Results results({"time", "none"});
    results.add({velia::cli::time_cell(1'700'000'000, "shown"), velia::cli::time_cell(0, "never")});
    EXPECT_EQ(printed(results, Format::jsonl), "{\"time\":\"2023-11-14T23:13:20+01:00\",\"none\":null}\n");
    EXPECT_EQ(printed(results, Format::plain, false), "shown  -\n");
    unsetenv("TZ");
    tzset();
    tm parts = {};
    parts.tm_year = 126;
    parts.tm_mday = 1;
    EXPECT_EQ(velia::cli::iso_time(parts, -210), "2026-01-01T00:00:00-03:30");
}

TEST(Output, JsonOfATextThatIsNoUtf8IsStillJson) {
    Results results({"host"});
    results.add({"a\xff"});
    EXPECT_EQ(printed(results, Format::jsonl), "{\"host\":\"a\xef\xbf\xbd\"}\n") << "with the sign for what is none";
}

TEST(Output, NumbersAreWrittenInFull) {
    Results results({"a", "b", "c", "d", "e"});
    results.add({INT32_MIN, UINT32_MAX, INT64_MIN, UINT64_MAX, true});
    EXPECT_EQ(printed(results, Format::jsonl),
              R"({"a":-2147483648,"b":4294967295,"c":-9223372036854775808,"d":18446744073709551615,"e":true})"
              "\n");
    EXPECT_EQ(printed(results, Format::plain, false),
              "-2147483648  4294967295  -9223372036854775808  18446744073709551615  true\n");
}

TEST(Output, MillisecondsHaveThreeDecimalsWithoutZerosAtTheEnd) {
    Results results({"a", "b", "c"});
    results.add({Cell::milliseconds(0.12349), Cell::milliseconds(2), Cell::milliseconds(900.5)});
    EXPECT_EQ(printed(results, Format::jsonl), R"({"a":0.123,"b":2.0,"c":900.5})"
                                               "\n");
    EXPECT_EQ(printed(results, Format::plain, false), "0.123  2.0  900.5\n");
}

TEST(Output, TextsAreQuotedInJsonAlone) {
    Results results({"a", "b"});
    results.add({"say \"x\"\n", "\xc3\xa9"});
    EXPECT_EQ(printed(results, Format::jsonl), "{\"a\":\"say \\\"x\\\"\\n\",\"b\":\"\xc3\xa9\"}\n");
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
    EXPECT_EQ(printed(results, Format::jsonl), "{\"a\":\"\\u001b\\u007f\\u0080\\u009f\xc2\xa0\"}\n");
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

TEST(Output, NothingFoundPrintsNothingButAnEmptyDocument) {
    const Results results({"host"});
    for (const auto format : {Format::plain, Format::jsonl, Format::table})
        EXPECT_EQ(printed(results, format), "");
}

TEST(Output, AnEmptyTextShowsAsADash) {
    Results results({"path", "host"});
    results.add({"", "a"});
    EXPECT_EQ(printed(results, Format::plain, false), "-  a\n");
}

TEST(Output, ARowOfAnotherLengthIsRefused) {
    Results results({"host", "path"});
    results.add({"a"});
    EXPECT_THROW(printed(results, Format::plain), std::logic_error);
}

TEST(Output, FormsHaveTheirNames) {
    Format format = Format::plain;
    EXPECT_TRUE(velia::cli::format_of_name("json", format));
    EXPECT_EQ(format, Format::json);
    EXPECT_TRUE(velia::cli::format_of_name("jsonl", format));
    EXPECT_EQ(format, Format::jsonl);
    EXPECT_TRUE(velia::cli::format_of_name("table", format));
    EXPECT_EQ(format, Format::table);
    EXPECT_TRUE(velia::cli::format_of_name("plain", format));
    EXPECT_EQ(format, Format::plain);
    EXPECT_FALSE(velia::cli::format_of_name("JSON", format));
}
