// Values of the host: which file, which line of it, and what a file is that is none.
#include <tests/unit/rvzd_knob/knob_fixture.h>

#include <csignal>
#include <cstring>

#include <sys/resource.h>

namespace {

class HostValues : public KnobTest {
protected:
    static constexpr char name[] = "fl_vault_notify_email"; // of notify_email

    tbs_status_t read(std::string &value, tbs_boolean_t &found, uint32_t id = notify_email) {
        char buffer[2048] = "";
        found = 99;
        const auto status = rvzd_knoblet_get_value_spelling(id, KNOBLET_HOST, nullptr, &found, sizeof buffer, buffer);
        value = buffer;
        return status;
    }
    std::string value_of(uint32_t id = notify_email) {
        std::string value;
        tbs_boolean_t found;
        EXPECT_EQ(read(value, found, id), TBS_ST_OK);
        return found != 0 ? value : "(none)";
    }
    tbs_status_t status_of_read() {
        std::string value;
        tbs_boolean_t found;
        const auto status = read(value, found);
        EXPECT_EQ(found, 0);
        return status;
    }
    static tbs_status_t write(const char *value) {
        return rvzd_knoblet_set_string(notify_email, KNOBLET_HOST, nullptr, value);
    }
};

TEST_F(HostValues, AMissingFileIsNoValue) {
    EXPECT_EQ(value_of(), "(none)");
    std::filesystem::remove_all(world.root() + "/host/config");
    EXPECT_EQ(value_of(), "(none)");
}

TEST_F(HostValues, TheFirstLineIsTheValueWithoutItsEnd) {
    write_host(name, "a b\n");
    EXPECT_EQ(value_of(), "a b");
    write_host(name, "no end");
    EXPECT_EQ(value_of(), "no end");
    write_host(name, "first\nsecond\n");
    EXPECT_EQ(value_of(), "first");
    write_host(name, "one end is taken\r\n\n");
    EXPECT_EQ(value_of(), "one end is taken\r");
    write_host(name, "\nsecond\n");
    EXPECT_EQ(value_of(), "");
}

TEST_F(HostValues, ALineThatIsTooLongCountsWithItsFirst1023Characters) {
    for (const size_t length : {1022u, 1023u, 1024u, 1025u, 5000u}) {
        write_host(name, std::string(length, 'x') + "\nsecond\n");
        EXPECT_EQ(value_of(), std::string(std::min<size_t>(length, 1023), 'x')) << length;
        write_host(name, std::string(length, 'x'));
        EXPECT_EQ(value_of(), std::string(std::min<size_t>(length, 1023), 'x')) << length;
    }
}

TEST_F(HostValues, AnEmptyFileIsAnErrorWithoutAWord) {
    write_host(name, "");
    EXPECT_EQ(status_of_read(), TBS_ST_ERROR);
    char buffer[64];
    EXPECT_EQ(rvzd_knob_get_string(notify_email, nullptr, sizeof buffer, buffer), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HostValues, WhatIsNoRegularFileIsAnErrorAndIsNeverWaitedFor) {
    using bad_files::Kind;
    for (const Kind kind :
         {Kind::pipe, Kind::written_pipe, Kind::endless_link, Kind::device, Kind::socket, Kind::directory}) {
        const bad_files::BadFile file(kind, host_path(name));
        EXPECT_EQ(status_of_read(), TBS_ST_ERROR) << static_cast<int>(kind);
        EXPECT_THAT(world.take_messages(),
                    ElementsAre(sim::told_by("rvzd/knob",
                                             message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 20,
                                                        host_path(name).c_str(), bad_files::words(kind, 0).c_str()))))
            << static_cast<int>(kind);
    }
}

TEST_F(HostValues, OfALargeFileOnlyTheFirstLineCounts) {
    const bad_files::BadFile file(bad_files::Kind::sparse, host_path(name));
    EXPECT_EQ(value_of(), "first line");
}

TEST_F(HostValues, ALinkLeadsToItsFile) {
    world.write_file("elsewhere", "linked\n");
    std::filesystem::create_symlink(world.root() + "/elsewhere", host_path(name));
    EXPECT_EQ(value_of(), "linked");
    EXPECT_EQ(write("through"), TBS_ST_OK);
    EXPECT_EQ(contents(world.root() + "/elsewhere"), "through\n");
    std::filesystem::remove(world.root() + "/elsewhere");
    EXPECT_EQ(value_of(), "(none)");
}

TEST_F(HostValues, AFileThatCannotBeOpenedIsAsNone) {
    write_host(name, "x\n");
    {
        const bad_files::WithoutRight file(host_path(name));
        EXPECT_EQ(value_of(), "(none)");
    }
    EXPECT_EQ(value_of(), "x");
}

TEST_F(HostValues, AnUnreadableDirectoryReadsTheDefault) {
    int32_t value = 99;
    EXPECT_EQ(rvzd_knob_get_integer(server_group_lifetime, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 0);
    write_host("server_group_lifetime", "30\n");
    const bad_files::WithoutRight directory(world.root() + "/host/config");
    value = 99;
    EXPECT_EQ(rvzd_knob_get_integer(server_group_lifetime, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 0);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HostValues, AWriteIsTheValueAndOneLineEnd) {
    EXPECT_EQ(write("a value"), TBS_ST_OK);
    EXPECT_EQ(contents(host_path(name)), "a value\n");
    EXPECT_EQ(write("b"), TBS_ST_OK);
    EXPECT_EQ(contents(host_path(name)), "b\n");
    EXPECT_EQ(write(""), TBS_ST_OK);
    EXPECT_EQ(contents(host_path(name)), "\n");
    EXPECT_EQ(value_of(), "");
}

TEST_F(HostValues, AWriteIsInPlace) {
    write_host(name, "x\n");
    struct stat before, after;
    ASSERT_EQ(stat(host_path(name).c_str(), &before), 0);
    EXPECT_EQ(write("y"), TBS_ST_OK);
    ASSERT_EQ(stat(host_path(name).c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(HostValues, AnUnsetRemovesTheFile) {
    write_host(name, "x\n");
    EXPECT_EQ(rvzd_knoblet_unset_value(notify_email, KNOBLET_HOST, nullptr), TBS_ST_OK);
    EXPECT_EQ(contents(host_path(name)), std::nullopt);
    EXPECT_EQ(value_of(), "(none)");
}

TEST_F(HostValues, AnUnsetOfWhatIsNotSetIsTheStatusOfAMissingFile) {
    EXPECT_EQ(rvzd_knoblet_unset_value(notify_email, KNOBLET_HOST, nullptr), tbs_errno2status(ENOENT));
    EXPECT_NE(tbs_errno2status(ENOENT), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HostValues, AFailedOpenIsTheStatusOfItsErrno) {
    std::filesystem::remove_all(world.root() + "/host/config");
    EXPECT_EQ(write("x"), tbs_errno2status(ENOENT));
    EXPECT_FALSE(std::filesystem::exists(world.root() + "/host/config"));
    const bad_files::BadFile file(bad_files::Kind::directory, host_path(name));
    EXPECT_EQ(write("x"), tbs_errno2status(EISDIR));
}

TEST_F(HostValues, WhatIsNoRegularFileIsNotWritten) {
    using bad_files::Kind;
    for (const Kind kind : {Kind::pipe, Kind::written_pipe, Kind::endless_link, Kind::device, Kind::socket}) {
        const bad_files::BadFile file(kind, host_path(name));
        EXPECT_NE(write("x"), TBS_ST_OK) << static_cast<int>(kind);
    }
}

// The disk is full: the system lets the file grow to so many bytes only.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &before_);
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }

private:
    rlimit before_;
};

TEST_F(HostValues, AWriteThatFailsOrIsCutOffIsTold) {
    for (const rlim_t bytes : {0, 2, 5}) {
        write_host(name, "old\n");
        tbs_status_t status;
        {
            const FileSizeLimit limit(bytes);
            status = write("value");
        }
        EXPECT_EQ(status, tbs_errno2status(EFBIG)) << bytes;
        EXPECT_EQ(contents(host_path(name)), std::string("value\n").substr(0, bytes)) << bytes;
    }
}

TEST_F(HostValues, ReadsAndWritesLeaveNoDescriptorOpen) {
    const size_t before = bad_files::open_descriptors();
    EXPECT_EQ(write("x"), TBS_ST_OK);
    EXPECT_EQ(value_of(), "x");
    const FileSizeLimit limit(0);
    EXPECT_NE(write("y"), TBS_ST_OK);
    EXPECT_EQ(status_of_read(), TBS_ST_ERROR);
    EXPECT_EQ(bad_files::open_descriptors(), before);
}

TEST_F(HostValues, SettingsOfTheFileSystemHaveTheirFilesInTheDataDirectory) {
    EXPECT_EQ(rvzd_knoblet_set_integer(lyfs_mnmax, KNOBLET_HOST, nullptr, 5), TBS_ST_OK);
    EXPECT_EQ(contents(world.root() + "/host/data/lyfsconfig/lyfs_mnmax"), "5\n");
    EXPECT_EQ(value_of(lyfs_mnmax), "5");
    EXPECT_EQ(rvzd_knoblet_unset_value(lyfs_mnmax, KNOBLET_HOST, nullptr), TBS_ST_OK);
    EXPECT_EQ(value_of(lyfs_mnmax), "(none)");
}

TEST_F(HostValues, AHostWithADirectoryOfItsOwnHasThemThere) {
    world.write_file("host/data/lyfsconfig/lyfs_mnmax", "1\n");
    world.write_file("host/data/lyfsconfig/mine/lyfs_mnmax", "2\n");
    EXPECT_EQ(value_of(lyfs_mnmax), "1");
    setenv("VELIA_LYFS_CONFIG", "mine", 1);
    EXPECT_EQ(value_of(lyfs_mnmax), "2");
    char path[1024];
    EXPECT_EQ(rvzd_knoblet_origin(lyfs_mnmax, KNOBLET_HOST, nullptr, sizeof path, path), TBS_ST_OK);
    EXPECT_EQ(path, world.root() + "/host/data/lyfsconfig/mine/lyfs_mnmax");
    write_host(name, "here\n");
    EXPECT_EQ(value_of(), "here"); // of those alone
    row(notify_email).knoblets[KNOBLET_HOST].detail = "elsewhere";
    world.write_file(std::string("host/data/elsewhere/") + name, "there\n");
    EXPECT_EQ(value_of(), "there");
}

TEST_F(HostValues, APathThatDoesNotFitIsAFailureAndNoDefault) {
    setenv("VELIA_ROOT", ("/" + std::string(1100, 'd')).c_str(), 1);
    std::string value;
    tbs_boolean_t found;
    EXPECT_EQ(read(value, found), TBS_ST_NAME_TOO_LONG);
    EXPECT_EQ(read(value, found, lyfs_mnmax), TBS_ST_NAME_TOO_LONG);
    EXPECT_EQ(write("x"), TBS_ST_NAME_TOO_LONG);
    setenv("VELIA_ROOT", world.root().c_str(), 1);
    const std::string directory(4096, 'd');
    row(lyfs_mnmax).knoblets[KNOBLET_HOST].detail = directory.c_str();
    EXPECT_EQ(read(value, found, lyfs_mnmax), TBS_ST_NAME_TOO_LONG);
}

TEST_F(HostValues, TheInstallationsDefaultTakesTheHostsValueAway) {
    write_host(name, "x\n");
    EXPECT_EQ(adm_host_knoblet_set_install_default(notify_email, nullptr), TBS_ST_OK);
    EXPECT_EQ(contents(host_path(name)), std::nullopt);
    EXPECT_EQ(adm_host_knoblet_set_install_default(notify_email, nullptr), tbs_errno2status(ENOENT));
}

TEST_F(HostValues, TheInstallationHasNoDefaultsOfItsOwn) {
    int32_t value = 99;
    for (const uint32_t id : {0u, 1u, 49u, 58u}) {
        EXPECT_EQ(adm_host_knoblet_get_install_default_boolean(id, nullptr, &value), TBS_ST_NOT_FOUND);
        EXPECT_EQ(adm_host_knoblet_get_install_default_integer(id, "x", &value), TBS_ST_NOT_FOUND);
    }
    EXPECT_EQ(value, 99);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(HostValues, AFailedAllocationIsToldAndLeaksNothing) {
    write_host(name, "x\n");
    EXPECT_EQ(value_of(), "x");
    const auto before = sim::Holdings::now(world);
    world.fail_allocation(1);
    EXPECT_EQ(status_of_read(), TBS_ST_NO_MEMORY);
    world.fail_allocation(0);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

} // namespace
