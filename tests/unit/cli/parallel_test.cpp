// The same work on many things, with and without threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>

#include <cli/parallel.h>

using testing::Each;
using velia::cli::for_each_at_once;

namespace {

std::vector<int> calls_of_each(size_t count, size_t threads_max) {
    std::vector<std::atomic<int>> calls(count);
    for_each_at_once(count, threads_max, [&](size_t i) { ++calls[i]; });
    return {calls.begin(), calls.end()};
}

} // namespace

TEST(ForEachAtOnce, DoesEachWorkOnce) {
    EXPECT_THAT(calls_of_each(100, 512), Each(1));
    EXPECT_THAT(calls_of_each(100, 3), Each(1));
}

TEST(ForEachAtOnce, WithoutThreadsTheCallerDoesItAll) {
    pthread_attr_t usual;
    pthread_attr_t impossible;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    ASSERT_EQ(pthread_attr_init(&impossible), 0);
    constexpr size_t more_than_any_memory = size_t{1} << 50;
    ASSERT_EQ(pthread_attr_setstacksize(&impossible, more_than_any_memory), 0);
    ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    EXPECT_THAT(calls_of_each(100, 512), Each(1));
    EXPECT_EQ(pthread_setattr_default_np(&usual), 0);
    pthread_attr_destroy(&impossible);
    pthread_attr_destroy(&usual);
}
