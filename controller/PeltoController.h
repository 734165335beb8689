#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
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
#include "controller/FenceThreadCalls.h"
#include "controller/PeltoExport.h"
#include "controller/PeltoLayer.h"
#include "controller/PeltoTypes.h"
#include "controller/PeltoLayerRegistry.h"
#include "controller/PeltoQ2QRing.h"
#include "controller/SpinThenBlockMutex.h"
#include "scheduler/TimerSyscalls.h"
#include "trace/PeltoTracedOrdinal.h"

namespace android {

namespace scheduler {
class PeltoTimer;
} // namespace scheduler

// One element of a transaction: layer handle, has-buffer flag, an unused flag, fence.
using PeltoTransactionState = std::tuple<sp<IBinder>, bool, bool, sp<Fence>>;

// Decides, composition by composition, whether the hardware composer runs in
// its content-paced (Pelto) mode, measures the active target layer's
// queue-to-queue pace and asks the compositor for vsync callbacks.
//
// Lock order. A thread that holds one of these never takes one listed above it:
//   mCompositionMutex  taken by composite() alone, for the whole call: it
//                      serialises compositions, so state changes and the HWC
//                      toggles that follow them happen in one order.
//   mReloadMutex       taken by reloadConfigThenDump() alone: one reload at a
//                      time. Never on a per-frame path, so the file read and
//                      parse under it hold up nothing but another reload.
//   mLayerMutex        the registry and the rules its records point into
//                      (mConfig); held across the host's buffer-layer traversal
//                      and the list-mode decision. A reload swaps in rules
//                      parsed beforehand and reclassifies every record under
//                      it, so nobody sees the registry half reloaded.
//   leaf locks         mQ2QRing's mQ2QMutex, mPresentFenceMutex, mSFInProgressMutex,
//                      mAlarmListMutex, mFenceMutex: never two at once.
//
// Which lock each host callback runs under:
//   mTraverseVisibleBufferLayers  mCompositionMutex and mLayerMutex.
//   mTraverseVisibleLayers        mCompositionMutex.
//   mSetHwcPeltoOn/Off            mCompositionMutex only, which no entry point
//                                 but composite() takes: a host may take its
//                                 own locks in them and call any other entry
//                                 point while holding those locks.
//   mGetCurrentVsyncPeriod        mQ2QMutex when the pacing ring is reset, and
//                                 mLayerMutex too when a new active target
//                                 resets it during a list-mode composition.
//   the others                    no controller lock.
// No callback may call back into the controller on the same thread.
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

    // The platform calls the controller's own threads make: the fence thread's
    // naming and priority calls and the timer's descriptor calls.
    struct PlatformCalls {
        FenceThreadCalls fenceThread = realFenceThreadCalls();
        scheduler::TimerSyscalls timer = scheduler::realTimerSyscalls();
    };

    // Starts the fence thread and the timer; every callback but the traversal
    // of the other mode must be set.
    PELTO_EXPORT PeltoController(bool useList, GetLayerPtrFromHandle getLayerPtrFromHandle,
                                 GetBufferCountFromHandle getBufferCountFromHandle,
                                 TraverseVisibleLayers traverseVisibleLayers,
                                 TraverseVisibleBufferLayers traverseVisibleBufferLayers,
                                 GetCurrentVsyncPeriod getCurrentVsyncPeriod,
                                 TriggerVsyncCallback triggerVsyncCallback,
                                 HostCallback triggerEventQueueInvalidate,
                                 HostCallback setHwcPeltoOn, HostCallback setHwcPeltoOff);
    // As above, with the controller's threads making `platform`'s calls: how
    // tests and the fuzzer make them fail. Not exported.
    PeltoController(bool useList, GetLayerPtrFromHandle getLayerPtrFromHandle,
                    GetBufferCountFromHandle getBufferCountFromHandle,
                    TraverseVisibleLayers traverseVisibleLayers,
                    TraverseVisibleBufferLayers traverseVisibleBufferLayers,
                    GetCurrentVsyncPeriod getCurrentVsyncPeriod,
                    TriggerVsyncCallback triggerVsyncCallback,
                    HostCallback triggerEventQueueInvalidate, HostCallback setHwcPeltoOn,
                    HostCallback setHwcPeltoOff, const PlatformCalls& platform);
    // Ends and joins the fence thread and the timer's thread.
    PELTO_EXPORT ~PeltoController();

