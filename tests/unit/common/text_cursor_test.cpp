#include <common/text_cursor.h>

#include <gtest/gtest.h>

using velia::TextCursor;

TEST(TextCursor, ConsumesWhatIsThereAndStaysOverWhatIsNot) {
    TextCursor cursor("-S12:");
    EXPECT_FALSE(cursor.consume("-T"));
    EXPECT_TRUE(cursor.consume("-S"));
    EXPECT_EQ(cursor.rest(), "12:");
}

TEST(TextCursor, TakesANumberUpToTheLargestThatFits) {
    int32_t value = 0;
    TextCursor cursor("2147483647,");
    EXPECT_TRUE(cursor.take_number(value));
    EXPECT_EQ(value, INT32_MAX);
    EXPECT_EQ(cursor.rest(), ",");
}

TEST(TextCursor, RefusesANumberThatDoesNotFitAndStays) {
    int32_t value = 7;
    TextCursor cursor("2147483648");
    EXPECT_FALSE(cursor.take_number(value));
    EXPECT_EQ(value, 7);
    EXPECT_EQ(cursor.rest(), "2147483648");
}

TEST(TextCursor, RefusesSignsAndEmptyTextAsNumbers) {
    int32_t value = 7;
    for (const char *text : {"", "-1", "+1", " 1", "x"})
        EXPECT_FALSE(TextCursor(text).take_number(value)) << text;
    EXPECT_EQ(value, 7);
}

TEST(TextCursor, TakesUntilAnEndOrTheRest) {
    TextCursor cursor("udp:7,tcp");
    EXPECT_EQ(cursor.take_until(':'), "udp");
    EXPECT_TRUE(cursor.skip_past(','));
    EXPECT_EQ(cursor.take_until(':'), "tcp");
    EXPECT_TRUE(cursor.at_end());
    EXPECT_FALSE(cursor.skip_past(':'));
}
