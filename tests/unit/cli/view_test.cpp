// What a user wants to see of a list: by the table of its columns, the same for every command.
#include <cli/view.h>

#include <cstring>
#include <iostream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cli/commands.h>
#include <cli/results.h>

using namespace velia::cli;
using testing::HasSubstr;

namespace {

constexpr Column columns[] = {{"id", Type::integer, "number"},
                              {"name", Type::text, "name"},
                              {"when_it_was", Type::time, "moment", true, nullptr, "when", true},
                              {"parts", Type::texts, "list", true},
                              {"cost", Type::number, "cost", true, "--costs"}};
constexpr Output list = {Output::Shape::list, columns};
constexpr Output short_list = {Output::Shape::list, std::span(columns).first(4)};
constexpr Output one = {Output::Shape::one, columns};

// A view, of which a test tells what it is about.
struct Wish {
    std::string columns = "";
    std::string sort = "";
    uint64_t limit = 0;
    bool is_wide = false;
    std::string hidden_need = "";

    operator View() const { return {columns, sort, limit, is_wide, hidden_need}; }
};

Cell time_of(const char *iso) {
    return Cell::told(iso, iso);
}

std::string shown(const Wish &view, const Output &output = list) {
    std::ostringstream out;
    std::streambuf *former = std::cout.rdbuf(out.rdbuf());
    {
        Settings settings;
        settings.format = Format::jsonl;
        settings.view = view;
        Results results(output, settings);
        const std::vector<Cells> rows = {
            {10, "beta", time_of("2026-11-22T12:00:00+01:00"), Cells{"b"}, Cell::milliseconds(2.5)},
            {9, "alpha", time_of("2026-11-22T06:30:00-05:00"), Cells{"a", "z"}, nullptr},
            {-1, "beta", nullptr, Cells{"a", "b"}, Cell::milliseconds(10)},
        };
        for (auto cells : rows) {
            cells.resize(output.columns.size());
            results.add(cells);
        }
        results.finish();
    }
    std::cout.rdbuf(former);
    return out.str();
}

// The ids in their order.
std::string ids(const std::string &sort, uint64_t limit = 0) {
    return shown(Wish{.columns = "id", .sort = sort, .limit = limit});
}
std::string rows(std::initializer_list<int> numbers) {
    std::string text;
    for (const int number : numbers)
        text += "{\"id\":" + std::to_string(number) + "}\n";
    return text;
}

} // namespace

TEST(View, IsOfTheUsualColumnsInTheirOrder) {
    EXPECT_THAT(shown({}), testing::StartsWith(R"({"id":10,"name":"beta","when_it_was":)"));
    EXPECT_EQ(ids(""), rows({10, 9, -1}));
}

TEST(View, HasTheColumnsThatAreNamedInThatOrder) {
    EXPECT_THAT(shown(Wish{.columns = "name,id"}), testing::StartsWith("{\"name\":\"beta\",\"id\":10}\n"));
    EXPECT_THAT(shown(Wish{.columns = "NAME,When-It-Was"}), testing::StartsWith("{\"name\":\"beta\",\"when_it_was\":"));
    EXPECT_EQ(shown(Wish{.columns = "id,cost"}, short_list), rows({10, 9, -1})) << "one that the command has left out";
}

TEST(View, IsInTheOrderOfAColumnByWhatItHoldsAndWhatIsNotThereComesLast) {
    EXPECT_EQ(ids("id"), rows({-1, 9, 10})) << "as numbers";
    EXPECT_EQ(ids("-id"), rows({10, 9, -1}));
    EXPECT_EQ(ids("name"), rows({9, 10, -1})) << "those that are alike as they came";
    EXPECT_EQ(ids("when_it_was"), rows({9, 10, -1})) << "the youngest first, by the moment";
    EXPECT_EQ(ids("when"), rows({9, 10, -1})) << "by its other name";
    EXPECT_EQ(ids("-when"), rows({10, 9, -1}));
    EXPECT_EQ(ids("parts"), rows({-1, 9, 10}));
    EXPECT_EQ(ids("cost"), rows({10, -1, 9}));
    EXPECT_EQ(ids("-cost"), rows({-1, 10, 9}));
}

