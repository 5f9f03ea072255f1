// The same work on many things at once.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <system_error>
#include <thread>
#include <vector>

namespace velia::cli {

// Calls `work` once for each index below `count`, on as many threads as there are indices, but `threads_max`. The works
// share nothing but what they lock themselves. Where the system gives fewer threads, those that run do it all, with the
// caller's own. When it returns all are done.
inline void for_each_at_once(size_t count, size_t threads_max, const std::function<void(size_t)> &work) {
    std::atomic<size_t> next = 0;
    const auto run = [&] {
        for (size_t index = next++; index < count; index = next++)
            work(index);
    };
    std::vector<std::jthread> threads;
    try {
        for (size_t i = 0; i < std::min(count, threads_max); ++i)
            threads.emplace_back(run);
    } catch (const std::system_error &) {
        run();
    }
}

} // namespace velia::cli
