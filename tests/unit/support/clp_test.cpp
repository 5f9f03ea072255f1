// Words of a command line: parsing flags and arguments, splitting, joining.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <support/clp.h>

#include "alloc_probe.h"

namespace {

using Words = std::vector<std::string>;

constexpr clp_flag_t flags[] = {{"-no_servers"}, {"-long"}, {nullptr}};

class Parser {
public:
    explicit Parser(const char *text, stg_area_t area = STG_HEAP_AREA)
        : handle_(clp_create_hdl_using_string(text, flags, area)) {}
    ~Parser() { clp_destroy_hdl(&handle_); }
    Parser(const Parser &) = delete;
    Parser &operator=(const Parser &) = delete;

    clp_hdl_t handle() const { return handle_; }

    int next(int *index = nullptr) {
        int row = -1;
        const int result = clp_get_next_flag_value(handle_, 1, &row);
        if (index != nullptr)
            *index = row;
        return result;
    }

    // The next word, "<end>" for none.
    std::string argument() {
        char *word = nullptr;
        return clp_get_next_arg(handle_, &word) == 0 ? word : "<end>";
    }

    std::string last_flag() {
        char name[256] = "<untouched>";
        return clp_get_last_flag_name(handle_, 1, sizeof name, name) == 0 ? name : "<none>";
    }

private:
    clp_hdl_t handle_;
};

struct Split {
    int result;
    Words words;
    size_t error_position;

    bool operator==(const Split &) const = default;
};

Split split(const char *text) {
    uint32_t count = 99;
    char **vector = nullptr;
    size_t error_position = 0;
    const int result = clp_parse_string(text, 1, &count, &vector, &error_position, nullptr);
    Split done = {result != 0, {}, error_position};
    for (uint32_t i = 0; i < count; ++i) {
        done.words.emplace_back(vector[i]);
        stg_free(vector[i]);
    }
    stg_free(vector);
    return done;
}

std::string join(const Words &words, int escape = '\\') {
    std::vector<char *> vector;
    for (const std::string &word : words)
        vector.push_back(const_cast<char *>(word.c_str()));
    char *text = nullptr;
    const int result = clp_argv_to_string(static_cast<uint32_t>(vector.size()), vector.data(), 1, escape, &text);
    const std::string joined = result == 0 ? text : "<failed>";
    EXPECT_EQ(result == 0, text != nullptr);
    stg_free(text);
    return joined;
}

} // namespace

TEST(Parser, TellsFlagsFromArguments) {
    Parser parser("-long alpha -no_servers");
    int row = -1;
    EXPECT_EQ(parser.next(&row), CLP_FLAG);
    EXPECT_EQ(row, 1);
    EXPECT_EQ(parser.next(&row), CLP_ARGUMENT);
    EXPECT_EQ(parser.next(&row), CLP_FLAG);
    EXPECT_EQ(row, 0);
    EXPECT_EQ(parser.next(), CLP_END);
    EXPECT_EQ(parser.next(), CLP_END);
}

TEST(Parser, GivesTheSpellingOfTheLastFlag) {
    Parser parser("-long alpha");
    EXPECT_EQ(parser.last_flag(), "<none>");
    parser.next();
    EXPECT_EQ(parser.last_flag(), "-long");
    parser.next();
    EXPECT_EQ(parser.last_flag(), "-long") << "an argument behind it changes nothing";
}

TEST(Parser, FlagNameMustFitItsBuffer) {
    Parser parser("-long");
    parser.next();
    char name[5];
    EXPECT_NE(clp_get_last_flag_name(parser.handle(), 1, sizeof name, name), 0);
    char fitting[6];
    EXPECT_EQ(clp_get_last_flag_name(parser.handle(), 1, sizeof fitting, fitting), 0);
    EXPECT_STREQ(fitting, "-long");
}

TEST(Parser, DoesNotTakeAFlagThatItDoesNotKnow) {
    Parser parser("-unknown rest");
    EXPECT_EQ(parser.next(), CLP_UNKNOWN_FLAG);
    EXPECT_EQ(parser.next(), CLP_UNKNOWN_FLAG);
    EXPECT_EQ(parser.argument(), "-unknown");
    EXPECT_EQ(parser.argument(), "rest");
}

