#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <vector>

#include <android-base/thread_annotations.h>
#include <binder/IBinder.h>
#include <ui/Fence.h>
#include <utils/StrongPointer.h>

#include "config/PeltoConfig.h"
#include "controller/PeltoExport.h"
#include "controller/PeltoLayer.h"
#include "trace/PeltoTracedOrdinal.h"

namespace android {

namespace scheduler {
class PeltoTimer;
} // namespace scheduler

// The controller's mode state.
enum class PeltoState : int32_t {
    Off = 0,
    On = 1,
    TempOff = 2,
};

// "Off", "On", "Temp Off", or "Unknown" for any other value.
const char* peltoStateName(int32_t state);

// One element of a transaction: layer handle, has-buffer flag, an unused flag, fence.
using PeltoTransactionState = std::tuple<sp<IBinder>, bool, bool, sp<Fence>>;

// Decides, composition by composition, whether the hardware composer runs in
// its content-paced (Pelto) mode, measures the active target layer's
// queue-to-queue pace and asks the compositor for vsync callbacks.
//
// Lock order. A thread that holds one of these never takes one listed above it:
//   mCompositionMutex  serialises compositions; held across the whole of
//                      composite(), including the host's traversal and the
//                      HWC on/off callbacks, so that state changes and HWC
//                      toggles happen in one order.
//   mConfigMutex       held by everything that uses rule records or the registry
//                      as a whole (composition, registration, destroy, dump,
//                      reload), so a reload replaces the rules and re-registers
//                      every layer as one step that nobody observes half done.
//   mLayerMutex        the registry; held across the host's buffer-layer traversal.
//   leaf locks         mQ2QMutex, mPresentFenceMutex, mSFInProgressMutex,
//                      mAlarmListMutex, mFenceMutex: never two at once.
// Host callbacks are called with no lock held, except: the traversals and the
// HWC callbacks (under mCompositionMutex, and mLayerMutex for the buffer-layer
// traversal and reasons 413/455) and mGetCurrentVsyncPeriod (under mQ2QMutex
// when the pacing ring is reset). No callback may call back into the controller.
class PeltoController {
public:
    using GetLayerPtrFromHandle = std::function<void*(const sp<IBinder>&)>;
    using GetBufferCountFromHandle = std::function<int(const sp<IBinder>&)>;
    using LayerVisitor = std::function<void(const void*)>;
    using TraverseVisibleLayers = std::function<void(LayerVisitor)>;
    using BufferLayerVisitor = std::function<void(const void*, float, bool)>;
    using TraverseVisibleBufferLayers = std::function<void(BufferLayerVisitor)>;
    using GetCurrentVsyncPeriod = std::function<long()>;
    using TriggerVsyncCallback = std::function<void(bool)>;
    using HostCallback = std::function<void()>;

    PELTO_EXPORT PeltoController(bool useList, GetLayerPtrFromHandle getLayerPtrFromHandle,
                                 GetBufferCountFromHandle getBufferCountFromHandle,
                                 TraverseVisibleLayers traverseVisibleLayers,
                                 TraverseVisibleBufferLayers traverseVisibleBufferLayers,
                                 GetCurrentVsyncPeriod getCurrentVsyncPeriod,
                                 TriggerVsyncCallback triggerVsyncCallback,
                                 HostCallback triggerEventQueueInvalidate,
                                 HostCallback setHwcPeltoOn, HostCallback setHwcPeltoOff);
    PELTO_EXPORT ~PeltoController();

    PeltoController(const PeltoController&) = delete;
    PeltoController& operator=(const PeltoController&) = delete;

    // Layer registry (list mode).
    PELTO_EXPORT void registerLayer(const void* layerPtr, const std::string& name)
            EXCLUDES(mConfigMutex, mLayerMutex);
    PELTO_EXPORT void destroyLayer(const void* layerPtr) EXCLUDES(mConfigMutex, mLayerMutex);

    // Mode state.
    PELTO_EXPORT bool isOn() const;
    PELTO_EXPORT void commit();
    PELTO_EXPORT void setHasPendingBuffer(const void* layerPtr);
    PELTO_EXPORT void setPeltoEnable(bool enable);
    PELTO_EXPORT void setTargetLayer(const void* layerPtr);
    PELTO_EXPORT void setHasOtherUI(bool hasOtherUI);
    PELTO_EXPORT void triggerVsyncCallback(bool enable);
    PELTO_EXPORT void setPeltoState(int32_t state, int32_t reason);

