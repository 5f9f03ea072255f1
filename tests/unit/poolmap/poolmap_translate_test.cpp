// Pathnames and names of pools through a map.
#include <tests/unit/poolmap/poolmap_fixture.h>

namespace {

using PoolMapPathname = PoolMapTest;
using PoolMapPoolname = PoolMapTest;

const std::string internal_error = "Internal error.\n";

TEST_F(PoolMapPathname, HasItsPrefixReplacedByTheTarget) {
    use_map("/a/=/b/c/");
    EXPECT_EQ(pathname("/a/x"), (Answer{TBS_ST_OK, "/b/c/x"}));
    EXPECT_EQ(pathname("/a/x/y/"), (Answer{TBS_ST_OK, "/b/c/x/y/"}));
}

TEST_F(PoolMapPathname, ThatIsThePrefixBecomesTheTarget) {
    use_map("/a/=/b/c/");
    EXPECT_EQ(pathname("/a/"), (Answer{TBS_ST_OK, "/b/c/"}));
}

TEST_F(PoolMapPathname, MatchesWholeComponentsAlone) {
    use_map("/a/=/b/");
    for (const char *path : {"/ab", "/a", "/", "", "a/x", "/A/x", "x/a/y"})
        EXPECT_EQ(pathname(path), (Answer{TBS_ST_OK, ""})) << path;
}

TEST_F(PoolMapPathname, WithoutASlashInThePrefixMatchesPartsOfComponents) {
    use_map("/a=/b", false);
    EXPECT_EQ(pathname("/ab"), (Answer{TBS_ST_OK, "/bb"}));
}

TEST_F(PoolMapPathname, TakesTheFirstPrefixThatMatches) {
    use_map("/a/=/1/|/a/b/=/2/|/a/=/3/|/=/4/");
    EXPECT_EQ(pathname("/a/b/c"), (Answer{TBS_ST_OK, "/1/b/c"}));
    EXPECT_EQ(pathname("/x"), (Answer{TBS_ST_OK, "/4/x"}));
}

TEST_F(PoolMapPathname, IsComparedWithPrefixesOfAnyLengthInAnyOrder) {
    use_map("/abc=/1|/a=/2|/abcdefg=/3|/ab=/4|/abcdef=/5", false);
    cracked.prefixes[0].text[1] = cracked.prefixes[1].text[1] = cracked.prefixes[2].text[1] = 'x';
    cracked.prefixes[3].text[1] = 'x';
    EXPECT_EQ(pathname("/abcdefgh"), (Answer{TBS_ST_OK, "/5gh"}));
}

TEST_F(PoolMapPathname, IsComparedWithAsManyPrefixesAsAreCounted) {
    use_map("/a/=/1/|/b/=/2/");
    --cracked.count;
    EXPECT_EQ(pathname("/b/x"), (Answer{TBS_ST_OK, ""}));
}

TEST_F(PoolMapPathname, IsTranslatedOnce) {
    use_map("/a/=/b/|/b/=/c/");
    EXPECT_EQ(pathname("/a/x"), (Answer{TBS_ST_OK, "/b/x"}));
}

TEST_F(PoolMapPathname, IsEmptyWithAnEmptyMap) {
    use_map("");
    EXPECT_EQ(pathname("/a/x"), (Answer{TBS_ST_OK, ""}));
    EXPECT_EQ(poolmap_translate_pathname("/a/x", 0, nullptr, nullptr, 0, nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(PoolMapPathname, ThatDoesNotFitIsTooLong) {
    use_map("/a/=/long/");
    EXPECT_EQ(pathname("/a/x", 8), (Answer{TBS_ST_OK, "/long/x"}));
    for (const size_t size : {7u, 6u, 1u})
        EXPECT_EQ(pathname("/a/x", size), (Answer{TBS_ST_NAME_TOO_LONG, ""})) << size;
}

TEST_F(PoolMapPathname, ThatMatchesNothingFitsAnyBuffer) {
    use_map("/a/=/b/");
    EXPECT_EQ(pathname("/x", 1), (Answer{TBS_ST_OK, ""}));
}

TEST_F(PoolMapPathname, WithNoBufferToWriteToIsTooLongAndWritesNothing) {
    use_map("/a/=/b/");
    char byte = 'x';
    EXPECT_EQ(poolmap_translate_pathname("/a/x", cracked.count, cracked.prefixes, cracked.targets, 0, &byte),
              TBS_ST_NAME_TOO_LONG);
    EXPECT_EQ(byte, 'x');
}

TEST_F(PoolMapPathname, OrBufferThatIsNullIsRefused) {
    use_map("/a/=/b/");
    char buffer[8] = "same";
    EXPECT_EQ(poolmap_translate_pathname(nullptr, cracked.count, cracked.prefixes, cracked.targets, 8, buffer),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(poolmap_translate_pathname("/a/", cracked.count, cracked.prefixes, cracked.targets, 8, nullptr),
              TBS_ST_INVALID_ARG);
    EXPECT_STREQ(buffer, "same");
}

std::string prefix_of_length(size_t length) {
    return "/" + std::string(length - 2, 'p') + "/";
}

TEST_F(PoolMapPathname, MatchesAPrefixOfEveryLengthBelowTheLimit) {
    for (size_t length = POOLMAP_PREFIX_MAX - 20; length < POOLMAP_PREFIX_MAX; ++length) {
        use_map(prefix_of_length(length) + "=/t/");
        EXPECT_EQ(pathname(prefix_of_length(length) + "x"), (Answer{TBS_ST_OK, "/t/x"})) << length;
        EXPECT_EQ(pathname(prefix_of_length(length)), (Answer{TBS_ST_OK, "/t/"})) << length;
        EXPECT_EQ(pathname(std::string(length, 'p')), (Answer{TBS_ST_OK, ""})) << length;
    }
}

TEST_F(PoolMapPathname, MatchesNoPrefixAtTheLimitOrBeyondAndReadsNothingBehindIt) {
    for (const size_t length : {1024u, 1025u, 1026u, 2048u, 4096u, 100000u}) {
        const std::string prefix = prefix_of_length(length);
        use_map(prefix + "=/t/|/=/root/");
        const std::string rest = (prefix + "x").substr(1);
        EXPECT_EQ(pathname(prefix + "x", length + 100), (Answer{TBS_ST_OK, "/root/" + rest})) << length;
        EXPECT_EQ(pathname("/short"), (Answer{TBS_ST_OK, "/root/short"})) << length;
    }
}

TEST_F(PoolMapPathname, ThatIsLongerThanThePrefixLimitIsTranslatedWhole) {
    use_map("/a/=/b/");
    const std::string rest(10000, 'r');
    EXPECT_EQ(pathname("/a/" + rest, 10004), (Answer{TBS_ST_OK, "/b/" + rest}));
    EXPECT_EQ(pathname("/a/" + rest, 10003), (Answer{TBS_ST_NAME_TOO_LONG, ""}));
}

TEST_F(PoolMapPathname, ComparesTheWholePathAgainAfterAPrefixCutIt) {
    use_map("/a/b/c/=/1/|/a/=/2/|/a/b/d/=/3/");
    EXPECT_EQ(pathname("/a/b/d/x"), (Answer{TBS_ST_OK, "/2/b/d/x"}));
    use_map("/a/b/c/=/1/|/b/=/2/|/a/b/d/=/3/");
    EXPECT_EQ(pathname("/a/b/d/x"), (Answer{TBS_ST_OK, "/3/x"}));
}

TEST_F(PoolMapPoolname, IsTranslatedAsAWholeAndHasNoSlashAtItsEnd) {
    use_map("/a/=/b/");
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_OK, "/b"}));
    for (const char *name : {"/a/x", "/ab", "/", "", "/a/"})
        EXPECT_EQ(poolname(name), (Answer{TBS_ST_OK, ""})) << name;
}

TEST_F(PoolMapPoolname, SeesThePairsChain) {
    use_map("/a/=/b/|/b/=/c/");
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_OK, "/c"}));
    EXPECT_EQ(poolname("/b"), (Answer{TBS_ST_OK, "/c"}));
}

