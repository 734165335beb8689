#define LOG_TAG "PeltoController"

#include <cstdio>
#include <cstring>

#include <cutils/trace.h>
#include <log/log.h>
#include <utils/Timers.h>

#include "controller/PeltoController.h"
#include "trace/PeltoTraceLog.h"

namespace android {

void PeltoController::fenceLoop() {
    for (;;) {
        sp<Fence> fence;
        {
            std::unique_lock lock(mFenceMutex);
            base::ScopedLockAssertion assumeLocked(mFenceMutex);
            if (mFences.empty()) {
                // The exit flag counts only once the queue is empty, so every
                // fence queued before teardown is still waited for.
                if (mFenceLoopExit) {
                    return;
                }
                mFenceCondition.wait(lock);
                continue;
            }
            fence = std::move(mFences.front());
            mFences.pop_front();
        }
        if (fence == nullptr) {
            continue;
        }

        char name[64];
        snprintf(name, sizeof(name), "Pelto: wait fence %d\n", fence->get());
        ATRACE_BEGIN(name);
        const status_t err = fence->waitForever(name);
        if (err != 0) {
            ALOGE("Failed to wait for fence of acquire buffer: %s (%d)", strerror(-err), err);
        }
        mTriggerVsyncCallback(true);
        ATRACE_END();
    }
}

void PeltoController::queueFence(const sp<Fence>& fence) {
    {
        std::lock_guard lock(mFenceMutex);
        mFences.push_back(fence);
    }
    mFenceCondition.notify_all();
}

void PeltoController::setPreviousPresentFence(const sp<Fence>& fence) {
    std::lock_guard lock(mPresentFenceMutex);
    mPreviousPresentFence = fence;
}

void PeltoController::setSFInProgress(bool inProgress) {
    std::lock_guard lock(mSFInProgressMutex);
    mSFInProgress = inProgress;
}

int64_t PeltoController::calculateTimeout() {
    const int64_t timeout = mGetCurrentVsyncPeriod();
    ATRACE_INT64("PeltoTimeout", timeout);

    // The adaptive test below does not change the result yet: the timeout
    // stays one vsync period until an adaptive length is defined.
    if (!mHasPendingBuffer.get() && mUseAdaptiveTimeout.load() && mQ2QRing.keepsUpOrIdle()) {
        (void)systemTime(SYSTEM_TIME_MONOTONIC);
    }
    return timeout;
}

void PeltoController::timeoutCallback() {
    traceLog("pelto2_sf_lib: timeoutCallback");
    mTriggerVsyncCallback(true);
}

} // namespace android