TEST(Parser, SingleDashIsAnArgument) {
    Parser parser("-");
    EXPECT_EQ(parser.next(), CLP_ARGUMENT);
}

TEST(Parser, FlagNamesCountCaseAndAreWholeWords) {
    Parser parser("-LONG -lon");
    EXPECT_EQ(parser.next(), CLP_UNKNOWN_FLAG);
    EXPECT_EQ(parser.argument(), "-LONG");
    EXPECT_EQ(parser.next(), CLP_UNKNOWN_FLAG);
}

TEST(Parser, PutsAnArgumentBack) {
    Parser parser("alpha beta");
    EXPECT_EQ(parser.next(), CLP_ARGUMENT);
    clp_unget_arg(parser.handle());
    EXPECT_EQ(parser.argument(), "alpha");
    EXPECT_EQ(parser.argument(), "beta");
    EXPECT_EQ(parser.argument(), "<end>");
    clp_unget_arg(parser.handle());
    EXPECT_EQ(parser.argument(), "beta");
}

TEST(Parser, PuttingBackAtTheFirstWordDoesNothing) {
    Parser parser("alpha");
    clp_unget_arg(parser.handle());
    EXPECT_EQ(parser.argument(), "alpha");
}

TEST(Parser, HasNoWordsForAnEmptyText) {
    for (const char *text : {"", " \t\n "}) {
        Parser parser(text);
        ASSERT_NE(parser.handle(), nullptr);
        EXPECT_EQ(parser.next(), CLP_END);
        EXPECT_EQ(parser.argument(), "<end>");
    }
}

TEST(Parser, IsRefusedForATextThatDoesNotEnd) {
    EXPECT_EQ(clp_create_hdl_using_string("alpha \"beta", flags, STG_HEAP_AREA), nullptr);
    EXPECT_EQ(clp_create_hdl_using_string("alpha\\", flags, STG_HEAP_AREA), nullptr);
    EXPECT_EQ(clp_create_hdl_using_string(nullptr, flags, STG_HEAP_AREA), nullptr);
}

TEST(Parser, LivesInAnArea) {
    stg_area_t area = stg_create_area(64);
    clp_hdl_t handle = clp_create_hdl_using_string("-long \"a b\" c", flags, area);
    ASSERT_NE(handle, nullptr);
    clp_destroy_hdl(&handle);
    EXPECT_EQ(handle, nullptr);
    clp_destroy_hdl(&handle);
    clp_destroy_hdl(nullptr);
    stg_delete_area(&area);
}

TEST(Parser, WithoutMemoryIsNoneAndLosesNothing) {
    for (size_t number = 1;; ++number) {
        probe::fail_request(number);
        clp_hdl_t handle = clp_create_hdl_using_string("-long alpha beta", flags, STG_HEAP_AREA);
        const bool has_failed = probe::has_failed();
        probe::fail_request(0);
        EXPECT_EQ(handle == nullptr, has_failed);
        clp_destroy_hdl(&handle);
        if (!has_failed)
            break;
    }
}

TEST(SplitText, TakesWhiteSpaceAsTheSeparator) {
    EXPECT_EQ(split(" alpha\tbeta \n gamma "), (Split{0, {"alpha", "beta", "gamma"}, 0}));
    EXPECT_EQ(split(""), (Split{0, {}, 0}));
    EXPECT_EQ(split("   "), (Split{0, {}, 0}));
}

TEST(SplitText, KeepsWhiteSpaceWithinQuotes) {
    EXPECT_EQ(split("\"a b\" 'c d' e\" f \"g").words, (Words{"a b", "c d", "e f g"}));
    EXPECT_EQ(split("'a\"b' \"c'd\"").words, (Words{"a\"b", "c'd"}));
}

TEST(SplitText, EmptyQuotesAreAnEmptyWord) {
    EXPECT_EQ(split("\"\" a ''").words, (Words{"", "a", ""}));
}

