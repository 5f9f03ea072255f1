// What becomes of a line, on a program made for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/unit/cli/lines.h>

using namespace velia::cli;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using velia::cli::test::help_of;
using velia::cli::test::parsed;

namespace {

using Line = std::vector<std::string>;

struct Arguments {
    std::string host;
    std::vector<std::string> further;
    bool is_dry_run = false;
    int32_t small = 5;
    Duration pause = Duration(1500);
    int64_t large = 0;
    uint64_t natural = 0;
    std::optional<std::string> name;
    std::string color = "red";
    std::string even;
    std::vector<std::string> notes;
    std::string by_string;
    std::string by_uuid;
};

Arguments taken; // by the last command that ran

std::string fault_of_even(const std::string &text) {
    return text.size() % 2 == 0 ? "" : "'" + text + "' is odd";
}

constexpr const char *colors[] = {"red", "green"};

Options options_of(Arguments &arguments) {
    return {
        {.name = "HOST", .help = "a host", .target = &arguments.host, .is_required = true},
        {.name = "FURTHER", .help = "more of them", .target = &arguments.further},
        {.name = "-n,--dry-run", .help = "do nothing", .target = &arguments.is_dry_run},
        {.name = "--small",
         .type = "NUMBER",
         .help = "a number",
         .target = &arguments.small,
         .range = Range{1, 10},
         .shows_default = true},
        {.name = "--pause",
         .type = "SECONDS",
         .help = "with a fraction",
         .target = &arguments.pause,
         .range = Range{1, 10'000},
         .shows_default = true},
        {.name = "--large", .type = "NUMBER", .help = "another", .target = &arguments.large},
        {.name = "--natural",
         .type = "NUMBER",
         .help = "no negative one",
         .target = &arguments.natural,
         .range = Range{0, UINT32_MAX}},
        {.name = "--name",
         .type = "NAME",
         .help = "an empty one counts",
         .target = &arguments.name,
         .needs = "--dry-run"},
        {.name = "--color", .type = "COLOR", .help = "one of two", .target = &arguments.color, .words = colors},
        {.name = "--even",
         .type = "TEXT",
         .help = "of any even length",
         .target = &arguments.even,
         .fault = fault_of_even},
        {.name = "--note", .type = "TEXT", .help = "again and again", .target = &arguments.notes},
    };
}

Options ways_of(Arguments &arguments) {
    return {
        {.name = "--string", .type = "TEXT", .help = "one way", .target = &arguments.by_string, .one_of = "Search"},
        {.name = "--uuid", .type = "UUID", .help = "the other", .target = &arguments.by_uuid, .one_of = "Search"},
    };
}

constexpr int status_of_work = 42;

int work(const Arguments &arguments, const Settings &settings) {
    taken = arguments;
    taken.small += static_cast<int32_t>(settings.timeout.count());
    return status_of_work;
}

constexpr Command rows[] = {
    {.path = "one",
     .help = "does one thing",
     .examples = {"one a", "one a --dry-run"},
     .notes = "There is more to say.\n",
     .make = call_of<work, options_of>},
    {.path = "group", .help = "others"},
    {.path = "group two", .help = "does another", .examples = {"group two"}, .make = call_of<work, ways_of>},
    {.path = "group three",
     .help = "does it alone",
     .examples = {"group three"},
     .make = call_of<work, ways_of>,
     .has_common_options = false},
};

struct Parser : testing::Test {
    std::string common_text;
    Program program = {"made_up",
                       "A program of a test.",
                       "1.2 of it",
                       {std::begin(rows), std::end(rows)},
                       {{.name = "--common", .type = "TEXT", .help = "of all", .target = &common_text}}};

    // What the command has taken from the line.
    Arguments run(const Line &words) const {
        const auto result = parsed(program, words);
        taken = {};
        EXPECT_EQ(result.call != nullptr ? result.call->run({.timeout = Duration(0)}) : result.status, status_of_work)
            << result.errors;
        return taken;
    }
    std::string refusal(const Line &words) const {
        const auto result = parsed(program, words);
        EXPECT_EQ(result.call, nullptr);
        EXPECT_EQ(result.status, exit_usage);
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_THAT(result.errors, StartsWith("made_up: Error: "));
        return result.errors;
    }
};

} // namespace

TEST_F(Parser, GivesEachOptionToItsMember) {
    const auto arguments = run({"one", "-n", "--small", "0xa", "--large", "-9000000000", "--natural", "4294967295",
                                "--color=green", "--even", "ab", "host"});
    EXPECT_TRUE(arguments.is_dry_run);
    EXPECT_EQ(arguments.small, 10);
    EXPECT_EQ(arguments.large, -9000000000);
    EXPECT_EQ(arguments.natural, UINT32_MAX);
    EXPECT_EQ(arguments.color, "green");
    EXPECT_EQ(arguments.even, "ab");
    EXPECT_EQ(arguments.host, "host");
}

TEST_F(Parser, LeavesWhatIsNotGivenAsItIs) {
    const auto arguments = run({"one", "host"});
    EXPECT_FALSE(arguments.is_dry_run);
    EXPECT_EQ(arguments.small, 5);
    EXPECT_EQ(arguments.color, "red");
    EXPECT_EQ(arguments.name, std::nullopt);
    EXPECT_THAT(arguments.further, IsEmpty());
}

TEST_F(Parser, TellsAnEmptyTextFromNone) {
    EXPECT_EQ(run({"one", "host", "-n", "--name", ""}).name, "");
}

TEST_F(Parser, TakesOneValueForEachTimeThatAListIsNamed) {
    const auto arguments = run({"one", "--note", "a", "host", "--note", "b", "other", "third"});
    EXPECT_THAT(arguments.notes, ElementsAre("a", "b"));
    EXPECT_EQ(arguments.host, "host");
    EXPECT_THAT(arguments.further, ElementsAre("other", "third"));
}

TEST_F(Parser, RefusesWhatIsMissingUnknownOrOutOfBounds) {
    EXPECT_THAT(refusal({"one"}), HasSubstr("HOST is required"));
    EXPECT_THAT(refusal({}), HasSubstr("A subcommand is required"));
    EXPECT_THAT(refusal({"group"}), HasSubstr("A subcommand is required"));
    EXPECT_THAT(refusal({"one", "host", "--nothing"}), HasSubstr("--nothing"));
    EXPECT_THAT(refusal({"one", "host", "--small", "0"}), HasSubstr("--small: Value 0 not in range 1 to 10"));
    EXPECT_THAT(refusal({"one", "host", "--small", "11"}), HasSubstr("Value 11 not in range 1 to 10"));
    EXPECT_THAT(refusal({"one", "host", "--natural", "-1"}), HasSubstr("Value -1 not in range"));
    EXPECT_THAT(refusal({"one", "host", "--color", "blue"}), HasSubstr("--color: 'blue' is none of red, green"));
    EXPECT_THAT(refusal({"one", "host", "--even", "a"}), HasSubstr("--even: 'a' is odd"));
    EXPECT_THAT(refusal({"one", "host", "--name", "x"}), HasSubstr("--name requires --dry-run"));
}

TEST_F(Parser, NamesAMisspeltCommandAndOffersTheNearest) {
    EXPECT_EQ(refusal({"oen", "host"}), "made_up: Error: There is no command 'oen'; did you mean 'one'?\n"
                                        "Run with --help for more information.\n");
    EXPECT_THAT(refusal({"--what", "gorup", "two"}), HasSubstr("no command 'gorup'; did you mean 'group'?"));
    EXPECT_THAT(refusal({"group", "-n", "tree"}), HasSubstr("no command 'group tree'; did you mean 'group three'?"));
    EXPECT_THAT(refusal({"group", "one"}), HasSubstr("There is no command 'group one'\n")) << "nothing is like it";
    EXPECT_THAT(refusal({"nonsense"}), HasSubstr("There is no command 'nonsense'\n"));
    EXPECT_EQ(parsed(program, {"--help", "oen"}).status, exit_done);
}

TEST_F(Parser, WantsExactlyOneOfAGroup) {
    EXPECT_EQ(run({"group", "two", "--uuid", "u"}).by_uuid, "u");
    EXPECT_THAT(refusal({"group", "two"}), HasSubstr("Exactly 1 option from [--string,--uuid]"));
    EXPECT_THAT(refusal({"group", "two", "--uuid", "u", "--string", "s"}), HasSubstr("and 2 were given"));
}

TEST_F(Parser, GivesTheCommonOptionsToThoseWhoHaveThem) {
    run({"group", "two", "--uuid", "u", "--common", "x"});
    EXPECT_EQ(common_text, "x");
    EXPECT_THAT(refusal({"group", "three", "--uuid", "u", "--common", "x"}), HasSubstr("--common"));
}

TEST_F(Parser, TakesTheCommonOptionsInFrontOfTheCommandToo) {
    run({"--common", "x", "group", "two", "--uuid", "u"});
    EXPECT_EQ(common_text, "x");
    run({"--common=two", "group", "two", "--uuid", "u", "--common", "behind"});
    EXPECT_EQ(common_text, "behind") << "the last one counts";
    run({"--common", "one", "group", "three", "--uuid", "u"});
    EXPECT_EQ(common_text, "one") << "a word that is a value is no command";
    EXPECT_THAT(refusal({"--common", "x", "oen"}), HasSubstr("did you mean 'one'?"));
}

TEST_F(Parser, TakesSecondsWithAFraction) {
    EXPECT_EQ(run({"one", "host"}).pause, Duration(1500));
    EXPECT_EQ(run({"one", "host", "--pause", "0.5"}).pause, Duration(500));
    EXPECT_EQ(run({"one", "host", "--pause", "10"}).pause, Duration(10'000));
    EXPECT_THAT(help_of(program, {"one"}), HasSubstr("--pause SECONDS=1.5"));
    EXPECT_THAT(refusal({"one", "host", "--pause", "0"}), HasSubstr("--pause: Value 0 not in range 0.001 to 10"));
    EXPECT_THAT(refusal({"one", "host", "--pause", "10.001"}), HasSubstr("not in range 0.001 to 10"));
    EXPECT_THAT(refusal({"one", "host", "--pause", "soon"}), HasSubstr("'soon' is no number of seconds"));
}

TEST_F(Parser, AnswersHelpAndVersionByItself) {
    const auto help = parsed(program, {"one", "--help"});
    EXPECT_EQ(help.call, nullptr);
    EXPECT_EQ(help.status, exit_done);
    EXPECT_THAT(help.errors, IsEmpty());
    const auto version = parsed(program, {"--version"});
    EXPECT_EQ(version.output, "1.2 of it\n");
    EXPECT_EQ(version.status, exit_done);
}

TEST_F(Parser, HelpShowsTheRow) {
    const auto help = help_of(program, {"one"});
    EXPECT_THAT(help, HasSubstr("does one thing"));
    EXPECT_THAT(help, HasSubstr("HOST REQUIRED"));
    EXPECT_THAT(help, HasSubstr("--small NUMBER=5"));
    EXPECT_THAT(help, Not(HasSubstr("--large NUMBER=")));
    EXPECT_THAT(help,
                HasSubstr("Examples:\n  one a\n  one a --dry-run\n\nThere is more to say.\n\nExit status: 0 done"));
    EXPECT_THAT(help_of(program, {"group"}), Not(HasSubstr("Examples")));
}
