// The completion scripts in their shells, against what the help texts tell: whatever is in the help of a command is
// offered behind it.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cli/commands.h>
#include <cli/completion.h>
#include <tests/unit/cli/lines.h>

namespace {

using namespace velia::cli;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::UnorderedElementsAre;
using velia::cli::test::help_of;

using Words = std::vector<std::string>;

// What the help of a command lists: its own subcommands, and its options in every spelling.
struct Help {
    Words subcommands;
    Words options;

    explicit Help(const std::string &help) {
        std::istringstream text(help);
        bool is_in_subcommands = false;
        for (std::string line; std::getline(text, line);) {
            if (!line.empty() && line.front() != ' ')
                is_in_subcommands = line == "Subcommands:";
            std::istringstream words(line);
            std::string first;
            words >> first;
            if (is_in_subcommands && line.starts_with("  ") && line[2] != ' ' && !first.empty())
                subcommands.push_back(first);
            if (line.starts_with("  -") || line.starts_with("    -"))
                add_spellings(first);
        }
    }

private:
    void add_spellings(const std::string &spellings) {
        std::istringstream all(spellings);
        for (std::string one; std::getline(all, one, ',');)
            options.push_back(one);
    }
};

// A command line up to the cursor, and what the shell offers there.
struct Query {
    Words words;
    Words offered = {};
};

std::string in_quotes(const std::string &text) {
    return "'" + text + "'"; // no test has a quote in a word
}

class Shell {
public:
    virtual ~Shell() { std::filesystem::remove_all(folder_); }
    Shell() {
        std::string made = (std::filesystem::temp_directory_path() / "completion-XXXXXX").string();
        EXPECT_NE(mkdtemp(made.data()), nullptr);
        folder_ = made;
        std::filesystem::create_directory(folder_ / "files");
        std::ofstream(folder_ / "files" / "secret.txt") << "x";
    }
    Shell(const Shell &) = delete;
    Shell &operator=(const Shell &) = delete;

    // One shell answers all.
    void ask(std::vector<Query> &queries) const {
        CommonArguments common;
        const auto driver = folder_ / "driver";
        std::ofstream(folder_ / "script") << script(words_of_program(whole_program(common)));
        std::string text = prologue(folder_ / "script");
        for (const auto &query : queries)
            text += question(query.words) + "print_end\n";
        std::ofstream(driver) << text;
        read_answers("cd '" + (folder_ / "files").string() + "' && " + program() + " '" + driver.string() + "' 2>&1",
                     queries);
    }
    Words offered(const Words &words) const {
        std::vector<Query> queries = {{words}};
        ask(queries);
        return queries[0].offered;
    }

protected:
    virtual std::string program() const = 0;
    virtual std::string script(const std::vector<CommandWords> &commands) const = 0;
    virtual std::string prologue(const std::filesystem::path &script) const = 0;
    virtual std::string question(const Words &words) const = 0;

private:
    static void read_answers(const std::string &command, std::vector<Query> &queries) {
        FILE *pipe = popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        size_t at = 0;
        char line[4096];
        while (fgets(line, sizeof line, pipe) != nullptr) {
            std::string word = line;
            word.pop_back();
            ASSERT_LT(at, queries.size()) << word;
            if (word == "END")
                ++at;
            else
                queries[at].offered.push_back(word);
        }
        EXPECT_EQ(pclose(pipe), 0);
        EXPECT_EQ(at, queries.size());
    }

    std::filesystem::path folder_;
};

// The program itself, where a script asks it for what it cannot know.
constexpr const char *stand_in =
    R"(veliactl() { [[ "$*" == "complete-words hosts" ]] && printf '%s\n' live.host other; }
)";

class Bash : public Shell {
    std::string program() const override { return "bash --norc --noprofile"; }
    std::string script(const std::vector<CommandWords> &commands) const override { return bash_script(commands); }
    std::string prologue(const std::filesystem::path &script) const override {
        return std::string("set -u\n") + stand_in + "source '" + script.string() +
               "'\nprint_end() { echo END; }\n"
               "complete -p veliactl >/dev/null || echo 'not registered'\n";
    }
    // Bash cuts words at "=" and ":" before it asks.
    std::string question(const Words &words) const override {
        std::string cut;
        size_t count = 0;
        for (const auto &word : words)
            for (size_t at = 0; at <= word.size(); ++count) {
                const bool is_breaks = word.find_first_of("=:", at) == at;
                const size_t end = is_breaks ? word.find_first_not_of("=:", at) : word.find_first_of("=:", at);
                cut += " " + in_quotes(word.substr(at, end - at));
                at = end == std::string::npos ? word.size() + 1 : end;
            }
        return "COMP_WORDS=(veliactl" + cut + ") COMP_CWORD=" + std::to_string(count) +
               "\n_veliactl\n[[ ${#COMPREPLY[@]} -eq 0 ]] || printf '%s\\n' \"${COMPREPLY[@]}\"\n";
    }
};

