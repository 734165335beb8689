#pragma once

#include <atomic>
#include <chrono>
#include <mutex>

#include <android-base/thread_annotations.h>

namespace android {

// A mutex whose lock() first retries for a short while before it sleeps.
//
// The registry lock is held for under a microsecond by a registration or a
// destroy, but a compositor that finds it taken would otherwise sleep in the
// kernel, and being woken again costs tens of microseconds, several times
// what a whole composition takes. A holder that is preempted costs a waiter
// the bounded poll, then the waiter sleeps as on a plain mutex.
class CAPABILITY("mutex") SpinThenBlockMutex {
public:
    // How long lock() polls before it sleeps: longer than a registration, a
    // destroy, a dump's chunk or a reload's copy and swap (about 4 us) holds the lock, and
    // shorter than a sleep and a wake-up (30-40 us on a busy virtual machine).
    static constexpr std::chrono::microseconds kSpinTime{10};

    // Takes the lock; polls it for up to kSpinTime, then blocks.
    void lock() ACQUIRE() {
        if (tryLockIfFree()) {
            return;
        }
        // The clock is read once per few polls: a poll is tens of nanoseconds.
        constexpr int kPollsPerClockRead = 16;
        const auto deadline = std::chrono::steady_clock::now() + kSpinTime;
        do {
            for (int i = 0; i < kPollsPerClockRead; ++i) {
                relax();
                if (tryLockIfFree()) {
                    return;
                }
            }
        } while (std::chrono::steady_clock::now() < deadline);
        mMutex.lock();
        mHeld.store(true, std::memory_order_relaxed);
    }
    // Takes the lock if it is free; never waits.
    bool try_lock() TRY_ACQUIRE(true) {
        if (!mMutex.try_lock()) {
            return false;
        }
        mHeld.store(true, std::memory_order_relaxed);
        return true;
    }
    // Releases the lock.
    void unlock() RELEASE() {
        mHeld.store(false, std::memory_order_relaxed);
        mMutex.unlock();
    }

private:
    // Reads the hint first, so that pollers share the cache line instead of
    // taking it from the holder on every poll.
    bool tryLockIfFree() TRY_ACQUIRE(true) {
        return !mHeld.load(std::memory_order_relaxed) && try_lock();
    }

    // Tells the core this is a spin-wait, so it yields to a sibling hardware
    // thread and does not flood the lock's cache line.
    static void relax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
        asm volatile("yield" ::: "memory");
#endif
    }

    std::mutex mMutex;
    // Whether mMutex is held: a hint for the polls only; mMutex alone orders
    // what the lock guards.
    std::atomic<bool> mHeld{false};
};

} // namespace android
