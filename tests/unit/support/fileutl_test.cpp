// Files, and the host parts of names.
#include <gtest/gtest.h>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

#include <support/fileutl.h>
#include <support/tbs.h>

#include <tests/bad_files.h>

#include "message_recorder.h"
#include "test_site.h"

namespace {

std::string machine_name() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

struct HostPart {
    int result;
    std::string host;

    bool operator==(const HostPart &) const = default;
};

HostPart host_part(const char *path) {
    char buffer[FILEUTL_HOST_SIZE] = "untouched";
    const int result = fileutl_path_host(path, buffer, sizeof buffer);
    return {result != 0, buffer};
}

PrintedMessage failed(const char *operation, const char *error) {
    return {IMSG_ERROR, _tbs_cmsg_tbs_msg_table.subsystem_name, &_tbs_cmsg_tbs_msg_table, 46, [&] {
                char text[200];
                imsg_sprintf(text, &_tbs_cmsg_tbs_msg_table, 46, operation, error);
                return std::string(text);
            }()};
}

size_t files_in(const std::string &directory) {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(directory))
        ++count;
    return count;
}

} // namespace

TEST(ThisHost, IsLocalhostItsNameAndTheLoopbackAddresses) {
    TestSite site;
    ScopedEnv env("VELIA_HOSTNAME", nullptr);
    for (const std::string &host :
         {std::string("localhost"), std::string("LocalHost"), machine_name(), std::string("127.0.0.1"),
          std::string("127.3.2.1"), std::string("::1"), std::string("::ffff:127.0.0.1")})
        EXPECT_NE(fileutl_is_localhost(host.c_str()), 0) << host;
}

TEST(ThisHost, HasItsNameWithOrWithoutTheDomain) {
    TestSite site;
    ScopedEnv env("VELIA_HOSTNAME", nullptr);
    const std::string name = machine_name();
    const std::string bare = name.substr(0, name.find('.'));
    EXPECT_NE(fileutl_is_localhost(bare.c_str()), 0);
    if (bare == name) {
        EXPECT_NE(fileutl_is_localhost((name + ".example.com").c_str()), 0);
    }
    EXPECT_EQ(fileutl_is_localhost((name + "x").c_str()), 0);
}

TEST(ThisHost, IsNoOtherNameAndNoOtherAddress) {
    TestSite site;
    ScopedEnv env("VELIA_HOSTNAME", nullptr);
    for (const char *host : {"", "pluto.invalid", "10.1.2.3", "::2", "127.0.0.1.2"})
        EXPECT_EQ(fileutl_is_localhost(host), 0) << host;
    EXPECT_EQ(fileutl_is_localhost(nullptr), 0);
}

TEST(ThisHost, IsTheOneThatVeliaHostnameNames) {
    TestSite site;
    site.write("config/hosts.conf", "alpha 127.0.0.11\nbeta 127.0.0.12 ::1\n");
    ScopedEnv env("VELIA_HOSTNAME", "beta");
    for (const char *host : {"beta", "BETA", "localhost", "127.0.0.12", "::1"})
        EXPECT_NE(fileutl_is_localhost(host), 0) << host;
    for (const char *host : {"alpha", "127.0.0.11", "127.0.0.1"})
        EXPECT_EQ(fileutl_is_localhost(host), 0) << host;
}

TEST(ThisHost, HasTheMachinesOwnNameAsAnAlias) {
    TestSite site;
    site.write("config/hosts.conf", "beta 127.0.0.12\n");
    ScopedEnv env("VELIA_HOSTNAME", "beta");
    EXPECT_NE(fileutl_is_localhost(machine_name().c_str()), 0);
    EXPECT_NE(fileutl_hosts_equal("beta", machine_name().c_str()), 0);
}

