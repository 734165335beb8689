#include "tools/sim/SimClock.h"

#include <time.h>

#include <atomic>

#include <utils/Timers.h>

namespace android::tools::sim {
namespace {

std::atomic<int64_t> sNow{kVirtualBootOffset};

} // namespace

void setVirtualTime(int64_t now) {
    sNow.store(now);
}

int64_t virtualTime() {
    return sNow.load();
}

} // namespace android::tools::sim

// libutils' clock, replaced for the whole process: the monotonic clock is
// virtual, the other clocks are the machine's.
nsecs_t systemTime(int clock) {
    if (clock == SYSTEM_TIME_MONOTONIC) {
        return android::tools::sim::virtualTime();
    }
    static constexpr clockid_t kClocks[] = {CLOCK_REALTIME, CLOCK_MONOTONIC,
                                            CLOCK_PROCESS_CPUTIME_ID, CLOCK_THREAD_CPUTIME_ID,
                                            CLOCK_BOOTTIME};
    timespec ts{};
    clock_gettime(kClocks[clock >= 0 && clock <= 4 ? clock : 1], &ts);
    return static_cast<nsecs_t>(ts.tv_sec) * 1'000'000'000LL + ts.tv_nsec;
}
