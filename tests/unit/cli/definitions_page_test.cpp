// What the page about definitions shows is read, or refused in these words; and editors know every tag.
#include <cli/definition_format.h>
#include <cli/definitions.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace velia::cli;
using testing::HasSubstr;

namespace {

struct Block {
    std::string kind;
    std::string text;
};

std::string read(const std::string &name) {
    std::ifstream file(std::string(SOURCE_FOLDER) + "/" + name);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<Block> blocks_of(const std::string &page) {
    constexpr const char *fence = "```";
    std::vector<Block> blocks;
    std::istringstream lines(page);
    bool is_within = false;
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(fence)) {
            is_within = !is_within;
            if (is_within)
                blocks.push_back({line.substr(3), ""});
        } else if (is_within) {
            blocks.back().text += line + "\n";
        }
    return blocks;
}

std::string finding_of(const std::string &text) {
    const JobFile file("", text, any_task);
    return file.findings().empty() ? "" : file.findings()[0].text().substr(1) + "\n";
}

} // namespace

TEST(DefinitionsPage, ShowsWhatIsReadAndWhatIsRefused) {
    const auto blocks = blocks_of(read("doc/definitions.md"));
    size_t count = 0;
    for (size_t i = 0; i < blocks.size(); ++i) {
        const auto &[kind, text] = blocks[i];
        const bool is_refused = kind == "jobs refused";
        if (kind != "jobs" && !is_refused)
            continue;
        EXPECT_EQ(finding_of(text), is_refused ? blocks.at(i + 1).text : "") << text;
        ++count;
    }
    EXPECT_GE(count, 9U);
}

TEST(DefinitionsPage, ShowsTasksThatAreRead) {
    for (const auto &[kind, text] : blocks_of(read("doc/definitions.md")))
        if (kind == "tasks") {
            const std::string path = testing::TempDir() + "velia-page.tasks";
            std::ofstream(path) << text;
            EXPECT_EQ(TaskFile(path).tasks().size(), 1U) << text;
            std::remove(path.c_str());
        }
}

TEST(DefinitionsPage, EditorsKnowEveryTag) {
    auto tags = definition_tags();
    for (const char *tag : {"Task.Begin", "Task.Id:", "Task.Name:", "Task.Pathname:", "Task.UIInfo:", "Task.End"})
        tags.emplace_back(tag);
    for (const char *name : {"packaging/vim/syntax/velia.vim", "packaging/textmate/velia.tmLanguage.json"}) {
        std::string text = read(name);
        std::erase(text, '\\');
        for (const auto &tag : tags)
            EXPECT_THAT(text, HasSubstr(tag)) << name;
    }
}

// The table that the library gives, of which the tool's is more exact.
TEST(DefinitionsPage, TagsAreThoseOfTheLibrary) {
    const auto tags = definition_tags();
    for (uint32_t i = 0; i < num_top_tag_actions; ++i)
        EXPECT_TRUE(std::any_of(tags.begin(), tags.end(), [&](const std::string &tag) {
            return tag.starts_with(top_tag_actions[i].tag);
        })) << top_tag_actions[i].tag;
}
