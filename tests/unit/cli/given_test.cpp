// Options that the line does not give: line before environment before file before default, and files that are faulty.
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cli/given.h>
#include <tests/bad_files.h>
#include <tests/unit/cli/lines.h>

using namespace velia::cli;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using velia::cli::test::parsed;

namespace {

struct Arguments {
    std::string host;
    bool is_fast = false;
    int32_t size = 5;
    Duration pause = Duration(1000);
    std::optional<std::string> name;
    std::vector<std::string> notes;
    std::string by_string;
    std::string by_uuid;
};

Arguments taken; // by the last command that ran

Options options_of(Arguments &arguments) {
    return {
        {.name = "HOST", .help = "a host", .target = &arguments.host, .is_required = true},
        {.name = "-f,--fast", .help = "a switch", .target = &arguments.is_fast},
        {.name = "--the-size", .type = "SIZE", .help = "a number", .target = &arguments.size, .range = Range{1, 10}},
        {.name = "--pause",
         .type = "SECONDS",
         .help = "a time",
         .target = &arguments.pause,
         .range = Range{1, 10'000},
         .needs = "--fast"},
        {.name = "--name", .type = "NAME", .help = "a text", .target = &arguments.name},
        {.name = "--note", .type = "TEXT", .help = "a list", .target = &arguments.notes},
        {.name = "--string", .type = "TEXT", .help = "one way", .target = &arguments.by_string, .one_of = "Search"},
        {.name = "--uuid", .type = "UUID", .help = "the other", .target = &arguments.by_uuid, .one_of = "Search"},
    };
}

int work(const Arguments &arguments, const Settings & /*settings*/) {
    taken = arguments;
    return exit_done;
}

constexpr Command rows[] = {{.path = "group", .help = "some"},
                            {.path = "group one", .help = "does it", .make = call_of<work, options_of>},
                            {.path = "group two", .help = "too", .make = call_of<work, options_of>}};

const char *const variables[] = {"VELIACTL_FAST", "VELIACTL_THE_SIZE", "VELIACTL_PAUSE",  "VELIACTL_NAME",
                                 "VELIACTL_NOTE", "VELIACTL_STRING",   "VELIACTL_COMMON", "VELIACTL_UUID"};

struct GivenElsewhere : testing::Test {
    std::filesystem::path folder;
    std::string common_text = "default";

    GivenElsewhere() {
        std::string made = (std::filesystem::temp_directory_path() / "given-XXXXXX").string();
        EXPECT_NE(mkdtemp(made.data()), nullptr);
        folder = made;
    }
    ~GivenElsewhere() override {
        std::filesystem::remove_all(folder);
        for (const char *variable : variables)
            unsetenv(variable);
    }
    std::string path() const { return folder / "file.toml"; }
    void write(const std::string &text) const { std::ofstream(path()) << text; }

    test::Parsed parsed_line(std::vector<std::string> words) {
        const Options common = {{.name = "--common", .type = "TEXT", .help = "of all", .target = &common_text}};
        const std::vector<Command> commands = {std::begin(rows), std::end(rows)};
        const Program program = {"made_up",
                                 "",
                                 "",
                                 commands,
                                 common,
                                 help_width_usual,
                                 {environment(), configuration_file(path(), commands, common)}};
        words.insert(words.begin(), {"group", "one"});
        return parsed(program, words);
    }
    Arguments run(const std::vector<std::string> &words = {"h", "--string", "s"}) {
        const auto result = parsed_line(words);
        taken = {};
        EXPECT_EQ(result.call != nullptr ? result.call->run({}) : result.status, exit_done) << result.errors;
        return taken;
    }
    std::string refusal(const std::vector<std::string> &words = {"h", "--string", "s"}) {
        const auto result = parsed_line(words);
        EXPECT_EQ(result.call, nullptr);
        EXPECT_EQ(result.status, exit_usage);
        return result.errors;
    }
    void expect_fault(const std::string &text, const std::string &fault) {
        write(text);
        EXPECT_THAT(refusal(), HasSubstr("made_up: Error: " + path() + fault)) << text;
    }
};

} // namespace

TEST_F(GivenElsewhere, TheLineComesBeforeTheEnvironmentBeforeTheFileBeforeTheDefault) {
    EXPECT_EQ(run().size, 5);
    EXPECT_EQ(common_text, "default");
    write("common = \"file\"\n[group.one]\nthe-size = 6\n");
    EXPECT_EQ(run().size, 6);
    EXPECT_EQ(common_text, "file");
    setenv("VELIACTL_THE_SIZE", "7", 1);
    setenv("VELIACTL_COMMON", "environment", 1);
    EXPECT_EQ(run().size, 7);
    EXPECT_EQ(common_text, "environment");
    EXPECT_EQ(run({"h", "--string", "s", "--the-size", "8", "--common", "line"}).size, 8);
    EXPECT_EQ(common_text, "line");
    setenv("VELIACTL_THE_SIZE", "", 1);
    EXPECT_EQ(run().size, 6) << "an empty variable gives nothing";
}

TEST_F(GivenElsewhere, EveryKindOfOptionCanBe) {
    write("fast = true\npause = 0.5\nname = \"a \\\"b\\\" \\\\ c\\n\"\nnote = [\"x\", 'y\\z']\nthe-size = 3 # few\n");
    const auto arguments = run();
    EXPECT_TRUE(arguments.is_fast);
    EXPECT_EQ(arguments.pause, Duration(500));
    EXPECT_EQ(arguments.name, "a \"b\" \\ c\n");
    EXPECT_THAT(arguments.notes, ElementsAre("x", "y\\z"));
    EXPECT_EQ(arguments.size, 3);
    setenv("VELIACTL_NOTE", "one\ntwo, three", 1);
    setenv("VELIACTL_FAST", "false", 1);
    const auto others = run();
    EXPECT_THAT(others.notes, ElementsAre("one", "two, three"));
    EXPECT_FALSE(others.is_fast) << "which the file does not change";
    EXPECT_EQ(others.pause, Duration(1000)) << "what it needs is not given";
    EXPECT_THAT(run({"h", "--string", "s", "--note", "line"}).notes, ElementsAre("line"));
}

TEST_F(GivenElsewhere, OfSeveralWaysTheOneThatComesFirstIsTaken) {
    write("uuid = \"file\"\n");
    EXPECT_EQ(run({"h", "--string", "line"}).by_uuid, "");
    EXPECT_EQ(run({"h"}).by_uuid, "file");
    setenv("VELIACTL_STRING", "environment", 1);
    const auto arguments = run({"h"});
    EXPECT_EQ(arguments.by_string, "environment");
    EXPECT_EQ(arguments.by_uuid, "");
    setenv("VELIACTL_UUID", "environment", 1);
    EXPECT_THAT(refusal({"h"}), HasSubstr("and 2 were given"));
}

TEST_F(GivenElsewhere, TheSectionNearestToTheCommandCounts) {
    write("the-size = 1\n[group]\nthe-size = 2\n[group.two]\nthe-size = 4\n");
    EXPECT_EQ(run().size, 2);
    write("[group.one]\nthe-size = 3\n[group]\nthe-size = 2\n");
    EXPECT_EQ(run().size, 3);
}

TEST_F(GivenElsewhere, ABadValueIsToldWithItsVariable) {
    setenv("VELIACTL_THE_SIZE", "11", 1);
    EXPECT_THAT(refusal(), HasSubstr("made_up: Error: VELIACTL_THE_SIZE: Value 11 not in range 1 to 10\n"));
    setenv("VELIACTL_THE_SIZE", "1", 1);
    setenv("VELIACTL_FAST", "perhaps", 1);
    EXPECT_THAT(refusal(), HasSubstr("VELIACTL_FAST: 'perhaps' is neither true nor false"));
}

TEST_F(GivenElsewhere, AFaultyFileIsToldWithItsLine) {
    expect_fault("\n# fine\nthe-size = 11\n", ":3: the-size: Value 11 not in range 1 to 10\n");
    expect_fault("the-size = [1, 2]\n", ":1: the-size: one value is wanted, not 2\n");
    expect_fault("fast = 1\n", ":1: fast: '1' is neither true nor false\n");
    expect_fault("nonsense = 1\n", ":1: there is no option --nonsense\n");
    expect_fault("[group.one]\nnonsense = 1\n", ":2: there is no option --nonsense of 'group one'\n");
    expect_fault("[nothing]\nthe-size = 1\n", ":2: there is no command 'nothing'\n");
    expect_fault("the-size = 1\nthe-size = 2\n", ":2: the-size stands in line 1 already\n");
    expect_fault("the-size 1\n", ":1: '=' is missing at '1'\n");
    expect_fault("= 1\n", ":1: a name is missing at '= 1'\n");
    expect_fault("[group\n", ":1: ']' is missing at ''\n");
    expect_fault("name = bare\n", ":1: a value is a text in quotes, a number, true or false; not 'bare'\n");
    expect_fault("name = \"open\n", ":1: a text is not closed\n");
    expect_fault("name = 'open\n", ":1: a text is not closed\n");
    expect_fault("name = \"\\x\"\n", ":1: an escape is \\\", \\\\, \\n, \\t or \\r, not '\\x\"'\n");
    expect_fault("note = ['a' 'b']\n", ":1: ',' is missing at ''b']'\n");
    expect_fault("name = 'a' 'b'\n", ":1: ''b'' is too much\n");
    expect_fault("fast = true\n" + std::string(2000, '#') + "\n", ":2: ");
}

TEST_F(GivenElsewhere, AnythingInTheFilesPlaceIsRefusedAtOnce) {
    for (const auto kind : bad_files::all_kinds) {
        const bad_files::BadFile file(kind, path());
        EXPECT_THAT(refusal(), HasSubstr("made_up: Error: " + path() + ": ")) << static_cast<int>(kind);
    }
    EXPECT_EQ(run().size, 5) << "and no file is none";
}

TEST_F(GivenElsewhere, HelpIsGivenWhateverTheFileHolds) {
    write("nonsense\n");
    EXPECT_EQ(parsed_line({"--help"}).status, exit_done);
}

TEST_F(GivenElsewhere, TheFileIsWhereTheUsersOthersAre) {
    const std::string home = std::getenv("HOME") != nullptr ? std::getenv("HOME") : "";
    setenv("HOME", "/home/ann", 1);
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(configuration_path(), "/home/ann/.config/veliactl.toml");
    setenv("XDG_CONFIG_HOME", "/etc/ann", 1);
    EXPECT_EQ(configuration_path(), "/etc/ann/veliactl.toml");
    setenv("XDG_CONFIG_HOME", "relative", 1);
    EXPECT_EQ(configuration_path(), "/home/ann/.config/veliactl.toml");
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("HOME");
    EXPECT_THAT(configuration_path(), IsEmpty());
    setenv("HOME", home.c_str(), 1);
}