TEST(SameHost, ComparesWithoutCaseAndKnowsTheNamesOfThisHost) {
    TestSite site;
    ScopedEnv env("VELIA_HOSTNAME", nullptr);
    EXPECT_NE(fileutl_hosts_equal("pluto.invalid", "PLUTO.invalid"), 0);
    EXPECT_NE(fileutl_hosts_equal("localhost", machine_name().c_str()), 0);
    EXPECT_NE(fileutl_hosts_equal("127.0.0.1", "localhost"), 0);
    EXPECT_EQ(fileutl_hosts_equal("pluto.invalid", "venus.invalid"), 0);
    EXPECT_EQ(fileutl_hosts_equal("pluto.invalid", "localhost"), 0);
    EXPECT_EQ(fileutl_hosts_equal(nullptr, "localhost"), 0);
    EXPECT_EQ(fileutl_hosts_equal("localhost", nullptr), 0);
}

TEST(PathHost, IsTakenFromTheThreeFormsOfAGlobalPath) {
    EXPECT_EQ(host_part("/net/pluto/vobs/src"), (HostPart{0, "pluto"}));
    EXPECT_EQ(host_part("/net/pluto"), (HostPart{0, "pluto"}));
    EXPECT_EQ(host_part("//pluto/share/src"), (HostPart{0, "pluto"}));
    EXPECT_EQ(host_part("pluto:/vobs/src"), (HostPart{0, "pluto"}));
}

TEST(PathHost, IsMissingFromOtherPaths) {
    for (const char *path : {"/vobs/src", "relative", "", "/net/", "//", ":/vobs", "pluto:vobs", "a/pluto:/vobs"})
        EXPECT_EQ(host_part(path), (HostPart{1, ""})) << path;
    EXPECT_EQ(host_part(nullptr), (HostPart{1, ""}));
}

TEST(PathHost, MustFitItsBuffer) {
    EXPECT_EQ(host_part(("/net/" + std::string(63, 'h') + "/x").c_str()), (HostPart{0, std::string(63, 'h')}));
    EXPECT_EQ(host_part(("/net/" + std::string(64, 'h') + "/x").c_str()), (HostPart{1, ""}));
    char none = 'x';
    EXPECT_NE(fileutl_path_host("/net/pluto/x", &none, 0), 0);
    EXPECT_EQ(none, 'x');
}

TEST(PathName, IsEqualByBytes) {
    EXPECT_NE(fileutl_pname_equal("/a/b", "/a/b"), 0);
    EXPECT_EQ(fileutl_pname_equal("/a/b", "/a/B"), 0);
    EXPECT_EQ(fileutl_pname_equal("/a/b", "/a/b/"), 0);
}