    // Composition-time decision.
    PELTO_EXPORT void composite(bool forceOff, bool compositeFlag, unsigned int screenArea)
            EXCLUDES(mCompositionMutex, mConfigMutex, mLayerMutex);
    PELTO_EXPORT bool isActiveTargetLayer(const void* layerPtr) const EXCLUDES(mLayerMutex);
    PELTO_EXPORT PeltoExceptionRuleInput prepareExceptionInput(const PeltoLayer& layer,
                                                               unsigned int screenArea) const;

    // Queue-to-queue pacing.
    PELTO_EXPORT void setTransactionState(const std::vector<PeltoTransactionState>& states,
                                          long timestamp) EXCLUDES(mLayerMutex, mQ2QMutex);
    PELTO_EXPORT void onActiveModeUpdated() EXCLUDES(mQ2QMutex);
    PELTO_EXPORT bool isQ2QFull() EXCLUDES(mQ2QMutex);
    PELTO_EXPORT int64_t getQ2QAvgPeriod() EXCLUDES(mQ2QMutex);
    PELTO_EXPORT void resetFps() EXCLUDES(mQ2QMutex, mPresentFenceMutex, mSFInProgressMutex);

    // Timeout and present-fence hints.
    PELTO_EXPORT void setPreviousPresentFence(const sp<Fence>& fence) EXCLUDES(mPresentFenceMutex);
    PELTO_EXPORT void setSFInProgress(bool inProgress) EXCLUDES(mSFInProgressMutex);
    PELTO_EXPORT int64_t calculateTimeout() EXCLUDES(mQ2QMutex);
    PELTO_EXPORT void timeoutCallback();
    // Body of the fence thread; returns at teardown once the queue is empty.
    PELTO_EXPORT void fenceLoop() EXCLUDES(mFenceMutex);
    // Queues a fence for the fence loop, which waits for it and then asks the
    // host for a vsync callback. Nothing in the library queues fences yet, so
    // this is not exported; it is the producer side of the loop's protocol.
    void queueFence(const sp<Fence>& fence) EXCLUDES(mFenceMutex);

    // Diagnostics.
    PELTO_EXPORT void dump(std::string& out) const
            EXCLUDES(mConfigMutex, mLayerMutex, mQ2QMutex);
    PELTO_EXPORT void reloadConfigThenDump(std::string& out)
            EXCLUDES(mConfigMutex, mLayerMutex);

private:
    void compositeList(unsigned int screenArea) REQUIRES(mCompositionMutex)
            EXCLUDES(mConfigMutex, mLayerMutex);
    void compositeApi() REQUIRES(mCompositionMutex);
    void setActiveTargetLayer(const PeltoLayer& layer) REQUIRES(mLayerMutex);
    void registerLayerLocked(const void* layerPtr, const std::string& name)
            REQUIRES(mConfigMutex) EXCLUDES(mLayerMutex);
    void addActiveTargetLayerQueueTS() EXCLUDES(mQ2QMutex);
    void resetFpsLocked() REQUIRES(mQ2QMutex);
    void cancelPendingAlarms() EXCLUDES(mAlarmListMutex);
    void startFenceThread();
    void visitBufferLayerLocked(const void* layerPtr, float area, bool focused)
            REQUIRES(mCompositionMutex, mLayerMutex);
    void dumpLayersLocked(std::ostream& os) const REQUIRES(mLayerMutex);

    std::unique_ptr<PeltoConfig> mConfig;
    const bool mUseList;

    // Rule records are used under this lock; see the lock order above.
    mutable std::mutex mConfigMutex ACQUIRED_BEFORE(mLayerMutex);

    mutable std::mutex mLayerMutex;
    std::list<PeltoLayer> mLayers GUARDED_BY(mLayerMutex);
    int32_t mTargetCandidateCount GUARDED_BY(mLayerMutex) = 0;
    // First record of each registered layer pointer, kept in step with mLayers,
    // so that per-frame lookups do not walk the list.
    std::unordered_map<const void*, std::list<PeltoLayer>::iterator> mLayerIndex
            GUARDED_BY(mLayerMutex);
    // isActiveTargetLayer's answer in list mode: the pointer whose first record
    // is the active target, or null. Only the records of the last pointer given
    // to setActiveTargetLayer carry the flag, so at most one pointer answers
    // true. Stored under mLayerMutex wherever that answer changes (a new active
    // target, after its reset; its destroy; a reload), so a transaction reads
    // it without the lock and sees what a lookup would have seen at that moment.
    std::atomic<const void*> mActiveTargetLayerPtr{nullptr};

