// Cracking the text of a pool map, by itself and out of mount options.
#include <support/strutl.h>
#include <tests/unit/poolmap/poolmap_fixture.h>

namespace {

using PoolMapCracking = PoolMapTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(PoolMapMessages, TableSaysWhatItIs) {
    EXPECT_STREQ(_poolmap_rvzd_msg_table.catalog_name, "rvzd_lib");
    EXPECT_STREQ(_poolmap_rvzd_msg_table.subsystem_name, "poolmap");
    EXPECT_EQ(_poolmap_rvzd_msg_table.set, 69);
    ASSERT_EQ(_poolmap_rvzd_msg_table.count, 6);
    const std::vector<std::string> texts(_poolmap_rvzd_msg_table.texts, _poolmap_rvzd_msg_table.texts + 6);
    EXPECT_THAT(
        texts, ElementsAre("Invalid VAULT pool path translation \"%s\".\n",
                           "A translation must end with the pathname separator.\n",
                           "Invalid VAULT pool mapping prefix \"%s\".\n", "Invalid VAULT pool mapping target \"%s\".\n",
                           "Expansion of target \"%s\" is too long.\n", "Invalid VAULT pool mapping option \"%s\".\n"));
}

struct CrackCase {
    const char *name;
    std::string text;
    bool check_slashes;
    Pairs pairs; // of a map that is good
    int message; // of one that is not
    std::string told;
};

void PrintTo(const CrackCase &one, std::ostream *out) {
    *out << one.text;
}

constexpr int none = -1;
const std::string long_name = "/" + std::string(5000, 'n') + "/";

const CrackCase crack_cases[] = {
    {"AnEmptyTextHasNoPairs", "", true, {}, none, ""},
    {"SeparatorsAloneHaveNoPairs", "|||", true, {}, none, ""},
    {"OnePair", "/a/=/b/", true, {{"/a/", "/b/"}}, none, ""},
    {"ThreePairsKeepTheirOrder",
     "/c/=/1/|/a/=/2/|/b/=/3/",
     true,
     {{"/c/", "/1/"}, {"/a/", "/2/"}, {"/b/", "/3/"}},
     none,
     ""},
    {"EmptyPairsArePassedOver", "|/a/=/b/||/c/=/d/|", true, {{"/a/", "/b/"}, {"/c/", "/d/"}}, none, ""},
    {"OnlyTheFirstEqualSignSeparates", "/a/=/b=/c/", true, {{"/a/", "/b=/c/"}}, none, ""},
    {"ASecondEqualSignRightBehind", "/a/==/", true, {{"/a/", "=/"}}, none, ""},
    {"LoneSeparators", "/=/", true, {{"/", "/"}}, none, ""},
    {"BlanksAreContent", " /a/ = /b/", false, {{" /a/ ", " /b/"}}, none, ""},
    {"LongNames", long_name + "=" + long_name, true, {{long_name, long_name}}, none, ""},
    {"BytesOfEveryValue", "/\xff\x01/=/\x80/", true, {{"/\xff\x01/", "/\x80/"}}, none, ""},
    {"WithTheCheckOffNoSlashIsNeeded", "/a=/b", false, {{"/a", "/b"}}, none, ""},
    {"NoEqualSign", "/a/", true, {}, 5, "option \"/a/\""},
    {"NoEqualSignWithTheCheckOff", "/a/", false, {}, 5, "option \"/a/\""},
    {"NoEqualSignInTheSecondPair", "/a/=/b/|/c/", true, {}, 5, "option \"/c/\""},
    {"AnEmptyPrefix", "=/b/", true, {}, 2, "prefix \"\""},
    {"AnEmptyPrefixWithTheCheckOff", "=/b/", false, {}, 2, "prefix \"\""},
    {"AnEqualSignAlone", "=", true, {}, 2, "prefix \"\""},
    {"APrefixWithoutSlash", "/a=/b/", true, {}, 2, "prefix \"/a\""},
    {"APrefixWithASlashWithinAlone", "/a/x=/b/", true, {}, 2, "prefix \"/a/x\""},
    {"ATargetWithoutSlash", "/a/=/b", true, {}, 3, "target \"/b\""},
    {"AnEmptyTarget", "/a/=", true, {}, 3, "target \"\""},
    {"AnEmptyTargetWithTheCheckOff", "/a=", false, {}, 3, "target \"\""},
    {"BothWrongTellsThePrefix", "/a=/b", true, {}, 2, "prefix \"/a\""},
    {"TheFirstWrongPairEndsIt", "/a/=/b/|/c=/d/|/e/", true, {}, 2, "prefix \"/c\""},
};

class PoolMapCrackingOf : public PoolMapTest, public testing::WithParamInterface<CrackCase> {};

TEST_P(PoolMapCrackingOf, IsPairsOrARefusalInWords) {
    const CrackCase &wanted = GetParam();
    std::string text = wanted.text;
    if (wanted.message == none) {
        EXPECT_EQ(crack(text, wanted.check_slashes), TBS_ST_OK);
        EXPECT_EQ(cracked.pairs(), wanted.pairs);
        return;
    }
    EXPECT_EQ(crack(text, wanted.check_slashes), TBS_ST_INVALID_ARG);
    EXPECT_TRUE(cracked.is_untouched());
    EXPECT_EQ(world.take_messages(),
              Messages{message(IMSG_ERROR, wanted.message, "Invalid VAULT pool mapping " + wanted.told + ".\n")});
}

INSTANTIATE_TEST_SUITE_P(Text, PoolMapCrackingOf, testing::ValuesIn(crack_cases),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_F(PoolMapCracking, TheShortFormChecksTheSlashes) {
    std::string good = "/a/=/b/";
    ASSERT_EQ(poolmap_crack_mapstring(good.data(), area, &cracked.count, &cracked.prefixes, &cracked.targets),
              TBS_ST_OK);
    EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/")));
    std::string bad = "/a/=/b";
    EXPECT_EQ(poolmap_crack_mapstring(bad.data(), area, &cracked.count, &cracked.prefixes, &cracked.targets),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.take_messages(), Messages{message(IMSG_ERROR, 3, "Invalid VAULT pool mapping target \"/b\".\n")});
}

TEST_F(PoolMapCracking, WhatStandsBeforeTheTextIsNoPartOfAPrefix) {
    std::string text = "/=/b/";
    EXPECT_EQ(poolmap_crack_mapstring(text.data() + 1, area, &cracked.count, &cracked.prefixes, &cracked.targets),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.take_messages(), Messages{message(IMSG_ERROR, 2, "Invalid VAULT pool mapping prefix \"\".\n")});
}

TEST_F(PoolMapCracking, ANullTextHasNoPairsEvenWhileATextIsBeingTokenized) {
    char tokens[] = "/x/=/y/|/z/=/w/";
    strutl_tokenize(tokens, "|");
    ASSERT_EQ(poolmap_crack_mapstring(nullptr, area, &cracked.count, &cracked.prefixes, &cracked.targets), TBS_ST_OK);
    EXPECT_EQ(cracked.count, 0u);
}

TEST_F(PoolMapCracking, TheTextIsLeftCutUpAndCannotBeCrackedTwice) {
    std::string text = "/a/=/b/|/c/=/d/";
    ASSERT_EQ(crack(text), TBS_ST_OK);
    EXPECT_EQ(text, std::string("/a/\0/b/\0/c/\0/d/", 15));
    EXPECT_EQ(crack(text), TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.take_messages(), Messages{message(IMSG_ERROR, 5, "Invalid VAULT pool mapping option \"/a/\".\n")});
}

TEST_F(PoolMapCracking, TheMapLivesOnWhenItsTextIsGone) {
    use_map("/a/=/b/");
    EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/")));
}

TEST_F(PoolMapCracking, AThousandPairsAreAllThere) {
    Pairs wanted;
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        wanted.emplace_back("/p" + std::to_string(i) + "/", "/t" + std::to_string(i * i) + "/");
        text += wanted.back().first + "=" + wanted.back().second + "|";
    }
    use_map(text);
    EXPECT_EQ(cracked.pairs(), wanted);
}

TEST_F(PoolMapCracking, TheHeapServesAsAreaAndTheCallerFreesAll) {
    std::string text = "/a/=/b/";
    ASSERT_EQ(poolmap_crack_mapstring(text.data(), STG_HEAP_AREA, &cracked.count, &cracked.prefixes, &cracked.targets),
              TBS_ST_OK);
    EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/")));
    for (void *block : {static_cast<void *>(cracked.prefixes[0].text), static_cast<void *>(cracked.targets[0].text),
                        static_cast<void *>(cracked.prefixes), static_cast<void *>(cracked.targets)})
        stg_free(block);
}

TEST_F(PoolMapCracking, WithoutStorageTheOutsStayUnset) {
    tbs_status_t status = TBS_ST_OK;
    const int failures = sim::sweep_allocations(
        world,
        [&] {
            std::string text = "/a/=/b/|/c/=/d/";
            status = crack(text);
        },
        [&](int number) {
            EXPECT_EQ(status, TBS_ST_NO_MEMORY) << number;
            EXPECT_TRUE(cracked.is_untouched()) << number;
            EXPECT_EQ(world.live_blocks(), 0u) << number;
        });
    EXPECT_EQ(failures, 1 + 2 + 4); // the copy, the arrays, the texts
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/"), Pair("/c/", "/d/")));
}

TEST_F(PoolMapCracking, ARaiseFreesTheCopy) {
    char text[] = "/a/=/b/|/c/=/d/";
    const std::string whole = text;
    const int raises = sim::sweep_raises(
        world,
        [&] {
            whole.copy(text, whole.size());
            cracked = {};
            poolmap_crack_mapstring(text, area, &cracked.count, &cracked.prefixes, &cracked.targets);
        },
        [&](int number) {
            EXPECT_TRUE(cracked.is_untouched()) << number;
            EXPECT_EQ(world.live_blocks(), 0u) << number;
        });
    EXPECT_EQ(raises, 1 + 2 + 4);
}

class PoolMapOfMountOptions : public PoolMapTest {
protected:
    tbs_status_t crack_options(std::string text) {
        cracked = {};
        return poolmap_crack_mntopts(text.data(), area, &cracked.count, &cracked.prefixes, &cracked.targets);
    }
    void expect_no_pairs() const {
        EXPECT_EQ(cracked.count, 0u);
        EXPECT_EQ(cracked.prefixes, nullptr);
        EXPECT_EQ(cracked.targets, nullptr);
    }
};

TEST_F(PoolMapOfMountOptions, StandsAnywhereInTheList) {
    for (const char *options : {"poolmap=/a/=/b/", "ro,poolmap=/a/=/b/,nosuid", "x=1, poolmap= /a/=/b/"}) {
        ASSERT_EQ(crack_options(options), TBS_ST_OK) << options;
        EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/"))) << options;
    }
}

TEST_F(PoolMapOfMountOptions, HasSeveralPairs) {
    ASSERT_EQ(crack_options("ro,poolmap=/a/=/b/|/c/=/d=e/,rw"), TBS_ST_OK);
    EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/"), Pair("/c/", "/d=e/")));
}

TEST_F(PoolMapOfMountOptions, EndsAtACommaAndAtASemicolon) {
    ASSERT_EQ(crack_options("poolmap=/a/=/b/;/c/=/d/"), TBS_ST_OK);
    EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/")));
    ASSERT_EQ(crack_options("poolmap=/a/=/b/,/c/=/d/"), TBS_ST_OK);
    EXPECT_THAT(cracked.pairs(), ElementsAre(Pair("/a/", "/b/")));
}

TEST_F(PoolMapOfMountOptions, IsEmptyWithoutTheOptionAndWithoutItsValue) {
    for (const char *options :
         {"", "ro", "ro,poolmap", "poolmap=", "poolmap=,ro", "poolmaps=/a/=/b/", "Poolmap=/a/=/b/"}) {
        EXPECT_EQ(crack_options(options), TBS_ST_OK) << options;
        expect_no_pairs();
    }
}

TEST_F(PoolMapOfMountOptions, IsEmptyWithoutOptions) {
    EXPECT_EQ(poolmap_crack_mntopts(nullptr, area, &cracked.count, &cracked.prefixes, &cracked.targets), TBS_ST_OK);
    expect_no_pairs();
}

TEST_F(PoolMapOfMountOptions, IsReadUpToTheLongestValueOfAnOption) {
    const auto map_of_length = [](size_t length) { return "/a/=" + std::string(length - 5, 'b') + "/"; };
    ASSERT_EQ(crack_options("poolmap=" + map_of_length(1023)), TBS_ST_OK);
    EXPECT_EQ(cracked.count, 1u);
    ASSERT_EQ(crack_options("poolmap=" + map_of_length(1024)), TBS_ST_OK);
    expect_no_pairs();
}

TEST_F(PoolMapOfMountOptions, IsRefusedWhenItIsBad) {
    EXPECT_EQ(crack_options("ro,poolmap=/a/=/b"), TBS_ST_INVALID_ARG);
    EXPECT_TRUE(cracked.is_untouched());
    EXPECT_EQ(world.take_messages(), Messages{message(IMSG_ERROR, 3, "Invalid VAULT pool mapping target \"/b\".\n")});
}

TEST_F(PoolMapOfMountOptions, WithoutStorageIsNotTakenForEmpty) {
    tbs_status_t status = TBS_ST_OK;
    const int failures = sim::sweep_allocations(
        world, [&] { status = crack_options("poolmap=/a/=/b/"); },
        [&](int number) {
            EXPECT_EQ(status, TBS_ST_NO_MEMORY) << number;
            EXPECT_TRUE(cracked.is_untouched()) << number;
        });
    EXPECT_EQ(failures, 5);
    EXPECT_EQ(status, TBS_ST_OK);
}

} // namespace