// Outside of its line editor zsh has no completion system, so what the script calls of it is stood in for here.
class Zsh : public Shell {
    std::string program() const override { return "zsh -f"; }
    std::string script(const std::vector<CommandWords> &commands) const override { return zsh_script(commands); }
    std::string prologue(const std::filesystem::path &script) const override {
        return stand_in + std::string(R"(setopt extended_glob no_unset
compdef() { :; }
offer() { local word; for word in "$@"; do [[ $word == ${(b)PREFIX}* ]] && print -r -- $word; done; true; }
compadd() { [[ $1 == -S ]] && shift 2; [[ $1 == -- ]] && shift; offer "$@"; }
compset() { PREFIX=${PREFIX#*=}; }
_describe() {
    local name
    [[ $1 == -o ]] && shift
    shift
    for name in "$@"; do [[ $name == -- ]] || offer "${(@)${(@P)name}%%:*}"; done
}
_files() { offer *; }
_hosts() { offer a_host; }
print_end() { print END; }
source ')") + script.string() +
               "'\n";
    }
    std::string question(const Words &words) const override {
        std::string typed;
        for (const auto &word : words)
            typed += " " + in_quotes(word);
        return "words=(veliactl" + typed + ") CURRENT=$#words PREFIX=$words[-1]\n_veliactl\n";
    }
};

class Fish : public Shell {
    std::string program() const override { return "fish --no-config"; }
    std::string script(const std::vector<CommandWords> &commands) const override { return fish_script(commands); }
    std::string prologue(const std::filesystem::path &script) const override {
        return "function veliactl; test \"$argv\" = 'complete-words hosts'; and printf '%s\\n' live.host other; end\n"
               "function print_end; echo END; end\nsource '" +
               script.string() + "'\n";
    }
    // What it offers for an option it offers with the option's name before it.
    std::string question(const Words &words) const override {
        std::string line = "veliactl";
        for (const auto &word : words)
            line += " " + word;
        return "complete -C '" + line + "' | string replace -r '\\t.*' '' | string replace -r '^--[a-z]+=' ''\n";
    }
};

template <class ShellType>
class Completion : public testing::Test {
protected:
    ShellType shell;
};

using Shells = testing::Types<Bash, Zsh, Fish>;
TYPED_TEST_SUITE(Completion, Shells);

// Every command of the tree, with the words that lead to it.
void each_command(const Program &program, const Words &path,
                  const std::function<void(const Words &, const Help &)> &take) {
    const Help help(help_of(program, path));
    take(path, help);
    for (const auto &name : help.subcommands) {
        Words longer = path;
        longer.push_back(name);
        each_command(program, longer, take);
    }
}

Words with(Words words, const std::string &last) {
    words.push_back(last);
    return words;
}

Options mood_options(std::string &mood) {
    return {{.name = "--mood", .type = "MOOD", .help = "a mood", .target = &mood}};
}

int feel(const std::string & /*mood*/, const Settings & /*settings*/) {
    return exit_done;
}

} // namespace

TYPED_TEST(Completion, OffersEveryCommandAndEveryOptionThatTheHelpTellsOf) {
    CommonArguments common;
    std::vector<Query> queries;
    std::vector<Words> wanted;
    each_command(whole_program(common), {}, [&](const Words &path, const Help &help) {
        EXPECT_THAT(help.options, Contains("--help")) << testing::PrintToString(path);
        queries.push_back({with(path, "-")});
        wanted.push_back(help.options);
        if (!help.subcommands.empty()) {
            queries.push_back({with(path, "")});
            wanted.push_back(help.subcommands);
        }
    });
    ASSERT_GT(queries.size(), 20u);
    this->shell.ask(queries);
    for (size_t i = 0; i < queries.size(); ++i)
        EXPECT_THAT(queries[i].offered, testing::UnorderedElementsAreArray(wanted[i]))
            << testing::PrintToString(queries[i].words);
}

TYPED_TEST(Completion, OffersWhatBeginsLikeTheWord) {
    EXPECT_THAT(this->shell.offered({"cl"}), ElementsAre("clients"));
    EXPECT_THAT(this->shell.offered({"server", "fin"}), ElementsAre("find"));
    EXPECT_THAT(this->shell.offered({"server", "find", "--pro"}), UnorderedElementsAre("--prog", "--proto"));
    EXPECT_THAT(this->shell.offered({"nonsense", "x"}), IsEmpty());
}

TYPED_TEST(Completion, OffersTheWordsThatAnOptionTakes) {
    EXPECT_THAT(this->shell.offered({"contact", "--output", ""}),
                UnorderedElementsAre("plain", "json", "jsonl", "table"));
    EXPECT_THAT(this->shell.offered({"contact", "-o", "j"}), ElementsAre("json", "jsonl"));
    EXPECT_THAT(this->shell.offered({"contact", "--output=jsonl"}), ElementsAre("jsonl"));
    EXPECT_THAT(this->shell.offered({"server", "find", "a", "--proto", ""}), UnorderedElementsAre("udp", "tcp"));
    EXPECT_THAT(this->shell.offered({"contact", "--timeout", ""}), IsEmpty());
}

TYPED_TEST(Completion, OffersTheWordsOfAPlaceInItsPlaceAlone) {
    EXPECT_THAT(this->shell.offered({"registry", "find", "vault"}), UnorderedElementsAre("vault_object", "vault_tag"));
    EXPECT_THAT(this->shell.offered({"registry", "list", "regions", "vault"}), IsEmpty());
    EXPECT_THAT(this->shell.offered({"completion", ""}), UnorderedElementsAre("bash", "zsh", "fish"));
}

TYPED_TEST(Completion, OffersTheItemsWithWhichAValueBegins) {
    EXPECT_THAT(this->shell.offered({"registry", "add", "regions", "na"}), ElementsAre("name="));
    EXPECT_THAT(this->shell.offered({"registry", "add", "regions", "name=east", "ti"}), ElementsAre("title="));
    EXPECT_THAT(this->shell.offered({"registry", "find", "regions", "--string", "view_u"}), ElementsAre("view_uuid="));
    EXPECT_THAT(this->shell.offered({"registry", "find", "regions", "--attr", "att"}), ElementsAre("attributes:"));
}

TYPED_TEST(Completion, OffersTheHostsThatTheProgramKnowsAtTheMoment) {
    EXPECT_THAT(this->shell.offered({"contact", "liv"}), ElementsAre("live.host"));
    EXPECT_THAT(this->shell.offered({"registry", "list", "regions", "--host", "oth"}), ElementsAre("other"));
    EXPECT_THAT(this->shell.offered({"contact", "live.host", "oth"}), ElementsAre("other")) << "again and again";
}

TYPED_TEST(Completion, TakesTheCommonOptionsInFrontOfTheCommand) {
    EXPECT_THAT(this->shell.offered({"--output", "json", "poolm"}), ElementsAre("poolmap"));
    EXPECT_THAT(this->shell.offered({"--output", "tab"}), ElementsAre("table"));
}

TYPED_TEST(Completion, OffersNoCommandThatIsForScriptsAlone) {
    EXPECT_THAT(this->shell.offered({"compl"}), ElementsAre("completion"));
}

TYPED_TEST(Completion, TakesTheValueOfAnOptionForNoCommandAndNoPlace) {
    EXPECT_THAT(this->shell.offered({"registry", "find", "--region", "list", "--batch", "5", "vault_t"}),
                ElementsAre("vault_tag"));
    EXPECT_THAT(this->shell.offered({"registry", "find", "--string", "tag=/a:b", "vault_t"}), ElementsAre("vault_tag"));
    EXPECT_THAT(this->shell.offered({"registry", "find", "--region=east", "--no-headers", "vault_t"}),
                ElementsAre("vault_tag"));
}

TYPED_TEST(Completion, OffersTheOptionsWhereNothingElseIsKnown) {
    EXPECT_THAT(this->shell.offered({"tz", ""}), IsSupersetOf({"--output", "--help"}));
}

TEST(CompletionScripts, StandOnNoWordsOfTheirOwn) {
    const Program program = {"veliactl",
                             "",
                             "",
                             {{.path = "other", .help = "It's another's: help", .make = call_of<feel, mood_options>}},
                             {}};
    const auto commands = words_of_program(program);
    for (const auto &script : {bash_script(commands), zsh_script(commands), fish_script(commands)}) {
        EXPECT_THAT(script, testing::HasSubstr("other"));
        EXPECT_THAT(script, testing::Not(testing::HasSubstr("registry")));
    }
    EXPECT_THAT(zsh_script(commands), testing::HasSubstr("'--mood:a mood'"));
    EXPECT_THAT(zsh_script(commands), testing::HasSubstr(R"('other:It'\''s another'\''s: help')"));
    EXPECT_THAT(fish_script(commands), testing::HasSubstr(R"('other'\t'It\'s another\'s: help')"));
}

TEST(CompletionScripts, AreHandedNoWordThatAShellWouldExpand) {
    for (const char *word : {"alpha", "build-7.example.org", "fd00::1", "a_b"})
        EXPECT_TRUE(is_safe_word(word)) << word;
    for (const char *word : {"", "-rf", "a b", "$(reboot)", "`x`", "a;b", "a*", "~", "a\nb", "{a,b}", "\xc3\xa4"})
        EXPECT_FALSE(is_safe_word(word)) << word;
}
