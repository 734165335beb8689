#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "controller/SpinThenBlockMutex.h"

namespace android {
namespace {

// Threads that take the lock for a moment each, over and over, lose no update
// to a plain counter: both the polling and the sleeping path exclude.
TEST(SpinThenBlockMutexTest, excludesWhetherItPollsOrSleeps) {
    SpinThenBlockMutex mutex;
    long counter = 0;
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                std::lock_guard lock(mutex);
                ++counter;
                if (t == 0 && i % 1000 == 0) {
                    // Held past every poll: the others must sleep and wake.
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, long{kThreads} * kRounds);

    // try_lock fails while the lock is held elsewhere and succeeds after.
    mutex.lock();
    bool taken = true;
    std::thread([&] { taken = mutex.try_lock(); }).join();
    EXPECT_FALSE(taken);
    mutex.unlock();
    taken = false;
    std::thread([&] {
        if (mutex.try_lock()) {
            taken = true;
            mutex.unlock();
        }
    }).join();
    EXPECT_TRUE(taken);
}

} // namespace
} // namespace android
