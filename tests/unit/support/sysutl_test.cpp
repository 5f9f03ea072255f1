// This host's name, descriptors, and the uniquifier of connections.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <support/sysutl.h>

#include "test_site.h"

namespace {

class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe(ends_), 0); }
    ~Pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    int reader() const { return ends_[0]; }

private:
    int ends_[2] = {-1, -1};
};

std::string machine_name() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

} // namespace

TEST(HostName, IsTheSystems) {
    ScopedEnv env("VELIA_HOSTNAME", nullptr);
    EXPECT_EQ(sysutl_myhostname(), machine_name());
}

TEST(HostName, IsWhatVeliaHostnameSays) {
    ScopedEnv env("VELIA_HOSTNAME", "beta");
    EXPECT_STREQ(sysutl_myhostname(), "beta");
}

TEST(HostName, IsTheSystemsWhereVeliaHostnameIsEmptyOrTooLong) {
    ScopedEnv empty("VELIA_HOSTNAME", "");
    EXPECT_EQ(sysutl_myhostname(), machine_name());
    ScopedEnv too_long("VELIA_HOSTNAME", std::string(300, 'x').c_str());
    EXPECT_EQ(sysutl_myhostname(), machine_name());
}

TEST(HostName, LivesUntilTheSameThreadAsksAgain) {
    ScopedEnv env("VELIA_HOSTNAME", "beta");
    const char *mine = sysutl_myhostname();
    std::thread([] { EXPECT_STREQ(sysutl_myhostname(), "beta"); }).join();
    EXPECT_STREQ(mine, "beta");
}

TEST(Descriptor, CloseOnExecIsSetAndCleared) {
    const Pipe pipe;
    EXPECT_EQ(sysutl_set_cloexec_file(pipe.reader(), 1), 0);
    EXPECT_EQ(fcntl(pipe.reader(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(sysutl_set_cloexec_file(pipe.reader(), 1), 0);
    EXPECT_EQ(fcntl(pipe.reader(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(sysutl_set_cloexec_file(pipe.reader(), 0), 0);
    EXPECT_EQ(fcntl(pipe.reader(), F_GETFD), 0);
}

TEST(Descriptor, CloseOnExecOfAClosedOneFails) {
    errno = 0;
    EXPECT_EQ(sysutl_set_cloexec_file(-1, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Descriptor, NonBlockingModeIsSetAndClearedAndOtherFlagsStay) {
    const int descriptor = open("/dev/null", O_WRONLY | O_APPEND);
    EXPECT_EQ(sysutl_set_socket_nonblocking(descriptor, 1), TBS_ST_OK);
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & (O_NONBLOCK | O_APPEND), O_NONBLOCK | O_APPEND);
    EXPECT_EQ(sysutl_set_socket_nonblocking(descriptor, 0), TBS_ST_OK);
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & (O_NONBLOCK | O_APPEND), O_APPEND);
    close(descriptor);
}

TEST(Descriptor, NonBlockingModeOfAClosedOneIsTheStatusOfTheFailure) {
    EXPECT_EQ(sysutl_set_socket_nonblocking(-1, 1), tbs_errno2status(EBADF));
    EXPECT_NE(tbs_errno2status(EBADF), TBS_ST_OK);
}

TEST(Uniquifier, DiffersBetweenAnyTwoConnectionsOfAllThreads) {
    constexpr size_t thread_count = 4;
    constexpr size_t value_count = 2000;
    std::vector<std::vector<uint64_t>> values(thread_count);
    std::vector<std::thread> threads;
    for (auto &mine : values) {
        threads.emplace_back([&mine] {
            for (size_t i = 0; i < value_count; ++i)
                mine.push_back(sysutl_sock_port_uniquifier());
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    std::set<uint64_t> all;
    for (const auto &mine : values)
        all.insert(mine.begin(), mine.end());
    EXPECT_EQ(all.size(), thread_count * value_count);
}

TEST(DescriptorSet, CountsThoseBelowTheBound) {
    fd_set set;
    FD_ZERO(&set);
    for (const int descriptor : {0, 5, 63, 64, 65, 1023})
        FD_SET(descriptor, &set);
    EXPECT_EQ(sysutl_fd_set_popcount(&set, 0), 0);
    EXPECT_EQ(sysutl_fd_set_popcount(&set, 1), 1);
    EXPECT_EQ(sysutl_fd_set_popcount(&set, 63), 2);
    EXPECT_EQ(sysutl_fd_set_popcount(&set, 64), 3);
    EXPECT_EQ(sysutl_fd_set_popcount(&set, 65), 4);
    EXPECT_EQ(sysutl_fd_set_popcount(&set, 1023), 5);
    EXPECT_EQ(sysutl_fd_set_popcount(&set, 1024), 6);
}

TEST(DescriptorSet, MayBeLargerThanTheSystemsOwn) {
    std::vector<unsigned long> words(16384 / (8 * sizeof(unsigned long)));
    words.front() = 1;
    words.back() = 1UL << 63;
    EXPECT_EQ(sysutl_fd_set_popcount(words.data(), 16384), 2);
    EXPECT_EQ(sysutl_fd_set_popcount(words.data(), 16383), 1);
}

TEST(Flush, WritesWhatTheStreamHoldsBack) {
    TestSite site;
    const std::string path = site.write("file", "");
    FILE *stream = fopen(path.c_str(), "w");
    ASSERT_NE(stream, nullptr);
    fputs("held back", stream);
    EXPECT_EQ(sysutl_fsync_fptr(stream), 0);
    EXPECT_EQ(site.read("file"), "held back");
    fclose(stream);
}

TEST(Flush, OfAFullDeviceFails) {
    FILE *stream = fopen("/dev/full", "w");
    ASSERT_NE(stream, nullptr);
    fputs("held back", stream);
    errno = 0;
    EXPECT_EQ(sysutl_fsync_fptr(stream), -1);
    EXPECT_EQ(errno, ENOSPC);
    fclose(stream);
}
