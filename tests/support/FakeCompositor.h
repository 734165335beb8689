#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <binder/IBinder.h>

#include "controller/PeltoController.h"

namespace android::test {

// Plays the compositor for controller tests: answers the nine callbacks from
// state the test sets, and records every call the controller makes.
class FakeCompositor {
public:
    struct VisibleLayer {
        const void* layerPtr;
        float area = 0.0f;
        bool focused = false;
    };

    static constexpr long kPeriod60Hz = 16'666'666;

    FakeCompositor();

    // The controller in the given mode with all nine callbacks, its threads
    // making `platform`'s calls.
    std::unique_ptr<PeltoController> create(bool useList,
                                            const PeltoController::PlatformCalls& platform = {});

    // The nine callbacks, for tests that build a controller by hand.
    PeltoController::GetLayerPtrFromHandle getLayerPtrFromHandle();
    PeltoController::GetBufferCountFromHandle getBufferCountFromHandle();
    PeltoController::TraverseVisibleLayers traverseVisibleLayers();
    PeltoController::TraverseVisibleBufferLayers traverseVisibleBufferLayers();
    PeltoController::GetCurrentVsyncPeriod getCurrentVsyncPeriod();
    PeltoController::TriggerVsyncCallback triggerVsyncCallback();
    PeltoController::HostCallback triggerEventQueueInvalidate();
    PeltoController::HostCallback setHwcPeltoOn();
    PeltoController::HostCallback setHwcPeltoOff();

    void setVsyncPeriod(long period);
    // Visible buffer layers, in traversal order (list mode).
    void setVisibleBufferLayers(std::vector<VisibleLayer> layers);
    // Visible layers, in traversal order (API mode).
    void setVisibleLayers(std::vector<const void*> layers);
    // A binder handle that names layerPtr (null: a handle of no layer).
    sp<IBinder> handleFor(const void* layerPtr, int bufferCount = 1);
    void setBufferCount(const sp<IBinder>& handle, int bufferCount);

    // What the controller asked for.
    int vsyncPeriodCalls() const;
    std::vector<bool> vsyncCallbacks() const;
    std::vector<std::string> hwcCalls() const; // "on" / "off", in order
    int otherCalls() const; // traversals, handle lookups, buffer counts, invalidates
    // Period reads ("period"), vsync requests ("vsync") and HWC calls ("on",
    // "off"), in the order they came.
    std::vector<std::string> timeline() const;
    // Waits (bounded) until at least n vsync callbacks were requested.
    bool waitForVsyncCallbacks(size_t n, std::chrono::seconds limit = std::chrono::seconds(10));
    void clearRecords();

private:
    mutable std::mutex mMutex;
    std::condition_variable mCondition;
    long mPeriod = kPeriod60Hz;
    std::vector<VisibleLayer> mVisibleBufferLayers;
    std::vector<const void*> mVisibleLayers;
    std::map<const IBinder*, std::pair<const void*, int>> mHandles;
    int mVsyncPeriodCalls = 0;
    int mOtherCalls = 0;
    std::vector<bool> mVsyncCallbacks;
    std::vector<std::string> mHwcCalls;
    std::vector<std::string> mTimeline;
};

// The state and reason as the dump shows them, for example "On 551".
std::string dumpedState(const PeltoController& controller);

} // namespace android::test