    PeltoController(const PeltoController&) = delete;
    PeltoController& operator=(const PeltoController&) = delete;

    // Layer registry (list mode; both do nothing in API mode).
    // Adds a record for layerPtr, classified by the rules through its name.
    PELTO_EXPORT void registerLayer(const void* layerPtr, const std::string& name)
            EXCLUDES(mLayerMutex);
    // Removes every record of layerPtr.
    PELTO_EXPORT void destroyLayer(const void* layerPtr) EXCLUDES(mLayerMutex);

    // Mode state and hints. None takes a controller lock.
    // Whether the state is On.
    PELTO_EXPORT bool isOn() const;
    // A composition was committed: while On, no buffer of the target is pending.
    PELTO_EXPORT void commit();
    // A buffer of layerPtr is pending; only the API-mode target counts.
    PELTO_EXPORT void setHasPendingBuffer(const void* layerPtr);
    // API mode: whether the host allows Pelto mode at all.
    PELTO_EXPORT void setPeltoEnable(bool enable);
    // API mode: the layer whose visibility decides; a new one resets the pace.
    PELTO_EXPORT void setTargetLayer(const void* layerPtr);
    // Whether other UI is on screen, as the host sees it (traced only).
    PELTO_EXPORT void setHasOtherUI(bool hasOtherUI);
    // Passes `enable` to the host's vsync callback.
    PELTO_EXPORT void triggerVsyncCallback(bool enable);
    // Records a new state with its reason, logs and traces it, resets the pace
    // on On -> Off and switches the HWC when crossing On. Only a composition
    // changes the state, so the HWC toggles follow the state changes in order.
    PELTO_EXPORT void setPeltoState(int32_t state, int32_t reason) REQUIRES(mCompositionMutex);

    // Composition-time decision.
    // Decides the state for this composition (forceOff: Off, reason 360).
    PELTO_EXPORT void composite(bool forceOff, bool compositeFlag, unsigned int screenArea)
            EXCLUDES(mCompositionMutex, mLayerMutex);
    // Whether layerPtr is the layer being paced. Lock-free: per transaction.
    PELTO_EXPORT bool isActiveTargetLayer(const void* layerPtr) const EXCLUDES(mLayerMutex);
    // The rule input of a record: its area as a percentage of screenArea, and its focus.
    PELTO_EXPORT PeltoExceptionRuleInput prepareExceptionInput(const PeltoLayer& layer,
                                                               unsigned int screenArea) const;

    // Queue-to-queue pacing.
    // Samples the active target's pace from a transaction while On, and may
    // ask the host for a vsync callback at once.
    PELTO_EXPORT void setTransactionState(const std::vector<PeltoTransactionState>& states,
                                          long timestamp) EXCLUDES(mLayerMutex);
    // The display mode changed: the pace is measured afresh.
    PELTO_EXPORT void onActiveModeUpdated();
    // Whether the measured pace keeps up with the display's current period.
    PELTO_EXPORT bool isQ2QFull();
    // The average queue-to-queue period in ns, 0 until measured.
    PELTO_EXPORT int64_t getQ2QAvgPeriod();
    // Empties the pacing ring and clears the present-fence and in-progress hints.
    PELTO_EXPORT void resetFps() EXCLUDES(mPresentFenceMutex, mSFInProgressMutex);

