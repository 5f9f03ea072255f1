// The table of what makes an entry, as callers and readers of the pages see it, against what the registry does.
#include <server/registry/record.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace velia::server;
using testing::SizeIs;

namespace {

using Names = std::vector<std::string>;

// The rows of the table in the header: a database, the items in which its entries are the same, and others.
std::map<std::string, Names> rows_of_header() {
    std::map<std::string, Names> rows;
    std::ifstream header(SOURCE_FOLDER "/include/veliaxdr/rgy_manage.h");
    const std::regex row(R"( \*   (\w+)  +((\w+)( \w+)?)(  .*)?)");
    std::smatch parts;
    for (std::string line; std::getline(header, line) && line != " */";)
        if (std::regex_match(line, parts, row)) {
            std::istringstream words(parts[2]);
            for (std::string word; words >> word;)
                rows[parts[1]].push_back(word);
        }
    rows.erase("database"); // the heading
    return rows;
}

// The same of the manual page.
std::map<std::string, Names> rows_of_page() {
    std::map<std::string, Names> rows;
    std::ifstream page(SOURCE_FOLDER "/doc/man/velia-files.5");
    const std::regex row(R"((\w+)\t(\w+)( \w+)?(\t.*)?)");
    std::smatch parts;
    for (std::string line; std::getline(page, line);)
        if (std::regex_match(line, parts, row)) {
            rows[parts[1]].push_back(parts[2]);
            if (parts[3].matched)
                rows[parts[1]].push_back(std::string(parts[3]).substr(1));
        }
    rows.erase("database");
    return rows;
}

Items items_with(const Names &names) {
    Items items;
    for (const auto &name : names)
        items["-" + name] = "one";
    return items;
}

} // namespace

TEST(Identity, IsInTheHeadersTableForEachDatabase) {
    const auto rows = rows_of_header();
    ASSERT_THAT(rows, SizeIs(RGY_DB_ALL));
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db) {
        const std::string name = registry_db_name(db);
        ASSERT_TRUE(rows.contains(name)) << name;
        const Names &items = rows.at(name);
        const auto whole = items_with(items);
        const auto identity = identity_of(db, whole);
        EXPECT_NE(identity, "") << name;
        EXPECT_EQ(identity_of(db, items_with({items.front()})) == identity, items.size() == 1) << name;
        auto others = whole;
        others["-title"] = "another";
        EXPECT_EQ(identity_of(db, others), identity) << name;
        others.erase("-" + items.front());
        EXPECT_EQ(identity_of(db, others), "") << name;
    }
}

TEST(Identity, IsTheSameInTheManualsTable) {
    EXPECT_EQ(rows_of_page(), rows_of_header());
}
