#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/ivlthread.h>
#include <support/pfm.h>

TEST(Mutex, ZeroedIsReadyAndReentrant) {
    static ivlthread_mutex_t mutex;
    ivlthread_mutex_lock(&mutex);
    ivlthread_mutex_lock(&mutex);
    ivlthread_mutex_unlock(&mutex);
    std::atomic<bool> entered{false};
    std::thread other([&] {
        ivlthread_mutex_lock(&mutex);
        entered = true;
        ivlthread_mutex_unlock(&mutex);
    });
    EXPECT_FALSE(entered);
    ivlthread_mutex_unlock(&mutex);
    other.join();
    EXPECT_TRUE(entered);
}

TEST(Mutex, KeepsThreadsApart) {
    static ivlthread_mutex_t mutex;
    long count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int turn = 0; turn < 5000; ++turn) {
                ivlthread_mutex_lock(&mutex);
                ivlthread_mutex_lock(&mutex);
                ++count;
                ivlthread_mutex_unlock(&mutex);
                ivlthread_mutex_unlock(&mutex);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(count, 20000);
}

TEST(Mutex, IsTriedWithoutWaitingForAnotherThread) {
    static ivlthread_mutex_t mutex;
    EXPECT_EQ(ivlthread_mutex_trylock(&mutex), 1);
    EXPECT_EQ(ivlthread_mutex_trylock(&mutex), 1); // again, by its holder
    const auto from_another_thread = [] {
        int is_taken = -1;
        std::thread([&] {
            is_taken = ivlthread_mutex_trylock(&mutex);
            if (is_taken != 0)
                ivlthread_mutex_unlock(&mutex);
        }).join();
        return is_taken;
    };
    EXPECT_EQ(from_another_thread(), 0);
    ivlthread_mutex_unlock(&mutex);
    EXPECT_EQ(from_another_thread(), 0);
    ivlthread_mutex_unlock(&mutex);
    EXPECT_EQ(from_another_thread(), 1);
}

TEST(MutexDeathTest, UnlockingWhatIsNotHeldIsAFailedAssertion) {
    static ivlthread_mutex_t mutex;
    EXPECT_EXIT(ivlthread_mutex_unlock(&mutex), testing::KilledBySignal(SIGABRT), "held by the calling thread");
}

TEST(Once, RunsItsFunctionOnceForAllThreads) {
    ivlthread_once_t control = {};
    static std::atomic<int> runs;
    runs = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] { ivlthread_once(&control, [] { return ++runs, 0; }); });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(runs, 1);
}

TEST(Once, AFunctionLeftByARaiseHasNotRun) {
    ivlthread_once_t control = {};
    static int runs;
    runs = 0;
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (!pfm_cleanup_start(&frame, 0)) {
        ivlthread_once(&control, [] {
            ++runs;
            pfm_raise(3);
            return 0;
        });
        FAIL() << "the raise did not land";
    }
    EXPECT_EQ(frame.code, 3);
    ivlthread_once(&control, [] { return ++runs; });
    EXPECT_EQ(runs, 2);
}

TEST(Key, EachThreadHasItsValueAndItsDestructorRuns) {
    static std::atomic<int> destroyed;
    destroyed = 0;
    ivlthread_key_t key = 0;
    ASSERT_EQ(ivlthread_key_create(&key, [](void *) { ++destroyed; }), 0);
    EXPECT_NE(key, 0u);
    int mine = 1;
    EXPECT_EQ(ivlthread_get_tls(key), nullptr);
    EXPECT_EQ(ivlthread_set_tls(key, &mine), 0);
    std::thread([&] {
        int other = 2;
        EXPECT_EQ(ivlthread_get_tls(key), nullptr);
        EXPECT_EQ(ivlthread_set_tls(key, &other), 0);
        EXPECT_EQ(ivlthread_get_tls(key), &other);
    }).join();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(ivlthread_get_tls(key), &mine);
    ivlthread_set_tls(key, nullptr);
}

TEST(Key, NoKeyHasNoValue) {
    int value = 0;
    EXPECT_EQ(ivlthread_get_tls(0), nullptr);
    EXPECT_NE(ivlthread_set_tls(0, &value), 0);
}

TEST(ThreadStorage, IsZeroed) {
    auto *bytes = static_cast<unsigned char *>(ivlthread_alloc_tls(1000));
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(bytes[i], 0);
    ivlthread_free_tls(bytes);
    ivlthread_free_tls(nullptr);
}
