#include "support/FakeClock.h"

#include <time.h>

#include <atomic>

#include <utils/Timers.h>

namespace android::test {
namespace {

std::atomic<bool> sFake{false};
std::atomic<int64_t> sNow{0};

} // namespace

FakeClock::FakeClock(int64_t start) {
    sNow = start;
    sFake = true;
}

FakeClock::~FakeClock() {
    sFake = false;
}

void FakeClock::set(int64_t now) {
    sNow = now;
}

void FakeClock::advance(int64_t delta) {
    sNow += delta;
}

int64_t FakeClock::now() const {
    return sNow;
}

} // namespace android::test

nsecs_t systemTime(int clock) {
    if (clock == SYSTEM_TIME_MONOTONIC && android::test::sFake) {
        return android::test::sNow;
    }
    static constexpr clockid_t kClocks[] = {CLOCK_REALTIME, CLOCK_MONOTONIC,
                                            CLOCK_PROCESS_CPUTIME_ID, CLOCK_THREAD_CPUTIME_ID,
                                            CLOCK_BOOTTIME};
    timespec ts{};
    clock_gettime(kClocks[clock >= 0 && clock <= 4 ? clock : 1], &ts);
    return static_cast<nsecs_t>(ts.tv_sec) * 1'000'000'000LL + ts.tv_nsec;
}
