#define LOG_TAG "PeltoController"

#include "controller/PeltoController.h"

#include <pthread.h>
#include <unistd.h>

#include <future>
#include <utility>

#include <log/log.h>

#include "scheduler/PeltoTimer.h"

namespace android {
namespace {

constexpr int kFenceThreadFifoPriority = 2;
// The platform's urgent-display niceness (HAL_PRIORITY_URGENT_DISPLAY).
constexpr int kUrgentDisplayNice = -8;

} // namespace

PeltoController::PeltoController(bool useList, GetLayerPtrFromHandle getLayerPtrFromHandle,
                                 GetBufferCountFromHandle getBufferCountFromHandle,
                                 TraverseVisibleLayers traverseVisibleLayers,
                                 TraverseVisibleBufferLayers traverseVisibleBufferLayers,
                                 GetCurrentVsyncPeriod getCurrentVsyncPeriod,
                                 TriggerVsyncCallback triggerVsyncCallback,
                                 HostCallback triggerEventQueueInvalidate,
                                 HostCallback setHwcPeltoOn, HostCallback setHwcPeltoOff)
      : PeltoController(useList, std::move(getLayerPtrFromHandle),
                        std::move(getBufferCountFromHandle), std::move(traverseVisibleLayers),
                        std::move(traverseVisibleBufferLayers), std::move(getCurrentVsyncPeriod),
                        std::move(triggerVsyncCallback), std::move(triggerEventQueueInvalidate),
                        std::move(setHwcPeltoOn), std::move(setHwcPeltoOff), PlatformCalls{}) {}

PeltoController::PeltoController(bool useList, GetLayerPtrFromHandle getLayerPtrFromHandle,
                                 GetBufferCountFromHandle getBufferCountFromHandle,
                                 TraverseVisibleLayers traverseVisibleLayers,
                                 TraverseVisibleBufferLayers traverseVisibleBufferLayers,
                                 GetCurrentVsyncPeriod getCurrentVsyncPeriod,
                                 TriggerVsyncCallback triggerVsyncCallback,
                                 HostCallback triggerEventQueueInvalidate,
                                 HostCallback setHwcPeltoOn, HostCallback setHwcPeltoOff,
                                 const PlatformCalls& platform)
      : mUseList(useList),
        mHasPendingBuffer("PeltoHasPendingBuf", false),
        mState("PeltoState", static_cast<int32_t>(PeltoState::Off)),
        mPeltoTimer(std::make_unique<scheduler::PeltoTimer>("Pelto", platform.timer)),
        mHasOtherUI("PeltoHasOtherUI", false),
        mGetLayerPtrFromHandle(std::move(getLayerPtrFromHandle)),
        mGetBufferCountFromHandle(std::move(getBufferCountFromHandle)),
        mTraverseVisibleLayers(std::move(traverseVisibleLayers)),
        mTraverseVisibleBufferLayers(std::move(traverseVisibleBufferLayers)),
        mGetCurrentVsyncPeriod(std::move(getCurrentVsyncPeriod)),
        mTriggerVsyncCallback(std::move(triggerVsyncCallback)),
        mTriggerEventQueueInvalidate(std::move(triggerEventQueueInvalidate)),
        mSetHwcPeltoOn(std::move(setHwcPeltoOn)),
        mSetHwcPeltoOff(std::move(setHwcPeltoOff)) {
    LOG_ALWAYS_FATAL_IF(mGetLayerPtrFromHandle == nullptr, "mGetLayerPtrFromHandle is nullptr");
    LOG_ALWAYS_FATAL_IF(mGetBufferCountFromHandle == nullptr,
                        "mGetBufferCountFromHandle is nullptr");
    LOG_ALWAYS_FATAL_IF(mUseList && mTraverseVisibleBufferLayers == nullptr,
                        "mTraverseVisibleBufferLayers is nullptr");
    LOG_ALWAYS_FATAL_IF(!mUseList && mTraverseVisibleLayers == nullptr,
                        "mTraverseVisibleLayers is nullptr");
    LOG_ALWAYS_FATAL_IF(mGetCurrentVsyncPeriod == nullptr, "mGetCurrentVsyncPeriod is nullptr");
    LOG_ALWAYS_FATAL_IF(mTriggerVsyncCallback == nullptr, "mTriggerVsyncCallback is nullptr");
    LOG_ALWAYS_FATAL_IF(mTriggerEventQueueInvalidate == nullptr,
                        "mTriggerEventQueueInvalidate is nullptr");
    LOG_ALWAYS_FATAL_IF(mSetHwcPeltoOn == nullptr, "mSetHwcPeltoOn is nullptr");
    LOG_ALWAYS_FATAL_IF(mSetHwcPeltoOff == nullptr, "mSetHwcPeltoOff is nullptr");

    // The working lists grow to the largest composition seen; this covers a
    // typical one from the first, so that it allocates nothing either.
    constexpr size_t kTypicalVisibleLayers = 32;
    mScratch.visits.reserve(kTypicalVisibleLayers);
    mScratch.found.reserve(kTypicalVisibleLayers);
    for (auto* list : {&mScratch.targetCandidates, &mScratch.otherLayers, &mScratch.ignoreLayers,
                       &mScratch.exceptionLayers}) {
        list->reserve(kTypicalVisibleLayers);
    }

    if (mUseList) {
        mConfig = std::make_shared<const PeltoConfig>(platform.ruleFilePath);
        mUseAdaptiveTimeout = mConfig->useAdaptiveTimeout();
    }

    resetFps();
    startFenceThread(platform.fenceThread);
}

void PeltoController::startFenceThread(const FenceThreadCalls& calls) {
#ifdef __ANDROID__
    mFenceThread = std::thread(&PeltoController::fenceLoop, this);
    const pid_t tid = pthread_gettid_np(mFenceThread.native_handle());
#else
    // glibc cannot give another thread's kernel id, so the thread reports its
    // own before it enters the loop.
    std::promise<pid_t> tidPromise;
    std::future<pid_t> tidFuture = tidPromise.get_future();
    mFenceThread = std::thread([this, &tidPromise] {
        tidPromise.set_value(gettid());
        fenceLoop();
    });
    const pid_t tid = tidFuture.get();
#endif

    // Each refusal is logged and tolerated: the loop works at any priority.
    if (calls.setName(mFenceThread.native_handle(), "PeltoFenceLoop") != 0) {
        ALOGI("pthread_setname_np fail");
    }
    if (calls.setFifoPriority(mFenceThread.native_handle(), kFenceThreadFifoPriority) != 0) {
        ALOGE("Couldn't set SCHED_FIFO for pelto_fence_loop");
    }
    if (calls.setNice(tid, kUrgentDisplayNice) == -1) {
        ALOGE("set HAL_PRIORITY_URGENT_DISPLAY fail");
    }
    if (calls.setSchedPolicy(tid, SP_FOREGROUND) == -1) {
        ALOGE("set SP_FOREGROUND fail");
    }
}

PeltoController::~PeltoController() {
    {
        std::lock_guard lock(mFenceMutex);
        mFenceLoopExit = true;
        mFenceCondition.notify_all();
    }
    mFenceThread.join();
    // The members go in reverse order of declaration: the timer joins its own
    // thread, and the configuration goes last. No host callback is called and
    // the HWC mode is left as it is.
}

} // namespace android
