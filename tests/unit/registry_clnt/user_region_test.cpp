// The map of users to regions.
#include <tests/unit/registry_clnt/local_fixture.h>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace {

class UserRegion : public LocalFilesTest {
protected:
    UserRegion() {
        const passwd *entry = getpwuid(geteuid());
        user = entry != nullptr ? entry->pw_name : std::to_string(geteuid());
        const ::group *group_entry = getgrgid(getegid());
        group = group_entry != nullptr ? group_entry->gr_name : std::to_string(getegid());
    }

    // The region by a map with USER and GROUP for this process's own; "none" on failure.
    std::string region_by(std::string map, size_t size = 33) {
        for (const auto &[word, name] : {std::pair{std::string("USER"), user}, {std::string("GROUP"), group}})
            for (size_t at = map.find(word); at != std::string::npos; at = map.find(word))
                map.replace(at, word.size(), name);
        write("map", map);
        char buffer[64] = "untouched";
        const auto status = registry_prop_get_user_region(path_of("map").c_str(), size, buffer);
        EXPECT_TRUE(status == TBS_ST_OK || status == TBS_ST_ERROR);
        if (status != TBS_ST_OK) {
            EXPECT_STREQ(buffer, "untouched");
        }
        return status == TBS_ST_OK ? buffer : "none";
    }

    std::string user;
    std::string group;
};

TEST_F(UserRegion, AUsersBlockDecides) {
    EXPECT_EQ(region_by("r1 = { nobody_else USER }\n"), "r1");
    EXPECT_EQ(region_by("r1 { nobody_else }\nr2 { USER }\n"), "r2");
    EXPECT_EQ(region_by("r1 { nobody_else }\n"), "none");
    EXPECT_EQ(region_by(""), "none");
}

TEST_F(UserRegion, AUserInALateBlockWinsOverAGroupInAnEarlyOne) {
    EXPECT_EQ(region_by("r1 { group:GROUP }\nr2 { %DEFAULT% }\nr3 { USER }\n"), "r3");
}

TEST_F(UserRegion, AGroupWinsOverTheDefault) {
    EXPECT_EQ(region_by("r1 { group:GROUP }\nr2 { %DEFAULT% }\n"), "r1");
    EXPECT_EQ(region_by("r1 { group:no_such_group }\nr2 { %DEFAULT% }\n"), "r2");
}

TEST_F(UserRegion, OfSeveralBlocksTheFirstUserCountsAndTheLastGroupAndDefault) {
    EXPECT_EQ(region_by("r1 { USER }\nr2 { USER }\n"), "r1");
    EXPECT_EQ(region_by("r1 { group:GROUP }\nr2 { group:GROUP }\n"), "r2");
    EXPECT_EQ(region_by("r1 { %DEFAULT% }\nr2 { %DEFAULT% }\n"), "r2");
}

TEST_F(UserRegion, AUserBehindWhichTheMapIsMalformedHasBeenFound) {
    EXPECT_EQ(region_by("r1 { USER }\n}\n"), "r1");
}

TEST_F(UserRegion, AClosingBraceWhereARegionShouldStandIsMalformed) {
    EXPECT_EQ(region_by("}\nr1 { USER }\n"), "none");
    EXPECT_EQ(region_by("r1 { nobody_else }\n}\nr2 { USER }\n"), "none");
    EXPECT_EQ(region_by("r1 { %DEFAULT% }\n}\n"), "none");
}

TEST_F(UserRegion, BlocksSpreadOverLinesAndWhatFollowsTheirEndOnALineIsDropped) {
    EXPECT_EQ(region_by("r1\n=\n{\nnobody_else\nUSER\n}\n"), "r1");
    EXPECT_EQ(region_by("r1 { nobody_else } r2 { USER }\n"), "none");
    EXPECT_EQ(region_by("r1 { nobody_else }} USER\nr2 { USER"), "r2");
}

TEST_F(UserRegion, AnEqualSignABraceAndWhiteSpaceAreAllMereSeparators) {
    EXPECT_EQ(region_by("r1{nobody_else}\nr2 { USER }\n"), "r1"); // a brace ends a block only where it begins a word
    EXPECT_EQ(region_by("r1=USER }\n"), "r1");
    EXPECT_EQ(region_by("=\t{r1{{==\tUSER\n"), "r1");
}

TEST_F(UserRegion, CommentsEndTheirLine) {
    EXPECT_EQ(region_by("# r0 { USER }\nr1 { #USER\nnobody_else }\nr2 { USER # }\n"), "r2");
    EXPECT_EQ(region_by("r1 { USER# }\n"), "r1");
}

TEST_F(UserRegion, AWordThatHoldsGroupAnywhereIsAGroupsWord) {
    EXPECT_EQ(region_by("r1 { xgroup:GROUP }\n"), "r1");
    EXPECT_EQ(region_by("r1 { USERgroup:no_such_group }\n"), "none");
}