TEST(View, LeavesManyRowsThatAreAlikeAsTheyCame) {
    std::vector<Cells> all;
    for (int i = 0; i < 100; ++i)
        all.push_back({i, i % 2 == 0 ? "even" : "odd", nullptr, Cells{}, nullptr});
    ViewedRows(list, Wish{.sort = "name"}).sort(all);
    for (size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(all[i].at(0).text(), std::to_string(i < 50 ? 2 * i : 2 * (i - 50) + 1));
}

TEST(View, HasTheFirstRowsOfTheOrder) {
    EXPECT_EQ(ids("", 2), rows({10, 9}));
    EXPECT_EQ(ids("id", 1), rows({-1}));
    EXPECT_EQ(ids("id", 100), rows({-1, 9, 10}));
}

TEST(View, OfWhatIsNoListIsAllOfIt) {
    EXPECT_THAT(shown(Wish{.columns = "name", .sort = "id"}, one), testing::StartsWith("{\"id\":10,\"name\":\"beta\""));
    EXPECT_EQ(fault_of_view(Wish{.columns = "nothing"}, one), "");
}

TEST(View, OfWhatIsBrokenOffHasWhatCameInItsOrder) {
    std::ostringstream out;
    std::streambuf *former = std::cout.rdbuf(out.rdbuf());
    {
        Settings settings;
        settings.format = Format::jsonl;
        settings.view = Wish{.columns = "id", .sort = "id"};
        Results results(list, settings);
        results.add({2, "", nullptr, nullptr, nullptr});
        results.add({1, "", nullptr, nullptr, nullptr});
        EXPECT_FALSE(results.empty());
        EXPECT_TRUE(results.pause());
        EXPECT_EQ(out.str(), "") << "nobody knows what comes";
    }
    std::cout.rdbuf(former);
    EXPECT_EQ(out.str(), rows({1, 2}));
}

TEST(View, ThatNamesNoColumnIsToldWithThoseThatThereAre) {
    EXPECT_EQ(fault_of_view(Wish{.columns = "id,name", .sort = "-when"}, list), "");
    const std::string all = "there are id, name, when_it_was, parts, cost";
    EXPECT_EQ(fault_of_view(Wish{.columns = "id,nothing"}, list), "'nothing' is no column; " + all);
    EXPECT_EQ(fault_of_view(Wish{.columns = "id,"}, list), "'' is no column; " + all);
    EXPECT_EQ(fault_of_view(Wish{.columns = "when"}, list), "'when' is no column; " + all);
    EXPECT_EQ(fault_of_view(Wish{.columns = "id,ID"}, list), "column 'ID' is given twice");
    EXPECT_EQ(fault_of_view(Wish{.sort = "nothing"}, list), "'nothing' is no column; " + all);
    EXPECT_EQ(fault_of_view(Wish{.sort = "-"}, list), "'-' is no column; " + all);
}

TEST(View, OfAColumnThatNeedsAnOptionGivesIt) {
    const auto given_for = [](const Wish &wish, bool &is_given) {
        View view = wish;
        is_given = false;
        std::string text;
        give_options_for(view, list, {{.name = "--costs", .target = &is_given}, {.name = "--text", .target = &text}});
        return view.hidden_need;
    };
    bool is_given = false;
    EXPECT_EQ(given_for(Wish{.columns = "id", .sort = "name"}, is_given), "");
    EXPECT_FALSE(is_given);
    EXPECT_EQ(given_for(Wish{.columns = "cost"}, is_given), "");
    EXPECT_TRUE(is_given);
    EXPECT_EQ(given_for(Wish{.is_wide = true}, is_given), "");
    EXPECT_TRUE(is_given);
    EXPECT_EQ(given_for(Wish{.sort = "-cost"}, is_given), "--costs");
    EXPECT_TRUE(is_given);
    EXPECT_EQ(given_for(Wish{.sort = "cost", .is_wide = true}, is_given), "") << "it is shown as well";
    EXPECT_THAT(shown(Wish{.sort = "cost", .hidden_need = "--costs"}), testing::Not(HasSubstr("cost")));
}

// Whatever command is added: one with a list has them all, and no other has any.
TEST(View, IsWantedOfEveryListByTheSameOptions) {
    CommonArguments common;
    const auto program = whole_program(common);
    size_t lists = 0;
    for (const auto &row : program.commands) {
        if (row.make == nullptr)
            continue;
        const auto own = row.make()->options();
        const auto all = joined({own, common_options_of(row, own, program.common, program.more)});
        const bool is_list = row.output != nullptr && row.output->shape == Output::Shape::list;
        for (const char *name : {"--columns", "--sort", "--limit", "--wide"})
            EXPECT_EQ(
                std::count_if(all.begin(), all.end(), [&](const Option &option) { return !strcmp(option.name, name); }),
                is_list ? 1 : 0)
                << row.path << " " << name;
        for (const auto &option : all)
            EXPECT_TRUE(strcmp(option.name, "--limit") != 0 || option.range.value_or(Range{}).least == 1)
                << row.path << ": no rows at all are no wish";
        lists += is_list ? 1 : 0;
    }
    EXPECT_GT(lists, 30u);
}
