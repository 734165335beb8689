#define LOG_TAG "PeltoController"

#include <cmath>
#include <limits>

#include <utils/Timers.h>

#include "controller/PeltoController.h"
#include "trace/PeltoTraceLog.h"

namespace android {
namespace {

// A sample that comes more than this many vsync periods after the previous
// one starts the measurement afresh.
constexpr int64_t kPausePeriods = 10;
// The ring needs this many durations before it reports an average.
constexpr size_t kMinDurationsForAverage = 5;

// Half the refresh rate: the ring spans about half a second of vsyncs.
// Periods of 0, below 0 or above half a second give 0.
uint64_t queueCapacityFor(int64_t period) {
    if (period <= 0) {
        return 0;
    }
    const float perSecond = 1e9f / static_cast<float>(period);
    if (!(perSecond < 18446744073709551616.0f)) {  // 2^64
        return 0;
    }
    return static_cast<uint64_t>(perSecond) >> 1;
}

int64_t saturatingSub(int64_t a, int64_t b) {
    int64_t result;
    if (__builtin_sub_overflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    }
    return result;
}

int64_t pauseThreshold(int64_t period) {
    int64_t threshold;
    if (__builtin_mul_overflow(period, kPausePeriods, &threshold)) {
        return period < 0 ? std::numeric_limits<int64_t>::min()
                          : std::numeric_limits<int64_t>::max();
    }
    return threshold;
}

} // namespace

void PeltoController::resetFps() {
    {
        std::lock_guard lock(mQ2QMutex);
        resetFpsLocked();
    }
    {
        std::lock_guard lock(mPresentFenceMutex);
        mPreviousPresentFence = nullptr;
    }
    {
        std::lock_guard lock(mSFInProgressMutex);
        mSFInProgress = false;
    }
}

void PeltoController::resetFpsLocked() {
    traceLog("pelto2_sf_lib: resetFpsLocked");
    const int64_t period = mGetCurrentVsyncPeriod();
    mAvgQ2QPeriod = 0;
    mQ2QDurations.clear();  // keeps the allocation
    mCurrentPeriod = period;
    mLastQueueTime = -1;
    mQ2QIndex = 0;
    mMaxQueueCount = queueCapacityFor(period);
}

void PeltoController::addActiveTargetLayerQueueTS() {
    const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
    std::lock_guard lock(mQ2QMutex);

    if (saturatingSub(now, mLastQueueTime) > pauseThreshold(mCurrentPeriod)) {
        resetFpsLocked();
    }

    if (mLastQueueTime < 0) {
        mLastQueueTime = now;
        mQ2QFps = 0;  // stores and traces in one step of the value's own lock
        return;
    }

    const int64_t duration = saturatingSub(now, mLastQueueTime);
    mLastQueueTime = now;

    // A zero capacity (no usable vsync period) keeps no durations.
    if (mMaxQueueCount > 0) {
        if (mQ2QDurations.size() != mMaxQueueCount) {
            mQ2QDurations.push_back(duration);
            mQ2QIndex = (mQ2QIndex + 1) % mQ2QDurations.size();
        } else {
            mQ2QIndex = (mQ2QIndex + 1) % mQ2QDurations.size();
            mQ2QDurations[mQ2QIndex] = duration;
        }
    }

    int64_t fps = 0;
    if (mQ2QDurations.size() >= kMinDurationsForAverage) {
        int64_t sum = 0;
        for (const int64_t d : mQ2QDurations) {
            sum += d;
        }
        mAvgQ2QPeriod = sum / static_cast<int64_t>(mQ2QDurations.size());
        if (mAvgQ2QPeriod != 0) {
            const float rate = 1e9f / static_cast<float>(mAvgQ2QPeriod);
            fps = std::isfinite(rate) ? static_cast<int64_t>(rate) : 0;
        }
    } else {
        mAvgQ2QPeriod = 0;
    }
    mQ2QFps = fps;
}

int64_t PeltoController::getQ2QAvgPeriod() {
    std::lock_guard lock(mQ2QMutex);
    return mAvgQ2QPeriod;
}

bool PeltoController::isQ2QFull() {
    const int64_t avgPeriod = getQ2QAvgPeriod();
    if (avgPeriod != 0) {
        const auto period = static_cast<double>(mGetCurrentVsyncPeriod());
        if (period * 1.1 > static_cast<double>(avgPeriod)) {
            traceLog("pelto2_sf_lib: isQ2QFull, return true, avgQ2QPeriod=%ld",
                     static_cast<long>(avgPeriod));
            return true;
        }
    }
    traceLog("pelto2_sf_lib: isQ2QFull, return false, avgQ2QPeriod=%ld",
             static_cast<long>(avgPeriod));
    return false;
}

void PeltoController::onActiveModeUpdated() {
    traceLog("pelto2_sf_lib: onActiveModeUpdated");
    resetFps();
}

void PeltoController::setTransactionState(const std::vector<PeltoTransactionState>& states,
                                          long timestamp) {
    if (!isOn()) {
        return;
    }
    traceLog("pelto2_sf_lib: setTransactionState, enter");

    for (const PeltoTransactionState& state : states) {
        // The host's vector holds a strong reference to the element's handle
        // and fence for the whole call, so the element is looked at through
        // those: a reference of our own would cost atomic operations on every
        // element and change nothing.
        const sp<IBinder>& handle = std::get<0>(state);

        if (handle == nullptr) {
            if (std::get<1>(state)) {
                traceLog("pelto2_sf_lib: setTransactionState, Transaction with buffer, but no "
                         "Layer?");
            } else {
                traceLog("pelto2_sf_lib: setTransactionState, no layerPtr");
            }
            continue;
        }

        const void* layerPtr = mGetLayerPtrFromHandle(handle);
        if (layerPtr == nullptr) {
            traceLog("pelto2_sf_lib: setTransactionState, no layerPtr");
            continue;
        }
        if (!isActiveTargetLayer(layerPtr)) {
            continue;
        }

        // Only the first element of the active target is judged.
        addActiveTargetLayerQueueTS();

        const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
        const int64_t period = mGetCurrentVsyncPeriod();
        // The average only feeds the gated line below, so it is read (under
        // mQ2QMutex, with the sample just taken) only when that line is written.
        const bool debug = peltoDebugEnabled();
        const int64_t avgPeriod = debug ? getQ2QAvgPeriod() : 0;
        const int32_t bufferCount = mGetBufferCountFromHandle(handle);

        const int64_t duration = saturatingSub(now, timestamp);
        const auto periodThreshold = static_cast<int64_t>(static_cast<float>(period) * 0.9f);
        if (debug) {
            const auto q2QThreshold =
                    static_cast<int64_t>(static_cast<float>(avgPeriod) * 0.85f);
            traceLog("pelto2_sf_lib: setTransactionState, duration=%ld, periodThreshold=%ld, "
                     "q2QThreshold=%ld, bufferCount=%d",
                     static_cast<long>(duration), static_cast<long>(periodThreshold),
                     static_cast<long>(q2QThreshold), bufferCount);
        }

        if (bufferCount > 1) {
            traceLog("pelto2_sf_lib: setTransactionState, leave with bufferCount > 1");
        } else if (duration >= periodThreshold) {
            traceLog("pelto2_sf_lib: setTransactionState, leave with triggerVsyncCallback");
            mTriggerVsyncCallback(true);
        } else {
            traceLog("pelto2_sf_lib: setTransactionState, leave with q2q too fast, duration < "
                     "periodThreshold");
        }
        return;
    }
    traceLog("pelto2_sf_lib: setTransactionState, leave");
}

} // namespace android