    // Mode state. Each is read and written whole, without a controller lock.
    std::atomic<bool> mPeltoEnable{false};
    std::atomic<const void*> mTargetLayer{nullptr};
    PeltoTracedOrdinal<bool> mHasPendingBuffer;
    PeltoTracedOrdinal<int32_t> mState;
    std::atomic<int32_t> mStateReason{-1};
    std::atomic<int32_t> mHwcPeltoOn{0};

    std::mutex mAlarmListMutex;
    std::unique_ptr<scheduler::PeltoTimer> mPeltoTimer;
    // Alarms armed on mPeltoTimer; nothing arms it yet, so this stays empty.
    std::list<int64_t> mPendingAlarms GUARDED_BY(mAlarmListMutex);

    std::thread mFenceThread;
    std::mutex mFenceMutex;
    std::condition_variable mFenceCondition;
    std::list<sp<Fence>> mFences GUARDED_BY(mFenceMutex);
    bool mFenceLoopExit GUARDED_BY(mFenceMutex) = false;

    mutable std::mutex mQ2QMutex;
    int64_t mAvgQ2QPeriod GUARDED_BY(mQ2QMutex) = 0;
    int64_t mCurrentPeriod GUARDED_BY(mQ2QMutex) = 0;
    int64_t mLastQueueTime GUARDED_BY(mQ2QMutex) = -1;
    std::vector<int64_t> mQ2QDurations GUARDED_BY(mQ2QMutex);
    uint64_t mQ2QIndex GUARDED_BY(mQ2QMutex) = 0;
    uint64_t mMaxQueueCount GUARDED_BY(mQ2QMutex) = 0;
    PeltoTracedOrdinal<int64_t> mQ2QFps GUARDED_BY(mQ2QMutex);

    // Written only during construction.
    std::atomic<bool> mUseAdaptiveTimeout{true};
    PeltoTracedOrdinal<bool> mHasOtherUI;
    std::atomic<bool> mCompositeFlag{false};

    std::mutex mPresentFenceMutex;
    sp<Fence> mPreviousPresentFence GUARDED_BY(mPresentFenceMutex);

    std::mutex mSFInProgressMutex;
    bool mSFInProgress GUARDED_BY(mSFInProgressMutex) = false;

    // One visit of the list-mode traversal: the layer's record, and the area
    // and focus that the visit reported (a layer visited twice keeps each
    // visit's own). The record stays in place while the composition holds
    // mConfigMutex, since every operation that adds, removes or rebuilds
    // records takes it; so the decision reads it after mLayerMutex is
    // released, without a copy of the record made under the lock.
    struct VisitedLayer {
        const PeltoLayer* record;
        float area;
        bool focused;
    };
    // Working lists of one list-mode composition, by type, in traversal
    // order. Cleared, not freed, so that a steady composition allocates nothing.
    struct CompositionScratch {
        std::vector<VisitedLayer> targetCandidates;
        std::vector<VisitedLayer> otherLayers;
        std::vector<VisitedLayer> ignoreLayers;
        std::vector<VisitedLayer> exceptionLayers;
        // Position of the active target in targetCandidates, or kNoActiveTarget.
        size_t activeTarget = 0;
    };
    static constexpr size_t kNoActiveTarget = static_cast<size_t>(-1);
    std::mutex mCompositionMutex ACQUIRED_BEFORE(mConfigMutex);
    CompositionScratch mScratch GUARDED_BY(mCompositionMutex);

    const GetLayerPtrFromHandle mGetLayerPtrFromHandle;
    const GetBufferCountFromHandle mGetBufferCountFromHandle;
    const TraverseVisibleLayers mTraverseVisibleLayers;
    const TraverseVisibleBufferLayers mTraverseVisibleBufferLayers;
    const GetCurrentVsyncPeriod mGetCurrentVsyncPeriod;
    const TriggerVsyncCallback mTriggerVsyncCallback;
    const HostCallback mTriggerEventQueueInvalidate;
    const HostCallback mSetHwcPeltoOn;
    const HostCallback mSetHwcPeltoOff;
};

} // namespace android