TEST(File, ExistsThroughASymbolicLink) {
    TestSite site;
    const std::string file = site.write("file", "");
    ASSERT_EQ(symlink(file.c_str(), site.path("good").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", site.path("bad").c_str()), 0);
    EXPECT_NE(fileutl_exists(file.c_str(), 0), 0);
    EXPECT_NE(fileutl_exists(site.path("good").c_str(), 0), 0);
    EXPECT_EQ(fileutl_exists(site.path("bad").c_str(), 0), 0);
    EXPECT_EQ(fileutl_exists(site.path("none").c_str(), 0), 0);
}

TEST(File, IsLookedAtThroughASymbolicLinkOrNot) {
    TestSite site;
    site.write("file", "five.");
    ASSERT_EQ(symlink("file", site.path("link").c_str()), 0);
    struct stat status;
    EXPECT_EQ(fileutl_stat(site.path("link").c_str(), 1, &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_size, 5);
    EXPECT_EQ(fileutl_stat(site.path("link").c_str(), 0, &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    errno = 0;
    EXPECT_EQ(fileutl_stat(site.path("none").c_str(), 1, &status), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(File, IsRenamedOverAnother) {
    TestSite site;
    site.write("new", "new");
    site.write("old", "old");
    EXPECT_EQ(fileutl_rename(site.path("new").c_str(), site.path("old").c_str()), 0);
    EXPECT_EQ(site.read("old"), "new");
    EXPECT_EQ(fileutl_exists(site.path("new").c_str(), 0), 0);
    EXPECT_EQ(fileutl_rename(site.path("new").c_str(), site.path("old").c_str()), ENOENT);
    EXPECT_EQ(errno, ENOENT);
}

TEST(File, CopyHasTheContentsAndThePermissions) {
    TestSite site;
    std::string contents;
    for (int i = 0; i < 200'000; ++i)
        contents += static_cast<char>(i * 7);
    site.write("from", contents);
    chmod(site.path("from").c_str(), 0640);
    site.write("to", "before");
    EXPECT_EQ(fileutl_cp(site.path("from").c_str(), site.path("to").c_str(), 0), 0);
    EXPECT_EQ(site.read("to"), contents);
    struct stat status;
    fileutl_stat(site.path("to").c_str(), 1, &status);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(files_in(site.path("")), 2u);
}

TEST(File, FailedCopyLeavesTheTargetAndNothingElse) {
    TestSite site;
    site.write("to", "before");
    std::filesystem::create_directory(site.path("directory"));
    EXPECT_EQ(fileutl_cp(site.path("none").c_str(), site.path("to").c_str(), FILEUTL_QUIET), ENOENT);
    EXPECT_EQ(fileutl_cp(site.path("directory").c_str(), site.path("to").c_str(), FILEUTL_QUIET), EINVAL);
    EXPECT_EQ(fileutl_cp(site.path("to").c_str(), site.path("directory").c_str(), FILEUTL_QUIET), EISDIR);
    EXPECT_EQ(site.read("to"), "before");
    EXPECT_EQ(files_in(site.path("")), 2u);
    EXPECT_EQ(fileutl_cp(site.path("to").c_str(), std::string(5000, 'x').c_str(), FILEUTL_QUIET), ENAMETOOLONG);
}

TEST(File, CopyOfWhatIsNoFileOrTooLargeIsRefusedWithoutWaitingForIt) {
    TestSite site;
    MessageRecorder recorder;
    const std::string from = site.path("from");
    const std::string to = site.path("to");
    bad_files::for_each(from, FILEUTL_COPY_MAX, [&](const std::string &words) {
        const int error_number = words.starts_with("File is larger") ? EFBIG : EINVAL;
        EXPECT_EQ(fileutl_cp(from.c_str(), to.c_str(), FILEUTL_QUIET), error_number);
        EXPECT_EQ(recorder.messages.size(), 0u) << "as it was asked";
        EXPECT_EQ(fileutl_cp(from.c_str(), to.c_str(), 0), error_number);
        EXPECT_EQ(errno, error_number);
        ASSERT_EQ(recorder.messages.size(), 1u);
        EXPECT_EQ(recorder.messages[0].text, "Error reading from \"" + from + "\": " + words + ".\n");
        recorder.messages.clear();
        EXPECT_EQ(files_in(site.path("")), 1u);
    });
}

TEST(File, IsRemoved) {
    TestSite site;
    site.write("file", "");
    EXPECT_EQ(fileutl_rm(site.path("file").c_str(), 0), 0);
    EXPECT_EQ(fileutl_exists(site.path("file").c_str(), 0), 0);
}

TEST(File, FailedCopyOrRemovalIsToldUnlessQuiet) {
    TestSite site;
    MessageRecorder recorder;
    EXPECT_EQ(fileutl_rm(site.path("none").c_str(), FILEUTL_QUIET), ENOENT);
    EXPECT_EQ(recorder.messages, std::vector<PrintedMessage>{});
    EXPECT_EQ(fileutl_rm(site.path("none").c_str(), 0), ENOENT);
    EXPECT_EQ(fileutl_cp(site.path("none").c_str(), site.path("to").c_str(), 0), ENOENT);
    EXPECT_EQ(recorder.messages, (std::vector<PrintedMessage>{failed("remove", "No such file or directory"),
                                                              failed("copy", "No such file or directory")}));
}
