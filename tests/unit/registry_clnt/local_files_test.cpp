// The files of two words, and how a file is replaced.
#include <tests/unit/registry_clnt/local_fixture.h>

#include <cstring>

namespace {

// The two families differ in their file and in the longest word.
struct Family {
    const char *name;
    const char *file;
    size_t longest;
    tbs_status_t (*get)(size_t, size_t, size_t *, size_t *, char *, char *);
    tbs_status_t (*set)(size_t, size_t, const char *, const char *);
};

void PrintTo(const Family &family, std::ostream *out) {
    *out << family.name;
}

const Family families[] = {
    {"Hosts", "rgy_hosts.conf", 63, registry_prop_get_hostnames_local, registry_prop_set_hostnames_local},
    {"Regions", "rgy_region.conf", 47, registry_prop_get_region_names_local, registry_prop_set_region_names_local},
};

class TwoWordFile : public LocalFilesTest, public testing::WithParamInterface<Family> {
protected:
    void write_words(const std::string &text) { write(GetParam().file, text); }
    tbs_status_t get(size_t size1 = 64, size_t size2 = 64) {
        memset(first, 'x', sizeof first);
        memset(second, 'x', sizeof second);
        length1 = length2 = 99;
        return GetParam().get(size1, size2, &length1, &length2, first, second);
    }
    void expect_nothing_copied() {
        EXPECT_EQ(first[0], 'x');
        EXPECT_EQ(second[0], 'x');
        EXPECT_EQ(length1, 99u);
        EXPECT_EQ(length2, 99u);
    }