    // Timeout and present-fence hints.
    // Stores the previous composition's present fence.
    PELTO_EXPORT void setPreviousPresentFence(const sp<Fence>& fence) EXCLUDES(mPresentFenceMutex);
    // Stores whether the compositor is working on a frame.
    PELTO_EXPORT void setSFInProgress(bool inProgress) EXCLUDES(mSFInProgressMutex);
    // The timeout for a pending frame: one vsync period, traced as "PeltoTimeout".
    PELTO_EXPORT int64_t calculateTimeout();
    // Asks the host for a vsync callback, as when the timeout expires.
    PELTO_EXPORT void timeoutCallback();
    // Body of the fence thread; returns at teardown once the queue is empty.
    PELTO_EXPORT void fenceLoop() EXCLUDES(mFenceMutex);
    // Queues a fence for the fence loop, which waits for it and then asks the
    // host for a vsync callback. Nothing in the library queues fences yet, so
    // this is not exported; it is the producer side of the loop's protocol.
    void queueFence(const sp<Fence>& fence) EXCLUDES(mFenceMutex);

    // Diagnostics.
    // Appends the rules, the layer sections and the status block.
    PELTO_EXPORT void dump(std::string& out) const EXCLUDES(mLayerMutex);
    // Reloads the rule file, appends the outcome and the new rules, and
    // classifies every layer again.
    PELTO_EXPORT void reloadConfigThenDump(std::string& out)
            EXCLUDES(mReloadMutex, mLayerMutex);

private:
    // A state and the reason stored with it.
    struct Decision {
        PeltoState state;
        PeltoReason reason;
    };
    void setPeltoState(Decision decision) REQUIRES(mCompositionMutex) {
        setPeltoState(static_cast<int32_t>(decision.state), static_cast<int32_t>(decision.reason));
    }
    // The decision of one composition in each mode; nullopt leaves the state as it is.
    std::optional<Decision> decideList(unsigned int screenArea) REQUIRES(mCompositionMutex)
            EXCLUDES(mLayerMutex);
    Decision decideApi() REQUIRES(mCompositionMutex);
    Decision applyRulesLocked(unsigned int screenArea) REQUIRES(mCompositionMutex, mLayerMutex);
    // The registry for its lock-free query, isActiveTarget().
    const PeltoLayerRegistry& registryLockFree() const NO_THREAD_SAFETY_ANALYSIS {
        return mRegistry;
    }
    void cancelPendingAlarms() EXCLUDES(mAlarmListMutex);
    void startFenceThread(const FenceThreadCalls& calls);
    void visitBufferLayerLocked(const void* layerPtr, float area, bool focused)
            REQUIRES(mCompositionMutex, mLayerMutex);

    const bool mUseList;

    // Serialises reloads; see the lock order above.
    std::mutex mReloadMutex ACQUIRED_BEFORE(mLayerMutex);

    // Polls briefly before it sleeps: registrations hold it for well under a
    // microsecond, and a composition that slept on it would lose tens.
    mutable SpinThenBlockMutex mLayerMutex;
    // The rules in use (list mode). Immutable once published: a reload builds
    // new rules aside and swaps the pointer, and a dump formats the rules it
    // took a reference to without holding the lock.
    std::shared_ptr<const PeltoConfig> mConfig GUARDED_BY(mLayerMutex);
    PeltoLayerRegistry mRegistry GUARDED_BY(mLayerMutex);

    // Mode state. Each is read and written whole, without a controller lock.
    std::atomic<bool> mPeltoEnable{false};
    std::atomic<const void*> mTargetLayer{nullptr};
    PeltoTracedOrdinal<bool> mHasPendingBuffer;
    PeltoTracedOrdinal<int32_t> mState;
    // The state and the reason it was set with, published as one value after
    // mState, so that a reader on another thread never pairs a state with
    // another state's reason. The state is in the high half.
    static constexpr int32_t kStateOn = static_cast<int32_t>(PeltoState::On);
    static constexpr uint64_t packStateAndReason(int32_t state, int32_t reason) {
        return uint64_t{static_cast<uint32_t>(state)} << 32 | static_cast<uint32_t>(reason);
    }
    std::atomic<uint64_t> mStateAndReason{packStateAndReason(0, -1)};
    // 1 once mSetHwcPeltoOn has returned, 0 once mSetHwcPeltoOff has.
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

    PeltoQ2QRing mQ2QRing;

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
    // mLayerMutex, which covers the traversal and the decision.
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
    std::mutex mCompositionMutex ACQUIRED_BEFORE(mReloadMutex);
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
