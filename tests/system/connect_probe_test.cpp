// The probe from many threads at once, on the machine's own loopback.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <dirent.h>

#include <veliaxdr/rvzd_probe.h>

namespace {

constexpr int threads = 8;
constexpr int probes = 50;

// Descriptors of this process, the one of the listing among them.
long open_descriptors() {
    DIR *listing = opendir("/proc/self/fd");
    long count = 0;
    while (readdir(listing) != nullptr)
        ++count;
    closedir(listing);
    return count;
}

} // namespace

TEST(ProbeByThreads, AllFindTheSameAndLeaveNoSocketOpen) {
    const int alone = rvzd_nonblock_connect_ping("127.0.0.1");
    const long before = open_descriptors();
    std::vector<int> found(threads);
    std::vector<std::thread> running;
    for (int &count : found)
        running.emplace_back([&count] {
            for (int i = 0; i < probes; ++i)
                count += rvzd_nonblock_connect_ping("127.0.0.1");
        });
    for (auto &thread : running)
        thread.join();
    EXPECT_EQ(found, std::vector<int>(threads, alone * probes));
    EXPECT_EQ(open_descriptors(), before);
}