TEST(SplitText, BackslashTakesTheNextCharacterAsItIs) {
    EXPECT_EQ(split("a\\ b \\\"c \"d\\\"e\" \\\\").words, (Words{"a b", "\"c", "d\"e", "\\"}));
    EXPECT_EQ(split("'a\\b'").words, Words{"a\\b"}) << "but not within single quotes";
}

TEST(SplitText, TellsWhereAWordBeginsThatDoesNotEnd) {
    EXPECT_EQ(split("alpha \"beta"), (Split{1, {}, 6}));
    EXPECT_EQ(split("alpha 'beta"), (Split{1, {}, 6}));
    EXPECT_EQ(split("a b\\"), (Split{1, {}, 2}));
    EXPECT_EQ(split(nullptr), (Split{1, {}, 0}));
}

TEST(SplitText, OutArgumentForTheErrorMayBeNull) {
    uint32_t count = 99;
    char **vector = nullptr;
    EXPECT_NE(clp_parse_string("\"", 1, &count, &vector, nullptr, nullptr), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(vector, nullptr);
}

TEST(SplitText, WordsLiveInAnAreaThatIsGiven) {
    stg_area_t area = stg_create_area(64);
    uint32_t count = 0;
    char **vector = nullptr;
    EXPECT_EQ(clp_parse_string("alpha beta", 1, &count, &vector, nullptr, area), 0);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(vector[1], "beta");
    stg_delete_area(&area);
}

TEST(SplitText, WithoutMemoryGivesNothingAndLosesNothing) {
    for (size_t number = 1;; ++number) {
        uint32_t count = 99;
        char **vector = nullptr;
        probe::fail_request(number);
        const int result = clp_parse_string("alpha beta gamma", 1, &count, &vector, nullptr, nullptr);
        const bool has_failed = probe::has_failed();
        probe::fail_request(0);
        EXPECT_EQ(result != 0, has_failed);
        EXPECT_EQ(count, has_failed ? 0u : 3u);
        for (uint32_t i = 0; i < count; ++i)
            stg_free(vector[i]);
        stg_free(vector);
        if (!has_failed)
            break;
    }
}

TEST(JoinWords, QuotesOnlyWhatNeedsIt) {
    EXPECT_EQ(join({"alpha", "be ta", "", "ga\"mma", "del'ta", "back\\slash"}),
              R"(alpha "be ta" "" "ga\"mma" "del'ta" "back\\slash")");
    EXPECT_EQ(join({}), "");
}

TEST(JoinWords, SplitsIntoTheSameWords) {
    const std::string every_character = [] {
        std::string text;
        for (int character = 1; character < 256; ++character)
            text += character != '\n' ? static_cast<char>(character) : ' ';
        return text;
    }();
    const Words words = {"", "a", " ", "'", "\"", "\\", "\\\"", "a b'c\"d\\e", "\t", every_character};
    EXPECT_EQ(split(join(words).c_str()).words, words);
    for (const std::string &word : words)
        EXPECT_EQ(split(join({word}).c_str()).words, Words{word});
}

TEST(JoinWords, RefusesALineFeedAndANullWord) {
    EXPECT_EQ(join({"a", "b\nc"}), "<failed>");
    char *words[] = {nullptr};
    char *text = nullptr;
    EXPECT_NE(clp_argv_to_string(1, words, 1, '\\', &text), 0);
    EXPECT_EQ(text, nullptr);
}

TEST(JoinWords, UsesTheEscapeCharacterAsked) {
    EXPECT_EQ(join({"a\"b", "c%d", "e\\f"}, '%'), "\"a%\"b\" \"c%%d\" \"e\\f\"");
}

TEST(JoinWords, WithoutMemoryFails) {
    char word[] = "alpha";
    char *words[] = {word};
    char *text = nullptr;
    probe::fail_request(1);
    EXPECT_NE(clp_argv_to_string(1, words, 1, '\\', &text), 0);
    probe::fail_request(0);
    EXPECT_EQ(text, nullptr);
}
