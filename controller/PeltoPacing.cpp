#define LOG_TAG "PeltoController"

#include <cmath>
#include <limits>

#include <utils/Timers.h>

#include "controller/PeltoController.h"
#include "controller/SaturatingSub.h"
#include "trace/PeltoTraceLog.h"

namespace android {
namespace {

// A transaction this close to a whole vsync period after the host stamped it
// asks for a vsync callback at once.
constexpr float kVsyncRequestFraction = 0.9f;
// Shown beside it in the debug line: a duration this far under the average
// pace would count as too fast.
constexpr float kQ2QTooFastFraction = 0.85f;

} // namespace

void PeltoController::resetFps() {
    // The host's period is read before any controller lock is taken.
    resetFpsWith(mGetCurrentVsyncPeriod());
}

void PeltoController::resetFpsWith(int64_t period) {
    mQ2QRing.reset(period);
    {
        std::lock_guard lock(mPresentFenceMutex);
        mPreviousPresentFence = nullptr;
    }
    {
        std::lock_guard lock(mSFInProgressMutex);
        mSFInProgress = false;
    }
}

int64_t PeltoController::getQ2QAvgPeriod() {
    return mQ2QRing.avgPeriod();
}

bool PeltoController::isQ2QFull() {
    const int64_t avgPeriod = getQ2QAvgPeriod();
    if (avgPeriod != 0) {
        if (PeltoQ2QRing::keepsUp(mGetCurrentVsyncPeriod(), avgPeriod)) {
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
                traceLog(
                        "pelto2_sf_lib: setTransactionState, Transaction with buffer, but no "
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
        mQ2QRing.sample(systemTime(SYSTEM_TIME_MONOTONIC), mGetCurrentVsyncPeriod);

        const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
        const int64_t period = mGetCurrentVsyncPeriod();
        // The average only feeds the gated line below, so it is read (under
        // the ring's lock, with the sample just taken) only when that line is written.
        const bool debug = peltoDebugEnabled();
        const int64_t avgPeriod = debug ? getQ2QAvgPeriod() : 0;
        const int32_t bufferCount = mGetBufferCountFromHandle(handle);

        const int64_t duration = saturatingSub(now, timestamp);
        const auto periodThreshold =
                static_cast<int64_t>(static_cast<float>(period) * kVsyncRequestFraction);
        if (debug) {
            const auto q2QThreshold =
                    static_cast<int64_t>(static_cast<float>(avgPeriod) * kQ2QTooFastFraction);
            traceLog(
                    "pelto2_sf_lib: setTransactionState, duration=%ld, periodThreshold=%ld, "
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
            traceLog(
                    "pelto2_sf_lib: setTransactionState, leave with q2q too fast, duration < "
                    "periodThreshold");
        }
        return;
    }
    traceLog("pelto2_sf_lib: setTransactionState, leave");
}

} // namespace android
