#define LOG_TAG "PeltoController"

#include <log/log.h>

#include "controller/PeltoController.h"
#include "scheduler/PeltoTimer.h"
#include "trace/PeltoTraceLog.h"

namespace android {

bool PeltoController::isOn() const {
    return mState.get() == kStateOn;
}

void PeltoController::commit() {
    if (isOn()) {
        mHasPendingBuffer = false;
    }
}

void PeltoController::setHasPendingBuffer(const void* layerPtr) {
    if (layerPtr == mTargetLayer.load()) {
        mHasPendingBuffer = true;
    }
}

void PeltoController::setPeltoEnable(bool enable) {
    if (mUseList) {
        ALOGE("api no effect under use list");
    }
    mPeltoEnable = enable;
}

void PeltoController::setTargetLayer(const void* layerPtr) {
    if (mUseList) {
        ALOGE("api no effect under use list");
    }
    if (layerPtr != mTargetLayer.load()) {
        resetFps();
        mTargetLayer = layerPtr;
    }
}

void PeltoController::setHasOtherUI(bool hasOtherUI) {
    mHasOtherUI = hasOtherUI;
}

void PeltoController::triggerVsyncCallback(bool enable) {
    mTriggerVsyncCallback(enable);
}

void PeltoController::setPeltoState(int32_t state, int32_t reason) {
    std::lock_guard lock(mStateMutex);
    setPeltoStateLocked(state, reason);
}

void PeltoController::setPeltoStateLocked(int32_t state, int32_t reason) {
    const int32_t oldState = mState.get();
    if (state != oldState) {
        char text[96];
        snprintf(text, sizeof(text), "setPeltoState, %s -> %s, %d\n", peltoStateName(oldState),
                 peltoStateName(state), reason);
        traceLog("pelto2_sf_lib: %s", text);
        ALOGI("%s", text);

        mState = state;
        mStateAndReason = packStateAndReason(state, reason);

        if (oldState == kStateOn && state == static_cast<int32_t>(PeltoState::Off)) {
            cancelPendingAlarms();
            const char* kReRegister = "from on to off, re-register vsync\n";
            traceLog("pelto2_sf_lib: %s", kReRegister);
            ALOGI("%s", kReRegister);
            resetFps();
        }
    }

    // mHwcPeltoOn records what the host has done, so it changes only once the
    // host's callback has returned. A callback that throws leaves it
    // disagreeing with the state, and the next call mends that.
    const int32_t hwcOn = state == kStateOn ? 1 : 0;
    if (hwcOn != mHwcPeltoOn.load()) {
        if (hwcOn) {
            mSetHwcPeltoOn();
        } else {
            mSetHwcPeltoOff();
        }
        mHwcPeltoOn = hwcOn;
    }
}

void PeltoController::cancelPendingAlarms() {
    std::lock_guard lock(mAlarmListMutex);
    if (!mPendingAlarms.empty()) {
        mPeltoTimer->alarmCancel();
        mPendingAlarms.clear();
    }
}

} // namespace android