TEST_F(PoolMapPoolname, ChainsForwardsAlone) {
    use_map("/b/=/c/|/a/=/b/");
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_OK, "/b"}));
}

TEST_F(PoolMapPoolname, MayComeBackToWhereItBegan) {
    use_map("/a/=/b/|/b/=/a/");
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_OK, "/a"}));
}

TEST_F(PoolMapPoolname, TakesTheFirstOfTwoPairsWithOnePrefix) {
    use_map("/a/=/1/|/a/=/2/");
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_OK, "/1"}));
}

TEST_F(PoolMapPoolname, IsEmptyWithAnEmptyMapEvenWhereItWouldNotFit) {
    use_map("");
    EXPECT_EQ(poolname("/a", 1), (Answer{TBS_ST_OK, ""}));
}

TEST_F(PoolMapPoolname, MustFitWithItsSlash) {
    use_map("/x/=/y/");
    EXPECT_EQ(poolname("/abc", 6), (Answer{TBS_ST_OK, ""}));
    for (const size_t size : {5u, 4u, 1u})
        EXPECT_EQ(poolname("/abc", size), (Answer{TBS_ST_NAME_TOO_LONG, ""})) << size;
}

TEST_F(PoolMapPoolname, WhoseTargetDoesNotFitKeepsWhatFitsAndIsLogged) {
    use_map("/a/=/long/");
    EXPECT_EQ(poolname("/a", 7), (Answer{TBS_ST_OK, "/long"}));
    EXPECT_EQ(poolname("/a", 6), (Answer{TBS_ST_NAME_TOO_LONG, "/long"}));
    EXPECT_EQ(poolname("/a", 5), (Answer{TBS_ST_NAME_TOO_LONG, "/lon"}));
    const sim::Message logged = {IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, 45, internal_error, "poolmap"};
    EXPECT_EQ(world.take_messages(), (Messages{logged, logged}));
}

