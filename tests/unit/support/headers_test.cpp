#include <cstdint>

#include <gtest/gtest.h>

extern "C" int headers_test_roundtrip(const char *text, int64_t *number);

TEST(Headers, ServeCProgramsToo) {
    int64_t number = 0;
    EXPECT_EQ(headers_test_roundtrip("4k", &number), 0);
    EXPECT_EQ(number, 4096);
}
