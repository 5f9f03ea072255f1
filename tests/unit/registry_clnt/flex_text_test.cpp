// Flex text both ways.
#include <tests/unit/registry_clnt/entry_fixture.h>

#include <random>

namespace {

using FlexText = EntryTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct ExpandCase {
    const char *name;
    std::string text;
    tbs_status_t status;
    Items items;
};

void PrintTo(const ExpandCase &wanted, std::ostream *out) {
    *out << wanted.text;
}

class FlexTextExpansion : public EntryTest, public testing::WithParamInterface<ExpandCase> {};

TEST_P(FlexTextExpansion, IsAsTheFormSays) {
    rgy_flex_entry_t flex = {7, 7, reinterpret_cast<rgy_item_t *>(8)};
    ASSERT_EQ(rgy_expand_flex_entry(GetParam().text.c_str(), &flex), GetParam().status);
    EXPECT_EQ(items_of(flex), GetParam().items);
    if (GetParam().status != TBS_ST_OK) {
        EXPECT_EQ(flex.items, nullptr);
        EXPECT_EQ(world.live_blocks(), 0u);
    }
    rgy_destroy_flex_entry(&flex);
}

const ExpandCase expand_cases[] = {
    {"ACompleteEntry",
     "-hostname=alpha;-local_path=/a/b;-region=r1;",
     TBS_ST_OK,
     {{"-hostname", "alpha"}, {"-local_path", "/a/b"}, {"-region", "r1"}}},
    {"TheEmptyTextHasNoItems", "", TBS_ST_OK, {}},
    {"AnEmptyValue", "-a=;", TBS_ST_OK, {{"-a", ""}}},
    {"AnEmptyValueWithoutSemicolon", "-a=", TBS_ST_INVALID_ARG, {}},
    {"AnEmptyValueFirst", "-a=;-b=2;", TBS_ST_OK, {{"-a", ""}, {"-b", "2"}}},
    {"AnInnerSemicolonWithoutHyphen", "-a=x;y;", TBS_ST_OK, {{"-a", "x;y"}}},
    {"ASecondItemWithoutEqualSign", "-a=x;-b", TBS_ST_INVALID_ARG, {}},
    {"AnInnerSemicolonAndNoneAtTheEnd", "-a=x;y", TBS_ST_INVALID_ARG, {}},
    {"OnlyAValueThatIsASemicolon", "-a=;;", TBS_ST_OK, {{"-a", ";"}}},
    {"NoEqualSignAtAll", "-a;", TBS_ST_INVALID_ARG, {}},
    {"OneSemicolon", ";", TBS_ST_INVALID_ARG, {}},
    {"ANameWithoutHyphen", "name=v;", TBS_ST_OK, {{"name", "v"}}},
    {"AnEmptyName", "=v;", TBS_ST_OK, {{"", "v"}}},
    {"AnEqualSignInAValue", "-a=b=c;", TBS_ST_OK, {{"-a", "b=c"}}},
    {"ALineFeedInAValue", "-a=b\nc;", TBS_ST_OK, {{"-a", "b\nc"}}},
    {"ANameThatStandsTwice", "-a=1;-a=2;", TBS_ST_OK, {{"-a", "1"}, {"-a", "2"}}},
    {"BlanksAreContent", " -a = b ;", TBS_ST_OK, {{" -a ", " b "}}},
    {"ASemicolonInAName", "x;-a=1;", TBS_ST_OK, {{"x;-a", "1"}}},
    {"ASeparatorRightBehindTheEqualSign", "-a=;-=;", TBS_ST_OK, {{"-a", ""}, {"-", ""}}},
    {"ASeparatorWithNothingBehind", "-a=1;-", TBS_ST_INVALID_ARG, {}},
    {"AValueOfTheLongestText", "-a=" + std::string(4091, 'x') + ";", TBS_ST_OK, {{"-a", std::string(4091, 'x')}}},
};

INSTANTIATE_TEST_SUITE_P(Form, FlexTextExpansion, testing::ValuesIn(expand_cases),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_F(FlexText, TheVectorGrowsAndLosesNothing) {
    std::string text;
    Items wanted;
    for (int i = 0; i < 100; ++i) {
        wanted.emplace_back("-key" + std::to_string(i), std::to_string(i * i));
        text += wanted.back().first + "=" + wanted.back().second + ";";
    }
    rgy_flex_entry_t flex;
    ASSERT_EQ(rgy_expand_flex_entry(text.c_str(), &flex), TBS_ST_OK);
    EXPECT_EQ(items_of(flex), wanted);
    EXPECT_GE(flex.capacity, flex.count);
    rgy_destroy_flex_entry(&flex);
}

TEST_F(FlexText, WithoutStorageToGrowTheExpansionIsInvalid) {
    std::string text;
    for (int i = 0; i < 20; ++i)
        text += "-k=v;";
    rgy_flex_entry_t flex;
    tbs_status_t status = TBS_ST_OK;
    sim::sweep_allocations(
        world, [&] { status = rgy_expand_flex_entry(text.c_str(), &flex); },
        [&](int number) {
            EXPECT_EQ(status, number == 1 ? TBS_ST_NO_MEMORY : TBS_ST_INVALID_ARG) << number;
            EXPECT_EQ(world.live_blocks(), 0u) << number;
        });
    EXPECT_EQ(flex.count, 20);
    rgy_destroy_flex_entry(&flex);
}

TEST_F(FlexText, ExpandingDoesNotTouchTheText) {
    const char text[] = "-a=1;-b=2;";
    std::string copy = text;
    rgy_flex_entry_t flex;
    ASSERT_EQ(rgy_expand_flex_entry(copy.c_str(), &flex), TBS_ST_OK);
    EXPECT_EQ(copy, text);
    rgy_destroy_flex_entry(&flex);
}

TEST_F(FlexText, NullArgumentsAreRefused) {
    rgy_flex_entry_t flex;
    char *text = nullptr;
    EXPECT_EQ(rgy_expand_flex_entry(nullptr, &flex), TBS_ST_INVALID_ARG);
    EXPECT_EQ(flex.count, 0);
    EXPECT_EQ(rgy_expand_flex_entry("", nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_gather_flex_entry(nullptr, &text), TBS_ST_ERROR);
    EXPECT_EQ(rgy_gather_flex_entry(&flex, nullptr), TBS_ST_ERROR);
    rgy_destroy_flex_entry(nullptr);
}

TEST_F(FlexText, WithoutStorageToBeginWithItIsOutOfMemoryAndLaterItIsInvalid) {
    rgy_flex_entry_t flex;
    tbs_status_t status = TBS_ST_OK;
    const int failures = sim::sweep_allocations(
        world, [&] { status = rgy_expand_flex_entry("-a=1;-b=2;-c=3;", &flex); },
        [&](int number) {
            EXPECT_EQ(status, number == 1 ? TBS_ST_NO_MEMORY : TBS_ST_INVALID_ARG) << number;
            EXPECT_EQ(flex.count, 0);
            EXPECT_EQ(flex.items, nullptr);
            EXPECT_EQ(world.live_blocks(), 0u) << number;
        });
    EXPECT_EQ(failures, 7);
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_THAT(items_of(flex), ElementsAre(Pair("-a", "1"), Pair("-b", "2"), Pair("-c", "3")));
    rgy_destroy_flex_entry(&flex);
}

TEST_F(FlexText, ARaiseInAnExpansionLeaksNothing) {
    rgy_flex_entry_t flex;
    const int raises = sim::sweep_raises(
        world, [&] { rgy_expand_flex_entry("-a=1;-b=2;-c=3;", &flex); },
        [&](int number) {
            EXPECT_EQ(flex.items, nullptr);
            EXPECT_EQ(world.live_blocks(), 0u) << number;
        });
    EXPECT_EQ(raises, 7);
    rgy_destroy_flex_entry(&flex);
}

TEST_F(FlexText, GatheringNoItemsGivesTheEmptyTextAndNoSemicolon) {
    const rgy_flex_entry_t flex = {};
    char *text = nullptr;
    ASSERT_EQ(rgy_gather_flex_entry(&flex, &text), TBS_ST_OK);
    EXPECT_STREQ(text, "");
    stg_free(text);
}

TEST_F(FlexText, GatheringPutsTheItemsBackAsTheyWere) {
    for (const char *form : {"", "-a=;", "-hostname=alpha;-local_path=/a/b;-region=r1;", "=v;", "-a=b=c;-a=d;"}) {
        rgy_flex_entry_t flex;
        char *text = nullptr;
        ASSERT_EQ(rgy_expand_flex_entry(form, &flex), TBS_ST_OK);
        ASSERT_EQ(rgy_gather_flex_entry(&flex, &text), TBS_ST_OK);
        EXPECT_STREQ(text, form);
        stg_free(text);
        rgy_destroy_flex_entry(&flex);
    }
}

TEST_F(FlexText, GatheringRefusesAServersValueWithASemicolonThatExpansionTook) {
    for (const char *form : {"-a=x;y;", "-a=x\ny;", "-b=1;-a=;;"}) {
        rgy_flex_entry_t flex;
        char *text = reinterpret_cast<char *>(8);
        ASSERT_EQ(rgy_expand_flex_entry(form, &flex), TBS_ST_OK);
        EXPECT_EQ(rgy_gather_flex_entry(&flex, &text), TBS_ST_ERROR) << form;
        EXPECT_EQ(text, nullptr);
        rgy_destroy_flex_entry(&flex);
    }
}

TEST_F(FlexText, GatheringDoesNotCheckNames) {
    rgy_item_t item = {const_cast<char *>("a;b\n"), const_cast<char *>("1")};
    const rgy_flex_entry_t flex = {1, 1, &item};
    char *text = nullptr;
    ASSERT_EQ(rgy_gather_flex_entry(&flex, &text), TBS_ST_OK);
    EXPECT_STREQ(text, "a;b\n=1;");
    stg_free(text);
}

TEST_F(FlexText, GatheringFillsFourThousandAndNinetyFiveCharactersAndNoMore) {
    std::string value(4091, 'x');
    rgy_item_t item = {const_cast<char *>("-a"), value.data()};
    const rgy_flex_entry_t flex = {1, 1, &item};
    char *text = nullptr;
    ASSERT_EQ(rgy_gather_flex_entry(&flex, &text), TBS_ST_OK);
    EXPECT_EQ(strlen(text), 4095u);
    stg_free(text);
    value.push_back('x');
    item.value = value.data();
    EXPECT_EQ(rgy_gather_flex_entry(&flex, &text), TBS_ST_ERROR);
    EXPECT_EQ(text, nullptr);
}

TEST_F(FlexText, GatheringWithoutStorageIsAnError) {
    const rgy_flex_entry_t flex = {};
    char *text = nullptr;
    tbs_status_t status = TBS_ST_OK;
    const int failures = sim::sweep_allocations(
        world, [&] { status = rgy_gather_flex_entry(&flex, &text); },
        [&](int) {
            EXPECT_EQ(status, TBS_ST_ERROR);
            EXPECT_EQ(text, nullptr);
        });
    EXPECT_EQ(failures, 1);
    stg_free(text);
}

TEST_F(FlexText, ARaiseInAGatheringLeaksNothing) {
    const rgy_flex_entry_t flex = {};
    char *text = nullptr;
    const int raises = sim::sweep_raises(
        world, [&] { rgy_gather_flex_entry(&flex, &text); },
        [&](int) {
            EXPECT_EQ(text, nullptr);
            EXPECT_EQ(world.live_blocks(), 0u);
        });
    EXPECT_EQ(raises, 1);
    stg_free(text);
}

TEST_F(FlexText, WhatIsGatheredExpandsToTheSameItems) {
    std::mt19937 engine(4711);
    const std::string letters = "ab-=, \t./";
    const auto any_text = [&](size_t longest) {
        std::string text(engine() % (longest + 1), ' ');
        for (char &c : text)
            c = letters[engine() % letters.size()];
        return text;
    };
    for (int round = 0; round < 500; ++round) {
        Items wanted(engine() % 8);
        std::vector<rgy_item_t> items;
        for (auto &[name, value] : wanted) {
            name = "-k" + std::to_string(engine() % 5);
            value = any_text(30);
            items.push_back({name.data(), value.data()});
        }
        const rgy_flex_entry_t made = {static_cast<int32_t>(items.size()), 0, items.data()};
        char *text = nullptr;
        rgy_flex_entry_t flex;
        ASSERT_EQ(rgy_gather_flex_entry(&made, &text), TBS_ST_OK);
        ASSERT_EQ(rgy_expand_flex_entry(text, &flex), TBS_ST_OK) << text;
        ASSERT_EQ(items_of(flex), wanted) << text;
        stg_free(text);
        rgy_destroy_flex_entry(&flex);
    }
}

TEST_F(FlexText, DestroyingLeavesTheRecordEmpty) {
    rgy_flex_entry_t flex;
    ASSERT_EQ(rgy_expand_flex_entry("-a=1;", &flex), TBS_ST_OK);
    rgy_destroy_flex_entry(&flex);
    EXPECT_EQ(flex.items, nullptr);
    EXPECT_EQ(flex.count, 0);
    rgy_destroy_flex_entry(&flex);
}

TEST_F(FlexText, OfANameThatStandsTwiceTheLaterItemIsFound) {
    rgy_flex_entry_t flex;
    ASSERT_EQ(rgy_expand_flex_entry("-a=1;-b=2;-a=3;", &flex), TBS_ST_OK);
    EXPECT_EQ(rgy_find_item(&flex, "-a"), &flex.items[2]);
    EXPECT_EQ(rgy_find_item(&flex, "-b"), &flex.items[1]);
    EXPECT_EQ(rgy_find_item(&flex, "-A"), nullptr);
    EXPECT_EQ(rgy_find_item(&flex, "-"), nullptr);
    EXPECT_EQ(rgy_find_item(&flex, nullptr), nullptr);
    rgy_destroy_flex_entry(&flex);
}

TEST_F(FlexText, ValuesMayHoldAnythingButSemicolonsAndLineFeeds) {
    for (const char *text : {"", "a=b", "-x", "tab\there", "\r"})
        EXPECT_EQ(rgy_validate_string(text), TBS_ST_OK) << text;
    EXPECT_EQ(rgy_validate_string(nullptr), TBS_ST_OK);
    for (const char *text : {";", "a;b", "a\n", "\n;"})
        EXPECT_EQ(rgy_validate_string(text), TBS_ST_INVALID_ARG) << text;
}

TEST_F(FlexText, AListIsZeroedAndReleasesItsTexts) {
    rgy_elist_t list = rgy_elist_alloc(3);
    ASSERT_NE(list, nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(list[i].entry_id, 0u);
        EXPECT_EQ(list[i].flex_text, nullptr);
    }
    list[0].flex_text = stg_strdup("-a=1;");
    list[2].flex_text = stg_strdup("-b=1;");
    rgy_elist_free(list, 3);
    rgy_elist_free(nullptr, 3);
}

TEST_F(FlexText, AListThatCannotBeIsNull) {
    EXPECT_EQ(rgy_elist_alloc(-1), nullptr);
    EXPECT_EQ(rgy_elist_alloc(INT64_MAX), nullptr);
    // Counts whose bytes are few again, beyond 64 bits.
    constexpr auto around = static_cast<int64_t>(UINT64_MAX / sizeof(rgy_svr_entry_t)) + 1;
    EXPECT_EQ(rgy_elist_alloc(around), nullptr);
    EXPECT_EQ(rgy_elist_alloc(-around), nullptr);
    EXPECT_EQ(rgy_elist_alloc(1 - around), nullptr);
    world.fail_allocation(1);
    EXPECT_EQ(rgy_elist_alloc(1), nullptr);
    world.fail_allocation(0);
    rgy_elist_free(rgy_elist_alloc(0), 0);
}

} // namespace
