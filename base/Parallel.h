// The same work for many, some of them at the same time.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <thread>
#include <vector>

// How often who waits for many is told how far they are.
constexpr std::chrono::milliseconds kTellInterval{100};

// Calls work(0) to work(count - 1) on up to `threads` threads, and returns when all are done.
// Throws std::system_error when there is no thread to be had.
//   work: lets no exception out.
//   tell: is told on this thread, about ten times a second, how many are done.
template <class Work>
void ForEach(size_t count, size_t threads, const Work& work,
             const std::function<void(size_t done)>& tell) {
    std::atomic<size_t> next = 0;
    std::atomic<size_t> done = 0;
    auto all = std::async(std::launch::async, [&] {
        std::vector<std::jthread> pool;
        for (size_t i = 0; i < std::min(threads, count); ++i) {
            pool.emplace_back([&] {
                for (size_t at = 0; (at = next++) < count; ++done) {
                    work(at);
                }
            });
        }
    });
    while (all.wait_for(kTellInterval) != std::future_status::ready) {
        tell(done);
    }
    all.get();
}