TEST_F(UserRegion, ARegionHas32CharactersAtMost) {
    const std::string longest(32, 'r');
    EXPECT_EQ(region_by(longest + " { USER }\n"), longest);
    EXPECT_EQ(region_by(longest + "r { USER }\n"), "none");
    EXPECT_EQ(region_by(longest + "r { nobody_else }\nr1 { USER }\n"), "none");
}

TEST_F(UserRegion, ARegionThatDoesNotFitTheBufferIsRefused) {
    EXPECT_EQ(region_by("r12 { USER }\n", 4), "r12");
    EXPECT_EQ(region_by("r12 { USER }\n", 3), "none");
    EXPECT_EQ(region_by("r12 { %DEFAULT% }\n", 0), "none");
}

TEST_F(UserRegion, ALineHas1022CharactersAtMost) {
    const std::string block = "r1 { USER }";
    const std::string pad(1022 - ("r1 { " + user + " }").size(), ' ');
    EXPECT_EQ(region_by(pad + block + "\n"), "r1");
    EXPECT_EQ(region_by(pad + block), "r1");
    EXPECT_EQ(region_by(pad + " " + block + "\n"), "none");
    EXPECT_EQ(region_by("#" + std::string(5000, 'x') + " r1 { USER }\n"), "none");
}

TEST_F(UserRegion, AMapThatIsNoFileIsNotWaitedForAndAnError) {
    const std::string path = path_of("map");
    bad_files::for_each(path, 16 << 20, [&](const std::string &words) {
        char buffer[33] = "untouched";
        EXPECT_EQ(registry_prop_get_user_region(path.c_str(), 33, buffer), TBS_ST_ERROR);
        EXPECT_STREQ(buffer, "untouched");
        EXPECT_THAT(world.take_messages(), testing::ElementsAre(refusal(path, words)));
    });
}

TEST_F(UserRegion, AZeroByteEndsItsLineAndNoOther) {
    EXPECT_EQ(region_by("r1 { nobody_else" + std::string(1, '\0') + "USER }\n}\nr2 { USER }\n"), "r2");
}

TEST_F(UserRegion, AMapThatCannotBeReadIsAnError) {
    char buffer[33];
    EXPECT_EQ(registry_prop_get_user_region(path_of("missing").c_str(), 33, buffer), TBS_ST_ERROR);
    EXPECT_EQ(registry_prop_get_user_region(nullptr, 33, buffer), TBS_ST_ERROR);
    EXPECT_EQ(registry_prop_get_user_region(path_of("missing").c_str(), 33, nullptr), TBS_ST_ERROR);
    write("secret", "r1 { %DEFAULT% }\n");
    const bad_files::WithoutRight guard(path_of("secret"));
    EXPECT_EQ(registry_prop_get_user_region(path_of("secret").c_str(), 33, buffer), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(UserRegion, EveryCutOffMapIsAnswered) {
    const std::string map = "r1 = { group:no_such_group %DEFAULT% }\n# note\nr2 { nobody_else }\nr3 { USER }\n";
    for (size_t length = 0; length <= map.size(); ++length) {
        const std::string region = region_by(map.substr(0, length));
        EXPECT_TRUE(region == "none" || region == "r1" || region == "r3") << length << ": " << region;
    }
}

TEST_F(UserRegion, APatternThatTheUserBeginsWithMatches) {
    EXPECT_TRUE(username_match("marian", "marian"));
    EXPECT_TRUE(username_match("marian", "mari"));
    EXPECT_FALSE(username_match("marian", "robin"));
}

TEST_F(UserRegion, APatternWithoutADomainFitsAUserOfAnyDomain) {
    EXPECT_TRUE(username_match("sales\\marian", "marian"));
    EXPECT_TRUE(username_match("sales\\marian", "sales\\marian"));
    EXPECT_FALSE(username_match("sales\\marian", "stock\\marian"));
    EXPECT_TRUE(username_match("sales\\marian", "sales2\\marian"));
    EXPECT_FALSE(username_match("marian", "sales\\marian"));
}

TEST_F(UserRegion, ThePatternsNameNeedOnlyBeginWithTheUsers) {
    EXPECT_TRUE(username_match("marian", "marianne"));
    EXPECT_FALSE(username_match("marianne", "mb"));
}

TEST_F(UserRegion, NobodyMatchesNothing) {
    EXPECT_EQ(username_match(nullptr, "marian"), 0);
    EXPECT_EQ(username_match("marian", nullptr), 0);
    EXPECT_EQ(username_match("marian", ""), 1) << "every name begins with it";
}

TEST_F(UserRegion, NamesThatAreTooLongToSplitDoNotMatch) {
    const std::string longest(300, 'm');
    EXPECT_FALSE(username_match("robin", longest.c_str()));
    EXPECT_FALSE(username_match(longest.c_str(), "robin"));
}

} // namespace
