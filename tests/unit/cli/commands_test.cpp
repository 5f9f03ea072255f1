// Rules that every row of the program's table keeps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include <cli/commands.h>
#include <tests/unit/cli/lines.h>

using namespace velia::cli;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

struct CommandTable : testing::Test {
    CommonArguments common;
    Program program = whole_program(common);

    std::vector<std::unique_ptr<Call>> calls; // whose arguments the options fill

    // Its own, and the common ones if it has them.
    Options options_of(const Command &command) {
        if (command.make == nullptr)
            return {};
        calls.push_back(command.make());
        return joined({calls.back()->options(), command.has_common_options ? program.common : Options()});
    }
    template <class Take>
    void each_option(Take &&take) {
        for (const auto &command : program.commands)
            for (const auto &option : options_of(command)) {
                SCOPED_TRACE(std::string(command.path) + ": " + option.name);
                take(option);
            }
    }
};

} // namespace

TEST_F(CommandTable, EveryRowHasAHelpAndAPathOfItsOwnBehindItsGroup) {
    std::set<std::string> paths = {""};
    for (const auto &command : program.commands) {
        EXPECT_STRNE(command.help, "") << command.path;
        EXPECT_TRUE(paths.contains(group_and_name(command).group)) << command.path;
        EXPECT_TRUE(paths.insert(command.path).second) << command.path;
    }
    EXPECT_GT(paths.size(), 30u);
}

TEST_F(CommandTable, EveryCommandHasAnExampleOfItself) {
    for (const auto &command : program.commands) {
        EXPECT_EQ(command.make != nullptr, command.examples[0] != nullptr) << command.path;
        for (const char *example : command.examples)
            if (example != nullptr) {
                EXPECT_THAT(example, HasSubstr(std::string("veliactl ") + command.path));
            }
        EXPECT_THAT(std::string("\n") + command.notes, EndsWith("\n")) << command.path;
    }
}

TEST_F(CommandTable, EveryCommandThatPrintsResultsTellsOfTheirColumns) {
    for (const auto &command : program.commands) {
        EXPECT_EQ(command.output != nullptr, command.make != nullptr && command.has_common_options) << command.path;
        std::set<std::string> names;
        for (const auto &column : command.output != nullptr ? command.output->columns : std::span<const Column>()) {
            EXPECT_STRNE(column.help, "") << command.path << ": " << column.name;
            EXPECT_TRUE(names.insert(column.name).second) << command.path << ": " << column.name;
        }
    }
}

TEST_F(CommandTable, EveryOptionHasAHelpAndAValueATypeAndAPlaceNone) {
    each_option([](const Option &option) {
        EXPECT_STRNE(option.help, "");
        EXPECT_EQ(*option.type == '\0', option.is_place() || is_switch(option));
    });
}

TEST_F(CommandTable, EveryNameStandsOnceInItsCommand) {
    for (const auto &command : program.commands) {
        std::set<std::string> names = {"-h", "--help"};
        for (const auto &option : options_of(command))
            for (const auto &name : names_of(option))
                EXPECT_TRUE(names.insert(name).second) << command.path << ": " << name;
    }
}

TEST_F(CommandTable, EveryOptionHasANameThatAVariableAndAFileCanHave) {
    each_option([](const Option &option) {
        if (option.is_place())
            return;
        EXPECT_THAT(key_of(option), testing::MatchesRegex("[a-z][a-z-]*"));
        EXPECT_THAT(variable_of(option), testing::MatchesRegex("VELIACTL_[A-Z][A-Z_]*"));
    });
}

TEST_F(CommandTable, EveryDefaultIsWithinItsBounds) {
    each_option([](const Option &option) {
        if (!option.range || !option.shows_default)
            return;
        std::visit(
            [&](auto *value) {
                if constexpr (std::is_integral_v<std::remove_pointer_t<decltype(value)>>) {
                    EXPECT_GE(static_cast<int64_t>(*value), option.range->least);
                    EXPECT_LE(static_cast<int64_t>(*value), option.range->most);
                }
            },
            option.target);
    });
}

TEST_F(CommandTable, OnlyTheLastPlaceIsRepeated) {
    for (const auto &command : program.commands) {
        bool has_ended = false;
        for (const auto &option : options_of(command)) {
            if (!option.is_place())
                continue;
            EXPECT_FALSE(has_ended) << command.path << ": " << option.name;
            has_ended = std::holds_alternative<std::vector<std::string> *>(option.target);
        }
    }
}

TEST_F(CommandTable, OfferedWordsAreTaken) {
    size_t word_count = 0;
    each_option([&](const Option &option) {
        for (const char *word : option.words) {
            ++word_count;
            EXPECT_EQ(option.fault != nullptr ? option.fault(word) : "", "");
        }
    });
    EXPECT_GT(word_count, 20u);
}
