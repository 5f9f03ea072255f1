// Bounded copies and joins, searches, tokens and white space.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <support/strutl.h>

#include "alloc_probe.h"

namespace {

using Words = std::vector<std::string>;

constexpr size_t nowhere = 999;

// Where a search found something; `nowhere` if it did not.
template <class Search, class Wanted>
size_t place(Search search, const char *text, size_t start, Wanted wanted) {
    size_t position = nowhere;
    const int found = search(text, start, wanted, &position);
    EXPECT_EQ(found != 0, position != nowhere);
    EXPECT_EQ(search(text, start, wanted, nullptr), found) << "the place need not be asked for";
    return position;
}

std::string replaced(const char *text, size_t start, const char *wanted, const char *replacement) {
    char other;
    char *result = &other;
    const int found = strutl_find_replace_substr(text, start, wanted, replacement, &result);
    EXPECT_EQ(found != 0, result != nullptr);
    const std::string taken = result != nullptr ? result : "<none>";
    stg_free(result);
    return taken;
}

Words tokens(std::string text, const char *separators) {
    Words found;
    for (char *token = strutl_tokenize(text.data(), separators); token != nullptr;
         token = strutl_tokenize(nullptr, separators))
        found.emplace_back(token);
    return found;
}

std::string stripped(std::string text, int leading, int trailing) {
    EXPECT_EQ(strutl_strip_whitespace(text.data(), leading, trailing), text.data());
    return text.c_str();
}

} // namespace

TEST(Concat, JoinsInTheDestination) {
    char text[12] = "xxxxxxxxxxx";
    EXPECT_EQ(strutl_concat(text, sizeof text, 3, "/etc", "/", "velia"), 0);
    EXPECT_STREQ(text, "/etc/velia");
    EXPECT_EQ(strutl_concat(text, sizeof text, 3, "a", nullptr, "b"), 0);
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(strutl_concat(text, sizeof text, 0), 0);
    EXPECT_STREQ(text, "");
}

TEST(Concat, TextThatDoesNotFitLeavesTheEmptyText) {
    char text[5] = "xxxx";
    EXPECT_EQ(strutl_concat(text, sizeof text, 2, "ab", "cd"), 0);
    EXPECT_STREQ(text, "abcd");
    EXPECT_NE(strutl_concat(text, sizeof text, 2, "ab", "cde"), 0);
    EXPECT_STREQ(text, "");
}

TEST(Concat, AppendsToADestinationThatIsTheFirstString) {
    char text[6] = "ab";
    EXPECT_EQ(strutl_concat(text, sizeof text, 2, text, "cde"), 0);
    EXPECT_STREQ(text, "abcde");
    EXPECT_NE(strutl_concat(text, sizeof text, 2, text, "f"), 0);
    EXPECT_STREQ(text, "abcde") << "as it was";
}

TEST(Concat, WithoutRoomWritesNothing) {
    char text = 'x';
    EXPECT_NE(strutl_concat(&text, 0, 1, "a"), 0);
    EXPECT_EQ(text, 'x');
}

TEST(Concat, GivesACopyOnTheHeapOrInAnArea) {
    char *on_heap = strutl_concat_heap(3, "a", nullptr, "bc");
    EXPECT_STREQ(on_heap, "abc");
    stg_free(on_heap);
    stg_area_t area = stg_create_area(64);
    EXPECT_STREQ(strutl_concat_area(area, 2, "abc", "def"), "abcdef");
    stg_delete_area(&area);
}

TEST(Concat, WithoutMemoryIsNull) {
    probe::fail_request(1);
    EXPECT_EQ(strutl_concat_heap(1, "a"), nullptr);
    probe::fail_request(1);
    EXPECT_EQ(strutl_concat_area(STG_HEAP_AREA, 1, "a"), nullptr);
    probe::fail_request(0);
}

TEST(BoundedCopy, TellsWhenItCuts) {
    char text[4];
    EXPECT_EQ(strutl_cpy_buf(text, "abc", sizeof text), 0);
    EXPECT_STREQ(text, "abc");
    EXPECT_NE(strutl_cpy_buf(text, "abcd", sizeof text), 0);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(strutl_cpy_buf(text, nullptr, sizeof text), 0);
    EXPECT_STREQ(text, "");
}

TEST(BoundedCopy, WithoutRoomWritesNothing) {
    char text = 'x';
    EXPECT_NE(strutl_cpy_buf(&text, "", 0), 0);
    EXPECT_EQ(text, 'x');
}

