#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <ostream>
#include <vector>

#include <android-base/thread_annotations.h>

#include "trace/PeltoTracedOrdinal.h"

namespace android {

// The active target layer's queue-to-queue (Q2Q) pace: the durations between
// its buffers in a ring that spans about half a second of vsyncs, their
// average once five are in, and that average as a rate on the counter
// "Pelto2-Q2QFps". Safe from several threads: every call takes mQ2QMutex.
class PeltoQ2QRing {
public:
    using GetPeriod = std::function<long()>;

    PeltoQ2QRing();

    // Empties the ring and sizes it for `period`.
    void reset(int64_t period) EXCLUDES(mQ2QMutex);
    // Records a buffer of the active target queued at `now`. A buffer more
    // than kPausePeriods vsyncs after the last starts the measurement afresh,
    // sized for the period `getPeriod` returns; it is called with mQ2QMutex
    // released, since it is the host's code.
    void sample(int64_t now, const GetPeriod& getPeriod) EXCLUDES(mQ2QMutex);

    // The average duration, or 0 while fewer than five are in.
    int64_t avgPeriod() const EXCLUDES(mQ2QMutex);
    // Whether the pace is within 10 % of the period the ring was sized for,
    // or nothing has been queued since the last reset.
    bool keepsUpOrIdle() const EXCLUDES(mQ2QMutex);
    // Whether an average period keeps up with the display's `period`: at most
    // kKeepsUpFactor times as long.
    static bool keepsUp(int64_t period, int64_t avgPeriod);

    // The dump's four "Fps" lines, under one hold of the lock.
    void dump(std::ostream& os) const EXCLUDES(mQ2QMutex);

    // A buffer this many vsync periods after the last one starts afresh.
    static constexpr int64_t kPausePeriods = 10;
    // Durations needed before an average is reported.
    static constexpr size_t kMinDurationsForAverage = 5;
    // How much slower than the display the pace may be and still count as
    // keeping up with it.
    static constexpr double kKeepsUpFactor = 1.1;

    // Durations the ring holds for `period`: half the refresh rate, so about
    // half a second. 0 (nothing is kept) for periods of 0, below 0 or above
    // half a second.
    static uint64_t capacityFor(int64_t period);

private:
    void resetLocked(int64_t period) REQUIRES(mQ2QMutex);
    void sampleLocked(int64_t now) REQUIRES(mQ2QMutex);
    bool pausedBefore(int64_t now) const REQUIRES(mQ2QMutex);

    mutable std::mutex mQ2QMutex;
    int64_t mAvgQ2QPeriod GUARDED_BY(mQ2QMutex) = 0;
    int64_t mCurrentPeriod GUARDED_BY(mQ2QMutex) = 0;
    int64_t mLastQueueTime GUARDED_BY(mQ2QMutex) = -1;
    std::vector<int64_t> mQ2QDurations GUARDED_BY(mQ2QMutex);
    uint64_t mQ2QIndex GUARDED_BY(mQ2QMutex) = 0;
    uint64_t mMaxQueueCount GUARDED_BY(mQ2QMutex) = 0;
    // Stored and traced under mQ2QMutex, in step with the ring.
    PeltoTracedOrdinal<int64_t> mQ2QFps GUARDED_BY(mQ2QMutex);
};

} // namespace android
