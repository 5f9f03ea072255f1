#include <veliaxdr/tls_impl.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/imsg.h>
#include <tests/sim/noted.h>
#include <tests/sim/world.h>

TEST(PerThreadBlock, IsNotInitializedBeforeTheFirstCall) {
    sim::World world;
    EXPECT_EQ(rvzd_initialized(), 0);
}

TEST(PerThreadBlock, AnyThreadsFirstCallInitializesForAll) {
    sim::World world;
    std::thread([] { rvzd_tls_get(); }).join();
    EXPECT_EQ(rvzd_initialized(), 1);
}

TEST(PerThreadBlock, OneThreadGetsTheSameBlockAtEachCall) {
    sim::World world;
    rvzd_tls_t *block = rvzd_tls_get();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(rvzd_tls_get(), block);
}

TEST(PerThreadBlock, TwoThreadsGetDifferentBlocksAndStrings) {
    sim::World world;
    rvzd_tls_t *mine = rvzd_tls_get();
    strcpy(mine->registry_host, "mine");
    rvzd_tls_t *other = nullptr;
    std::string seen = "unset";
    std::thread([&] {
        other = rvzd_tls_get();
        seen = other->registry_host;
        strcpy(other->registry_host, "other");
    }).join();
    EXPECT_NE(other, mine);
    EXPECT_EQ(seen, "");
    EXPECT_STREQ(mine->registry_host, "mine");
}

TEST(PerThreadBlock, NewBlocksAreZeroed) {
    sim::World world;
    sim::noted().soils_thread_blocks = true;
    const rvzd_tls_t zeroed = {};
    EXPECT_EQ(memcmp(rvzd_tls_get(), &zeroed, sizeof zeroed), 0);
}

TEST(PerThreadBlock, ThatCannotBeKeptEndsTheProcess) {
    sim::World world;
    sim::noted().keeps_no_thread_values = true;
    const auto first_call = [] {
        imsg_set_sink(nullptr, nullptr); // what is printed at such an end goes to the standard error again
        rvzd_tls_get();
    };
    EXPECT_DEATH(first_call(), "tls_impl");
}

TEST(PerThreadBlock, EndsWithItsThread) {
    sim::World world;
    const int before = sim::thread_blocks();
    int during = 0;
    std::thread([&] {
        rvzd_tls_get();
        during = sim::thread_blocks();
    }).join();
    EXPECT_EQ(during, before + 1);
    EXPECT_EQ(sim::thread_blocks(), before);
}

TEST(PerThreadBlock, ConcurrentFirstCallsEachGetTheirOwn) {
    sim::World world;
    constexpr size_t count = 16;
    rvzd_tls_t *blocks[count] = {};
    std::vector<std::thread> threads;
    std::atomic<size_t> waiting = 0;
    std::atomic<size_t> done = 0;
    for (size_t i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            ++waiting;
            while (waiting < count)
                std::this_thread::yield();
            blocks[i] = rvzd_tls_get();
            // A thread that ends gives its block back, so all stay until all have one.
            ++done;
            while (done < count)
                std::this_thread::yield();
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(std::set<rvzd_tls_t *>(blocks, blocks + count).size(), count);
}
