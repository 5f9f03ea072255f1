// The words of a line of the configuration file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/config/words.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using velia::server::split_words;

std::vector<std::string> words(std::string_view line) {
    const auto result = split_words(line);
    EXPECT_EQ(result.error, nullptr);
    return result.words;
}

TEST(Words, AreDividedByBlanksTabsAndTheReturnOfAForeignLineEnd) {
    EXPECT_THAT(words("a bb\tccc \t d\r"), ElementsAre("a", "bb", "ccc", "d"));
    EXPECT_THAT(words("  \t "), IsEmpty());
    EXPECT_THAT(words(""), IsEmpty());
}

TEST(Words, EndWhereACommentBegins) {
    EXPECT_THAT(words("a # b"), ElementsAre("a"));
    EXPECT_THAT(words("#"), IsEmpty());
}

TEST(Words, HoldAHashThatDoesNotBeginThem) {
    EXPECT_THAT(words("a#b"), ElementsAre("a#b"));
    EXPECT_THAT(words("\"#a\""), ElementsAre("#a"));
}

TEST(Words, HoldBlanksBetweenQuotes) {
    EXPECT_THAT(words("\"a b\" c"), ElementsAre("a b", "c"));
    EXPECT_THAT(words("a\" b\"c"), ElementsAre("a bc"));
}

TEST(Words, MayBeEmptyBetweenQuotes) {
    EXPECT_THAT(words("\"\" a"), ElementsAre("", "a"));
}

TEST(Words, HoldQuotesAndBackslashesBehindABackslash) {
    EXPECT_THAT(words(R"("a\"b\\c")"), ElementsAre(R"(a"b\c)"));
}

TEST(Words, KeepABackslashThatEscapesNothing) {
    EXPECT_THAT(words(R"("a\n" b\c)"), ElementsAre(R"(a\n)", R"(b\c)"));
}

TEST(Words, WithoutAClosingQuoteAreAnError) {
    for (const char *line : {"\"", "a \"b", "\"a\\\"", "a\"", "\"\\"}) {
        const auto result = split_words(line);
        ASSERT_NE(result.error, nullptr) << line;
        EXPECT_STREQ(result.error, "Missing closing quotation mark");
    }
}

} // namespace
