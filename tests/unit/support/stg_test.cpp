#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <support/stg.h>

#include "alloc_probe.h"

TEST(Heap, SizeZeroGivesABlock) {
    void *block = stg_malloc(0);
    EXPECT_NE(block, nullptr);
    block = stg_realloc(block, 0);
    EXPECT_NE(block, nullptr);
    free(block); // one heap
}

TEST(Heap, ReallocOfNullAllocatesAndKeepsContents) {
    auto *text = static_cast<char *>(stg_realloc(nullptr, 4));
    strcpy(text, "abc");
    text = static_cast<char *>(stg_realloc(text, 4000));
    EXPECT_STREQ(text, "abc");
    stg_free(text);
}

TEST(Heap, StrdupOfNullIsNull) {
    EXPECT_EQ(stg_strdup(nullptr), nullptr);
    stg_free(nullptr);
}

TEST(Heap, FailedAllocationIsNull) {
    probe::fail_request(1);
    EXPECT_EQ(stg_strdup("abc"), nullptr);
    EXPECT_EQ(stg_malloc(SIZE_MAX / 4), nullptr);
}

TEST(Area, HandsOutManyBlocksAlignedForAnyType) {
    stg_area_t area = stg_create_area(1);
    for (size_t size = 0; size < 3000; size += 7) {
        void *block = stg_alloc(area, size);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(max_align_t), 0u);
        memset(block, 0x5a, size);
    }
    stg_delete_area(&area);
    EXPECT_EQ(area, nullptr);
}

TEST(Area, BlocksDoNotOverlap) {
    stg_area_t area = stg_create_area(64);
    std::string expected[100];
    char *texts[100];
    for (size_t i = 0; i < 100; ++i) {
        expected[i] = std::string(i * 5, static_cast<char>('a' + i % 26));
        texts[i] = stg_area_strdup(area, expected[i].c_str());
    }
    for (size_t i = 0; i < 100; ++i)
        EXPECT_EQ(texts[i], expected[i]);
    stg_delete_area(&area);
}

TEST(Area, ValueOneIsThePlainHeap) {
    char *text = stg_area_strdup(STG_HEAP_AREA, "heap");
    EXPECT_STREQ(text, "heap");
    stg_free(text);
    stg_area_t area = STG_HEAP_AREA;
    stg_delete_area(&area);
    EXPECT_EQ(area, nullptr);
}

TEST(Area, NullAreaGivesNothing) {
    EXPECT_EQ(stg_alloc(nullptr, 1), nullptr);
    stg_area_t none = nullptr;
    stg_delete_area(&none);
    stg_delete_area(nullptr);
}

TEST(Area, ImpossibleSizesAreNull) {
    EXPECT_EQ(stg_create_area(SIZE_MAX), nullptr);
    stg_area_t area = stg_create_area(16);
    EXPECT_EQ(stg_alloc(area, SIZE_MAX), nullptr);
    EXPECT_EQ(stg_alloc(area, SIZE_MAX / 2 + 1), nullptr);
    EXPECT_NE(stg_alloc(area, 16), nullptr);
    stg_delete_area(&area);
}

TEST(Area, EachFailedAllocationOfItsCreationLeavesNothing) {
    for (size_t number = 1; number <= 2; ++number) {
        probe::fail_request(number);
        EXPECT_EQ(stg_create_area(100), nullptr);
        EXPECT_TRUE(probe::has_failed());
    }
}

TEST(Area, SurvivesAFailedGrowth) {
    stg_area_t area = stg_create_area(64);
    probe::fail_request(1);
    EXPECT_EQ(stg_alloc(area, 10000), nullptr);
    EXPECT_NE(stg_alloc(area, 10000), nullptr);
    stg_delete_area(&area);
}