TEST(BoundedCopy, ReadsNoFurtherThanTheBound) {
    const char unterminated[3] = {'a', 'b', 'c'};
    char text[3];
    EXPECT_NE(strutl_cpy_buf(text, unterminated, sizeof text), 0);
    EXPECT_STREQ(text, "ab");
}

TEST(BoundedCopy, OfALengthTerminatesAndReturnsTheDestination) {
    char text[5] = "xxxx";
    EXPECT_EQ(strutl_ncpy(text, "abcdef", 3), text);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(text[4], '\0');
    strutl_ncpy(text, "a", 4);
    EXPECT_STREQ(text, "a");
}

TEST(BoundedFormat, TellsWhenItCuts) {
    char text[6];
    EXPECT_EQ(strutl_snprintf(text, sizeof text, "%s-%d", "ab", 12), 0);
    EXPECT_STREQ(text, "ab-12");
    EXPECT_NE(strutl_snprintf(text, sizeof text, "%s-%d", "ab", 123), 0);
    EXPECT_STREQ(text, "ab-12");
}

TEST(CaseBlindCompare, IsZeroForEqualTexts) {
    EXPECT_EQ(strutl_stricoll("Alpha", "aLPHA"), 0);
    EXPECT_LT(strutl_stricoll("alpha", "BETA"), 0);
    EXPECT_GT(strutl_stricoll("gamma", "BETA"), 0);
    EXPECT_LT(strutl_stricoll("alp", "alpha"), 0);
    EXPECT_EQ(strutl_stricoll(nullptr, ""), 0);
    EXPECT_LT(strutl_stricoll(nullptr, "a"), 0);
}

TEST(Prefix, IsZeroIfTheTextBeginsSoAndTellsWhatFollows) {
    const char text[] = "user:alpha";
    const char *end = nullptr;
    EXPECT_EQ(strutl_match_prefix(text, "user:", &end), 0);
    EXPECT_EQ(end, text + 5);
    EXPECT_EQ(strutl_match_prefix(text, text, nullptr), 0);
    EXPECT_EQ(strutl_match_prefix(text, "", &end), 0);
    EXPECT_EQ(end, text);
}

TEST(Prefix, OfAnotherTextLeavesTheEndAlone) {
    const char *end = nullptr;
    EXPECT_NE(strutl_match_prefix("user:alpha", "User:", &end), 0);
    EXPECT_NE(strutl_match_prefix("use", "user:", &end), 0);
    EXPECT_EQ(end, nullptr);
}

TEST(FindCharacter, GivesTheFirstPlaceFromTheStartOn) {
    EXPECT_EQ(place(strutl_find_char, "a.b.c", 0, '.'), 1u);
    EXPECT_EQ(place(strutl_find_char, "a.b.c", 1, '.'), 1u);
    EXPECT_EQ(place(strutl_find_char, "a.b.c", 2, '.'), 3u);
    EXPECT_EQ(place(strutl_find_char, "a.b.c", 4, '.'), nowhere);
    EXPECT_EQ(place(strutl_find_char, "a/b", 0, STRUTL_PATH_SEPARATOR), 1u);
    EXPECT_EQ(place(strutl_find_char, "\xe9", 0, 0xe9), 0u);
}

TEST(FindCharacter, NeverFindsTheTerminator) {
    EXPECT_EQ(place(strutl_find_char, "abc", 0, '\0'), nowhere);
    EXPECT_EQ(place(strutl_find_last_char, "abc", 0, '\0'), nowhere);
}

TEST(FindCharacter, OfASetGivesTheFirstPlaceOfAnyOfThem) {
    EXPECT_EQ(place(strutl_find_char_from, "a b\tc", 0, " \t"), 1u);
    EXPECT_EQ(place(strutl_find_char_from, "a b\tc", 2, " \t"), 3u);
    EXPECT_EQ(place(strutl_find_char_from, "abc", 0, " \t"), nowhere);
    EXPECT_EQ(place(strutl_find_char_from, "abc", 0, ""), nowhere);
}

TEST(FindCharacter, GivesTheLastPlaceAtOrBehindTheStart) {
    EXPECT_EQ(place(strutl_find_last_char, "/a/b/c", 0, STRUTL_PATH_SEPARATOR), 4u);
    EXPECT_EQ(place(strutl_find_last_char, "/a/b/c", 4, '/'), 4u);
    EXPECT_EQ(place(strutl_find_last_char, "/a/b/c", 5, '/'), nowhere);
    EXPECT_EQ(place(strutl_find_last_char, "/", 0, '/'), 0u);
    EXPECT_EQ(place(strutl_find_last_char, "abc", 0, STRUTL_PATH_SEPARATOR), nowhere);
}

