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
#include "controller/PeltoLayerRegistry.h"
#include "controller/PeltoQ2QRing.h"
#include "controller/PeltoTypes.h"
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
// Lock order. A thread that holds a lock takes only locks listed below it:
//   mCompositionMutex  taken by composite() alone, for the whole call: it
//                      serialises compositions and guards their scratch lists.
//   mReloadMutex       taken by reloadConfigThenDump() alone: one reload at a
//                      time. The file read and parse under it hold up nothing
//                      but another reload.
//   mLayerMutex        the registry and the rules its records point into
//                      (mConfig). A reload swaps in rules parsed beforehand and
//                      reclassifies every record under it, so nobody sees the
//                      registry half reloaded. Never held with mStateMutex.
//   mStateMutex        taken by composite() and setPeltoState(): a state
//                      change and the HWC toggle that follows it, in one order.
//   mQ2QRing's lock, mPresentFenceMutex, mSFInProgressMutex, mAlarmListMutex,
//   mFenceMutex        one at a time, under mLayerMutex or mStateMutex (a
//                      pacing reset) or alone.
//   a traced value's own lock (under mQ2QRing's lock, mStateMutex or alone) and
//   the timer's lock (under mAlarmListMutex) come last and take nothing.
//
// Host callbacks. No callback runs while the controller holds a lock that an
// entry point which does not call that callback itself also takes, so a host
// may take its own locks inside a callback and hold them across calls of any
// other entry point. Each runs on the thread of the entry point that calls it:
//   mTraverseVisibleBufferLayers  composite() (list mode); under
//                                 mCompositionMutex only. The visitor records
//                                 what it is given; the registry is read
//                                 after the traversal has returned.
//   mTraverseVisibleLayers        composite() (API mode); under mCompositionMutex only.
//   mGetCurrentVsyncPeriod        composite() (a new active target, or On to
//                                 Off), setPeltoState() (On to Off),
//                                 setTransactionState(), onActiveModeUpdated(),
//                                 setTargetLayer(), isQ2QFull(), resetFps()
//                                 and calculateTimeout(); under at most
//                                 mCompositionMutex and mStateMutex.
//   mSetHwcPeltoOn/Off            composite() and setPeltoState(); under
//                                 mStateMutex (and mCompositionMutex in composite()).
//   mGetLayerPtrFromHandle, mGetBufferCountFromHandle
//                                 setTransactionState(); no controller lock.
//   mTriggerVsyncCallback         setTransactionState(), triggerVsyncCallback()
//                                 and timeoutCallback(), and the fence thread;
//                                 no controller lock.
//   mTriggerEventQueueInvalidate  never called.
// A host that holds a plain lock of its own across an entry point must not take
// it in a callback that entry point calls, and no callback may call back into
// the controller on the same thread: neither the host's locks nor the
// controller's are recursive.
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
    // naming and priority calls and the timer's descriptor calls; and the rule
    // file that list mode loads at construction and on every reload.
    struct PlatformCalls {
        FenceThreadCalls fenceThread = realFenceThreadCalls();
        scheduler::TimerSyscalls timer = scheduler::realTimerSyscalls();
        std::string ruleFilePath = PeltoConfig::kDefaultPath;
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
    // As above, with the controller's threads making `platform`'s calls and
    // list mode loading `platform.ruleFilePath`: how tests and the fuzzer make
    // those calls fail and bring rule files of their own. Not exported.
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
    // on On -> Off and switches the HWC when crossing On. Serialised with the
    // compositions' state changes, so the HWC toggles follow them in order.
    PELTO_EXPORT void setPeltoState(int32_t state, int32_t reason) EXCLUDES(mStateMutex);

    // Composition-time decision.
    // Decides the state for this composition (forceOff: Off, reason 360).
    PELTO_EXPORT void composite(bool forceOff, bool compositeFlag, unsigned int screenArea)
            EXCLUDES(mCompositionMutex, mLayerMutex, mStateMutex);
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
    PELTO_EXPORT void reloadConfigThenDump(std::string& out) EXCLUDES(mReloadMutex, mLayerMutex);

private:
    // A state and the reason stored with it.
    struct Decision {
        PeltoState state;
        PeltoReason reason;
    };
    void setPeltoStateLocked(int32_t state, int32_t reason) REQUIRES(mStateMutex);
    // The decision of one composition in each mode; nullopt leaves the state as it is.
    std::optional<Decision> decideList(unsigned int screenArea) REQUIRES(mCompositionMutex)
            EXCLUDES(mLayerMutex);
    Decision decideApi() REQUIRES(mCompositionMutex);
    // Sorts the layers the traversal reported by their records' types.
    void classifyVisitsLocked() REQUIRES(mCompositionMutex, mLayerMutex);
    // Logs the visits that classifyVisitsLocked() could not sort.
    void logUnsortedVisitsLocked() REQUIRES(mCompositionMutex, mLayerMutex);
    Decision applyRulesLocked(unsigned int screenArea) REQUIRES(mCompositionMutex, mLayerMutex);
    // resetFps() with the period already read from the host.
    void resetFpsWith(int64_t period) EXCLUDES(mPresentFenceMutex, mSFInProgressMutex);
    // The registry for its lock-free query, isActiveTarget().
    const PeltoLayerRegistry& registryLockFree() const NO_THREAD_SAFETY_ANALYSIS {
        return mRegistry;
    }
    void cancelPendingAlarms() EXCLUDES(mAlarmListMutex);
    void startFenceThread(const FenceThreadCalls& calls);

    const bool mUseList;

    // Serialises reloads; see the lock order above.
    std::mutex mReloadMutex ACQUIRED_BEFORE(mLayerMutex);

#ifdef PELTO_REGISTRY_STD_MUTEX
    mutable std::mutex mLayerMutex;
#else
    // Polls for up to 10 us before it sleeps: no hold is longer than sorting
    // one composition's visible layers, copying 64 records for a dump or
    // swapping in reloaded rules, and a composition that slept would lose
    // 20-40 us to the wake-up. Against std::mutex, in one run of
    // scripts/measure-registry-lock.sh (bench/README.md, three rounds each),
    // the composite p99.9 was 4.5-5.2 us against 3.9-42.3 us beside dumps of
    // 2,000 layers and 5.4-5.9 us against 8.7-22.4 us beside registration
    // bursts, but 9.7-14.3 us against 4.6-6.2 us beside reloads of 100 KB rules.
    mutable SpinThenBlockMutex mLayerMutex;
#endif
    // The rules in use (list mode). Immutable once published: a reload builds
    // new rules aside and swaps the pointer, and a dump formats the rules it
    // took a reference to without holding the lock.
    std::shared_ptr<const PeltoConfig> mConfig GUARDED_BY(mLayerMutex);
    PeltoLayerRegistry mRegistry GUARDED_BY(mLayerMutex);

    // Mode state. Each is read and written whole, without a controller lock.
    std::atomic<bool> mPeltoEnable{false};
    std::atomic<const void*> mTargetLayer{nullptr};
    // Serialises state changes with the HWC toggles that follow them.
    std::mutex mStateMutex;
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

    // One layer the list-mode traversal reported. 16 bytes, so that no
    // element straddles two cache lines: the visitor stores one per layer.
    // Built in place (emplace_back): a copy of a temporary is read back whole
    // before its fields' stores have landed, which stalls every append.
    struct Visit {
        Visit(const void* layerPtr, float area, bool focused)
              : layerPtr(layerPtr), area(area), focused(focused) {}
        const void* layerPtr;
        float area;
        bool focused;
    };
    // A visit sorted by its record's type: the record, and the area and focus
    // that the visit reported (a layer visited twice keeps each visit's own).
    // The record stays in place while the composition holds mLayerMutex.
    struct VisitedLayer {
        VisitedLayer(const PeltoLayer* record, float area, bool focused)
              : record(record), area(area), focused(focused) {}
        const PeltoLayer* record;
        float area;
        bool focused;
    };
    // Working lists of one list-mode composition, in traversal order. Cleared,
    // not freed, so that a steady composition allocates nothing.
    struct CompositionScratch {
        std::vector<Visit> visits;
        std::vector<VisitedLayer> targetCandidates;
        std::vector<VisitedLayer> otherLayers;
        std::vector<VisitedLayer> ignoreLayers;
        std::vector<VisitedLayer> exceptionLayers;
        // The record each visit's layer had at the last sorting, reused while
        // the registry's generation stands: most compositions show the same
        // layers in the same order, and this skips their index lookups.
        struct Found {
            Found(const void* layerPtr, PeltoLayer* record) : layerPtr(layerPtr), record(record) {}
            const void* layerPtr;
            PeltoLayer* record;
        };
        std::vector<Found> found;
        uint64_t foundGeneration = 0;
        // Position of the active target in targetCandidates, or kNoActiveTarget.
        size_t activeTarget = 0;
        // Visits of unregistered layers or of records of no known type.
        size_t unsorted = 0;
    };
    static constexpr size_t kNoActiveTarget = static_cast<size_t>(-1);
    std::mutex mCompositionMutex ACQUIRED_BEFORE(mReloadMutex, mStateMutex);
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