// Logs are searched for this place, which stays when the code moves.
TEST_F(PoolMapPoolname, WhoseTargetDoesNotFitIsLoggedUnderItsPlace) {
    use_map("/a/=/long/");
    imsg_set_sink(nullptr, nullptr);
    testing::internal::CaptureStderr();
    poolname("/a", 6);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("internal error at poolmap, line 302: "));
}

TEST_F(PoolMapPoolname, GoesOnBehindATargetThatDoesNotFit) {
    use_map("/a/=/b/too/long/|/b/t/=/c/|/x/=/y/");
    EXPECT_EQ(poolname("/a", 6), (Answer{TBS_ST_NAME_TOO_LONG, "/b/to"}));
    EXPECT_EQ(world.take_messages().size(), 1u);
    use_map("/a/=/b/too/long/|/b/to=/c/", false);
    EXPECT_EQ(poolname("/a", 6), (Answer{TBS_ST_OK, "/c"})); // a later match that fits clears the status
    EXPECT_EQ(world.take_messages().size(), 1u);
}

TEST_F(PoolMapPoolname, WithATargetThatHasNoSlashIsAnErrorInTwoLines) {
    use_map("/a/=b", false);
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_ERROR, "b"}));
    EXPECT_EQ(world.take_messages(),
              (Messages{message(IMSG_ERROR, 0, "Invalid VAULT pool path translation \"b\".\n"),
                        message(IMSG_CONTINUATION, 1, "A translation must end with the pathname separator.\n")}));
}

TEST_F(PoolMapPoolname, IsCutAtTheLastSlashOfATargetThatEndsInNone) {
    use_map("/a/=/b/c", false);
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_OK, "/b"}));
}

TEST_F(PoolMapPoolname, BecomesEmptyForTheRoot) {
    use_map("/a/=/");
    EXPECT_EQ(poolname("/a"), (Answer{TBS_ST_OK, ""}));
}

TEST_F(PoolMapPoolname, OfAnyLengthMatchesAPrefixOfAnyLength) {
    for (const size_t length : {1022u, 1023u, 1024u, 1025u, 5000u}) {
        const std::string prefix = prefix_of_length(length);
        use_map(prefix + "=/t/");
        const std::string name = prefix.substr(0, length - 1);
        EXPECT_EQ(poolname(name, length + 1), (Answer{TBS_ST_OK, "/t"})) << length;
        EXPECT_EQ(poolname(name, length), (Answer{TBS_ST_NAME_TOO_LONG, ""})) << length;
    }
}

TEST_F(PoolMapPoolname, MayStandInTheBufferItself) {
    use_map("/a/=/b/");
    char name[8] = "/a";
    EXPECT_EQ(poolmap_translate_poolname(name, cracked.count, cracked.prefixes, cracked.targets, sizeof name, name),
              TBS_ST_OK);
    EXPECT_STREQ(name, "/b");
    char full[4] = "/ab";
    EXPECT_EQ(poolmap_translate_poolname(full, cracked.count, cracked.prefixes, cracked.targets, sizeof full, full),
              TBS_ST_NAME_TOO_LONG);
    EXPECT_STREQ(full, "");
}

TEST_F(PoolMapPoolname, OrBufferThatIsNullOrOfNoSizeIsRefused) {
    use_map("/a/=/b/");
    char buffer[8] = "same";
    EXPECT_EQ(poolmap_translate_poolname(nullptr, cracked.count, cracked.prefixes, cracked.targets, 8, buffer),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(poolmap_translate_poolname("/a", cracked.count, cracked.prefixes, cracked.targets, 8, nullptr),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(poolmap_translate_poolname("/a", cracked.count, cracked.prefixes, cracked.targets, 0, buffer),
              TBS_ST_NAME_TOO_LONG);
    EXPECT_STREQ(buffer, "same");
}

} // namespace