    char first[128];
    char second[128];
    size_t length1;
    size_t length2;
};

INSTANTIATE_TEST_SUITE_P(Both, TwoWordFile, testing::ValuesIn(families),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_P(TwoWordFile, GivesItsTwoWordsAndTheirLengthsWithTerminator) {
    write_words("alpha\nbeta2\n");
    ASSERT_EQ(get(), TBS_ST_OK);
    EXPECT_STREQ(first, "alpha");
    EXPECT_STREQ(second, "beta2");
    EXPECT_EQ(length1, 6u);
    EXPECT_EQ(length2, 6u);
}

TEST_P(TwoWordFile, AnyWhiteSpaceSeparatesAndMoreWordsAreNotRead) {
    write_words(" \t\v\f\r\n alpha\r\n\tbeta gamma");
    ASSERT_EQ(get(), TBS_ST_OK);
    EXPECT_STREQ(first, "alpha");
    EXPECT_STREQ(second, "beta");
}

TEST_P(TwoWordFile, AMissingWordReadsAsEmpty) {
    write_words("alpha");
    ASSERT_EQ(get(), TBS_ST_OK);
    EXPECT_STREQ(first, "alpha");
    EXPECT_STREQ(second, "");
    EXPECT_EQ(length2, 1u);
    write_words("");
    ASSERT_EQ(get(), TBS_ST_OK);
    EXPECT_STREQ(first, "");
}

TEST_P(TwoWordFile, AMissingFileAndOneThatMayNotBeReadAreErrorsWithoutAMessage) {
    EXPECT_EQ(get(), TBS_ST_ERROR);
    std::filesystem::create_symlink("nowhere", path_of(GetParam().file));
    EXPECT_EQ(get(), TBS_ST_ERROR);
    std::filesystem::remove(path_of(GetParam().file));
    write_words("alpha beta");
    const bad_files::WithoutRight guard(path_of(GetParam().file));
    EXPECT_EQ(get(), TBS_ST_ERROR);
    expect_nothing_copied();
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_P(TwoWordFile, WhatIsNoFileIsNotWaitedForAndIsAnError) {
    const std::string path = path_of(GetParam().file);
    bad_files::for_each(path, 1 << 20, [&](const std::string &words) {
        EXPECT_EQ(get(), TBS_ST_ERROR);
        expect_nothing_copied();
        EXPECT_THAT(world.take_messages(), testing::ElementsAre(refusal(path, words, "tbs/cmsg")));
    });
}

TEST_P(TwoWordFile, WhatIsNoFileIsReplacedByOneAndNotWaitedFor) {
    const std::string path = path_of(GetParam().file);
    for (const auto kind : {bad_files::Kind::pipe, bad_files::Kind::written_pipe, bad_files::Kind::endless_link,
                            bad_files::Kind::socket, bad_files::Kind::sparse}) {
        const bad_files::BadFile file(kind, path);
        ASSERT_EQ(GetParam().set(0, 0, "alpha", "beta"), TBS_ST_OK);
        EXPECT_EQ(contents(path), "alpha\nbeta\n");
    }
}

TEST_P(TwoWordFile, AZeroByteEndsTheFile) {
    write_words(std::string("alpha\0 beta", 11));
    ASSERT_EQ(get(), TBS_ST_OK);
    EXPECT_STREQ(first, "alpha");
    EXPECT_STREQ(second, "");
}

TEST_P(TwoWordFile, AWordThatDoesNotFitItsBufferIsRefusedAndNothingCopied) {
    write_words("alpha beta2");
    EXPECT_EQ(get(5, 64), TBS_ST_ERROR);
    expect_nothing_copied();
    EXPECT_EQ(get(64, 5), TBS_ST_ERROR);
    expect_nothing_copied();
    EXPECT_EQ(get(6, 6), TBS_ST_OK);
}

TEST_P(TwoWordFile, AnOverlongWordIsRefusedAndNothingCopied) {
    const std::string longest(GetParam().longest, 'w');
    write_words(longest + " " + longest);
    ASSERT_EQ(get(), TBS_ST_OK);
    EXPECT_EQ(first, longest);
    EXPECT_EQ(second, longest);
    for (const std::string &text : {longest + "w b", "a " + longest + "w", std::string(100000, 'w')}) {
        write_words(text);
        EXPECT_EQ(get(sizeof first, sizeof second), TBS_ST_ERROR); // though the caller has room
        expect_nothing_copied();
    }
}

TEST_P(TwoWordFile, TheLengthsMayBeLeftOut) {
    write_words("alpha beta");
    EXPECT_EQ(GetParam().get(64, 64, nullptr, nullptr, first, second), TBS_ST_OK);
    EXPECT_EQ(GetParam().get(64, 64, nullptr, nullptr, nullptr, second), TBS_ST_ERROR);
}

TEST_P(TwoWordFile, IsWrittenOneWordALineWhateverTheLengthsSay) {
    ASSERT_EQ(GetParam().set(0, 999, "alpha", "beta"), TBS_ST_OK);
    EXPECT_EQ(contents(path_of(GetParam().file)), "alpha\nbeta\n");
    ASSERT_EQ(GetParam().set(0, 0, "alpha", nullptr), TBS_ST_OK);
    EXPECT_EQ(contents(path_of(GetParam().file)), "alpha\n\n");
    ASSERT_EQ(get(), TBS_ST_OK);
    EXPECT_STREQ(second, "");
}

TEST_P(TwoWordFile, EachFailingAllocationIsAnErrorAndLeavesTheFile) {
    write_words("alpha beta");
    tbs_status_t status = TBS_ST_OK;
    int failures = sim::sweep_allocations(
        world, [&] { status = get(); },
        [&](int) {
            EXPECT_EQ(status, TBS_ST_ERROR);
            EXPECT_EQ(world.live_blocks(), 0u);
        });
    EXPECT_GE(failures, 1);
    failures = sim::sweep_allocations(
        world, [&] { status = GetParam().set(0, 0, "gamma", "delta"); },
        [&](int) {
            EXPECT_EQ(status, TBS_ST_ERROR);
            EXPECT_EQ(contents(path_of(GetParam().file)), "alpha beta");
        });
    EXPECT_GE(failures, 1);
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_P(TwoWordFile, ARaiseLeaksNothing) {
    write_words("alpha beta");
    EXPECT_GE(sim::sweep_raises(
                  world, [&] { get(); }, [&](int) { EXPECT_EQ(world.live_blocks(), 0u); }),
              1);
    EXPECT_GE(
        sim::sweep_raises(
            world, [&] { GetParam().set(0, 0, "gamma", "delta"); }, [&](int) { EXPECT_EQ(world.live_blocks(), 0u); }),
        1);
}

class ConfigurationFile : public LocalFilesTest {};

TEST_F(ConfigurationFile, OnlyTheImmediatelyPreviousVersionIsKept) {
    const std::string path = path_of("file");
    ASSERT_EQ(write_file(path.c_str(), "one"), TBS_ST_OK);
    EXPECT_EQ(contents(path), "one");
    EXPECT_EQ(contents(path + ".old"), std::nullopt);
    ASSERT_EQ(write_file(path.c_str(), "two"), TBS_ST_OK);
    EXPECT_EQ(contents(path + ".old"), "one");
    ASSERT_EQ(write_file(path.c_str(), "three"), TBS_ST_OK);
    EXPECT_EQ(contents(path), "three");
    EXPECT_EQ(contents(path + ".old"), "two");
    EXPECT_EQ(contents(path + ".new"), std::nullopt);
}

TEST_F(ConfigurationFile, ABackupThatCannotBeMadeDoesNotStandInTheWay) {
    const std::string path = path_of("file");
    std::filesystem::create_directory(path + ".old");
    write("file", "one");
    EXPECT_EQ(write_file(path.c_str(), "two"), TBS_ST_OK);
    EXPECT_EQ(contents(path), "two");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ConfigurationFile, WhatCannotBePutInPlaceIsAnErrorAndTheFileStays) {
    const std::string path = path_of("file");
    write("file", "one");
    std::filesystem::create_directory(path + ".new");
    EXPECT_EQ(write_file(path.c_str(), "two"), TBS_ST_ERROR);
    EXPECT_EQ(contents(path), "one");
    std::filesystem::create_directory(path_of("directory"));
    EXPECT_EQ(write_file(path_of("directory").c_str(), "two"), TBS_ST_ERROR);
    EXPECT_TRUE(std::filesystem::is_directory(path_of("directory")));
    EXPECT_EQ(contents(path_of("directory.new")), std::nullopt) << "nothing is left beside it";
    EXPECT_EQ(write_file((world.root() + "/nowhere/file").c_str(), "two"), TBS_ST_ERROR);
}

TEST_F(ConfigurationFile, WhatCannotBeWrittenToItsEndIsToldAndTheFileStays) {
    const std::string path = path_of("file");
    write("file", "one");
    std::filesystem::create_symlink("/dev/full", path + ".new");
    EXPECT_EQ(write_file(path.c_str(), "two"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), testing::ElementsAre(sim::Message{IMSG_ERROR, nullptr, IMSG_FORMAT,
                                                                         "Unable to write file \"" + path +
                                                                             ".new\": " + strerror(ENOSPC) + ".\n"}));
    EXPECT_EQ(contents(path), "one");
    EXPECT_EQ(contents(path + ".old"), std::nullopt);
    EXPECT_FALSE(std::filesystem::is_symlink(path + ".new"));
}

TEST_F(ConfigurationFile, ABackupsNameHas1023CharactersAtMost) {
    char out[1024];
    const std::string fits(1019, 'p');
    ASSERT_EQ(generate_backup_pathname(fits.c_str(), out), TBS_ST_OK);
    EXPECT_EQ(out, fits + ".old");
    EXPECT_EQ(generate_backup_pathname((fits + "p").c_str(), out), TBS_ST_ERROR);
    EXPECT_EQ(write_file((fits + "p").c_str(), "text"), TBS_ST_ERROR);
}

TEST_F(ConfigurationFile, ItsWriterAndItsBackupsNameRefuseNoArgument) {
    const std::string path = path_of("file");
    char out[1024];
    write("file", "one");
    EXPECT_EQ(write_file(nullptr, "two"), TBS_ST_ERROR);
    EXPECT_EQ(write_file(path.c_str(), nullptr), TBS_ST_ERROR);
    EXPECT_EQ(generate_backup_pathname(nullptr, out), TBS_ST_ERROR);
    EXPECT_EQ(generate_backup_pathname(path.c_str(), nullptr), TBS_ST_ERROR);
    EXPECT_EQ(contents(path), "one");
    EXPECT_EQ(contents(path + ".old"), std::nullopt);
}

TEST_F(ConfigurationFile, TheHostsFileHasAPathThatStays) {
    const char *path = registry_configuration_pathname();
    EXPECT_EQ(path, path_of("rgy_hosts.conf"));
    EXPECT_EQ(registry_configuration_pathname(), path);
}

class ProcessRegion : public LocalFilesTest {
protected:
    ~ProcessRegion() override { registry_prop_set_process_default_region_local(nullptr); }

    std::string first_region() {
        char first[64];
        char second[64];
        return registry_prop_get_region_names_local(64, 64, nullptr, nullptr, first, second) == TBS_ST_OK
                   ? std::string(first) + "," + second
                   : "failed";
    }
};

TEST_F(ProcessRegion, StandsInForTheFirstWordUntilItIsCleared) {
    write("rgy_region.conf", "r1\nr2\n");
    EXPECT_EQ(first_region(), "r1,r2");
    ASSERT_EQ(registry_prop_set_process_default_region_local("mine"), TBS_ST_OK);
    EXPECT_EQ(first_region(), "mine,r2");
    ASSERT_EQ(registry_prop_set_process_default_region_local("other"), TBS_ST_OK);
    EXPECT_EQ(first_region(), "other,r2");
    ASSERT_EQ(registry_prop_set_process_default_region_local(""), TBS_ST_OK);
    EXPECT_EQ(first_region(), "r1,r2");
}

TEST_F(ProcessRegion, DoesNotHelpWithoutAFile) {
    ASSERT_EQ(registry_prop_set_process_default_region_local("mine"), TBS_ST_OK);
    EXPECT_EQ(first_region(), "failed");
}

TEST_F(ProcessRegion, ThatDoesNotFitTheBufferIsRefused) {
    write("rgy_region.conf", "r1\nr2\n");
    ASSERT_EQ(registry_prop_set_process_default_region_local(std::string(64, 'r').c_str()), TBS_ST_OK);
    EXPECT_EQ(first_region(), "failed");
}

TEST_F(ProcessRegion, WithoutStorageIsToldAndClearsTheOldOne) {
    write("rgy_region.conf", "r1\nr2\n");
    ASSERT_EQ(registry_prop_set_process_default_region_local("mine"), TBS_ST_OK);
    world.fail_allocation(1);
    EXPECT_EQ(registry_prop_set_process_default_region_local("other"), TBS_ST_NO_STORAGE);
    world.fail_allocation(0);
    const auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].severity, IMSG_ERROR);
    EXPECT_EQ(messages[0].table, &_tbs_cmsg_tbs_msg_table);
    EXPECT_EQ(messages[0].index, 46);
    EXPECT_EQ(messages[0].subsystem, "registry");
    EXPECT_THAT(messages[0].text, testing::HasSubstr("registry_prop_set_process_default_region_local"));
    EXPECT_THAT(messages[0].text, testing::HasSubstr(tbs_strerror(TBS_ST_NO_STORAGE)));
    EXPECT_EQ(first_region(), "r1,r2");
}

TEST_F(ProcessRegion, ARaiseLeavesTheOldOneOrTheNewOneAndNoLockHeld) {
    write("rgy_region.conf", "r1\nr2\n");
    auto set = [&] { registry_prop_set_process_default_region_local("mine"); };
    const int raises = sim::sweep_raises(world, set, [&](int) {
        EXPECT_EQ(velia::registry_clnt::rgy_prop_local_mutex.depth, 0u);
        EXPECT_EQ(first_region(), "mine,r2");
    });
    EXPECT_EQ(raises, 1);
}

} // namespace
