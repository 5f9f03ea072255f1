// The page of what a schedule means: each of its examples is what happens.
#include <gtest/gtest.h>

#include <fstream>

#include "words.h"

using namespace schedule_test;

namespace {

// The blocks that are fenced as schedules.
std::vector<std::string> examples_of_page() {
    std::ifstream page(SOURCE_FOLDER "/doc/schedules.md");
    std::vector<std::string> examples;
    bool is_inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line == "```schedule") {
            is_inside = true;
            examples.emplace_back();
        } else if (line.starts_with("```")) {
            is_inside = false;
        } else if (is_inside) {
            examples.back() += line + "\n";
        }
    }
    return examples;
}

} // namespace

TEST(SchedulesPage, EveryExampleIsWhatHappens) {
    const auto examples = examples_of_page();
    EXPECT_GE(examples.size(), 20U);
    for (const auto &text : examples) {
        const Example example = read_example(text);
        EXPECT_EQ(example.fault, "") << text;
        EXPECT_FALSE(example.told.empty()) << text;
        EXPECT_EQ(runs_of(example), example.told) << text;
    }
}
