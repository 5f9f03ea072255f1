// Help texts for a terminal of some width.
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cli/commands.h>
#include <cli/wrap.h>
#include <tests/unit/cli/lines.h>

using namespace velia::cli;
using testing::HasSubstr;
using velia::cli::test::help_of;

namespace {

size_t longest_line(const std::string &text) {
    std::istringstream lines(text);
    size_t longest = 0;
    for (std::string line; std::getline(lines, line);)
        longest = std::max(longest, line.size());
    return longest;
}

std::string without_breaks(const std::string &text) {
    std::istringstream words(text);
    std::string all;
    for (std::string word; words >> word;)
        all += word == "\\" ? "" : word + " ";
    return all;
}

} // namespace

TEST(Wrapping, GoesOnBelowTheDescription) {
    EXPECT_EQ(wrapped("  --name NAME        one two three four five\n", 32), "  --name NAME        one two\n"
                                                                             "                     three four\n"
                                                                             "                     five\n");
}

TEST(Wrapping, OfAParagraphHasNoIndent) {
    EXPECT_EQ(wrapped("one two three four\n", 10), "one two\nthree four\n");
}

TEST(Wrapping, LeavesWhatFitsAndWhatCannotBeBroken) {
    EXPECT_EQ(wrapped("  a   b\n\nabcdefghijkl\n", 10), "  a   b\n\nabcdefghijkl\n");
}

TEST(Wrapping, OfAnExampleCanBePastedIntoAShell) {
    EXPECT_EQ(wrapped("Examples:\n  tool one 'two three four' five\n\n", 22), "Examples:\n"
                                                                              "  tool one \\\n"
                                                                              "      'two three four' \\\n"
                                                                              "      five\n\n");
}

TEST(Wrapping, OfNotesMakesTheirParagraphsAnew) {
    EXPECT_EQ(refilled("one\ntwo\n\nthree\n"), "one two\n\nthree\n");
}

TEST(Wrapping, KeepsEveryHelpWithinTheTerminalAndLosesNoWord) {
    CommonArguments common;
    Program program = whole_program(common);
    for (const auto &command : program.commands) {
        std::istringstream stream(command.path);
        const std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
        program.help_width = 10'000;
        const std::string whole = help_of(program, words);
        for (const size_t width : {80u, 100u}) {
            program.help_width = width;
            const std::string help = help_of(program, words);
            EXPECT_LE(longest_line(help), width) << help;
            EXPECT_EQ(without_breaks(help), without_breaks(whole)) << command.path;
        }
    }
}