TEST(FindString, GivesTheFirstPlaceFromTheStartOn) {
    EXPECT_EQ(place(strutl_find_str, "one two one", 0, "one"), 0u);
    EXPECT_EQ(place(strutl_find_str, "one two one", 1, "one"), 8u);
    EXPECT_EQ(place(strutl_find_str, "one two one", 9, "one"), nowhere);
    EXPECT_EQ(place(strutl_find_str, "one", 1, ""), 1u);
}

TEST(Find, StartBehindTheEndFindsNothing) {
    EXPECT_EQ(place(strutl_find_char, "abc", 4, 'a'), nowhere);
    EXPECT_EQ(place(strutl_find_char_from, "abc", 4, "a"), nowhere);
    EXPECT_EQ(place(strutl_find_last_char, "abc", 4, 'a'), nowhere);
    EXPECT_EQ(place(strutl_find_str, "abc", 4, "a"), nowhere);
    EXPECT_EQ(place(strutl_find_str, nullptr, 0, "a"), nowhere);
    EXPECT_EQ(place(strutl_find_str, "abc", 3, ""), 3u) << "the end itself is a place";
}

TEST(FindAndReplace, ReplacesEveryPlaceAtOrBehindTheStart) {
    EXPECT_EQ(replaced("a-b-c", 0, "-", " to "), "a to b to c");
    EXPECT_EQ(replaced("a-b-c", 2, "-", "+"), "a-b+c");
    EXPECT_EQ(replaced("aaaa", 0, "aa", "b"), "bb");
    EXPECT_EQ(replaced("abc", 0, "abc", ""), "");
    EXPECT_EQ(replaced("aa", 0, "a", "aa"), "aaaa") << "what was put in is not searched again";
}

TEST(FindAndReplace, WithoutAPlaceGivesNull) {
    EXPECT_EQ(replaced("abc", 0, "x", "y"), "<none>");
    EXPECT_EQ(replaced("abc", 1, "a", "y"), "<none>");
    EXPECT_EQ(replaced("abc", 4, "a", "y"), "<none>");
    EXPECT_EQ(replaced("abc", 0, "", "y"), "<none>");
}

TEST(FindAndReplace, WithoutMemoryGivesNull) {
    probe::fail_request(1);
    EXPECT_EQ(replaced("abc", 0, "a", "y"), "<none>");
    probe::fail_request(0);
}

TEST(Tokenize, CutsAtAnyOfTheSeparators) {
    EXPECT_EQ(tokens("a,b,,c", ","), (Words{"a", "b", "c"}));
    EXPECT_EQ(tokens(" \n a\tb:;c ", " \n\t:;"), (Words{"a", "b", "c"}));
    EXPECT_EQ(tokens("", ","), Words{});
    EXPECT_EQ(tokens(",,", ","), Words{});
}

TEST(Tokenize, HasNothingBeforeAText) {
    std::thread([] { EXPECT_EQ(strutl_tokenize(nullptr, ","), nullptr); }).join();
}

TEST(Tokenize, SeparatorsMayChangeOnTheWay) {
    char text[] = "key=a,b";
    EXPECT_STREQ(strutl_tokenize(text, "="), "key");
    EXPECT_STREQ(strutl_tokenize(nullptr, ","), "a");
    EXPECT_STREQ(strutl_tokenize(nullptr, ","), "b");
    EXPECT_EQ(strutl_tokenize(nullptr, ","), nullptr);
    EXPECT_EQ(strutl_tokenize(nullptr, ","), nullptr);
}

TEST(Tokenize, KeepsThePlacePerThread) {
    char mine[] = "a,b";
    EXPECT_STREQ(strutl_tokenize(mine, ","), "a");
    std::thread([] { EXPECT_EQ(tokens("x,y,z", ","), (Words{"x", "y", "z"})); }).join();
    EXPECT_STREQ(strutl_tokenize(nullptr, ","), "b");
}

TEST(StripWhiteSpace, TakesItOffTheEndsAskedFor) {
    EXPECT_EQ(stripped(" \t a b \n", 1, 1), "a b");
    EXPECT_EQ(stripped("  a  ", 1, 0), "a  ");
    EXPECT_EQ(stripped("  a  ", 0, 1), "  a");
    EXPECT_EQ(stripped("  a  ", 0, 0), "  a  ");
    EXPECT_EQ(stripped("   ", 1, 1), "");
    EXPECT_EQ(stripped("   ", 1, 0), "");
    EXPECT_EQ(stripped("", 1, 1), "");
}
